// Image rectangles: allocation, resizing inside the allocation, addressing
// and bit inversion of bilevel images.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "kivjpeg.h"

namespace {

ComplibRect rgbRect(int32_t width, int32_t height) {
    ComplibRect rect{};
    rect.width = width;
    rect.height = height;
    rect.pixelBits = 24;
    rect.channels = 3;
    rect.sampleBits = 8;
    return rect;
}

}  // namespace

TEST(ImageRect, AllocComputesStrideAndFourSpareBytes) {
    ComplibRect rect = rgbRect(100, 10);
    ASSERT_EQ(complibRectAlloc(&rect), &rect);
    EXPECT_EQ(rect.stride, 300);
    EXPECT_EQ(rect.allocSize, 3004u);
    EXPECT_EQ(complibRectFree(&rect), JPG_STATUS_OK);
}

// Sizes beyond 32 bits, a stride that overflows 32-bit arithmetic and
// negative sizes get no allocation, and the rectangle stays as it was.
TEST(ImageRect, AllocRefusesSizesItCannotDescribe) {
    const ComplibRect refused[] = {rgbRect(65536, 65536), rgbRect(0x40000000, 1), rgbRect(-10, 10),
                                   rgbRect(10, -10), [] { auto r = rgbRect(10, 10); r.stride = -30; return r; }()};
    for (ComplibRect rect : refused) {
        const ComplibRect before = rect;
        EXPECT_EQ(complibRectAlloc(&rect), nullptr) << before.width << " x " << before.height;
        EXPECT_EQ(std::memcmp(&rect, &before, sizeof rect), 0);
    }
}

TEST(ImageRect, ResizeStaysInsideTheAllocation) {
    ComplibRect rect = rgbRect(100, 100);
    ASSERT_NE(complibRectAlloc(&rect), nullptr);
    EXPECT_EQ(complibRectResize(&rect, 200, 50, 3, 8), JPG_STATUS_OK);
    EXPECT_EQ(rect.stride, 600);
    EXPECT_EQ(complibRectResize(&rect, 200, 51, 3, 8), JPG_STATUS_NO_MEMORY);
    EXPECT_EQ(rect.height, 50);
    EXPECT_EQ(complibRectResize(&rect, 10, 10, 1, 12), JPG_STATUS_OK);
    EXPECT_EQ(rect.pixelBits, 16);  // 12-bit samples take two bytes
    EXPECT_EQ(complibRectResize(&rect, 0, 5, 3, 8), JPG_STATUS_OK);
    EXPECT_EQ(rect.width, 10);
    for (auto bad : {std::array<int32_t, 4>{-1, 1, 1, 8}, {1, -1, 1, 8}, {1, 1, 0, 8},
                     {1, 1, 5, 8}, {1, 1, 1, 0}, {1, 1, 1, 33}})
        EXPECT_EQ(complibRectResize(&rect, bad[0], bad[1], bad[2], bad[3]),
                  JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(complibRectResize(nullptr, 1, 1, 1, 8), JPG_STATUS_INVALID_PARAMETER);
    complibRectFree(&rect);
    rect.pixels = nullptr;
    EXPECT_EQ(complibRectFree(&rect), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(complibRectFree(nullptr), JPG_STATUS_INVALID_PARAMETER);
}

TEST(ImageRect, AddressesWrapNegativeCoordinates) {
    ComplibRect rect = rgbRect(4, 3);
    ASSERT_NE(complibRectAlloc(&rect), nullptr);
    auto *base = rect.pixels;
    EXPECT_EQ(complibRectGetAddress(&rect, 0, 0), base);
    EXPECT_EQ(complibRectGetAddress(&rect, 0, 2), base + 24);
    // x is scaled by the pixel size in bits.
    EXPECT_EQ(complibRectGetAddress(&rect, -1, -1), base + 2 * 12 + 3 * 24);
    EXPECT_EQ(complibRectGetAddress(&rect, 4, 0), nullptr);
    EXPECT_EQ(complibRectGetAddress(&rect, -5, 0), nullptr);
    EXPECT_EQ(complibRectGetAddress(&rect, 0, -4), nullptr);
    EXPECT_EQ(complibRectGetAddress(nullptr, 0, 0), nullptr);
    complibRectFree(&rect);
}

TEST(ImageRect, ReverseBitsKeepsPaddingBits) {
    ComplibRect rect{};
    rect.width = 10;
    rect.height = 2;
    rect.stride = 2;
    rect.pixelBits = 1;
    rect.channels = 1;
    rect.sampleBits = 1;
    ASSERT_NE(complibRectAlloc(&rect), nullptr);
    const uint8_t before[4] = {0x0F, 0x15, 0xFF, 0x00};
    memcpy(rect.pixels, before, 4);
    complibRectReverseBits(&rect);
    EXPECT_EQ(rect.pixels[0], 0xF0);
    EXPECT_EQ(rect.pixels[1], 0x15 ^ 0xC0);
    EXPECT_EQ(rect.pixels[2], 0x00);
    EXPECT_EQ(rect.pixels[3], 0xC0);
    rect.pixelBits = 8;  // only bilevel images are inverted
    complibRectReverseBits(&rect);
    EXPECT_EQ(rect.pixels[0], 0xF0);
    complibRectFree(&rect);
}
