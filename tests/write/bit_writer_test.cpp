// Bit writer: bit packing, byte stuffing, marker padding, the staging
// buffer's hand-over, and output failures that lose nothing already written.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "test_support.h"

namespace {

// A memory write stream with its own 64 KiB staging buffer.
struct Writer {
    std::unique_ptr<ComplibBitstream> bs = std::make_unique<ComplibBitstream>();
    std::vector<uint8_t> staging = std::vector<uint8_t>(0x10000);
    Writer() {
        *bs = {};
        bs->flags = COMPLIB_BS_MEMORY;
        complibCreateBitstreamFile(bs.get());
        bs->putStart = staging.data();
    }
    ~Writer() { complibMemFree(bs->memCursor); }
    std::vector<uint8_t> staged() const { return {staging.begin(), staging.begin() + bs->fill}; }
};

}  // namespace

TEST(BitWriter, PacksMostSignificantFirstAndStuffsFF) {
    Writer w;
    EXPECT_EQ(jpgWritePutBits(w.bs.get(), 0xFF, 8), JPG_STATUS_OK);
    EXPECT_EQ(jpgWritePutBits(w.bs.get(), 0x123456, 24), JPG_STATUS_OK);
    EXPECT_EQ(w.staged(), (std::vector<uint8_t>{0xFF, 0x00, 0x12, 0x34, 0x56}));
    EXPECT_EQ(w.bs->bitCount, 32);
}

TEST(BitWriter, WordsSpanningTheAccumulatorKeepTheirLowBits) {
    Writer w;
    jpgWritePutBits(w.bs.get(), 0b101, 3);
    jpgWritePutBits(w.bs.get(), 0x7FFFFFF, 27);  // 30 bits pending
    jpgWritePutBits(w.bs.get(), 0b0110, 4);      // 2 bits spill over
    EXPECT_EQ(w.bs->bitCount, 30);
    EXPECT_EQ(w.staged(), (std::vector<uint8_t>{0xBF, 0xFF, 0x00, 0xFF, 0x00, 0xFD}));
    jpgWritePutMarkerCode(w.bs.get(), 0xFFD9);
    // The two pending bits 10 are padded with 1-bits: 10111111.
    EXPECT_EQ(w.staged().back(), 0xD9);
    EXPECT_EQ(w.staged()[6], 0xBF);
}

TEST(BitWriter, MarkerPadsPendingBitsWithOnes) {
    Writer w;
    jpgWritePutBits(w.bs.get(), 0b101, 3);
    ASSERT_EQ(jpgWritePutMarkerCode(w.bs.get(), 0xFFD0), JPG_STATUS_OK);
    EXPECT_EQ(w.staged(), (std::vector<uint8_t>{0xBF, 0xFF, 0xD0}));
    EXPECT_EQ(w.bs->bitCount, 32);
    ASSERT_EQ(jpgWritePutMarkerCode(w.bs.get(), 0xFFD9), JPG_STATUS_OK);
    EXPECT_EQ(w.staged(), (std::vector<uint8_t>{0xBF, 0xFF, 0xD0, 0xFF, 0xD9}));
}

TEST(BitWriter, PaddingThatMakesFFIsStuffed) {
    Writer w;
    jpgWritePutBits(w.bs.get(), 0x7F, 7);  // padded with one 1-bit: 0xFF
    jpgWritePutMarkerCode(w.bs.get(), 0xFFD9);
    EXPECT_EQ(w.staged(), (std::vector<uint8_t>{0xFF, 0x00, 0xFF, 0xD9}));
}

TEST(BitWriter, FullStagingBufferIsHandedOverInOnePiece) {
    Writer w;
    std::vector<uint8_t> data(0x10000 - 2, 0x5A);
    ASSERT_EQ(jpgWritePutBytes(w.bs.get(), data.data(), static_cast<uint32_t>(data.size())), JPG_STATUS_OK);
    EXPECT_EQ(w.bs->memLength, 0u);
    // Four stuffed 0xFF bytes cross the end on the slow path.
    jpgWritePutBits(w.bs.get(), 0xFFFFFFFFu >> 1, 31);
    jpgWritePutBits(w.bs.get(), 1, 1);
    EXPECT_EQ(w.bs->memLength, 0x10000u);
    EXPECT_EQ(w.bs->fill, 6u);
    EXPECT_EQ(w.bs->memCursor[0xFFFE], 0xFF);
    EXPECT_EQ(w.bs->memCursor[0xFFFF], 0x00);
    ASSERT_EQ(jpgWriteFlushBits(w.bs.get()), JPG_STATUS_OK);
    EXPECT_EQ(w.bs->memLength, 0x10006u);
    EXPECT_EQ(jpgWritePutBytes(w.bs.get(), data.data(), 0), JPG_STATUS_FAILED);
}

TEST(BitWriter, ExactlyFullBufferLeavesCountZero) {
    Writer w;
    std::vector<uint8_t> data(0x10000, 1);
    ASSERT_EQ(jpgWritePutBytes(w.bs.get(), data.data(), 0x10000), JPG_STATUS_OK);
    EXPECT_EQ(w.bs->fill, 0u);
    EXPECT_EQ(w.bs->memLength, 0x10000u);
}

// A memory output that cannot grow refuses with OUTPUT_FULL and keeps both
// its block and the staged bytes.
TEST(BitWriter, MemoryThatCannotGrowKeepsWhatItHas) {
    Writer w;
    std::vector<uint8_t> data(0x10000, 7);
    ASSERT_EQ(jpgWritePutBytes(w.bs.get(), data.data(), 0x10000), JPG_STATUS_OK);
    uint8_t *block = w.bs->memCursor;
    // Pretend the block is at the largest size a 32-bit length can describe.
    w.bs->memCapacity = 0xFFFF0000u;
    w.bs->memLength = 0xFFFF0000u;
    ASSERT_EQ(jpgWritePutBytes(w.bs.get(), data.data(), 0x10000), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(w.bs->state, 2u);
    EXPECT_EQ(w.bs->memCursor, block);
    EXPECT_EQ(w.bs->fill, 0x10000u);
    EXPECT_EQ(jpgWritePutBytes(w.bs.get(), data.data(), 5), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(jpgWritePutBits(w.bs.get(), 0xFFFFFFFF, 31), JPG_STATUS_OK);
    EXPECT_EQ(jpgWritePutBits(w.bs.get(), 1, 1), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(w.bs->fill, 0x10000u) << "nothing is written past the staging buffer";
    EXPECT_EQ(jpgWriteFlushBits(w.bs.get()), JPG_STATUS_OUTPUT_FULL);
    w.bs->memCapacity = 0x10000;
    w.bs->memLength = 0x10000;
}

TEST(BitWriter, FileThatCannotBeWrittenGivesOutputFull) {
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no /dev/full";
    ComplibBitstream bs{};
    std::vector<uint8_t> staging(0x10000);
    std::strcpy(bs.path, "/dev/full");
    ASSERT_EQ(complibCreateBitstreamFile(&bs), JPG_STATUS_OK);
    bs.putStart = staging.data();
    jpgWritePutBits(&bs, 0x12345678, 31);
    jpgWritePutMarkerCode(&bs, 0xFFD9);
    EXPECT_EQ(jpgWriteFlushBits(&bs), JPG_STATUS_OUTPUT_FULL);
    EXPECT_EQ(bs.state, 2u);
    EXPECT_EQ(bs.fill, 6u) << "the staged bytes stay";
    complibCloseBitstreamFile(&bs);
}

TEST(BitWriter, HuffmanPutsUseTheMagnitudeRule) {
    Writer w;
    // DC code list sorted by symbol: category n has code n (3 bits).
    JpgHuffmanCode codes[12];
    for (uint16_t n = 0; n < 12; n++)
        codes[n] = {n, n, 3};
    ASSERT_EQ(jpgWritePut8BitDCHuffman(w.bs.get(), codes, static_cast<uint32_t>(-3)), JPG_STATUS_OK);
    // category 2 (010), extra bits -3 + 3 = 00: 01000 -> 5 bits pending
    EXPECT_EQ(w.bs->bitCount, 27);
    EXPECT_EQ(w.bs->accumulator & 0x1F, 0b01000u);
    EXPECT_EQ(jpgWritePut8BitDCHuffman(w.bs.get(), codes, 5000), JPG_STATUS_INVALID_PARAMETER);
    JpgAcSymbol table[256] = {};
    table[0x21] = {0b110u << 1, 0x21, 4};
    ASSERT_EQ(jpgWritePut8BitACHuffman(w.bs.get(), table, 1, 2), JPG_STATUS_OK);
    EXPECT_EQ(w.bs->accumulator & 0xF, 0b1101u);
    EXPECT_EQ(jpgWritePut8BitACHuffman(w.bs.get(), table, 1, 16), JPG_STATUS_INVALID_PARAMETER);
}
