// SSE2 inverse DCT (both x86 targets, compiled with -msse2): the transform
// of inverse_dct_simd.h at 128 bits, one block at a time.
#include "read/inverse_dct_sse2.h"

#if defined(__SSE2__)

#include "read/inverse_dct_simd.h"

namespace kiv {

void inverseDctSse2(int16_t *block) { inverseBlocks<Sse2>(&block); }

}  // namespace kiv

#endif  // __SSE2__
