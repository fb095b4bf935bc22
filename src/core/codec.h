// Internal declarations shared by the codec's stages.
#pragma once

#include "core/handle.h"

namespace kiv {

// Fills the decoder's routine slots for the current frame, scale level,
// colour-conversion setting and processor flag.
void selectReadRoutines(JpgParam *param);

// Frames decoded scan by scan into the whole-image coefficient store:
// progressive frames and sequential frames coded in several scans.
inline bool usesCoefficientStore(const JpgParam *param) { return param->dec.coefBase != nullptr; }
// The routine a slot holds for an upsampler or a colour converter chosen by
// its exported name: the same routine without the exported name's guard,
// which the drivers need not pay once per MCU. Any other routine (and null)
// comes back as it is.
JpgUpSamplingFunc slotUpsampler(JpgUpSamplingFunc exported);
JpgReadColorConvertFunc slotConverter(JpgReadColorConvertFunc exported);

// MCU routine 0x302: reconstructs one MCU from the progressive coefficient
// memory. Internal: reached only through the handle's MCU routine slot.
JpgStatus readProgressiveMCU(JpgParam *param);

// Number of blocks a component with the given sampling byte adds to the
// coefficient store (the four layouts 1x1, 1x2, 2x1, 2x2; others add none).
constexpr uint32_t storedBlocks(uint8_t sampling) {
    switch (sampling) {
    case 0x11: return 1;
    case 0x12: case 0x21: return 2;
    case 0x22: return 4;
    default: return 0;
    }
}

// Whether any byte of the word is 0xFF (a zero byte of its complement): the
// entropy-coded segments stuff a zero after it (ISO/IEC 10918-1 F.1.2.3).
template <typename Word>
constexpr bool hasByteFF(Word w) {
    constexpr Word ones = static_cast<Word>(~Word(0) / 0xFF);  // 0x01 in every byte
    return ((~w - ones) & w & static_cast<Word>(ones << 7)) != 0;
}
static_assert(hasByteFF(0x12FF3456u) && !hasByteFF(0xFEFE7F00u) && hasByteFF(uint64_t{0xFF} << 56));

}  // namespace kiv
