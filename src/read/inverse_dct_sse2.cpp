// SSE2 inverse DCT for x86-64: the same two-pass integer transform as
// inverse_dct.cpp (ISO/IEC 10918-1 A.3.3, 12-bit constants, 32-bit
// wrapping arithmetic, columns then rows), four lines per vector, with the
// PixClipTable lookup replaced by its arithmetic: the low ten bits read as a
// signed value, plus 128, clamped to 0..255. Bit-identical to the portable
// code for every input; the 32-bit target uses the portable code only.
#include "read/inverse_dct_sse2.h"

#if KIV_HAVE_SSE2_IDCT

#include <emmintrin.h>

namespace kiv {
namespace {

// Low 32 bits of v times a constant below 2^16, lane by lane: the low
// half's full product plus the high half's product shifted up.
inline __m128i mulConst(__m128i v, __m128i c) {
    __m128i low = _mm_mullo_epi16(v, c);
    __m128i high = _mm_mulhi_epu16(v, c);
    return _mm_add_epi32(low, _mm_slli_epi32(high, 16));
}

inline __m128i splat(int value) { return _mm_set1_epi32(value | value << 16); }

struct Constants {
    __m128i c1 = splat(4017), c2 = splat(3784), c3 = splat(3406), c4 = splat(2896);
    __m128i c5 = splat(2276), c6 = splat(1567), c7 = splat(799);
    __m128i round12 = _mm_set1_epi32(2048);
};

// One 8-point transform of four lines at once (x[i] holds input i of each
// line); y receives 4096 times the sums, modulo 2^32, as in transform8.
inline void transform8(const Constants &k, const __m128i *x, __m128i *y) {
    __m128i a = _mm_add_epi32(mulConst(x[1], k.c1), mulConst(x[7], k.c7));
    __m128i b = _mm_sub_epi32(mulConst(x[1], k.c7), mulConst(x[7], k.c1));
    __m128i c = _mm_add_epi32(mulConst(x[5], k.c5), mulConst(x[3], k.c3));
    __m128i d = _mm_sub_epi32(mulConst(x[5], k.c3), mulConst(x[3], k.c5));
    __m128i o0 = _mm_add_epi32(a, c), o3 = _mm_add_epi32(b, d);
    __m128i p = _mm_sub_epi32(a, c), q = _mm_sub_epi32(b, d);
    __m128i r = _mm_srai_epi32(_mm_add_epi32(_mm_add_epi32(p, q), k.round12), 12);
    __m128i s = _mm_srai_epi32(_mm_add_epi32(_mm_sub_epi32(p, q), k.round12), 12);
    __m128i o1 = mulConst(r, k.c4), o2 = mulConst(s, k.c4);

    __m128i e0 = mulConst(_mm_add_epi32(x[0], x[4]), k.c4);
    __m128i e1 = mulConst(_mm_sub_epi32(x[0], x[4]), k.c4);
    __m128i f = _mm_add_epi32(mulConst(x[2], k.c2), mulConst(x[6], k.c6));
    __m128i g = _mm_sub_epi32(mulConst(x[2], k.c6), mulConst(x[6], k.c2));
    __m128i E0 = _mm_add_epi32(e0, f), E3 = _mm_sub_epi32(e0, f);
    __m128i E1 = _mm_add_epi32(e1, g), E2 = _mm_sub_epi32(e1, g);
    y[0] = _mm_add_epi32(E0, o0);
    y[7] = _mm_sub_epi32(E0, o0);
    y[1] = _mm_add_epi32(E1, o1);
    y[6] = _mm_sub_epi32(E1, o1);
    y[2] = _mm_add_epi32(E2, o2);
    y[5] = _mm_sub_epi32(E2, o2);
    y[3] = _mm_add_epi32(E3, o3);
    y[4] = _mm_sub_epi32(E3, o3);
}

// Transposes the 4x4 block of 32-bit values held in m[0], m[step], ...
inline void transpose4(__m128i *m0, __m128i *m1, __m128i *m2, __m128i *m3) {
    __m128i t0 = _mm_unpacklo_epi32(*m0, *m1), t1 = _mm_unpacklo_epi32(*m2, *m3);
    __m128i t2 = _mm_unpackhi_epi32(*m0, *m1), t3 = _mm_unpackhi_epi32(*m2, *m3);
    *m0 = _mm_unpacklo_epi64(t0, t1);
    *m1 = _mm_unpackhi_epi64(t0, t1);
    *m2 = _mm_unpacklo_epi64(t2, t3);
    *m3 = _mm_unpackhi_epi64(t2, t3);
}

// An 8x8 matrix of 32-bit values: half h of row i in v[h][i] (columns 4h..4h+3).
struct Matrix {
    __m128i v[2][8];
};

// Swaps rows and columns: element (i, j) moves to (j, i).
inline void transpose(Matrix &m) {
    for (int h = 0; h < 2; h++)
        for (int g = 0; g < 2; g++)
            transpose4(&m.v[h][4 * g], &m.v[h][4 * g + 1], &m.v[h][4 * g + 2],
                       &m.v[h][4 * g + 3]);
    for (int i = 0; i < 4; i++) {  // swap the off-diagonal 4x4 blocks
        __m128i t = m.v[1][i];
        m.v[1][i] = m.v[0][4 + i];
        m.v[0][4 + i] = t;
    }
}

// Sample of a row-pass result: the low ten bits of (y + 2^16) >> 17 read as
// signed, plus 128, clamped to 0..255 (what PixClipTable holds).
inline __m128i clip(__m128i y) {
    __m128i v = _mm_srai_epi32(_mm_add_epi32(y, _mm_set1_epi32(0x10000)), 17);
    return _mm_srai_epi32(_mm_slli_epi32(v, 22), 22);
}

}  // namespace

void inverseDctSse2(int16_t *block) {
    const Constants k;
    Matrix m;
    for (int i = 0; i < 8; i++) {  // sign-extend each row into two halves
        __m128i row = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 8 * i));
        __m128i sign = _mm_srai_epi16(row, 15);
        m.v[0][i] = _mm_unpacklo_epi16(row, sign);
        m.v[1][i] = _mm_unpackhi_epi16(row, sign);
    }
    __m128i y[8];
    for (int h = 0; h < 2; h++) {  // columns: inputs are the rows
        transform8(k, m.v[h], y);
        for (int i = 0; i < 8; i++)
            m.v[h][i] = _mm_srai_epi32(_mm_add_epi32(y[i], _mm_set1_epi32(256)), 9);
    }
    transpose(m);  // v[h][i] now holds input i of rows 4h..4h+3
    for (int h = 0; h < 2; h++) {
        transform8(k, m.v[h], y);
        for (int i = 0; i < 8; i++)
            m.v[h][i] = clip(y[i]);
    }
    transpose(m);  // back to rows
    const __m128i level = _mm_set1_epi16(128), zero = _mm_setzero_si128();
    const __m128i top = _mm_set1_epi16(255);
    for (int i = 0; i < 8; i++) {
        __m128i row = _mm_add_epi16(_mm_packs_epi32(m.v[0][i], m.v[1][i]), level);
        row = _mm_min_epi16(_mm_max_epi16(row, zero), top);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(block + 8 * i), row);
    }
}

}  // namespace kiv

#endif  // KIV_HAVE_SSE2_IDCT
