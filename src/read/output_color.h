// Internal contract between the decode driver and the colour converters:
// the converter to run per MCU for the routines chosen for the frame.
#pragma once

#include "core/codec.h"
#include "core/simd.h"

namespace kiv {

// The converter of a processor level for a read ColorConvertID, or null
// when the portable one serves (scaled output, two channels, 12-bit).
JpgReadColorConvertFunc readColorConvertFor(uint32_t id, SimdLevel level);

// The stored full-size converter, or an equivalent one of the same level
// that relies on what the stored upsampling routine guarantees (chroma rows
// doubled vertically are read once per pair).
JpgReadColorConvertFunc mcuRowConverter(const JpgParam *param);

// For scaled output: a converter that also does the replicating upsampling
// of the frame (the upsampling routine is then not run), or null where the
// stored pair of routines serves. YCbCr frames whose chroma is sampled 1x1
// and whose maximum factors are at most 2.
JpgReadColorConvertFunc fusedScaledConverter(const JpgParam *param);

}  // namespace kiv
