// Baseline coefficient decoding: Huffman-decodes one 8x8 block (DC
// difference and prediction, AC run/size pairs; ISO/IEC 10918-1 F.2.2),
// dequantizes into natural order, and walks the blocks of one MCU through the
// inverse DCT. One block decoder serves full-size and scaled output (the
// scaled one stores only the first coefficients). The caller zeroes blocks.
#include <string.h>

#include "core/tables.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

constexpr uint32_t kInvalidEntry = 0xFFFF0000u;

// Entry of a lower lookup level, or the invalid entry when the level is absent.
uint32_t lowerEntry(const JpgHuffLevel &level, uint32_t window) {
    uint32_t index = (window & level.mask) >> level.shift;
    return level.entries != nullptr && index < level.count ? level.entries[index] : kInvalidEntry;
}

int32_t firstLevelWidth(const JpgHuffLevel &level) {
    return level.shift < 16 ? 16 - static_cast<int32_t>(level.shift) : 16;
}

// DC difference (F.2.2.1): composite first-level entries carry it; the
// second level gives SSSS and the magnitude bits follow.
JpgStatus decodeDc(kiv::BitState &bits, const JpgHuffLevel *dc, int32_t *difference,
                   uint32_t *size) {
    int32_t width = firstLevelWidth(dc[0]);
    bits.need(width);
    uint32_t index = bits.peek(width);
    uint32_t entry;
    bool carried = index < dc[0].limit;
    if (carried) {
        entry = dc[0].entries[index];
    } else {
        bits.need(16);
        entry = lowerEntry(dc[1], bits.acc >> 16);
    }
    if (entry == kInvalidEntry)
        return bits.ended() ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_BAD_DC_CODE;
    bits.skip(static_cast<int32_t>(entry & 0xFF));
    *size = (entry >> 8) & 15;
    if (carried || *size == 0)
        *difference = carried ? static_cast<int16_t>(entry >> 16) : 0;
    else
        *difference = kiv::extend(static_cast<int32_t>(bits.receive(static_cast<int32_t>(*size))),
                                  static_cast<int>(*size));
    return JPG_STATUS_OK;
}

// One AC lookup: the entry and whether it carries the coefficient value.
uint32_t lookupAc(kiv::BitState &bits, const JpgHuffLevel *ac, int32_t width, bool *carried) {
    bits.need(width);
    uint32_t index = bits.peek(width);
    *carried = true;
    if (index < ac[0].limit)
        return ac[0].entries[index];
    bits.need(16);
    uint32_t window = bits.acc >> 16;
    if (window < ac[1].limit)
        return lowerEntry(ac[1], window);
    *carried = false;
    return lowerEntry(ac[2], window);
}

// AC coefficients (F.2.2.2). The scaled variant decodes the coefficients at
// zig-zag index `limit` and beyond and drops them.
template <bool kScaled>
JpgStatus decodeAc(kiv::BitState &bits, const JpgHuffLevel *ac, const uint32_t *quant,
                   int16_t *block, uint32_t limit) {
    int32_t width = firstLevelWidth(ac[0]);
    uint32_t k = 0;
    for (;;) {
        bool carried;
        uint32_t entry = lookupAc(bits, ac, width, &carried);
        if (entry == kInvalidEntry)
            return bits.ended() ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_BAD_AC_CODE;
        bits.skip(static_cast<int32_t>(entry & 0xFF));
        uint32_t run = (entry >> 12) & 15, size = (entry >> 8) & 15;
        if (size == 0) {
            if (run == 0)
                return JPG_STATUS_OK;  // end of block
            k += 16;                   // ZRL
            if (k > 63)
                return JPG_STATUS_OK;
            continue;
        }
        k += run + 1;
        if (k > 63)  // an over-long block ends silently
            return JPG_STATUS_OK;
        int32_t value = carried ? static_cast<int16_t>(entry >> 16)
                                : kiv::extend(static_cast<int32_t>(bits.receive(
                                                  static_cast<int32_t>(size))),
                                              static_cast<int>(size));
        if (!kScaled || k < limit)
            block[kiv::kZigzag[k]] = static_cast<int16_t>(static_cast<uint32_t>(value) * quant[k]);
        if (k == 63)
            return JPG_STATUS_OK;
    }
}

// The block decoder behind jpgReadGetCoefficient and (kScaled)
// jpgReadGetScaleCoefficient. The DC coefficient is always stored.
template <bool kScaled>
JpgStatus decodeBlock(JpgParam *param, int16_t *block, JpgComponent *comp, uint32_t limit) {
    if (comp->dcLookup == nullptr || comp->acLookup == nullptr || comp->quant == nullptr)
        return JPG_STATUS_FAILED;
    kiv::BitState bits(param);
    int32_t difference = 0;
    uint32_t size = 0;
    JpgStatus status = decodeDc(bits, comp->dcLookup, &difference, &size);
    if (status == JPG_STATUS_OK) {
        if (size != 0)
            comp->dcPred += difference;
        block[0] = static_cast<int16_t>(comp->quant[0] * static_cast<uint32_t>(comp->dcPred));
        status = decodeAc<kScaled>(bits, comp->acLookup, comp->quant, block, limit);
    }
    bits.store();
    return status;
}

}  // namespace

namespace kiv {

// The MCU bookkeeping shared by every sequential MCU routine: the scan's
// last MCU expects EOI, a completed restart interval processes its marker.
void advanceMcuCounters(JpgParam *param) {
    if (--param->mcusLeft == 0) {
        param->currentMarker = 0xFFD9;
        return;
    }
    if (++param->mcuAddress == param->restartInterval)
        jpgReadEpilogEntropyCodedSegment(param);
}

JpgStatus checkSequentialScan(const JpgParam *param) {
    if (param->numComponents == 0 || param->blocksPerMcu == 0 || param->mcuBuffer == nullptr)
        return JPG_STATUS_FAILED;
    if (param->scanNs != param->numComponents)  // every component in the one scan
        return JPG_STATUS_NOT_SUPPORTED;
    return JPG_STATUS_OK;
}

}  // namespace kiv

extern "C" {

JpgStatus jpgReadGetCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp) {
    return decodeBlock<false>(param, block, comp, 64);
}

JpgStatus jpgReadGetScaleCoefficient(JpgParam *param, int16_t *block, JpgComponent *comp,
                                     uint32_t limit) {
    return decodeBlock<true>(param, block, comp, limit);
}

JpgStatus jpgReadDecodeBaselineMcu(JpgParam *param) {
    JpgStatus status = kiv::checkSequentialScan(param);
    if (status != JPG_STATUS_OK)
        return status;
    int16_t *block = param->mcuBuffer;
    for (uint32_t c = 0; c < param->numComponents; c++) {
        JpgComponent *comp = &param->components[c];
        for (uint32_t b = 0; b < comp->blocks; b++, block += 64) {
            memset(block, 0, 64 * sizeof(int16_t));
            status = decodeBlock<false>(param, block, comp, 64);
            if (status != JPG_STATUS_OK)
                return status;
            jpgReadInverseDCT(block);
        }
    }
    kiv::advanceMcuCounters(param);
    return status;
}

JpgMcuFunc jpgGetReadMCUGenericFunc(uint32_t id) {
    switch (id) {
    case 0x001: return jpgReadScaleOutputLevel0MCU;
    case 0x101: return jpgReadScaleOutputLevel1MCU;
    case 0x201: return jpgReadScaleOutputLevel2MCU;
    case 0x301: return jpgReadDecodeBaselineMcu;
    case 0x302: return kiv::readProgressiveMCU;
    default: return nullptr;
    }
}

}  // extern "C"
