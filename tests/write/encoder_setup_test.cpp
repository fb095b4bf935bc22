// Encoder set-up: prolog defaults, setter ranges (a failed setter changes
// nothing), refused calls, component identifiers, sampling validation and
// the driver's checks on rectangles.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "test_support.h"

namespace {

struct Handle {
    JpgParam *h = nullptr;
    Handle() { EXPECT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK); }
    ~Handle() { kivtest::finishToMemory(h); }
};

}  // namespace

TEST(EncoderSetup, PrologDefaults) {
    Handle w;
    JpgParam *h = w.h;
    EXPECT_EQ(h->mode, kModeWrite | kModeYCbCr | kModeMemory);
    EXPECT_EQ(h->enc.quality, 90u);
    EXPECT_EQ(h->samplingFactors, 0x221111u);
    EXPECT_EQ(h->restartInterval, 0u);
    EXPECT_EQ(h->bs.fill, 2u);  // SOI staged
    JpgParam *p = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0xFFFFFFFF, &p), JPG_STATUS_OK);
    EXPECT_EQ(p->mode, kModeWrite | kModeYCbCr | kModeMemory | kModePartial);
    kivtest::finishToMemory(p);
}

struct RangeCase {
    const char *name;
    std::function<JpgStatus(JpgParam *, uint32_t)> set;
    std::vector<uint32_t> accepted, refused;
};

TEST(EncoderSetup, SetterRanges) {
    const std::vector<RangeCase> cases = {
        {"quality", jpgWriteSetQuantizationFactor, {1, 50, 100}, {0, 101, 0xFFFFFFFF}},
        {"channels", jpgWriteSetNumberOfChannels, {1, 4}, {0, 5}},
        {"method", jpgWriteSetSubsamplingMethod, {0, 1}, {2, 0xFFFFFFFF}},
        {"predictor", [](JpgParam *h, uint32_t v) { return jpgWriteSetSpatialPredictor(h, static_cast<int32_t>(v)); },
         {1, 7}, {0, 8, 0xFFFFFFFF}},
        {"colour space", [](JpgParam *h, uint32_t v) { return jpgWriteSetInternalColorSpace(h, static_cast<int32_t>(v)); },
         {0, 1}, {2, 0xFFFFFFFF}},
        {"sampling", jpgWriteSetSubsamplingFactor, {0x221111, 0x321111, 0x11, 0x22212111, 0x41111111},
         {0x441111, 0x32211100, 0x331111, 0x312111, 0x22222222}},
        {"size width", [](JpgParam *h, uint32_t v) { return jpgWriteSetImageSize(h, v, 5); }, {1, 65535}, {0}},
        {"size height", [](JpgParam *h, uint32_t v) { return jpgWriteSetImageSize(h, 5, v); }, {1}, {0}},
        {"quant selector", [](JpgParam *h, uint32_t v) { return jpgWriteSetQuantizationTableSelector(h, v >> 8, v & 0xFF); },
         {0x000, 0x003, 0x303}, {0x400, 0x500, 0x004, 0xFFFFFF00}},
        {"dc selector", [](JpgParam *h, uint32_t v) { return jpgWriteSetDCEntropyTableSelector(h, v >> 8, v & 0xFF); },
         {0x001, 0x302}, {0x400, 0x104}},
        {"ac selector", [](JpgParam *h, uint32_t v) { return jpgWriteSetACEntropyTableSelector(h, v >> 8, v & 0xFF); },
         {0x201, 0x300}, {0x401, 0x204}},
    };
    for (const RangeCase &c : cases) {
        for (uint32_t v : c.refused) {
            Handle w;
            std::vector<uint8_t> before(reinterpret_cast<uint8_t *>(w.h), reinterpret_cast<uint8_t *>(w.h) + sizeof(JpgParam));
            EXPECT_EQ(c.set(w.h, v), JPG_STATUS_INVALID_PARAMETER) << c.name << " " << std::hex << v;
            EXPECT_EQ(std::memcmp(before.data(), w.h, sizeof(JpgParam)), 0) << c.name << " changed the handle";
        }
        Handle w;
        for (uint32_t v : c.accepted)
            EXPECT_EQ(c.set(w.h, v), JPG_STATUS_OK) << c.name << " " << std::hex << v;
        EXPECT_EQ(c.set(nullptr, c.accepted[0]), JPG_STATUS_INVALID_HANDLE) << c.name;
    }
}

// Null outputs, and tables the encoder cannot take (the setters' own ranges
// are above; handles that are none: tests/api/misuse_test.cpp).
TEST(EncoderSetup, RefusedCalls) {
    uint32_t out = 0;
    uint16_t table[64], zero[64], large[64];
    for (int i = 0; i < 64; i++)
        table[i] = zero[i] = large[i] = static_cast<uint16_t>(i + 1);
    zero[40] = 0;
    large[40] = 256;
    struct Refusal {
        const char *call;
        std::function<JpgStatus(JpgParam *)> run;
        JpgStatus expected;
    };
    const std::vector<Refusal> refusals = {
        {"GetSubsamplingMethod no output", [](JpgParam *h) { return jpgWriteGetSubsamplingMethod(h, nullptr); }, JPG_STATUS_INVALID_HANDLE},
        {"SSSetting no output", [](JpgParam *h) { return jpgWriteSSSetting(h, nullptr); }, JPG_STATUS_INVALID_HANDLE},
        {"PrologToMemory no output", [](JpgParam *) { return jpgWritePrologToMemory(0, nullptr); }, JPG_STATUS_INVALID_HANDLE},
        {"quantization table 2", [&](JpgParam *h) { return jpgWriteSetDefaultQuantizationTable(h, 2, table); }, JPG_STATUS_INVALID_PARAMETER},
        {"quantization table null", [](JpgParam *h) { return jpgWriteSetDefaultQuantizationTable(h, 0, nullptr); }, JPG_STATUS_INVALID_HANDLE},
        {"quantization table, null handle", [&](JpgParam *) { return jpgWriteSetDefaultQuantizationTable(nullptr, 0, table); }, JPG_STATUS_INVALID_HANDLE},
        {"quantization value 0", [&](JpgParam *h) { return jpgWriteSetDefaultQuantizationTable(h, 0, zero); }, JPG_STATUS_INVALID_PARAMETER},
        {"quantization value 256", [&](JpgParam *h) { return jpgWriteSetDefaultQuantizationTable(h, 0, large); }, JPG_STATUS_INVALID_PARAMETER},
    };
    for (const Refusal &c : refusals) {
        Handle w;
        EXPECT_EQ(c.run(w.h), c.expected) << c.call;
        EXPECT_EQ(w.h->quant[0][0], 16u) << c.call << ": the previous table stays";
    }
    Handle w;
    ASSERT_EQ(jpgWriteSetSubsamplingMethod(w.h, 1), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteGetSubsamplingMethod(w.h, &out), JPG_STATUS_OK);
    EXPECT_EQ(out, 1u);
}

TEST(EncoderSetup, ComponentIdentifiers) {
    struct Case {
        uint32_t channels;
        bool noConversion;
        int space;
        std::vector<uint8_t> ids;
    };
    for (const Case &c : {Case{3, true, 1, {'R', 'G', 'B'}}, Case{3, true, 0, {1, 2, 3}},
                          Case{3, false, 1, {1, 2, 3}}, Case{1, false, 0, {1}}, Case{4, false, 0, {1, 2, 3, 4}}}) {
        Handle w;
        jpgWriteSetNumberOfChannels(w.h, c.channels);
        if (c.noConversion)
            jpgWriteSetNoColorConversion(w.h);
        jpgWriteSetInternalColorSpace(w.h, c.space);
        ASSERT_EQ(SetColorIngredient(w.h), JPG_STATUS_OK);
        for (size_t i = 0; i < c.ids.size(); i++)
            EXPECT_EQ(w.h->components[i].id, c.ids[i]) << c.channels << " " << i;
    }
}

TEST(EncoderSetup, SamplingValidation) {
    Handle w;
    JpgParam *h = w.h;
    h->numComponents = 3;
    h->components[0].sampling = 0x22;
    h->components[1].sampling = 0x11;
    h->components[2].sampling = 0x11;
    uint32_t f[8] = {};
    ASSERT_EQ(jpgWriteSSSetting(h, f), JPG_STATUS_OK);
    EXPECT_EQ(f[0], 2u);
    EXPECT_EQ(f[5], 1u);
    h->components[2].sampling = 0x10;
    EXPECT_EQ(jpgWriteSSSetting(h, f), JPG_STATUS_NOT_SUPPORTED);
    h->components[2].sampling = 0x32;  // 3 does not divide the largest H, 2... now 3 is largest: 2 does not divide 3
    EXPECT_EQ(jpgWriteSSSetting(h, f), JPG_STATUS_NOT_SUPPORTED);
}

TEST(EncoderSetup, TwoChannelsWithTheDefaultFactorUseOneByOne) {
    kivtest::Image img(9, 9, 2, 8, 77);
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 9), JPG_STATUS_OK);
    EXPECT_EQ(h->components[0].sampling, 0x11);
    EXPECT_EQ(h->components[1].sampling, 0x11);
    EXPECT_EQ(h->mcuWidth, 8u);
    EXPECT_TRUE(kivtest::jpegtranAccepts(kivtest::finishToMemory(h)));
}

// The driver's own checks on the rectangle and the rows (the defects every
// driver refuses are in tests/api/misuse_test.cpp).
TEST(EncoderSetup, DriverRefusesBadRectangles) {
    kivtest::Image img(16, 16, 3, 8, 100);
    struct Case {
        const char *name;
        std::function<void(ComplibRect &)> spoil;
        uint32_t rows;
        JpgStatus expected;
    };
    const std::vector<Case> cases = {
        {"zero rows", [](ComplibRect &) {}, 0, JPG_STATUS_INVALID_PARAMETER},
        {"12-bit samples", [](ComplibRect &r) { r.sampleBits = 12; }, 16, JPG_STATUS_NOT_SUPPORTED},
        {"rows beyond the rectangle", [](ComplibRect &) {}, 17, JPG_STATUS_INVALID_PARAMETER},
        {"too wide", [](ComplibRect &r) { r.width = 70000; }, 16, JPG_STATUS_INVALID_PARAMETER},
    };
    for (const Case &c : cases) {
        JpgParam *h = nullptr;
        ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
        ComplibRect r = img.rect();
        c.spoil(r);
        EXPECT_EQ(jpgWriteFromRect(h, &r, c.rows), c.expected) << c.name;
        EXPECT_EQ(h->bs.fill, 2u) << c.name << ": nothing written";
        kivtest::finishToMemory(h);
    }
    EXPECT_EQ(jpgWriteFromRect(nullptr, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
    // Later strips must keep the frame's width and channels; rows past the
    // frame's height are refused.
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteSetImageSize(h, 16, 16), JPG_STATUS_OK);
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 16), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteFromRect(h, &r, 1), JPG_STATUS_INVALID_PARAMETER);
    r.width = 8;
    EXPECT_EQ(jpgWriteFromRect(h, &r, 1), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(kivtest::jpegtranAccepts(kivtest::finishToMemory(h)));
    // The image height given by the setter wins over a taller first strip;
    // without it the first rectangle's height is the image's.
    kivtest::Image tall(8, 40, 1, 8, 50);
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    r = tall.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 17), JPG_STATUS_OK);
    EXPECT_EQ(h->height, 40u);
    EXPECT_EQ(h->enc.rowsEncoded, 17u);
    kivtest::finishToMemory(h);
}
