// What the input conversion (input_color.cpp) shares with its
// processor-specific variants (input_color_sse2.cpp, input_color_avx2.cpp):
// the variants convert whole MCUs of the plain family from RGB to YCbCr
// straight into blocks and leave everything else to the portable routines.
#pragma once

#include "write/encoder.h"

namespace kiv {

// Plane samples per block sample of each component.
struct McuGrid {
    int32_t sx[4], sy[4];
};

// True when the context is valid, holds `channels` channels and the MCU at
// (x, y) lies wholly inside the image; `grid` then holds the components'
// steps. The context remembers the geometry it found valid (its `checked`
// member), so that the next MCUs of the image compare instead of checking.
bool fullMcuGrid(JpgWriteConvertContext *ctx, int32_t x, int32_t y, uint32_t channels, McuGrid *grid);

// The variant's routine for a ColorConvertID, or null.
JpgWriteColorConvertFunc writeColorConvertSse2(uint32_t id);
JpgWriteColorConvertFunc writeColorConvertAvx2(uint32_t id);

}  // namespace kiv
