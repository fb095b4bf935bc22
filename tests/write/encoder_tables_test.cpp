// Quantization and Huffman tables and the header segments: the DQT tables
// for every quality equal those of cjpeg, the DHT tables equal its standard
// tables, the segments come in order with their exact contents; a client
// table is written in zig-zag order (its refusals are with the encoder
// set-up's); table selectors that name undefined tables are refused before
// coding.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "core/tables.h"
#include "test_support.h"

using namespace kivtest;

namespace {

Image colour(int w, int h) {
    Image img(w, h, 3);
    for (size_t i = 0; i < img.pixels.size(); i++)
        img.pixels[i] = uint8_t(i * 13 + i / 7);
    return img;
}

// Table id -> 64 values in zig-zag order, from every DQT segment.
std::map<int, Bytes> dqtTables(const Bytes &jpeg) {
    std::map<int, Bytes> tables;
    for (const Segment &s : headerSegments(jpeg))
        for (size_t p = 0; s.marker == 0xFFDB && p + 65 <= s.body.size(); p += 65)
            tables[s.body[p] & 15] = Bytes(s.body.begin() + long(p) + 1, s.body.begin() + long(p) + 65);
    return tables;
}

// Tc << 4 | Th -> BITS and HUFFVAL, from every DHT segment.
std::map<int, Bytes> dhtTables(const Bytes &jpeg) {
    std::map<int, Bytes> tables;
    for (const Segment &s : headerSegments(jpeg))
        for (size_t p = 0; s.marker == 0xFFC4 && p + 17 <= s.body.size();) {
            size_t count = 0;
            for (int i = 1; i <= 16; i++)
                count += s.body[p + i];
            tables[s.body[p]] = Bytes(s.body.begin() + long(p) + 1, s.body.begin() + long(p + 17 + count));
            p += 17 + count;
        }
    return tables;
}

}  // namespace

TEST(EncoderTables, TablesEqualTheReferenceEncodersForEveryQuality) {
    Image img = colour(16, 16);
    for (uint32_t q : {1u, 2u, 5u, 10u, 25u, 33u, 49u, 50u, 51u, 67u, 75u, 90u, 95u, 99u, 100u}) {
        Bytes ours = encode(img, {.quality = q});
        Bytes reference = cjpeg(img, "-quality " + std::to_string(q) + " -baseline");
        ASSERT_EQ(dqtTables(ours).size(), 2u) << q;
        EXPECT_EQ(dqtTables(ours), dqtTables(reference)) << "quality " << q;
        ASSERT_EQ(dhtTables(ours).size(), 4u);
        EXPECT_EQ(dhtTables(ours), dhtTables(reference)) << "quality " << q;
    }
}

TEST(EncoderTables, SegmentLayoutAndOrder) {
    std::vector<Segment> segments = headerSegments(encode(colour(9, 9), {.restart = 2}));
    std::vector<uint16_t> order;
    for (const Segment &s : segments)
        order.push_back(s.marker);
    ASSERT_EQ(order, (std::vector<uint16_t>{0xFFDB, 0xFFC4, 0xFFC0, 0xFFDD, 0xFFDA}));
    EXPECT_EQ(segments[0].body.size() + 2, 132u);
    EXPECT_EQ(segments[1].body.size() + 2, 418u);
    // SOF0: precision 8, height 9, width 9, three components 2x2, 1x1, 1x1.
    EXPECT_EQ(segments[2].body, (Bytes{8, 0, 9, 0, 9, 3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1}));
    EXPECT_EQ(segments[3].body, (Bytes{0, 2}));
    EXPECT_EQ(segments[4].body, (Bytes{3, 1, 0x00, 2, 0x11, 3, 0x11, 0, 63, 0}));
}

TEST(EncoderTables, ClientQuantizationTableIsWrittenInZigzagOrder) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    uint16_t table[64], chroma[64];
    for (int i = 0; i < 64; i++) {
        table[i] = uint16_t(i + 1);
        chroma[i] = uint16_t(200 - i);
    }
    ASSERT_EQ(jpgWriteSetDefaultQuantizationTable(h, 1, chroma), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteSetDefaultQuantizationTable(h, 0, table), JPG_STATUS_OK);  // table 1 stays
    ASSERT_EQ(jpgWriteSetQuantizationFactor(h, 50), JPG_STATUS_OK);
    Image img(8, 8, 3, 8, 99);
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK);
    std::map<int, Bytes> written = dqtTables(finishToMemory(h));
    Bytes t = written[0];
    for (int k = 0; k < 64; k++) {
        EXPECT_EQ(t[k], kiv::kZigzag[k] + 1) << k;
        EXPECT_EQ(written[1][k], 200 - kiv::kZigzag[k]) << k;
    }
    // Scaled by quality 25 (200 %): an entry of 128 reaches 256 and is held to 255.
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    std::fill(table, table + 64, uint16_t(128));
    table[0] = 127;
    ASSERT_EQ(jpgWriteSetDefaultQuantizationTable(h, 0, table), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteSetQuantizationFactor(h, 25), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK);
    t = dqtTables(finishToMemory(h))[0];
    EXPECT_EQ(t[0], 254);
    EXPECT_EQ(t[1], 255);
}

// The fixed fine pair of the encoder's fine-table mode, in zig-zag order.
TEST(EncoderTables, FineTablesAreTheFixedPair) {
    Bytes luma = {4}, chroma = {4};
    luma.insert(luma.end(), 33, 1);
    for (uint8_t v : {2, 2, 2, 2, 2, 2, 2, 2, 1, 1, 2, 3, 2, 2, 2, 3, 3, 3, 3, 1, 2, 3, 3, 3, 3, 3, 2, 3, 3, 3})
        luma.push_back(v);
    chroma.insert(chroma.end(), 9, 1);
    chroma.insert(chroma.end(), {3, 2, 1, 2});
    chroma.insert(chroma.end(), 50, 3);
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    h->mode |= kModeFineQuant;
    Image img = colour(16, 16);
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 16), JPG_STATUS_OK);
    EXPECT_EQ(dqtTables(finishToMemory(h)), (std::map<int, Bytes>{{0, luma}, {1, chroma}}));
}

// Four channels with the default factor have no valid sampling; tables 2
// and 3 are never defined: refused before any table is written, for good.
TEST(EncoderTables, RefusalsBeforeCoding) {
    JpgStatus status = 0;
    EXPECT_TRUE(encode(Image(8, 8, 4, 8, 9), {}, &status).empty());
    EXPECT_EQ(status, JPG_STATUS_BAD_SAMPLING);
    using Setter = JpgStatus (*)(JpgParam *, uint32_t, uint32_t);
    for (Setter set : {jpgWriteSetQuantizationTableSelector, jpgWriteSetDCEntropyTableSelector,
                       jpgWriteSetACEntropyTableSelector}) {
        JpgParam *h = nullptr;
        ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
        ASSERT_EQ(set(h, 1, 2), JPG_STATUS_OK);
        Image img = colour(8, 8);
        ComplibRect r = img.rect();
        EXPECT_EQ(jpgWriteFromRect(h, &r, 8), JPG_STATUS_NOT_SUPPORTED);
        EXPECT_EQ(h->bs.fill, 2u) << "only SOI was written";
        EXPECT_NE(jpgWriteFromRect(h, &r, 8), JPG_STATUS_OK) << "the handle stays refused";
        EXPECT_EQ(h->bs.fill, 2u);
        finishToMemory(h);
    }
}
