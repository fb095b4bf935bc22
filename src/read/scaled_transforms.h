// Reduced inverse transforms of scaled output: each turns the dequantized
// low-frequency coefficients of one block (natural order, 64 slots) into the
// 1x1, 2x2 or 4x4 samples of its top-left corner, row stride 8, level-shifted
// and clamped through PixClipTable. Only the slots the transform reads change.
#pragma once

#include <stdint.h>

#include "kivjpeg.h"

namespace kiv {

constexpr int32_t sra(uint32_t v, int s) { return static_cast<int32_t>(v) >> s; }

inline int16_t clipSample(uint32_t index) { return static_cast<int16_t>(PixClipTable[index & 0x3FF]); }

// Level 0: the block's only sample is its rounded DC, (F00 + 4) >> 3. Inline,
// as the 2x2 transform, for the MCU decoders that run one per block.
inline void reduceTo1x1(int16_t *block) { block[0] = clipSample(sra(static_cast<uint32_t>(block[0]) + 4, 3)); }

// Level 1: 2-point transforms on F00, F01, F10, F11.
inline void reduceTo2x2(int16_t *block) {
    int32_t f00 = block[0], f01 = block[1], f10 = block[8], f11 = block[9];
    int32_t a = f00 + f10, b = f00 - f10, c = f01 + f11, d = f01 - f11;
    block[0] = clipSample((a + c + 4) >> 3);
    block[1] = clipSample((a - c + 4) >> 3);
    block[8] = clipSample((b + d + 4) >> 3);
    block[9] = clipSample((b - d + 4) >> 3);
}

// 4-point transforms of rows and columns 0-3: the portable reference and the
// SSE2 version (scaled_transforms_sse2.cpp), the same bits for every input;
// reduceTo4x4For hands out the one a processor flag allows.
using Reduction = void (*)(int16_t *block);
void reduceTo4x4Portable(int16_t *block);
void reduceTo4x4Sse2(int16_t *block);
Reduction reduceTo4x4For(uint32_t flag);

// A 4x4 corner whose AC coefficients are all zero becomes its flat sample;
// false (and nothing written) otherwise. Both 4x4 transforms start with it.
bool reduceFlat4x4(int16_t *block);

// The 4x4 scale factors sqrt(2) cos(pi/8) and sqrt(2) sin(pi/8) times 4096.
constexpr uint32_t kReduceK1 = 5352, kReduceK3 = 2217;

}  // namespace kiv
