// SSE2 forward DCT of x86-64: the factorisation of forward_dct.cpp with its
// roundings, eight columns (then eight rows) at a time. Each product of the
// portable pass is regrouped into sums of 16-bit values times 16-bit
// constants, so that pmaddwd forms it exactly in 32 bits (for example
// 3135 d + 2217 (d + e) = 5352 d + 2217 e, and in the row pass
// = 5352 s07 + 2217 s16 - 5352 s34 - 2217 s25); every 16-bit intermediate
// fits for samples within +-kFdctSampleLimit.
#include "write/forward_dct.h"

#if KIV_HAVE_SSE2_FDCT
#include <emmintrin.h>

#include "core/sse2_transpose.h"

namespace {

// Eight 32-bit lanes.
struct Wide {
    __m128i lo, hi;
};

Wide operator+(Wide a, Wide b) { return {_mm_add_epi32(a.lo, b.lo), _mm_add_epi32(a.hi, b.hi)}; }

// Two 16-bit vectors interleaved, ready for products with a pair of constants.
struct Pairs {
    __m128i lo, hi;
};

Pairs interleave(__m128i a, __m128i b) { return {_mm_unpacklo_epi16(a, b), _mm_unpackhi_epi16(a, b)}; }

// ca * a + cb * b in 32 bits, per lane.
template <int16_t Ca, int16_t Cb>
Wide madd(Pairs p) {
    const __m128i c = _mm_set1_epi32(static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(Cb)) << 16 |
                                                          static_cast<uint16_t>(Ca)));
    return {_mm_madd_epi16(p.lo, c), _mm_madd_epi16(p.hi, c)};
}

template <int Bias, int Shift>
__m128i roundNarrow(Wide v) {
    const __m128i bias = _mm_set1_epi32(Bias);
    return _mm_packs_epi32(_mm_srai_epi32(_mm_add_epi32(v.lo, bias), Shift),
                           _mm_srai_epi32(_mm_add_epi32(v.hi, bias), Shift));
}

// Column pass: the samples are small enough that every intermediate,
// including a + b, d + e and u, w, g, h, fits 16 bits, so each output is one
// product pair; the pass keeps three extra bits.
void columnPass(__m128i *x) {
    __m128i s07 = _mm_add_epi16(x[0], x[7]), s16 = _mm_add_epi16(x[1], x[6]);
    __m128i s25 = _mm_add_epi16(x[2], x[5]), s34 = _mm_add_epi16(x[3], x[4]);
    __m128i t07 = _mm_sub_epi16(x[0], x[7]), t16 = _mm_sub_epi16(x[1], x[6]);
    __m128i t25 = _mm_sub_epi16(x[2], x[5]), t34 = _mm_sub_epi16(x[3], x[4]);
    __m128i a = _mm_add_epi16(s07, s34), b = _mm_add_epi16(s16, s25);
    __m128i d = _mm_sub_epi16(s07, s34), e = _mm_sub_epi16(s16, s25);
    x[0] = _mm_slli_epi16(_mm_add_epi16(a, b), 3);
    x[4] = _mm_slli_epi16(_mm_sub_epi16(a, b), 3);
    Pairs de = interleave(d, e);
    x[2] = roundNarrow<256, 9>(madd<5352, 2217>(de));   // 3135 d + z
    x[6] = roundNarrow<256, 9>(madd<2217, -5352>(de));  // z - 7569 e

    Pairs mid = interleave(t16, t25);
    __m128i p = roundNarrow<2048, 12>(madd<2896, -2896>(mid));
    __m128i r = roundNarrow<2048, 12>(madd<2896, 2896>(mid));
    Pairs gu = interleave(_mm_add_epi16(t07, r), _mm_add_epi16(t34, p));
    Pairs hw = interleave(_mm_sub_epi16(t07, r), _mm_sub_epi16(t34, p));
    x[1] = roundNarrow<256, 9>(madd<5681, 1130>(gu));   // 4551 g + k1
    x[7] = roundNarrow<256, 9>(madd<1130, -5681>(gu));  // k1 - 6811 u
    x[3] = roundNarrow<256, 9>(madd<4816, -3218>(hw));  // k2 - 8034 w
    x[5] = roundNarrow<256, 9>(madd<3218, 4816>(hw));   // k2 - 1598 h
}

// Row pass: sums of four inputs may exceed 16 bits, so every product is
// regrouped into pairs of 16-bit terms; the pass removes the extra bits.
void rowPass(__m128i *x) {
    __m128i s07 = _mm_add_epi16(x[0], x[7]), s16 = _mm_add_epi16(x[1], x[6]);
    __m128i s25 = _mm_add_epi16(x[2], x[5]), s34 = _mm_add_epi16(x[3], x[4]);
    __m128i t07 = _mm_sub_epi16(x[0], x[7]), t16 = _mm_sub_epi16(x[1], x[6]);
    __m128i t25 = _mm_sub_epi16(x[2], x[5]), t34 = _mm_sub_epi16(x[3], x[4]);

    // Even part: a = s07 + s34, b = s16 + s25, d = s07 - s34, e = s16 - s25.
    Pairs outer = interleave(s07, s16), inner = interleave(s34, s25);
    x[0] = roundNarrow<4, 3>(madd<1, 1>(outer) + madd<1, 1>(inner));
    x[4] = roundNarrow<4, 3>(madd<1, -1>(outer) + madd<1, -1>(inner));
    x[2] = roundNarrow<16384, 15>(madd<5352, 2217>(outer) + madd<-5352, -2217>(inner));  // 3135 d + z
    x[6] = roundNarrow<16384, 15>(madd<2217, -5352>(outer) + madd<-2217, 5352>(inner));  // z - 7569 e

    // Odd part: p and r are the 1/sqrt(2) products rounded to integers; then
    // u = t34 + p, w = t34 - p, g = t07 + r, h = t07 - r enter only as sums.
    Pairs mid = interleave(t16, t25);
    __m128i p = roundNarrow<2048, 12>(madd<2896, -2896>(mid));
    __m128i r = roundNarrow<2048, 12>(madd<2896, 2896>(mid));
    Pairs ends = interleave(t07, t34), rounded = interleave(r, p);
    x[1] = roundNarrow<16384, 15>(madd<5681, 1130>(ends) + madd<5681, 1130>(rounded));    // 4551 g + k1
    x[7] = roundNarrow<16384, 15>(madd<1130, -5681>(ends) + madd<1130, -5681>(rounded));  // k1 - 6811 u
    x[3] = roundNarrow<16384, 15>(madd<4816, -3218>(ends) + madd<-4816, 3218>(rounded));  // k2 - 8034 w
    x[5] = roundNarrow<16384, 15>(madd<3218, 4816>(ends) + madd<-3218, -4816>(rounded));  // k2 - 1598 h
}

}  // namespace

namespace kiv {

void forwardDctSse2(int16_t *block) {
    __m128i m[8];
    for (int i = 0; i < 8; i++)
        m[i] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 8 * i));
    columnPass(m);  // lanes are columns: vector i is row i
    transposeWords<8>(m, m);
    rowPass(m);     // lanes are rows
    transposeWords<8>(m, m);
    for (int i = 0; i < 8; i++)
        _mm_storeu_si128(reinterpret_cast<__m128i *>(block + 8 * i), m[i]);
}

}  // namespace kiv

#endif
