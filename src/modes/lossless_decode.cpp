// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadSpatialToRect(JpgParam *, ComplibRect *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetSpatialDifference(JpgParam *, JpgComponent *, int32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetSpatialDifferenceAtIndex(JpgParam *, int32_t *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetPointTransform(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetSpatialPrevLine(JpgParam *, void **) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetSpatialFirstLine(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSetSpatialFirstLine(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
