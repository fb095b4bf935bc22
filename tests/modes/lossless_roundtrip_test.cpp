// Lossless round trips: every sample must come back exactly, for every
// precision, predictor, component count, restart interval, image size and
// batch size, on random data (the worst case, reaching the 16-bit slow path),
// smooth gradients and a real 16-bit photograph.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "lossless_helpers.h"

namespace {

using kivtest::Samples;

void expectRoundTrip(const Samples &s, const kivtest::EncodeOptions &o, uint32_t decodeBatch,
                     const std::string &what) {
    JpgStatus st;
    std::vector<uint8_t> stream = kivtest::encodeLossless(s, o, &st);
    ASSERT_EQ(st, JPG_STATUS_OK) << what;
    kivtest::Decoded d = kivtest::decodeLossless(stream, decodeBatch);
    ASSERT_EQ(d.status, JPG_STATUS_OK) << what;
    EXPECT_EQ(d.samples.precision, s.precision) << what;
    ASSERT_TRUE(d.samples == s) << what;
}

TEST(LosslessRoundTrip, EveryPrecisionPredictorAndComponentCount) {
    for (uint32_t p = 2; p <= 16; p++)
        for (int pred = 1; pred <= 7; pred++)
            for (uint32_t nc = 1; nc <= 4; nc++) {
                std::string what = "P=" + std::to_string(p) + " pred=" + std::to_string(pred) +
                                   " nc=" + std::to_string(nc);
                Samples random = kivtest::randomSamples(11, 7, nc, p, p * 100 + pred * 10 + nc);
                expectRoundTrip(random, {pred, 0, 0}, 0, "random " + what);
                Samples smooth = kivtest::gradientSamples(13, 6, nc, p, p + pred + nc);
                expectRoundTrip(smooth, {pred, 0, 0}, 0, "gradient " + what);
            }
}

TEST(LosslessRoundTrip, SizesBatchesAndRestartIntervals) {
    struct Case {
        uint32_t w, h;
    } sizes[] = {{1, 1}, {1, 9}, {9, 1}, {2, 2}, {17, 13}, {33, 21}};
    for (auto [w, h] : sizes)
        for (uint32_t p : {2u, 8u, 9u, 12u, 16u})
            for (uint32_t batch : {1u, 7u, 0u})
                for (uint32_t restartRows : {0u, 1u, 2u, 5u}) {
                    if (uint64_t(restartRows) * w > 0xFFFF)
                        continue;
                    int pred = int(1 + (w + h + batch + restartRows) % 7);
                    uint32_t nc = 1 + (w + p) % 4;
                    Samples s = kivtest::randomSamples(w, h, nc, p, w * h + p + batch);
                    std::string what = std::to_string(w) + "x" + std::to_string(h) + " P=" +
                                       std::to_string(p) + " batch=" + std::to_string(batch) +
                                       " restart rows=" + std::to_string(restartRows);
                    expectRoundTrip(s, {pred, restartRows, batch}, batch, what);
                }
}

// Batch sizes on either side change nothing in the stream or the pixels.
TEST(LosslessRoundTrip, BatchesGiveTheSameStream) {
    Samples s = kivtest::gradientSamples(23, 19, 3, 12, 7);
    std::vector<uint8_t> whole = kivtest::encodeLossless(s, {6, 3, 0});
    for (uint32_t batch : {1u, 2u, 7u, 18u})
        EXPECT_EQ(kivtest::encodeLossless(s, {6, 3, batch}), whole) << batch;
    for (uint32_t batch : {1u, 4u, 7u}) {
        kivtest::Decoded d = kivtest::decodeLossless(whole, batch);
        ASSERT_EQ(d.status, JPG_STATUS_OK);
        EXPECT_TRUE(d.samples == s) << batch;
    }
}

// Extreme neighbours: Ra + Rb beyond the sample range and negative Rb - Rc
// exercise the full-precision predictions of predictors 4 to 7.
TEST(LosslessRoundTrip, ExtremeNeighbours) {
    for (uint32_t p : {2u, 8u, 12u, 16u})
        for (int pred = 1; pred <= 7; pred++) {
            Samples s{16, 16, 2, p, std::vector<uint16_t>(16 * 16 * 2)};
            uint16_t max = uint16_t((1u << p) - 1);
            for (size_t i = 0; i < s.v.size(); i++)
                s.v[i] = ((i / 2 + i / 32 + (i & 1)) % 3 == 0) ? 0 : max;
            expectRoundTrip(s, {pred, 0, 0}, 0, "extremes P=" + std::to_string(p));
        }
}

Samples readPgm16(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::string magic;
    uint32_t w = 0, h = 0, max = 0;
    in >> magic >> w >> h >> max;
    in.get();
    Samples s{w, h, 1, 16, std::vector<uint16_t>(size_t(w) * h)};
    for (auto &v : s.v) {
        uint8_t b[2];
        in.read(reinterpret_cast<char *>(b), 2);
        v = uint16_t(b[0] << 8 | b[1]);
    }
    EXPECT_EQ(magic, "P5");
    EXPECT_TRUE(in.good());
    return s;
}

// A real 16-bit photograph at every predictor, and reduced to a few other
// precisions. Its full 16 bits are detailed enough that the fixed table
// expands them; at 8 bits every predictor must compress.
TEST(LosslessRoundTrip, Monkey16) {
    Samples full = readPgm16(kivtest::corpus("samples/monkey16.pgm"));
    ASSERT_EQ(full.width, 149u);
    ASSERT_EQ(full.height, 227u);
    for (int pred = 1; pred <= 7; pred++) {
        std::vector<uint8_t> stream = kivtest::encodeLossless(full, {pred, 0, 0});
        kivtest::Decoded d = kivtest::decodeLossless(stream, 10);
        ASSERT_EQ(d.status, JPG_STATUS_OK);
        EXPECT_TRUE(d.samples == full) << pred;
    }
    for (uint32_t p : {8u, 10u, 12u}) {
        Samples s = full;
        s.precision = p;
        for (auto &v : s.v)
            v = uint16_t(v >> (16 - p));
        expectRoundTrip(s, {7, 4, 9}, 5, "monkey reduced to P=" + std::to_string(p));
        if (p == 8)
            for (int pred = 1; pred <= 7; pred++)
                EXPECT_LT(kivtest::encodeLossless(s, {pred, 0, 0}).size(), s.v.size()) << pred;
    }
}

}  // namespace
