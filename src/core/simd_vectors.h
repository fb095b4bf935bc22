// Vector types for the block transforms of the *_sse2.cpp and *_avx2.cpp
// files, so that each transform is written once: Sse2 holds one row of one
// block in a 128-bit register, Avx2 the same row of two blocks, one per
// 128-bit lane. Every operation here stays within its lane, so blocks side
// by side never mix. Also the 8x8 transpose both transforms use.
//
// Included only by headers meant for those files: everything here is in an
// anonymous namespace, so each file keeps its own copy (see core/simd.h).
#pragma once

#include <immintrin.h>
#include <stdint.h>

#include "core/simd.h"

namespace kiv {
namespace {

struct Sse2 {
    using V = __m128i;
    static constexpr uint32_t kBlocks = 1;
    KIV_SIMD_INLINE static V load(const int16_t *const *blocks, int at) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i *>(blocks[0] + at));
    }
    KIV_SIMD_INLINE static void store(int16_t *const *blocks, int at, V v) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blocks[0] + at), v);
    }
    // Eight values for every block alike.
    KIV_SIMD_INLINE static V loadShared(const int16_t *p) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    }
    // A vector of kBlocks lanes of 16 bytes stored one after the other.
    KIV_SIMD_INLINE static V loadLanes(const void *p) { return _mm_loadu_si128(static_cast<const __m128i *>(p)); }
    KIV_SIMD_INLINE static V zero() { return _mm_setzero_si128(); }
    KIV_SIMD_INLINE static V set16(int v) { return _mm_set1_epi16(static_cast<int16_t>(v)); }
    KIV_SIMD_INLINE static V set32(int32_t v) { return _mm_set1_epi32(v); }
    KIV_SIMD_INLINE static V add16(V a, V b) { return _mm_add_epi16(a, b); }
    KIV_SIMD_INLINE static V sub16(V a, V b) { return _mm_sub_epi16(a, b); }
    KIV_SIMD_INLINE static V add32(V a, V b) { return _mm_add_epi32(a, b); }
    KIV_SIMD_INLINE static V sub32(V a, V b) { return _mm_sub_epi32(a, b); }
    KIV_SIMD_INLINE static V madd(V a, V b) { return _mm_madd_epi16(a, b); }
    KIV_SIMD_INLINE static V mullo16(V a, V b) { return _mm_mullo_epi16(a, b); }
    KIV_SIMD_INLINE static V mulhiU16(V a, V b) { return _mm_mulhi_epu16(a, b); }
    template <int N> KIV_SIMD_INLINE static V shl16(V a) { return _mm_slli_epi16(a, N); }
    template <int N> KIV_SIMD_INLINE static V shr16(V a) { return _mm_srli_epi16(a, N); }
    template <int N> KIV_SIMD_INLINE static V sar16(V a) { return _mm_srai_epi16(a, N); }
    template <int N> KIV_SIMD_INLINE static V shl32(V a) { return _mm_slli_epi32(a, N); }
    template <int N> KIV_SIMD_INLINE static V sar32(V a) { return _mm_srai_epi32(a, N); }
    KIV_SIMD_INLINE static V packs32(V a, V b) { return _mm_packs_epi32(a, b); }
    KIV_SIMD_INLINE static V packus16(V a, V b) { return _mm_packus_epi16(a, b); }
    KIV_SIMD_INLINE static V lo8(V a, V b) { return _mm_unpacklo_epi8(a, b); }
    KIV_SIMD_INLINE static V hi8(V a, V b) { return _mm_unpackhi_epi8(a, b); }
    KIV_SIMD_INLINE static V lo16(V a, V b) { return _mm_unpacklo_epi16(a, b); }
    KIV_SIMD_INLINE static V hi16(V a, V b) { return _mm_unpackhi_epi16(a, b); }
    KIV_SIMD_INLINE static V lo32(V a, V b) { return _mm_unpacklo_epi32(a, b); }
    KIV_SIMD_INLINE static V hi32(V a, V b) { return _mm_unpackhi_epi32(a, b); }
    KIV_SIMD_INLINE static V lo64(V a, V b) { return _mm_unpacklo_epi64(a, b); }
    KIV_SIMD_INLINE static V hi64(V a, V b) { return _mm_unpackhi_epi64(a, b); }
    KIV_SIMD_INLINE static V bitOr(V a, V b) { return _mm_or_si128(a, b); }
    KIV_SIMD_INLINE static V bitXor(V a, V b) { return _mm_xor_si128(a, b); }
    KIV_SIMD_INLINE static V min16(V a, V b) { return _mm_min_epi16(a, b); }
    KIV_SIMD_INLINE static V max16(V a, V b) { return _mm_max_epi16(a, b); }
    KIV_SIMD_INLINE static V eq16(V a, V b) { return _mm_cmpeq_epi16(a, b); }
    KIV_SIMD_INLINE static bool anySet(V a) { return _mm_movemask_epi8(a) != 0; }
    KIV_SIMD_INLINE static uint32_t laneBits(uint32_t mask, uint32_t) { return mask; }
    KIV_SIMD_INLINE static int32_t first(V v, uint32_t) { return static_cast<int16_t>(_mm_cvtsi128_si32(v)); }
    KIV_SIMD_INLINE static V packs16(V a, V b) { return _mm_packs_epi16(a, b); }
    KIV_SIMD_INLINE static uint32_t signBits8(V a) { return static_cast<uint32_t>(_mm_movemask_epi8(a)); }
#ifdef __SSSE3__
    // Byte j of the result is byte ctrl[j] of a, or zero where ctrl[j] < 0.
    KIV_SIMD_INLINE static V shuffle8(V a, V ctrl) { return _mm_shuffle_epi8(a, ctrl); }
#endif
};

#ifdef __AVX2__
struct Avx2 {
    using V = __m256i;
    static constexpr uint32_t kBlocks = 2;
    KIV_SIMD_INLINE static V load(const int16_t *const *blocks, int at) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blocks[0] + at));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(blocks[1] + at));
        return _mm256_inserti128_si256(_mm256_castsi128_si256(a), b, 1);
    }
    KIV_SIMD_INLINE static void store(int16_t *const *blocks, int at, V v) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blocks[0] + at), _mm256_castsi256_si128(v));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(blocks[1] + at), _mm256_extracti128_si256(v, 1));
    }
    KIV_SIMD_INLINE static V loadShared(const int16_t *p) {
        return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(p)));
    }
    KIV_SIMD_INLINE static V loadLanes(const void *p) { return _mm256_loadu_si256(static_cast<const __m256i *>(p)); }
    KIV_SIMD_INLINE static V zero() { return _mm256_setzero_si256(); }
    KIV_SIMD_INLINE static V set16(int v) { return _mm256_set1_epi16(static_cast<int16_t>(v)); }
    KIV_SIMD_INLINE static V set32(int32_t v) { return _mm256_set1_epi32(v); }
    KIV_SIMD_INLINE static V add16(V a, V b) { return _mm256_add_epi16(a, b); }
    KIV_SIMD_INLINE static V sub16(V a, V b) { return _mm256_sub_epi16(a, b); }
    KIV_SIMD_INLINE static V add32(V a, V b) { return _mm256_add_epi32(a, b); }
    KIV_SIMD_INLINE static V sub32(V a, V b) { return _mm256_sub_epi32(a, b); }
    KIV_SIMD_INLINE static V madd(V a, V b) { return _mm256_madd_epi16(a, b); }
    KIV_SIMD_INLINE static V mullo16(V a, V b) { return _mm256_mullo_epi16(a, b); }
    KIV_SIMD_INLINE static V mulhiU16(V a, V b) { return _mm256_mulhi_epu16(a, b); }
    template <int N> KIV_SIMD_INLINE static V shl16(V a) { return _mm256_slli_epi16(a, N); }
    template <int N> KIV_SIMD_INLINE static V shr16(V a) { return _mm256_srli_epi16(a, N); }
    template <int N> KIV_SIMD_INLINE static V sar16(V a) { return _mm256_srai_epi16(a, N); }
    template <int N> KIV_SIMD_INLINE static V shl32(V a) { return _mm256_slli_epi32(a, N); }
    template <int N> KIV_SIMD_INLINE static V sar32(V a) { return _mm256_srai_epi32(a, N); }
    KIV_SIMD_INLINE static V packs32(V a, V b) { return _mm256_packs_epi32(a, b); }
    KIV_SIMD_INLINE static V packus16(V a, V b) { return _mm256_packus_epi16(a, b); }
    KIV_SIMD_INLINE static V lo8(V a, V b) { return _mm256_unpacklo_epi8(a, b); }
    KIV_SIMD_INLINE static V hi8(V a, V b) { return _mm256_unpackhi_epi8(a, b); }
    KIV_SIMD_INLINE static V lo16(V a, V b) { return _mm256_unpacklo_epi16(a, b); }
    KIV_SIMD_INLINE static V hi16(V a, V b) { return _mm256_unpackhi_epi16(a, b); }
    KIV_SIMD_INLINE static V lo32(V a, V b) { return _mm256_unpacklo_epi32(a, b); }
    KIV_SIMD_INLINE static V hi32(V a, V b) { return _mm256_unpackhi_epi32(a, b); }
    KIV_SIMD_INLINE static V lo64(V a, V b) { return _mm256_unpacklo_epi64(a, b); }
    KIV_SIMD_INLINE static V hi64(V a, V b) { return _mm256_unpackhi_epi64(a, b); }
    KIV_SIMD_INLINE static V bitOr(V a, V b) { return _mm256_or_si256(a, b); }
    KIV_SIMD_INLINE static V bitXor(V a, V b) { return _mm256_xor_si256(a, b); }
    KIV_SIMD_INLINE static V min16(V a, V b) { return _mm256_min_epi16(a, b); }
    KIV_SIMD_INLINE static V max16(V a, V b) { return _mm256_max_epi16(a, b); }
    KIV_SIMD_INLINE static V eq16(V a, V b) { return _mm256_cmpeq_epi16(a, b); }
    KIV_SIMD_INLINE static bool anySet(V a) { return _mm256_movemask_epi8(a) != 0; }
    // The 16 bits of lane `lane` in a signBits8 result (packs16 and shuffle8
    // work per lane, so lane k holds block k's bytes).
    KIV_SIMD_INLINE static uint32_t laneBits(uint32_t mask, uint32_t lane) {
        return lane == 0 ? mask & 0xFFFF : mask >> 16;
    }
    KIV_SIMD_INLINE static int32_t first(V v, uint32_t lane) {
        __m128i half = lane == 0 ? _mm256_castsi256_si128(v) : _mm256_extracti128_si256(v, 1);
        return static_cast<int16_t>(_mm_cvtsi128_si32(half));
    }
    KIV_SIMD_INLINE static V packs16(V a, V b) { return _mm256_packs_epi16(a, b); }
    KIV_SIMD_INLINE static uint32_t signBits8(V a) { return static_cast<uint32_t>(_mm256_movemask_epi8(a)); }
    // Within each lane, as Sse2::shuffle8.
    KIV_SIMD_INLINE static V shuffle8(V a, V ctrl) { return _mm256_shuffle_epi8(a, ctrl); }
};
#endif

// 8x8 transpose of 16-bit values (per block): p[i] holds row i, t[i]
// receives column i; p and t may be the same array.
template <class S, typename V = typename S::V>
KIV_SIMD_INLINE void transpose8x8(const V *p, V *t) {
    V a[8], b[8];
    for (int j = 0; j < 4; j++) {
        a[2 * j] = S::lo16(p[2 * j], p[2 * j + 1]);
        a[2 * j + 1] = S::hi16(p[2 * j], p[2 * j + 1]);
    }
    for (int j = 0; j < 2; j++) {  // rows 4j .. 4j + 3
        b[4 * j] = S::lo32(a[4 * j], a[4 * j + 2]);
        b[4 * j + 1] = S::hi32(a[4 * j], a[4 * j + 2]);
        b[4 * j + 2] = S::lo32(a[4 * j + 1], a[4 * j + 3]);
        b[4 * j + 3] = S::hi32(a[4 * j + 1], a[4 * j + 3]);
    }
    for (int j = 0; j < 4; j++) {
        t[2 * j] = S::lo64(b[j], b[4 + j]);
        t[2 * j + 1] = S::hi64(b[j], b[4 + j]);
    }
}

}  // namespace
}  // namespace kiv
