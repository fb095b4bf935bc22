// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWriteFromRect(JpgParam *, const ComplibRect *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
