// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadEpilogEntropyCodedSegment(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadReadRestartMarker(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
