// Exact 32-bit products for the SSE2 inverse transforms (wherever SSE2 is
// compiled in): the results equal the portable code's uint32_t products
// modulo 2^32 for every input, which is what keeps the SSE2 and portable
// paths bit-identical. In an anonymous namespace, so each file keeps its own
// copy (see core/simd.h).
#pragma once

#include "read/inverse_dct_sse2.h"

#if defined(__SSE2__)

#include <emmintrin.h>
#include <stdint.h>

namespace kiv {
namespace {

// u * a + v * b in each 32-bit lane of uv = (u, v) interleaved 16-bit pairs;
// exact modulo 2^32 for every 16-bit u, v (a and b fit 16 bits signed).
inline __m128i madd(__m128i uv, int a, int b) {
    uint32_t pair = (static_cast<uint32_t>(a) & 0xFFFF) | static_cast<uint32_t>(b) << 16;
    return _mm_madd_epi16(uv, _mm_set1_epi32(static_cast<int>(pair)));
}

// Low 32 bits of v times c (0 < c < 2^16) for any 32-bit v: the low half's
// full product plus the high half's product shifted up.
inline __m128i mulConst(__m128i v, int c) {
    __m128i k = _mm_set1_epi16(static_cast<int16_t>(c));
    __m128i low = _mm_mullo_epi16(v, k);
    return _mm_add_epi32(low, _mm_slli_epi32(_mm_mulhi_epu16(v, k), 16));
}

}  // namespace
}  // namespace kiv

#endif  // __SSE2__
