// The encoder's forward DCT: complibIntFDCT8x8 (forward_dct.cpp) is the
// portable transform; on x86-64 forward_dct_sse2.cpp computes the same bits
// eight lanes at a time for blocks of level-shifted 8-bit samples.
#pragma once

#include "core/codec.h"

#if defined(__x86_64__) && defined(__SSE2__)
#define KIV_HAVE_SSE2_FDCT 1
#else
#define KIV_HAVE_SSE2_FDCT 0
#endif

namespace kiv {

// Largest sample magnitude for which the SSE2 transform's 16-bit
// intermediates cannot overflow (the input conversion gives -128..128).
constexpr int32_t kFdctSampleLimit = 181;

// In place, like complibIntFDCT8x8, for samples within +-kFdctSampleLimit.
void forwardDctSse2(int16_t *block);

// The transform the MCU encoder uses: the SSE2 one when built.
inline void forwardDct(int16_t *block);

}  // namespace kiv

inline void kiv::forwardDct(int16_t *block) {
#if KIV_HAVE_SSE2_FDCT
    forwardDctSse2(block);
#else
    complibIntFDCT8x8(block);
#endif
}
