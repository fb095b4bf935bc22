// Block expanders of the full-size upsampling routines (upsampling.cpp):
// portable versions, and SSE2 versions of x86-64 (upsampling_sse2.cpp) that
// give the same samples for every 16-bit input.
#pragma once

#include <stdint.h>

#if defined(__x86_64__) && defined(__SSE2__)
#define KIV_HAVE_SSE2_UPSAMPLING 1
#else
#define KIV_HAVE_SSE2_UPSAMPLING 0
#endif

namespace kiv {

// Each takes one 64-sample block (rows of 8). Horizontal doubling is
// co-sited: out[2i] = a[i], out[2i + 1] = (a[i] + a[i + 1] + 1) >> 1, the
// sample right of a[7] being row's first sample in next (the same block of
// the right-hand MCU), or a[7] itself when next is null. Vertical doubling
// repeats rows.
//
// doubleBoth: both directions into four consecutive blocks (top-left,
// top-right, bottom-left, bottom-right) at out.
// doubleAcross: horizontally into the blocks left and right.
// doubleDown: vertically, rows 0-3 into upper and rows 4-7 into lower.
void doubleBothPortable(const int16_t *in, const int16_t *next, int16_t *out);
void doubleAcrossPortable(const int16_t *in, const int16_t *next, int16_t *left, int16_t *right);
void doubleDownPortable(const int16_t *in, int16_t *upper, int16_t *lower);

#if KIV_HAVE_SSE2_UPSAMPLING
void doubleBothSse2(const int16_t *in, const int16_t *next, int16_t *out);
void doubleAcrossSse2(const int16_t *in, const int16_t *next, int16_t *left, int16_t *right);
void doubleDownSse2(const int16_t *in, int16_t *upper, int16_t *lower);
#endif

}  // namespace kiv
