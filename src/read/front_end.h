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

// The restart mechanism every scan kind uses (ISO/IEC 10918-1 B.2.1, E.2.4,
// F.1.2.3). A restart interval counts units: MCUs, or in a scan of one
// component that component's blocks (A.2.2). After each unit but the scan's
// last, endOfRestartUnit counts it and, when the interval is complete,
// consumes the RSTn marker that closes it and resets the DC predictions, the
// EOB run and the count; where the count and the stream disagree (data
// where the marker should stand) it skips ahead to the next marker. It
// returns false when the scan's data ends there instead: a marker other than
// RSTn, or the end of the input.
bool startNextInterval(JpgParam *param);
inline bool endOfRestartUnit(JpgParam *param) {
    ++param->mcuAddress;
    if (param->restartInterval == 0 || param->mcuAddress < param->restartInterval)
        return true;
    return startNextInterval(param);
}

// The marker behind a scan's data, not consumed: RSTn markers closing a
// full last interval, DNL segments (which supply a missing height) and fill
// bytes are passed over first. Below 0xFFC0: data stands there instead.
uint32_t markerAfterScan(JpgParam *param);

// Skips raw input (entropy-coded bytes, stuffed 0xFF 0x00 pairs and fill
// bytes) up to the next marker, from the next byte boundary.
void skipToMarker(JpgParam *param);

// Resets what a new restart interval or scan starts from: the MCU count,
// the EOB run and every DC predictor.
void resetPrediction(JpgParam *param);

// MCU bookkeeping of every sequential MCU routine (full size and scaled):
// the scan's last MCU sets the expected marker to EOI; the others go
// through endOfRestartUnit, and a scan whose data ends early also expects
// nothing more.
inline void advanceMcuCounters(JpgParam *param) {
    if (--param->mcusLeft == 0 || !endOfRestartUnit(param))
        param->currentMarker = 0xFFD9;
}

// Whether a sequential MCU routine may run: JPG_STATUS_FAILED without blocks
// or buffers, JPG_STATUS_NOT_SUPPORTED when the scan does not hold every
// frame component (such frames decode scan by scan into the coefficient
// store instead).
JpgStatus checkSequentialScan(const JpgParam *param);

// The full-size MCU routine without its inverse DCT: the MCU buffer
// receives the dequantized coefficients of every block, for the caller to
// transform.
JpgStatus decodeMcuCoefficients(JpgParam *param);

// Block routine of sequential scans decoded into the coefficient store
// (JpgCoefficientFunc): the block is cleared and receives the quantized
// coefficients in natural order, the DC predicted as in F.2.2.1.
JpgStatus decodeBlockToStore(JpgParam *param, int16_t *block, JpgComponent *comp);

}  // namespace kiv
