// The inverse DCT's internal entry points (inverse_dct.cpp): the portable
// transform, which jpgReadInverseDCT runs where no SSE2 version is built and
// which tests compare the SSE2 version against, and the flat sample of a
// block that holds only its DC coefficient.
#pragma once

#include <stdint.h>

#include "kivjpeg.h"

namespace kiv {

// In place: 64 dequantized coefficients in, 64 samples 0..255 out.
void inverseDctPortable(int16_t *block);

// The inverse DCT of a handle's processor flag (already masked by the
// processor's capabilities) for `count` consecutive blocks, 64 values apart:
// two blocks at a time at AVX2, the SSE2 transform block by block at SSE2,
// the portable one otherwise; the same bits either way. Cheap enough to ask
// once per MCU.
using InverseDctBlocks = void (*)(int16_t *blocks, uint32_t count);
InverseDctBlocks inverseDctBlocksFor(uint32_t flag);

// Every sample of a block whose AC coefficients are all zero. Neither
// product wraps: |2896 dc| < 2^27 and |2896 t| < 2^30.
inline int dcOnlySample(int32_t dc) {
    int32_t t = (2896 * dc + 256) >> 9;
    return PixClipTable[((2896 * t + 0x10000) >> 17) & 0x3FF];
}

}  // namespace kiv
