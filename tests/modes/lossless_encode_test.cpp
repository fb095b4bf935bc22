// Lossless encoder: the headers it writes, restart markers, the lenient
// predictor selection, argument checks, and ownership of the previous-row
// buffer across calls.
#include <gtest/gtest.h>

#include "lossless_helpers.h"

namespace {

using kivtest::Samples;

uint32_t be16(const std::vector<uint8_t> &b, size_t at) { return uint32_t(b[at] << 8 | b[at + 1]); }

// Markers in order, from SOI to EOI, skipping segment bodies and data.
std::vector<uint8_t> markerCodes(const std::vector<uint8_t> &b) {
    std::vector<uint8_t> codes;
    for (size_t i = 0; i + 1 < b.size(); i++) {
        if (b[i] != 0xFF || b[i + 1] == 0x00 || b[i + 1] == 0xFF)
            continue;
        uint8_t code = b[i + 1];
        codes.push_back(code);
        bool standalone = code == 0xD8 || code == 0xD9 || (code >= 0xD0 && code <= 0xD7);
        i += standalone ? 1 : 1 + be16(b, i + 2);
    }
    return codes;
}

TEST(LosslessEncode, HeadersCarryOneTableAndTheFrame) {
    for (uint32_t p : {8u, 12u})
        for (uint32_t nc : {1u, 3u}) {
            Samples s = kivtest::randomSamples(300, 2, nc, p, 1);
            std::vector<uint8_t> b = kivtest::encodeLossless(s, {6, 0, 0});
            EXPECT_EQ(markerCodes(b), (std::vector<uint8_t>{0xD8, 0xC4, 0xC3, 0xDA, 0xD9}));
            size_t dht = kivtest::findMarker(b, 0xC4);
            uint32_t values = p > 8 ? 17 : 12;
            EXPECT_EQ(be16(b, dht + 2), 2 + 17 + values) << "a single table";
            EXPECT_EQ(b[dht + 4], 0x00) << "DC class, identifier 0";
            for (uint32_t v = 0; v < values; v++)
                EXPECT_EQ(b[dht + 21 + v], v);
            size_t sof = kivtest::findMarker(b, 0xC3);
            EXPECT_EQ(be16(b, sof + 2), 8 + 3 * nc);
            EXPECT_EQ(b[sof + 4], p);
            EXPECT_EQ(be16(b, sof + 5), 2u);
            EXPECT_EQ(be16(b, sof + 7), 300u);
            EXPECT_EQ(b[sof + 9], nc);
            for (uint32_t i = 0; i < nc; i++) {
                EXPECT_EQ(b[sof + 10 + 3 * i], i);
                EXPECT_EQ(b[sof + 11 + 3 * i], 0x11);
                EXPECT_EQ(b[sof + 12 + 3 * i], 0);
            }
            size_t sos = kivtest::findMarker(b, 0xDA);
            EXPECT_EQ(b[sos + 4], nc);
            for (uint32_t i = 0; i < nc; i++) {
                EXPECT_EQ(b[sos + 5 + 2 * i], i);
                EXPECT_EQ(b[sos + 6 + 2 * i], 0x00) << "every component uses table 0";
            }
            EXPECT_EQ(b[sos + 5 + 2 * nc], 6) << "Ss is the predictor";
            EXPECT_EQ(b[sos + 6 + 2 * nc], 0);
            EXPECT_EQ(b[sos + 7 + 2 * nc], 0);
        }
}

// RST0..RST7 then RST0 again, one between intervals, none behind the last.
TEST(LosslessEncode, RestartMarkersCycle) {
    Samples s = kivtest::gradientSamples(5, 21, 2, 8, 3);
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {4, 2, 3});
    std::vector<uint8_t> expected{0xD8, 0xC4, 0xC3, 0xDD, 0xDA};
    for (int k = 0; k < 10; k++)
        expected.push_back(uint8_t(0xD0 + k % 8));
    expected.push_back(0xD9);
    EXPECT_EQ(markerCodes(b), expected);
    size_t dri = kivtest::findMarker(b, 0xDD);
    EXPECT_EQ(be16(b, dri + 4), 10u) << "two rows of five samples";
    EXPECT_TRUE(kivtest::decodeLossless(b, 4).samples == s);

    Samples even = kivtest::gradientSamples(5, 20, 1, 8, 3);
    std::vector<uint8_t> e = kivtest::encodeLossless(even, {4, 2, 0});
    std::vector<uint8_t> codes = markerCodes(e);
    EXPECT_EQ(std::count_if(codes.begin(), codes.end(), [](uint8_t c) { return c >= 0xD0 && c <= 0xD7; }), 9);
    EXPECT_TRUE(kivtest::decodeLossless(e).samples == even);
}

// A predictor selection outside 1..7 codes the first column only and still
// succeeds; this decoder refuses the result at its second row.
TEST(LosslessEncode, PredictorOutsideRangeCodesFirstColumnOnly) {
    Samples s = kivtest::randomSamples(9, 4, 1, 8, 6);
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteSetSpatialPredictor(h, 0), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteSetSpatialPredictor(h, 8), JPG_STATUS_INVALID_PARAMETER);
    h->scanSs = 0;
    std::vector<uint8_t> buf = kivtest::packRows(s, 9);
    ComplibRect r = kivtest::rectOver(buf, s, 9, 0, 4);
    EXPECT_EQ(jpgWriteSpatialFromRect(h, &r, 4), JPG_STATUS_OK);
    uint8_t *data = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(jpgWriteEpilogToMemory(h, &data, &size), JPG_STATUS_OK);
    std::vector<uint8_t> b(data, data + size);
    jpgWriteFreeBitstream(data);
    kivtest::Decoded d = kivtest::decodeLossless(b, 1);
    EXPECT_EQ(d.status, JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(d.rowsDone, 1u);
    EXPECT_EQ(d.samples.v[9], s.v[9]) << "the first column of row 1 is there";
}

struct Writer {
    JpgParam *h = nullptr;
    Writer() { EXPECT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK); }
    ~Writer() {
        uint8_t *data = nullptr;
        uint32_t size = 0;
        jpgWriteEpilogToMemory(h, &data, &size);
        if (data)
            jpgWriteFreeBitstream(data);
    }
};

TEST(LosslessEncode, ArgumentChecks) {
    Samples s = kivtest::randomSamples(10, 6, 2, 12, 2);
    std::vector<uint8_t> buf = kivtest::packRows(s, 40);
    const ComplibRect fits = kivtest::rectOver(buf, s, 40, 0, 6);
    struct Case {
        const char *what;
        void (*change)(ComplibRect &);
        int32_t rows;
        JpgStatus expected;
    } cases[] = {
        {"zero rows", [](ComplibRect &) {}, 0, JPG_STATUS_INVALID_PARAMETER},
        {"negative rows", [](ComplibRect &) {}, -3, JPG_STATUS_INVALID_PARAMETER},
        {"no pixels", [](ComplibRect &r) { r.pixels = nullptr; }, 6, JPG_STATUS_INVALID_HANDLE},
        {"precision 1", [](ComplibRect &r) { r.sampleBits = 1; }, 6, JPG_STATUS_INVALID_PARAMETER},
        {"precision 17", [](ComplibRect &r) { r.sampleBits = 17; }, 6, JPG_STATUS_INVALID_PARAMETER},
        {"five channels", [](ComplibRect &r) { r.channels = 5; }, 6, JPG_STATUS_INVALID_PARAMETER},
        {"short stride", [](ComplibRect &r) { r.stride = 39; }, 6, JPG_STATUS_INVALID_PARAMETER},
        {"small allocation", [](ComplibRect &r) { r.allocSize = 200; }, 6, JPG_STATUS_INVALID_PARAMETER},
        {"width 0", [](ComplibRect &r) { r.width = 0; }, 6, JPG_STATUS_INVALID_PARAMETER},
    };
    for (const Case &c : cases) {
        Writer w;
        ComplibRect r = fits;
        c.change(r);
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, c.rows), c.expected) << c.what;
    }
    {
        Writer w;
        EXPECT_EQ(jpgWriteSpatialFromRect(w.h, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgWriteSpatialFromRect(nullptr, &fits, 1), JPG_STATUS_INVALID_HANDLE);
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
    // A read handle is no encoder.
    std::vector<uint8_t> b = kivtest::encodeLossless(s, {});
    JpgParam *reader = nullptr;
    ASSERT_EQ(jpgReadPrologFromMemory(b.data(), int32_t(b.size()), 0, &reader), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteSpatialFromRect(reader, &fits, 6), JPG_STATUS_WRONG_MODE);
    jpgReadEpilog(reader);
}

// The previous row lives in the handle while rows are missing and is gone
// once the image is complete; an encode abandoned midway leaks nothing.
TEST(LosslessEncode, PreviousRowBufferOwnership) {
    Samples s = kivtest::randomSamples(12, 5, 3, 16, 4);
    std::vector<uint8_t> buf = kivtest::packRows(s, 72);
    {
        Writer w;
        ComplibRect r = kivtest::rectOver(buf, s, 72, 0, 5);
        ASSERT_EQ(jpgWriteSpatialFromRect(w.h, &r, 2), JPG_STATUS_OK);
        ASSERT_NE(w.h->spareBuffer, nullptr);
        EXPECT_EQ(0, memcmp(w.h->spareBuffer, buf.data() + 72, 72));
        EXPECT_EQ(w.h->losslessLine, nullptr);
    }
    {
        Writer w;
        ComplibRect r = kivtest::rectOver(buf, s, 72, 0, 5);
        ASSERT_EQ(jpgWriteSpatialFromRect(w.h, &r, 5), JPG_STATUS_OK);
        EXPECT_EQ(w.h->spareBuffer, nullptr);
    }
}

// A height set beforehand wins over the rectangle's.
TEST(LosslessEncode, HeightSetBeforehandIsKept) {
    Samples s = kivtest::randomSamples(6, 9, 1, 8, 3);
    std::vector<uint8_t> buf = kivtest::packRows(s, 6);
    Writer w;
    ASSERT_EQ(jpgWriteSetImageSize(w.h, 6, 4), JPG_STATUS_OK);
    ComplibRect r = kivtest::rectOver(buf, s, 6, 0, 9);
    EXPECT_EQ(jpgWriteSpatialFromRect(w.h, &r, 9), JPG_STATUS_OK);
    EXPECT_EQ(w.h->height, 4u);
    EXPECT_EQ(w.h->processedLines, 4u);
}

}  // namespace
