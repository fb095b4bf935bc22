// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadGetProgressiveDCBaseCoefficient(JpgParam *, int16_t *, JpgComponent *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetProgressiveDCDiffCoefficient(JpgParam *, int16_t *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetProgressiveACBaseCoefficient(JpgParam *, int16_t *, JpgComponent *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadGetProgressiveACDiffCoefficient(JpgParam *, int16_t *, JpgComponent *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
