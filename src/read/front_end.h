// Internal contract between the decoder front-end stages: the marker search
// shared by the header parsers and the caller's segment walk, and the table
// segment parser shared by the frame and scan header parsers.
#pragma once

#include "core/codec.h"

namespace kiv {

// Finds the next marker (origin 0: from the start of the stream; 1: behind
// the current segment) and reads its length; the caller's walk and the
// header parsers share it. Does not mark the handle for a rewind.
JpgStatus findMarkerSegment(JpgParam *param, int32_t origin, uint16_t *marker, uint32_t *length);

// Reads and interprets the table and miscellaneous segments (DHT, DQT, DRI,
// APP0 "JFIF", APP14 "Adobe"; others skipped) up to the next frame header or
// SOS, whose code is stored in *marker.
JpgStatus parseTableSegments(JpgParam *param, uint32_t *marker);

// Skips n bytes of raw input.
void skipInputBytes(JpgParam *param, uint32_t n);

// True when the table has codes to decode with.
inline bool hasDecodeLookup(const JpgHuffmanTable &table) { return table.numCodes > 0; }

// MCU bookkeeping of every sequential MCU routine (full size and scaled):
// the scan's last MCU sets the expected marker to EOI; the MCU completing a
// restart interval runs the restart processing.
void advanceMcuCounters(JpgParam *param);

// One block of scaled output: jpgReadGetScaleCoefficient without the guard
// of the exported name, for the scaled MCU routines (once per block).
JpgStatus decodeScaledCoefficients(JpgParam *param, int16_t *block, JpgComponent *comp, uint32_t limit);

// Whether a sequential MCU routine may run: JPG_STATUS_FAILED without blocks
// or buffers, JPG_STATUS_NOT_SUPPORTED when the scan does not hold every
// frame component (the decoders need all of them in one interleaved scan).
JpgStatus checkSequentialScan(const JpgParam *param);

}  // namespace kiv
