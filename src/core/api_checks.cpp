// The shared check of a caller's image rectangle (see api_checks.h). Every
// product is taken in 64 bits: width, channels and stride come from the
// caller, and a wrapped row size would let a short buffer pass.
#include "core/api_checks.h"

namespace kiv {

JpgStatus refuseRead(const JpgParam *param) { return guardRead(param); }

JpgStatus checkRect(const ComplibRect *rect, const RectNeeds &needs) {
    if (rect == nullptr || rect->pixels == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (rect->channels < needs.minChannels || rect->channels > needs.maxChannels)
        return needs.channelStatus;
    if (rect->sampleBits < needs.minSampleBits || rect->sampleBits > needs.maxSampleBits)
        return needs.sampleStatus;
    if (rect->width < 1 || rect->height < 1 || needs.rows < 0 || needs.rows > rect->height)
        return JPG_STATUS_INVALID_PARAMETER;
    const int64_t sampleBytes = (static_cast<int64_t>(rect->sampleBits) + 7) / 8;
    const int64_t rowBytes = static_cast<int64_t>(rect->width) * rect->channels * sampleBytes;
    const int64_t stride = rect->stride;
    if ((stride < 0 && !needs.bottomUp) || (stride < 0 ? -stride : stride) < rowBytes)
        return JPG_STATUS_INVALID_PARAMETER;
    if (rect->allocSize == 0 || needs.rows == 0)
        return JPG_STATUS_OK;
    // Offsets from the pixel pointer of the first byte and the byte behind
    // the last one the rows cover; both must lie in [0, allocSize].
    const int64_t lastRow = (needs.rows - 1) * stride;
    const int64_t low = lastRow < 0 ? lastRow : 0;
    const int64_t high = (lastRow > 0 ? lastRow : 0) + rowBytes;
    if (low < 0 || high > static_cast<int64_t>(rect->allocSize))
        return JPG_STATUS_INVALID_PARAMETER;
    return JPG_STATUS_OK;
}

JpgStatus checkDecodeRect(const JpgParam *param, const ComplibRect *rect, int64_t rows) {
    RectNeeds needs;
    needs.minChannels = param->numComponents > 1 ? static_cast<int32_t>(param->numComponents) : 1;
    needs.channelStatus = JPG_STATUS_NOT_SUPPORTED;
    needs.sampleStatus = JPG_STATUS_NOT_SUPPORTED;
    if (param->frameMarker == 0xFFC3) {  // lossless: one or two bytes a sample
        bool valid = param->precision >= 2 && param->precision <= 16;  // else the driver refuses the frame
        needs.minSampleBits = valid && param->precision > 8 ? 9 : 1;
        needs.maxSampleBits = valid && param->precision <= 8 ? 8 : 16;
    }
    if (rect != nullptr && rows > rect->height)
        rows = rect->height;
    needs.rows = rows < 0 ? 0 : rows;
    return checkRect(rect, needs);
}

}  // namespace kiv
