// Block expanders of the full-size upsampling routines (upsampling.cpp):
// portable versions, and SSE2 versions (upsampling_sse2.cpp, both x86
// targets, chosen at run time) that give the same samples for every 16-bit
// input; and what the colour converters may rely on from an upsampler.
#pragma once

#include <stdint.h>

#include "core/simd.h"

#define KIV_HAVE_SSE2_UPSAMPLING KIV_SIMD_X86

namespace kiv {

// The full-size upsampling routine of a processor level for an upsampling
// ID, or null when the portable routine serves.
JpgUpSamplingFunc upSamplingFor(uint32_t id, SimdLevel level);

// True for the routines (of any level) that double components of vertical
// factor 1 by repeating rows, so that with Vmax = 2 their chroma rows come
// in equal pairs.
bool doublesChromaRows(JpgUpSamplingFunc routine);

// True for the routines that only point at the MCU's own blocks (every
// component at full resolution), never looking at the MCU right of it.
bool pointsInPlace(JpgUpSamplingFunc routine);

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
