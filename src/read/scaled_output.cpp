// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadScaleOutputGetImageSize(JpgParam *, uint32_t *, uint32_t *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadScaleOutputSetLevel(JpgParam *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadScaleOutputLevel0MCU(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadScaleOutputLevel1MCU(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadScaleOutputLevel2MCU(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadScaleOutputToRect(JpgParam *, ComplibRect *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadScaleOutputMcuToRect(JpgParam *, ComplibRect *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
