// Baseline MCU encoder: transforms each block of an MCU, quantizes it
// (rounding half away from zero), codes the DC difference and the AC
// run/size symbols with the Huffman tables of the encoder (ISO/IEC 10918-1
// F.1.2.1, F.1.2.2) and ends a restart interval with RSTn (F.1.1.5, B.2.1).
// The DC predictors, the MCU counter and the RST number persist across calls.
#include "core/tables.h"
#include "write/encoder.h"

namespace {

using kiv::kMaxMagnitude;

// Largest quantized AC magnitude that a baseline AC table codes (size 10).
constexpr int32_t kMaxAc = 1023;

int32_t clampTo(int32_t v, int32_t limit) { return v < -limit ? -limit : v > limit ? limit : v; }

// Rounds c / q half away from zero.
int32_t quantize(int32_t c, int32_t q) {
    return c >= 0 ? (c + (q >> 1)) / q : (c - (q >> 1)) / q;
}

struct AcPair {
    uint8_t run;
    int16_t value;
};

// Gathers the (run, value) pairs of the AC coefficients in zig-zag order,
// with ZRL pairs for runs above 15 and EOB when the block ends in zeros.
int gatherAc(const int16_t *block, const uint32_t *quant, AcPair *pairs) {
    int count = 0;
    uint32_t run = 0;
    for (int k = 1; k < 64; k++) {
        int32_t c = block[kiv::kZigzag[k]];
        int32_t q = static_cast<int32_t>(quant[k]);
        int32_t m = (c < 0 ? -c : c) + (q >> 1);
        if (m < q) {
            run++;
            continue;
        }
        for (; run > 15; run -= 16)
            pairs[count++] = {0xF0, 0};
        int32_t value = clampTo(c < 0 ? -(m / q) : m / q, kMaxAc);
        pairs[count++] = {static_cast<uint8_t>(run << 4), static_cast<int16_t>(value)};
        run = 0;
    }
    if (run != 0)
        pairs[count++] = {0x00, 0};
    return count;
}

JpgStatus jpgWriteEncodeBaselineMcu(JpgParam *param) {
    int16_t *block = param->enc.mcuBlocks;
    if (block == nullptr)
        return JPG_STATUS_INVALID_PARAMETER;
    ComplibBitstream *bs = &param->bs;
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++) {
        JpgComponent *comp = &param->components[c];
        for (uint32_t b = 0; b < comp->blocks; b++, block += 64) {
            complibIntFDCT8x8(block);
            int32_t dc = quantize(block[0], static_cast<int32_t>(comp->quant[0]));
            JpgStatus status = jpgWriteBaseLine8BitDCHuffman(bs, comp, dc - comp->dcPred);
            comp->dcPred = dc;
            if (status == JPG_STATUS_OK)
                status = jpgWriteBaseLine8BitACHuffman(bs, comp->acSymbols, comp->quant, block);
            if (status != JPG_STATUS_OK)
                return status;
        }
    }
    if (++param->mcuAddress == param->restartInterval)
        return jpgWriteEpilogEntropyCodedSegment(param);
    return JPG_STATUS_OK;
}

}  // namespace

extern "C" {

JpgStatus jpgWriteBaseLine8BitDCHuffman(ComplibBitstream *bs, JpgComponent *comp,
                                        int32_t difference) {
    const JpgDcDiff &entry = comp->dcDiff[clampTo(difference, kMaxMagnitude)];
    return jpgWritePutBits(bs, entry.bits, static_cast<int32_t>(entry.length));
}

// The pairs' patterns (at most 16 + 10 bits) go into the accumulator inline,
// by the rule of jpgWritePutBits.
JpgStatus jpgWriteBaseLine8BitACHuffman(ComplibBitstream *bs, const JpgAcSymbol *table,
                                        const uint32_t *quant, int16_t *block) {
    AcPair pairs[64 + 3];  // 63 values; ZRLs only replace zeros they stand for; EOB
    int count = gatherAc(block, quant, pairs);
    uint32_t acc = bs->accumulator;
    int32_t free = bs->bitCount;
    JpgStatus status = JPG_STATUS_OK;
    for (int i = 0; i < count; i++) {
        kiv::Magnitude m = kiv::kMagnitude[pairs[i].value];
        const JpgAcSymbol &entry = table[pairs[i].run | static_cast<uint32_t>(m.category)];
        uint32_t bits = entry.code | static_cast<uint16_t>(m.bits);
        int32_t length = entry.length;
        if (length < free) {
            acc = (acc << length) | bits;
            free -= length;
            continue;
        }
        int32_t rest = length - free;
        bs->accumulator = (free >= 32 ? 0 : acc << free) | (bits >> rest);
        status = jpgWriteByteStuff(bs);
        acc = bits;
        free = 32 - rest;
        if (status != JPG_STATUS_OK)
            break;
    }
    bs->accumulator = acc;
    bs->bitCount = free;
    return status;
}

JpgMcuFunc jpgGetWriteMCUGenericFunc(uint32_t id) { return id == 0x301 ? jpgWriteEncodeBaselineMcu : nullptr; }

JpgStatus jpgWriteEpilogEntropyCodedSegment(JpgParam *param) {
    if (jpgCheckParam(param) == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    JpgStatus status = jpgWritePutMarkerCode(&param->bs, static_cast<int32_t>(0xFFD0 + param->enc.restartNumber));
    if (status != JPG_STATUS_OK)
        return status;
    param->enc.restartNumber = (param->enc.restartNumber + 1) & 7;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
    param->mcuAddress = 0;
    return JPG_STATUS_OK;
}

}  // extern "C"
