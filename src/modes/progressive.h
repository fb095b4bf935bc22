// Internal interface of the progressive decoder (ISO/IEC 10918-1 Annex G):
// the kind of a scan, and the coefficient routine for it in the shape of the
// handle's coefficient slot (JpgCoefficientFunc).
#pragma once

#include "core/codec.h"

namespace kiv {

// Ss = Se = 0 is a DC scan, anything else an AC scan; Ah = 0 is a first
// scan, Ah != 0 a refinement (G.1.1.1).
enum class ProgressiveScan { DcFirst, DcRefine, AcFirst, AcRefine };
ProgressiveScan progressiveScanKind(uint8_t ss, uint8_t se, uint8_t ah);

// The coefficient routine for a scan with spectral start Ss and
// successive-approximation high bit Ah: Ss = Se = 0 is a DC scan, anything
// else an AC scan; Ah = 0 is a first scan, Ah != 0 a refinement. The DC
// refinement routine, which takes no component, comes wrapped.
JpgCoefficientFunc progressiveCoefficientRoutine(uint8_t ss, uint8_t se, uint8_t ah);

// Positions of a coefficient band never pass this zig-zag index.
constexpr uint32_t kLastZigzag = 63;

}  // namespace kiv
