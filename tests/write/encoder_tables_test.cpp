// Quantization and Huffman table creation: the DQT tables for every quality
// equal those of the reference encoder, the DHT tables equal its standard
// tables, and the derived lookups code differences as the standard says.
#include <gtest/gtest.h>

#include <map>

#include "core/tables.h"
#include "encode_helpers.h"

using namespace kivtest;

namespace {

Image gray(int w, int h) {
    Image img{w, h, 1, std::vector<uint8_t>(static_cast<size_t>(w) * h)};
    for (size_t i = 0; i < img.pixels.size(); i++)
        img.pixels[i] = static_cast<uint8_t>(i * 7);
    return img;
}

Image color(int w, int h) {
    Image img{w, h, 3, std::vector<uint8_t>(static_cast<size_t>(w) * h * 3)};
    for (size_t i = 0; i < img.pixels.size(); i++)
        img.pixels[i] = static_cast<uint8_t>(i * 13 + i / 7);
    return img;
}

// Table id -> 64 values (zig-zag order) from every DQT segment of a stream.
std::map<int, std::vector<uint8_t>> dqtTables(const std::vector<uint8_t> &jpeg) {
    std::map<int, std::vector<uint8_t>> tables;
    for (const Segment &s : headerSegments(jpeg)) {
        if (s.marker != 0xFFDB)
            continue;
        for (size_t p = 0; p + 65 <= s.body.size(); p += 65)
            tables[s.body[p] & 15] = std::vector<uint8_t>(s.body.begin() + p + 1, s.body.begin() + p + 65);
    }
    return tables;
}

// Tc << 4 | Th -> BITS and HUFFVAL bytes from every DHT segment.
std::map<int, std::vector<uint8_t>> dhtTables(const std::vector<uint8_t> &jpeg) {
    std::map<int, std::vector<uint8_t>> tables;
    for (const Segment &s : headerSegments(jpeg)) {
        if (s.marker != 0xFFC4)
            continue;
        for (size_t p = 0; p + 17 <= s.body.size();) {
            size_t count = 0;
            for (int i = 1; i <= 16; i++)
                count += s.body[p + i];
            tables[s.body[p]] = std::vector<uint8_t>(s.body.begin() + p + 1, s.body.begin() + p + 17 + count);
            p += 17 + count;
        }
    }
    return tables;
}

const Segment *find(const std::vector<Segment> &segments, uint16_t marker) {
    for (const Segment &s : segments)
        if (s.marker == marker)
            return &s;
    return nullptr;
}

}  // namespace

TEST(EncoderTables, QuantizationTablesEqualTheReferenceForEveryQuality) {
    Image img = color(16, 16);
    for (uint32_t q : {1u, 2u, 5u, 10u, 25u, 33u, 49u, 50u, 51u, 67u, 75u, 90u, 95u, 99u, 100u}) {
        EncodeOptions o;
        o.quality = q;
        auto ours = dqtTables(encode(img, o));
        auto reference = dqtTables(cjpeg(img, "-quality " + std::to_string(q) + " -baseline"));
        ASSERT_EQ(ours.size(), 2u) << q;
        EXPECT_EQ(ours, reference) << "quality " << q;
    }
}

TEST(EncoderTables, HuffmanTablesEqualTheReferenceStandardTables) {
    Image img = color(16, 16);
    auto ours = dhtTables(encode(img, {}));
    auto reference = dhtTables(cjpeg(img, "-quality 90"));
    ASSERT_EQ(ours.size(), 4u);
    EXPECT_EQ(ours, reference);
}

TEST(EncoderTables, SegmentLayoutAndOrder) {
    Image img = color(9, 9);
    EncodeOptions o;
    o.restart = 2;
    auto jpeg = encode(img, o);
    auto segments = headerSegments(jpeg);
    std::vector<uint16_t> order;
    for (const Segment &s : segments)
        order.push_back(s.marker);
    EXPECT_EQ(order, (std::vector<uint16_t>{0xFFDB, 0xFFC4, 0xFFC0, 0xFFDD, 0xFFDA}));
    EXPECT_EQ(segments[0].body.size() + 2, 132u);
    EXPECT_EQ(segments[1].body.size() + 2, 418u);
    EXPECT_EQ(segments[2].body.size() + 2, 17u);
    EXPECT_EQ(segments[4].body.size() + 2, 12u);
    EXPECT_EQ(segments[3].body, (std::vector<uint8_t>{0, 2}));
    // SOF0: precision 8, height 9, width 9, three components 2x2, 1x1, 1x1.
    EXPECT_EQ(segments[2].body, (std::vector<uint8_t>{8, 0, 9, 0, 9, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1}));
    EXPECT_EQ(segments[4].body, (std::vector<uint8_t>{3, 1, 0x00, 2, 0x11, 3, 0x11, 0, 63, 0}));
}

TEST(EncoderTables, QualityScalingEdges) {
    Image img = gray(8, 8);
    EncodeOptions o;
    o.quality = 50;
    auto t50 = dqtTables(encode(img, o));
    EXPECT_EQ(t50[0][0], 16);  // K.1 unchanged
    EXPECT_EQ(t50[1][0], 17);  // K.2 unchanged
    EXPECT_EQ(t50[0][63], 99);
    o.quality = 100;
    auto t100 = dqtTables(encode(img, o));
    EXPECT_EQ(t100[0], std::vector<uint8_t>(64, 1));
    o.quality = 1;
    auto t1 = dqtTables(encode(img, o));
    EXPECT_EQ(t1[0][63], 255);  // 5000 x 99 clamps
    EXPECT_EQ(t1[0][0], 255);   // (5000 x 16 + 50) / 100 = 800
    o.quality = 90;
    auto t90 = dqtTables(encode(img, o));
    EXPECT_EQ(t90[0][0], 3);  // (20 x 16 + 50) / 100
}

TEST(EncoderTables, DivisorsAreEightTimesTheWrittenValues) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    Image img = color(8, 8);
    ComplibRect r = rectOf(img);
    ASSERT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK);
    EXPECT_EQ(h->quant[0][0], 8u * 3);
    EXPECT_EQ(h->components[0].quant, h->quant[0]);
    EXPECT_EQ(h->components[2].quant, h->quant[1]);
    // A DC difference of -1 is the category-1 code (K.3: 010) and bit 0; +1 ends in 1.
    const JpgDcDiff *dc = h->components[0].dcDiff;
    EXPECT_EQ(dc[-1].length, 4u);
    EXPECT_EQ(dc[-1].bits, 0b0100u);
    EXPECT_EQ(dc[1].bits, 0b0101u);
    EXPECT_EQ(dc[0].length, 2u);  // category 0: code 00
    EXPECT_EQ(dc[0].bits, 0u);
    // AC 0x01 has the K.5 code 00 and the size-1 extra bit room: pre-shifted.
    EXPECT_EQ(h->components[0].acSymbols[0x01].code, 0b000u);
    EXPECT_EQ(h->components[0].acSymbols[0x01].length, 3u);
    EXPECT_EQ(h->components[0].acSymbols[0x00].length, 4u);   // EOB 1010
    EXPECT_EQ(h->components[0].acSymbols[0xF0].length, 11u);  // ZRL 11111111001
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(jpgWriteEpilogToMemory(h, &buf, &size), JPG_STATUS_OK);
    jpgWriteFreeBitstream(buf);
}

TEST(EncoderTables, ClientQuantizationTableIsValidatedAndWrittenInZigzagOrder) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    uint16_t table[64];
    for (int i = 0; i < 64; i++)
        table[i] = static_cast<uint16_t>(i + 1);
    EXPECT_EQ(jpgWriteSetDefaultQuantizationTable(h, 2, table), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteSetDefaultQuantizationTable(h, 0, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgWriteSetDefaultQuantizationTable(nullptr, 0, table), JPG_STATUS_INVALID_HANDLE);
    for (uint16_t bad : {0, 256}) {
        uint16_t broken[64];
        std::copy(table, table + 64, broken);
        broken[40] = bad;
        EXPECT_EQ(jpgWriteSetDefaultQuantizationTable(h, 0, broken), JPG_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(h->quant[0][0], 16u) << "the previous table stays";
    }
    ASSERT_EQ(jpgWriteSetDefaultQuantizationTable(h, 0, table), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteSetQuantizationFactor(h, 50), JPG_STATUS_OK);
    Image img = gray(8, 8);
    ComplibRect r = rectOf(img);
    ASSERT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK);
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    ASSERT_EQ(jpgWriteEpilogToMemory(h, &buf, &size), JPG_STATUS_OK);
    auto t = dqtTables(std::vector<uint8_t>(buf, buf + size));
    jpgWriteFreeBitstream(buf);
    for (int k = 0; k < 64; k++)
        EXPECT_EQ(t[0][k], kiv::kZigzag[k] + 1) << k;
}

TEST(EncoderTables, FourChannelsWithTheDefaultFactorHaveBadSampling) {
    Image img{8, 8, 4, std::vector<uint8_t>(256, 9)};
    JpgStatus status = 0;
    EXPECT_TRUE(encode(img, {}, &status).empty());
    EXPECT_EQ(status, JPG_STATUS_BAD_SAMPLING);
}

// Tables 2 and 3 are never defined: refused before any table is written.
TEST(EncoderTables, UndefinedTableSelectorsAreRefusedBeforeCoding) {
    using Setter = JpgStatus (*)(JpgParam *, uint32_t, uint32_t);
    for (Setter set : {jpgWriteSetQuantizationTableSelector, jpgWriteSetDCEntropyTableSelector,
                       jpgWriteSetACEntropyTableSelector}) {
        JpgParam *h = nullptr;
        ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
        ASSERT_EQ(set(h, 1, 2), JPG_STATUS_OK);
        Image img = color(8, 8);
        ComplibRect r = rectOf(img);
        EXPECT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(h->bs.fill, 2u) << "only SOI was written";
        EXPECT_NE(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK) << "the handle stays refused";
        EXPECT_EQ(h->bs.fill, 2u);
        uint8_t *buf = nullptr;
        uint32_t size = 0;
        jpgWriteEpilogToMemory(h, &buf, &size);
        jpgWriteFreeBitstream(buf);
    }
}
