// Quantizer of the baseline encoder: reciprocal division of the DCT outputs
// (natural order in and out) and the zig-zag mask of non-zero AC values that
// the entropy coder walks. The SSE2 routines work on eight coefficients at
// once with the same 16-bit arithmetic as the portable ones.
#include "write/quantizer.h"

#include "core/tables.h"

#if KIV_HAVE_SSE2_QUANTIZER
#include <emmintrin.h>
#endif

namespace {

// Largest quantized AC magnitude that a baseline AC table codes (size 10).
constexpr int32_t kMaxAc = 1023;

int32_t clampAc(int32_t v) { return v < -kMaxAc ? -kMaxAc : v > kMaxAc ? kMaxAc : v; }

// Rounds c / d half away from zero by real division (any divisor >= 1).
int32_t divideRounded(int32_t c, uint32_t d) {
    int64_t m = (c < 0 ? -static_cast<int64_t>(c) : c) + (d >> 1);
    int32_t v = static_cast<int32_t>(m / d);
    return c < 0 ? -v : v;
}

int32_t quantizeByDivision(const int16_t *block, const kiv::QuantSteps &steps, int16_t *out) {
    for (int i = 1; i < 64; i++)
        out[i] = static_cast<int16_t>(clampAc(divideRounded(block[i], steps.divisor[i])));
    int32_t dc = divideRounded(block[0], steps.divisor[0]);
    out[0] = static_cast<int16_t>(clampAc(dc));
    return dc;
}

#if KIV_HAVE_SSE2_QUANTIZER

// Eight coefficients: |c| + d/2, divided by reciprocal, the sign put back.
inline __m128i quantize8(__m128i c, const uint16_t *mult, const uint16_t *post, const uint16_t *half) {
    __m128i sign = _mm_srai_epi16(c, 15);
    __m128i n = _mm_sub_epi16(_mm_xor_si128(c, sign), sign);  // |c| as unsigned, 32768 included
    n = _mm_add_epi16(n, _mm_loadu_si128(reinterpret_cast<const __m128i *>(half)));
    __m128i t = _mm_mulhi_epu16(n, _mm_loadu_si128(reinterpret_cast<const __m128i *>(mult)));
    __m128i x = _mm_add_epi16(t, _mm_srli_epi16(_mm_sub_epi16(n, t), 1));
    __m128i q = _mm_mulhi_epu16(x, _mm_loadu_si128(reinterpret_cast<const __m128i *>(post)));
    return _mm_sub_epi16(_mm_xor_si128(q, sign), sign);
}

int32_t quantizeBlockSse2(const int16_t *block, const kiv::QuantSteps &steps, int16_t *out) {
    const __m128i limit = _mm_set1_epi16(kMaxAc);
    const __m128i negLimit = _mm_set1_epi16(-kMaxAc);
    int32_t dc = 0;
    for (int i = 0; i < 64; i += 8) {
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + i));
        __m128i q = quantize8(c, steps.mult + i, steps.post + i, steps.half + i);
        // The quotient of a 16-bit dividend by a divisor >= 3 fits 16 bits signed.
        if (i == 0)
            dc = static_cast<int16_t>(_mm_cvtsi128_si32(q));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(out + i), _mm_max_epi16(_mm_min_epi16(q, limit), negLimit));
    }
    return dc;
}

#endif

}  // namespace

namespace kiv {

void makeQuantSteps(const uint32_t *zigzagDivisors, QuantSteps *steps) {
    steps->exact = true;
    for (int k = 0; k < 64; k++) {
        uint32_t d = zigzagDivisors[k];
        uint32_t n = kZigzag[k];
        steps->divisor[n] = d < 1 ? 1 : d;
        if (d < kMinReciprocalDivisor || d > kMaxReciprocalDivisor) {
            steps->exact = false;
            d = kMinReciprocalDivisor;  // keeps the unused reciprocal well defined
        }
        Reciprocal r = reciprocalOf(d);
        steps->mult[n] = r.mult;
        steps->post[n] = r.post;
        steps->half[n] = static_cast<uint16_t>(d >> 1);
    }
}

int32_t quantizeBlockPortable(const int16_t *block, const QuantSteps &steps, int16_t *out) {
    if (!steps.exact)
        return quantizeByDivision(block, steps, out);
    int32_t dc = 0;
    for (int i = 0; i < 64; i++) {
        int32_t c = block[i];
        uint32_t n = static_cast<uint32_t>(c < 0 ? -c : c) + steps.half[i];
        int32_t v = static_cast<int32_t>(divideByReciprocal(n, {steps.mult[i], steps.post[i]}));
        v = c < 0 ? -v : v;
        if (i == 0)
            dc = v;
        out[i] = static_cast<int16_t>(clampAc(v));
    }
    return dc;
}

int32_t quantizeBlock(const int16_t *block, const QuantSteps &steps, int16_t *out) {
#if KIV_HAVE_SSE2_QUANTIZER
    if (steps.exact)
        return quantizeBlockSse2(block, steps, out);
#endif
    return quantizeBlockPortable(block, steps, out);
}

uint64_t acNonZeroMaskPortable(const int16_t *natural) {
    uint64_t mask = 0;
    for (int k = 1; k < 64; k++)
        mask |= static_cast<uint64_t>(natural[kZigzag[k]] != 0) << k;
    return mask;
}

// The natural-order mask comes from vector compares; its bits (as many as
// there are non-zero values, few at usual qualities) then move to their
// zig-zag positions one by one.
uint64_t acNonZeroMask(const int16_t *natural) {
#if KIV_HAVE_SSE2_QUANTIZER
    uint64_t found = 0;
    const __m128i zero = _mm_setzero_si128();
    for (int i = 0; i < 64; i += 16) {
        __m128i a = _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(natural + i)), zero);
        __m128i b = _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(natural + i + 8)), zero);
        uint32_t zeros = static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(a, b)));
        found |= static_cast<uint64_t>(~zeros & 0xFFFF) << i;
    }
    found &= ~uint64_t{1};
    uint64_t mask = 0;
    for (; found != 0; found &= found - 1)
        mask |= uint64_t{1} << kNaturalToZigzag[__builtin_ctzll(found)];
    return mask;
#else
    return acNonZeroMaskPortable(natural);
#endif
}

}  // namespace kiv
