// Scan-by-scan driver: decodes the scans of a progressive frame (ISO/IEC
// 10918-1 Annex G), or of a sequential frame coded in several scans, into
// the coefficient store, all at once or one more scan per pass
// (incremental display), and delivers pixel rows from the store on request.
// A stream that ends early still delivers the image received so far, with
// the status that says so.
#include "core/api_checks.h"
#include "modes/coefficient_store.h"

namespace kiv {
namespace {

// The converter writes one byte per component and pixel (with colour
// conversion off the rectangle must have exactly that many channels).
bool outputPossible(const JpgParam *param, const ComplibRect *rect) {
    const int32_t channels = static_cast<int32_t>(param->numComponents);
    if (((param->mode & kModeNoColorConversion) && rect->channels != channels) || rect->channels < channels)
        return false;
    return param->routines.mcuProgressive != nullptr && param->routines.upsample != nullptr &&
           param->routines.convert != nullptr;
}

}  // namespace
}  // namespace kiv

using namespace kiv;

extern "C" {

JpgStatus jpgReadProgressiveToRect(JpgParam *param, ComplibRect *rect, uint32_t rows, uint32_t flags) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, rows))
        return s;
    if (!kiv::usesCoefficientStore(param))
        return JPG_STATUS_NOT_SUPPORTED;
    const bool incremental = (flags & JPG_PROGRESSIVE_INCREMENTAL) != 0;
    uint32_t left;
    if (param->processedLines == 0) {
        if (incremental)
            param->mode |= kModeIncremental;
        left = param->height;
    } else {
        left = param->height > param->processedLines ? param->height - param->processedLines : 0;
        if (left == 0) {
            // Every row of this pass is out: in incremental mode a new pass begins.
            if (!(param->mode & kModeIncremental))
                return JPG_STATUS_FAILED;
            if (!incremental)
                param->mode &= ~kModeIncremental;
            param->processedLines = 0;
            left = param->height;
        }
    }
    if (left < 1)
        return JPG_STATUS_FAILED;
    if (!storeGeometryUsable(param))
        return JPG_STATUS_BAD_DATA;
    // Checked before any scan is decoded, so that a refused call changes nothing.
    if (!outputPossible(param, rect))
        return JPG_STATUS_NOT_SUPPORTED;
    const uint32_t deliver = rows < left ? rows : left;
    if (param->processedLines == 0) {
        JpgStatus status = prepareStore(param);
        if (status == JPG_STATUS_OK)
            status = fillStore(param, (param->mode & kModeIncremental) != 0);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return outputStoredRows(param, rect, deliver);
}

// The input is complete once the driver has met EOI after the last scan.
JpgStatus jpgReadProgressiveIsCompleted(JpgParam *param, uint32_t *completed) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (completed == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (!kiv::usesCoefficientStore(param))
        return JPG_STATUS_NOT_SUPPORTED;
    *completed = param->currentMarker == 0xFFD9 ? 1 : 0;
    return JPG_STATUS_OK;
}

}  // extern "C"
