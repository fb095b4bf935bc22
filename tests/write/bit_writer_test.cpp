// Bit writer: bit packing, byte stuffing, marker padding, the staging
// buffer's hand-over, and a memory output that cannot grow losing nothing.
#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "test_support.h"

using Writer = kivtest::MemoryWriter;

// Codes are packed most significant bit first, 0xFF bytes are stuffed with
// 0x00, a word spanning the accumulator keeps its low bits, and a marker pads
// the pending bits with 1-bits (stuffed too when that makes 0xFF).
TEST(BitWriter, PackingStuffingAndMarkerPadding) {
    struct Case {
        std::vector<std::pair<uint32_t, int32_t>> puts;  // (bits, count); count 0 puts the marker `bits`
        std::vector<uint8_t> staged;
        int32_t bitCount;
    };
    const Case cases[] = {
        {{{0xFF, 8}, {0x123456, 24}}, {0xFF, 0x00, 0x12, 0x34, 0x56}, 32},
        {{{0b101, 3}, {0x7FFFFFF, 27}, {0b0110, 4}, {0xFFD9, 0}},  // two bits spill over, padded 10111111
         {0xBF, 0xFF, 0x00, 0xFF, 0x00, 0xFD, 0xBF, 0xFF, 0xD9}, 32},
        {{{0b101, 3}, {0xFFD0, 0}, {0xFFD9, 0}}, {0xBF, 0xFF, 0xD0, 0xFF, 0xD9}, 32},
        {{{0x7F, 7}, {0xFFD9, 0}}, {0xFF, 0x00, 0xFF, 0xD9}, 32},
        {{{0b101, 3}, {0x7FFFFFF, 27}, {0b0110, 4}}, {0xBF, 0xFF, 0x00, 0xFF, 0x00, 0xFD}, 30},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        SCOPED_TRACE("case " + std::to_string(i));
        Writer w;
        for (auto [bits, count] : cases[i].puts)
            ASSERT_EQ(count ? jpgWritePutBits(&w.bs, bits, count) : jpgWritePutMarkerCode(&w.bs, bits),
                      JPG_STATUS_OK);
        EXPECT_EQ(w.staged(), cases[i].staged);
        EXPECT_EQ(w.bs.bitCount, cases[i].bitCount);
    }
}

// An exactly full buffer is handed over whole; bytes that cross the end on
// the slow path (stuffed 0xFF here) are split at the buffer's end.
TEST(BitWriter, FullStagingBufferIsHandedOverInOnePiece) {
    Writer w;
    std::vector<uint8_t> data(0x10000, 0x5A);
    ASSERT_EQ(jpgWritePutBytes(&w.bs, data.data(), 0x10000), JPG_STATUS_OK);
    EXPECT_EQ(w.bs.fill, 0u);
    EXPECT_EQ(w.bs.memLength, 0x10000u);
    ASSERT_EQ(jpgWritePutBytes(&w.bs, data.data(), 0x10000 - 2), JPG_STATUS_OK);
    EXPECT_EQ(w.bs.memLength, 0x10000u);
    jpgWritePutBits(&w.bs, 0xFFFFFFFFu >> 1, 31);
    jpgWritePutBits(&w.bs, 1, 1);
    EXPECT_EQ(w.bs.memLength, 0x20000u);
    EXPECT_EQ(w.bs.fill, 6u);
    EXPECT_EQ(w.bs.memCursor[0x1FFFE], 0xFF);
    EXPECT_EQ(w.bs.memCursor[0x1FFFF], 0x00);
    ASSERT_EQ(jpgWriteFlushBits(&w.bs), JPG_STATUS_OK);
    EXPECT_EQ(w.bs.memLength, 0x20006u);
    EXPECT_EQ(jpgWritePutBytes(&w.bs, data.data(), 0), JPG_STATUS_FAILED);
}

// A memory output that cannot grow refuses with OUTPUT_FULL and keeps both
// its block and the staged bytes.
TEST(BitWriter, MemoryThatCannotGrowKeepsWhatItHas) {
    Writer w;
    std::vector<uint8_t> data(0x10000, 7);
    ASSERT_EQ(jpgWritePutBytes(&w.bs, data.data(), 0x10000), JPG_STATUS_OK);
    uint8_t *block = w.bs.memCursor;
    // Pretend the block is at the largest size a 32-bit length can describe.
    w.bs.memCapacity = 0xFFFF0000u;
    w.bs.memLength = 0xFFFF0000u;
    ASSERT_EQ(jpgWritePutBytes(&w.bs, data.data(), 0x10000), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(w.bs.state, 2u);
    EXPECT_EQ(w.bs.memCursor, block);
    EXPECT_EQ(w.bs.fill, 0x10000u);
    EXPECT_EQ(jpgWritePutBytes(&w.bs, data.data(), 5), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(jpgWritePutBits(&w.bs, 0xFFFFFFFF, 31), JPG_STATUS_OK);
    EXPECT_EQ(jpgWritePutBits(&w.bs, 1, 1), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(w.bs.fill, 0x10000u) << "nothing is written past the staging buffer";
    EXPECT_EQ(jpgWriteFlushBits(&w.bs), JPG_STATUS_OUTPUT_FULL);
    w.bs.memCapacity = 0x10000;
    w.bs.memLength = 0x10000;
}

TEST(BitWriter, HuffmanPutsUseTheMagnitudeRule) {
    Writer w;
    // DC code list sorted by symbol: category n has code n (3 bits).
    JpgHuffmanCode codes[12];
    for (uint16_t n = 0; n < 12; n++)
        codes[n] = {n, n, 3};
    ASSERT_EQ(jpgWritePut8BitDCHuffman(&w.bs, codes, static_cast<uint32_t>(-3)), JPG_STATUS_OK);
    // category 2 (010), extra bits -3 + 3 = 00: 01000 -> 5 bits pending
    EXPECT_EQ(w.bs.bitCount, 27);
    EXPECT_EQ(w.bs.accumulator & 0x1F, 0b01000u);
    EXPECT_EQ(jpgWritePut8BitDCHuffman(&w.bs, codes, 5000), JPG_STATUS_INVALID_PARAMETER);
    JpgAcSymbol table[256] = {};
    table[0x21] = {0b110u << 1, 0x21, 4};
    ASSERT_EQ(jpgWritePut8BitACHuffman(&w.bs, table, 1, 2), JPG_STATUS_OK);
    EXPECT_EQ(w.bs.accumulator & 0xF, 0b1101u);
    EXPECT_EQ(jpgWritePut8BitACHuffman(&w.bs, table, 1, 16), JPG_STATUS_INVALID_PARAMETER);
}
