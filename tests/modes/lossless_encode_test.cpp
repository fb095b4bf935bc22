// Lossless encoder: restart markers and argument checks (the lenient
// predictor selection is in lossless_decode_test.cpp, a height set beforehand
// in tests/api/misuse_test.cpp, the bytes of the headers in tests/golden.txt);
// and round trips that must give back every sample exactly, for every
// precision, predictor, component count, restart interval, image size and
// batch size, on random data (reaching the 16-bit slow path), smooth
// gradients, extreme neighbours and a real 16-bit photograph.
#include <gtest/gtest.h>

#include <algorithm>

#include "test_support.h"

namespace {

using namespace kivtest;

uint32_t be16(const Bytes &b, size_t at) { return uint32_t(b[at] << 8 | b[at + 1]); }

std::vector<uint8_t> markerCodes(const Bytes &b) {
    std::vector<uint8_t> codes;
    for (const Segment &s : allSegments(b))
        codes.push_back(uint8_t(s.marker));
    return codes;
}

// RST0..RST7 then RST0 again, one between intervals, none behind the last.
TEST(LosslessEncode, RestartMarkersCycle) {
    Image s = gradientImage(5, 21, 2, 8, 3);
    Bytes b = encode(s, losslessOptions(4, 2, 3));
    std::vector<uint8_t> expected{0xD8, 0xC4, 0xC3, 0xDD, 0xDA};
    for (int k = 0; k < 10; k++)
        expected.push_back(uint8_t(0xD0 + k % 8));
    expected.push_back(0xD9);
    EXPECT_EQ(markerCodes(b), expected);
    EXPECT_EQ(be16(b, findMarker(b, 0xDD) + 4), 10u) << "two rows of five samples";
    EXPECT_TRUE(decode(b, {.batch = 4}).image == s);
    Image even = gradientImage(5, 20, 1, 8, 3);
    Bytes e = encode(even, losslessOptions(4, 2));
    std::vector<uint8_t> codes = markerCodes(e);
    EXPECT_EQ(std::count_if(codes.begin(), codes.end(), [](uint8_t c) { return (c & 0xF8) == 0xD0; }), 9);
    EXPECT_TRUE(decode(e).image == even);
}

struct Writer {
    JpgParam *h = nullptr;
    Writer() { EXPECT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK); }
    ~Writer() { finishToMemory(h); }
};

// Row counts, the lowest precision, restart intervals that are not whole
// rows, and calls that do not continue the image; the rectangle defects
// every driver refuses are in tests/api/misuse_test.cpp.
TEST(LosslessEncode, ArgumentChecks) {
    Image s = randomImage(10, 6, 2, 12, 2);
    const ComplibRect fits = s.rect();
    const struct {
        const char *what;
        void (*change)(ComplibRect &);
        int32_t rows;
        JpgStatus expected;
    } cases[] = {
        {"zero rows", [](ComplibRect &) {}, 0, JPG_STATUS_INVALID_PARAMETER},
        {"negative rows", [](ComplibRect &) {}, -3, JPG_STATUS_INVALID_PARAMETER},
        {"precision 1", [](ComplibRect &r) { r.sampleBits = 1; }, 6, JPG_STATUS_INVALID_PARAMETER},
    };
    for (const auto &c : cases) {
        Writer w;
        ComplibRect r = fits;
        c.change(r);
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, c.rows), c.expected) << c.what;
    }
    {
        Writer w;
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
        ASSERT_EQ(jpgWriteSetRestartInterval(w.h, 15), JPG_STATUS_OK);
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &fits, 6), JPG_STATUS_INVALID_PARAMETER)
            << "restart interval of one and a half rows";
    }
    {
        Writer w;
        ComplibRect r = fits;
        ASSERT_EQ(jpgWriteSpatialFromRect(w.h, &r, 2), JPG_STATUS_OK);
        ComplibRect other = r;
        other.width = 9;
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &other, 2), JPG_STATUS_INVALID_PARAMETER) << "width changed";
        r.pixels += 80;
        r.height = 3;
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, 4), JPG_STATUS_INVALID_PARAMETER) << "rows beyond the rectangle";
        r.height = 4;
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, 10), JPG_STATUS_OK) << "rows cut at the image height";
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, 1), JPG_STATUS_INVALID_PARAMETER) << "image complete";
    }
    {
        // The widest frame a stream can state, and a bottom-up source that
        // states no allocation: both accepted, the second giving the same stream.
        Writer w;
        Image wide(0xFFFF, 1, 1);
        ComplibRect r = wide.rect();
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, 1), JPG_STATUS_OK);
        Image flipped = s;
        for (int y = 0; y < s.height; y++)
            std::copy_n(s.row(y), s.stride(), flipped.row(s.height - 1 - y));
        JpgParam *h = nullptr;
        ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
        ASSERT_EQ(jpgWriteSetSpatialPredictor(h, 1), JPG_STATUS_OK);
        ComplibRect up = flipped.rect();
        up.pixels = flipped.row(s.height - 1);
        up.stride = -up.stride;
        up.allocSize = 0;
        ASSERT_EQ(jpgWriteSpatialFromRect(h, &up, s.height), JPG_STATUS_OK);
        EXPECT_EQ(finishToMemory(h), encode(s, losslessOptions(1)));
    }
}

void expectRoundTrip(const Image &s, const EncodeOptions &o, uint32_t decodeBatch, const std::string &what) {
    JpgStatus st;
    Bytes stream = encode(s, o, &st);
    ASSERT_EQ(st, JPG_STATUS_OK) << what;
    Decoded back = decode(stream, {.batch = decodeBatch});
    ASSERT_EQ(back.status, JPG_STATUS_OK) << what;
    ASSERT_TRUE(back.image == s) << what;
}

TEST(LosslessRoundTrip, EveryPrecisionPredictorAndComponentCount) {
    for (int p = 2; p <= 16; p++)
        for (int pred = 1; pred <= 7; pred++)
            for (int nc = 1; nc <= 4; nc++) {
                std::string what = "P=" + std::to_string(p) + " pred=" + std::to_string(pred) + " nc=" + std::to_string(nc);
                expectRoundTrip(randomImage(11, 7, nc, p, uint32_t(p * 100 + pred * 10 + nc)), losslessOptions(pred), 0,
                                "random " + what);
                expectRoundTrip(gradientImage(13, 6, nc, p, uint32_t(p + pred + nc)), losslessOptions(pred), 0,
                                "gradient " + what);
            }
    // Extreme neighbours: Ra + Rb beyond the sample range and negative Rb - Rc
    // exercise the full-precision predictions of predictors 4 to 7.
    for (int p : {2, 8, 12, 16})
        for (int pred = 1; pred <= 7; pred++) {
            Image s(16, 16, 2, p);
            for (size_t i = 0; i < s.samples(); i++)
                s.set(i, ((i / 2 + i / 32 + (i & 1)) % 3 == 0) ? 0 : (1u << p) - 1);
            expectRoundTrip(s, losslessOptions(pred), 0, "extremes P=" + std::to_string(p));
        }
}

// Sizes, encoder strips and restart intervals (decoder batches:
// tests/read/decode_driver_test.cpp); strips change nothing in the stream.
TEST(LosslessRoundTrip, SizesBatchesAndRestartIntervals) {
    for (auto [w, h] : {std::pair{1, 1}, {1, 9}, {9, 1}, {17, 13}, {33, 21}})
        for (int p : {2, 9, 16})
            for (uint32_t batch : {1u, 7u, 0u})
                for (uint16_t restartRows : {0, 1, 5}) {
                    int pred = int(1 + (w + h + batch + restartRows) % 7), nc = 1 + (w + p) % 4;
                    Image s = randomImage(w, h, nc, p, uint32_t(w * h + p + batch));
                    expectRoundTrip(s, losslessOptions(pred, restartRows, batch), 0,
                                    std::to_string(w) + "x" + std::to_string(h) + " P=" + std::to_string(p) + " batch=" +
                                        std::to_string(batch) + " restart rows=" + std::to_string(restartRows));
                }
    Image s = gradientImage(23, 19, 3, 12, 7);
    Bytes whole = encode(s, losslessOptions(6, 3));
    for (uint32_t batch : {1u, 7u, 18u})
        EXPECT_EQ(encode(s, losslessOptions(6, 3, batch)), whole) << batch;
}

// A real 16-bit photograph at every predictor, with restart intervals and
// strips; reduced to 8 bits it must compress with every predictor (a
// predictor that encoder and decoder get wrong alike still round-trips).
TEST(LosslessRoundTrip, Monkey16) {
    Image full = readPnm(corpus("samples/monkey16.pgm"));
    ASSERT_EQ(full.bits, 16);
    Image s(full.width, full.height, 1, 8);
    for (size_t i = 0; i < s.samples(); i++)
        s.set(i, full.get(i) >> 8);
    for (int pred = 1; pred <= 7; pred++) {
        expectRoundTrip(full, losslessOptions(pred, 4, 9), 10, "monkey16 pred " + std::to_string(pred));
        EXPECT_LT(encode(s, losslessOptions(pred)).size(), s.samples()) << pred;
    }
}

}  // namespace
