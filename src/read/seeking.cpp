// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadSeekRestartMarker(JpgParam *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSeekMcu(JpgParam *, uint32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSetPartialBitstream(JpgParam *, const uint8_t *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetProcessedLine(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSetProcessedLine(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetMcuAddress(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSetMcuAddress(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
