// Decode driver: turns the MCUs of a sequential stream into rows of pixels
// of a caller's rectangle, MCU row by MCU row, through the MCU, upsampling
// and colour conversion routines chosen for the frame. It decodes one MCU
// ahead so that upsampling can look at the right-hand neighbour; between
// calls the current MCU buffer is always the lower half of its allocation.
// A frame coded in several scans goes through the coefficient store.
#include "modes/coefficient_store.h"
#include "core/api_checks.h"
#include "read/front_end.h"
#include "read/inverse_dct.h"
#include "read/output_color.h"
#include "read/upsampling_sse2.h"

namespace {

bool routinesPresent(const JpgParam *param) {
    return param->routines.mcu != nullptr && param->routines.upsample != nullptr &&
           param->routines.convert != nullptr;
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

// Upsamples and converts the MCU at x in `mcu`, when the rectangle shows it.
struct McuOutput {
    JpgParam *param;
    ComplibRect *rect;
    JpgReadColorConvertFunc convert;

    void operator()(int16_t *mcu, int16_t *next, int64_t x) const {
        const int64_t w = param->mcuWidth;
        if (x >= rect->width)
            return;
        param->mcuBuffer = mcu;
        param->dec.mcuNext = next;
        param->routines.upsample(param);
        convert(param, rect, static_cast<int32_t>(x), static_cast<int32_t>(rect->width - x < w ? rect->width - x : w));
    }
};

// The MCU routine, refused once the scan's data has ended.
JpgStatus nextMcu(JpgParam *param, JpgMcuFunc decode, int16_t *into) {
    if (param->currentMarker == 0xFFD9)
        return JPG_STATUS_UNEXPECTED_END;
    param->mcuBuffer = into;
    return decode(param);
}

// The general loop: MCU j is decoded, transformed and converted once MCU
// j + 1 has decoded, the two alternating between the halves of the buffer.
JpgStatus decodeOneAhead(JpgParam *param, const McuOutput &output, uint32_t count, int16_t *low,
                         int16_t *high) {
    const int64_t w = param->mcuWidth;
    int16_t *half[2] = {low, high};
    for (uint32_t j = 0; j < count; j++) {
        if (JpgStatus s = nextMcu(param, param->routines.mcu, half[j & 1]))
            return s;
        if (j > 0)
            output(half[~j & 1], half[j & 1], w * (j - 1));
    }
    output(half[~count & 1], nullptr, w * (count - 1));
    return JPG_STATUS_OK;
}

// Frames whose upsampling never looks at the next MCU go two MCUs at a time
// through the inverse DCT, so that single-block (greyscale) and three-block
// (4:4:4) MCUs fill the pairs of the widest level too. Each MCU is still
// converted only once its successor has decoded, as in the general loop
// (the upsampler is not shown the successor, which it never reads).
bool inPairs(const JpgParam *param, const int16_t *low, const int16_t *high) {
    return param->routines.mcu == jpgReadDecodeBaselineMcu && kiv::pointsInPlace(param->routines.upsample) &&
           high == low + 64 * param->blocksPerMcu;
}

JpgStatus decodeInPairs(JpgParam *param, const McuOutput &output, uint32_t count, int16_t *low,
                        int16_t *high) {
    const int64_t w = param->mcuWidth;
    const uint32_t blocks = param->blocksPerMcu;
    const kiv::InverseDctBlocks inverse = kiv::inverseDctBlocksFor(param->processorFlag);
    for (uint32_t j = 0; j < count; j++) {
        if (JpgStatus s = nextMcu(param, kiv::decodeMcuCoefficients, j & 1 ? high : low))
            return s;
        if (j & 1) {  // the pair is complete
            inverse(low, 2 * blocks);
            output(low, nullptr, w * (j - 1));
        } else if (j > 0) {
            output(high, nullptr, w * (j - 1));
        }
    }
    if (count & 1)  // the last MCU has no partner
        inverse(low, blocks);
    output(count & 1 ? low : high, nullptr, w * (count - 1));
    return JPG_STATUS_OK;
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
    int16_t *low = param->mcuBuffer < param->dec.mcuNext ? param->mcuBuffer : param->dec.mcuNext;
    int16_t *high = low == param->mcuBuffer ? param->dec.mcuNext : param->mcuBuffer;
    const McuOutput output{param, rect, kiv::mcuRowConverter(param)};
    count = count > 0 ? count : 1;  // the first MCU is decoded whatever the count
    JpgStatus status = inPairs(param, low, high) ? decodeInPairs(param, output, count, low, high)
                                                 : decodeOneAhead(param, output, count, low, high);
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
