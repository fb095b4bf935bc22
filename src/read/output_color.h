// Internal contract between the decode driver and the colour converters:
// the converter to run per MCU for the routines chosen for the frame.
#pragma once

#include "core/codec.h"

namespace kiv {

// The stored full-size converter, or an equivalent one that relies on what
// the stored upsampling routine guarantees (chroma rows doubled vertically
// are read once per pair).
JpgReadColorConvertFunc mcuRowConverter(const JpgParam *param);

}  // namespace kiv
