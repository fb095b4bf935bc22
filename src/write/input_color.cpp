// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

JpgStatus jpgWriteXXX2Rect(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteXXX2RectHQ(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteRGB2RGBRect(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteRGB2RGBRectHQ(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteRGB2YUVRect(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus jpgWriteRGB2YUVRectHQ(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus GenericYUVConvert8bit(JpgWriteConvertContext *, int32_t, int32_t, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus GenericSubSamplingAndBlockDivision(JpgWriteConvertContext *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus GenericSubSamplingAndBlockDivisionHQ(JpgWriteConvertContext *) { return JPG_STATUS_NOT_SUPPORTED; }
JpgStatus GenericEdgeOptimize(JpgWriteConvertContext *, int32_t, int32_t) { return JPG_STATUS_NOT_SUPPORTED; }
JpgWriteColorConvertFunc jpgGetWriteColorConvertGenericFunc(uint32_t) { return nullptr; }

}  // extern "C"
