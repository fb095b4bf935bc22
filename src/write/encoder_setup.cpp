// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWritePrologToMemory(uint32_t, JpgParam **) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWritePrologToFile(const char *, uint32_t, JpgParam **) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteProlog(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetImageSize(JpgParam *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetInternalColorSpace(JpgParam *, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetNoColorConversion(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetSubsamplingFactor(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetSubsamplingMethod(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteGetSubsamplingMethod(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetNumberOfChannels(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetQuantizationFactor(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetQuantizationTableSelector(JpgParam *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetDCEntropyTableSelector(JpgParam *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetACEntropyTableSelector(JpgParam *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetRestartInterval(JpgParam *, uint16_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSetSpatialPredictor(JpgParam *, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus SetColorIngredient(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteSSSetting(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }
uint32_t jpgWriteMakeClrCvtID(JpgParam *) { return 0; }

}  // extern "C"
