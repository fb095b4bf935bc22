// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadParseScanLevel(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
