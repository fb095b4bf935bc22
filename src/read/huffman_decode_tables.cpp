// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgGenerateHuffmanTable(JpgParam *, const uint8_t *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadInitializeDecVLCTable(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
