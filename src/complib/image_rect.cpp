// Image rectangles: allocation, release, resizing within the allocation,
// addressing with wrap-around coordinates and bit inversion of bilevel
// images. Sizes are computed in 64 bits, so no product wraps.
#include "kivjpeg.h"

extern "C" {

// A rectangle that cannot describe its allocation (negative sizes, a stride
// beyond 32 bits, more than 4 GiB) gets none, and nothing of it changes.
ComplibRect *complibRectAlloc(ComplibRect *rect) {
    if (rect == nullptr || rect->width < 0 || rect->height < 0 || rect->pixelBits < 0 ||
        rect->stride < 0)
        return nullptr;
    int64_t stride = rect->stride;
    if (stride == 0)
        stride = static_cast<int64_t>(rect->pixelBits / 8) * rect->width;
    int64_t bytes = stride * rect->height + 4;
    if (stride > 0x7FFFFFFF || bytes > 0xFFFFFFFFll)
        return nullptr;
    auto *pixels = static_cast<uint8_t *>(complibMemAlloc(static_cast<uint32_t>(bytes)));
    if (pixels == nullptr)
        return nullptr;
    rect->stride = static_cast<int32_t>(stride);
    rect->pixels = pixels;
    rect->allocSize = static_cast<uint32_t>(bytes);
    return rect;
}

JpgStatus complibRectFree(ComplibRect *rect) {
    if (rect == nullptr || rect->pixels == nullptr)
        return JPG_STATUS_INVALID_PARAMETER;
    return complibMemFree(rect->pixels);
}

JpgStatus complibRectResize(ComplibRect *rect, int32_t width, int32_t height, int32_t channels,
                            int32_t sampleBits) {
    if (rect == nullptr || rect->pixels == nullptr || width < 0 || height < 0 ||
        channels < 1 || channels > 4 || sampleBits < 1 || sampleBits > 32)
        return JPG_STATUS_INVALID_PARAMETER;
    if (width == 0 || height == 0)
        return JPG_STATUS_OK;
    int32_t roundedBits = (sampleBits + 7) / 8 * 8;
    int64_t stride = static_cast<int64_t>(roundedBits * channels / 8) * width;
    if (stride > 0x7FFFFFFF)
        return JPG_STATUS_INVALID_PARAMETER;  // the stride field could not hold it
    if (stride * height > rect->allocSize)
        return JPG_STATUS_NO_MEMORY;
    rect->width = width;
    rect->height = height;
    rect->stride = static_cast<int32_t>(stride);
    rect->pixelBits = roundedBits * channels;
    rect->channels = channels;
    rect->sampleBits = sampleBits;
    return JPG_STATUS_OK;
}

// The horizontal term multiplies x by the pixel size in bits: column 0 of
// any line is exact, and callers that address other columns pass
// coordinates accordingly.
void *complibRectGetAddress(const ComplibRect *rect, int32_t x, int32_t y) {
    if (rect == nullptr || rect->pixels == nullptr || x < -rect->width || x >= rect->width ||
        y < -rect->height || y >= rect->height)
        return nullptr;
    if (x < 0)
        x += rect->width;
    if (y < 0)
        y += rect->height;
    return rect->pixels + static_cast<int64_t>(rect->stride) * y +
           static_cast<int64_t>(rect->pixelBits) * x;
}

// Inverts the pixels of a bilevel image; padding bits of a line's last byte
// keep their values.
void complibRectReverseBits(ComplibRect *rect) {
    if (rect->pixelBits != 1)
        return;
    int32_t whole = rect->width / 8;
    int32_t rest = rect->width % 8;
    uint8_t lastMask = static_cast<uint8_t>(0xFF00 >> rest);
    uint8_t *line = rect->pixels;
    for (int32_t y = 0; y < rect->height; y++, line += rect->stride) {
        for (int32_t i = 0; i < whole; i++)
            line[i] = static_cast<uint8_t>(~line[i]);
        if (rest != 0)
            line[whole] ^= lastMask;
    }
}

}  // extern "C"
