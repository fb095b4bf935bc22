// Lossless streams against software nobody here wrote: streams from this
// encoder must decode exactly with ffmpeg and with jpeg-lossless-decoder-js,
// and streams from ffmpeg's ljpeg encoder must decode exactly here.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <numeric>
#include <random>

#include "test_support.h"

namespace {

using namespace kivtest;

std::vector<uint16_t> values(const Image &s) {
    std::vector<uint16_t> v;
    for (size_t i = 0; i < s.samples(); i++)
        v.push_back(uint16_t(s.get(i)));
    return v;
}

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

// One stream of ours per case, decoded by an independent decoder in one run.
struct Batch {
    std::vector<Image> images;
    std::vector<std::string> what, in, out;
    void add(const Image &s, const EncodeOptions &o, const std::string &name) {
        std::string tag = std::to_string(images.size());
        in.push_back(tempPath("oracle-" + tag + ".jpg"));
        out.push_back(tempPath("oracle-" + tag + ".raw"));
        writeFile(in.back(), encode(s, o));
        images.push_back(s);
        what.push_back(name);
    }
};

std::string describe(uint32_t p, uint32_t nc, int pred, uint32_t restartRows) {
    return "P=" + std::to_string(p) + " nc=" + std::to_string(nc) + " pred=" + std::to_string(pred) +
           " restart rows=" + std::to_string(restartRows);
}

TEST(LosslessOracle, FfmpegDecodesOurStreams) {
    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed";
    // ffmpeg reads 9-bit colour as 8-bit, so 9 bits is left out for colour.
    struct Case {
        uint32_t p, nc;
        bool allPredictors;
    } cases[] = {{8, 1, true},  {16, 1, true}, {8, 3, true},  {12, 3, true}, {16, 4, true},
                 {2, 1, false}, {4, 3, false}, {7, 4, false}, {12, 1, false}, {15, 3, false},
                 {16, 3, false}, {10, 4, false}};
    Batch batch;
    for (const Case &c : cases)
        for (int pred = 1; pred <= 7; pred++) {
            if (!c.allPredictors && pred != int(1 + (c.p + c.nc) % 7))
                continue;
            uint32_t restartRows = (c.p + pred) % 2 ? 3 : 0;
            Image s = randomImage(29, 13, int(c.nc), int(c.p), c.p * 10 + c.nc + uint32_t(pred));
            batch.add(s, losslessOptions(pred, uint16_t(restartRows), 5), describe(c.p, c.nc, pred, restartRows));
        }
    std::string command = "ffmpeg -v error -y";
    for (const std::string &in : batch.in)
        command += " -i " + in;
    for (size_t i = 0; i < batch.out.size(); i++)
        command += " -map " + std::to_string(i) + " -f rawvideo " + batch.out[i];
    ASSERT_EQ(run(command), 0);
    for (size_t i = 0; i < batch.images.size(); i++)
        EXPECT_TRUE(sameUpToLayout(batch.images[i], readSamples(batch.out[i], batch.images[i].samples())))
            << batch.what[i];
    EXPECT_EQ(batch.images.size(), 5u * 7 + 7);
}

// jpeg-lossless-decoder-js handles one component at any precision. Outside
// what is checked here it departs from ISO/IEC 10918-1 itself: it keeps the
// selected predictor for the first row of a restart interval (H.1.2.1 asks
// for the left neighbour), halves predictor 7 in floating point (wrong when
// a 16-bit sum wraps), and decodes three components at 8 bits only.
TEST(LosslessOracle, JsDecoderDecodesOurStreams) {
    std::string module = std::string(KIV_SOURCE_DIR) +
                         "/build/npm/node_modules/jpeg-lossless-decoder-js/release/cjs/lossless.cjs";
    if (!haveTool("node") || readFile(module).empty())
        GTEST_SKIP() << "node or jpeg-lossless-decoder-js (scripts/test.sh installs it) is missing";
    Batch batch;
    for (uint32_t p : {2u, 4u, 8u, 10u, 12u, 16u})
        for (int pred = 1; pred <= 7; pred++) {
            if (p == 16 && pred == 7)
                continue;
            for (bool smooth : {false, true}) {
                Image s = smooth ? gradientImage(23, 17, 1, int(p), p + uint32_t(pred))
                                 : randomImage(23, 17, 1, int(p), p * 7 + uint32_t(pred));
                batch.add(s, losslessOptions(pred, 0, 4), describe(p, 1, pred, 0) + (smooth ? " gradient" : " random"));
            }
        }
    std::string command = "node " + std::string(KIV_SOURCE_DIR) + "/tests/modes/lossless_js_decode.cjs " + module;
    for (size_t i = 0; i < batch.in.size(); i++)
        command += " " + batch.in[i] + " " + batch.out[i];
    ASSERT_EQ(run(command), 0);
    for (size_t i = 0; i < batch.images.size(); i++)
        EXPECT_EQ(readSamples(batch.out[i], batch.images[i].samples()), values(batch.images[i])) << batch.what[i];
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
        DecodeOptions o;
        o.batch = batch;
        Decoded d = decode(stream, o);
        ASSERT_EQ(d.status, JPG_STATUS_OK);
        ASSERT_EQ(d.image.bits, 9);
        ASSERT_EQ(uint32_t(d.image.channels), channels);
        const std::vector<uint16_t> v = values(d.image);
        size_t bad = 0;
        for (size_t i = 0; i < size_t(w) * h; i++) {
            int y = v[i * channels], cb = v[i * channels + 1], cr = v[i * channels + 2];
            int g = y - ((cb + cr - 512) >> 2), b = cb + g - 256, r = cr + g - 256;
            bool same = b == bgrx[i * channels] && g == bgrx[i * channels + 1] && r == bgrx[i * channels + 2] &&
                        (channels == 3 || v[i * channels + 3] == bgrx[i * channels + 3]);
            bad += !same;
        }
        EXPECT_EQ(bad, 0u) << "pred=" << pred << " channels=" << channels << " batch=" << batch;
    }
}

TEST(LosslessOracle, FfmpegStreamsDecodeHere) {
    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed";
    // The sample photograph (PPM, RGB) and random pixels with alpha.
    std::vector<uint8_t> ppm = readFile(corpus("samples/testorig.ppm"));
    ASSERT_GE(ppm.size(), 15u + 227 * 149 * 3);
    std::vector<uint8_t> bgr(ppm.end() - 227 * 149 * 3, ppm.end());
    for (size_t i = 0; i < bgr.size(); i += 3)
        std::swap(bgr[i], bgr[i + 2]);
    std::mt19937 rng(5);
    std::vector<uint8_t> bgra(41 * 19 * 4);
    for (auto &x : bgra)
        x = uint8_t(rng());
    for (int pred = 1; pred <= 3; pred++) {  // the predictors ffmpeg offers
        expectFfmpegStreamDecodes(bgr, 227, 149, 3, pred);
        expectFfmpegStreamDecodes(bgra, 41, 19, 4, pred);
    }
}

// ffmpeg codes YCbCr with sampling factors other than 1x1, which these rows
// cannot hold: the header parses and decoding is refused.
TEST(LosslessOracle, FfmpegYCbCrStreamsAreRefused) {
    if (!haveTool("ffmpeg"))
        GTEST_SKIP() << "ffmpeg is not installed";
    std::string jpg = tempPath("ff-ycbcr.jpg");
    for (const char *fmt : {"yuvj444p", "yuvj420p"}) {
        ASSERT_EQ(run("ffmpeg -v error -y -f lavfi -i testsrc=size=32x16 -frames:v 1 -pix_fmt " +
                               std::string(fmt) + " -c:v ljpeg " + jpg),
                  0);
        ReadHandle h(readFile(jpg));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << "the header is read";
        EXPECT_EQ(h.p->width, 32u);
        EXPECT_EQ(decodeOpen(h.p).status, JPG_STATUS_NOT_SUPPORTED) << fmt;
    }
}

}  // namespace
