// SSE2 forward DCT and quantizer of the encoder: the transform and
// quantizer of forward_dct_simd.h at 128 bits, one block at a time.
// Compiled with -msse2; only the two functions below leave this file.
#include "write/forward_dct_simd.h"

namespace kiv {

static_assert(kVectorOrder == kSse2Order);

void forwardDctSse2(int16_t *blocks, uint32_t count) { forwardDctBlocks<Sse2>(blocks, count); }

void transformQuantizeSse2(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                           QuantizedBlock *out) {
    transformQuantizeBlocks<Sse2>(blocks, steps, count, out);
}

}  // namespace kiv
