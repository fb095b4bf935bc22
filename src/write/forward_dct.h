// The encoder's forward DCT: complibIntFDCT8x8 (forward_dct.cpp) is the
// portable transform, the reference; forward_dct_sse2.cpp and
// forward_dct_avx2.cpp compute the same bits with vectors (one block, or two
// side by side), fused there with the quantizer (quantizer.h).
#pragma once

#include "core/codec.h"

namespace kiv {

// Largest sample magnitude for which the vector transforms' 16-bit
// intermediates cannot overflow (the input conversion gives -128..128).
constexpr int32_t kFdctSampleLimit = 181;

// In place, like complibIntFDCT8x8 on each of `count` consecutive blocks,
// for samples within +-kFdctSampleLimit.
void forwardDctSse2(int16_t *blocks, uint32_t count);
void forwardDctAvx2(int16_t *blocks, uint32_t count);

}  // namespace kiv
