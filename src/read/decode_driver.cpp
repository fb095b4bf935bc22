// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadToRect(JpgParam *, ComplibRect *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadMcuToRect(JpgParam *, ComplibRect *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadDecodeMcuRow(JpgParam *, ComplibRect *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadSetNoColorConversion(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadEpilog(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
