// SSE2 block expanders (both x86 targets, compiled with -msse2): one input row of 8 samples becomes 16
// in two registers. The rounded midpoint (a + b + 1) >> 1 of signed samples
// is the unsigned rounding average of the samples offset by 0x8000, which
// holds for every 16-bit input, so the result matches the portable code.
#include "read/upsampling_sse2.h"

#if KIV_HAVE_SSE2_UPSAMPLING

#include <emmintrin.h>

namespace kiv {
namespace {

inline __m128i load(const int16_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); }
inline void store(int16_t *p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i *>(p), v); }

struct Doubled {
    __m128i left, right;  // output samples 0..7 and 8..15
};

// Row sy of the block: the right-hand sample comes from next, or repeats.
inline Doubled doubleRow(const int16_t *in, const int16_t *next, int sy) {
    const int16_t *s = in + 8 * sy;
    __m128i a = load(s);
    int right = next != nullptr ? next[8 * sy] : s[7];
    __m128i b = _mm_insert_epi16(_mm_srli_si128(a, 2), right, 7);
    const __m128i bias = _mm_set1_epi16(static_cast<int16_t>(0x8000));
    __m128i mid = _mm_xor_si128(_mm_avg_epu16(_mm_xor_si128(a, bias), _mm_xor_si128(b, bias)), bias);
    return {_mm_unpacklo_epi16(a, mid), _mm_unpackhi_epi16(a, mid)};
}

}  // namespace

void doubleBothSse2(const int16_t *in, const int16_t *next, int16_t *out) {
    for (int sy = 0; sy < 8; sy++) {
        Doubled d = doubleRow(in, next, sy);
        int16_t *left = out + (sy < 4 ? 0 : 128) + 16 * (sy & 3), *right = left + 64;
        store(left, d.left);
        store(left + 8, d.left);
        store(right, d.right);
        store(right + 8, d.right);
    }
}

void doubleAcrossSse2(const int16_t *in, const int16_t *next, int16_t *left, int16_t *right) {
    for (int sy = 0; sy < 8; sy++) {
        Doubled d = doubleRow(in, next, sy);
        store(left + 8 * sy, d.left);
        store(right + 8 * sy, d.right);
    }
}

void doubleDownSse2(const int16_t *in, int16_t *upper, int16_t *lower) {
    for (int sy = 0; sy < 8; sy++) {
        __m128i row = load(in + 8 * sy);
        int16_t *out = (sy < 4 ? upper : lower) + 16 * (sy & 3);
        store(out, row);
        store(out + 8, row);
    }
}

}  // namespace kiv

#endif  // KIV_HAVE_SSE2_UPSAMPLING
