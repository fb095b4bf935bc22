// SSE2 RGB -> YCbCr conversion of x86-64 for the input conversion
// (input_color.cpp): eight pixels at a time, with the portable conversion's
// integer formula and rounding, so the samples are the same bits. Pixels
// are three bytes, blue first; no byte outside the eight pixels is read.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#if defined(__x86_64__) && defined(__SSE2__)
#define KIV_HAVE_SSE2_COLOR 1
#include <emmintrin.h>
#else
#define KIV_HAVE_SSE2_COLOR 0
#endif

#if KIV_HAVE_SSE2_COLOR

namespace kiv::color_sse2 {

inline __m128i load4(const uint8_t *p) {
    int32_t v;
    memcpy(&v, p, 4);
    return _mm_cvtsi32_si128(v);
}

// The eight pixels p, p + step, ... as 16-bit B, G, R, junk quadruples, two
// pixels per vector. Each 4-byte load takes one byte after its pixel (the
// next pixel's blue), except the last, which takes the byte before it;
// adjacent pixels are read as 8-byte pieces within their 24 bytes.
struct Spread {
    __m128i pair[4];
};

inline __m128i load8(const uint8_t *p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)); }

inline __m128i quad(__m128i a, __m128i b, __m128i c, __m128i d) {
    return _mm_unpacklo_epi64(_mm_unpacklo_epi32(a, b), _mm_unpacklo_epi32(c, d));
}

// Step is the distance of the pixels in bytes, 0 when it is only known at
// run time (given as `step`).
template <ptrdiff_t Step>
inline Spread spread8(const uint8_t *p, ptrdiff_t step) {
    __m128i lo, hi;
    if constexpr (Step == 3) {
        // Adjacent pixels, bytes 0 to 23: four 8-byte loads, each holding two
        // pixels at byte offsets 0 and 3 (the last at 2 and 5).
        __m128i a = load8(p), b = load8(p + 6), c = load8(p + 12), d = load8(p + 16);
        lo = quad(a, _mm_srli_epi64(a, 24), b, _mm_srli_epi64(b, 24));
        hi = quad(c, _mm_srli_epi64(c, 24), _mm_srli_epi64(d, 16), _mm_srli_epi64(d, 40));
    } else {
        lo = quad(load4(p), load4(p + step), load4(p + 2 * step), load4(p + 3 * step));
        hi = quad(load4(p + 4 * step), load4(p + 5 * step), load4(p + 6 * step),
                  _mm_srli_epi32(load4(p + 7 * step - 1), 8));
    }
    const __m128i zero = _mm_setzero_si128();
    return {{_mm_unpacklo_epi8(lo, zero), _mm_unpackhi_epi8(lo, zero), _mm_unpacklo_epi8(hi, zero),
             _mm_unpackhi_epi8(hi, zero)}};
}

// (Cb B + Cg G + Cr R + Bias) >> 12 for four pixels given as two pairs.
template <int16_t Cb, int16_t Cg, int16_t Cr, int32_t Bias>
inline __m128i weigh4(__m128i pixels01, __m128i pixels23) {
    const __m128i coef = _mm_set_epi16(0, Cr, Cg, Cb, 0, Cr, Cg, Cb);
    __m128 a = _mm_castsi128_ps(_mm_madd_epi16(pixels01, coef));  // B+G part, R part, per pixel
    __m128 b = _mm_castsi128_ps(_mm_madd_epi16(pixels23, coef));
    __m128i sum = _mm_add_epi32(_mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0))),
                                _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1))));
    return _mm_srai_epi32(_mm_add_epi32(sum, _mm_set1_epi32(Bias)), 12);
}

template <int16_t Cb, int16_t Cg, int16_t Cr, int32_t Bias>
inline void weigh8(const Spread &s, int16_t *out) {
    __m128i v = _mm_packs_epi32(weigh4<Cb, Cg, Cr, Bias>(s.pair[0], s.pair[1]),
                                weigh4<Cb, Cg, Cr, Bias>(s.pair[2], s.pair[3]));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), v);
}

// Y = (1225 R + 2404 G + 467 B - 524288 + 2048) >> 12,
// Cb = (2048 B - 1357 G - 691 R + 2048) >> 12,
// Cr = (2048 R - 1715 G - 333 B + 2048) >> 12, for the chosen outputs.
template <bool WantY, bool WantCb, bool WantCr, ptrdiff_t Step>
inline void ycc8(const uint8_t *p, ptrdiff_t step, int16_t *y, int16_t *cb, int16_t *cr) {
    Spread s = spread8<Step>(p, step);
    if constexpr (WantY)
        weigh8<467, 2404, 1225, -524288 + 2048>(s, y);
    if constexpr (WantCb)
        weigh8<2048, -1357, -691, 2048>(s, cb);
    if constexpr (WantCr)
        weigh8<-333, -1715, 2048, 2048>(s, cr);
}

}  // namespace kiv::color_sse2

#endif
