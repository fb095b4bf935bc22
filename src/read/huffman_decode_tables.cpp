// Huffman code tables: turns the BITS/HUFFVAL lists of a DHT segment into a
// canonical code list (ISO/IEC 10918-1 Annex C) and up to three levels of
// direct lookups whose entries carry symbol, consumed bits and, for short
// codes, the EXTENDed coefficient value (Annex F.2.2.1) as well.
// Invariant for every decoder: a level whose entries pointer is null has
// limit 0 at level 1 (never chosen) and must be treated as "no code" below it.
#include <string.h>

#include "core/api_checks.h"
#include "core/codec.h"
#include "core/tables.h"

namespace {

constexpr uint32_t kInvalidEntry = 0xFFFF0000u;
constexpr uint32_t kDcFirstLevelBound = 9;   // composite length (code + magnitude bits)
constexpr uint32_t kAcFirstLevelBound = 11;
constexpr uint32_t kAcSecondLevelBound = 11; // after discounting up to five leading ones

// The code list as it is being built: left-aligned 16-bit codes.
struct CodeList {
    JpgHuffmanCode *codes;
    uint32_t count;
    bool ac;
};

uint32_t magnitudeSize(const CodeList &list, uint32_t i) { return list.codes[i].symbol & 15u; }

uint32_t compositeLength(const CodeList &list, uint32_t i) {
    return list.codes[i].length + magnitudeSize(list, i);
}

uint32_t leadingOnes(uint32_t leftAligned16) {
    uint32_t n = 0;
    while (n < 16 && (leftAligned16 & (0x8000u >> n)))
        n++;
    return n;
}

void setAbsent(JpgHuffLevel &level, uint32_t limit) {
    level.entries = nullptr;
    level.mask = 0xFFFF;
    level.shift = 0;
    level.count = 0;
    level.limit = limit;
}

void releaseLevel(JpgParam *param, JpgHuffLevel &level, uint32_t limit) {
    if (level.entries != nullptr)
        jpgMemFree(param, level.entries);
    setAbsent(level, limit);
}

// Gives the level an array of count entries. AC arrays are kept when their
// size does not change; DC arrays are allocated afresh for every definition.
bool allocateLevel(JpgParam *param, JpgHuffLevel &level, uint32_t count, bool keep) {
    if (keep && level.entries != nullptr && level.count == count)
        return true;
    releaseLevel(param, level, 0);
    level.entries = static_cast<uint32_t *>(jpgMemAlloc(param, count * 4));
    if (level.entries == nullptr)
        return false;
    level.count = count;
    return true;
}

// A run of equal entries, in a loop the compiler turns into vector stores.
void fillEntries(uint32_t *to, uint32_t count, uint32_t entry) {
    for (uint32_t *end = to + count; to != end; to++)
        *to = entry;
}

// Writes the entries of codes [first, end) into a level of width W (index =
// (code & mask) >> shift), composite entries when `composite`, else
// symbol-only; every other entry is invalid. False when a fill would pass the
// end of the array.
bool fillLevel(JpgHuffLevel &level, const CodeList &list, uint32_t first, uint32_t end,
               uint32_t width, bool composite) {
    uint32_t *e = level.entries;
    uint32_t n = level.count;
    uint32_t at = (list.codes[first].code & level.mask) >> level.shift;
    if (at > n)
        return false;
    fillEntries(e, at, kInvalidEntry);
    for (uint32_t i = first; i < end; i++) {
        uint32_t length = list.codes[i].length;
        uint32_t symbol = list.codes[i].symbol;
        uint32_t size = composite ? magnitudeSize(list, i) : 0;
        uint32_t repeat = 1u << (width - length - size);
        for (uint32_t m = 0; m < (1u << size); m++) {
            uint32_t entry = (symbol << 8) | (length + size);
            if (size > 0)
                entry |= static_cast<uint32_t>(kiv::extend(static_cast<int32_t>(m), size)) << 16;
            if (repeat > n - at)
                return false;
            fillEntries(e + at, repeat, entry);
            at += repeat;
        }
    }
    fillEntries(e + at, n - at, kInvalidEntry);
    return true;
}

// Level 1: the longest prefix of codes whose composite length stays within
// the bound, looked up with W = their largest composite length. Returns the
// index of the first code it does not take.
JpgStatus buildFirstLevel(JpgParam *param, JpgHuffmanTable &t, const CodeList &list,
                          uint32_t *taken) {
    uint32_t bound = list.ac ? kAcFirstLevelBound : kDcFirstLevelBound;
    uint32_t end = 0, width = 0;
    while (end < list.count && compositeLength(list, end) <= bound) {
        if (compositeLength(list, end) > width)
            width = compositeLength(list, end);
        end++;
    }
    *taken = end;
    JpgHuffLevel &level = t.level[0];
    if (end == 0) {  // nothing short enough: level 1 is never chosen
        if (list.ac)
            releaseLevel(param, level, 0);
        else
            setAbsent(level, 0);
        return JPG_STATUS_OK;
    }
    if (!allocateLevel(param, level, 1u << width, list.ac))
        return JPG_STATUS_NO_MEMORY;
    level.mask = 0xFFFF;
    level.shift = 16 - width;
    uint32_t next = end < list.count ? list.codes[end].code : 0x10000u;
    level.limit = next >> level.shift;
    return fillLevel(level, list, 0, end, width, true) ? JPG_STATUS_OK : JPG_STATUS_BAD_DATA;
}

// A lower level over codes [first, end) with window width W: mask off the p
// leading ones all these codes share, index by the next W - p bits.
JpgStatus buildLowerLevel(JpgParam *param, JpgHuffLevel &level, const CodeList &list,
                          uint32_t first, uint32_t end, uint32_t width, bool composite) {
    uint32_t p = leadingOnes(list.codes[first].code);
    if (width < p || width > 16)
        return JPG_STATUS_BAD_DATA;
    if (!allocateLevel(param, level, 1u << (width - p), list.ac))
        return JPG_STATUS_NO_MEMORY;
    level.mask = 0xFFFFu >> p;
    level.shift = 16 - width;
    level.limit = end < list.count ? list.codes[end].code : 0x10000u;
    return fillLevel(level, list, first, end, width, composite) ? JPG_STATUS_OK
                                                                : JPG_STATUS_BAD_DATA;
}

uint32_t longestLength(const CodeList &list, uint32_t first) {
    uint32_t width = 0;
    for (uint32_t i = first; i < list.count; i++)
        width = list.codes[i].length > width ? list.codes[i].length : width;
    return width;
}

// DC: one more level, symbol-only, for every code level 1 left.
JpgStatus buildDcLevels(JpgParam *param, JpgHuffmanTable &t, const CodeList &list,
                        uint32_t first) {
    setAbsent(t.level[2], 0x10000);
    if (first == list.count) {
        setAbsent(t.level[1], 0x10000);
        return JPG_STATUS_OK;
    }
    return buildLowerLevel(param, t.level[1], list, first, list.count,
                           longestLength(list, first), false);
}

// AC: level 2 takes composite entries while the composite length, less up to
// five shared leading ones, stays within 11 bits; level 3 takes the rest,
// symbol-only. An empty level 2 is never chosen (its limit is the first code
// of level 3), so the long codes of optimised tables reach level 3.
JpgStatus buildAcLevels(JpgParam *param, JpgHuffmanTable &t, const CodeList &list,
                        uint32_t first) {
    if (first == list.count) {
        releaseLevel(param, t.level[1], 0x10000);
        releaseLevel(param, t.level[2], 0x10000);
        return JPG_STATUS_OK;
    }
    uint32_t p = leadingOnes(list.codes[first].code);
    uint32_t discount = p < 5 ? p : 5;
    uint32_t width = first > 0 ? compositeLength(list, first - 1) : 0;
    uint32_t end = first;
    while (end < list.count && compositeLength(list, end) - discount <= kAcSecondLevelBound) {
        if (compositeLength(list, end) > width)
            width = compositeLength(list, end);
        end++;
    }
    JpgStatus status = JPG_STATUS_OK;
    if (end == first)
        releaseLevel(param, t.level[1], list.codes[first].code);
    else
        status = buildLowerLevel(param, t.level[1], list, first, end, width, true);
    if (status != JPG_STATUS_OK)
        return status;
    if (end == list.count) {
        releaseLevel(param, t.level[2], 0x10000);
        return JPG_STATUS_OK;
    }
    status = buildLowerLevel(param, t.level[2], list, end, list.count, longestLength(list, end),
                             false);
    t.level[2].limit = 0x10000;
    return status;
}

// Code lengths and canonical codes (Annex C, Figures C.1 and C.2), left-aligned.
JpgStatus assignCodes(JpgHuffmanTable &t, const uint8_t *tableDefinition, uint32_t count) {
    uint32_t n = 0, code = 0, longest = 0;
    for (uint32_t length = 1; length <= 16; length++) {
        for (uint32_t j = 0; j < tableDefinition[length - 1]; j++) {
            if (n >= 255 || n >= count || code >= (1u << length))
                return JPG_STATUS_BAD_DATA;
            t.codes[n].code = code << (16 - length);
            t.codes[n].symbol = tableDefinition[16 + n];
            t.codes[n].length = static_cast<uint16_t>(length);
            longest = length;
            n++;
            code++;
        }
        code <<= 1;
    }
    t.codes[n].code = 0;
    t.codes[n].symbol = 0;
    t.codes[n].length = 0;
    t.numCodes = n;
    t.maxLength = longest;
    return JPG_STATUS_OK;
}

JpgStatus buildLevels(JpgParam *param, JpgHuffmanTable &t, const CodeList &list) {
    uint32_t taken = 0;
    JpgStatus status = buildFirstLevel(param, t, list, &taken);
    if (status != JPG_STATUS_OK)
        return status;
    return list.ac ? buildAcLevels(param, t, list, taken) : buildDcLevels(param, t, list, taken);
}

}  // namespace

extern "C" {

JpgStatus jpgGenerateHuffmanTable(JpgParam *param, const uint8_t *tableDefinition, uint32_t count) {
    if (jpgCheckParam(param) == nullptr || tableDefinition == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    uint32_t classId = tableDefinition[272];
    if ((classId & 15) > 3 || count > 256)
        return JPG_STATUS_BAD_DATA;
    bool ac = classId >= 16;
    JpgHuffmanTable &t = ac ? param->acTables[classId & 3] : param->dcTables[classId & 3];
    jpgMemFree(param, t.codes);
    jpgMemFree(param, t.symbolIndex);
    t.codes = nullptr;
    t.symbolIndex = nullptr;
    t.numCodes = 0;
    if (!ac) {  // DC level arrays are rebuilt for every definition
        for (JpgHuffLevel &level : t.level)
            releaseLevel(param, level, 0);
    }
    t.codes = static_cast<JpgHuffmanCode *>(jpgMemAlloc(param, (count + 1) * 8));
    if (t.codes == nullptr)
        return JPG_STATUS_NO_MEMORY;
    JpgStatus status = assignCodes(t, tableDefinition, count);
    if (status == JPG_STATUS_OK)
        status = buildLevels(param, t, CodeList{t.codes, t.numCodes, ac});
    t.slowMaxLength = ac ? 16 : t.maxLength;
    for (uint32_t i = 0; i < t.numCodes; i++)
        t.codes[i].code >>= 16 - t.codes[i].length;
    if (status != JPG_STATUS_OK) {  // leave nothing a decoder could index
        for (JpgHuffLevel &level : t.level)
            releaseLevel(param, level, 0);
        t.numCodes = 0;
    }
    return status;
}

// Symbol index by code prefix (2^L bytes, L the longest code length), for
// every table defined since the last scan.
JpgStatus jpgReadInitializeDecVLCTable(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (param->frameMarker < 0xFFC0 || param->frameMarker > 0xFFC3)
        return JPG_STATUS_NOT_SUPPORTED;
    if (param->dhtList[0] < 0)
        return JPG_STATUS_FAILED;
    for (int i = 0; i < 8 && param->dhtList[i] >= 0; i++) {
        uint32_t classId = static_cast<uint32_t>(param->dhtList[i]);
        JpgHuffmanTable &t = classId > 15 ? param->acTables[classId & 3]
                                          : param->dcTables[classId & 3];
        uint32_t longest = t.maxLength > 16 ? 16 : t.maxLength;
        jpgMemFree(param, t.symbolIndex);
        t.symbolIndex = static_cast<uint8_t *>(jpgMemAlloc(param, 1u << longest));
        if (t.symbolIndex == nullptr)
            return JPG_STATUS_NO_MEMORY;
        memset(t.symbolIndex, 0xFF, 1u << longest);
        uint32_t size = 1u << longest;
        for (uint32_t c = 0; t.codes != nullptr && c < t.numCodes; c++) {
            uint32_t spread = longest - t.codes[c].length;
            uint32_t start = (t.codes[c].code << spread) & 0xFFFF;
            if (start < size)  // every prefix of the code names symbol c
                memset(t.symbolIndex + start, static_cast<int>(c),
                       size - start < (1u << spread) ? size - start : 1u << spread);
        }
    }
    return JPG_STATUS_OK;
}

}  // extern "C"
