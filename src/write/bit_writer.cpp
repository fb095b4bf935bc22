// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWritePutBits(ComplibBitstream *, uint32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteByteStuff(ComplibBitstream *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteFlushBits(ComplibBitstream *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWritePutBytes(ComplibBitstream *, const uint8_t *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWritePutMarkerCode(ComplibBitstream *, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWritePut8BitDCHuffman(ComplibBitstream *, const JpgHuffmanCode *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWritePut8BitACHuffman(ComplibBitstream *, const JpgAcSymbol *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
