// Scaled output: decodes a sequential DCT image straight to 1/8, 1/4 or 1/2
// of its size. Each block keeps only its low-frequency coefficients, which a
// reduced inverse transform (ISO/IEC 10918-1 A.3.3 restricted to 1, 2 or 4
// points) turns into the top-left 1x1, 2x2 or 4x4 corner of the 64-slot block
// (row stride 8); scaled upsampling and conversion then fill the rectangle.
// There is no one-MCU lookahead: scaled upsampling only replicates. Frames
// coded scan by scan are reduced from the coefficient store instead.
#include <string.h>

#include "core/api_checks.h"
#include "core/codec.h"
#include "modes/coefficient_store.h"
#include "core/simd.h"
#include "read/front_end.h"
#include "read/output_color.h"
#include "read/scaled_transforms.h"

namespace kiv {
namespace {

constexpr uint32_t kK1 = kReduceK1, kK3 = kReduceK3;

// 4-point butterfly; out in the order (e0 + o0), (e1 - o1), (e1 + o1), (e0 - o0).
inline void butterfly4(const uint32_t *x, uint32_t *out) {
    uint32_t e0 = (x[0] + x[2]) << 12, e1 = (x[0] - x[2]) << 12;
    uint32_t o0 = kK1 * x[1] + kK3 * x[3], o1 = kK1 * x[3] - kK3 * x[1];
    out[0] = e0 + o0;
    out[1] = e1 - o1;
    out[2] = e1 + o1;
    out[3] = e0 - o0;
}

}  // namespace

// Two coefficients at once (any byte order: only zero tests follow).
inline uint32_t pairAt(const int16_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

// Level 2 with only the DC: the flat value (F00 + 4) >> 3 (the column pass
// gives F00 back exactly, the row pass (F00 << 12 + 16384) >> 15).
bool reduceFlat4x4(int16_t *block) {
    uint32_t ac = static_cast<uint16_t>(block[1]) | pairAt(block + 2);
    for (int r = 8; r < 32; r += 8)
        ac |= pairAt(block + r) | pairAt(block + r + 2);
    if (ac != 0)
        return false;
    int16_t sample = clipSample(sra(static_cast<uint32_t>(block[0]) + 4, 3));
    uint32_t pair = static_cast<uint16_t>(sample) * 0x10001u;
    for (int r = 0; r < 32; r += 8) {
        memcpy(block + r, &pair, sizeof pair);
        memcpy(block + r + 2, &pair, sizeof pair);
    }
    return true;
}

// Level 2: 4-point transform of rows and columns 0-3 (32-bit register arithmetic).
void reduceTo4x4Portable(int16_t *block) {
    if (reduceFlat4x4(block))
        return;
    uint32_t work[16];
    for (int c = 0; c < 4; c++) {
        uint32_t x[4], y[4];
        for (int i = 0; i < 4; i++)
            x[i] = static_cast<uint32_t>(static_cast<int32_t>(block[8 * i + c]));
        butterfly4(x, y);
        for (int i = 0; i < 4; i++)
            work[4 * i + c] = static_cast<uint32_t>(sra(y[i] + 2048, 12));
    }
    for (int r = 0; r < 4; r++) {
        uint32_t y[4];
        butterfly4(work + 4 * r, y);
        for (int i = 0; i < 4; i++)
            block[8 * r + i] = clipSample(sra(y[i] + 16384, 15));
    }
}

Reduction reduceTo4x4For(uint32_t flag) {
#if KIV_SIMD_X86
    if (simdLevelOf(flag) != SimdLevel::Portable)
        return reduceTo4x4Sse2;
#endif
    return reduceTo4x4Portable;
}

namespace {

constexpr uint32_t kEoi = 0xFFD9;
constexpr uint32_t kLastDctSof = 0xFFC2;

uint32_t scaledSize(uint32_t size, uint32_t level) {
    uint32_t s = size >> (3 - level);
    return s < 1 ? 1 : s;
}

// Common checks of the two output entry points; on success the level is set
// and the scaled routines are present.
JpgStatus prepareScaledOutput(JpgParam *param, const ComplibRect *rect, uint32_t level) {
    if (jpgCheckParam(param) == nullptr || rect == nullptr || rect->pixels == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->frameMarker > kLastDctSof || param->precision != 8 ||
        param->numComponents > static_cast<uint32_t>(rect->channels < 0 ? 0 : rect->channels))
        return JPG_STATUS_NOT_SUPPORTED;
    JpgStatus status = jpgReadScaleOutputSetLevel(param, level);
    if (status != JPG_STATUS_OK)
        return status;
    const JpgRoutines &r = param->routines;
    if (r.mcuScaled == nullptr || r.upsampleScaled == nullptr || r.convertScaled == nullptr)
        return JPG_STATUS_NOT_SUPPORTED;
    return JPG_STATUS_OK;
}

// Decodes `mcus` MCUs of the current MCU row and converts them side by side
// into rect, clipped to `pixels` columns (MCUs past them are only decoded).
JpgStatus scaledMcuRun(JpgParam *param, ComplibRect *rect, int64_t mcus, int64_t pixels,
                       int32_t mcuWidth) {
    const JpgReadColorConvertFunc fused = fusedScaledConverter(param);
    const JpgReadColorConvertFunc convert = fused != nullptr ? fused : param->routines.convertScaled;
    int32_t x = 0;
    for (; mcus > 0; mcus--) {
        if (param->currentMarker == kEoi)
            return JPG_STATUS_UNEXPECTED_END;
        JpgStatus status = param->routines.mcuScaled(param);
        if (status != JPG_STATUS_OK)
            return status;
        if (pixels > 0) {
            if (fused == nullptr)
                param->routines.upsampleScaled(param);
            convert(param, rect, x, static_cast<int32_t>(pixels < mcuWidth ? pixels : mcuWidth));
        }
        x += mcuWidth;
        pixels -= mcuWidth;
    }
    return JPG_STATUS_OK;
}

// Consumes the data of an MCU that has no pixel at this scale.
void skipMcu(JpgParam *param) {
    if (param->currentMarker == kEoi)
        return;
    JpgMcuFunc level0 = jpgGetReadMCUFunc(0x001, param->processorFlag);
    (level0 != nullptr ? level0 : jpgReadScaleOutputLevel0MCU)(param);
}

}  // namespace
}  // namespace kiv

extern "C" {

JpgStatus jpgReadScaleOutputGetImageSize(JpgParam *param, uint32_t *width, uint32_t *height,
                                         uint32_t level) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (level > 3)
        return JPG_STATUS_INVALID_PARAMETER;
    if (width == nullptr || height == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->frameMarker > kiv::kLastDctSof)
        return JPG_STATUS_NOT_SUPPORTED;
    *width = kiv::scaledSize(param->width, level);
    *height = kiv::scaledSize(param->height, level);
    return JPG_STATUS_OK;
}

// Any change of level restarts decoding at the first scan, except the very
// first choice on a stream that has not been decoded yet; a frame decoded
// into the coefficient store keeps it and only starts its output again.
JpgStatus jpgReadScaleOutputSetLevel(JpgParam *param, uint32_t level) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (level > 2)
        return JPG_STATUS_INVALID_PARAMETER;
    if (param->scaleLevel == static_cast<int32_t>(level))
        return JPG_STATUS_OK;
    const bool store = kiv::usesCoefficientStore(param);
    if (store) {
        param->processedLines = 0;
    } else if (param->scaleLevel != -1 || (param->mode & kModeRewind) != 0) {
        param->mode &= ~kModeRewind;
        JpgStatus status = jpgReadRewindJPEGFile(param, param->firstScanOffset, 1);
        if (status != JPG_STATUS_OK)
            return status;
    }
    param->scaleLevel = static_cast<int32_t>(level);
    uint32_t process = store ? 0x2 : param->precision == 8 ? 0x1 : 0x10001;
    param->routines.mcuScaled = jpgGetReadMCUFunc((level << 8) | process, param->processorFlag);
    return JPG_STATUS_OK;
}


JpgStatus jpgReadScaleOutputToRect(JpgParam *param, ComplibRect *rect, uint32_t lines,
                                   uint32_t level) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, lines))
        return s;
    if (level == 3)
        return jpgReadToRect(param, rect, lines);
    JpgStatus status = kiv::prepareScaledOutput(param, rect, level);
    if (status != JPG_STATUS_OK)
        return status;
    int32_t w = static_cast<int32_t>(param->mcuWidth >> (3 - level));
    int32_t h = static_cast<int32_t>(param->mcuHeight >> (3 - level));
    uint32_t scaledWidth = kiv::scaledSize(param->width, level);
    uint32_t scaledHeight = kiv::scaledSize(param->height, level);
    if (w < 1 || h < 1)
        return JPG_STATUS_BAD_DATA;

    // Rounding the scaled width down can leave the row's last MCU without a pixel.
    uint32_t mcus = param->mcusPerRow;
    bool skipLast = mcus > (scaledWidth + w - 1) / static_cast<uint32_t>(w);
    if (skipLast)
        mcus--;

    int64_t left = static_cast<int64_t>(scaledHeight) - param->processedLines;
    if (left < 1)
        return JPG_STATUS_UNEXPECTED_END;
    int64_t remaining = lines < left ? lines : left;
    if (remaining > rect->height)  // never write below the rectangle
        remaining = rect->height > 0 ? rect->height : 0;
    if (kiv::usesCoefficientStore(param)) {
        if (!kiv::storeGeometryUsable(param))
            return JPG_STATUS_BAD_DATA;
        status = param->processedLines == 0 ? kiv::prepareStore(param) : JPG_STATUS_OK;
        if (status == JPG_STATUS_OK)
            status = kiv::fillStore(param, false);
        return status != JPG_STATUS_OK ? status
                                       : kiv::outputStoredScaledRows(param, rect, static_cast<uint32_t>(remaining));
    }
    // A rectangle narrower than the image still consumes whole MCU rows, so
    // that the next row starts at its first MCU.
    int64_t rowPixels = static_cast<int64_t>(mcus) * w;
    if (rect->width < rowPixels)
        rowPixels = rect->width < 0 ? 0 : rect->width;

    ComplibRect sub = *rect;
    while (remaining > 0 && status == JPG_STATUS_OK) {
        sub.height = static_cast<int32_t>(remaining < h ? remaining : h);
        status = kiv::scaledMcuRun(param, &sub, mcus, rowPixels, w);
        if (status == JPG_STATUS_OK && skipLast)
            kiv::skipMcu(param);
        param->processedLines += static_cast<uint32_t>(sub.height);
        remaining -= h;
        sub.pixels += static_cast<ptrdiff_t>(sub.stride) * h;
    }
    return status;
}

JpgStatus jpgReadScaleOutputMcuToRect(JpgParam *param, ComplibRect *rect, uint32_t count,
                                      uint32_t level) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, param->mcuHeight))
        return s;
    if (level == 3)
        return jpgReadMcuToRect(param, rect, count);
    JpgStatus status = kiv::prepareScaledOutput(param, rect, level);
    if (status == JPG_STATUS_OK && kiv::usesCoefficientStore(param))
        status = JPG_STATUS_NOT_SUPPORTED;  // its MCUs are complete only after the last scan
    if (status != JPG_STATUS_OK)
        return status;
    int32_t w = static_cast<int32_t>(param->mcuWidth >> (3 - level));
    if (w < 1)
        return JPG_STATUS_BAD_DATA;
    // Every requested MCU is decoded, so that the next call starts at the
    // following one; those beyond the rectangle's width are not converted.
    int64_t pixels = static_cast<int64_t>(count) * w;
    if (rect->width < pixels)
        pixels = rect->width < 0 ? 0 : rect->width;
    return kiv::scaledMcuRun(param, rect, count, pixels, w);
}

}  // extern "C"
