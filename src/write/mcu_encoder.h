// The baseline MCU encoder, written once over the block kernel
// (quantizer.h): transforms each block of an MCU, quantizes it (rounding
// half away from zero), codes the DC difference and the AC run/size symbols
// with the Huffman tables of the encoder (ISO/IEC 10918-1 F.1.2.1, F.1.2.2)
// and ends a restart interval with RSTn (F.1.1.5, B.2.1). The DC
// predictors, the MCU counter and the RST number persist across calls.
//
// mcu_encoder.cpp instantiates it with the portable kernel and
// mcu_encoder_sse2.cpp with the vector ones, whose file also gives the bit
// sink its SSE2 accumulator on 32-bit x86; everything here is in an
// anonymous namespace, so that each file keeps its own copy (core/simd.h).
#pragma once

#include "core/api_checks.h"
#include "core/tables.h"
#include "write/bit_sink.h"
#include "write/quantizer.h"

namespace kiv {
namespace {

int32_t clampTo(int32_t v, int32_t limit) { return v < -limit ? -limit : v > limit ? limit : v; }

// Codes the AC values of a quantized block (in the given order) whose
// zig-zag positions are the bits of `mask`: ZRL for every 16 zeros before a
// value, the value's run/size code with its extra bits, and EOB when the
// block ends in zeros. The mask is walked a machine word at a time.
template <bool Checked, ValueOrder Order>
JpgStatus emitAc(BitSink &sink, const JpgAcSymbol *table, const int16_t *values, uint64_t mask) {
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
            Magnitude m = kMagnitude[Order == ValueOrder::Zigzag ? values[k] : values[kZigzag[k]]];
            const JpgAcSymbol &entry = table[run << 4 | m.category()];
            JpgStatus status = sink.put<Checked>(entry.code | m.bits(), entry.length);
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
template <bool Checked, ValueOrder Order>
JpgStatus codeBlock(BitSink &out, JpgComponent *comp, const QuantizedBlock &q) {
    BitSink sink = out;  // a copy kept in registers, not in the caller's frame
    const JpgDcDiff &entry = comp->dcDiff[clampTo(q.dc - comp->dcPred, kMaxMagnitude)];
    comp->dcPred = q.dc;
    JpgStatus status = sink.put<Checked>(entry.bits, static_cast<int32_t>(entry.length));
    if (status == JPG_STATUS_OK)
        status = emitAc<Checked, Order>(sink, comp->acSymbols, q.values, q.acMask);
    out = sink;
    return status;
}

// All blocks of the MCUs in the buffer are transformed and quantized in one
// call of the kernel (the two-block kernels then pair blocks across MCUs),
// then coded MCU by MCU; a restart interval can end after any of them.
// Order is the order of the kernel's values.
template <BlockKernel Kernel, ValueOrder Order>
JpgStatus encodeBlocks(JpgParam *param, const QuantSteps *steps, uint32_t mcus) {
    QuantizedBlock quantized[kMaxBatchBlocks];
    const QuantSteps *batchSteps[kMaxBatchBlocks];
    JpgComponent *owner[kMaxBatchBlocks];
    uint32_t count = 0;
    for (uint32_t m = 0; m < mcus; m++)
        for (uint32_t c = 0; c < param->numComponents && c < 4; c++)
            for (uint32_t b = 0; b < param->components[c].blocks; b++) {
                if (count == kMaxBatchBlocks)
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
            status = sink.roomForBlock() ? codeBlock<false, Order>(sink, owner[b], quantized[b])
                                         : codeBlock<true, Order>(sink, owner[b], quantized[b]);
        sink.finish();
        if (status == JPG_STATUS_OK && ++param->mcuAddress == param->restartInterval)
            status = jpgWriteEpilogEntropyCodedSegment(param);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return JPG_STATUS_OK;
}

template <BlockKernel Kernel, ValueOrder Order>
JpgStatus encodeMcu(JpgParam *param) {
    if (JpgStatus s = guardWrite(param))  // the getters hand these out to anyone
        return s;
    // The blocks and divisors exist only while the encode driver runs.
    if (param->enc.mcuBlocks == nullptr || param->enc.quantSteps == nullptr)
        return JPG_STATUS_INVALID_PARAMETER;
    uint32_t mcus = param->enc.mcuBatch != 0 ? param->enc.mcuBatch : 1;
    return encodeBlocks<Kernel, Order>(param, param->enc.quantSteps, mcus);
}

}  // namespace
}  // namespace kiv
