// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWriteWriteMarkerCode(JpgParam *, int32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteWriteMarkerData(JpgParam *, const uint8_t *, uint32_t, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteWriteMarkerSegment(JpgParam *, int32_t, const uint8_t *, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteWriteSOF(JpgParam *, int32_t, const uint8_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteWriteSOS(JpgParam *, const uint8_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteWriteDRI(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteEpilogToMemory(JpgParam *, uint8_t **, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteEpilogToFile(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteGetPartialBitstream(JpgParam *, uint8_t **, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteFreeBitstream(uint8_t *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
