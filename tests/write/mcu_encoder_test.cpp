// MCU encoder: quantizer rounding, the run/size pairs with ZRL and EOB,
// DC prediction, restart markers in turn, and byte-identical output however
// the image is cut into strips of whole MCU rows.
#include <gtest/gtest.h>

#include "core/tables.h"
#include "test_support.h"

using namespace kivtest;

namespace {

// A bit writer whose bits can be read back as text.
struct Writer : MemoryWriter {
    // The bits written so far (after a final pad), stuffing removed.
    std::string bits() {
        jpgWritePutMarkerCode(&bs, 0xFFD9);
        std::string out;
        for (uint32_t i = 0; i + 2 < bs.fill; i++) {
            for (int b = 7; b >= 0; b--)
                out += (staging[i] >> b & 1) ? '1' : '0';
            if (staging[i] == 0xFF)
                i++;
        }
        return out;
    }
};

std::string binary(uint32_t v, int n) {
    std::string s;
    for (int b = n - 1; b >= 0; b--)
        s += (v >> b & 1) ? '1' : '0';
    return s;
}

// Every RS symbol coded as its own 8-bit value, pre-shifted for its size.
std::vector<JpgAcSymbol> identityTable() {
    std::vector<JpgAcSymbol> t(256);
    for (uint32_t rs = 0; rs < 256; rs++)
        t[rs] = {rs << (rs & 15), static_cast<uint16_t>(rs), static_cast<uint16_t>(8 + (rs & 15))};
    return t;
}

Image grayRamp(int w, int h) {
    Image img(w, h, 1);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            img.row(y)[x] = uint8_t((x * 5 + y * 3) % 256);
    return img;
}

std::vector<uint16_t> restartMarkers(const std::vector<uint8_t> &jpeg) {
    std::vector<uint16_t> markers;
    for (size_t i = 0; i + 1 < jpeg.size(); i++)
        if (jpeg[i] == 0xFF && jpeg[i + 1] >= 0xD0 && jpeg[i + 1] <= 0xD7)
            markers.push_back(static_cast<uint16_t>(0xFF00 | jpeg[i + 1]));
    return markers;
}

}  // namespace

TEST(McuEncoder, AcPairsRoundHalfAwayFromZeroWithZrlAndEob) {
    Writer w;
    auto table = identityTable();
    std::vector<uint32_t> quant(64, 16);
    int16_t block[64] = {};
    block[kiv::kZigzag[1]] = 8;    // |c| = q / 2: quantizes to 1
    block[kiv::kZigzag[2]] = -8;   // -1
    block[kiv::kZigzag[3]] = 7;    // below half: 0
    block[kiv::kZigzag[20]] = 40;  // 2.5 -> 3 after a run of 17 zeros
    ASSERT_EQ(jpgWriteBaseLine8BitACHuffman(&w.bs, table.data(), quant.data(), block), JPG_STATUS_OK);
    std::string expected = binary(0x01, 8) + "1" + binary(0x01, 8) + "0" + binary(0xF0, 8) +
                           binary(0x12, 8) + "11" + binary(0x00, 8);
    EXPECT_EQ(w.bits().substr(0, expected.size()), expected);
}

TEST(McuEncoder, LastCoefficientNonZeroHasNoEobAndTrailingSixteenZerosOnlyEob) {
    auto table = identityTable();
    std::vector<uint32_t> quant(64, 8);
    {
        Writer w;
        int16_t block[64] = {};
        block[63] = -16;  // -2 after a run of 62: three ZRLs and run 14
        jpgWriteBaseLine8BitACHuffman(&w.bs, table.data(), quant.data(), block);
        std::string expected = binary(0xF0, 8) + binary(0xF0, 8) + binary(0xF0, 8) + binary(0xE2, 8) + "01";
        std::string bits = w.bits();
        EXPECT_EQ(bits.substr(0, expected.size()), expected);
        EXPECT_EQ(bits.size(), ((expected.size() + 7) / 8) * 8) << "no EOB";
    }
    {
        Writer w;
        int16_t block[64] = {};
        block[kiv::kZigzag[47]] = 8;  // then 16 zeros: EOB only
        jpgWriteBaseLine8BitACHuffman(&w.bs, table.data(), quant.data(), block);
        std::string expected = binary(0xF0, 8) + binary(0xF0, 8) + binary(0xE1, 8) + "1" + binary(0, 8);
        EXPECT_EQ(w.bits().substr(0, expected.size()), expected);
    }
}

TEST(McuEncoder, DcQuantizationAndPrediction) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteSetQuantizationFactor(h, 50), JPG_STATUS_OK);  // Q(0) = 16, divisor 128
    // A 16x8 gray image: MCU 0 level 129 (c = 64: half the divisor), MCU 1 level 127.
    Image img(16, 8, 1);
    for (int y = 0; y < 8; y++)
        for (int x = 0; x < 16; x++)
            img.row(y)[x] = x < 8 ? 129 : 127;
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK);
    EXPECT_EQ(h->components[0].dcPred, -1) << "(-64 - 64) / 128";
    EXPECT_EQ(h->mcuAddress, 2u);
    Image out = djpegStrict(finishToMemory(h));
    ASSERT_EQ(out.width, 16);
    EXPECT_EQ(out.at(0, 0, 0), 128u + 2);   // DC 1 x 16 / 8 = level +2
    EXPECT_EQ(out.at(15, 7, 0), 128u - 2);
}

TEST(McuEncoder, RestartMarkersCycleAndSegmentsStartFresh) {
    Image img = grayRamp(8 * 20, 8);  // 20 MCUs
    auto jpeg = encode(img, {.restart = 2});
    std::vector<uint16_t> expected;
    for (int i = 0; i < 10; i++)
        expected.push_back(static_cast<uint16_t>(0xFFD0 + i % 8));
    EXPECT_EQ(restartMarkers(jpeg), expected);
    EXPECT_TRUE(jpegtranAccepts(jpeg));
    Bytes plain = encode(img, {});
    EXPECT_EQ(djpegStrict(jpeg).pixels, djpegStrict(plain).pixels) << "restart intervals change no pixel";
    EXPECT_TRUE(restartMarkers(plain).empty());
    EXPECT_EQ(findMarker(plain, 0xDD), std::string::npos);
    Bytes large = encode(img, {.restart = 65535});  // larger than the image: DRI only
    EXPECT_TRUE(restartMarkers(large).empty());
    EXPECT_TRUE(jpegtranAccepts(large));
}

// Strips of whole MCU rows give the same stream as one call, restart
// counting and DC prediction carrying over between calls.
TEST(McuEncoder, StripsOfMcuRowsGiveTheSameStream) {
    Image img = readPnm(corpus("samples/testorig.ppm"));
    for (uint16_t restart : {0, 3, 7}) {
        for (uint32_t method : {0u, 1u}) {
            EncodeOptions whole{.method = method, .restart = restart, .setSize = true}, strips = whole;
            strips.strip = 16;  // one MCU row of 4:2:0
            auto a = encode(img, whole);
            auto b = encode(img, strips);
            ASSERT_FALSE(a.empty());
            EXPECT_EQ(a, b) << "restart " << restart << " method " << method;
            EXPECT_TRUE(jpegtranAccepts(b));
        }
    }
}
