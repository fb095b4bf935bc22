// The portable baseline MCU encoder (mcu_encoder.h), the reference for the
// processor-specific ones of mcu_encoder_sse2.cpp, and the exported building
// blocks of the entropy coder.
#include "write/mcu_encoder.h"

namespace {

using kiv::BitSink;
using kiv::clampTo;
using kiv::kMaxMagnitude;

JpgStatus jpgWriteEncodeBaselineMcu(JpgParam *param) { return kiv::encodeMcu<kiv::transformQuantizePortable, kiv::kPortableOrder>(param); }

}  // namespace

extern "C" {

JpgStatus jpgWriteBaseLine8BitDCHuffman(ComplibBitstream *bs, JpgComponent *comp,
                                        int32_t difference) {
    const JpgDcDiff &entry = comp->dcDiff[clampTo(difference, kMaxMagnitude)];
    return jpgWritePutBits(bs, entry.bits, static_cast<int32_t>(entry.length));
}

JpgStatus jpgWriteBaseLine8BitACHuffman(ComplibBitstream *bs, const JpgAcSymbol *table,
                                        const uint32_t *quant, int16_t *block) {
    kiv::QuantSteps steps;
    kiv::makeQuantSteps(quant, &steps);
    alignas(16) int16_t quantized[64];
    kiv::quantizeBlock(block, steps, quantized);
    BitSink sink(bs);
    JpgStatus status = kiv::emitAc<true, kiv::ValueOrder::Natural>(sink, table, quantized, kiv::acNonZeroMask(quantized));
    sink.finish();
    return status;
}

JpgMcuFunc jpgGetWriteMCUGenericFunc(uint32_t id) { return id == 0x301 ? jpgWriteEncodeBaselineMcu : nullptr; }

JpgStatus jpgWriteEpilogEntropyCodedSegment(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
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

namespace kiv {

JpgMcuFunc writeMcuFor(uint32_t id, SimdLevel level) {
    if (id != 0x301)
        return nullptr;
#if KIV_SIMD_X86
    if (level == SimdLevel::Avx2)
        return encodeMcuAvx2;
    if (level == SimdLevel::Sse2)
        return encodeMcuSse2;
#endif
    return jpgWriteEncodeBaselineMcu;
}

}  // namespace kiv
