// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWriteBaseLine8BitDCHuffman(ComplibBitstream *, JpgComponent *, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteBaseLine8BitACHuffman(ComplibBitstream *, const JpgAcSymbol *, const uint32_t *, int16_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgMcuFunc jpgGetWriteMCUGenericFunc(uint32_t) { return nullptr; }
JpgStatus jpgWriteEpilogEntropyCodedSegment(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
