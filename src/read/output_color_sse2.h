// The SSE2 block writers (output_color_sse2.cpp, both x86 targets, chosen
// at run time): whole 8-column blocks of an upsampled MCU written as BGR,
// grey, three- or four-channel pixels, two rows of sixteen pixels at a
// time, bit-identical to the table and copy converters of output_color.cpp.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "core/simd.h"

#define KIV_HAVE_SSE2_COLOR KIV_SIMD_X86

namespace kiv {

// Two rows of eight BGR pixels of a 4:2:0 or 4:2:2 MCU decoded at 1/2 scale
// (low 8 bits of each sample used): the luma of the first row is samples
// 0..3 of luma, then of luma + 64 (two reduced blocks side by side), that
// of the second row lies 8 samples further; chroma = {cb, cr of the first
// row, cb, cr of the second}, four samples each, every one for two columns.
void halfScaleRowsToBgrSse2(const int16_t *luma, const int16_t *const *chroma, uint8_t *dst0, uint8_t *dst1);

// Block writers: src holds one 64-sample block per channel (rows of 8
// samples); rows (1..8) rows of 8 pixels go to dst, dst + stride, ...
// The low byte of each sample counts. BGR takes Y, Cb, Cr; the copies take
// channel c from src[c].
void storeBlockBgrSse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);
// As storeBlockBgrSse2 for chroma doubled vertically: rows 2k and 2k + 1 of
// Cb and Cr are equal, and only the even ones are read.
void storeBlockBgrPairedSse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);
// The same two for AVX2 processors (output_color_avx2.cpp), four rows at a
// time; the copies have no AVX2 version.
void storeBlockBgrAvx2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);
void storeBlockBgrPairedAvx2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);
void storeBlockCopy1Sse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);
void storeBlockCopy3Sse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);
void storeBlockCopy4Sse2(const int16_t *const *src, uint8_t *dst, ptrdiff_t stride, int rows);

}  // namespace kiv
