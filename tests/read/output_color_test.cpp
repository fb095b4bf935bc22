// Output colour conversion: pinned YCbCr values and closeness to the JFIF
// equations, the converter selector, channel layouts, B-G-R order, YCCK to
// inverted C-M-Y-K, and clipping of partial MCUs at the right and bottom
// edges (full size and scaled blocks).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "kivjpeg.h"
#include "synthetic_mcu.h"

namespace {

using kivtest::SyntheticFrame;

struct Rgb {
    int32_t r, g, b;
};

Rgb yuv(int y, int cb, int cr) {
    Rgb p{-1, -1, -1};
    jpgReadYuv2RGB(&p.r, &p.g, &p.b, y, cb, cr);
    return p;
}

TEST(ColorConversion, PinnedValues) {
    struct Case {
        int y, cb, cr;
        Rgb expected;
    };
    const Case cases[] = {
        {0, 128, 128, {0, 0, 0}},
        {255, 128, 128, {255, 255, 255}},
        {100, 128, 128, {100, 100, 100}},
        {255, 128, 255, {255, 164, 255}},  // R = 255 + 178 clamps
        {0, 128, 0, {0, 91, 0}},           // R = 0 - 179 clamps
        {0, 255, 128, {0, 0, 225}},        // B = 0 + 225
        {255, 0, 128, {255, 255, 28}},     // B = 255 - 227
    };
    for (const Case &c : cases) {
        Rgb p = yuv(c.y, c.cb, c.cr);
        EXPECT_EQ(p.r, c.expected.r) << c.y << "," << c.cb << "," << c.cr;
        EXPECT_EQ(p.g, c.expected.g) << c.y << "," << c.cb << "," << c.cr;
        EXPECT_EQ(p.b, c.expected.b) << c.y << "," << c.cb << "," << c.cr;
    }
}

TEST(ColorConversion, WithinOneOfTheJfifEquations) {
    int maxError = 0;
    for (int y = 0; y < 256; y += 3)
        for (int cb = 0; cb < 256; cb += 5)
            for (int cr = 0; cr < 256; cr += 7) {
                Rgb p = yuv(y, cb, cr);
                auto clamp = [](double v) { return std::clamp(v, 0.0, 255.0); };
                double r = clamp(y + 1.402 * (cr - 128));
                double g = clamp(y - 0.344136 * (cb - 128) - 0.714136 * (cr - 128));
                double b = clamp(y + 1.772 * (cb - 128));
                maxError = std::max({maxError, static_cast<int>(std::ceil(std::abs(p.r - r))),
                                     static_cast<int>(std::ceil(std::abs(p.g - g))),
                                     static_cast<int>(std::ceil(std::abs(p.b - b)))});
            }
    EXPECT_LE(maxError, 1);
}

TEST(ColorConversion, SelectorMapsIdentifiers) {
    const std::pair<uint32_t, JpgReadColorConvertFunc> table[] = {
        {0x20201, jpgReadCopyGrey},          {0x20202, jpgReadCopy2},
        {0x20203, jpgReadCopy3},             {0x20204, jpgReadCopy4},
        {0x1020203, jpgReadCopy3Reversed},   {0x2020203, jpgReadYUV2Rect},
        {0x40020201, jpgReadScaledCopyGrey}, {0x40020202, jpgReadScaledCopy2},
        {0x40020203, jpgReadScaledCopy3},    {0x40020204, jpgReadScaledCopy4},
        {0x41020203, jpgReadScaledCopy3Reversed}, {0x42020203, jpgReadScaledYUV2Rect},
        {0x3020204, jpgReadYCCK2Rect},       {0x43020204, jpgReadScaledYCCK2Rect},
        {0x22020203, nullptr},  // 12-bit: no converter
        {0x3020203, nullptr},   {0x2020204, nullptr},  // kinds of another channel count
        {0x20205, nullptr},     {0x2020201, nullptr}, {0, nullptr},
    };
    for (auto [id, routine] : table)
        EXPECT_EQ(jpgGetReadColorConvertGenericFunc(id), routine) << std::hex << id;
}

constexpr uint8_t kSentinel = 0xAA;

struct Canvas {
    Canvas(int w, int h, int channels) : pixels(static_cast<size_t>(w * h * channels), kSentinel) {
        rect.width = w;
        rect.height = h;
        rect.channels = channels;
        rect.stride = w * channels;
        rect.pixelBits = 8 * channels;
        rect.sampleBits = 8;
        rect.pixels = pixels.data();
        rect.allocSize = static_cast<uint32_t>(pixels.size());
    }
    uint8_t at(int y, int x, int c) const { return pixels[static_cast<size_t>((y * rect.width + x) * rect.channels + c)]; }
    std::vector<uint8_t> pixels;
    ComplibRect rect{};
};

// Fills each component with a distinct pattern and upsamples (pointers only).
void prepare(SyntheticFrame &f) {
    for (uint32_t c = 0; c < f.p->numComponents; c++)
        for (uint32_t b = 0; b < f.p->components[c].blocks; b++)
            for (int i = 0; i < 64; i++)
                f.block(c, b)[i] = static_cast<int16_t>((40 * c + 3 * i + 17 * b) % 256);
    jpgGetUpSamplingGenericFunc(((f.p->scaleLevel < 3) ? 0x80000000u : 0) | (f.p->hmax << 16) |
                                (f.p->vmax << 8))(f.p);
}

struct Layout {
    JpgReadColorConvertFunc convert;
    int channels;
    int order[4];  // component of each output byte; -1: YCbCr to B, G, R; -2: YCCK
};

const Layout kLayouts[] = {
    {jpgReadCopyGrey, 1, {0}},         {jpgReadCopy2, 2, {0, 1}},
    {jpgReadCopy3, 3, {0, 1, 2}},      {jpgReadCopy4, 4, {0, 1, 2, 3}},
    {jpgReadCopy3Reversed, 3, {2, 1, 0}}, {jpgReadYUV2Rect, 3, {-1}},
    {jpgReadYCCK2Rect, 4, {-2}},
};
const Layout kScaledLayouts[] = {
    {jpgReadScaledCopyGrey, 1, {0}},         {jpgReadScaledCopy2, 2, {0, 1}},
    {jpgReadScaledCopy3, 3, {0, 1, 2}},      {jpgReadScaledCopy4, 4, {0, 1, 2, 3}},
    {jpgReadScaledCopy3Reversed, 3, {2, 1, 0}}, {jpgReadScaledYUV2Rect, 3, {-1}},
    {jpgReadScaledYCCK2Rect, 4, {-2}},
};

void expectPixel(const SyntheticFrame &f, const Canvas &canvas, const Layout &layout, int y, int x,
                 int sy, int sx, uint32_t n) {
    if (layout.order[0] < 0) {
        Rgb p = yuv(f.upsampled(0, sy, sx, n), f.upsampled(1, sy, sx, n), f.upsampled(2, sy, sx, n));
        int expected[4] = {p.b, p.g, p.r, 0};
        if (layout.order[0] == -2) {  // YCCK: C, M, Y = 255 - R, G, B; K as coded
            expected[0] = 255 - p.r;
            expected[1] = 255 - p.g;
            expected[2] = 255 - p.b;
            expected[3] = f.upsampled(3, sy, sx, n) & 0xFF;
        }
        for (int c = 0; c < layout.channels; c++)
            ASSERT_EQ(canvas.at(y, x, c), expected[c]) << y << "," << x << " byte " << c;
        return;
    }
    for (int c = 0; c < layout.channels; c++)
        ASSERT_EQ(canvas.at(y, x, c), f.upsampled(layout.order[c], sy, sx, n) & 0xFF)
            << y << "," << x << " byte " << c;
}

// Converts one MCU at offset x0 with the given width into a canvas whose
// height clips the MCU, and checks the written area and the untouched rest.
void checkClipped(const Layout &layout, int level, int x0, int width, int height) {
    std::vector<uint8_t> samplings = layout.channels == 3 ? std::vector<uint8_t>{0x22, 0x22, 0x22}
                                                          : std::vector<uint8_t>(layout.channels, 0x21);
    SyntheticFrame f(samplings, level);
    prepare(f);
    uint32_t n = level < 3 ? 1u << level : 8;
    int mcuW = static_cast<int>(n * f.p->hmax), mcuH = static_cast<int>(n * f.p->vmax);
    Canvas canvas(x0 + mcuW + 3, mcuH + 2, layout.channels);
    canvas.rect.height = height;
    layout.convert(f.p, &canvas.rect, x0, width);
    int writtenW = std::clamp(width, 0, mcuW), writtenH = std::clamp(height, 0, mcuH);
    for (int y = 0; y < mcuH + 2; y++)
        for (int x = 0; x < canvas.rect.width; x++) {
            bool inside = y < writtenH && x >= x0 && x < x0 + writtenW;
            if (inside) {
                expectPixel(f, canvas, layout, y, x, y, x - x0, n);
            } else {
                for (int c = 0; c < layout.channels; c++)
                    ASSERT_EQ(canvas.at(y, x, c), kSentinel)
                        << "level " << level << " written outside at " << y << "," << x;
            }
        }
}

TEST(ColorConversion, FullSizeConvertersClipPartialMcus) {
    for (const Layout &layout : kLayouts)
        for (auto [x0, width, height] : {std::tuple{0, 16, 8}, {5, 3, 8}, {2, 11, 5}, {0, 0, 8},
                                         {0, -4, 8}, {1, 40, 3}, {0, 16, 0}})
            checkClipped(layout, 3, x0, width, height);
}

TEST(ColorConversion, ThreeColumnsLeftWriteThreePixels) {
    SyntheticFrame f({0x11, 0x11, 0x11});
    prepare(f);
    Canvas canvas(16, 8, 3);
    jpgReadYUV2Rect(f.p, &canvas.rect, 5, 3);
    for (int y = 0; y < 8; y++)
        for (int x = 0; x < 16; x++)
            EXPECT_EQ(canvas.at(y, x, 0) == kSentinel && canvas.at(y, x, 1) == kSentinel &&
                          canvas.at(y, x, 2) == kSentinel,
                      x < 5 || x >= 8)
                << y << "," << x;
}

TEST(ColorConversion, ScaledConvertersStepByTheReducedBlock) {
    for (const Layout &layout : kScaledLayouts)
        for (int level = 0; level <= 2; level++)
            for (auto [x0, width, height] : {std::tuple{0, 64, 64}, {3, 1, 1}, {1, 3, 3}, {0, 0, 4},
                                             {2, 5, 7}})
                checkClipped(layout, level, x0, width, height);
}

TEST(ColorConversion, YCbCrIsWrittenBlueGreenRed) {
    SyntheticFrame f({0x11, 0x11, 0x11});
    std::fill(f.block(0, 0), f.block(0, 0) + 64, int16_t(128));
    std::fill(f.block(1, 0), f.block(1, 0) + 64, int16_t(128));
    std::fill(f.block(2, 0), f.block(2, 0) + 64, int16_t(255));  // strong red
    jpgReadUpSamplingTo11(f.p);
    Canvas canvas(8, 8, 3);
    jpgReadYUV2Rect(f.p, &canvas.rect, 0, 8);
    EXPECT_EQ(canvas.at(3, 3, 0), 128);  // B
    EXPECT_EQ(canvas.at(3, 3, 1), 37);   // G = 128 - 91
    EXPECT_EQ(canvas.at(3, 3, 2), 255);  // R = 128 + 178, clamped
}

}  // namespace
