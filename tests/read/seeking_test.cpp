// Random access and piecewise input: decoding after seeking n restart
// intervals or n MCUs, and decoding input fed piece by piece at restart
// boundaries, give exactly the pixels of the whole-image decode.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "decode_helpers.h"

namespace {

using namespace kivtest;

// A 4:4:4 stream from cjpeg (every MCU stands alone, so MCUs decoded one by
// one equal the whole-image decode) with the given restart option.
std::vector<uint8_t> makeStream(const std::string &restart, int width = 100, int height = 40) {
    std::string ppm = tempPath("seek.ppm");
    std::vector<uint8_t> data;
    std::string header = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    data.assign(header.begin(), header.end());
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            for (int c = 0; c < 3; c++)
                data.push_back(static_cast<uint8_t>(128 + 100 * std::sin((x + 3 * c) / 6.0 + y / 9.0)));
    writeFile(ppm, data);
    std::string jpg = tempPath("seek.jpg");
    EXPECT_EQ(run("cjpeg -quality 90 -sample 1x1 " + restart + " -outfile " + jpg + " " + ppm), 0);
    return readFile(jpg);
}

// Decodes the next MCU into its place (MCU index `mcu`) of `image`.
JpgStatus decodeMcuAt(JpgParam *p, Image *image, uint32_t mcu) {
    int x = static_cast<int>(mcu % p->mcusPerRow * p->mcuWidth);
    int y = static_cast<int>(mcu / p->mcusPerRow * p->mcuHeight);
    ComplibRect r = rectFor(*image);
    r.pixels = image->row(y) + x * image->channels;
    r.width = std::min<int>(image->width - x, static_cast<int>(p->mcuWidth));
    r.height = std::min<int>(image->height - y, static_cast<int>(p->mcuHeight));
    return jpgReadMcuToRect(p, &r, 1);
}

// Compares the area of MCU `mcu` of two images.
bool sameMcu(const Image &a, const Image &b, JpgParam *p, uint32_t mcu) {
    int x0 = static_cast<int>(mcu % p->mcusPerRow * p->mcuWidth);
    int y0 = static_cast<int>(mcu / p->mcusPerRow * p->mcuHeight);
    for (int y = y0; y < std::min<int>(a.height, y0 + 8); y++)
        for (int x = x0; x < std::min<int>(a.width, x0 + 8); x++)
            for (int c = 0; c < a.channels; c++) {
                size_t i = (static_cast<size_t>(y) * a.width + x) * a.channels + c;
                if (a.pixels[i] != b.pixels[i])
                    return false;
            }
    return true;
}

TEST(Seeking, RestartIntervalsThenDecode) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::vector<uint8_t> bytes = makeStream("-restart 3B");
    Image whole;
    ReadHandle full(bytes);
    ASSERT_EQ(full.status, JPG_STATUS_OK);
    ASSERT_EQ(full.p->restartInterval, 3u);
    ASSERT_EQ(decodeWhole(full.p, &whole), JPG_STATUS_OK);
    uint32_t total = full.p->totalMcus;
    ReadHandle h(bytes);
    for (int32_t n : {0, 1, 4, 7, 15}) {
        ASSERT_EQ(jpgReadSeekRestartMarker(h.p, n, 0), JPG_STATUS_OK) << n;
        for (JpgComponent &c : h.p->components)
            EXPECT_EQ(c.dcPred, 0);
        Image image = whole;
        std::fill(image.pixels.begin(), image.pixels.end(), 0);
        for (uint32_t mcu = 3 * n; mcu < std::min(total, 3u * n + 5); mcu++) {
            ASSERT_EQ(decodeMcuAt(h.p, &image, mcu), JPG_STATUS_OK) << n << " " << mcu;
            EXPECT_TRUE(sameMcu(image, whole, h.p, mcu)) << "after " << n << " intervals, MCU " << mcu;
        }
    }
    // From here (MCUs 45 to 49 decoded, interval 16 begun): the next interval starts at 51.
    ASSERT_EQ(jpgReadSeekRestartMarker(h.p, 1, 1), JPG_STATUS_OK);
    Image image = whole;
    ASSERT_EQ(decodeMcuAt(h.p, &image, 51), JPG_STATUS_OK);
    EXPECT_TRUE(sameMcu(image, whole, h.p, 51));
    EXPECT_EQ(h.p->mcusLeft, total - 52);
    // Seeking past the end stops at EOI.
    EXPECT_EQ(jpgReadSeekRestartMarker(h.p, 1000, 0), JPG_STATUS_OK);
    EXPECT_EQ(h.p->currentMarker, 0xFFD9u);
}

TEST(Seeking, McusThenDecode) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    for (const char *restart : {"", "-restart 5B"}) {
        std::vector<uint8_t> bytes = makeStream(restart);
        ReadHandle full(bytes);
        Image whole;
        ASSERT_EQ(decodeWhole(full.p, &whole), JPG_STATUS_OK);
        ReadHandle h(bytes);
        for (uint32_t n : {0u, 1u, 12u, 13u, 40u}) {
            ASSERT_EQ(jpgReadSeekMcu(h.p, n, 0), JPG_STATUS_OK) << n;
            Image image = whole;
            for (uint32_t mcu = n; mcu < n + 3; mcu++) {
                ASSERT_EQ(decodeMcuAt(h.p, &image, mcu), JPG_STATUS_OK);
                EXPECT_TRUE(sameMcu(image, whole, h.p, mcu)) << restart << " after " << n << " MCUs";
            }
        }
        EXPECT_EQ(jpgReadSeekMcu(h.p, 1, 2), JPG_STATUS_INVALID_PARAMETER);
    }
}

TEST(Seeking, PartialInputAtRestartBoundaries) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::vector<uint8_t> bytes = makeStream("-restart 4B");
    ReadHandle full(bytes);
    Image whole;
    ASSERT_EQ(decodeWhole(full.p, &whole), JPG_STATUS_OK);
    // Pieces end right behind each restart marker.
    std::vector<size_t> cuts;
    for (size_t i = full.p->firstScanOffset; i + 1 < bytes.size(); i++)
        if (bytes[i] == 0xFF && bytes[i + 1] >= 0xD0 && bytes[i + 1] <= 0xD7)
            cuts.push_back(i + 2);
    cuts.push_back(bytes.size());
    std::vector<std::vector<uint8_t>> pieces;
    size_t from = 0;
    for (size_t cut : cuts) {
        pieces.emplace_back(bytes.begin() + static_cast<long>(from), bytes.begin() + static_cast<long>(cut));
        from = cut;
    }
    ReadHandle h(pieces[0], 0x2);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    Image image = whole;
    std::fill(image.pixels.begin(), image.pixels.end(), 0);
    uint32_t mcu = 0;
    for (size_t piece = 0; piece < pieces.size(); piece++) {
        if (piece > 0)
            ASSERT_EQ(jpgReadSetPartialBitstream(h.p, pieces[piece].data(),
                                                 static_cast<uint32_t>(pieces[piece].size())),
                      JPG_STATUS_OK);
        for (int i = 0; i < 4 && mcu < h.p->totalMcus; i++, mcu++)
            ASSERT_EQ(decodeMcuAt(h.p, &image, mcu), JPG_STATUS_OK) << "MCU " << mcu;
    }
    EXPECT_EQ(mcu, h.p->totalMcus);
    EXPECT_TRUE(image.pixels == whole.pixels);
}

TEST(Seeking, Refusals) {
    std::vector<uint8_t> plain = readFile(corpus("samples/testorig.jpg"));
    ReadHandle h(plain);
    EXPECT_EQ(jpgReadSeekRestartMarker(h.p, 1, 0), JPG_STATUS_ERROR);  // no restart interval
    uint8_t piece[4] = {};
    EXPECT_EQ(jpgReadSetPartialBitstream(h.p, piece, 4), JPG_STATUS_ERROR);  // not enabled
    EXPECT_EQ(jpgReadSetPartialBitstream(h.p, nullptr, 4), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadSetPartialBitstream(h.p, piece, 0), JPG_STATUS_INVALID_PARAMETER);
    uint32_t value = 0;
    EXPECT_EQ(jpgReadSetMcuAddress(h.p, 7), JPG_STATUS_OK);
    EXPECT_EQ(jpgReadGetMcuAddress(h.p, &value), JPG_STATUS_OK);
    EXPECT_EQ(value, 7u);
    EXPECT_EQ(jpgReadSetProcessedLine(h.p, 9), JPG_STATUS_OK);
    EXPECT_EQ(jpgReadGetProcessedLine(h.p, &value), JPG_STATUS_OK);
    EXPECT_EQ(value, 9u);
    EXPECT_EQ(jpgReadGetProcessedLine(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadSeekMcu(nullptr, 1, 0), JPG_STATUS_INVALID_HANDLE);
    // Lossless and progressive frames have no sequential MCU to skip.
    ReadHandle lossless(readFile(corpus("conformance/O1.jpg")));
    EXPECT_NE(jpgReadSeekMcu(lossless.p, 1, 0), JPG_STATUS_OK);
    ReadHandle progressive(readFile(corpus("samples/testprog.jpg")));
    EXPECT_NE(jpgReadSeekMcu(progressive.p, 1, 0), JPG_STATUS_OK);
}

}  // namespace
