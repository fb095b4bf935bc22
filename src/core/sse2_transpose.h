// SSE2 transpose of an 8x8 matrix of 16-bit values for the inverse DCT:
// vector i holds row i on entry; t[i] receives column i. p and t may be the
// same array. Wherever SSE2 is compiled in (x86-64, and the -msse2 files of
// 32-bit x86); in an anonymous namespace, so each file keeps its own copy
// (see core/simd.h).
#pragma once

#if defined(__SSE2__)

#include <emmintrin.h>

namespace kiv {
namespace {

// With kCols == 4 only the first four rows are read and t[0..3] produced.
template <int kCols>
inline void transposeWords(const __m128i *p, __m128i *t) {
    if constexpr (kCols == 4) {
        __m128i a[4];
        a[0] = _mm_unpacklo_epi16(p[0], p[1]);
        a[1] = _mm_unpackhi_epi16(p[0], p[1]);
        a[2] = _mm_unpacklo_epi16(p[2], p[3]);
        a[3] = _mm_unpackhi_epi16(p[2], p[3]);
        __m128i b0 = _mm_unpacklo_epi16(a[0], a[1]), b1 = _mm_unpackhi_epi16(a[0], a[1]);
        __m128i b2 = _mm_unpacklo_epi16(a[2], a[3]), b3 = _mm_unpackhi_epi16(a[2], a[3]);
        t[0] = _mm_unpacklo_epi64(b0, b2);
        t[1] = _mm_unpackhi_epi64(b0, b2);
        t[2] = _mm_unpacklo_epi64(b1, b3);
        t[3] = _mm_unpackhi_epi64(b1, b3);
    } else {
        __m128i a[8], b[8];
        for (int j = 0; j < 4; j++) {
            a[2 * j] = _mm_unpacklo_epi16(p[2 * j], p[2 * j + 1]);
            a[2 * j + 1] = _mm_unpackhi_epi16(p[2 * j], p[2 * j + 1]);
        }
        for (int j = 0; j < 2; j++) {  // rows 4j .. 4j + 3
            b[4 * j] = _mm_unpacklo_epi32(a[4 * j], a[4 * j + 2]);
            b[4 * j + 1] = _mm_unpackhi_epi32(a[4 * j], a[4 * j + 2]);
            b[4 * j + 2] = _mm_unpacklo_epi32(a[4 * j + 1], a[4 * j + 3]);
            b[4 * j + 3] = _mm_unpackhi_epi32(a[4 * j + 1], a[4 * j + 3]);
        }
        for (int j = 0; j < 4; j++) {
            t[2 * j] = _mm_unpacklo_epi64(b[j], b[4 + j]);
            t[2 * j + 1] = _mm_unpackhi_epi64(b[j], b[4 + j]);
        }
    }
}

}  // namespace
}  // namespace kiv

#endif
