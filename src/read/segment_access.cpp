// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadSeekMarkerSegment(JpgParam *, int32_t, uint16_t *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadReadMarkerData(JpgParam *, uint8_t *, uint32_t, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSeekMarkerData(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
