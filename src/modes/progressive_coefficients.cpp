// Progressive coefficient decoding: one block's share of one progressive
// scan (ISO/IEC 10918-1 Annex G.1.2, Huffman coding): DC first scans, DC
// refinement, AC first scans (spectral selection) and AC refinement
// (successive approximation). Values are stored, shifted left by Al, into a
// 64-entry natural-order block of the coefficient memory; dequantization
// happens at output. Band positions go through the zig-zag table and stay
// below 80: its 16-entry tail absorbs runs that overshoot the band.
#include <string.h>

#include "core/api_checks.h"
#include "core/tables.h"
#include "modes/progressive.h"
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
uint32_t levelEntry(const JpgHuffLevel &level, uint32_t window) {
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

// The bit reader's state for the length of one routine call, written back
// to the handle when the call ends.
struct Bits : BitState {
    explicit Bits(JpgParam *param) : BitState(param) {}
    Bits(const Bits &) = delete;
    ~Bits() { store(); }
};

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
[[gnu::always_inline]] inline Symbol decodeSymbol(Bits &bits, const JpgHuffmanTable *table) {
    bits.need(16);
    uint32_t entry = lookupCode(table, bits.peek(16));
    uint32_t n = entryBits(entry);
    if (entry == kInvalidEntry || n == 0 || n > 16)
        return {false, 0, 0, 0};
    bits.skip(static_cast<int32_t>(n));
    Symbol symbol{true, entryRun(entry), entrySize(entry), entryValue(entry)};
    if (symbol.size != 0 && symbol.value == 0) {
        // A long code: its entry carries the symbol only.
        int32_t raw = static_cast<int32_t>(bits.receive(static_cast<int32_t>(symbol.size)));
        const int32_t *pair = tableTestShift[symbol.size];
        symbol.value = raw < pair[0] ? raw + pair[1] : raw;
    }
    return symbol;
}

// The coefficient at zig-zag position k of a block (k < 80).
inline int16_t &at(int16_t *block, uint32_t k) { return block[kZigzag[static_cast<int>(k)]]; }

// Successive-approximation correction of one coefficient that is already
// non-zero (G.1.2.3): a 1 bit adds p away from zero, unless bit p is set.
inline void correct(Bits &bits, int16_t &coef, int32_t p) {
    if (bits.receive(1) != 0 && (coef & p) == 0)
        coef = static_cast<int16_t>(coef >= 0 ? coef + p : coef - p);
}

// End of band in a refinement scan: corrections for the non-zero
// coefficients from k to Se, then one block of the run is used up.
JpgStatus refineEndOfBand(JpgParam *param, Bits &bits, int16_t *block, uint32_t k, uint32_t run) {
    const int32_t p = 1 << param->scanAl;
    const uint32_t se = param->scanSe;
    for (; k <= se; k++) {
        int16_t &coef = at(block, k);
        if (coef != 0)
            correct(bits, coef, p);
    }
    param->eobRun = static_cast<int32_t>(run - 1);
    return JPG_STATUS_OK;
}

// AC refinement after the EOB-run check (G.1.2.3, Figure G.7 and the
// procedure it refers to).
JpgStatus refineBand(JpgParam *param, Bits &bits, int16_t *block, JpgComponent *comp) {
    const uint32_t se = param->scanSe;
    const int32_t p = 1 << param->scanAl;
    const int32_t m = static_cast<int32_t>(~0u << param->scanAl);
    uint32_t k = param->scanSs;
    if (k > se)
        return JPG_STATUS_OK;
    for (;;) {
        // A window that is no code reads as an end of band of one block.
        Symbol symbol = decodeSymbol(bits, comp->acTable);
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
            return refineEndOfBand(param, bits, block, k, run);
        }
        for (; k <= se; k++) {
            int16_t &coef = at(block, k);
            if (coef != 0)
                correct(bits, coef, p);
            else if (r-- == 0)
                break;
        }
        if (newValue != 0)
            at(block, k) = static_cast<int16_t>(newValue);  // k <= Se + 1 <= 64
        if (++k > se)
            return JPG_STATUS_OK;
    }
}

bool validArguments(JpgParam *param, const int16_t *block) {
    return param != nullptr && block != nullptr;  // the handle passed its guard
}

JpgStatus dcRefinementRoutine(JpgParam *param, int16_t *block, JpgComponent *) {
    return jpgReadGetProgressiveDCDiffCoefficient(param, block);
}

}  // namespace

JpgCoefficientFunc progressiveCoefficientRoutine(uint8_t ss, uint8_t se, uint8_t ah) {
    if (ss == 0 && se == 0)
        return ah == 0 ? jpgReadGetProgressiveDCBaseCoefficient : dcRefinementRoutine;
    return ah == 0 ? jpgReadGetProgressiveACBaseCoefficient : jpgReadGetProgressiveACDiffCoefficient;
}

}  // namespace kiv

using namespace kiv;

extern "C" {

// DC first scan (G.1.2.1): the block starts empty; the DC difference is
// added to the component's predictor and stored shifted by Al. A window
// that is no code leaves the block empty and consumes nothing.
JpgStatus jpgReadGetProgressiveDCBaseCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block) || comp == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    memset(block, 0, 64 * sizeof(int16_t));
    Bits bits(param);
    Symbol symbol = decodeSymbol(bits, comp->dcTable);
    if (!symbol.valid)
        return JPG_STATUS_OK;
    // Unsigned arithmetic: the predictor wraps instead of overflowing.
    uint32_t predictor = static_cast<uint32_t>(comp->dcPred) + static_cast<uint32_t>(symbol.value);
    comp->dcPred = static_cast<int32_t>(predictor);
    block[0] = static_cast<int16_t>(predictor << param->scanAl);
    return JPG_STATUS_OK;
}

// DC refinement (G.1.2.1): one raw bit, the next lower bit of the DC value.
JpgStatus jpgReadGetProgressiveDCDiffCoefficient(JpgParam *param, int16_t *block) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block))
        return JPG_STATUS_INVALID_HANDLE;
    Bits bits(param);
    if (bits.receive(1) != 0)
        block[0] = static_cast<int16_t>(block[0] | (1 << param->scanAl));
    return JPG_STATUS_OK;
}

// AC first scan (G.1.2.2): run/size symbols over the band Ss..Se, with
// end-of-band runs that cover the following blocks of the scan.
JpgStatus jpgReadGetProgressiveACBaseCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block) || comp == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->eobRun > 0) {
        param->eobRun--;
        return JPG_STATUS_OK;
    }
    const uint32_t se = param->scanSe;
    if (se > kLastZigzag)
        return JPG_STATUS_BAD_DATA;
    Bits bits(param);
    for (uint32_t k = param->scanSs; k <= se;) {
        Symbol symbol = decodeSymbol(bits, comp->acTable);
        if (!symbol.valid)
            return bits.ended() ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_BAD_AC_CODE;
        if (symbol.size != 0) {
            k += symbol.run;  // at most 63 + 15
            at(block, k) = static_cast<int16_t>(static_cast<uint32_t>(symbol.value) << param->scanAl);
            k++;
        } else if (symbol.run == 15) {
            k += 16;
        } else {
            uint32_t r = symbol.run;
            uint32_t run = (1u << r) - 1;
            if (r > 0)
                run += bits.receive(static_cast<int32_t>(r));
            param->eobRun = static_cast<int32_t>(run);
            return JPG_STATUS_OK;
        }
    }
    return JPG_STATUS_OK;
}

// AC refinement (G.1.2.3): newly significant coefficients of magnitude
// 1 << Al, and one correction bit for every coefficient already non-zero.
JpgStatus jpgReadGetProgressiveACDiffCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (!validArguments(param, block) || comp == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->scanSe > kLastZigzag)
        return JPG_STATUS_BAD_DATA;
    Bits bits(param);
    if (param->eobRun > 0)
        return refineEndOfBand(param, bits, block, param->scanSs, static_cast<uint32_t>(param->eobRun));
    return refineBand(param, bits, block, comp);
}

}  // extern "C"
