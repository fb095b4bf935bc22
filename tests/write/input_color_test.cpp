// Input conversion: the RGB -> YCbCr values, both down-sampling rules, the
// block layout, the edge mirroring and mean filling, and the refusals.
#include <gtest/gtest.h>

#include <functional>

#include "test_support.h"
#include "write/encoder.h"

namespace {

// One MCU's worth of buffers around a pixel rectangle.
struct Mcu {
    std::vector<uint8_t> pixels;
    std::vector<int16_t> planes, blocks;
    JpgWriteConvertContext ctx{};
    Mcu(uint32_t width, uint32_t rows, uint32_t channels, uint32_t hmax, uint32_t vmax,
        std::vector<std::pair<int, int>> factors) {
        pixels.assign(static_cast<size_t>(width) * rows * channels, 0);
        ctx.mcuWidth = 8 * hmax;
        ctx.mcuHeight = 8 * vmax;
        planes.assign(ctx.mcuWidth * ctx.mcuHeight * channels, 0);
        size_t blockCount = 0;
        for (size_t c = 0; c < factors.size(); c++) {
            ctx.factors[c][0] = factors[c].first;
            ctx.factors[c][1] = factors[c].second;
            blockCount += static_cast<size_t>(factors[c].first * factors[c].second);
        }
        blocks.assign(blockCount * 64, 0x7777);
        ctx.pixels = pixels.data();
        ctx.blocks = blocks.data();
        ctx.planes = planes.data();
        ctx.rows = rows;
        ctx.width = width;
        ctx.stride = static_cast<int32_t>(width * channels);
        ctx.bytesPerPixel = channels;
    }
    int16_t *block(int i) { return blocks.data() + 64 * i; }
};

}  // namespace

TEST(InputColor, YCbCrValues) {
    struct Case {
        uint8_t b, g, r;
        int16_t y, cb, cr;
    };
    for (Case c : {Case{0, 0, 0, -128, 0, 0}, Case{255, 255, 255, 127, 0, 0}, Case{255, 0, 0, -99, 128, -21},
                   Case{0, 0, 255, -52, -43, 128}, Case{0, 255, 0, 22, -84, -107}}) {
        Mcu m(1, 1, 3, 1, 1, {{1, 1}, {1, 1}, {1, 1}});
        m.pixels = {c.b, c.g, c.r};
        m.ctx.pixels = m.pixels.data();
        ASSERT_EQ(GenericYUVConvert8bit(&m.ctx, 0, 0, 1, 1), JPG_STATUS_OK);
        EXPECT_EQ(m.planes[0], c.y) << int(c.b) << "," << int(c.g) << "," << int(c.r);
        EXPECT_EQ(m.planes[64], c.cb);
        EXPECT_EQ(m.planes[128], c.cr);
    }
    Mcu m(1, 1, 3, 1, 1, {{1, 1}, {1, 1}, {1, 1}});
    EXPECT_EQ(GenericYUVConvert8bit(&m.ctx, 0, 0, 2, 1), JPG_STATUS_INVALID_PARAMETER);
}

TEST(InputColor, ReversedCopyPutsRedFirst) {
    Mcu m(8, 8, 3, 1, 1, {{1, 1}, {1, 1}, {1, 1}});
    for (size_t i = 0; i < m.pixels.size(); i += 3) {
        m.pixels[i] = 10;       // B
        m.pixels[i + 1] = 20;   // G
        m.pixels[i + 2] = 200;  // R
    }
    ASSERT_EQ(jpgWriteRGB2RGBRect(&m.ctx, 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(m.block(0)[0], 72);    // R - 128
    EXPECT_EQ(m.block(1)[63], -108); // G - 128
    EXPECT_EQ(m.block(2)[17], -118); // B - 128
}

// Plain sampling takes the top-left sample of each group; HQ averages with
// a bias that truncates toward zero.
TEST(InputColor, DownSamplingRules) {
    Mcu m(16, 16, 2, 2, 2, {{2, 2}, {1, 1}});
    for (int y = 0; y < 16; y++)
        for (int x = 0; x < 16; x++) {
            m.pixels[2 * (16 * y + x)] = static_cast<uint8_t>(x + 16 * y);
            // channel 1: groups of -1, -1, -1, -2 (after the level shift)
            m.pixels[2 * (16 * y + x) + 1] = (x % 2 == 1 && y % 2 == 1) ? 126 : 127;
        }
    ASSERT_EQ(jpgWriteXXX2Rect(&m.ctx, 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(m.block(1)[0], 8 - 128);                // luminance block 1 starts at x = 8
    EXPECT_EQ(m.block(2)[9], 8 * 16 + 16 + 1 - 128);  // block 2 starts at row 8
    EXPECT_EQ(m.block(4)[0], -1);                     // top-left of the group
    ASSERT_EQ(jpgWriteXXX2RectHQ(&m.ctx, 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(m.block(4)[0], 0);  // (-5 + 2) / 4 truncates to 0
    EXPECT_EQ(m.block(4)[63], 0);
    EXPECT_EQ(m.block(0)[0], -128);  // 1x1 factors copy
    Mcu p(16, 8, 1, 2, 1, {{1, 1}});  // a 2x1 group of positive values 1, 2: (3 + 1) / 2
    for (int i = 0; i < 16 * 8; i++)
        p.pixels[i] = static_cast<uint8_t>(128 + (i % 2 ? 2 : 1));
    ASSERT_EQ(jpgWriteXXX2RectHQ(&p.ctx, 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(p.block(0)[0], 2);
}

// The valid part is mirrored, doubling each time: a single column or row
// fills all eight, three columns go 0 1 2 | 2 1 0 | 0 1.
TEST(InputColor, MirroringDoublesTheValidPart) {
    for (auto convert : {jpgWriteXXX2Rect, jpgWriteXXX2RectHQ})
        for (uint32_t size : {1u, 3u}) {
            Mcu m(size, size, 1, 1, 1, {{1, 1}});
            for (uint32_t i = 0; i < size * size; i++)
                m.pixels[i] = static_cast<uint8_t>(131 + i);
            ASSERT_EQ(convert(&m.ctx, 0, 0), JPG_STATUS_OK);
            const int cols[8] = {0, 1, 2, 2, 1, 0, 0, 1};
            for (int y = 0; y < 8; y++)
                for (int x = 0; x < 8; x++)
                    EXPECT_EQ(m.block(0)[8 * y + x], size == 1 ? 3 : 3 + 3 * cols[y] + cols[x])
                        << size << ": " << x << "," << y;
        }
}

// A 1x1 three-channel image in a 2x2 MCU: the blocks holding the pixel are
// mirrored, the other luminance blocks take the block mean.
TEST(InputColor, SinglePixelInFourTwoZeroMcu) {
    Mcu m(1, 1, 3, 2, 2, {{2, 2}, {1, 1}, {1, 1}});
    m.pixels = {255, 255, 255};
    ASSERT_EQ(jpgWriteRGB2YUVRect(&m.ctx, 0, 0), JPG_STATUS_OK);
    for (int b = 0; b < 4; b++)
        for (int k = 0; k < 64; k++)
            EXPECT_EQ(m.block(b)[k], 127) << b << "," << k;
    for (int k = 0; k < 64; k++) {
        EXPECT_EQ(m.block(4)[k], 0);
        EXPECT_EQ(m.block(5)[k], 0);
    }
}

TEST(InputColor, BlocksOutsideTakeTheMeanOfTheBlockBefore) {
    Mcu m(8, 1, 1, 2, 2, {{2, 2}});
    for (int x = 0; x < 8; x++)
        m.pixels[x] = static_cast<uint8_t>(128 + x);  // 0..7, mean 3 (224 >> 6)
    ASSERT_EQ(jpgWriteXXX2RectHQ(&m.ctx, 0, 0), JPG_STATUS_OK);
    for (int k = 0; k < 64; k++) {
        EXPECT_EQ(m.block(0)[k], k % 8);
        EXPECT_EQ(m.block(1)[k], 3);
        EXPECT_EQ(m.block(2)[k], 3);
        EXPECT_EQ(m.block(3)[k], 3);
    }
}

// Positions outside the image, a YCbCr conversion of one channel and factors
// that do not tile the MCU are refused instead of looping or writing outside
// the block buffer.
TEST(InputColor, Refusals) {
    struct Case {
        const char *what;
        int factor;  // the first component's, in an 8x8 MCU of one channel
        std::function<JpgStatus(JpgWriteConvertContext *)> call;
        JpgStatus expected;
    };
    const Case cases[] = {
        {"x past the width", 1, [](auto *c) { return jpgWriteXXX2Rect(c, 8, 0); }, JPG_STATUS_INVALID_PARAMETER},
        {"y past the rows", 1, [](auto *c) { return jpgWriteXXX2Rect(c, 0, 8); }, JPG_STATUS_INVALID_PARAMETER},
        {"YCbCr of one channel", 1, [](auto *c) { return jpgWriteRGB2YUVRect(c, 0, 0); }, JPG_STATUS_INVALID_PARAMETER},
        {"factor above the MCU's", 2, [](auto *c) { return jpgWriteXXX2Rect(c, 0, 0); }, JPG_STATUS_INVALID_PARAMETER},
        {"factor above the MCU's, averaging", 2, GenericSubSamplingAndBlockDivisionHQ, JPG_STATUS_INVALID_PARAMETER},
        {"factor 0", 0, GenericSubSamplingAndBlockDivision, JPG_STATUS_INVALID_PARAMETER},
        {"factor 0, edges", 0, [](auto *c) { return GenericEdgeOptimize(c, 1, 1); }, JPG_STATUS_INVALID_PARAMETER},
        {"no valid column", 1, [](auto *c) { return GenericEdgeOptimize(c, 0, 1); }, JPG_STATUS_INVALID_PARAMETER},
        {"no context", 1, [](auto *) { return GenericEdgeOptimize(nullptr, 1, 1); }, JPG_STATUS_INVALID_HANDLE},
        {"no channels", 1, [](auto *c) { c->bytesPerPixel = 0; return GenericSubSamplingAndBlockDivision(c); },
         JPG_STATUS_INVALID_PARAMETER},
    };
    for (const Case &c : cases) {
        Mcu m(8, 8, 1, 1, 1, {{c.factor, 1}});
        EXPECT_EQ(c.call(&m.ctx), c.expected) << c.what;
    }
}
