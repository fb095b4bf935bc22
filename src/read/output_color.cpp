// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

void jpgReadCopyGrey(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadCopy2(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadCopy3(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadCopy4(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadCopy3Reversed(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadYUV2Rect(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadScaledCopyGrey(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadScaledCopy2(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadScaledCopy3(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadScaledCopy4(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadScaledCopy3Reversed(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadScaledYUV2Rect(JpgParam *, ComplibRect *, int32_t, int32_t) {}
void jpgReadYuv2RGB(int32_t *, int32_t *, int32_t *, int32_t, int32_t, int32_t) {}
JpgReadColorConvertFunc jpgGetReadColorConvertGenericFunc(uint32_t) { return nullptr; }

}  // extern "C"
