// Baseline coefficient decoding: Huffman-decodes 8x8 blocks (DC difference
// and prediction, AC run/size pairs; ISO/IEC 10918-1 F.2.2), dequantizes into
// natural order, and walks the blocks of one MCU through the inverse DCT with
// one load of the bit reader's state. One block decoder serves full-size and
// scaled output (the scaled one stores only the first coefficients, which
// the reduced transforms of scaled_output.cpp then turn into samples).
#include <string.h>

#include "core/api_checks.h"
#include "core/tables.h"
#include "modes/coefficient_store.h"
#include "modes/store_scans.h"
#include "read/bit_reader.h"
#include "read/front_end.h"
#include "read/inverse_dct.h"
#include "read/scaled_transforms.h"

namespace {

using kiv::BitState;

constexpr uint32_t kInvalidEntry = 0xFFFF0000u;
constexpr int32_t kWindowBits = 16;  // the longest code: levels 2 and 3 look at 16 bits

// Lookup entry fields: consumed bits, SSSS, RRRR, the EXTENDed value.
constexpr int32_t entryBits(uint32_t e) { return static_cast<int32_t>(e & 0xFF); }
constexpr uint32_t entrySize(uint32_t e) { return (e >> 8) & 15; }
constexpr uint32_t entryRun(uint32_t e) { return (e >> 12) & 15; }
constexpr int32_t entryValue(uint32_t e) { return static_cast<int16_t>(e >> 16); }

// Entry of a lower lookup level, or the invalid entry when the level is absent.
uint32_t lowerEntry(const JpgHuffLevel &level, uint32_t window) {
    uint32_t index = (window & level.mask) >> level.shift;
    return level.entries != nullptr && index < level.count ? level.entries[index] : kInvalidEntry;
}

// The first lookup level as the decoding loops use it: entries below the
// limit resolve a code (with its magnitude bits when it has any) at once.
struct FirstLevel {
    const uint32_t *entries;
    uint32_t limit;
    int32_t width;
    explicit FirstLevel(const JpgHuffLevel &level)
        : entries(level.entries), limit(level.limit),
          width(level.shift < 16 ? 16 - static_cast<int32_t>(level.shift) : 16) {}
};

JpgStatus badCode(const BitState &bits, JpgStatus status) {
    return bits.ended() ? JPG_STATUS_UNEXPECTED_END : status;
}

// RECEIVE and EXTEND (F.2.2.1) of a magnitude of `size` bits (1 to 15).
[[gnu::always_inline]] inline int32_t receiveExtend(BitState &bits, uint32_t size) {
    return kiv::extend(static_cast<int32_t>(bits.receive(static_cast<int32_t>(size))),
                       static_cast<int>(size));
}

// A DC code the first level does not take: level 2 gives SSSS, the
// magnitude bits follow. Consumes both and returns the entry with its
// value (bit count 0); the invalid entry when there is no code.
[[gnu::always_inline]] inline uint32_t decodeLongDc(BitState &bits, const JpgHuffLevel *dc) {
    bits.need(kWindowBits);
    uint32_t entry = lowerEntry(dc[1], bits.window());
    if (entry == kInvalidEntry)
        return entry;
    bits.skip(entryBits(entry));
    uint32_t size = entrySize(entry);
    int32_t value = size == 0 ? 0 : receiveExtend(bits, size);
    return static_cast<uint32_t>(value) << 16 | (entry & 0xFF00);
}

// An AC code the first level does not take, k being the zig-zag index
// reached before it: level 2 carries the value, level 3 only the symbol, and
// its magnitude bits are received only for a coefficient inside the block
// (past it the block ends without them). Consumes them and returns the entry
// with its value and bit count 0; the invalid entry when there is no code.
[[gnu::always_inline]] inline uint32_t decodeLongAc(BitState &bits, const JpgHuffLevel *ac,
                                                    uint32_t k) {
    bits.need(kWindowBits);
    uint32_t window = bits.window();
    if (window < ac[1].limit) {
        uint32_t entry = lowerEntry(ac[1], window);
        if (entry != kInvalidEntry)
            bits.skip(entryBits(entry));
        return entry & ~0xFFu;
    }
    uint32_t entry = lowerEntry(ac[2], window);
    if (entry == kInvalidEntry)
        return entry;
    bits.skip(entryBits(entry));
    uint32_t size = entrySize(entry);
    if (size == 0 || k + entryRun(entry) + 1 > 63)
        return entry & 0xFF00;
    return static_cast<uint32_t>(receiveExtend(bits, size)) << 16 | (entry & 0xFF00);
}

// The DC difference (F.2.2.1) in the value field of an entry whose bits are
// consumed; the invalid entry when there is no code. At most 16 bits are
// made valid for the first level, as the exported reader would be asked.
[[gnu::always_inline]] inline uint32_t nextDcEntry(BitState &bits, const JpgHuffLevel *dc) {
    const FirstLevel first(dc[0]);
    bits.needCode(first.width);
    uint32_t index = bits.peek(first.width);
    uint32_t entry = index < first.limit ? first.entries[index] : decodeLongDc(bits, dc);
    bits.skip(entryBits(entry));
    return entry;
}

// The next AC code at zig-zag index k, consumed, its value in the entry.
[[gnu::always_inline]] inline uint32_t nextAcEntry(BitState &bits, const FirstLevel &first,
                                                   const JpgHuffLevel *ac, uint32_t k) {
    bits.needCode(first.width);
    uint32_t index = bits.peek(first.width);
    uint32_t entry = index < first.limit ? first.entries[index] : decodeLongAc(bits, ac, k);
    bits.skip(entryBits(entry));
    return entry;
}

// An entry with SSSS = 0 at zig-zag index *k: end of block (or no code,
// which has the same fields) ends the block, ZRL skips sixteen zeros and
// ends it when that passes the last coefficient.
[[gnu::always_inline]] inline bool endsBlock(const BitState &bits, uint32_t entry, uint32_t *k,
                                             JpgStatus *status) {
    *status = JPG_STATUS_OK;
    if (entryRun(entry) == 0) {
        if (entry == kInvalidEntry)
            *status = badCode(bits, JPG_STATUS_BAD_AC_CODE);
        return true;
    }
    *k += 16;
    return *k > 63;
}

// Decodes and drops the AC codes of a block after zig-zag index k. Kept out
// of line with its own copy of the reader's state, which a loop this small
// holds in registers.
[[gnu::noinline]] JpgStatus skipAc(BitState &state, const JpgHuffLevel *ac, uint32_t k) {
    BitState bits = state;
    const FirstLevel first(ac[0]);
    JpgStatus status = JPG_STATUS_OK;
    for (;;) {
        uint32_t entry = nextAcEntry(bits, first, ac, k);
        if ((entry & 0xF00) == 0) {
            if (endsBlock(bits, entry, &k, &status))
                break;
            continue;
        }
        k += entryRun(entry) + 1;
        if (k >= 63)
            break;
    }
    state = bits;
    return status;
}

// One block (F.2.2.1, F.2.2.2): the DC difference updates the predictor,
// AC run/size pairs place values times quant (zig-zag order) in natural
// order. An over-long block ends silently. The scaled variant stores only
// the coefficients below zig-zag index `limit` and passes over the rest;
// the DC is always stored.
template <bool kScaled>
[[gnu::always_inline]] inline JpgStatus decodeBlock(BitState &bits, int16_t *block,
                                                    JpgComponent *comp, const uint32_t *quant,
                                                    uint32_t limit) {
    uint32_t entry = nextDcEntry(bits, comp->dcLookup);
    if (entry == kInvalidEntry)
        return badCode(bits, JPG_STATUS_BAD_DC_CODE);
    // A zero SSSS carries the value 0: adding it leaves the predictor as it is.
    uint32_t predictor =
        static_cast<uint32_t>(comp->dcPred) + static_cast<uint32_t>(entryValue(entry));
    comp->dcPred = static_cast<int32_t>(predictor);
    block[0] = static_cast<int16_t>(quant[0] * predictor);
    const JpgHuffLevel *ac = comp->acLookup;
    uint32_t k = 0;
    if (!kScaled || limit > 1) {
        const FirstLevel first(ac[0]);
        for (;;) {
            entry = nextAcEntry(bits, first, ac, k);
            if ((entry & 0xF00) == 0) {
                JpgStatus status;
                if (endsBlock(bits, entry, &k, &status))
                    return status;
                continue;
            }
            k += entryRun(entry) + 1;
            uint32_t value = static_cast<uint32_t>(entryValue(entry));
            if (k >= 63) {
                if (k == 63 && (!kScaled || k < limit))
                    block[63] = static_cast<int16_t>(value * quant[63]);
                return JPG_STATUS_OK;
            }
            if (kScaled && k >= limit)
                break;
            block[kiv::kZigzag[k]] = static_cast<int16_t>(value * quant[k]);
        }
    }
    return skipAc(bits, ac, k);  // scaled: the rest of the block is decoded and dropped
}

// Zeroes the 64 coefficients of a block in 16-byte pieces, which compilers
// turn into plain stores (a string instruction costs more to start up).
inline void clearBlock(int16_t *block) {
#pragma GCC unroll 8
    for (int i = 0; i < 64; i += 8)
        memset(block + i, 0, 8 * sizeof(int16_t));
}

bool hasLookups(const JpgComponent *comp) {
    return comp->dcLookup != nullptr && comp->acLookup != nullptr && comp->quant != nullptr;
}

// The exported single-block decoders: the reader's state is loaded and
// stored around the one block.
template <bool kScaled>
JpgStatus decodeSingleBlock(JpgParam *param, int16_t *block, JpgComponent *comp,
                            const uint32_t *quant, uint32_t limit) {
    if (!hasLookups(comp))
        return JPG_STATUS_FAILED;
    BitState bits(param);
    JpgStatus status = decodeBlock<kScaled>(bits, block, comp, quant, limit);
    bits.store();
    return status;
}

// The coefficient store keeps quantized values; they are dequantized at output.
constexpr kiv::Table<uint32_t, 64> makeUnitQuant() {
    kiv::Table<uint32_t, 64> t{};
    for (int k = 0; k < 64; k++)
        t.v[k] = 1;
    return t;
}
constexpr auto kUnitQuant = makeUnitQuant();

// Zig-zag positions kept per scale level: the DC; up to 4 (F11, the last
// one the 2x2 transform reads); up to 24 (F33, the last of the 4x4 corner).
constexpr uint32_t kScaledLimits[3] = {0, 5, 25};

// One block of an MCU at scale level kLevel (3: full size): cleared where
// decoding may not write what the transform reads, decoded, and at the
// scaled levels transformed (at full size the MCU's blocks are transformed
// together once all are decoded).
template <int kLevel>
[[gnu::always_inline]] inline JpgStatus decodeMcuBlock(BitState &bits, int16_t *block, JpgComponent *comp,
                                                       void (*transform)(int16_t *)) {
    if (!hasLookups(comp))
        return JPG_STATUS_FAILED;
    JpgStatus status;
    if constexpr (kLevel == 3) {
        clearBlock(block);
        status = decodeBlock<false>(bits, block, comp, comp->quant, 64);
    } else {
        if constexpr (kLevel == 1)
            block[1] = block[8] = block[9] = 0;
        else if constexpr (kLevel == 2)
            for (int i = 0; i < 32; i += 8)
                memset(block + i, 0, 8 * sizeof(int16_t));
        status = decodeBlock<true>(bits, block, comp, comp->quant, kScaledLimits[kLevel]);
    }
    if (kLevel != 3 && status == JPG_STATUS_OK) {
        if constexpr (kLevel == 0)
            kiv::reduceTo1x1(block);
        else if constexpr (kLevel == 1)
            kiv::reduceTo2x2(block);
        else if constexpr (kLevel == 2)
            transform(block);
    }
    return status;
}

// The transform of a scaled level for the handle's processor flag.
template <int kLevel>
inline void (*transformFor(const JpgParam *param))(int16_t *) {
    if constexpr (kLevel == 2)
        return kiv::reduceTo4x4For(param->processorFlag);
    else
        return nullptr;  // inline (levels 0 and 1) or the MCU's blocks together (full size)
}

// One MCU of an interleaved scan into the MCU buffer, with one load of the
// reader's state, stored before any return and before the restart
// processing reads the handle's reader. The scan's components come in scan
// order, each into its own blocks; in the usual frame order the blocks
// simply follow one another. At full size the blocks are transformed
// unless kTransform is false.
template <bool kFrameOrder, int kLevel, bool kTransform>
[[gnu::always_inline]] inline JpgStatus decodeMcu(JpgParam *param) {
    void (*const transform)(int16_t *) = transformFor<kLevel>(param);
    BitState bits(param);
    const uint32_t ns = param->scanNs;
    int16_t *block = param->mcuBuffer;
    uint32_t blocks = 0;
    for (uint32_t i = 0; i < ns; i++) {
        JpgComponent *comp = &param->components[kFrameOrder ? i : param->dec.scanComponents[i]];
        if constexpr (!kFrameOrder)
            block = param->mcuBuffer + 64 * param->dec.scanBlockStart[i];
        for (uint32_t b = 0; b < comp->blocks; b++, block += 64) {
            JpgStatus status = decodeMcuBlock<kLevel>(bits, block, comp, transform);
            if (status != JPG_STATUS_OK) {
                bits.store();
                return status;
            }
        }
        blocks += comp->blocks;
    }
    bits.store();
    // Every component is in the scan, so its blocks fill the buffer's first ones.
    if constexpr (kLevel == 3 && kTransform)
        kiv::inverseDctBlocksFor(param->processorFlag)(param->mcuBuffer, blocks);
    kiv::advanceMcuCounters(param);
    return JPG_STATUS_OK;
}

template <int kLevel, bool kTransform = true>
JpgStatus decodeSequentialMcu(JpgParam *param) {
    JpgStatus status = kiv::checkSequentialScan(param);
    if (status != JPG_STATUS_OK)
        return status;
    return param->dec.scanInFrameOrder ? decodeMcu<true, kLevel, kTransform>(param)
                                       : decodeMcu<false, kLevel, kTransform>(param);
}

// The MCU routines: full size and the three scaled levels.
template <int kLevel>
JpgStatus guardedMcu(JpgParam *param) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    return decodeSequentialMcu<kLevel>(param);
}

}  // namespace

namespace kiv {

JpgStatus checkSequentialScan(const JpgParam *param) {
    if (param->numComponents == 0 || param->blocksPerMcu == 0 || param->mcuBuffer == nullptr)
        return JPG_STATUS_FAILED;
    if (param->scanNs != param->numComponents || usesCoefficientStore(param))
        return JPG_STATUS_NOT_SUPPORTED;  // every component in the one scan
    return JPG_STATUS_OK;
}

JpgStatus decodeMcuCoefficients(JpgParam *param) { return decodeSequentialMcu<3, false>(param); }

JpgStatus decodeBlockToStore(JpgParam *param, int16_t *block, JpgComponent *comp) {
    clearBlock(block);
    return decodeSingleBlock<false>(param, block, comp, kUnitQuant.v, 64);
}

// The blocks of a sequential scan into the coefficient store, with the
// reader's state held for the whole scan.
JpgStatus decodeSequentialScan(JpgParam *param) {
    struct StoreBlocks {
        JpgParam *param;
        BitState bits;
        JpgStatus block(int16_t *block, JpgComponent *comp) {
            clearBlock(block);
            return hasLookups(comp) ? decodeBlock<false>(bits, block, comp, kUnitQuant.v, 64) : JPG_STATUS_FAILED;
        }
        void suspend() { bits.store(); }
        void resume() { bits = BitState(param); }
        bool inputEnded() const { return bits.ended(); }
    } decoder{param, BitState(param)};
    return walkScan(param, decoder);
}

}  // namespace kiv

extern "C" {

JpgStatus jpgReadGetCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (comp == nullptr)
        return JPG_STATUS_FAILED;
    return decodeSingleBlock<false>(param, block, comp, comp->quant, 64);
}

JpgStatus jpgReadGetScaleCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp,
                                     uint32_t limit) {
    if (!kiv::mayRead(param)) [[unlikely]]
        return kiv::refuseRead(param);
    if (comp == nullptr)
        return JPG_STATUS_FAILED;
    return decodeSingleBlock<true>(param, block, comp, comp->quant, limit);
}

JpgStatus jpgReadDecodeBaselineMcu(JpgParam *param) { return guardedMcu<3>(param); }
JpgStatus jpgReadScaleOutputLevel0MCU(JpgParam *param) { return guardedMcu<0>(param); }
JpgStatus jpgReadScaleOutputLevel1MCU(JpgParam *param) { return guardedMcu<1>(param); }
JpgStatus jpgReadScaleOutputLevel2MCU(JpgParam *param) { return guardedMcu<2>(param); }

JpgMcuFunc jpgGetReadMCUGenericFunc(uint32_t id) {
    switch (id) {
    case 0x001: return jpgReadScaleOutputLevel0MCU;
    case 0x101: return jpgReadScaleOutputLevel1MCU;
    case 0x201: return jpgReadScaleOutputLevel2MCU;
    case 0x301: return jpgReadDecodeBaselineMcu;
    case 0x302: return kiv::readProgressiveMCU;
    case 0x002: return kiv::readStoredMcuLevel0;
    case 0x102: return kiv::readStoredMcuLevel1;
    case 0x202: return kiv::readStoredMcuLevel2;
    default: return nullptr;
    }
}

}  // extern "C"
