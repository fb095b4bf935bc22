// SSE2 input conversion of the encoder: whole MCUs of the plain family from
// RGB to YCbCr straight into blocks, one block row (eight samples) at a time
// (input_color_sse2.h); everything else goes to the portable routines.
// Compiled with -msse2; only the function below leaves this file.
#include "write/input_color_sse2.h"

namespace kiv {

JpgWriteColorConvertFunc writeColorConvertSse2(uint32_t id) {
    // Three channels, RGB -> YCbCr (kind 2), 8-bit, plain down-sampling.
    return (id & 0xAF0000FFu) == 0x02000003u ? rgbToYccRect<Sse2Rows> : nullptr;
}

}  // namespace kiv
