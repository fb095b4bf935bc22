// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadGetCoefficient(JpgParam *, int16_t *, JpgComponent *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadDecodeBaselineMcu(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgMcuFunc jpgGetReadMCUGenericFunc(uint32_t) { return nullptr; }
JpgStatus jpgReadGetScaleCoefficient(JpgParam *, int16_t *, JpgComponent *, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
