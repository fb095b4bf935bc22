// The SSE2 and AVX2 block writers and the SSE2 block expanders against the
// portable code, bit for bit: every Y, Cb, Cr combination, random and
// extreme 16-bit samples (only the low byte may count), every row count,
// neighbouring bytes left untouched; doubling with and without a right-hand
// neighbour. Levels the processor lacks are skipped.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "kivjpeg.h"
#include "read/output_color_sse2.h"
#include "read/upsampling_sse2.h"
#include "test_support.h"

namespace {

bool have(uint32_t level) { return (jpgGetProcessorArchitecture() & level) != 0; }

#if KIV_HAVE_SSE2_COLOR

constexpr int kGuard = 16;
constexpr int kStride = 8 * 4 + 2 * kGuard;  // widest pixels plus guards

// A canvas of 9 lines: rows of the block inside guard bytes.
struct Canvas {
    uint8_t bytes[9 * kStride];
    Canvas() { memset(bytes, 0xA5, sizeof bytes); }
    uint8_t *origin() { return bytes + kGuard; }
};

// The portable result of one whole block: B, G, R by the exported table
// converter, copies by the low byte, nothing outside rows x 8 pixels.
void expectedBlock(const int16_t *const *src, int channels, bool ycc, int rows, Canvas &out) {
    for (int r = 0; r < rows; r++)
        for (int x = 0; x < 8; x++) {
            uint8_t *p = out.origin() + r * kStride + channels * x;
            int i = 8 * r + x;
            if (ycc) {
                int32_t red, green, blue;
                jpgReadYuv2RGB(&red, &green, &blue, src[0][i] & 0xFF, src[1][i] & 0xFF,
                               src[2][i] & 0xFF);
                p[0] = uint8_t(blue), p[1] = uint8_t(green), p[2] = uint8_t(red);
            } else {
                for (int c = 0; c < channels; c++)
                    p[c] = uint8_t(src[c][i]);
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

TEST(ColorSimd, BgrWriterMatchesTableConverterForEveryInput) {
    int16_t y[64], cb[64], cr[64];
    const int16_t *src[3] = {y, cb, cr};
    for (int b = 0; b < 256; b++)
        for (int r = 0; r < 256; r++)
            for (int y0 = 0; y0 < 256; y0 += 64) {
                for (int i = 0; i < 64; i++)
                    y[i] = int16_t(y0 + i), cb[i] = int16_t(b), cr[i] = int16_t(r);
                Canvas fast, plain, wide;
                kiv::storeBlockBgrSse2(src, fast.origin(), kStride, 8);
                expectedBlock(src, 3, true, 8, plain);
                ASSERT_EQ(0, memcmp(fast.bytes, plain.bytes, sizeof fast.bytes))
                    << "cb " << b << " cr " << r << " y " << y0;
                if (have(JPG_PROCESSOR_AVX2)) {
                    kiv::storeBlockBgrAvx2(src, wide.origin(), kStride, 8);
                    ASSERT_EQ(0, memcmp(wide.bytes, plain.bytes, sizeof wide.bytes))
                        << "avx2 cb " << b << " cr " << r << " y " << y0;
                }
            }
}

// Samples drawn from 0..255, from the whole 16-bit range, or from the
// values at the edges of both.
void fillSamples(std::mt19937 &random, int kind, int16_t *block) {
    static const int16_t extremes[] = {0, 1, 127, 128, 254, 255, 256, -1, -256, 32767, -32768, 511};
    for (int i = 0; i < 64; i++) {
        uint32_t v = random();
        block[i] = kind == 0 ? int16_t(v & 0xFF)
                 : kind == 1 ? int16_t(v & 0xFFFF)
                             : extremes[v % (sizeof extremes / sizeof extremes[0])];
    }
}

TEST(ColorSimd, WritersMatchPortableOnRandomAndExtremeSamples) {
    std::mt19937 random(2024);
    int16_t blocks[4][64];
    const int16_t *src[4] = {blocks[0], blocks[1], blocks[2], blocks[3]};
    for (int n = 0; n < 3000; n++) {
        for (auto &block : blocks)
            fillSamples(random, n % 3, block);
        checkWriter(kiv::storeBlockBgrSse2, 3, true, src, "bgr");
        if (have(JPG_PROCESSOR_AVX2))
            checkWriter(kiv::storeBlockBgrAvx2, 3, true, src, "bgr avx2");
        checkWriter(kiv::storeBlockCopy1Sse2, 1, false, src, "grey");
        checkWriter(kiv::storeBlockCopy3Sse2, 3, false, src, "three");
        checkWriter(kiv::storeBlockCopy4Sse2, 4, false, src, "four");
    }
}

// Chroma doubled vertically: the paired writer reads only the even rows and
// must give what the general writer gives.
TEST(ColorSimd, PairedChromaWriterMatchesPortable) {
    std::mt19937 random(5);
    int16_t blocks[3][64];
    const int16_t *src[3] = {blocks[0], blocks[1], blocks[2]};
    for (int n = 0; n < 3000; n++) {
        for (auto &block : blocks)
            fillSamples(random, n % 3, block);
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

TEST(UpsamplingSimd, ExpandersMatchPortable) {
    std::mt19937 random(99);
    int16_t in[64], next[64];
    for (int n = 0; n < 20000; n++) {
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
