// The SSE2 4x4 reduced transform of scaled output (both x86 targets,
// compiled with -msse2): the transform of reduceTo4x4Portable four lines at a
// time, columns with madd on the 16-bit coefficients (exact), rows
// on 32-bit lanes with every product emulated exactly modulo 2^32, so that
// the results match bit for bit.
#include "read/scaled_transforms.h"

#if defined(__SSE2__)

#include "read/inverse_dct_simd.h"

namespace kiv {
namespace {

// The four outputs of the butterfly from e0, e1 (bias included), o0 and o1,
// in the order (e0 + o0), (e1 - o1), (e1 + o1), (e0 - o0).
inline void outputs4(__m128i e0, __m128i e1, __m128i o0, __m128i o1, __m128i *y) {
    y[0] = _mm_add_epi32(e0, o0);
    y[1] = _mm_sub_epi32(e1, o1);
    y[2] = _mm_add_epi32(e1, o1);
    y[3] = _mm_sub_epi32(e0, o0);
}

}  // namespace

void reduceTo4x4Sse2(int16_t *block) {
    if (reduceFlat4x4(block))
        return;
    constexpr int kK1 = static_cast<int>(kReduceK1), kK3 = static_cast<int>(kReduceK3);
    __m128i row[4];
    for (int r = 0; r < 4; r++)
        row[r] = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(block + 8 * r));
    __m128i x02 = _mm_unpacklo_epi16(row[0], row[2]), x13 = _mm_unpacklo_epi16(row[1], row[3]);
    const __m128i round = _mm_set1_epi32(2048);
    __m128i t[4];  // work rows, lane c column c
    outputs4(_mm_add_epi32(madd<Sse2>(x02, 4096, 4096), round),
             _mm_add_epi32(madd<Sse2>(x02, 4096, -4096), round), madd<Sse2>(x13, kK1, kK3),
             madd<Sse2>(x13, -kK3, kK1), t);
    for (int i = 0; i < 4; i++)
        t[i] = _mm_srai_epi32(t[i], 12);
    // Transpose: c[i] holds column i of the work values, lane r row r.
    __m128i a0 = _mm_unpacklo_epi32(t[0], t[1]), a1 = _mm_unpacklo_epi32(t[2], t[3]);
    __m128i a2 = _mm_unpackhi_epi32(t[0], t[1]), a3 = _mm_unpackhi_epi32(t[2], t[3]);
    __m128i c0 = _mm_unpacklo_epi64(a0, a1), c1 = _mm_unpackhi_epi64(a0, a1);
    __m128i c2 = _mm_unpacklo_epi64(a2, a3), c3 = _mm_unpackhi_epi64(a2, a3);
    const __m128i bias = _mm_set1_epi32(16384);
    __m128i e0 = _mm_add_epi32(_mm_slli_epi32(_mm_add_epi32(c0, c2), 12), bias);
    __m128i e1 = _mm_add_epi32(_mm_slli_epi32(_mm_sub_epi32(c0, c2), 12), bias);
    __m128i o0 = _mm_add_epi32(mulConst<Sse2>(c1, kK1), mulConst<Sse2>(c3, kK3));
    __m128i o1 = _mm_sub_epi32(mulConst<Sse2>(c3, kK1), mulConst<Sse2>(c1, kK3));
    __m128i y[4];  // output column k, lane r row r
    outputs4(e0, e1, o0, o1, y);
    // Signed bits 15..24 (the clip index), plus 128, clamped to 0..255.
    for (int k = 0; k < 4; k++)
        y[k] = _mm_srai_epi32(_mm_slli_epi32(y[k], 7), 22);
    const __m128i level = _mm_set1_epi16(128);
    __m128i bytes = _mm_packus_epi16(_mm_add_epi16(_mm_packs_epi32(y[0], y[1]), level),
                                     _mm_add_epi16(_mm_packs_epi32(y[2], y[3]), level));
    // Bytes are column-major; two interleaving steps make them row-major.
    bytes = _mm_unpacklo_epi8(bytes, _mm_srli_si128(bytes, 8));
    bytes = _mm_unpacklo_epi8(bytes, _mm_srli_si128(bytes, 8));
    const __m128i zero = _mm_setzero_si128();
    __m128i rows01 = _mm_unpacklo_epi8(bytes, zero), rows23 = _mm_unpackhi_epi8(bytes, zero);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(block), rows01);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(block + 8), _mm_unpackhi_epi64(rows01, rows01));
    _mm_storel_epi64(reinterpret_cast<__m128i *>(block + 16), rows23);
    _mm_storel_epi64(reinterpret_cast<__m128i *>(block + 24), _mm_unpackhi_epi64(rows23, rows23));
}

}  // namespace kiv

#endif  // __SSE2__
