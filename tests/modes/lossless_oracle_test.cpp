// Lossless streams against software nobody here wrote: streams from this
// encoder must decode exactly with ffmpeg, and streams from ffmpeg's ljpeg
// encoder must decode exactly here. (ffmpeg's YCbCr streams, sampled other
// than 1x1, are refused like the conformance streams O1 and O2 in
// lossless_decode_test.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "test_support.h"

namespace {

using namespace kivtest;

std::vector<uint16_t> readSamples(const std::string &path, size_t count) {
    Bytes bytes = readFile(path);
    std::vector<uint16_t> v;
    if (bytes.size() == count)
        v.assign(bytes.begin(), bytes.end());
    else if (bytes.size() == 2 * count)
        for (size_t i = 0; i < count; i++)
            v.push_back(uint16_t(bytes[2 * i] | bytes[2 * i + 1] << 8));
    return v;
}

// ffmpeg hands samples out in its own layout: grey scaled up to 8 or 16
// bits, colour channels in some order. Exact means: one channel order and one
// left shift reproduce every sample.
bool sameUpToLayout(const Image &s, const std::vector<uint16_t> &got) {
    if (got.size() != s.samples())
        return false;
    std::vector<int> order(s.channels);
    std::iota(order.begin(), order.end(), 0);
    do {
        for (uint32_t shift = 0; shift < 16; shift++) {
            bool all = true;
            for (size_t i = 0; all && i < s.samples(); i += s.channels)
                for (int c = 0; all && c < s.channels; c++)
                    all = got[i + order[c]] == uint16_t(s.get(i + c) << shift);
            if (all)
                return true;
        }
    } while (std::next_permutation(order.begin(), order.end()));
    return false;
}

// Our streams, all decoded by ffmpeg in one run.
TEST(LosslessOracle, FfmpegDecodesOurStreams) {
    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed";
    // ffmpeg reads 9-bit colour as 8-bit, so 9 bits is left out for colour.
    struct Case {
        uint32_t p, nc;
        bool allPredictors;
    } cases[] = {{8, 1, true},  {12, 1, true}, {16, 1, true}, {8, 3, true},  {12, 3, true},
                 {16, 4, true}, {2, 1, false}, {4, 3, false}, {7, 4, false}, {15, 3, false},
                 {16, 3, false}, {10, 4, false}};
    std::vector<Image> images;
    std::vector<std::string> what;
    std::string inputs, outputs;
    for (const Case &c : cases)
        for (int pred = 1; pred <= 7; pred++) {
            if (!c.allPredictors && pred != int(1 + (c.p + c.nc) % 7))
                continue;
            uint16_t restartRows = (c.p + pred) % 2 ? 3 : 0;
            std::string path = tempPath("oracle-" + std::to_string(images.size()));
            images.push_back(randomImage(29, 13, int(c.nc), int(c.p), c.p * 10 + c.nc + uint32_t(pred)));
            writeFile(path + ".jpg", encode(images.back(), losslessOptions(pred, restartRows, 5)));
            inputs += " -i " + path + ".jpg";
            outputs += " -map " + std::to_string(images.size() - 1) + " -f rawvideo " + path + ".raw";
            what.push_back("P=" + std::to_string(c.p) + " nc=" + std::to_string(c.nc) + " pred=" + std::to_string(pred) +
                           " restart rows=" + std::to_string(restartRows));
        }
    ASSERT_EQ(run("ffmpeg -v error -y" + inputs + outputs), 0);
    ASSERT_EQ(images.size(), 6u * 7 + 6);
    for (size_t i = 0; i < images.size(); i++)
        EXPECT_TRUE(sameUpToLayout(images[i], readSamples(tempPath("oracle-" + std::to_string(i) + ".raw"),
                                                          images[i].samples())))
            << what[i];
}

// ffmpeg's ljpeg encoder codes RGB as a reversible colour transform at 9
// bits, with differences modulo 2^9: Y = (B + 2G + R) >> 2, Cb = B - G + 256,
// Cr = R - G + 256 (alpha, when present, as a fourth component). Inverting
// it on our decoded samples must give back every input pixel.
void expectFfmpegStreamDecodes(const std::vector<uint8_t> &bgrx, uint32_t w, uint32_t h,
                               uint32_t channels, int pred) {
    std::string raw = tempPath("ff-in.raw"), jpg = tempPath("ff-ljpeg.jpg");
    writeFile(raw, bgrx);
    std::string fmt = channels == 4 ? "bgra" : "bgr24";
    ASSERT_EQ(run("ffmpeg -v error -y -f rawvideo -pix_fmt " + fmt + " -s " +
                           std::to_string(w) + "x" + std::to_string(h) + " -i " + raw +
                           " -frames:v 1 -c:v ljpeg -pred " + std::to_string(pred) + " " + jpg),
              0);
    std::vector<uint8_t> stream = readFile(jpg);
    for (uint32_t batch : {0u, 7u}) {
        Decoded d = decode(stream, {.batch = batch});
        ASSERT_EQ(d.status, JPG_STATUS_OK);
        ASSERT_EQ(d.image.bits, 9);
        ASSERT_EQ(uint32_t(d.image.channels), channels);
        auto v = [&](size_t i) { return int(d.image.get(i)); };
        size_t bad = 0;
        for (size_t i = 0; i < size_t(w) * h; i++) {
            int y = v(i * channels), cb = v(i * channels + 1), cr = v(i * channels + 2);
            int g = y - ((cb + cr - 512) >> 2), b = cb + g - 256, r = cr + g - 256;
            bool same = b == bgrx[i * channels] && g == bgrx[i * channels + 1] && r == bgrx[i * channels + 2] &&
                        (channels == 3 || v(i * channels + 3) == bgrx[i * channels + 3]);
            bad += !same;
        }
        EXPECT_EQ(bad, 0u) << "pred=" << pred << " channels=" << channels << " batch=" << batch;
    }
}

TEST(LosslessOracle, FfmpegStreamsDecodeHere) {
    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed";
    // The sample photograph (PPM, RGB) and random pixels with alpha.
    Image photo = readPnm(corpus("samples/testorig.ppm"));
    ASSERT_EQ(photo.width, 227);
    std::mt19937 rng(5);
    std::vector<uint8_t> bgra(41 * 19 * 4);
    for (auto &x : bgra)
        x = uint8_t(rng());
    for (int pred = 1; pred <= 3; pred++) {  // the predictors ffmpeg offers
        expectFfmpegStreamDecodes(photo.pixels, 227, 149, 3, pred);
        expectFfmpegStreamDecodes(bgra, 41, 19, 4, pred);
    }
}

}  // namespace
