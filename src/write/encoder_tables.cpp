// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWriteSetDefaultQuantizationTable(JpgParam *, uint32_t, const uint16_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteCreateTables(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus createDQT(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus createDHT(JpgParam *, const uint8_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSortHuffmanTable(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
