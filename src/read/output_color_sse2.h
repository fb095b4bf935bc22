// The SSE2 YCbCr-to-BGR row of x86-64 (output_color_sse2.cpp): eight pixels
// at once, bit-identical to the table converter of output_color.cpp.
#pragma once

#include <stdint.h>

#if defined(__x86_64__) && defined(__SSE2__)
#define KIV_HAVE_SSE2_COLOR 1
#else
#define KIV_HAVE_SSE2_COLOR 0
#endif

namespace kiv {

// Converts samples y[0..7], cb[0..7], cr[0..7] (low 8 bits used) into 24
// bytes B, G, R at dst.
void yccRowToBgrSse2(const int16_t *y, const int16_t *cb, const int16_t *cr, uint8_t *dst);

}  // namespace kiv
