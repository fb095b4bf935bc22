// AVX2 forward DCT and quantizer of the encoder: the transform and
// quantizer of forward_dct_simd.h at 256 bits, two blocks side by side.
// Compiled with -mavx2; only the two functions below leave this file.
#include "write/forward_dct_simd.h"

namespace kiv {

static_assert(kVectorOrder == kAvx2Order);

void forwardDctAvx2(int16_t *blocks, uint32_t count) { forwardDctBlocks<Avx2>(blocks, count); }

void transformQuantizeAvx2(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                           QuantizedBlock *out) {
    transformQuantizeBlocks<Avx2>(blocks, steps, count, out);
}

}  // namespace kiv
