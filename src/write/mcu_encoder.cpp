// Placeholder: the routines of this stage are not built yet; the lookup
// resolves no identifier.
#include "core/codec.h"

extern "C" {

JpgMcuFunc jpgGetWriteMCUGenericFunc(uint32_t) { return nullptr; }

}  // extern "C"
