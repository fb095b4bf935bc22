// Encode driver of the baseline encoder: takes strips of an image rectangle
// of interleaved 8-bit pixels, writes the headers on the first call and
// encodes the strip MCU by MCU through the conversion and MCU routines
// chosen once per image (ISO/IEC 10918-1 A.2.3: interleaved MCUs, left to
// right and top to bottom). Each strip's first row starts an MCU row.
#include <string.h>

#include "core/api_checks.h"
#include "write/encoder.h"
#include "write/quantizer.h"

namespace {

// The strip must hold `rows` rows of 8-bit samples (a bottom-up strip with
// a negative stride is read upwards); the frame's width fits in 16 bits.
JpgStatus checkStrip(const JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    kiv::RectNeeds needs;
    needs.rows = rows;
    needs.sampleStatus = JPG_STATUS_NOT_SUPPORTED;  // the conversions take 8-bit samples only
    needs.bottomUp = true;
    if (JpgStatus status = kiv::checkRect(rect, needs))
        return status;
    if (rect->width > 0xFFFF)
        return JPG_STATUS_INVALID_PARAMETER;
    // Once the frame is fixed, every strip must cover its width and channels.
    bool frameFixed = param->enc.rowsEncoded != 0 || (param->mode & kModeHeadersWritten);
    if (frameFixed && (static_cast<uint32_t>(rect->width) < param->width ||
                       static_cast<uint32_t>(rect->channels) != param->numComponents))
        return JPG_STATUS_INVALID_PARAMETER;
    return JPG_STATUS_OK;
}

// First call: frame parameters from the rectangle, headers, routines.
JpgStatus startImage(JpgParam *param, const ComplibRect *rect) {
    if (!(param->mode & kModeHeadersWritten)) {
        if (param->height == 0)
            param->height = static_cast<uint32_t>(rect->height);
        param->width = static_cast<uint32_t>(rect->width);
        param->numComponents = static_cast<uint32_t>(rect->channels);
        param->precision = static_cast<uint32_t>(rect->sampleBits);
        param->frameMarker = 0xFFC0;
        // Tables are scaled in place, so they are made at most once per handle.
        param->mode |= kModeHeadersWritten;
        SetColorIngredient(param);
        JpgStatus status = jpgWriteCreateTables(param);
        if (status != JPG_STATUS_OK)
            return status;
    }
    auto *factors = static_cast<uint32_t *>(jpgMemAlloc(param, 2 * 4 * sizeof(uint32_t)));
    if (factors == nullptr)
        return JPG_STATUS_NO_MEMORY;
    JpgStatus status = jpgWriteSSSetting(param, factors);
    jpgMemFree(param, factors);
    if (status != JPG_STATUS_OK)
        return status;
    jpgWriteColorConvertTableInit();
    uint32_t id = jpgWriteMakeClrCvtID(param);
    param->routines.writeConvert = jpgGetWriteColorConvertFunc(id, param->processorFlag);
    param->routines.writeMcu = jpgGetWriteMCUFunc(0x301, param->processorFlag);
    if (param->routines.writeConvert == nullptr || param->routines.writeMcu == nullptr)
        return JPG_STATUS_NOT_SUPPORTED;
    return JPG_STATUS_OK;
}

// Every component must be bound to its tables before an MCU is coded (a
// failed first call leaves them unbound, and the handle refuses to encode).
bool readyToEncode(const JpgParam *param) {
    if (param->routines.writeConvert == nullptr || param->routines.writeMcu == nullptr ||
        param->mcuWidth == 0 || param->mcuHeight == 0)
        return false;
    for (uint32_t i = 0; i < param->numComponents; i++) {
        const JpgComponent &c = param->components[i];
        if (c.acSymbols == nullptr || c.dcDiff == nullptr || c.quant == nullptr || c.blocks == 0)
            return false;
    }
    return true;
}

struct StripBuffers {
    int16_t *planes;
    int16_t *blocks;   // the blocks of one batch of MCUs
    uint32_t mcuBlocks;// blocks of one MCU
    JpgWriteConvertContext *ctx;
};

void releaseStrip(JpgParam *param, StripBuffers &b) {
    jpgMemFree(param, b.planes);
    jpgMemFree(param, b.blocks);
    jpgMemFree(param, b.ctx);
    param->enc.mcuBlocks = nullptr;
    param->enc.quantSteps = nullptr;
    param->enc.mcuBatch = 0;
}

JpgStatus prepareStrip(JpgParam *param, const ComplibRect *rect, uint32_t rows, StripBuffers &b) {
    uint32_t planeBytes = param->mcuWidth * param->mcuHeight * param->numComponents * 2;
    b.mcuBlocks = 0;
    for (uint32_t i = 0; i < param->numComponents; i++)
        b.mcuBlocks += param->components[i].blocks;
    b.planes = static_cast<int16_t *>(jpgMemAlloc(param, planeBytes));
    b.blocks = static_cast<int16_t *>(jpgMemAlloc(param, b.mcuBlocks * kiv::mcusPerBatch(b.mcuBlocks) * 64 * 2));
    b.ctx = static_cast<JpgWriteConvertContext *>(jpgMemAlloc(param, sizeof(JpgWriteConvertContext)));
    if (b.planes == nullptr || b.blocks == nullptr || b.ctx == nullptr)
        return JPG_STATUS_NO_MEMORY;
    memset(b.planes, 0, planeBytes);
    memset(b.ctx, 0, sizeof *b.ctx);
    JpgWriteConvertContext *ctx = b.ctx;
    uint32_t factors[8];
    JpgStatus status = jpgWriteSSSetting(param, factors);
    if (status != JPG_STATUS_OK)
        return status;
    for (uint32_t i = 0; i < param->numComponents; i++) {
        ctx->factors[i][0] = static_cast<int32_t>(factors[2 * i]);
        ctx->factors[i][1] = static_cast<int32_t>(factors[2 * i + 1]);
    }
    ctx->pixels = rect->pixels;
    ctx->blocks = b.blocks;
    ctx->planes = b.planes;
    ctx->rows = rows;
    ctx->width = param->width;
    ctx->stride = rect->stride;
    ctx->bytesPerPixel = param->numComponents;
    ctx->mcuWidth = param->mcuWidth;
    ctx->mcuHeight = param->mcuHeight;
    param->enc.mcuBlocks = b.blocks;
    return JPG_STATUS_OK;
}

}  // namespace

extern "C" {

JpgStatus jpgWriteFromRect(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (rect == nullptr || rect->pixels == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (rows == 0 || rows > 0x7FFFFFFF)
        return JPG_STATUS_INVALID_PARAMETER;
    if (param->frameMarker == 0xFFC3)
        return JPG_STATUS_NOT_SUPPORTED;  // a lossless frame is already under way
    JpgStatus status = checkStrip(param, rect, rows);
    if (status == JPG_STATUS_OK && param->enc.rowsEncoded == 0 && param->routines.writeConvert == nullptr)
        status = startImage(param, rect);
    if (status != JPG_STATUS_OK)
        return status;
    if (!readyToEncode(param))
        return JPG_STATUS_FAILED;
    // Rows beyond the frame's height would be data the frame does not hold.
    if (param->height != 0) {
        uint32_t left = param->height > param->enc.rowsEncoded ? param->height - param->enc.rowsEncoded : 0;
        if (left == 0)
            return JPG_STATUS_INVALID_PARAMETER;
        rows = rows < left ? rows : left;
    }
    StripBuffers buffers{};
    kiv::QuantSteps steps[4];
    for (uint32_t i = 0; i < param->numComponents && i < 4; i++)
        kiv::makeQuantSteps(param->components[i].quant, &steps[i]);
    param->enc.quantSteps = steps;
    status = prepareStrip(param, rect, rows, buffers);
    // MCUs are converted a batch at a time, each into its place in the
    // block buffer, and coded by one call of the MCU encoder.
    const uint32_t batch = kiv::mcusPerBatch(buffers.mcuBlocks);
    uint32_t pending = 0;
    for (uint32_t y = 0; status == JPG_STATUS_OK && y < rows; y += param->mcuHeight)
        for (uint32_t x = 0; status == JPG_STATUS_OK && x < param->width; x += param->mcuWidth) {
            buffers.ctx->blocks = buffers.blocks + 64 * buffers.mcuBlocks * pending;
            status = param->routines.writeConvert(buffers.ctx, static_cast<int32_t>(x), static_cast<int32_t>(y));
            if (status == JPG_STATUS_OK && ++pending == batch) {
                param->enc.mcuBatch = pending;
                status = param->routines.writeMcu(param);
                pending = 0;
            }
        }
    if (status == JPG_STATUS_OK && pending != 0) {
        param->enc.mcuBatch = pending;
        status = param->routines.writeMcu(param);
    }
    param->enc.rowsEncoded += rows;
    releaseStrip(param, buffers);
    return status;
}

}  // extern "C"
