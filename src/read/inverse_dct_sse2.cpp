// SSE2 inverse DCT (both x86 targets, compiled with -msse2): the same
// two-pass integer transform as
// inverse_dct.cpp (ISO/IEC 10918-1 A.3.3, 12-bit constants, 32-bit wrapping
// arithmetic, columns then rows). Products are _mm_madd_epi16 on 16-bit
// inputs, exact modulo 2^32; row-pass inputs that do not fit 16 bits take an
// exact 32-bit path. Blocks whose coefficients all lie in the top rows or left
// columns skip the zero inputs. Bit-identical to the portable code for every
// input.
#include "read/inverse_dct_sse2.h"

#if defined(__SSE2__)

#include <emmintrin.h>

#include "core/sse2_transpose.h"

#include "read/inverse_dct.h"
#include "read/sse2_products.h"

namespace kiv {
namespace {

// cos(k pi / 16) scaled by 4096.
constexpr int kC1 = 4017, kC2 = 3784, kC3 = 3406, kC4 = 2896;
constexpr int kC5 = 2276, kC6 = 1567, kC7 = 799;

// Row-pass rounding (2^16 before the shift by 17) and column-pass rounding.
constexpr int kRowBias = 0x10000, kColumnBias = 256;

inline __m128i add(__m128i a, __m128i b) { return _mm_add_epi32(a, b); }
inline __m128i sub(__m128i a, __m128i b) { return _mm_sub_epi32(a, b); }

// Interleaves the 16-bit lanes of u and v, lanes 0-3 or 4-7.
template <int kHalf>
inline __m128i zip(__m128i u, __m128i v) {
    return kHalf == 0 ? _mm_unpacklo_epi16(u, v) : _mm_unpackhi_epi16(u, v);
}

// The odd part's rounding step and the final butterflies: r and s are
// (p + q + 2048) >> 12 and (p - q + 2048) >> 12, rotated by C4.
inline void finish(__m128i E0, __m128i E1, __m128i E2, __m128i E3, __m128i o0, __m128i o3,
                   __m128i pq, __m128i pmq, __m128i *y) {
    const __m128i round = _mm_set1_epi32(2048);
    __m128i o1 = mulConst(_mm_srai_epi32(add(pq, round), 12), kC4);
    __m128i o2 = mulConst(_mm_srai_epi32(add(pmq, round), 12), kC4);
    y[0] = add(E0, o0);
    y[7] = sub(E0, o0);
    y[1] = add(E1, o1);
    y[6] = sub(E1, o1);
    y[2] = add(E2, o2);
    y[5] = sub(E2, o2);
    y[3] = add(E3, o3);
    y[4] = sub(E3, o3);
}

// One 8-point transform of four lines (lanes 4 kHalf .. 4 kHalf + 3 of the
// 16-bit vectors x[0..7], x[i] holding input i): y receives 4096 times the
// sums plus bias, modulo 2^32. With kInputs == 4, x[4..7] are zero and unread.
template <int kInputs, int kHalf>
inline void transform8(const __m128i *x, int bias, __m128i *y) {
    const __m128i b = _mm_set1_epi32(bias);
    if constexpr (kInputs == 4) {
        __m128i x13 = zip<kHalf>(x[1], x[3]), x02 = zip<kHalf>(x[0], x[2]);
        __m128i o0 = madd(x13, kC1, kC3), o3 = madd(x13, kC7, -kC5);
        __m128i pq = madd(x13, kC1 + kC7, kC5 - kC3), pmq = madd(x13, kC1 - kC7, -kC3 - kC5);
        __m128i E0 = add(madd(x02, kC4, kC2), b), E3 = add(madd(x02, kC4, -kC2), b);
        __m128i E1 = add(madd(x02, kC4, kC6), b), E2 = add(madd(x02, kC4, -kC6), b);
        finish(E0, E1, E2, E3, o0, o3, pq, pmq, y);
    } else {
        __m128i x17 = zip<kHalf>(x[1], x[7]), x53 = zip<kHalf>(x[5], x[3]);
        __m128i a = madd(x17, kC1, kC7), bb = madd(x17, kC7, -kC1);
        __m128i c = madd(x53, kC5, kC3), d = madd(x53, kC3, -kC5);
        __m128i p = sub(a, c), q = sub(bb, d);
        __m128i x04 = zip<kHalf>(x[0], x[4]), x26 = zip<kHalf>(x[2], x[6]);
        __m128i e0 = add(madd(x04, kC4, kC4), b), e1 = add(madd(x04, kC4, -kC4), b);
        __m128i f = madd(x26, kC2, kC6), g = madd(x26, kC6, -kC2);
        finish(add(e0, f), add(e1, g), sub(e1, g), sub(e0, f), add(a, c), add(bb, d), add(p, q),
               sub(p, q), y);
    }
}

// Column pass over columns 4 kHalf .. 4 kHalf + 3: w[i] = (y_i + 256) >> 9.
template <int kRows, int kHalf>
inline void columnHalf(const __m128i *rows, __m128i *w) {
    transform8<kRows, kHalf>(rows, kColumnBias, w);
    for (int i = 0; i < 8; i++)
        w[i] = _mm_srai_epi32(w[i], 9);
}

// Packs the column-pass values to 16 bits (saturating), row by row:
// p[j] holds rows 2j and 2j + 1 (kCols == 4) or row j (kCols == 8).
template <int kCols>
inline void packRows(const __m128i (*w)[8], __m128i *p) {
    for (int j = 0; j < 8; j++)
        if constexpr (kCols == 4) {
            if (j < 4)
                p[j] = _mm_packs_epi32(w[0][2 * j], w[0][2 * j + 1]);
        } else {
            p[j] = _mm_packs_epi32(w[0][j], w[1][j]);
        }
}

// True when no packed value sits at a 16-bit limit, so that none was
// saturated and the row pass may multiply them with _mm_madd_epi16 (the
// rare values of exactly -32768 or 32767 take the exact path too).
template <int kCols>
inline bool packedExactly(const __m128i *p) {
    constexpr int kCount = kCols == 4 ? 4 : 8;
    __m128i high = p[0], low = p[0];
    for (int j = 1; j < kCount; j++) {
        high = _mm_max_epi16(high, p[j]);
        low = _mm_min_epi16(low, p[j]);
    }
    __m128i limit = _mm_or_si128(_mm_cmpeq_epi16(high, _mm_set1_epi16(32767)),
                                 _mm_cmpeq_epi16(low, _mm_set1_epi16(-32768)));
    return _mm_movemask_epi8(limit) == 0;
}

// A row-pass value (bias included) to the signed low ten bits of y >> 17,
// the index PixClipTable reads.
inline __m128i clipIndex(__m128i y) { return _mm_srai_epi32(_mm_slli_epi32(y, 5), 22); }

// Stores the row-pass results (s[h][k]: column k of rows 4h .. 4h + 3, as
// clip indices) as samples: plus 128, clamped to 0..255 (what PixClipTable
// holds), transposed back to rows as bytes and widened.
inline void storeSamples(const __m128i (*s)[8], int16_t *block) {
    const __m128i level = _mm_set1_epi16(128);
    __m128i c[4];
    for (int j = 0; j < 4; j++) {  // columns 2j and 2j + 1, rows 0-7, as bytes
        __m128i z0 = _mm_add_epi16(_mm_packs_epi32(s[0][2 * j], s[1][2 * j]), level);
        __m128i z1 = _mm_add_epi16(_mm_packs_epi32(s[0][2 * j + 1], s[1][2 * j + 1]), level);
        c[j] = _mm_packus_epi16(z0, z1);
    }
    __m128i t0 = _mm_unpacklo_epi8(c[0], c[1]), t1 = _mm_unpackhi_epi8(c[0], c[1]);
    __m128i t2 = _mm_unpacklo_epi8(c[2], c[3]), t3 = _mm_unpackhi_epi8(c[2], c[3]);
    __m128i u0 = _mm_unpacklo_epi8(t0, t1), u1 = _mm_unpackhi_epi8(t0, t1);  // columns 0-3
    __m128i u2 = _mm_unpacklo_epi8(t2, t3), u3 = _mm_unpackhi_epi8(t2, t3);  // columns 4-7
    __m128i rows[4] = {_mm_unpacklo_epi32(u0, u2), _mm_unpackhi_epi32(u0, u2),
                       _mm_unpacklo_epi32(u1, u3), _mm_unpackhi_epi32(u1, u3)};
    const __m128i zero = _mm_setzero_si128();
    for (int j = 0; j < 4; j++) {
        __m128i *out = reinterpret_cast<__m128i *>(block + 16 * j);
        _mm_storeu_si128(out, _mm_unpacklo_epi8(rows[j], zero));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi8(rows[j], zero));
    }
}

// ---- exact 32-bit row pass, for column-pass values beyond 16 bits

// The transform on 32-bit lanes, every product emulated exactly.
inline void transformWide(const __m128i *x, __m128i *y) {
    __m128i a = add(mulConst(x[1], kC1), mulConst(x[7], kC7));
    __m128i b = sub(mulConst(x[1], kC7), mulConst(x[7], kC1));
    __m128i c = add(mulConst(x[5], kC5), mulConst(x[3], kC3));
    __m128i d = sub(mulConst(x[5], kC3), mulConst(x[3], kC5));
    __m128i p = sub(a, c), q = sub(b, d);
    const __m128i bias = _mm_set1_epi32(kRowBias);
    __m128i e0 = add(mulConst(add(x[0], x[4]), kC4), bias);
    __m128i e1 = add(mulConst(sub(x[0], x[4]), kC4), bias);
    __m128i f = add(mulConst(x[2], kC2), mulConst(x[6], kC6));
    __m128i g = sub(mulConst(x[2], kC6), mulConst(x[6], kC2));
    finish(add(e0, f), add(e1, g), sub(e1, g), sub(e0, f), add(a, c), add(b, d), add(p, q),
           sub(p, q), y);
}

inline void transpose4(__m128i *m0, __m128i *m1, __m128i *m2, __m128i *m3) {
    __m128i t0 = _mm_unpacklo_epi32(*m0, *m1), t1 = _mm_unpacklo_epi32(*m2, *m3);
    __m128i t2 = _mm_unpackhi_epi32(*m0, *m1), t3 = _mm_unpackhi_epi32(*m2, *m3);
    *m0 = _mm_unpacklo_epi64(t0, t1);
    *m1 = _mm_unpackhi_epi64(t0, t1);
    *m2 = _mm_unpacklo_epi64(t2, t3);
    *m3 = _mm_unpackhi_epi64(t2, t3);
}

// Row pass on the 32-bit column-pass values (w[h][i]: row i, columns
// 4h .. 4h + 3), for blocks whose values exceed 16 bits: rare, kept out of line.
__attribute__((noinline)) void rowPassWide(__m128i (*w)[8], int16_t *block) {
    for (int h = 0; h < 2; h++)  // transpose the 8x8 matrix of 32-bit values
        for (int g = 0; g < 2; g++)
            transpose4(&w[h][4 * g], &w[h][4 * g + 1], &w[h][4 * g + 2], &w[h][4 * g + 3]);
    for (int i = 0; i < 4; i++) {
        __m128i t = w[1][i];
        w[1][i] = w[0][4 + i];
        w[0][4 + i] = t;
    }
    __m128i s[2][8];
    for (int h = 0; h < 2; h++) {
        transformWide(w[h], s[h]);
        for (int k = 0; k < 8; k++)
            s[h][k] = clipIndex(s[h][k]);
    }
    storeSamples(s, block);
}

// ---- the block shapes

// kRows == 4: rows 4-7 of the coefficients are zero; kCols == 4: columns 4-7 are.
template <int kRows, int kCols>
__attribute__((noinline)) void inverseShape(int16_t *block) {
    __m128i rows[8], w[2][8];
    for (int i = 0; i < kRows; i++)
        rows[i] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 8 * i));
    columnHalf<kRows, 0>(rows, w[0]);
    if constexpr (kCols == 8) {
        columnHalf<kRows, 1>(rows, w[1]);
    }
    __m128i p[8], t[8], s[2][8];
    packRows<kCols>(w, p);
    if (!packedExactly<kCols>(p)) {
        if constexpr (kCols == 4) {
            for (int i = 0; i < 8; i++)
                w[1][i] = _mm_setzero_si128();
        }
        rowPassWide(w, block);
        return;
    }
    transposeWords<kCols>(p, t);
    transform8<kCols, 0>(t, kRowBias, s[0]);
    transform8<kCols, 1>(t, kRowBias, s[1]);
    for (int h = 0; h < 2; h++)
        for (int k = 0; k < 8; k++)
            s[h][k] = clipIndex(s[h][k]);
    storeSamples(s, block);
}

// A block with only its DC is flat: every sample is the DC's value.
void inverseDcOnly(int16_t *block) {
    __m128i v = _mm_set1_epi16(static_cast<int16_t>(dcOnlySample(block[0])));
    for (int i = 0; i < 8; i++)
        _mm_storeu_si128(reinterpret_cast<__m128i *>(block + 8 * i), v);
}

inline __m128i rowAt(const int16_t *block, int i) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 8 * i));
}

}  // namespace

void inverseDctSse2(int16_t *block) {
    // Which coefficients can be non-zero: one mask bit per zero byte.
    __m128i bottom = _mm_or_si128(_mm_or_si128(rowAt(block, 4), rowAt(block, 5)),
                                  _mm_or_si128(rowAt(block, 6), rowAt(block, 7)));
    __m128i top = _mm_or_si128(_mm_or_si128(rowAt(block, 1), rowAt(block, 2)), rowAt(block, 3));
    __m128i ac = _mm_or_si128(_mm_or_si128(top, bottom),
                              _mm_and_si128(rowAt(block, 0), _mm_set_epi16(-1, -1, -1, -1, -1, -1, -1, 0)));
    const __m128i zero = _mm_setzero_si128();
    int acZero = _mm_movemask_epi8(_mm_cmpeq_epi16(ac, zero));
    if (acZero == 0xFFFF)
        return inverseDcOnly(block);
    bool rightZero = (acZero & 0xFF00) == 0xFF00;
    bool bottomZero = _mm_movemask_epi8(_mm_cmpeq_epi16(bottom, zero)) == 0xFFFF;
    if (rightZero)
        return bottomZero ? inverseShape<4, 4>(block) : inverseShape<8, 4>(block);
    return bottomZero ? inverseShape<4, 8>(block) : inverseShape<8, 8>(block);
}

}  // namespace kiv

#endif  // __SSE2__
