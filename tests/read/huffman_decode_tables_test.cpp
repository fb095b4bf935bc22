// Huffman decode tables: the lookup levels are checked window by window
// against a plain decoder that walks the canonical code list, on the Annex K
// tables, random valid tables and optimised tables whose long codes skip the
// second AC level.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "core/handle.h"
#include "core/tables.h"
#include "stream_builder.h"

namespace {

using kivtest::HuffmanDefinition;

struct Handle {
    JpgParam *p = jpgProlog(nullptr);
    ~Handle() { jpgEpilog(p); }
};

JpgStatus generate(JpgParam *p, const HuffmanDefinition &table, uint8_t classId) {
    auto buffer = kivtest::specBuffer(table, classId);
    return jpgGenerateHuffmanTable(p, buffer.data(), static_cast<uint32_t>(table.values.size()));
}

// What a 16-bit window starting at a code decodes to.
struct Decoded {
    bool valid = false;
    int symbol = 0;
    int codeLength = 0;
    bool hasValue = false;  // the entry carried the extended magnitude
    int value = 0;
};

// Reference: canonical codes (Annex C) and a linear search.
Decoded referenceDecode(const HuffmanDefinition &table, uint32_t window) {
    uint32_t code = 0;
    size_t k = 0;
    for (int length = 1; length <= 16; length++) {
        for (int j = 0; j < table.bits[length - 1]; j++, k++, code++) {
            if ((window >> (16 - length)) == code) {
                Decoded d;
                d.valid = true;
                d.symbol = table.values[k];
                d.codeLength = length;
                int size = d.symbol & 15;
                if (length + size <= 16) {
                    uint32_t raw = ((window << length) & 0xFFFF) >> (16 - size);
                    d.value = size ? kiv::extend(static_cast<int32_t>(raw), size) : 0;
                }
                return d;
            }
        }
        code <<= 1;
    }
    return {};
}

// The lookup rules of the block decoders.
Decoded tableDecode(const JpgHuffmanTable &t, uint32_t window, bool ac) {
    const JpgHuffLevel *lv = t.level;
    uint32_t entry;
    bool composite = true;
    uint32_t index = window >> lv[0].shift;
    if (index < lv[0].limit) {
        entry = lv[0].entries[index];
    } else {
        int level = ac && window < lv[1].limit ? 1 : ac ? 2 : 1;
        composite = ac && level == 1;
        const JpgHuffLevel &l = lv[level];
        uint32_t i = (window & l.mask) >> l.shift;
        if (l.entries == nullptr || i >= l.count)
            return {};
        entry = l.entries[i];
    }
    if (entry == 0xFFFF0000u)
        return {};
    Decoded d;
    d.valid = true;
    d.symbol = (entry >> 8) & 0xFF;
    int size = d.symbol & 15;
    int consumed = entry & 0xFF;
    d.hasValue = composite && size > 0;
    d.codeLength = d.hasValue ? consumed - size : consumed;
    d.value = d.hasValue ? static_cast<int16_t>(entry >> 16) : 0;
    return d;
}

void expectSameDecoding(const JpgHuffmanTable &t, const HuffmanDefinition &table, bool ac) {
    int mismatches = 0;
    for (uint32_t w = 0; w < 0x10000 && mismatches < 5; w++) {
        Decoded want = referenceDecode(table, w);
        Decoded got = tableDecode(t, w, ac);
        bool same = want.valid == got.valid &&
                    (!want.valid || (want.symbol == got.symbol && want.codeLength == got.codeLength &&
                                     (!got.hasValue || want.value == got.value)));
        if (!same) {
            ADD_FAILURE() << "window " << std::hex << w << ": reference valid " << want.valid << " symbol "
                          << want.symbol << " length " << std::dec << want.codeLength << ", tables valid "
                          << got.valid << " symbol " << std::hex << got.symbol << " length " << std::dec
                          << got.codeLength;
            mismatches++;
        }
    }
}

// Random complete and incomplete code spaces with random symbols.
HuffmanDefinition randomDefinition(std::mt19937 &rng, bool ac) {
    HuffmanDefinition table{};
    uint32_t room = 1;  // free codes at the current length
    int total = 0;
    int maxTotal = ac ? 162 : 12;
    for (int length = 1; length <= 16; length++) {
        room *= 2;
        uint32_t n = std::uniform_int_distribution<uint32_t>(0, std::min<uint32_t>(room - 1, 12))(rng);
        if (length == 16 || total + static_cast<int>(n) > maxTotal)
            n = std::min<uint32_t>(room - 1, static_cast<uint32_t>(maxTotal - total));
        table.bits[length - 1] = static_cast<uint8_t>(n);
        room -= n;
        total += static_cast<int>(n);
        if (total == maxTotal)
            break;
    }
    for (int i = 0; i < total; i++) {
        int size = std::uniform_int_distribution<int>(0, ac ? 10 : 11)(rng);
        int run = ac ? std::uniform_int_distribution<int>(0, 15)(rng) : 0;
        table.values.push_back(static_cast<uint8_t>(run << 4 | size));
    }
    return table;
}

// An optimised table (as jpegtran -optimize writes for smooth images) whose
// first code past level 1 already carries a large magnitude: level 2 takes
// nothing and the long codes must be found in level 3.
const HuffmanDefinition kEmptySecondLevel = {
    {0, 2, 1, 2, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3},
    {0x00, 0x01, 0x02, 0x0A, 0x11, 0x09, 0x21, 0x03, 0x31, 0x41}};

// Tables built one after the other on one handle, each checked where it
// lands: the Annex K tables (the chrominance ones over a luminance table of
// the same identifier, which they must replace), the optimised table above,
// an empty table (decodes nothing) and random valid tables.
TEST(HuffmanTables, EveryTableDecodesEveryWindow) {
    std::vector<std::pair<uint8_t, HuffmanDefinition>> tables = {
        {0x00, kivtest::kLuminanceDc},   {0x10, kivtest::kLuminanceAc},   {0x01, kivtest::kLuminanceDc},
        {0x11, kivtest::kLuminanceAc},   {0x01, kivtest::kChrominanceDc}, {0x11, kivtest::kChrominanceAc},
        {0x12, kEmptySecondLevel},       {0x13, HuffmanDefinition{}}};
    std::mt19937 rng(1234);
    for (int round = 0; round < 24; round++)
        tables.push_back({uint8_t((round % 2 ? 0x10 : 0) | round / 2 % 4), randomDefinition(rng, round % 2)});
    Handle h;
    for (size_t i = 0; i < tables.size(); i++) {
        SCOPED_TRACE("table " + std::to_string(i));
        auto &[classId, table] = tables[i];
        ASSERT_EQ(generate(h.p, table, classId), JPG_STATUS_OK);
        bool ac = classId & 0x10;
        expectSameDecoding(ac ? h.p->acTables[classId & 3] : h.p->dcTables[classId & 3], table, ac);
    }
}

TEST(HuffmanTables, BadSpecifications) {
    Handle h;
    HuffmanDefinition tooMany{};
    tooMany.bits[8] = 255;
    tooMany.bits[9] = 1;  // 256 codes
    tooMany.values.assign(256, 0x01);
    EXPECT_EQ(generate(h.p, tooMany, 0x10), JPG_STATUS_BAD_DATA);
    HuffmanDefinition overfull{};
    overfull.bits[0] = 3;  // three one-bit codes do not exist
    overfull.values = {0, 1, 2};
    EXPECT_EQ(generate(h.p, overfull, 0x00), JPG_STATUS_BAD_DATA);
    for (uint32_t w = 0; w < 0x10000; w += 7)  // nothing a decoder could take
        ASSERT_FALSE(tableDecode(h.p->dcTables[0], w, false).valid) << w;
    HuffmanDefinition counted = kivtest::kLuminanceDc;
    auto buffer = kivtest::specBuffer(counted, 0x00);
    EXPECT_EQ(jpgGenerateHuffmanTable(h.p, buffer.data(), 5), JPG_STATUS_BAD_DATA);  // BITS say 12
    EXPECT_EQ(jpgGenerateHuffmanTable(h.p, buffer.data(), 12), JPG_STATUS_OK);
    buffer[272] = 0x04;
    EXPECT_EQ(jpgGenerateHuffmanTable(h.p, buffer.data(), 12), JPG_STATUS_BAD_DATA);
}

// The symbol index by code prefix (longest code: 9 bits for DC, 16 for AC)
// names the symbol of every valid prefix; a DC prefix of no code holds 0xFF.
TEST(HuffmanTables, SymbolIndexLookup) {
    Handle h;
    h.p->frameMarker = 0xFFC0;
    h.p->dhtList[0] = 0x00, h.p->dhtList[1] = 0x10, h.p->dhtList[2] = -1;
    for (const auto &[classId, table] : {std::pair{0x00, kivtest::kLuminanceDc}, {0x10, kivtest::kLuminanceAc}})
        ASSERT_EQ(generate(h.p, table, uint8_t(classId)), JPG_STATUS_OK);
    ASSERT_EQ(jpgReadInitializeDecVLCTable(h.p), JPG_STATUS_OK);
    const HuffmanDefinition &dcTable = kivtest::kLuminanceDc, &acTable = kivtest::kLuminanceAc;
    const uint8_t *dcIndex = h.p->dcTables[0].symbolIndex, *acIndex = h.p->acTables[0].symbolIndex;
    for (uint32_t prefix = 0; prefix < 0x10000; prefix++) {
        Decoded dc = referenceDecode(dcTable, prefix << 7), ac = referenceDecode(acTable, prefix);
        if (prefix < 512)
            ASSERT_EQ(dc.valid ? dcTable.values[dcIndex[prefix]] : dcIndex[prefix], dc.valid ? dc.symbol : 0xFF)
                << prefix;
        if (ac.valid)
            ASSERT_EQ(acTable.values[acIndex[prefix]], ac.symbol) << prefix;
    }
    h.p->dhtList[0] = -1;
    EXPECT_EQ(jpgReadInitializeDecVLCTable(h.p), JPG_STATUS_FAILED);
    h.p->frameMarker = 0xFFC9;
    EXPECT_EQ(jpgReadInitializeDecVLCTable(h.p), JPG_STATUS_NOT_SUPPORTED);
}

}  // namespace
