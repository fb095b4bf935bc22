// The forward DCT and quantizer of forward_dct_sse2.cpp and
// forward_dct_avx2.cpp, written once over a vector type of
// core/simd_vectors.h: Sse2 holds one row of one block in a 128-bit
// register, Avx2 the same row of two blocks, one per 128-bit lane. The
// arithmetic is that of complibIntFDCT8x8 and quantizeBlock: each product of
// the portable pass is regrouped into sums of 16-bit values times 16-bit
// constants, so that pmaddwd forms it exactly in 32 bits (for example
// 3135 d + 2217 (d + e) = 5352 d + 2217 e, and in the row pass
// = 5352 s07 + 2217 s16 - 5352 s34 - 2217 s25); every 16-bit intermediate
// fits for samples within +-kFdctSampleLimit.
//
// Included only by those two files, each compiled for its instruction set:
// everything here is in an anonymous namespace, so each file keeps its own
// copy (see core/simd.h), and inlined into the file's two entry points, so
// that the eight rows of a block stay in registers.
#pragma once

#include "core/simd_vectors.h"
#include "core/tables.h"
#include "write/forward_dct.h"
#include "write/quantizer.h"

namespace kiv {
namespace {

// Eight 32-bit values per block, in two vectors.
template <class S>
struct Wide {
    typename S::V lo, hi;
    KIV_SIMD_INLINE Wide operator+(Wide b) const { return {S::add32(lo, b.lo), S::add32(hi, b.hi)}; }
};

// ca * a + cb * b in 32 bits per value, from a and b interleaved.
template <class S, int16_t Ca, int16_t Cb>
KIV_SIMD_INLINE Wide<S> madd(typename S::V a, typename S::V b) {
    const typename S::V c = S::set32(static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint16_t>(Cb)) << 16 |
                                                          static_cast<uint16_t>(Ca)));
    return {S::madd(S::lo16(a, b), c), S::madd(S::hi16(a, b), c)};
}

template <class S, int Bias, int Shift>
KIV_SIMD_INLINE typename S::V roundNarrow(Wide<S> v) {
    const typename S::V bias = S::set32(Bias);
    return S::packs32(S::template sar32<Shift>(S::add32(v.lo, bias)),
                     S::template sar32<Shift>(S::add32(v.hi, bias)));
}

// Column pass: the samples are small enough that every intermediate,
// including a + b, d + e and u, w, g, h, fits 16 bits, so each output is one
// product pair; the pass keeps three extra bits.
template <class S>
KIV_SIMD_INLINE void columnPass(typename S::V *x) {
    using V = typename S::V;
    V s07 = S::add16(x[0], x[7]), s16 = S::add16(x[1], x[6]);
    V s25 = S::add16(x[2], x[5]), s34 = S::add16(x[3], x[4]);
    V t07 = S::sub16(x[0], x[7]), t16 = S::sub16(x[1], x[6]);
    V t25 = S::sub16(x[2], x[5]), t34 = S::sub16(x[3], x[4]);
    V a = S::add16(s07, s34), b = S::add16(s16, s25);
    V d = S::sub16(s07, s34), e = S::sub16(s16, s25);
    x[0] = S::template shl16<3>(S::add16(a, b));
    x[4] = S::template shl16<3>(S::sub16(a, b));
    x[2] = roundNarrow<S, 256, 9>(madd<S, 5352, 2217>(d, e));   // 3135 d + z
    x[6] = roundNarrow<S, 256, 9>(madd<S, 2217, -5352>(d, e));  // z - 7569 e

    V p = roundNarrow<S, 2048, 12>(madd<S, 2896, -2896>(t16, t25));
    V r = roundNarrow<S, 2048, 12>(madd<S, 2896, 2896>(t16, t25));
    V g = S::add16(t07, r), u = S::add16(t34, p);
    V h = S::sub16(t07, r), w = S::sub16(t34, p);
    x[1] = roundNarrow<S, 256, 9>(madd<S, 5681, 1130>(g, u));   // 4551 g + k1
    x[7] = roundNarrow<S, 256, 9>(madd<S, 1130, -5681>(g, u));  // k1 - 6811 u
    x[3] = roundNarrow<S, 256, 9>(madd<S, 4816, -3218>(h, w));  // k2 - 8034 w
    x[5] = roundNarrow<S, 256, 9>(madd<S, 3218, 4816>(h, w));   // k2 - 1598 h
}

// Row pass: sums of four inputs may exceed 16 bits, so every product is
// regrouped into pairs of 16-bit terms; the pass removes the extra bits.
template <class S>
KIV_SIMD_INLINE void rowPass(typename S::V *x) {
    using V = typename S::V;
    V s07 = S::add16(x[0], x[7]), s16 = S::add16(x[1], x[6]);
    V s25 = S::add16(x[2], x[5]), s34 = S::add16(x[3], x[4]);
    V t07 = S::sub16(x[0], x[7]), t16 = S::sub16(x[1], x[6]);
    V t25 = S::sub16(x[2], x[5]), t34 = S::sub16(x[3], x[4]);

    // Even part: a = s07 + s34, b = s16 + s25, d = s07 - s34, e = s16 - s25.
    x[0] = roundNarrow<S, 4, 3>(madd<S, 1, 1>(s07, s16) + madd<S, 1, 1>(s34, s25));
    x[4] = roundNarrow<S, 4, 3>(madd<S, 1, -1>(s07, s16) + madd<S, 1, -1>(s34, s25));
    x[2] = roundNarrow<S, 16384, 15>(madd<S, 5352, 2217>(s07, s16) + madd<S, -5352, -2217>(s34, s25));
    x[6] = roundNarrow<S, 16384, 15>(madd<S, 2217, -5352>(s07, s16) + madd<S, -2217, 5352>(s34, s25));

    // Odd part: p and r are the 1/sqrt(2) products rounded to integers; then
    // u = t34 + p, w = t34 - p, g = t07 + r, h = t07 - r enter only as sums.
    V p = roundNarrow<S, 2048, 12>(madd<S, 2896, -2896>(t16, t25));
    V r = roundNarrow<S, 2048, 12>(madd<S, 2896, 2896>(t16, t25));
    x[1] = roundNarrow<S, 16384, 15>(madd<S, 5681, 1130>(t07, t34) + madd<S, 5681, 1130>(r, p));
    x[7] = roundNarrow<S, 16384, 15>(madd<S, 1130, -5681>(t07, t34) + madd<S, 1130, -5681>(r, p));
    x[3] = roundNarrow<S, 16384, 15>(madd<S, 4816, -3218>(t07, t34) + madd<S, -4816, 3218>(r, p));
    x[5] = roundNarrow<S, 16384, 15>(madd<S, 3218, 4816>(t07, t34) + madd<S, -3218, -4816>(r, p));
}

// The transform of S::kBlocks blocks; x[i] receives row i of the output,
// or with kByColumn column i (lane r then holds row r).
template <class S, bool kByColumn = false>
KIV_SIMD_INLINE void transform(const int16_t *const *blocks, typename S::V *x) {
    for (int i = 0; i < 8; i++)
        x[i] = S::load(blocks, 8 * i);
    columnPass<S>(x);  // vector i is row i: lanes are columns
    transpose8x8<S>(x, x);
    rowPass<S>(x);  // lanes are rows
    if constexpr (!kByColumn)
        transpose8x8<S>(x, x);
}

// The step values of row i of each block's table, side by side like the
// rows; kShared: every block has the same table (one load).
template <class S, bool kShared>
KIV_SIMD_INLINE typename S::V stepRow(const uint16_t *const *rows, int i) {
    if constexpr (kShared)
        return S::loadShared(reinterpret_cast<const int16_t *>(rows[0]) + 8 * i);
    return S::load(reinterpret_cast<const int16_t *const *>(rows), 8 * i);
}

// Largest quantized AC magnitude that a baseline AC table codes (size 10).
constexpr int16_t kMaxAc = 1023;

// Eight coefficients per block: |c| + d/2, divided by reciprocal, the sign
// put back (the quotient of a 16-bit dividend by a divisor >= 3 fits 16
// bits signed).
template <class S>
KIV_SIMD_INLINE typename S::V quantize(typename S::V c, typename S::V mult, typename S::V post, typename S::V half) {
    using V = typename S::V;
    V sign = S::template sar16<15>(c);
    V n = S::sub16(S::bitXor(c, sign), sign);  // |c| as unsigned, 32768 included
    n = S::add16(n, half);
    V t = S::mulhiU16(n, mult);
    V x = S::add16(t, S::template shr16<1>(S::sub16(n, t)));
    V q = S::mulhiU16(x, post);
    return S::sub16(S::bitXor(q, sign), sign);
}

#ifdef __SSSE3__
// With SSSE3 (the AVX2 file) byte shuffles put the transformed values in
// zig-zag order before they are quantized; otherwise they stay in natural
// order.
constexpr ValueOrder kVectorOrder = ValueOrder::Zigzag;

// Shuffles from the values held by column (vector c holds column c, lane r
// row r) to zig-zag order: ctrl[j][c] moves the words of zig-zag positions
// 8 j .. 8 j + 7 that column c holds and zeroes the rest (control -128),
// the same in both 128-bit lanes; used[j][c] tells whether there are any.
struct ZigzagGather {
    int8_t ctrl[8][8][32];
    bool used[8][8];
};
constexpr ZigzagGather makeZigzagGather() {
    ZigzagGather g{};
    for (auto &outRow : g.ctrl)
        for (auto &column : outRow)
            for (int8_t &c : column)
                c = -128;
    for (int k = 0; k < 64; k++) {
        int n = static_cast<int>(kZigzag[k]), j = k / 8, t = k % 8, row = n / 8, col = n % 8;
        for (int lane = 0; lane < 32; lane += 16) {
            g.ctrl[j][col][lane + 2 * t] = static_cast<int8_t>(2 * row);
            g.ctrl[j][col][lane + 2 * t + 1] = static_cast<int8_t>(2 * row + 1);
        }
        g.used[j][col] = true;
    }
    return g;
}
constexpr ZigzagGather kZigzagGather = makeZigzagGather();
static_assert(kZigzagGather.ctrl[0][0][4] == 2 && kZigzagGather.ctrl[0][1][2] == 0 &&
              kZigzagGather.ctrl[7][7][30] == 14 && kZigzagGather.used[0][3] && !kZigzagGather.used[0][4]);

// z[j] receives zig-zag positions 8 j .. 8 j + 7 of the columns.
template <class S>
KIV_SIMD_INLINE void columnsToZigzag(const typename S::V *columns, typename S::V *z) {
    // Unrolled whole, so that only the used shuffles remain.
#pragma GCC unroll 8
    for (int j = 0; j < 8; j++) {
        typename S::V v = S::zero();
#pragma GCC unroll 8
        for (int c = 0; c < 8; c++)
            if (kZigzagGather.used[j][c])
                v = S::bitOr(v, S::shuffle8(columns[c], S::loadLanes(kZigzagGather.ctrl[j][c])));
        z[j] = v;
    }
}
#else
constexpr ValueOrder kVectorOrder = ValueOrder::Natural;
#endif

// Of each block's quantized rows q (in kVectorOrder): bit k set for every
// zig-zag position k in 1..63 whose value is non-zero. A byte per value
// marks the zeros; in natural order a table look-up per row puts their bits
// in zig-zag order.
template <class S>
KIV_SIMD_INLINE void nonZeroMasks(const typename S::V *q, uint64_t *masks) {
    using V = typename S::V;
    const V zero = S::zero();
    uint32_t groups[4];  // sign bits of 16 bytes per block (S::laneBits)
    for (int j = 0; j < 4; j++)
        groups[j] = S::signBits8(S::packs16(S::eq16(q[2 * j], zero), S::eq16(q[2 * j + 1], zero)));
    for (uint32_t b = 0; b < S::kBlocks; b++) {
        uint64_t found = 0;
        for (int j = 0; j < 4; j++)
            found |= static_cast<uint64_t>(S::laneBits(groups[j], b) ^ 0xFFFF) << (16 * j);
        if constexpr (kVectorOrder == ValueOrder::Natural) {
            uint64_t mask = 0;
            for (int row = 0; row < 8; row++)
                mask |= kZigzagRowBits.bits[row][(found >> (8 * row)) & 0xFF];
            found = mask;
        }
        masks[b] = found & ~uint64_t{1};
    }
}

// Transforms and quantizes S::kBlocks blocks whose steps are all exact
// (and, with kShared, the same).
template <class S, bool kShared>
KIV_SIMD_INLINE void transformQuantize(const int16_t *const *blocks, const QuantSteps *const *steps, QuantizedBlock *const *out) {
    using V = typename S::V;
    constexpr bool kInZigzag = kVectorOrder == ValueOrder::Zigzag;
    V x[8];  // the values in kVectorOrder, eight per vector and block
#ifdef __SSSE3__
    V columns[8];
    transform<S, true>(blocks, columns);
    columnsToZigzag<S>(columns, x);
#else
    transform<S>(blocks, x);
#endif
    const uint16_t *mult[S::kBlocks], *post[S::kBlocks], *half[S::kBlocks];
    int16_t *values[S::kBlocks];
    for (uint32_t b = 0; b < S::kBlocks; b++) {
        const StepTable &table = kInZigzag ? steps[b]->zigzag : steps[b]->natural;
        mult[b] = table.mult;
        post[b] = table.post;
        half[b] = table.half;
        values[b] = out[b]->values;
    }
    const V limit = S::set16(kMaxAc), negLimit = S::set16(-kMaxAc);
    V q[8];
    for (int i = 0; i < 8; i++) {
        q[i] = quantize<S>(x[i], stepRow<S, kShared>(mult, i), stepRow<S, kShared>(post, i),
                           stepRow<S, kShared>(half, i));
        S::store(values, 8 * i, S::max16(S::min16(q[i], limit), negLimit));
    }
    uint64_t masks[S::kBlocks];
    nonZeroMasks<S>(q, masks);
    for (uint32_t b = 0; b < S::kBlocks; b++) {
        out[b]->dc = S::first(q[0], b);
        out[b]->acMask = masks[b];
    }
}

// Runs fn(S{}, in, steps, out) over the blocks S::kBlocks at a time; a
// block left over by two-block vectors goes alone, as fn(Sse2{}, ...), in
// 128-bit registers (the same instructions, VEX-encoded in an AVX2 build).
template <class S, typename Fn>
void forEachGroup(int16_t *blocks, const QuantSteps *const *steps, uint32_t count, QuantizedBlock *out, Fn fn) {
    uint32_t b = 0;
    for (; b + S::kBlocks <= count; b += S::kBlocks) {
        int16_t *in[S::kBlocks];
        QuantizedBlock *to[S::kBlocks];
        for (uint32_t k = 0; k < S::kBlocks; k++) {
            in[k] = blocks + 64 * (b + k);
            to[k] = out == nullptr ? nullptr : out + b + k;
        }
        fn(S{}, in, steps == nullptr ? nullptr : steps + b, to);
    }
    for (; b < count; b++) {
        int16_t *in[1] = {blocks + 64 * b};
        QuantizedBlock *to[1] = {out == nullptr ? nullptr : out + b};
        fn(Sse2{}, in, steps == nullptr ? nullptr : steps + b, to);
    }
}

// Transforms in place.
template <class S>
void forwardDctBlocks(int16_t *blocks, uint32_t count) {
    forEachGroup<S>(blocks, nullptr, count, nullptr,
                    []<class T>(T, int16_t *const *in, const QuantSteps *const *, QuantizedBlock *const *) {
                        typename T::V x[8];
                        transform<T>(in, x);
                        for (int i = 0; i < 8; i++)
                            T::store(in, 8 * i, x[i]);
                    });
}

// The block kernel (quantizer.h): divisors outside the reciprocal range go
// to the portable quantizer after the vector transform.
template <class S>
void transformQuantizeBlocks(int16_t *blocks, const QuantSteps *const *steps, uint32_t count, QuantizedBlock *out) {
    forEachGroup<S>(blocks, steps, count, out,
                    []<class T>(T, int16_t *const *in, const QuantSteps *const *st, QuantizedBlock *const *to) {
                        bool exact = true;
                        for (uint32_t k = 0; k < T::kBlocks; k++)
                            exact = exact && st[k]->exact;
                        if (exact) {
                            if (T::kBlocks == 1 || st[0] == st[T::kBlocks - 1])
                                transformQuantize<T, true>(in, st, to);
                            else
                                transformQuantize<T, false>(in, st, to);
                            return;
                        }
                        typename T::V x[8];
                        transform<T>(in, x);
                        for (int i = 0; i < 8; i++)
                            T::store(in, 8 * i, x[i]);
                        for (uint32_t k = 0; k < T::kBlocks; k++) {
                            to[k]->dc = quantizeBlock(in[k], *st[k], to[k]->values);
                            to[k]->acMask = acNonZeroMask(to[k]->values);
                            if constexpr (kVectorOrder == ValueOrder::Zigzag)
                                naturalToZigzag(to[k]->values);
                        }
                    });
}

}  // namespace
}  // namespace kiv
