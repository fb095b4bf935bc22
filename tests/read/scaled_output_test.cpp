// Scaled output: the size query, the level setter and the refusals on
// hand-built handles; whole streams at 1/8, 1/4, 1/2 and full size against
// djpeg -scale, colour and luma alone (the luma of 1/8 exactly), and
// switching levels on one handle (batches, other drivers and cut streams:
// decode_driver_test.cpp).
#include <gtest/gtest.h>

#include <algorithm>

#include "synthetic_mcu.h"
#include "test_support.h"

namespace {

using namespace kivtest;

TEST(ScaledOutput, SizeShiftsAndNeverReachesZero) {
    SyntheticFrame f({0x11});
    f.p->frameMarker = 0xFFC0;
    const struct {
        uint32_t width, height, level, w, h;
    } cases[] = {{5, 3, 0, 1, 1},       {5, 3, 3, 5, 3},        {5, 3, 2, 2, 1},         {227, 149, 0, 28, 18},
                 {227, 149, 1, 56, 37}, {227, 149, 2, 113, 74}, {227, 149, 3, 227, 149}, {1, 1, 0, 1, 1}};
    for (const auto &c : cases) {
        f.p->width = c.width;
        f.p->height = c.height;
        uint32_t w = 0, h = 0;
        ASSERT_EQ(jpgReadScaleOutputGetImageSize(f.p, &w, &h, c.level), JPG_STATUS_OK);
        EXPECT_EQ(w, c.w) << c.width << " level " << c.level;
        EXPECT_EQ(h, c.h) << c.height << " level " << c.level;
    }
    uint32_t w, h;
    EXPECT_EQ(jpgReadScaleOutputGetImageSize(f.p, &w, &h, 4), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgReadScaleOutputGetImageSize(f.p, nullptr, &h, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadScaleOutputGetImageSize(f.p, &w, nullptr, 0), JPG_STATUS_INVALID_HANDLE);
    f.p->frameMarker = 0xFFC2;
    EXPECT_EQ(jpgReadScaleOutputGetImageSize(f.p, &w, &h, 1), JPG_STATUS_OK);
    f.p->frameMarker = 0xFFC3;
    EXPECT_EQ(jpgReadScaleOutputGetImageSize(f.p, &w, &h, 0), JPG_STATUS_NOT_SUPPORTED);
}

TEST(ScaledOutput, FirstLevelOnAFreshStreamDoesNotRewind) {
    SyntheticFrame f({0x11}, -1);
    f.p->firstScanOffset = 0x7FFFFFFF;  // a rewind would fail: no input attached
    EXPECT_EQ(jpgReadScaleOutputSetLevel(f.p, 1), JPG_STATUS_OK);
    EXPECT_EQ(f.p->scaleLevel, 1);
    EXPECT_EQ(jpgReadScaleOutputSetLevel(f.p, 1), JPG_STATUS_OK) << "same level: nothing to do";
    EXPECT_EQ(jpgReadScaleOutputSetLevel(f.p, 3), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(f.p->scaleLevel, 1);
    EXPECT_EQ(jpgReadScaleOutputSetLevel(nullptr, 1), JPG_STATUS_INVALID_HANDLE);
}

TEST(ScaledOutput, RefusesWhatItCannotDecode) {
    SyntheticFrame f({0x11, 0x11, 0x11}, -1);
    f.p->frameMarker = 0xFFC0;
    uint8_t pixels[64];
    ComplibRect rect{4, 4, 12, 24, 3, 8, pixels, sizeof pixels};
    EXPECT_EQ(jpgReadScaleOutputToRect(nullptr, &rect, 4, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadScaleOutputToRect(f.p, nullptr, 4, 0), JPG_STATUS_INVALID_HANDLE);
    ComplibRect grey = rect;
    grey.channels = 1;
    EXPECT_EQ(jpgReadScaleOutputToRect(f.p, &grey, 4, 0), JPG_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(jpgReadScaleOutputMcuToRect(f.p, &grey, 1, 0), JPG_STATUS_NOT_SUPPORTED);
    f.p->frameMarker = 0xFFC2;
    EXPECT_EQ(jpgReadScaleOutputToRect(f.p, &rect, 4, 0), JPG_STATUS_NOT_SUPPORTED);
}

// The sample and the two smallest sequential photographs.
std::vector<std::string> testFiles() {
    std::vector<std::string> files = {corpus("samples/testorig.jpg")};
    for (const std::string &path : photographsBySize()) {
        ReadHandle h(readFile(path));
        if (h.p != nullptr && h.p->frameMarker <= 0xFFC1 && files.size() < 3)
            files.push_back(path);
    }
    return files;
}

// Colour, and luma alone (no colour conversion: component 0 in stream
// order, against djpeg -grayscale), at each level. Measured minimum PSNR per
// level, less a margin: djpeg reconstructs subsampled chroma with a larger
// reduced transform where this decoder replicates (at full size it
// replicates and this decoder interpolates); level 0 luma is the rounded DC
// in both decoders (identical); levels 1 and 2 use other reduced transforms.
TEST(ScaledOutput, MatchesDjpegScaledOutput) {
    if (!haveTool("djpeg"))
        GTEST_SKIP() << "djpeg not installed";
    const double kColourMinimum[4] = {25.0, 26.5, 32.0, 30.0}, kLumaMinimum[4] = {99.0, 34.0, 42.0, 40.0};
    const char *kScale[4] = {"1/8", "1/4", "1/2", "8/8"};
    for (const std::string &file : testFiles())
        for (int level = 0; level <= 3; level++)
            for (bool luma : {false, true}) {
                SCOPED_TRACE(file + " level " + std::to_string(level) + (luma ? " luma" : " colour"));
                Decoded ours = decode(readFile(file), {.level = level, .noConversion = luma});
                ASSERT_EQ(ours.status, JPG_STATUS_OK);
                Image theirs;
                ASSERT_TRUE(djpeg(file, &theirs, std::string("-dct int -nosmooth -scale ") + kScale[level] +
                                                     (luma ? " -grayscale" : "")));
                Image mine = ours.image;
                if (luma) {
                    mine = Image(ours.image.width, ours.image.height, 1);
                    for (size_t i = 0; i < mine.samples(); i++)
                        mine.pixels[i] = ours.image.pixels[i * ours.image.channels];
                }
                EXPECT_LE(std::abs(mine.width - theirs.width), 1);
                EXPECT_LE(std::abs(mine.height - theirs.height), 1);
                EXPECT_GE(psnr(mine, theirs), luma ? kLumaMinimum[level] : kColourMinimum[level]);
            }
}

TEST(ScaledOutput, SwitchingLevelsRewindsAndRepeatsThePixels) {
    Bytes data = readFile(corpus("samples/testorig.jpg"));
    ReadHandle h(data);
    auto at = [&](int level) { return decodeOpen(h.p, {.driver = Driver::Scaled, .level = level}); };
    Image half1 = at(2).image, full1 = at(3).image, half2 = at(2).image, quarter = at(1).image;
    // The same level again does not rewind: every line has been delivered.
    uint8_t spare[3 * 1024];
    ComplibRect rect{quarter.width, 1, 3 * quarter.width, 24, 3, 8, spare, sizeof spare};
    EXPECT_EQ(jpgReadScaleOutputToRect(h.p, &rect, 1, 1), JPG_STATUS_UNEXPECTED_END);
    Decoded full2 = at(3);
    EXPECT_EQ(full2.status, JPG_STATUS_OK);
    EXPECT_TRUE(half1 == half2);
    EXPECT_TRUE(full1 == full2.image);
    EXPECT_TRUE(full1 == decode(data).image);
}

}  // namespace
