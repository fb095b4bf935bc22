// The vector inverse DCTs (inverse_dct_sse2.cpp and inverse_dct_avx2.cpp,
// built for both x86 targets): bit-identical to the portable transform of
// inverse_dct.cpp. On x86-64, where SSE2 is the baseline, jpgReadInverseDCT
// and the scaled transforms use the SSE2 one unconditionally
// (KIV_HAVE_SSE2_IDCT); kiv::inverseDctBlocksFor hands them out per
// processor flag on both targets.
#pragma once

#include <stdint.h>

#if defined(__x86_64__) && defined(__SSE2__)
#define KIV_HAVE_SSE2_IDCT 1
#else
#define KIV_HAVE_SSE2_IDCT 0
#endif

namespace kiv {

// In place: 64 dequantized coefficients in, 64 samples 0..255 out.
void inverseDctSse2(int16_t *block);

// In place: `count` consecutive blocks, two at a time.
void inverseDctBlocksAvx2(int16_t *blocks, uint32_t count);

}  // namespace kiv
