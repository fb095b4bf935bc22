// The coefficient store: the whole-image memory of quantized coefficients
// through which a frame is decoded when its scans cannot be turned into
// pixels MCU by MCU: progressive frames (ISO/IEC 10918-1 Annex G) and
// sequential frames whose first scan does not hold every component
// (non-interleaved scans, A.2.2). Scans fill it; output reconstructs rows
// from it at full size or at 1/2, 1/4, 1/8, as often as asked.
#pragma once

#include "core/codec.h"

namespace kiv {

// Whether the frame geometry lets scans and output index the store.
bool storeGeometryUsable(const JpgParam *param);

// Gets the input ready for the next decode: a store being filled continues
// where it stands, unless segment access moved the input (the rewind bit),
// in which case filling starts again from the first scan; a complete store
// needs no input. Clears the rewind bit.
JpgStatus prepareStore(JpgParam *param);

// Decodes the current scan and, unless oneScan, every following scan up to
// EOI into the store. A stream that ends early, or a scan that stops with a
// warning, completes the store with what was received and keeps that
// status in dec.storeStatus (JPG_STATUS_UNEXPECTED_END also when some
// component had no scan at all); other failures return their status and leave
// the store to be refilled from the first scan. With the store complete
// already: JPG_STATUS_ERROR when one more scan was asked for, else 0.
JpgStatus fillStore(JpgParam *param, bool oneScan);

// Output of `rows` image rows from the store, starting at the processed-line
// counter, into the rectangle from its top row; the counter advances by
// `rows`. Full size uses the MCU routine 0x302, scaled output (level 0..2)
// the scaled store routines; upsampling and conversion are the frame's.
JpgStatus outputStoredRows(JpgParam *param, const ComplibRect *rect, uint32_t rows);
JpgStatus outputStoredScaledRows(JpgParam *param, const ComplibRect *rect, uint32_t rows);

// MCU routines 0x002, 0x102, 0x202: reconstruct the MCU at the store's
// cursor at scale level 0, 1 or 2 and move the cursor on.
JpgStatus readStoredMcuLevel0(JpgParam *param);
JpgStatus readStoredMcuLevel1(JpgParam *param);
JpgStatus readStoredMcuLevel2(JpgParam *param);

}  // namespace kiv
