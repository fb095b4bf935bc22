// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

uint32_t jpgReadFillBuffer(JpgParam *) { return 0; }
uint32_t jpgReadShowBits(JpgParam *, int32_t) { return 0; }
uint32_t jpgReadGetBits(JpgParam *, int32_t) { return 0; }
void jpgReadFlushBits(JpgParam *) {}
uint32_t jpgReadGetBytes(JpgParam *, int32_t) { return 0; }
uint32_t jpgReadShowRawBits(JpgParam *, int32_t) { return 0; }
uint32_t jpgReadShowMarkerCode(JpgParam *) { return 0; }
void jpgReadFlushMarkerCode(JpgParam *) {}
uint32_t jpgReadDeleteByteStuffingCode(JpgParam *) { return 0; }
uint32_t jpgReadGetJPEGFileOffset(ComplibBitstream *) { return 0; }
JpgStatus jpgReadRewindJPEGFile(JpgParam *, uint32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
