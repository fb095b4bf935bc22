// Decode driver: turns the MCUs of a sequential stream into rows of pixels
// of a caller's rectangle, MCU row by MCU row, through the MCU, upsampling
// and colour conversion routines chosen for the frame. It decodes one MCU
// ahead so that upsampling can look at the right-hand neighbour; between
// calls the current MCU buffer is always the lower half of its allocation.
// A frame coded in several scans goes through the coefficient store.
#include "modes/coefficient_store.h"
#include "core/api_checks.h"
#include "read/front_end.h"
#include "read/output_color.h"

namespace {

bool routinesPresent(const JpgParam *param) {
    return param->routines.mcu != nullptr && param->routines.upsample != nullptr &&
           param->routines.convert != nullptr;
}

void swapBuffers(JpgParam *param) {
    int16_t *held = param->mcuBuffer;
    param->mcuBuffer = param->dec.mcuNext;
    param->dec.mcuNext = held;
}

void restoreBufferOrder(JpgParam *param, int16_t *low, int16_t *high) {
    param->mcuBuffer = low;
    param->dec.mcuNext = high;
}

// What every sequential output call checks first.
JpgStatus checkSequentialOutput(JpgParam *param, const ComplibRect *rect) {
    if (jpgCheckParam(param) == nullptr || rect == nullptr || rect->pixels == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->frameMarker > 0xFFC1 || param->frameMarker < 0xFFC0 || param->precision != 8 ||
        !routinesPresent(param) || param->mcuBuffer == nullptr)
        return JPG_STATUS_NOT_SUPPORTED;
    if (static_cast<int64_t>(param->numComponents) > rect->channels)
        return JPG_STATUS_NOT_SUPPORTED;
    return JPG_STATUS_OK;
}

// Rewinds to the first scan when segment access moved the input before any
// line was produced, or when scaled output ran last. A frame decoded into
// the coefficient store only starts its output again.
JpgStatus prepareFullSize(JpgParam *param) {
    JpgStatus status = JPG_STATUS_OK;
    const bool store = kiv::usesCoefficientStore(param);
    if (!store && param->processedLines == 0 && (param->mode & kModeRewind)) {
        param->mode &= ~kModeRewind;
        status = jpgReadRewindJPEGFile(param, param->firstScanOffset, 1);
    }
    if (param->scaleLevel != 3) {
        if (store)
            param->processedLines = 0;
        else if (param->scaleLevel != -1 && status == JPG_STATUS_OK)
            status = jpgReadRewindJPEGFile(param, param->firstScanOffset, 1);
        param->scaleLevel = 3;
    }
    return status;
}

// Rows from the coefficient store, whose scans are all decoded first.
JpgStatus storedToRect(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    if (!kiv::storeGeometryUsable(param))
        return JPG_STATUS_BAD_DATA;
    JpgStatus status = param->processedLines == 0 ? kiv::prepareStore(param) : JPG_STATUS_OK;
    if (status == JPG_STATUS_OK)
        status = kiv::fillStore(param, false);
    return status != JPG_STATUS_OK ? status : kiv::outputStoredRows(param, rect, rows);
}

}  // namespace

extern "C" {

// Decodes `count` MCUs and converts those the rectangle's width shows, each
// once the MCU right of it (its upsampling neighbour) is decoded; the last
// one has none.
JpgStatus jpgReadDecodeMcuRow(JpgParam *param, ComplibRect *rect, uint32_t count) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, param->mcuHeight))
        return s;
    if (!routinesPresent(param) || param->mcuBuffer == nullptr || kiv::usesCoefficientStore(param))
        return JPG_STATUS_NOT_SUPPORTED;
    if (param->currentMarker == 0xFFD9)
        return JPG_STATUS_UNEXPECTED_END;
    int16_t *low = param->mcuBuffer < param->dec.mcuNext ? param->mcuBuffer : param->dec.mcuNext;
    int16_t *high = low == param->mcuBuffer ? param->dec.mcuNext : param->mcuBuffer;
    JpgStatus status = param->routines.mcu(param);
    if (status != JPG_STATUS_OK)
        return status;
    const JpgReadColorConvertFunc convert = kiv::mcuRowConverter(param);
    const int64_t w = param->mcuWidth;
    int64_t x = 0;
    swapBuffers(param);
    for (uint32_t j = 1; j < count; j++, x += w) {
        if (param->currentMarker == 0xFFD9) {
            restoreBufferOrder(param, low, high);
            return JPG_STATUS_UNEXPECTED_END;
        }
        status = param->routines.mcu(param);
        if (status != JPG_STATUS_OK) {
            restoreBufferOrder(param, low, high);
            return status;
        }
        swapBuffers(param);
        if (x < rect->width) {
            param->routines.upsample(param);
            convert(param, rect, static_cast<int32_t>(x), static_cast<int32_t>(rect->width - x < w ? rect->width - x : w));
        }
    }
    swapBuffers(param);
    param->dec.mcuNext = nullptr;  // no right-hand neighbour
    if (x < rect->width) {
        param->routines.upsample(param);
        convert(param, rect, static_cast<int32_t>(x), static_cast<int32_t>(rect->width - x < w ? rect->width - x : w));
    }
    restoreBufferOrder(param, low, high);
    return status;
}

JpgStatus jpgReadToRect(JpgParam *param, ComplibRect *rect, uint32_t lines) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, lines))
        return s;
    JpgStatus status = checkSequentialOutput(param, rect);
    if (status == JPG_STATUS_OK)
        status = prepareFullSize(param);
    if (status != JPG_STATUS_OK)
        return status;
    int64_t todo = lines;
    if (param->height != 0) {
        int64_t left = static_cast<int64_t>(param->height) - param->processedLines;
        if (left < 1)
            return JPG_STATUS_UNEXPECTED_END;
        todo = todo < left ? todo : left;
    }
    if (todo > rect->height)  // never write below the rectangle
        todo = rect->height > 0 ? rect->height : 0;
    if (kiv::usesCoefficientStore(param))
        return storedToRect(param, rect, static_cast<uint32_t>(todo));
    const int64_t mcuHeight = param->mcuHeight;
    ComplibRect row = *rect;
    row.height = static_cast<int32_t>(todo < mcuHeight ? todo : mcuHeight);
    int64_t left = todo;
    while (left > 0 && status == JPG_STATUS_OK) {
        status = jpgReadDecodeMcuRow(param, &row, param->mcusPerRow);
        left -= mcuHeight;
        if (left < mcuHeight && param->height != 0)
            row.height = static_cast<int32_t>(left > 0 ? left : 0);
        if (left > 0)
            row.pixels += static_cast<int64_t>(rect->stride) * mcuHeight;
        // Without a frame height (DNL) the strip keeps a whole MCU row, but
        // never reaches below the caller's rectangle.
        int64_t room = rect->height - (todo - left);
        if (row.height > room)
            row.height = static_cast<int32_t>(room > 0 ? room : 0);
    }
    param->processedLines += static_cast<uint32_t>(todo);
    return status;
}

// Decodes `count` MCUs of the current MCU row into a rectangle positioned by
// the caller (its top-left pixel receives the first MCU).
JpgStatus jpgReadMcuToRect(JpgParam *param, ComplibRect *rect, uint32_t count) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, param->mcuHeight))
        return s;
    JpgStatus status = checkSequentialOutput(param, rect);
    if (status == JPG_STATUS_OK && kiv::usesCoefficientStore(param))
        status = JPG_STATUS_NOT_SUPPORTED;  // its MCUs are complete only after the last scan
    if (status == JPG_STATUS_OK)
        status = prepareFullSize(param);
    if (status != JPG_STATUS_OK || count == 0)
        return status;
    return jpgReadDecodeMcuRow(param, rect, count);
}

JpgStatus jpgReadSetNoColorConversion(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    param->mode |= kModeNoColorConversion;
    uint32_t n = param->numComponents < 1 ? 1 : param->numComponents > 255 ? 255
                                                                          : param->numComponents;
    uint32_t id = n | (param->precision != 8 ? 1u << 29 : 0);
    param->routines.convert = jpgGetReadColorConvertFunc(id | 0x20200, param->processorFlag);
    param->routines.convertScaled =
        jpgGetReadColorConvertFunc(id | 0x40020200, param->processorFlag);
    return JPG_STATUS_OK;
}

JpgStatus jpgReadEpilog(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (param->mcuBuffer != nullptr && param->dec.mcuNext != nullptr &&
        param->dec.mcuNext < param->mcuBuffer)
        param->mcuBuffer = param->dec.mcuNext;  // the allocation starts at the lower half
    auto release = [param](auto *&owned) {
        if (owned != nullptr)
            jpgMemFree(param, owned);
        owned = nullptr;
    };
    release(param->blockMap);
    release(param->blockPointers);
    release(param->mcuBuffer);
    release(param->losslessLine);
    jpgReadColorConvertTableClear();
    return jpgEpilog(param);
}

}  // extern "C"
