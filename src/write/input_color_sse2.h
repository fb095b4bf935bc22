// SSE2 RGB -> YCbCr conversion of whole MCUs straight into blocks, for
// input_color_sse2.cpp and input_color_avx2.cpp: eight pixels at a time,
// with the portable conversion's integer formula and rounding, so the
// samples are the same bits. Pixels are three bytes, blue first; no byte
// outside the eight pixels is read. Also the walk over the MCU's blocks
// that both files share, over a row converter.
//
// Included only by those files, each compiled for its instruction set:
// everything here is in an anonymous namespace, so each file keeps its own
// copy (see core/simd.h).
#pragma once

#include <emmintrin.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "write/input_color_simd.h"

namespace kiv {
namespace {

__m128i load4(const uint8_t *p) {
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

__m128i load8(const uint8_t *p) { return _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p)); }

__m128i quad(__m128i a, __m128i b, __m128i c, __m128i d) {
    return _mm_unpacklo_epi64(_mm_unpacklo_epi32(a, b), _mm_unpacklo_epi32(c, d));
}

// Step is the distance of the pixels in bytes, 0 when it is only known at
// run time (given as `step`); 6 is served by the run-time path.
template <ptrdiff_t Step>
Spread spread8(const uint8_t *p, ptrdiff_t step) {
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
__m128i weigh4(__m128i pixels01, __m128i pixels23) {
    const __m128i coef = _mm_set_epi16(0, Cr, Cg, Cb, 0, Cr, Cg, Cb);
    __m128 a = _mm_castsi128_ps(_mm_madd_epi16(pixels01, coef));  // B+G part, R part, per pixel
    __m128 b = _mm_castsi128_ps(_mm_madd_epi16(pixels23, coef));
    __m128i sum = _mm_add_epi32(_mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0))),
                                _mm_castps_si128(_mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1))));
    return _mm_srai_epi32(_mm_add_epi32(sum, _mm_set1_epi32(Bias)), 12);
}

template <int16_t Cb, int16_t Cg, int16_t Cr, int32_t Bias>
void weigh8(const Spread &s, int16_t *out) {
    __m128i v = _mm_packs_epi32(weigh4<Cb, Cg, Cr, Bias>(s.pair[0], s.pair[1]),
                                weigh4<Cb, Cg, Cr, Bias>(s.pair[2], s.pair[3]));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), v);
}

// Y = (1225 R + 2404 G + 467 B - 524288 + 2048) >> 12,
// Cb = (2048 B - 1357 G - 691 R + 2048) >> 12,
// Cr = (2048 R - 1715 G - 333 B + 2048) >> 12, for the chosen outputs.
template <bool WantY, bool WantCb, bool WantCr, ptrdiff_t Step>
void ycc8(const uint8_t *p, ptrdiff_t step, int16_t *y, int16_t *cb, int16_t *cr) {
    Spread s = spread8<Step>(p, step);
    if constexpr (WantY)
        weigh8<467, 2404, 1225, -524288 + 2048>(s, y);
    if constexpr (WantCb)
        weigh8<2048, -1357, -691, 2048>(s, cb);
    if constexpr (WantCr)
        weigh8<-333, -1715, 2048, 2048>(s, cr);
}

// Converts one block row of eight samples per call.
struct Sse2Rows {
    static constexpr int32_t kRows = 1;
    template <bool Y, bool Cb, bool Cr, ptrdiff_t Step>
    static void convert(const uint8_t *p, ptrdiff_t step, ptrdiff_t, int16_t *y, int16_t *cb, int16_t *cr) {
        ycc8<Y, Cb, Cr, Step>(p, step, y, cb, cr);
    }
};

const uint8_t *pixelAt(const JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    return ctx->pixels + static_cast<ptrdiff_t>(y) * ctx->stride + static_cast<ptrdiff_t>(x) * 3;
}

// The blocks of the components whose outputs are wanted, all on the grid
// (sx, sy); out[k] is the first block of each. Rows::convert converts
// Rows::kRows block rows at a time from pixel rows rowStep bytes apart.
template <class Rows, bool Y, bool Cb, bool Cr, ptrdiff_t Step>
void yccGrid(const JpgWriteConvertContext *ctx, int32_t x, int32_t y, int32_t sx, int32_t sy,
             int16_t *const *out) {
    const ptrdiff_t step = 3 * static_cast<ptrdiff_t>(sx);
    const ptrdiff_t rowStep = static_cast<ptrdiff_t>(sy) * ctx->stride;
    int32_t at = 0;
    for (int32_t by = 0; by < static_cast<int32_t>(ctx->mcuHeight); by += 8 * sy)
        for (int32_t bx = 0; bx < static_cast<int32_t>(ctx->mcuWidth); bx += 8 * sx, at += 64) {
            const uint8_t *p = pixelAt(ctx, x + bx, y + by);
            for (int32_t i = 0; i < 8; i += Rows::kRows, p += Rows::kRows * rowStep) {
                int32_t to = at + 8 * i;
                Rows::template convert<Y, Cb, Cr, Step>(p, step, rowStep, Y ? out[0] + to : nullptr,
                                                        Cb ? out[1] + to : nullptr, Cr ? out[2] + to : nullptr);
            }
        }
}

template <class Rows, bool Y, bool Cb, bool Cr>
void yccComponents(const JpgWriteConvertContext *ctx, int32_t x, int32_t y, const McuGrid &g, uint32_t c,
                   int16_t *const *out) {
    if (g.sx[c] == 1)
        yccGrid<Rows, Y, Cb, Cr, 3>(ctx, x, y, 1, g.sy[c], out);
    else if (g.sx[c] == 2)
        yccGrid<Rows, Y, Cb, Cr, 6>(ctx, x, y, 2, g.sy[c], out);
    else
        yccGrid<Rows, Y, Cb, Cr, 0>(ctx, x, y, g.sx[c], g.sy[c], out);
}

bool sameGrid(const JpgWriteConvertContext *ctx, uint32_t a, uint32_t b) {
    return ctx->factors[a][0] == ctx->factors[b][0] && ctx->factors[a][1] == ctx->factors[b][1];
}

// A full MCU: each block sample is the converted top-left pixel of its
// group, as conversion into planes followed by plain down-sampling gives.
// Components that share a grid are converted from one read of their pixels.
template <class Rows>
void directYccBlocks(const JpgWriteConvertContext *ctx, int32_t x, int32_t y, const McuGrid &g) {
    int16_t *out[3] = {ctx->blocks};
    for (uint32_t c = 1; c < 3; c++)
        out[c] = out[c - 1] + 64 * ctx->factors[c - 1][0] * ctx->factors[c - 1][1];
    bool chromaShared = sameGrid(ctx, 1, 2);
    if (chromaShared && sameGrid(ctx, 0, 1)) {
        yccComponents<Rows, true, true, true>(ctx, x, y, g, 0, out);
        return;
    }
    yccComponents<Rows, true, false, false>(ctx, x, y, g, 0, out);
    if (chromaShared) {
        int16_t *chroma[3] = {nullptr, out[1], out[2]};
        yccComponents<Rows, false, true, true>(ctx, x, y, g, 1, chroma);
        return;
    }
    int16_t *cb[3] = {nullptr, out[1], nullptr};
    int16_t *cr[3] = {nullptr, nullptr, out[2]};
    yccComponents<Rows, false, true, false>(ctx, x, y, g, 1, cb);
    yccComponents<Rows, false, false, true>(ctx, x, y, g, 2, cr);
}

// The plain-family RGB -> YCbCr routine over a row converter: whole MCUs
// here, the rest (and invalid contexts) through the portable routine.
template <class Rows>
JpgStatus rgbToYccRect(JpgWriteConvertContext *ctx, int32_t x, int32_t y) {
    McuGrid g;
    if (!fullMcuGrid(ctx, x, y, 3, &g))
        return jpgWriteRGB2YUVRect(ctx, x, y);
    directYccBlocks<Rows>(ctx, x, y, g);
    return JPG_STATUS_OK;
}

}  // namespace
}  // namespace kiv
