// Progressive coefficient decoding: one block's share of one progressive
// scan (ISO/IEC 10918-1 Annex G.1.2, Huffman coding): DC first scans, DC
// refinement, AC first scans (spectral selection) and AC refinement
// (successive approximation). Values are stored, shifted left by Al, into a
// 64-entry natural-order block of the coefficient store; dequantization
// happens at output. Band positions go through the zig-zag table and stay
// below 80: its 16-entry tail absorbs runs that overshoot the band.
// A scan decoder keeps the bit reader's state and the EOB run for the whole
// scan; the exported one-block routines load and store them around a block.
#include <string.h>

#include "core/api_checks.h"
#include "core/tables.h"
#include "modes/progressive.h"
#include "modes/store_scans.h"
#include "read/bit_reader.h"

namespace kiv {
namespace {

constexpr uint32_t kInvalidEntry = 0xFFFF0000u;

// Lookup entry fields: consumed bits, magnitude size, run, extended value.
constexpr uint32_t entryBits(uint32_t e) { return e & 0xFF; }
constexpr uint32_t entrySize(uint32_t e) { return (e >> 8) & 0x0F; }
constexpr uint32_t entryRun(uint32_t e) { return (e >> 12) & 0x0F; }
constexpr int32_t entryValue(uint32_t e) { return static_cast<int16_t>(e >> 16); }

// Picks the entry of one lookup level; an index outside the level's array
// is no code.
inline uint32_t levelEntry(const JpgHuffLevel &level, uint32_t window) {
    uint32_t index = (window & level.mask) >> level.shift;
    return index < level.count ? level.entries[index] : kInvalidEntry;
}

// The lookup entry of the Huffman code at the front of a 16-bit window.
// Level 1 holds the short codes (its limit is a level-1 index), level 2 the
// next ones up to its left-aligned limit (0x10000 for DC tables), level 3
// the rest. Absent levels (no entries) are passed over.
[[gnu::always_inline]] inline uint32_t lookupCode(const JpgHuffmanTable *table, uint32_t window) {
    if (table == nullptr)
        return kInvalidEntry;
    const JpgHuffLevel *level = table->level;
    if (level[0].entries != nullptr && ((window & level[0].mask) >> level[0].shift) < level[0].limit)
        return levelEntry(level[0], window);
    if (level[1].entries != nullptr && window < level[1].limit)
        return levelEntry(level[1], window);
    if (level[2].entries != nullptr)
        return levelEntry(level[2], window);
    return kInvalidEntry;
}

// One decoded Huffman symbol with its magnitude, if any.
struct Symbol {
    bool valid;
    uint32_t run;
    uint32_t size;
    int32_t value;  // EXTENDed magnitude; 0 when size is 0
};

// Decodes the next symbol of a table (Annex F.2.2.3 DECODE) and, when it
// has a magnitude, RECEIVE and EXTEND (F.2.2.1). A window that is no code
// consumes nothing.
[[gnu::always_inline]] inline Symbol decodeSymbol(BitState &bits, const JpgHuffmanTable *table) {
    bits.needCode(16);
    uint32_t entry = lookupCode(table, bits.peek(16));
    uint32_t n = entryBits(entry);
    if (entry == kInvalidEntry || n == 0 || n > 16)
        return {false, 0, 0, 0};
    bits.skip(static_cast<int32_t>(n));
    Symbol symbol{true, entryRun(entry), entrySize(entry), entryValue(entry)};
    if (symbol.size != 0 && symbol.value == 0) {
        // A long code: its entry carries the symbol only.
        int32_t raw = static_cast<int32_t>(bits.receive(static_cast<int32_t>(symbol.size)));
        symbol.value = extend(raw, static_cast<int>(symbol.size));
    }
    return symbol;
}

// The coefficient at zig-zag position k of a block (k < 80).
inline int16_t &at(int16_t *block, uint32_t k) { return block[kZigzag[static_cast<int>(k)]]; }

// What the block decoders of one scan share: the reader's state, the band
// Ss..Se, the point transform Al and the EOB run, all held in registers for
// the scan and given back to the handle by suspend().
struct Band {
    JpgParam *param;
    BitState bits;
    uint32_t ss, se;
    uint32_t al;
    int32_t eobRun;

    explicit Band(JpgParam *p)
        : param(p), bits(p), ss(p->scanSs), se(p->scanSe), al(p->scanAl), eobRun(p->eobRun) {}
    void suspend() {
        bits.store();
        param->eobRun = eobRun;
    }
    void resume() {
        bits = BitState(param);
        eobRun = param->eobRun;
    }
    bool inputEnded() const { return bits.ended(); }
};

// DC first scan (G.1.2.1): the block starts empty; the DC difference is
// added to the component's predictor and stored shifted by Al. A window
// that is no code leaves the block empty and consumes nothing.
struct DcFirst : Band {
    using Band::Band;
    [[gnu::always_inline]] JpgStatus block(int16_t *block, JpgComponent *comp) {
        memset(block, 0, 64 * sizeof(int16_t));
        Symbol symbol = decodeSymbol(bits, comp->dcTable);
        if (!symbol.valid)
            return JPG_STATUS_OK;
        // Unsigned arithmetic: the predictor wraps instead of overflowing.
        uint32_t predictor = static_cast<uint32_t>(comp->dcPred) + static_cast<uint32_t>(symbol.value);
        comp->dcPred = static_cast<int32_t>(predictor);
        block[0] = static_cast<int16_t>(predictor << al);
        return JPG_STATUS_OK;
    }
};

// DC refinement (G.1.2.1): one raw bit, the next lower bit of the DC value.
struct DcRefine : Band {
    using Band::Band;
    [[gnu::always_inline]] JpgStatus block(int16_t *block, JpgComponent *) {
        if (bits.receive(1) != 0)
            block[0] = static_cast<int16_t>(block[0] | (1 << al));
        return JPG_STATUS_OK;
    }
};

// AC first scan (G.1.2.2): run/size symbols over the band Ss..Se, with
// end-of-band runs that cover the following blocks of the scan.
struct AcFirst : Band {
    using Band::Band;
    [[gnu::always_inline]] JpgStatus block(int16_t *block, JpgComponent *comp) {
        if (eobRun > 0) {
            eobRun--;
            return JPG_STATUS_OK;
        }
        if (se > kLastZigzag)
            return JPG_STATUS_BAD_DATA;
        const JpgHuffmanTable *table = comp->acTable;
        for (uint32_t k = ss; k <= se;) {
            Symbol symbol = decodeSymbol(bits, table);
            if (!symbol.valid)
                return bits.ended() ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_BAD_AC_CODE;
            if (symbol.size != 0) {
                k += symbol.run;  // at most 63 + 15
                at(block, k) = static_cast<int16_t>(static_cast<uint32_t>(symbol.value) << al);
                k++;
            } else if (symbol.run == 15) {
                k += 16;
            } else {
                uint32_t r = symbol.run;
                uint32_t run = (1u << r) - 1;
                if (r > 0)
                    run += bits.receive(static_cast<int32_t>(r));
                eobRun = static_cast<int32_t>(run);
                return JPG_STATUS_OK;
            }
        }
        return JPG_STATUS_OK;
    }
};

// The highest zig-zag position holding a non-zero coefficient, -1 for an
// empty block; a machine word of coefficients at a time, without branches:
// the word's non-zero coefficients as bits, then a table of the highest
// position among them.
using CoefficientWord = uintptr_t;
constexpr int kPerWord = sizeof(CoefficientWord) / 2;
constexpr CoefficientWord kLowBytes = ~CoefficientWord(0) / 0xFFFF * 0x00FF;
constexpr CoefficientWord kBit8 = ~CoefficientWord(0) / 0xFFFF * 0x0100;
constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

struct LastTable {
    int8_t last[64 / kPerWord][1 << kPerWord];
};

constexpr LastTable makeLastTable() {
    LastTable t{};
    for (int w = 0; w < 64 / kPerWord; w++)
        for (int bits = 0; bits < 1 << kPerWord; bits++) {
            int last = -1;
            for (int j = 0; j < kPerWord; j++) {  // bit j: the coefficient in lane j of the word
                int zigzag = kNaturalToZigzag[w * kPerWord + (kLittleEndian ? j : kPerWord - 1 - j)];
                if ((bits >> j & 1) != 0 && zigzag > last)
                    last = zigzag;
            }
            t.last[w][bits] = static_cast<int8_t>(last);
        }
    return t;
}
constexpr LastTable kLastTable = makeLastTable();

// Bit j set when 16-bit lane j of the word is non-zero.
inline uint32_t nonZeroLanes(CoefficientWord x) {
    CoefficientWord low = (x | x >> 8) & kLowBytes;  // zero exactly where the lane is
    CoefficientWord set = (low + kLowBytes) & kBit8;  // bit 8 of every non-zero lane
    if constexpr (kPerWord == 4)  // bits 8, 24, 40, 56 gathered to 59..62 by one product
        return static_cast<uint32_t>((set * ((CoefficientWord{1} << 51) | (CoefficientWord{1} << 36) |
                                             (CoefficientWord{1} << 21) | (CoefficientWord{1} << 6))) >> 59) & 15;
    else
        return static_cast<uint32_t>((set >> 8 | set >> 23) & 3);
}

inline int lastNonZero(const int16_t *block) {
    constexpr int kWordsPerRow = 8 / kPerWord;
    int last = -1;
    for (int row = 0; row < 8; row++) {
        CoefficientWord x[kWordsPerRow], any = 0;
        memcpy(x, block + 8 * row, sizeof x);
        for (int i = 0; i < kWordsPerRow; i++)
            any |= x[i];
        if (any == 0)  // most rows of a sparse block
            continue;
        for (int i = 0; i < kWordsPerRow; i++) {
            int wordLast = kLastTable.last[row * kWordsPerRow + i][nonZeroLanes(x[i])];
            last = wordLast > last ? wordLast : last;
        }
    }
    return last;
}

// AC refinement (G.1.2.3): newly significant coefficients of magnitude
// 1 << Al, and one correction bit for every coefficient already non-zero:
// a 1 bit adds 1 << Al away from zero, unless that bit is set already.
// Corrections only change non-zero coefficients and new values land behind
// the walk, so the last non-zero position found at the start of a block
// bounds every walk over it: past it, all are zero.
struct AcRefine : Band {
    using Band::Band;

    [[gnu::always_inline]] void correct(int16_t &coef, int32_t p) {
        if (bits.receive(1) != 0 && (coef & p) == 0)
            coef = static_cast<int16_t>(coef >= 0 ? coef + p : coef - p);
    }

    // Corrects the non-zero coefficients from k on and stops at the zero
    // that the run r leads to; Se + 1 when the band ends first.
    [[gnu::always_inline]] uint32_t walkToZero(int16_t *block, uint32_t k, uint32_t r, int last, int32_t p) {
        for (; k <= se; k++) {
            if (static_cast<int>(k) > last)
                return k + r <= se ? k + r : se + 1;
            int16_t &coef = at(block, k);
            if (coef != 0)
                correct(coef, p);
            else if (r-- == 0)
                return k;
        }
        return k;
    }

    // End of band: corrections for the non-zero coefficients from k to Se,
    // then one block of the run is used up.
    JpgStatus endOfBand(int16_t *block, uint32_t k, uint32_t run, int last) {
        const int32_t p = 1 << al;
        const int end = last < static_cast<int>(se) ? last : static_cast<int>(se);
        for (int i = static_cast<int>(k); i <= end; i++) {
            int16_t &coef = at(block, static_cast<uint32_t>(i));
            if (coef != 0)
                correct(coef, p);
        }
        eobRun = static_cast<int32_t>(run - 1);
        return JPG_STATUS_OK;
    }

    [[gnu::always_inline]] JpgStatus block(int16_t *block, JpgComponent *comp) {
        if (se > kLastZigzag)
            return JPG_STATUS_BAD_DATA;
        const int last = lastNonZero(block);
        if (eobRun > 0)
            return endOfBand(block, ss, static_cast<uint32_t>(eobRun), last);
        const int32_t p = 1 << al;
        const int32_t m = static_cast<int32_t>(~0u << al);
        const JpgHuffmanTable *table = comp->acTable;
        uint32_t k = ss;
        if (k > se)
            return JPG_STATUS_OK;
        for (;;) {
            // A window that is no code reads as an end of band of one block.
            Symbol symbol = decodeSymbol(bits, table);
            uint32_t r = symbol.run;
            int32_t newValue = 0;
            if (symbol.size == 1) {
                newValue = symbol.value > 0 ? p : m;
            } else if (symbol.size != 0) {
                return JPG_STATUS_ERROR;
            } else if (r < 15) {
                uint32_t run = 1u << r;
                if (r > 0)
                    run += bits.receive(static_cast<int32_t>(r));
                return endOfBand(block, k, run, last);
            }
            k = walkToZero(block, k, r, last, p);
            if (newValue != 0)
                at(block, k) = static_cast<int16_t>(newValue);  // k <= Se + 1 <= 64
            if (++k > se)
                return JPG_STATUS_OK;
        }
    }
};

bool validArguments(JpgParam *param, const int16_t *block) {
    return param != nullptr && block != nullptr;  // the handle passed its guard
}

// One block through a scan decoder, with the reader's state loaded from and
// stored back to the handle around it.
template <class Decoder>
JpgStatus oneBlock(JpgParam *param, int16_t *block, JpgComponent *comp) {
    Decoder decoder(param);
    JpgStatus status = decoder.block(block, comp);
    decoder.suspend();
    return status;
}

JpgStatus dcRefinementRoutine(JpgParam *param, int16_t *block, JpgComponent *) {
    return jpgReadGetProgressiveDCDiffCoefficient(param, block);
}

template <class Decoder>
JpgStatus walkWith(JpgParam *param) {
    Decoder decoder(param);
    return walkScan(param, decoder);
}

}  // namespace

ProgressiveScan progressiveScanKind(uint8_t ss, uint8_t se, uint8_t ah) {
    if (ss == 0 && se == 0)
        return ah == 0 ? ProgressiveScan::DcFirst : ProgressiveScan::DcRefine;
    return ah == 0 ? ProgressiveScan::AcFirst : ProgressiveScan::AcRefine;
}

JpgCoefficientFunc progressiveCoefficientRoutine(uint8_t ss, uint8_t se, uint8_t ah) {
    switch (progressiveScanKind(ss, se, ah)) {
    case ProgressiveScan::DcFirst: return jpgReadGetProgressiveDCBaseCoefficient;
    case ProgressiveScan::DcRefine: return dcRefinementRoutine;
    case ProgressiveScan::AcFirst: return jpgReadGetProgressiveACBaseCoefficient;
    default: return jpgReadGetProgressiveACDiffCoefficient;
    }
}

JpgStatus decodeProgressiveScan(JpgParam *param) {
    switch (progressiveScanKind(param->scanSs, param->scanSe, param->scanAh)) {
    case ProgressiveScan::DcFirst: return walkWith<DcFirst>(param);
    case ProgressiveScan::DcRefine: return walkWith<DcRefine>(param);
    case ProgressiveScan::AcFirst: return walkWith<AcFirst>(param);
    default: return walkWith<AcRefine>(param);
    }
}

}  // namespace kiv

using namespace kiv;

extern "C" {

JpgStatus jpgReadGetProgressiveDCBaseCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block) || comp == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    return oneBlock<DcFirst>(param, block, comp);
}

JpgStatus jpgReadGetProgressiveDCDiffCoefficient(JpgParam *param, int16_t *block) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block))
        return JPG_STATUS_INVALID_HANDLE;
    return oneBlock<DcRefine>(param, block, nullptr);
}

JpgStatus jpgReadGetProgressiveACBaseCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block) || comp == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    return oneBlock<AcFirst>(param, block, comp);
}

JpgStatus jpgReadGetProgressiveACDiffCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block) || comp == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    return oneBlock<AcRefine>(param, block, comp);
}

}  // extern "C"
