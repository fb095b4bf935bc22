// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadPrologFromMemory(const uint8_t *, int32_t, int32_t, JpgParam **) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadPrologFromFile(const char *, int32_t, int32_t, uint8_t, JpgParam **) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadProlog(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetCodingProcess(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetImageSize(JpgParam *, uint32_t *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetNumberOfChannels(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetSamplePrecision(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetSubsamplingFactor(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetMcuSize(JpgParam *, uint32_t *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetRestartInterval(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetQuantizationTableSelector(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetQuantizationTable(JpgParam *, uint32_t, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetQuantizationTableNR(JpgParam *, uint32_t *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
