// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWriteSpatialFromRect(JpgParam *, const ComplibRect *, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
