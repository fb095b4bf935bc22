// Reduced inverse transforms of scaled output: each turns the dequantized
// low-frequency coefficients of one block (natural order, 64 slots) into the
// 1x1, 2x2 or 4x4 samples of its top-left corner, row stride 8, level-shifted
// and clamped through PixClipTable. Only the slots the transform reads change.
#pragma once

#include <stdint.h>

namespace kiv {

void reduceTo1x1(int16_t *block);  // (F00 + 4) >> 3
void reduceTo2x2(int16_t *block);  // 2-point transforms of F00, F01, F10, F11
void reduceTo4x4(int16_t *block);  // 4-point transforms of rows and columns 0-3

// The two implementations reduceTo4x4 chooses from (SSE2 on x86-64 only);
// both give the same bits for every input.
void reduceTo4x4Portable(int16_t *block);
void reduceTo4x4Sse2(int16_t *block);

}  // namespace kiv
