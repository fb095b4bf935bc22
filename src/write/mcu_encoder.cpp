// Baseline MCU encoder: transforms each block of an MCU, quantizes it
// (rounding half away from zero), codes the DC difference and the AC
// run/size symbols with the Huffman tables of the encoder (ISO/IEC 10918-1
// F.1.2.1, F.1.2.2) and ends a restart interval with RSTn (F.1.1.5, B.2.1).
// The DC predictors, the MCU counter and the RST number persist across calls.
#include "core/api_checks.h"
#include "core/tables.h"
#include "write/bit_sink.h"
#include "write/quantizer.h"

namespace {

using kiv::BitSink;
using kiv::kMaxMagnitude;

int32_t clampTo(int32_t v, int32_t limit) { return v < -limit ? -limit : v > limit ? limit : v; }

// Codes the AC values of a quantized block (natural order) whose zig-zag
// positions are the bits of `mask`: ZRL for every 16 zeros before a value,
// the value's run/size code with its extra bits, and EOB when the block ends
// in zeros. The mask is walked a machine word at a time.
template <bool Checked>
JpgStatus emitAc(BitSink &sink, const JpgAcSymbol *table, const int16_t *natural, uint64_t mask) {
    using Word = uintptr_t;
    constexpr int kWordBits = static_cast<int>(sizeof(Word) * 8);
    int last = 0;
    for (int base = 0; base < 64; base += kWordBits) {
        for (Word bits = static_cast<Word>(mask >> base); bits != 0; bits &= bits - 1) {
            int k = base + __builtin_ctzl(bits);
            uint32_t run = static_cast<uint32_t>(k - last - 1);
            last = k;
            for (; run > 15; run -= 16) {
                JpgStatus status = sink.put<Checked>(table[0xF0].code, table[0xF0].length);
                if (status != JPG_STATUS_OK)
                    return status;
            }
            kiv::Magnitude m = kiv::kMagnitude[natural[kiv::kZigzag[k]]];
            const JpgAcSymbol &entry = table[run << 4 | static_cast<uint32_t>(m.category)];
            JpgStatus status = sink.put<Checked>(entry.code | static_cast<uint16_t>(m.bits), entry.length);
            if (status != JPG_STATUS_OK)
                return status;
        }
    }
    if (last == 63)
        return JPG_STATUS_OK;  // a block that ends in a value has no EOB
    return sink.put<Checked>(table[0x00].code, table[0x00].length);
}

// Codes one transformed and quantized block; the predictor takes the new
// DC value even when the output fails.
template <bool Checked>
JpgStatus codeBlock(BitSink &sink, JpgComponent *comp, const kiv::QuantizedBlock &q) {
    const JpgDcDiff &entry = comp->dcDiff[clampTo(q.dc - comp->dcPred, kMaxMagnitude)];
    comp->dcPred = q.dc;
    JpgStatus status = sink.put<Checked>(entry.bits, static_cast<int32_t>(entry.length));
    if (status != JPG_STATUS_OK)
        return status;
    return emitAc<Checked>(sink, comp->acSymbols, q.natural, q.acMask);
}

// All blocks of the MCUs in the buffer are transformed and quantized in one
// call of the kernel (the two-block kernels then pair blocks across MCUs),
// then coded MCU by MCU; a restart interval can end after any of them.
template <kiv::BlockKernel Kernel>
JpgStatus encodeBlocks(JpgParam *param, const kiv::QuantSteps *steps, uint32_t mcus) {
    kiv::QuantizedBlock quantized[kiv::kMaxBatchBlocks];
    const kiv::QuantSteps *batchSteps[kiv::kMaxBatchBlocks];
    JpgComponent *owner[kiv::kMaxBatchBlocks];
    uint32_t count = 0;
    for (uint32_t m = 0; m < mcus; m++)
        for (uint32_t c = 0; c < param->numComponents && c < 4; c++)
            for (uint32_t b = 0; b < param->components[c].blocks; b++) {
                if (count == kiv::kMaxBatchBlocks)
                    return JPG_STATUS_INVALID_PARAMETER;
                batchSteps[count] = &steps[c];
                owner[count++] = &param->components[c];
            }
    Kernel(param->enc.mcuBlocks, batchSteps, count, quantized);
    uint32_t perMcu = count / mcus;
    for (uint32_t m = 0; m < mcus; m++) {
        BitSink sink(&param->bs);
        JpgStatus status = JPG_STATUS_OK;
        for (uint32_t b = m * perMcu; b < (m + 1) * perMcu && status == JPG_STATUS_OK; b++)
            status = sink.roomForBlock() ? codeBlock<false>(sink, owner[b], quantized[b])
                                         : codeBlock<true>(sink, owner[b], quantized[b]);
        sink.finish();
        if (status == JPG_STATUS_OK && ++param->mcuAddress == param->restartInterval)
            status = jpgWriteEpilogEntropyCodedSegment(param);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return JPG_STATUS_OK;
}

template <kiv::BlockKernel Kernel>
JpgStatus encodeMcu(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))  // the getters hand these out to anyone
        return s;
    // The blocks and divisors exist only while the encode driver runs.
    if (param->enc.mcuBlocks == nullptr || param->enc.quantSteps == nullptr)
        return JPG_STATUS_INVALID_PARAMETER;
    uint32_t mcus = param->enc.mcuBatch != 0 ? param->enc.mcuBatch : 1;
    return encodeBlocks<Kernel>(param, param->enc.quantSteps, mcus);
}

// The portable MCU encoder, the reference for the processor-specific ones.
JpgStatus jpgWriteEncodeBaselineMcu(JpgParam *param) { return encodeMcu<kiv::transformQuantizePortable>(param); }

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
    JpgStatus status = emitAc<true>(sink, table, quantized, kiv::acNonZeroMask(quantized));
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
        return encodeMcu<transformQuantizeAvx2>;
    if (level == SimdLevel::Sse2)
        return encodeMcu<transformQuantizeSse2>;
#endif
    return jpgWriteEncodeBaselineMcu;
}

}  // namespace kiv
