// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgReadProgressiveToRect(JpgParam *, ComplibRect *, uint32_t, uint32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgReadProgressiveIsCompleted(JpgParam *, uint32_t *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // extern "C"
namespace kiv {

JpgStatus readProgressiveMCU(JpgParam *) { return JPG_STATUS_NOT_SUPPORTED; }

}  // namespace kiv
