// Lossless decoder: prediction start values, difference categories, the point
// transform, predictor and precision checks, frames the row layout cannot
// hold, rectangle checks, truncated and corrupt data, and the row-state
// getters and setters.
#include <gtest/gtest.h>

#include "lossless_helpers.h"

namespace {

using kivtest::Samples;

// Offset of the first entropy-coded byte: behind the SOS segment.
size_t scanData(const std::vector<uint8_t> &b) {
    size_t sos = kivtest::findMarker(b, 0xDA);
    return sos + 2 + (b[sos + 2] << 8 | b[sos + 3]);
}

// Patches the byte at `delta` from the start of the first segment `code`.
std::vector<uint8_t> patched(std::vector<uint8_t> b, uint8_t code, size_t delta, uint8_t value) {
    size_t at = kivtest::findMarker(b, code);
    EXPECT_NE(at, std::string::npos);
    b[at + delta] = value;
    return b;
}

// SOS: FF DA, length (2), Ns, Ns x 2, Ss, Se, Ah/Al.
size_t ssOffset(const std::vector<uint8_t> &b) {
    size_t sos = kivtest::findMarker(b, 0xDA);
    return sos + 5 + 2 * b[sos + 4] - sos;
}

struct Open {
    JpgParam *h = nullptr;
    JpgStatus status;
    explicit Open(const std::vector<uint8_t> &b, int32_t flags = 0)
        : status(jpgReadPrologFromMemory(b.data(), int32_t(b.size()), flags, &h)) {}
    ~Open() {
        if (h)
            jpgReadEpilog(h);
    }
};

TEST(LosslessDecode, FirstSampleIsPredictedByHalfRange) {
    // 128 at 8 bits codes the difference 0: category 0, the 2-bit code 00.
    Samples s{1, 1, 1, 8, {128}};
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {});
    EXPECT_EQ(b[scanData(b)], 0x3F);
    EXPECT_TRUE(kivtest::decodeLossless(b).samples == s);

    s.v = {200};
    b = kivtest::encodeLossless(s, {});
    Open o(b);
    ASSERT_EQ(o.status, JPG_STATUS_OK);
    int32_t diff = 0;
    ASSERT_EQ(jpgReadGetSpatialDifferenceAtIndex(o.h, &diff, 0), JPG_STATUS_OK);
    EXPECT_EQ(diff, 72);
    EXPECT_EQ(jpgReadGetSpatialDifferenceAtIndex(o.h, &diff, 4), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgReadGetSpatialDifferenceAtIndex(o.h, nullptr, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetSpatialDifference(o.h, nullptr, &diff), JPG_STATUS_INVALID_HANDLE);
}

// 0 at 16 bits is the difference -32768, that is 32768 modulo 2^16:
// category 16 with no extra bits (the 14-bit code 11111111111110, then two
// padding ones: FF, stuffed 00, FB).
TEST(LosslessDecode, Category16HasNoExtraBits) {
    Samples s{1, 1, 1, 16, {0}};
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {});
    size_t at = scanData(b);
    ASSERT_EQ(b.size(), at + 5);
    EXPECT_EQ(std::vector<uint8_t>(b.begin() + at, b.end()),
              (std::vector<uint8_t>{0xFF, 0x00, 0xFB, 0xFF, 0xD9}));
    EXPECT_TRUE(kivtest::decodeLossless(b).samples == s);

    Samples pairs{4, 1, 1, 16, {0, 32768, 0, 65535}};
    EXPECT_TRUE(kivtest::decodeLossless(kivtest::encodeLossless(pairs, {})).samples == pairs);
}

// A stream coded at 10 bits is, sample for sample, the 12-bit stream with
// point transform 2: the output stays at 10-bit range.
TEST(LosslessDecode, PointTransformKeepsReducedRange) {
    Samples s = kivtest::gradientSamples(19, 11, 2, 10, 3);
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {5, 3, 0});
    b = patched(b, 0xC3, 4, 12);
    b = patched(b, 0xDA, ssOffset(b) + 2, 0x02);
    Open o(b);
    ASSERT_EQ(o.status, JPG_STATUS_OK);
    uint32_t pt = 0;
    ASSERT_EQ(jpgReadGetPointTransform(o.h, &pt), JPG_STATUS_OK);
    EXPECT_EQ(pt, 2u);
    kivtest::Decoded d = kivtest::decodeLossless(b, 4);
    ASSERT_EQ(d.status, JPG_STATUS_OK);
    EXPECT_EQ(d.samples.precision, 12u);
    EXPECT_EQ(d.samples.v, s.v);
}

// Predictor 0 or above 7: the second row fails after its first column.
TEST(LosslessDecode, PredictorOutOfRange) {
    Samples s = kivtest::randomSamples(6, 3, 2, 8, 1);
    std::vector<uint8_t> good = kivtest::encodeLossless(s, {2, 0, 0});
    for (uint8_t ss : {0, 8, 255}) {
        std::vector<uint8_t> b = patched(good, 0xDA, ssOffset(good), ss);
        kivtest::Decoded d = kivtest::decodeLossless(b, 1);
        EXPECT_EQ(d.status, JPG_STATUS_INVALID_PARAMETER) << int(ss);
        EXPECT_EQ(d.rowsDone, 1u);
        const auto &v = d.samples.v;
        EXPECT_TRUE(std::equal(s.v.begin(), s.v.begin() + 12 + 2, v.begin())) << "row 0 and row 1 column 0";
        EXPECT_EQ(v[14], 0xEE) << "row 1 column 1 untouched";
    }
}

TEST(LosslessDecode, PrecisionOutsideTwoToSixteen) {
    std::vector<uint8_t> good = kivtest::encodeLossless(kivtest::randomSamples(4, 4, 1, 8, 2), {});
    for (uint8_t p : {0, 1, 17, 255}) {
        std::vector<uint8_t> b = patched(good, 0xC3, 4, p);
        Open o(b);
        if (o.status != JPG_STATUS_OK) {
            EXPECT_EQ(o.status, JPG_STATUS_BAD_DATA) << int(p);
            continue;
        }
        std::vector<uint8_t> pixels(64 * 4);
        ComplibRect r{4, 4, 16, 16, 1, 16, pixels.data(), uint32_t(pixels.size())};
        EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 4), JPG_STATUS_BAD_DATA) << int(p);
    }
}

// Frames whose rows this decoder cannot lay out: headers parse, decoding is
// refused.
TEST(LosslessDecode, ConformanceStreamsOutsideTheRowLayout) {
    for (const char *name : {"conformance/O1.jpg", "conformance/O2.jpg"}) {
        std::vector<uint8_t> b = kivtest::readFile(kivtest::corpus(name));
        ASSERT_FALSE(b.empty()) << name;
        Open o(b);
        ASSERT_EQ(o.status, JPG_STATUS_OK) << name;
        uint32_t process = 0;
        EXPECT_EQ(jpgReadGetCodingProcess(o.h, &process), JPG_STATUS_OK);
        EXPECT_EQ(process, JPG_PROCESS_LOSSLESS);
        uint32_t w, h, p, nc;
        jpgReadGetImageSize(o.h, &w, &h);
        jpgReadGetSamplePrecision(o.h, &p);
        jpgReadGetNumberOfChannels(o.h, &nc);
        std::vector<uint8_t> pixels(size_t(w) * h * nc * 2 + 16);
        ComplibRect r{int32_t(w), int32_t(h), int32_t(w * nc * 2), int32_t(nc * 16), int32_t(nc),
                      int32_t(p), pixels.data(), uint32_t(pixels.size())};
        EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, h), JPG_STATUS_NOT_SUPPORTED) << name;
    }
}

TEST(LosslessDecode, NotALosslessFrame) {
    std::vector<uint8_t> b = kivtest::readFile(kivtest::corpus("samples/testorig.jpg"));
    Open o(b);
    ASSERT_EQ(o.status, JPG_STATUS_OK);
    std::vector<uint8_t> pixels(227 * 149 * 3 + 4);
    ComplibRect r{227, 149, 227 * 3, 24, 3, 8, pixels.data(), uint32_t(pixels.size())};
    EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 149), JPG_STATUS_NOT_SUPPORTED);
}

// The rectangle must hold the rows it is asked for.
TEST(LosslessDecode, RectangleChecks) {
    Samples s = kivtest::randomSamples(10, 8, 3, 12, 5);
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {});
    std::vector<uint8_t> pixels(60 * 8 + 4);
    const ComplibRect fits{10, 8, 60, 48, 3, 12, pixels.data(), uint32_t(pixels.size())};
    struct Case {
        const char *what;
        void (*change)(ComplibRect &);
        JpgStatus expected;
    } cases[] = {
        {"fewer channels", [](ComplibRect &r) { r.channels = 2; }, JPG_STATUS_NOT_SUPPORTED},
        {"8-bit samples", [](ComplibRect &r) { r.sampleBits = 8; }, JPG_STATUS_NOT_SUPPORTED},
        {"short stride", [](ComplibRect &r) { r.stride = 59; }, JPG_STATUS_INVALID_PARAMETER},
        {"odd stride", [](ComplibRect &r) { r.stride = 61; }, JPG_STATUS_INVALID_PARAMETER},
        {"narrow", [](ComplibRect &r) { r.width = 9; }, JPG_STATUS_INVALID_PARAMETER},
        {"low", [](ComplibRect &r) { r.height = 7; }, JPG_STATUS_INVALID_PARAMETER},
        {"small allocation", [](ComplibRect &r) { r.allocSize = 60 * 7 + 59; }, JPG_STATUS_INVALID_PARAMETER},
        {"no pixels", [](ComplibRect &r) { r.pixels = nullptr; }, JPG_STATUS_INVALID_HANDLE},
    };
    for (const Case &c : cases) {
        Open o(b);
        ASSERT_EQ(o.status, JPG_STATUS_OK);
        ComplibRect r = fits;
        c.change(r);
        EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 8), c.expected) << c.what;
        EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 8), c.expected) << c.what << " (nothing changed)";
        EXPECT_EQ(jpgReadSpatialToRect(o.h, nullptr, 8), JPG_STATUS_INVALID_HANDLE);
    }
    Open o(b);
    ComplibRect r = fits;
    EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 100), JPG_STATUS_OK) << "rows beyond the image are cut";
    EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 1), JPG_STATUS_FAILED) << "all rows delivered";
    EXPECT_EQ(kivtest::unpackRows(pixels, s, 60).v, s.v);
}

TEST(LosslessDecode, TruncatedStreamsFail) {
    for (uint32_t p : {8u, 16u}) {
        Samples s = kivtest::randomSamples(40, 30, 1, p, 9);
        std::vector<uint8_t> b = kivtest::encodeLossless(s, {4, 0, 0});
        size_t data = scanData(b);
        for (size_t keep : {data, data + 1, data + (b.size() - data) / 2, b.size() - 40}) {
            std::vector<uint8_t> cut(b.begin(), b.begin() + keep);
            Open o(cut, 0x4);
            ASSERT_EQ(o.status, JPG_STATUS_OK);
            std::vector<uint8_t> pixels(80 * 30 + 4);
            ComplibRect r{40, 30, 80, 16, 1, int32_t(p), pixels.data(), uint32_t(pixels.size())};
            EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 30), JPG_STATUS_FAILED) << p << " " << keep;
        }
    }
}

// Cut anywhere: the rows before the cut come out, then a clean failure.
TEST(LosslessDecode, CutAtEveryByte) {
    for (uint32_t p : {6u, 16u}) {
        Samples s = kivtest::randomSamples(7, 5, 2, p, 3);
        std::vector<uint8_t> b = kivtest::encodeLossless(s, {7, 1, 0});
        for (size_t keep = 2; keep < b.size(); keep++) {
            std::vector<uint8_t> cut(b.begin(), b.begin() + keep);
            Open o(cut, 0x4);
            if (o.status != JPG_STATUS_OK)
                continue;  // the header itself is cut
            std::vector<uint8_t> pixels(7 * 2 * 2 * 5 + 4);
            ComplibRect r{7, 5, 28, 32, 2, int32_t(p), pixels.data(), uint32_t(pixels.size())};
            JpgStatus st = jpgReadSpatialToRect(o.h, &r, 5);
            EXPECT_TRUE(st == JPG_STATUS_OK || st == JPG_STATUS_FAILED) << keep << " " << std::hex << st;
        }
    }
}

// Corrupt entropy-coded data and headers: any documented status, never a
// fault (the sanitizer build checks the accesses).
TEST(LosslessDecode, CorruptStreamsFailSafely) {
    std::mt19937 rng(11);
    for (uint32_t p : {4u, 8u, 13u, 16u}) {
        Samples s = kivtest::randomSamples(21, 17, 1 + p % 4, p, p);
        std::vector<uint8_t> good = kivtest::encodeLossless(s, {int(1 + p % 7), 2, 0});
        for (int trial = 0; trial < 60; trial++) {
            std::vector<uint8_t> b = good;
            for (int k = 0; k < 1 + trial % 4; k++)
                b[2 + rng() % (b.size() - 4)] ^= uint8_t(1u << (rng() % 8));
            kivtest::Decoded d = kivtest::decodeLossless(b, 1 + trial % 5);
            EXPECT_TRUE(d.status == JPG_STATUS_OK || d.status == JPG_STATUS_FAILED ||
                        d.status == JPG_STATUS_BAD_DATA || d.status == JPG_STATUS_NOT_SUPPORTED ||
                        d.status == JPG_STATUS_INVALID_PARAMETER || (d.status & 0x80000000u))
                << std::hex << d.status;
        }
    }
}

// A scan that names a difference table the stream never defined.
TEST(LosslessDecode, UndefinedTable) {
    std::vector<uint8_t> b = kivtest::encodeLossless(kivtest::randomSamples(5, 5, 1, 8, 4), {});
    b = patched(b, 0xDA, 6, 0x10);
    Open o(b);
    if (o.status != JPG_STATUS_OK) {
        EXPECT_EQ(o.status, JPG_STATUS_BAD_DATA);
        return;
    }
    std::vector<uint8_t> pixels(32);
    ComplibRect r{5, 5, 5, 8, 1, 8, pixels.data(), uint32_t(pixels.size())};
    EXPECT_EQ(jpgReadSpatialToRect(o.h, &r, 5), JPG_STATUS_BAD_DATA);
}

TEST(LosslessDecode, RowStateGettersAndSetters) {
    Samples s = kivtest::randomSamples(7, 6, 1, 8, 8);
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {3, 0, 0});
    Open o(b);
    ASSERT_EQ(o.status, JPG_STATUS_OK);
    uint32_t flag = 1;
    ASSERT_EQ(jpgReadGetSpatialFirstLine(o.h, &flag), JPG_STATUS_OK);
    EXPECT_EQ(flag, 0x4000000u) << "set before the first row of a scan";
    std::vector<uint8_t> pixels(7 * 6 + 4);
    ComplibRect r{7, 3, 7, 8, 1, 8, pixels.data(), uint32_t(pixels.size())};
    ASSERT_EQ(jpgReadSpatialToRect(o.h, &r, 3), JPG_STATUS_OK);
    jpgReadGetSpatialFirstLine(o.h, &flag);
    EXPECT_EQ(flag, 0u);
    void *line = nullptr;
    ASSERT_EQ(jpgReadGetSpatialPrevLine(o.h, &line), JPG_STATUS_OK);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(0, memcmp(line, pixels.data() + 14, 7)) << "the previous row is the last one delivered";
    EXPECT_EQ(jpgReadSetSpatialFirstLine(o.h, 5), JPG_STATUS_OK);
    jpgReadGetSpatialFirstLine(o.h, &flag);
    EXPECT_EQ(flag, 0x4000000u);
    EXPECT_EQ(jpgReadSetSpatialFirstLine(o.h, 0), JPG_STATUS_OK);
    jpgReadGetSpatialFirstLine(o.h, &flag);
    EXPECT_EQ(flag, 0u);
    r.pixels = pixels.data() + 21;
    ASSERT_EQ(jpgReadSpatialToRect(o.h, &r, 3), JPG_STATUS_OK);
    EXPECT_EQ(kivtest::unpackRows(pixels, s, 7).v, s.v);

    for (auto *bad : {static_cast<JpgParam *>(nullptr)}) {
        EXPECT_EQ(jpgReadGetSpatialFirstLine(bad, &flag), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadSetSpatialFirstLine(bad, 1), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadGetSpatialPrevLine(bad, &line), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadGetPointTransform(bad, &flag), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadSpatialToRect(bad, &r, 1), JPG_STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(jpgReadGetSpatialFirstLine(o.h, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetSpatialPrevLine(o.h, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetPointTransform(o.h, nullptr), JPG_STATUS_INVALID_HANDLE);
}

// Without the first-row reset at a restart the rows after it would be
// predicted from the row above; with the flag cleared by hand they are.
TEST(LosslessDecode, RestartStartsAFreshRow) {
    Samples s = kivtest::gradientSamples(8, 6, 1, 8, 2);
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {2, 3, 0});
    Open o(b);
    ASSERT_EQ(o.status, JPG_STATUS_OK);
    std::vector<uint8_t> pixels(8 * 6 + 4);
    ComplibRect r{8, 6, 8, 8, 1, 8, pixels.data(), uint32_t(pixels.size())};
    ASSERT_EQ(jpgReadSpatialToRect(o.h, &r, 3), JPG_STATUS_OK);
    uint32_t flag = 0;
    jpgReadGetSpatialFirstLine(o.h, &flag);
    EXPECT_EQ(flag, 0x4000000u) << "the interval ended with the third row";
    jpgReadSetSpatialFirstLine(o.h, 0);
    r.pixels = pixels.data() + 24;
    r.height = 3;
    ASSERT_EQ(jpgReadSpatialToRect(o.h, &r, 3), JPG_STATUS_OK);
    Samples got = kivtest::unpackRows(pixels, s, 8);
    EXPECT_TRUE(std::equal(s.v.begin(), s.v.begin() + 24, got.v.begin()));
    EXPECT_FALSE(std::equal(s.v.begin() + 24, s.v.end(), got.v.begin() + 24));
}

}  // namespace
