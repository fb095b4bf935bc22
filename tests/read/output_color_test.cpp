// Output colour conversion: closeness to the JFIF equations, every channel layout (B-G-R order,
// YCCK to inverted C-M-Y-K) with partial MCUs clipped at the right and
// bottom edges, full size and scaled. The SSE2 and AVX2 block writers and
// the SSE2 block expanders against the portable code, bit for bit: every
// Cb, Cr pair, random and extreme 16-bit samples (only the low
// byte counts), every row count, neighbouring bytes left untouched.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "kivjpeg.h"
#include "read/output_color_sse2.h"
#include "read/upsampling_sse2.h"
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

// Within 1 of the JFIF equations, clamped, over a grid that takes in the
// extremes of every input.
TEST(ColorConversion, JfifEquations) {
    double maxError = 0;
    for (int y = 0; y < 256; y += 3)
        for (int cb = 0; cb < 256; cb += 5)
            for (int cr = 0; cr < 256; cr += 15) {
                Rgb p = yuv(y, cb, cr);
                auto clamp = [](double v) { return std::clamp(v, 0.0, 255.0); };
                maxError = std::max({maxError, std::abs(p.r - clamp(y + 1.402 * (cr - 128))),
                                     std::abs(p.g - clamp(y - 0.344136 * (cb - 128) - 0.714136 * (cr - 128))),
                                     std::abs(p.b - clamp(y + 1.772 * (cb - 128)))});
            }
    EXPECT_LE(maxError, 1.0);
}

constexpr uint8_t kSentinel = 0xAA;

struct Layout {
    JpgReadColorConvertFunc full, scaled;
    int channels;
    int order[4];  // component of each output byte; -1: YCbCr to B, G, R; -2: YCCK
};

const Layout kLayouts[] = {
    {jpgReadCopyGrey, jpgReadScaledCopyGrey, 1, {0}},
    {jpgReadCopy2, jpgReadScaledCopy2, 2, {0, 1}},
    {jpgReadCopy3, jpgReadScaledCopy3, 3, {0, 1, 2}},
    {jpgReadCopy4, jpgReadScaledCopy4, 4, {0, 1, 2, 3}},
    {jpgReadCopy3Reversed, jpgReadScaledCopy3Reversed, 3, {2, 1, 0}},
    {jpgReadYUV2Rect, jpgReadScaledYUV2Rect, 3, {-1}},
    {jpgReadYCCK2Rect, jpgReadScaledYCCK2Rect, 4, {-2}},
};

// The bytes a layout writes for upsampled sample (sy, sx) of blocks n x n.
std::vector<int> expectedPixel(const SyntheticFrame &f, const Layout &layout, int sy, int sx, uint32_t n) {
    std::vector<int> out;
    if (layout.order[0] >= 0) {
        for (int c = 0; c < layout.channels; c++)
            out.push_back(f.upsampled(layout.order[c], sy, sx, n) & 0xFF);
        return out;
    }
    Rgb p = yuv(f.upsampled(0, sy, sx, n), f.upsampled(1, sy, sx, n), f.upsampled(2, sy, sx, n));
    if (layout.order[0] == -1)
        return {p.b, p.g, p.r};
    return {255 - p.r, 255 - p.g, 255 - p.b, f.upsampled(3, sy, sx, n) & 0xFF};  // C, M, Y; K as coded
}

// Converts one MCU at offset x0 with the given width into a canvas whose
// height clips the MCU, and checks the written area and the untouched rest.
void checkClipped(const Layout &layout, int level, int x0, int width, int height) {
    std::vector<uint8_t> samplings = layout.channels == 3 ? std::vector<uint8_t>{0x22, 0x22, 0x22}
                                                          : std::vector<uint8_t>(layout.channels, 0x21);
    SyntheticFrame f(samplings, level);
    for (uint32_t c = 0; c < f.p->numComponents; c++)
        for (uint32_t b = 0; b < f.p->components[c].blocks; b++)
            for (int i = 0; i < 64; i++)
                f.block(c, b)[i] = int16_t((40 * c + 3 * i + 17 * b) % 256);
    jpgGetUpSamplingGenericFunc((level < 3 ? 0x80000000u : 0) | (f.p->hmax << 16) | (f.p->vmax << 8))(f.p);
    uint32_t n = level < 3 ? 1u << level : 8;
    int mcuW = int(n * f.p->hmax), mcuH = int(n * f.p->vmax), w = x0 + mcuW + 3, ch = layout.channels;
    std::vector<uint8_t> pixels(size_t(w) * (mcuH + 2) * ch, kSentinel);
    ComplibRect rect{w, height, w * ch, 8 * ch, ch, 8, pixels.data(), uint32_t(pixels.size())};
    (level < 3 ? layout.scaled : layout.full)(f.p, &rect, x0, width);
    int writtenW = std::clamp(width, 0, mcuW), writtenH = std::clamp(height, 0, mcuH);
    for (int y = 0; y < mcuH + 2; y++)
        for (int x = 0; x < w; x++) {
            bool inside = y < writtenH && x >= x0 && x < x0 + writtenW;
            std::vector<int> want = inside ? expectedPixel(f, layout, y, x - x0, n) : std::vector<int>(ch, kSentinel);
            for (int c = 0; c < ch; c++)
                ASSERT_EQ(pixels[(size_t(y) * w + x) * ch + c], want[c])
                    << "level " << level << " at " << y << "," << x << " byte " << c << (inside ? "" : " (outside)");
        }
}

TEST(ColorConversion, EveryLayoutClipsPartialMcus) {
    for (const Layout &layout : kLayouts) {
        for (auto [x0, width, height] : {std::tuple{0, 16, 8}, {5, 3, 8}, {2, 11, 5}, {0, 0, 8}, {0, -4, 8},
                                         {1, 40, 3}, {0, 16, 0}})
            checkClipped(layout, 3, x0, width, height);
        for (int level = 0; level <= 2; level++)
            for (auto [x0, width, height] : {std::tuple{0, 64, 64}, {3, 1, 1}, {1, 3, 3}, {0, 0, 4}, {2, 5, 7}})
                checkClipped(layout, level, x0, width, height);
    }
}

// Without a block map (no decoder set up) a converter writes nothing.
TEST(ColorConversion, ConvertersWriteNothingWithoutBlocks) {
    SyntheticFrame f({0x11, 0x11, 0x11, 0x11});
    uint32_t *map = f.p->blockMap;
    f.p->blockMap = nullptr;
    std::vector<uint8_t> pixels(8 * 8 * 4, kSentinel);
    ComplibRect rect{8, 8, 32, 32, 4, 8, pixels.data(), uint32_t(pixels.size())};
    for (const Layout &layout : kLayouts) {
        layout.full(f.p, &rect, 0, 8);
        layout.scaled(f.p, &rect, 0, 8);
    }
    f.p->blockMap = map;
    EXPECT_TRUE(std::all_of(pixels.begin(), pixels.end(), [](uint8_t b) { return b == kSentinel; }));
}

#if KIV_HAVE_SSE2_COLOR

bool have(uint32_t level) { return (jpgGetProcessorArchitecture() & level) != 0; }

constexpr int kGuard = 16, kStride = 8 * 4 + 2 * kGuard;  // widest pixels plus guards

// A canvas of 9 lines: rows of the block inside guard bytes.
struct Canvas {
    uint8_t bytes[9 * kStride];
    Canvas() { memset(bytes, 0xA5, sizeof bytes); }
    uint8_t *origin() { return bytes + kGuard; }
};

// The portable result of one block: B, G, R by the exported table
// converter, copies by the low byte, nothing outside rows x 8 pixels.
void expectedBlock(const int16_t *const *src, int channels, bool ycc, int rows, Canvas &out) {
    for (int r = 0; r < rows; r++)
        for (int x = 0; x < 8; x++) {
            uint8_t *p = out.origin() + r * kStride + channels * x;
            int i = 8 * r + x;
            if (ycc) {
                Rgb c = yuv(src[0][i] & 0xFF, src[1][i] & 0xFF, src[2][i] & 0xFF);
                p[0] = uint8_t(c.b), p[1] = uint8_t(c.g), p[2] = uint8_t(c.r);
            } else {
                for (int k = 0; k < channels; k++)
                    p[k] = uint8_t(src[k][i]);
            }
        }
}

using Writer = void (*)(const int16_t *const *, uint8_t *, ptrdiff_t, int);

void checkWriter(Writer writer, int channels, bool ycc, const int16_t *const *src, const char *what) {
    for (int rows = 1; rows <= 8; rows++) {
        Canvas fast, plain;
        writer(src, fast.origin(), kStride, rows);
        expectedBlock(src, channels, ycc, rows, plain);
        ASSERT_EQ(0, memcmp(fast.bytes, plain.bytes, sizeof fast.bytes)) << what << " rows " << rows;
    }
}

// The two rows halfScaleRowsToBgrSse2 writes against the table converter.
void checkHalfScale(const int16_t *luma, const int16_t *const *chroma, const std::string &what) {
    int16_t y[64] = {}, cb[64] = {}, cr[64] = {};
    for (int r = 0; r < 2; r++)
        for (int x = 0; x < 8; x++) {
            y[8 * r + x] = luma[8 * r + (x < 4 ? x : 60 + x)];
            cb[8 * r + x] = chroma[2 * r][x / 2];
            cr[8 * r + x] = chroma[2 * r + 1][x / 2];
        }
    const int16_t *src[3] = {y, cb, cr};
    Canvas plain, fast;
    expectedBlock(src, 3, true, 2, plain);
    kiv::halfScaleRowsToBgrSse2(luma, chroma, fast.origin(), fast.origin() + kStride);
    ASSERT_EQ(0, memcmp(fast.bytes, plain.bytes, sizeof fast.bytes)) << what;
}

// Samples drawn from 0..255, from the whole 16-bit range, or from the
// values at the edges of both.
void fillSamples(std::mt19937 &random, int kind, int16_t *block) {
    static const int16_t extremes[] = {0, 1, 127, 128, 254, 255, 256, -1, -256, 32767, -32768, 511};
    for (int i = 0; i < 64; i++) {
        uint32_t v = random();
        block[i] = kind == 0 ? int16_t(v & 0xFF) : kind == 1 ? int16_t(v & 0xFFFF) : extremes[v % 12];
    }
}

// Every writer on random and extreme samples, every Cb, Cr pair among the
// first 1024 rounds; chroma doubled vertically for the paired writers, which
// read only the even rows.
TEST(ColorSimd, WritersMatchPortableOnEveryChromaPairAndExtremeSamples) {
    std::mt19937 random(2024);
    int16_t blocks[4][64];
    const int16_t *src[4] = {blocks[0], blocks[1], blocks[2], blocks[3]};
    for (int n = 0; n < 1024 + 1500; n++) {
        for (auto &block : blocks)
            fillSamples(random, n % 3, block);
        for (int i = 0; n < 1024 && i < 64; i++)
            blocks[1][i] = int16_t((64 * n + i) & 255), blocks[2][i] = int16_t((64 * n + i) >> 8);
        checkWriter(kiv::storeBlockCopy1Sse2, 1, false, src, "grey");
        checkWriter(kiv::storeBlockCopy3Sse2, 3, false, src, "three");
        checkWriter(kiv::storeBlockCopy4Sse2, 4, false, src, "four");
        checkWriter(kiv::storeBlockBgrSse2, 3, true, src, "bgr");
        for (int k = 0; k < 64; k += 8) {  // 4 + 4 chroma pairs a call: every pair of the blocks
            const int16_t *rows[4] = {blocks[1] + k, blocks[2] + k, blocks[1] + k + 4, blocks[2] + k + 4};
            checkHalfScale(blocks[0], rows, "half scale, round " + std::to_string(n));
        }
        if (have(JPG_PROCESSOR_AVX2))
            checkWriter(kiv::storeBlockBgrAvx2, 3, true, src, "bgr avx2");
        for (int c = 1; c < 3; c++)
            for (int r = 0; r < 8; r += 2)
                memcpy(blocks[c] + 8 * (r + 1), blocks[c] + 8 * r, 16);
        checkWriter(kiv::storeBlockBgrPairedSse2, 3, true, src, "paired");
        if (have(JPG_PROCESSOR_AVX2))
            checkWriter(kiv::storeBlockBgrPairedAvx2, 3, true, src, "paired avx2");
    }
}

#endif

#if KIV_HAVE_SSE2_UPSAMPLING

// Doubling with and without a right-hand neighbour.
TEST(UpsamplingSimd, ExpandersMatchPortable) {
    std::mt19937 random(99);
    int16_t in[64], next[64];
    for (int n = 0; n < 6000; n++) {
        fillSamples(random, n % 3, in);
        fillSamples(random, (n / 3) % 3, next);
        const int16_t *right = n % 2 == 0 ? next : nullptr;
        int16_t fast[256], plain[256];
        memset(fast, 0x5A, sizeof fast);
        memset(plain, 0x5A, sizeof plain);
        kiv::doubleBothSse2(in, right, fast);
        kiv::doubleBothPortable(in, right, plain);
        ASSERT_EQ(0, memcmp(fast, plain, sizeof fast)) << "both, case " << n;
        kiv::doubleAcrossSse2(in, right, fast, fast + 128);
        kiv::doubleAcrossPortable(in, right, plain, plain + 128);
        ASSERT_EQ(0, memcmp(fast, plain, sizeof fast)) << "across, case " << n;
        kiv::doubleDownSse2(in, fast + 64, fast + 192);
        kiv::doubleDownPortable(in, plain + 64, plain + 192);
        ASSERT_EQ(0, memcmp(fast, plain, sizeof fast)) << "down, case " << n;
    }
}

#endif

}  // namespace
