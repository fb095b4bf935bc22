// Random access and piecewise input: decoding after seeking n restart
// intervals or n MCUs, and decoding input fed piece by piece at restart
// boundaries and inside the data, give exactly the pixels of the
// whole-image decode.
#include <gtest/gtest.h>

#include <algorithm>

#include "test_support.h"

namespace {

using namespace kivtest;

// A 4:4:4 stream (every MCU stands alone, so MCUs decoded one by one equal
// the whole-image decode) with the given restart option.
Bytes makeStream(const std::string &restart) {
    return cjpeg(picture(100, 40, 3, 0, 3), "-quality 90 -sample 1x1 " + restart);
}

// Decodes the next MCU into its place (MCU index `mcu`) of `image`.
JpgStatus decodeMcuAt(JpgParam *p, Image *image, uint32_t mcu) {
    int x = int(mcu % p->mcusPerRow * p->mcuWidth), y = int(mcu / p->mcusPerRow * p->mcuHeight);
    ComplibRect r = image->rect();
    r.pixels = image->row(y) + x * image->channels;
    r.width = std::min<int>(image->width - x, int(p->mcuWidth));
    r.height = std::min<int>(image->height - y, int(p->mcuHeight));
    return jpgReadMcuToRect(p, &r, 1);
}

bool sameMcu(const Image &a, const Image &b, JpgParam *p, uint32_t mcu) {
    int x0 = int(mcu % p->mcusPerRow * p->mcuWidth), y0 = int(mcu / p->mcusPerRow * p->mcuHeight);
    for (int y = y0; y < std::min(a.height, y0 + 8); y++)
        for (int x = x0; x < std::min(a.width, x0 + 8); x++)
            for (int c = 0; c < a.channels; c++)
                if (a.at(x, y, c) != b.at(x, y, c))
                    return false;
    return true;
}

class Seeking : public ::testing::Test {
protected:
    void SetUp() override {
        if (!haveTool("cjpeg"))
            GTEST_SKIP() << "cjpeg not installed";
    }
};

// Seeking n restart intervals (the prediction starts afresh) or n MCUs, with
// and without restart intervals, then decoding MCU by MCU.
TEST_F(Seeking, RestartIntervalsOrMcusThenDecode) {
    const struct {
        const char *restart;
        uint32_t mcusPerStep;  // 0: seek MCUs, else restart intervals of this many MCUs
    } cases[] = {{"-restart 3B", 3}, {"", 0}, {"-restart 5B", 0}};
    for (const auto &c : cases) {
        Bytes bytes = makeStream(c.restart);
        Image whole = decode(bytes).image;
        ReadHandle h(bytes);
        uint32_t total = h.p->totalMcus;
        for (uint32_t n : {0u, 1u, 4u, 7u, 12u, 13u, 15u, 40u}) {
            uint32_t first = c.mcusPerStep ? c.mcusPerStep * n : n;
            if (first >= total)
                continue;
            ASSERT_EQ(c.mcusPerStep ? jpgReadSeekRestartMarker(h.p, int32_t(n), 0) : jpgReadSeekMcu(h.p, n, 0),
                      JPG_STATUS_OK) << c.restart << " " << n;
            for (JpgComponent &comp : h.p->components)
                EXPECT_TRUE(c.mcusPerStep == 0 || comp.dcPred == 0) << n;
            Image image = whole;
            for (uint32_t mcu = first; mcu < std::min(total, first + 4); mcu++) {
                ASSERT_EQ(decodeMcuAt(h.p, &image, mcu), JPG_STATUS_OK) << n << " " << mcu;
                EXPECT_TRUE(sameMcu(image, whole, h.p, mcu)) << c.restart << " after " << n << ", MCU " << mcu;
            }
        }
        if (c.mcusPerStep == 0) {
            EXPECT_EQ(jpgReadSeekMcu(h.p, 1, 2), JPG_STATUS_INVALID_PARAMETER);
            continue;
        }
        // From here (MCUs 45 to 48 decoded, interval 16 begun): the next interval starts at 51.
        ASSERT_EQ(jpgReadSeekRestartMarker(h.p, 1, 1), JPG_STATUS_OK);
        Image image = whole;
        ASSERT_EQ(decodeMcuAt(h.p, &image, 51), JPG_STATUS_OK);
        EXPECT_TRUE(sameMcu(image, whole, h.p, 51));
        EXPECT_EQ(h.p->mcusLeft, total - 52);
        EXPECT_EQ(jpgReadSeekRestartMarker(h.p, 1000, 0), JPG_STATUS_OK);  // stops at EOI
        EXPECT_EQ(h.p->currentMarker, 0xFFD9u);
    }
}

// Pieces that end right behind each restart marker.
TEST_F(Seeking, PartialInputAtRestartBoundaries) {
    Bytes bytes = makeStream("-restart 4B");
    Image whole = decode(bytes).image;
    std::vector<Bytes> pieces(1);
    for (size_t i = 0; i < bytes.size(); i++) {
        pieces.back().push_back(bytes[i]);
        if (i > 0 && bytes[i - 1] == 0xFF && bytes[i] >= 0xD0 && bytes[i] <= 0xD7)
            pieces.emplace_back();
    }
    ReadHandle h(pieces[0], 0x2);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    Image image(whole.width, whole.height, 3);
    uint32_t mcu = 0;
    for (size_t piece = 0; piece < pieces.size(); piece++) {
        if (piece > 0)
            ASSERT_EQ(jpgReadSetPartialBitstream(h.p, pieces[piece].data(), uint32_t(pieces[piece].size())),
                      JPG_STATUS_OK);
        for (int i = 0; i < 4 && mcu < h.p->totalMcus; i++, mcu++)
            ASSERT_EQ(decodeMcuAt(h.p, &image, mcu), JPG_STATUS_OK) << "MCU " << mcu;
    }
    EXPECT_EQ(mcu, h.p->totalMcus);
    EXPECT_TRUE(image == whole);
}

TEST(SeekingRefusals, StatusesAndAddressSetters) {
    ReadHandle h(readFile(corpus("samples/testorig.jpg")));
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
    // Lossless and progressive frames have no sequential MCU to skip.
    for (const char *name : {"conformance/O1.jpg", "samples/testprog.jpg"}) {
        ReadHandle other(readFile(corpus(name)));
        EXPECT_NE(jpgReadSeekMcu(other.p, 1, 0), JPG_STATUS_OK) << name;
    }
}

}  // namespace
