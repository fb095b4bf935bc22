// YCCK output (four components with Adobe transform 2): the Adobe transform
// chooses the converter; the converted image equals the YCbCr equations
// applied to the raw samples at every scale, for every sampling and through
// the progressive driver; against libjpeg, coded samples and the conversion
// each agree within 1.
#include <gtest/gtest.h>

#include "core/codec.h"
#include "test_support.h"

namespace {

using namespace kivtest;

// The stream with an Adobe APP14 segment (version 100, no flags) behind SOI.
std::vector<uint8_t> withAdobe(std::vector<uint8_t> jpeg, uint8_t transform) {
    const uint8_t app14[] = {0xFF, 0xEE, 0, 14, 'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, transform};
    jpeg.insert(jpeg.begin() + 2, std::begin(app14), std::end(app14));
    return jpeg;
}

TEST(YcckOutput, AdobeTransformChoosesTheConverter) {
    std::vector<uint8_t> a1 = readFile(corpus("conformance/A1.jpg"));
    std::vector<uint8_t> orig = readFile(corpus("samples/testorig.jpg"));
    const struct {
        const char *name;
        std::vector<uint8_t> jpeg;
        bool noConversion;
        JpgReadColorConvertFunc full, scaled;
    } cases[] = {
        {"no Adobe segment", a1, false, jpgReadCopy4, jpgReadScaledCopy4},
        {"transform 0 (CMYK)", withAdobe(a1, 0), false, jpgReadCopy4, jpgReadScaledCopy4},
        {"transform 1", withAdobe(a1, 1), false, jpgReadCopy4, jpgReadScaledCopy4},
        {"transform 2 (YCCK)", withAdobe(a1, 2), false, jpgReadYCCK2Rect, jpgReadScaledYCCK2Rect},
        {"YCCK, conversion off", withAdobe(a1, 2), true, jpgReadCopy4, jpgReadScaledCopy4},
        {"three components", withAdobe(orig, 2), false, jpgReadYUV2Rect, jpgReadScaledYUV2Rect},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ReadHandle h(c.jpeg);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        if (c.noConversion)
            ASSERT_EQ(jpgReadSetNoColorConversion(h.p), JPG_STATUS_OK);
        // Choosing the routines again, here the portable ones, keeps the rule.
        ASSERT_EQ(jpgSetProcessorArchitectureFlag(h.p, 0), JPG_STATUS_OK);
        EXPECT_EQ(h.p->routines.convert, kiv::slotConverter(c.full));
        EXPECT_EQ(h.p->routines.convertScaled, kiv::slotConverter(c.scaled));
    }
}

// Decodes a whole stream into four channels at a scale level (3: full
// size) through the driver its process needs, converted or as raw samples.
Image decodeAt(const Bytes &jpeg, int level, bool raw) {
    Decoded d = decode(jpeg, {.level = level, .channels = 4, .noConversion = raw, .fill = 0x55});
    EXPECT_EQ(d.status, JPG_STATUS_OK) << "level " << level;
    return d.image;
}

// Y, Cb, Cr, K samples to C, M, Y, K as Adobe stores them: 255 - R, G, B.
Image ycckToCmyk(Image image) {
    for (size_t i = 0; i < image.pixels.size(); i += 4) {
        uint8_t *p = &image.pixels[i];
        int32_t r, g, b;
        jpgReadYuv2RGB(&r, &g, &b, p[0], p[1], p[2]);
        p[0] = uint8_t(255 - r), p[1] = uint8_t(255 - g), p[2] = uint8_t(255 - b);
    }
    return image;
}

TEST(YcckOutput, EqualsTheYCbCrEquationsOnTheRawSamples) {
    // A1's unusual sampling (1x1, 1x2, 3x1, 1x4) marked YCCK goes through the
    // general upsampler; libjpeg's YCCK goes through To22 (Y and K 2x2) and
    // 4:4:4; its progressive copy through the progressive driver.
    std::vector<std::pair<std::string, std::vector<uint8_t>>> streams = {
        {"A1", withAdobe(readFile(corpus("conformance/A1.jpg")), 2)}};
    if (!libjpegCmyk().empty()) {
        Image edges = cmykEdges(61, 45);
        for (const char *sampling : {"420", "444"}) {
            std::string path = tempPath(std::string("edges-") + sampling + ".jpg");
            ASSERT_TRUE(writeCmykJpeg(edges, path, "ycck", 90, sampling));
            streams.push_back({path, readFile(path)});
        }
        std::string progressive = tempPath("edges-progressive.jpg");
        if (haveTool("jpegtran") &&
            run("jpegtran -progressive -outfile " + progressive + " " + streams[1].first) == 0)
            streams.push_back({progressive, readFile(progressive)});
    }
    for (const auto &[name, jpeg] : streams) {
        bool progressive = name.find("progressive") != std::string::npos;
        for (int level = progressive ? 3 : 0; level <= 3; level++) {
            SCOPED_TRACE(name + " level " + std::to_string(level));
            Image converted = decodeAt(jpeg, level, false), raw = decodeAt(jpeg, level, true);
            ASSERT_FALSE(raw.pixels.empty());
            EXPECT_NE(converted.pixels, raw.pixels);
            EXPECT_EQ(converted.pixels, ycckToCmyk(raw).pixels);
        }
    }
    if (libjpegCmyk().empty())
        GTEST_SKIP() << "libjpeg not found for this target: only A1 checked";
}

// Per stage against libjpeg: our coded samples within 1 of libjpeg's (the two
// inverse DCTs round differently), our conversion of libjpeg's samples within
// 1 of libjpeg's CMYK (its G rounds the sum of the two chroma terms once).
// End to end the converter scales a sample difference of 1 by up to 1.772,
// so whole decodes are only bounded loosely.
TEST(YcckOutput, AgreesWithLibjpegStageByStage) {
    if (libjpegCmyk().empty())
        GTEST_SKIP() << "libjpeg not found for this target";
    std::vector<std::pair<std::string, Image>> pictures = {{"edges", cmykEdges(67, 45)}};
    Image photo = photographAsCmyk();
    if (!photo.pixels.empty())
        pictures.push_back({"photograph", photo});
    for (const auto &[name, picture] : pictures)
        for (const std::string kind : {"ycck", "cmyk"})
            for (int quality : {75, 100})
                for (const std::string sampling : {"444", "420"}) {
                    if (kind == "cmyk" && sampling == "420")
                        continue;  // libjpeg codes plain CMYK at full resolution
                    SCOPED_TRACE(name + " " + kind + " q" + std::to_string(quality) + " " + sampling);
                    std::string path = tempPath("oracle.jpg");
                    ASSERT_TRUE(writeCmykJpeg(picture, path, kind, quality, sampling));
                    std::vector<uint8_t> jpeg = readFile(path);
                    Image ours = decodeAt(jpeg, 3, false), oursRaw = decodeAt(jpeg, 3, true);
                    Image theirs, theirsRaw;
                    ASSERT_TRUE(libjpegDecodeCmyk(path, &theirs));
                    ASSERT_TRUE(libjpegDecodeCmyk(path, &theirsRaw, true));
                    // Subsampled chroma: ours interpolates between co-sited
                    // samples, libjpeg replicates; even columns hold the samples.
                    int step = sampling == "420" ? 2 : 1;
                    Difference samples = compare(oursRaw, theirsRaw, step);
                    Difference conversion =
                        compare(kind == "ycck" ? ycckToCmyk(theirsRaw) : theirsRaw, theirs);
                    Difference whole = compare(ours, theirs, step);
                    EXPECT_LE(samples.maxDiff, 1);
                    EXPECT_LE(conversion.maxDiff, 1);
                    EXPECT_LE(whole.maxDiff, kind == "ycck" ? 4 : 1);
                    EXPECT_GE(whole.psnr, 50.0);
                }
}

}  // namespace
