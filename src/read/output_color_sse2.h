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

// Converts samples y[0..7], cb[0..7], cr[0..7] (low 8 bits used) into 24
// bytes B, G, R at dst.
void yccRowToBgrSse2(const int16_t *y, const int16_t *cb, const int16_t *cr, uint8_t *dst);

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
