// Internal interface of the progressive decoder (ISO/IEC 10918-1 Annex G):
// the choice of the coefficient routine for a scan, in the shape of the
// handle's coefficient slot (JpgCoefficientFunc).
#pragma once

#include "core/codec.h"

namespace kiv {

// The coefficient routine for a scan with spectral start Ss and
// successive-approximation high bit Ah: Ss = Se = 0 is a DC scan, anything
// else an AC scan; Ah = 0 is a first scan, Ah != 0 a refinement. The DC
// refinement routine, which takes no component, comes wrapped.
JpgCoefficientFunc progressiveCoefficientRoutine(uint8_t ss, uint8_t se, uint8_t ah);

// Positions of a coefficient band never pass this zig-zag index.
constexpr uint32_t kLastZigzag = 63;

}  // namespace kiv
