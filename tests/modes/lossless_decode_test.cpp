// Lossless decoder: prediction start values, difference categories, the point
// transform, predictor, precision and table checks, frames the row layout
// cannot hold, rectangle checks and the row-state getters and setters.
// (Truncated data and row batches: tests/read/decode_driver_test.cpp; corrupt
// data in every decode path: tests/api/hostile_input_test.cpp.)
#include <gtest/gtest.h>

#include <cstring>

#include "test_support.h"

namespace {

using namespace kivtest;

// Patches the byte at `delta` from the start of the first segment `code`.
Bytes patched(Bytes b, uint8_t code, size_t delta, uint8_t value) {
    b[findMarker(b, code) + delta] = value;
    return b;
}

// Offset of Ss from the start of SOS: FF DA, length (2), Ns, Ns x 2, Ss.
size_t ssOffset(const Bytes &b) { return 5 + 2 * size_t(b[findMarker(b, 0xDA) + 4]); }

Decoded decodeRows(const Bytes &b, uint32_t batch = 0, int32_t flags = 0) {
    return decode(b, {.batch = batch, .flags = flags, .fill = 0xEE});
}

Image samples(int w, int h, int c, int bits, std::vector<uint32_t> values) {
    Image image(w, h, c, bits);
    for (size_t i = 0; i < values.size(); i++)
        image.set(i, values[i]);
    return image;
}

TEST(LosslessDecode, FirstSamplePredictionAndCategory16) {
    // 128 at 8 bits codes the difference 0: category 0, the 2-bit code 00.
    Image mid = samples(1, 1, 1, 8, {128});
    Bytes b = encode(mid, losslessOptions(1));
    EXPECT_EQ(b[scanData(b)], 0x3F);
    EXPECT_TRUE(decodeRows(b).image == mid);
    ReadHandle h(encode(samples(1, 1, 1, 8, {200}), losslessOptions(1)));
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    int32_t diff = 0;
    ASSERT_EQ(jpgReadGetSpatialDifferenceAtIndex(h.p, &diff, 0), JPG_STATUS_OK);
    EXPECT_EQ(diff, 72);
    EXPECT_EQ(jpgReadGetSpatialDifferenceAtIndex(h.p, &diff, 4), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgReadGetSpatialDifferenceAtIndex(h.p, nullptr, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetSpatialDifference(h.p, nullptr, &diff), JPG_STATUS_INVALID_HANDLE);
    // 0 at 16 bits is the difference -32768, that is 32768 modulo 2^16:
    // category 16 with no extra bits (the 14-bit code 11111111111110, then
    // two padding ones: FF, stuffed 00, FB).
    Image zero = samples(1, 1, 1, 16, {0});
    b = encode(zero, losslessOptions(1));
    EXPECT_EQ(Bytes(b.begin() + long(scanData(b)), b.end()), (Bytes{0xFF, 0x00, 0xFB, 0xFF, 0xD9}));
    EXPECT_TRUE(decodeRows(b).image == zero);
    Image pairs = samples(4, 1, 1, 16, {0, 32768, 0, 65535});
    EXPECT_TRUE(decodeRows(encode(pairs, losslessOptions(1))).image == pairs);
}

// A stream coded at 10 bits is, sample for sample, the 12-bit stream with
// point transform 2: the output stays at 10-bit range.
TEST(LosslessDecode, PointTransformKeepsReducedRange) {
    Image s = gradientImage(19, 11, 2, 10, 3);
    Bytes b = encode(s, losslessOptions(5, 3));
    b = patched(b, 0xC3, 4, 12);
    b = patched(b, 0xDA, ssOffset(b) + 2, 0x02);
    ReadHandle h(b);
    uint32_t pt = 0;
    ASSERT_EQ(jpgReadGetPointTransform(h.p, &pt), JPG_STATUS_OK);
    EXPECT_EQ(pt, 2u);
    Decoded d = decodeRows(b, 4);
    ASSERT_EQ(d.status, JPG_STATUS_OK);
    EXPECT_EQ(d.image.bits, 12);
    EXPECT_EQ(d.image.pixels, s.pixels);
}

// A predictor selection outside 1..7: the encoder's setter refuses it, an
// encoder given it anyway codes the first column only and succeeds. This
// decoder delivers the first row and the second row's first column of such
// a stream (or one patched to 8 or 255), then refuses the scan.
TEST(LosslessDecode, PredictorOutOfRange) {
    Image s = randomImage(6, 3, 2, 8, 1);
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteSetSpatialPredictor(h, 0), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteSetSpatialPredictor(h, 8), JPG_STATUS_INVALID_PARAMETER);
    h->scanSs = 0;
    ComplibRect r = s.rect();
    EXPECT_EQ(jpgWriteSpatialFromRect(h, &r, 3), JPG_STATUS_OK);
    Bytes good = encode(s, losslessOptions(2));
    const Bytes streams[] = {finishToMemory(h), patched(good, 0xDA, ssOffset(good), 8),
                             patched(good, 0xDA, ssOffset(good), 255)};
    for (const Bytes &b : streams) {
        Decoded d = decodeRows(b, 1);
        EXPECT_EQ(d.status, JPG_STATUS_INVALID_PARAMETER) << int(b[findMarker(b, 0xDA) + ssOffset(b)]);
        EXPECT_EQ(d.rows, 1u);
        EXPECT_TRUE(std::equal(s.pixels.begin(), s.pixels.begin() + 14, d.image.pixels.begin()))
            << "row 0 and row 1 column 0";
        EXPECT_EQ(d.image.pixels[14], 0xEE) << "row 1 column 1 untouched";
    }
}

// Precision outside 2..16, refused by the header parser or the driver; a
// scan that names a difference table the stream never defined.
TEST(LosslessDecode, PrecisionOutsideTwoToSixteenAndUndefinedTable) {
    Bytes good = encode(randomImage(4, 4, 1, 8, 2), losslessOptions(1));
    for (uint8_t p : {0, 1, 17, 255}) {
        ReadHandle h(patched(good, 0xC3, 4, p));
        if (h.status != JPG_STATUS_OK) {
            EXPECT_EQ(h.status, JPG_STATUS_BAD_DATA) << int(p);
            continue;
        }
        Image out(4, 4, 1, 16);
        ComplibRect r = out.rect();
        EXPECT_EQ(jpgReadSpatialToRect(h.p, &r, 4), JPG_STATUS_BAD_DATA) << int(p);
    }
    EXPECT_EQ(decodeRows(patched(good, 0xDA, 6, 0x10)).status, JPG_STATUS_BAD_DATA);
}

// Frames these rows cannot lay out (the T.83 lossless streams), and frames
// that are not lossless: headers parse, decoding is refused.
TEST(LosslessDecode, FramesOutsideTheRowLayout) {
    for (const char *name : {"conformance/O1.jpg", "conformance/O2.jpg", "samples/testorig.jpg"}) {
        ReadHandle h(readFile(corpus(name)));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << name;
        uint32_t process = 0;
        EXPECT_EQ(jpgReadGetCodingProcess(h.p, &process), JPG_STATUS_OK);
        EXPECT_EQ(process == JPG_PROCESS_LOSSLESS, name[0] == 'c') << name;
        Image out(int(h.p->width), int(h.p->height), int(h.p->numComponents), process == JPG_PROCESS_LOSSLESS ? int(h.p->precision) : 8);
        ComplibRect r = out.rect();
        EXPECT_EQ(jpgReadSpatialToRect(h.p, &r, h.p->height), JPG_STATUS_NOT_SUPPORTED) << name;
    }
}

// The rectangle must hold the rows it is asked for, in the frame's layout; a
// refusal changes nothing. (The defects every driver refuses, such as short
// strides, small allocations or no pixels, are in tests/api/misuse_test.cpp.)
TEST(LosslessDecode, RectangleChecks) {
    Image s = randomImage(10, 8, 3, 12, 5);
    Bytes b = encode(s, losslessOptions(1));
    Image out(10, 8, 3, 12);
    const ComplibRect fits = out.rect();
    const struct {
        const char *what;
        void (*change)(ComplibRect &);
        JpgStatus expected;
    } cases[] = {
        {"fewer channels", [](ComplibRect &r) { r.channels = 2; }, JPG_STATUS_NOT_SUPPORTED},
        {"8-bit samples", [](ComplibRect &r) { r.sampleBits = 8; }, JPG_STATUS_NOT_SUPPORTED},
        {"odd stride", [](ComplibRect &r) { r.stride = 61; }, JPG_STATUS_INVALID_PARAMETER},
        {"narrow", [](ComplibRect &r) { r.width = 9; }, JPG_STATUS_INVALID_PARAMETER},
        {"low", [](ComplibRect &r) { r.height = 7; }, JPG_STATUS_INVALID_PARAMETER},
    };
    for (const auto &c : cases) {
        ReadHandle h(b);
        ComplibRect r = fits;
        c.change(r);
        EXPECT_EQ(jpgReadSpatialToRect(h.p, &r, 8), c.expected) << c.what;
        EXPECT_EQ(jpgReadSpatialToRect(h.p, &r, 8), c.expected) << c.what << " (nothing changed)";
        EXPECT_EQ(jpgReadSpatialToRect(h.p, nullptr, 8), JPG_STATUS_INVALID_HANDLE);
    }
    ReadHandle h(b);
    ComplibRect r = fits;
    EXPECT_EQ(jpgReadSpatialToRect(h.p, &r, 100), JPG_STATUS_OK) << "rows beyond the image are cut";
    EXPECT_EQ(jpgReadSpatialToRect(h.p, &r, 1), JPG_STATUS_FAILED) << "all rows delivered";
    EXPECT_TRUE(out == s);
}

// The first-row flag is set before the first row and again when a restart
// interval ends; the previous row is the last one delivered. With the flag
// cleared by hand at a restart, the rows after it are predicted from the row
// above and come out wrong.
TEST(LosslessDecode, RowStateGettersAndSetters) {
    Image s = gradientImage(8, 6, 1, 8, 2);
    ReadHandle h(encode(s, losslessOptions(2, 3)));
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    uint32_t flag = 1;
    ASSERT_EQ(jpgReadGetSpatialFirstLine(h.p, &flag), JPG_STATUS_OK);
    EXPECT_EQ(flag, 0x4000000u) << "set before the first row of a scan";
    Image out(8, 6, 1);
    ComplibRect r = out.rect();
    r.height = 2;
    ASSERT_EQ(jpgReadSpatialToRect(h.p, &r, 2), JPG_STATUS_OK);
    jpgReadGetSpatialFirstLine(h.p, &flag);
    EXPECT_EQ(flag, 0u);
    void *line = nullptr;
    ASSERT_EQ(jpgReadGetSpatialPrevLine(h.p, &line), JPG_STATUS_OK);
    ASSERT_NE(line, nullptr);
    EXPECT_EQ(0, memcmp(line, out.row(1), 8)) << "the previous row is the last one delivered";
    for (uint32_t set : {5u, 0u}) {
        EXPECT_EQ(jpgReadSetSpatialFirstLine(h.p, set), JPG_STATUS_OK);
        jpgReadGetSpatialFirstLine(h.p, &flag);
        EXPECT_EQ(flag, set ? 0x4000000u : 0u);
    }
    r.pixels = out.row(2);
    ASSERT_EQ(jpgReadSpatialToRect(h.p, &r, 1), JPG_STATUS_OK);
    jpgReadGetSpatialFirstLine(h.p, &flag);
    EXPECT_EQ(flag, 0x4000000u) << "the interval ended with the third row";
    jpgReadSetSpatialFirstLine(h.p, 0);
    r.pixels = out.row(3);
    r.height = 3;
    ASSERT_EQ(jpgReadSpatialToRect(h.p, &r, 3), JPG_STATUS_OK);
    EXPECT_TRUE(std::equal(s.pixels.begin(), s.pixels.begin() + 24, out.pixels.begin()));
    EXPECT_FALSE(std::equal(s.pixels.begin() + 24, s.pixels.end(), out.pixels.begin() + 24));
    EXPECT_EQ(jpgReadGetSpatialFirstLine(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetSpatialPrevLine(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetPointTransform(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
}

}  // namespace
