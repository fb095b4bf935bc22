// Placeholder: the routines of this stage are not built yet; the lookup
// resolves no identifier.
#include "core/codec.h"

extern "C" {

JpgReadColorConvertFunc jpgGetReadColorConvertGenericFunc(uint32_t) { return nullptr; }

}  // extern "C"
