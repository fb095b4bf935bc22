// The vector inverse DCT of inverse_dct_sse2.cpp and inverse_dct_avx2.cpp,
// written once over a vector type of core/simd_vectors.h: Sse2 holds one
// row of one block in a 128-bit register, Avx2 the same row of two blocks,
// one per 128-bit lane. The transform is that of inverse_dct.cpp (ISO/IEC
// 10918-1 A.3.3, 12-bit constants, 32-bit wrapping arithmetic, columns then
// rows). Products are madd on 16-bit inputs, exact modulo 2^32; row-pass
// inputs that do not fit 16 bits take an exact 32-bit path. Blocks whose
// coefficients all lie in the top rows or left columns skip the zero inputs
// (a pair takes the larger shape of its two blocks). Bit-identical to the
// portable code for every input.
//
// Included only by those two files and scaled_transforms_sse2.cpp (for the
// exact products), each compiled for its instruction set: everything here is
// in an anonymous namespace, so each file keeps its own copy (see
// core/simd.h). Everything but the shapes and the exact row pass is inlined,
// so that the rows of the blocks stay in registers.
#pragma once

#include "core/simd_vectors.h"
#include "read/inverse_dct.h"

namespace kiv {
namespace {

// cos(k pi / 16) scaled by 4096.
constexpr int kC1 = 4017, kC2 = 3784, kC3 = 3406, kC4 = 2896;
constexpr int kC5 = 2276, kC6 = 1567, kC7 = 799;

// Row-pass rounding (2^16 before the shift by 17) and column-pass rounding.
constexpr int kRowBias = 0x10000, kColumnBias = 256;

// u * a + v * b in each 32-bit lane of uv = (u, v) interleaved 16-bit pairs;
// exact modulo 2^32 for every 16-bit u, v (a and b fit 16 bits signed).
template <class S>
KIV_SIMD_INLINE typename S::V madd(typename S::V uv, int a, int b) {
    uint32_t pair = (static_cast<uint32_t>(a) & 0xFFFF) | static_cast<uint32_t>(b) << 16;
    return S::madd(uv, S::set32(static_cast<int>(pair)));
}

// Low 32 bits of v times c (0 < c < 2^16) for any 32-bit v: the low half's
// full product plus the high half's product shifted up.
template <class S>
KIV_SIMD_INLINE typename S::V mulConst(typename S::V v, int c) {
    typename S::V k = S::set16(c);
    return S::add32(S::mullo16(v, k), S::template shl32<16>(S::mulhiU16(v, k)));
}

// Interleaves the 16-bit lanes of u and v, lanes 0-3 or 4-7.
template <class S, int kHalf>
KIV_SIMD_INLINE typename S::V zip(typename S::V u, typename S::V v) {
    return kHalf == 0 ? S::lo16(u, v) : S::hi16(u, v);
}

// The odd part's rounding step and the final butterflies: r and s are
// (p + q + 2048) >> 12 and (p - q + 2048) >> 12, rotated by C4.
template <class S, typename V = typename S::V>
KIV_SIMD_INLINE void finish(V E0, V E1, V E2, V E3, V o0, V o3, V pq, V pmq, V *y) {
    const V round = S::set32(2048);
    V o1 = mulConst<S>(S::template sar32<12>(S::add32(pq, round)), kC4);
    V o2 = mulConst<S>(S::template sar32<12>(S::add32(pmq, round)), kC4);
    y[0] = S::add32(E0, o0);
    y[7] = S::sub32(E0, o0);
    y[1] = S::add32(E1, o1);
    y[6] = S::sub32(E1, o1);
    y[2] = S::add32(E2, o2);
    y[5] = S::sub32(E2, o2);
    y[3] = S::add32(E3, o3);
    y[4] = S::sub32(E3, o3);
}

// One 8-point transform of four lines (lanes 4 kHalf .. 4 kHalf + 3 of the
// 16-bit vectors x[0..7], x[i] holding input i): y receives 4096 times the
// sums plus bias, modulo 2^32. With kInputs == 4, x[4..7] are zero and unread.
template <class S, int kInputs, int kHalf, typename V = typename S::V>
KIV_SIMD_INLINE void transform8(const V *x, int bias, V *y) {
    const V b = S::set32(bias);
    if constexpr (kInputs == 4) {
        V x13 = zip<S, kHalf>(x[1], x[3]), x02 = zip<S, kHalf>(x[0], x[2]);
        V o0 = madd<S>(x13, kC1, kC3), o3 = madd<S>(x13, kC7, -kC5);
        V pq = madd<S>(x13, kC1 + kC7, kC5 - kC3), pmq = madd<S>(x13, kC1 - kC7, -kC3 - kC5);
        V E0 = S::add32(madd<S>(x02, kC4, kC2), b), E3 = S::add32(madd<S>(x02, kC4, -kC2), b);
        V E1 = S::add32(madd<S>(x02, kC4, kC6), b), E2 = S::add32(madd<S>(x02, kC4, -kC6), b);
        finish<S>(E0, E1, E2, E3, o0, o3, pq, pmq, y);
    } else {
        V x17 = zip<S, kHalf>(x[1], x[7]), x53 = zip<S, kHalf>(x[5], x[3]);
        V a = madd<S>(x17, kC1, kC7), bb = madd<S>(x17, kC7, -kC1);
        V c = madd<S>(x53, kC5, kC3), d = madd<S>(x53, kC3, -kC5);
        V p = S::sub32(a, c), q = S::sub32(bb, d);
        V x04 = zip<S, kHalf>(x[0], x[4]), x26 = zip<S, kHalf>(x[2], x[6]);
        V e0 = S::add32(madd<S>(x04, kC4, kC4), b), e1 = S::add32(madd<S>(x04, kC4, -kC4), b);
        V f = madd<S>(x26, kC2, kC6), g = madd<S>(x26, kC6, -kC2);
        finish<S>(S::add32(e0, f), S::add32(e1, g), S::sub32(e1, g), S::sub32(e0, f), S::add32(a, c),
                  S::add32(bb, d), S::add32(p, q), S::sub32(p, q), y);
    }
}

// Column pass over columns 4 kHalf .. 4 kHalf + 3: w[i] = (y_i + 256) >> 9.
template <class S, int kRows, int kHalf, typename V = typename S::V>
KIV_SIMD_INLINE void columnHalf(const V *rows, V *w) {
    transform8<S, kRows, kHalf>(rows, kColumnBias, w);
    for (int i = 0; i < 8; i++)
        w[i] = S::template sar32<9>(w[i]);
}

// Packs the column-pass values to 16 bits (saturating), row by row:
// p[j] holds rows 2j and 2j + 1 (kCols == 4) or row j (kCols == 8).
template <class S, int kCols, typename V = typename S::V>
KIV_SIMD_INLINE void packRows(const V (*w)[8], V *p) {
    for (int j = 0; j < 8; j++)
        if constexpr (kCols == 4) {
            if (j < 4)
                p[j] = S::packs32(w[0][2 * j], w[0][2 * j + 1]);
        } else {
            p[j] = S::packs32(w[0][j], w[1][j]);
        }
}

// True when no packed value sits at a 16-bit limit, so that none was
// saturated and the row pass may multiply them with madd (the rare values
// of exactly -32768 or 32767 take the exact path too).
template <class S, int kCols, typename V = typename S::V>
KIV_SIMD_INLINE bool packedExactly(const V *p) {
    constexpr int kCount = kCols == 4 ? 4 : 8;
    V high = p[0], low = p[0];
    for (int j = 1; j < kCount; j++) {
        high = S::max16(high, p[j]);
        low = S::min16(low, p[j]);
    }
    return !S::anySet(S::bitOr(S::eq16(high, S::set16(32767)), S::eq16(low, S::set16(-32768))));
}

// Transpose of the packed 16-bit values: p[i] holds row i, t[i] receives
// column i (kCols == 4: four rows of four values, columns t[0..3]).
template <class S, int kCols, typename V = typename S::V>
KIV_SIMD_INLINE void transposeWords(const V *p, V *t) {
    if constexpr (kCols == 4) {
        V a0 = S::lo16(p[0], p[1]), a1 = S::hi16(p[0], p[1]);
        V a2 = S::lo16(p[2], p[3]), a3 = S::hi16(p[2], p[3]);
        V b0 = S::lo16(a0, a1), b1 = S::hi16(a0, a1);
        V b2 = S::lo16(a2, a3), b3 = S::hi16(a2, a3);
        t[0] = S::lo64(b0, b2);
        t[1] = S::hi64(b0, b2);
        t[2] = S::lo64(b1, b3);
        t[3] = S::hi64(b1, b3);
    } else {
        transpose8x8<S>(p, t);
    }
}

// A row-pass value (bias included) to the signed low ten bits of y >> 17,
// the index PixClipTable reads.
template <class S>
KIV_SIMD_INLINE typename S::V clipIndex(typename S::V y) {
    return S::template sar32<22>(S::template shl32<5>(y));
}

// One half of the row-pass results (s[k]: column k of rows 4h .. 4h + 3,
// bias included) as level-shifted 16-bit samples, not yet clamped: a[j]
// holds columns 2j and 2j + 1. Packing each half at once keeps fewer
// vectors live than holding both.
template <class S, typename V = typename S::V>
KIV_SIMD_INLINE void packHalf(const V *s, V *a) {
    const V level = S::set16(128);
    for (int j = 0; j < 4; j++)
        a[j] = S::add16(S::packs32(clipIndex<S>(s[2 * j]), clipIndex<S>(s[2 * j + 1])), level);
}

// Stores the packed halves (a[h][j]: columns 2j and 2j + 1 of rows
// 4h .. 4h + 3) as samples: clamped to 0..255 (what PixClipTable holds),
// transposed back to rows as bytes and widened.
template <class S, typename V = typename S::V>
KIV_SIMD_INLINE void storeSamples(const V (*a)[4], int16_t *const *blocks) {
    V c[4];
    for (int j = 0; j < 4; j++)  // columns 2j and 2j + 1, rows 0-7, as bytes
        c[j] = S::packus16(S::lo64(a[0][j], a[1][j]), S::hi64(a[0][j], a[1][j]));
    V t0 = S::lo8(c[0], c[1]), t1 = S::hi8(c[0], c[1]);
    V t2 = S::lo8(c[2], c[3]), t3 = S::hi8(c[2], c[3]);
    V u0 = S::lo8(t0, t1), u1 = S::hi8(t0, t1);  // columns 0-3
    V u2 = S::lo8(t2, t3), u3 = S::hi8(t2, t3);  // columns 4-7
    V rows[4] = {S::lo32(u0, u2), S::hi32(u0, u2), S::lo32(u1, u3), S::hi32(u1, u3)};
    const V zero = S::zero();
    for (int j = 0; j < 4; j++) {
        S::store(blocks, 16 * j, S::lo8(rows[j], zero));
        S::store(blocks, 16 * j + 8, S::hi8(rows[j], zero));
    }
}

// ---- exact 32-bit row pass, for column-pass values beyond 16 bits

// The transform on 32-bit lanes, every product emulated exactly.
template <class S, typename V = typename S::V>
KIV_SIMD_INLINE void transformWide(const V *x, V *y) {
    V a = S::add32(mulConst<S>(x[1], kC1), mulConst<S>(x[7], kC7));
    V b = S::sub32(mulConst<S>(x[1], kC7), mulConst<S>(x[7], kC1));
    V c = S::add32(mulConst<S>(x[5], kC5), mulConst<S>(x[3], kC3));
    V d = S::sub32(mulConst<S>(x[5], kC3), mulConst<S>(x[3], kC5));
    V p = S::sub32(a, c), q = S::sub32(b, d);
    const V bias = S::set32(kRowBias);
    V e0 = S::add32(mulConst<S>(S::add32(x[0], x[4]), kC4), bias);
    V e1 = S::add32(mulConst<S>(S::sub32(x[0], x[4]), kC4), bias);
    V f = S::add32(mulConst<S>(x[2], kC2), mulConst<S>(x[6], kC6));
    V g = S::sub32(mulConst<S>(x[2], kC6), mulConst<S>(x[6], kC2));
    finish<S>(S::add32(e0, f), S::add32(e1, g), S::sub32(e1, g), S::sub32(e0, f), S::add32(a, c),
              S::add32(b, d), S::add32(p, q), S::sub32(p, q), y);
}

template <class S, typename V = typename S::V>
KIV_SIMD_INLINE void transpose4(V *m0, V *m1, V *m2, V *m3) {
    V t0 = S::lo32(*m0, *m1), t1 = S::lo32(*m2, *m3);
    V t2 = S::hi32(*m0, *m1), t3 = S::hi32(*m2, *m3);
    *m0 = S::lo64(t0, t1);
    *m1 = S::hi64(t0, t1);
    *m2 = S::lo64(t2, t3);
    *m3 = S::hi64(t2, t3);
}

// Row pass on the 32-bit column-pass values (w[h][i]: row i, columns
// 4h .. 4h + 3), for blocks whose values exceed 16 bits: rare, kept out of line.
template <class S, typename V = typename S::V>
__attribute__((noinline)) void rowPassWide(V (*w)[8], int16_t *const *blocks) {
    for (int h = 0; h < 2; h++)  // transpose the 8x8 matrix of 32-bit values
        for (int g = 0; g < 2; g++)
            transpose4<S>(&w[h][4 * g], &w[h][4 * g + 1], &w[h][4 * g + 2], &w[h][4 * g + 3]);
    for (int i = 0; i < 4; i++) {
        V t = w[1][i];
        w[1][i] = w[0][4 + i];
        w[0][4 + i] = t;
    }
    V s[8], a[2][4];
    for (int h = 0; h < 2; h++) {
        transformWide<S>(w[h], s);
        packHalf<S>(s, a[h]);
    }
    storeSamples<S>(a, blocks);
}

// ---- the block shapes

// kRows == 4: rows 4-7 of the coefficients are zero; kCols == 4: columns 4-7 are.
template <class S, int kRows, int kCols>
__attribute__((noinline)) void inverseShape(int16_t *const *blocks) {
    using V = typename S::V;
    V rows[8], w[2][8];
    for (int i = 0; i < kRows; i++)
        rows[i] = S::load(blocks, 8 * i);
    columnHalf<S, kRows, 0>(rows, w[0]);
    if constexpr (kCols == 8) {
        columnHalf<S, kRows, 1>(rows, w[1]);
    }
    V p[8], t[8], s[8], a[2][4];
    packRows<S, kCols>(w, p);
    if (!packedExactly<S, kCols>(p)) {
        if constexpr (kCols == 4) {
            for (int i = 0; i < 8; i++)
                w[1][i] = S::zero();
        }
        rowPassWide<S>(w, blocks);
        return;
    }
    transposeWords<S, kCols>(p, t);
    transform8<S, kCols, 0>(t, kRowBias, s);
    packHalf<S>(s, a[0]);
    transform8<S, kCols, 1>(t, kRowBias, s);
    packHalf<S>(s, a[1]);
    storeSamples<S>(a, blocks);
}

inline __m128i rowAt(const int16_t *block, int i) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + 8 * i));
}

// Which coefficients of a block are zero.
struct Zeros {
    bool ac, right, bottom;
};

inline Zeros zerosOf(const int16_t *block) {
    __m128i bottom = _mm_or_si128(_mm_or_si128(rowAt(block, 4), rowAt(block, 5)),
                                  _mm_or_si128(rowAt(block, 6), rowAt(block, 7)));
    __m128i top = _mm_or_si128(_mm_or_si128(rowAt(block, 1), rowAt(block, 2)), rowAt(block, 3));
    __m128i ac = _mm_or_si128(_mm_or_si128(top, bottom),
                              _mm_and_si128(rowAt(block, 0), _mm_set_epi16(-1, -1, -1, -1, -1, -1, -1, 0)));
    const __m128i zero = _mm_setzero_si128();
    int acZero = _mm_movemask_epi8(_mm_cmpeq_epi16(ac, zero));
    return {acZero == 0xFFFF, (acZero & 0xFF00) == 0xFF00, _mm_movemask_epi8(_mm_cmpeq_epi16(bottom, zero)) == 0xFFFF};
}

// A block with only its DC is flat: every sample is the DC's value.
inline void inverseDcOnly(int16_t *block) {
    __m128i v = _mm_set1_epi16(static_cast<int16_t>(dcOnlySample(block[0])));
    for (int i = 0; i < 8; i++)
        _mm_storeu_si128(reinterpret_cast<__m128i *>(block + 8 * i), v);
}

// The S::kBlocks blocks in place, through the smallest shape that holds the
// coefficients of all of them.
template <class S>
void inverseBlocks(int16_t *const *blocks) {
    Zeros z{true, true, true};
    for (uint32_t k = 0; k < S::kBlocks; k++) {
        Zeros b = zerosOf(blocks[k]);
        z = {z.ac && b.ac, z.right && b.right, z.bottom && b.bottom};
    }
    if (z.ac) {
        for (uint32_t k = 0; k < S::kBlocks; k++)
            inverseDcOnly(blocks[k]);
    } else if (z.right) {
        z.bottom ? inverseShape<S, 4, 4>(blocks) : inverseShape<S, 8, 4>(blocks);
    } else {
        z.bottom ? inverseShape<S, 4, 8>(blocks) : inverseShape<S, 8, 8>(blocks);
    }
}

}  // namespace
}  // namespace kiv
