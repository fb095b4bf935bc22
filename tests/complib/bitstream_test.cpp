// The bitstream object: memory and file streams, the generic bit reader
// and bit writer, block extraction.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "kivjpeg.h"
#include "test_support.h"

namespace {

struct Stream {
    std::unique_ptr<ComplibBitstream> bs = std::make_unique<ComplibBitstream>();
    Stream() { memset(bs.get(), 0, sizeof(ComplibBitstream)); }
    ComplibBitstream *operator->() { return bs.get(); }
    ComplibBitstream *get() { return bs.get(); }
};

// A memory read stream over the given bytes.
void openMemory(Stream &s, std::vector<uint8_t> &data) {
    s->flags = COMPLIB_BS_MEMORY;
    s->memBase = s->memCursor = data.data();
    s->memLength = static_cast<uint32_t>(data.size());
    ASSERT_EQ(complibOpenBitstreamFile(s.get()), JPG_STATUS_OK);
}

// A bit writer over a staging buffer of the caller's.
void openWriter(Stream &s, uint8_t *staging, size_t size) {
    s->putStart = s->putPtr = staging;
    s->putEnd = staging + size;
    s->bitCount = 32;
}

}  // namespace

// The generic bit writer (no stuffing) against a plain list of bits: values
// spanning words, a flush that writes only the bytes holding bits (unfilled
// low bits zero), and a full staging buffer handed to the file.
TEST(BitWriter, FileHoldsExactlyTheBitsPut) {
    std::vector<std::pair<uint32_t, int32_t>> ones(40, {1, 1}), words;
    for (uint32_t i = 0; i < 1500; i++)
        words.push_back({i, 32});
    const std::vector<std::vector<std::pair<uint32_t, int32_t>>> cases = {
        {}, {ones.begin(), ones.begin() + 8}, {ones.begin(), ones.begin() + 9}, {ones.begin(), ones.begin() + 32},
        ones, {{5, 3}, {0, 0}, {0xDEADBEEF, 32}, {0x3, 2}}, words};  // n = 0 puts nothing
    std::string path = kivtest::tempPath("bits.bin");
    for (const auto &puts : cases) {
        std::vector<uint8_t> expected;
        size_t total = 0;
        for (auto [value, n] : puts)
            for (int b = n - 1; b >= 0; b--, total++) {
                if (total % 8 == 0)
                    expected.push_back(0);
                expected.back() |= static_cast<uint8_t>((value >> b & 1) << (7 - total % 8));
            }
        SCOPED_TRACE(std::to_string(total) + " bits");
        Stream s;
        std::vector<uint8_t> staging(4096);
        complibLibCstrcpy(s->path, path.c_str());
        ASSERT_EQ(complibCreateBitstreamFile(s.get()), JPG_STATUS_OK);
        openWriter(s, staging.data(), staging.size());
        for (auto [value, n] : puts)
            ASSERT_EQ(complibPutBits(s.get(), value, n), n);
        if (total % 8 == 0)
            EXPECT_EQ(complibPutByteAligned(s.get()), 0);
        EXPECT_EQ(complibFlushPutBits(s.get()), JPG_STATUS_OK);
        EXPECT_EQ(complibCloseBitstreamFile(s.get()), JPG_STATUS_OK);
        EXPECT_EQ(kivtest::readFile(path), expected);
    }
}

TEST(BitReader, ReadsBigEndianBitsAcrossWords) {
    std::vector<uint8_t> data = {0xA5, 0x0F, 0xF0, 0x33, 0xC3, 0x81};
    Stream s;
    openMemory(s, data);
    EXPECT_EQ(complibShowBits(s.get(), 4), 0xAu);
    EXPECT_EQ(complibGetBits(s.get(), 4), 0xAu);
    EXPECT_EQ(complibGetBits(s.get(), 12), 0x50Fu);
    EXPECT_EQ(complibGetBits(s.get(), 20), 0xF033Cu);
    complibFlushGetBits(s.get(), 1);
    EXPECT_EQ(complibGetByteAligned(s.get()), 0x3u);  // the rest of 0xC3
    EXPECT_EQ(complibGetBits(s.get(), 8), 0x81u);
}

TEST(BitReader, ReadingPastTheEndStaysInsideTheBuffer) {
    std::vector<uint8_t> data = {1, 2, 3, 4, 5, 6, 7};  // not a whole number of words
    Stream s;
    openMemory(s, data);
    for (int i = 0; i < 5000; i++)
        complibGetBits(s.get(), 32);
    SUCCEED();  // AddressSanitizer guards the reads
}

TEST(BitReader, BlocksAreDeliveredOnlyAtByteBoundaries) {
    std::vector<uint8_t> data = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
    Stream s;
    openMemory(s, data);
    uint8_t out[8] = {};
    uint32_t count = 0;
    complibGetBits(s.get(), 5);  // 27 bits left in the accumulator
    EXPECT_EQ(complibBSGetBlock(s.get(), out, 1, &count), JPG_STATUS_BLOCK_UNAVAILABLE);
    complibGetByteAligned(s.get());
    complibGetBits(s.get(), 8);  // 16 bits pending: 0x56 0x78
    EXPECT_EQ(complibBSGetBlock(s.get(), out, 1, &count), JPG_STATUS_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(out[0], 0x56);
    EXPECT_EQ(s->bitCount, 8);
    EXPECT_EQ(complibBSGetBlock(s.get(), out, 8, &count), JPG_STATUS_OK);
    // One pending byte of the (unshifted) accumulator, then the buffer.
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(out[0], 0x56);
    EXPECT_EQ(out[1], 0x9A);
    EXPECT_EQ(out[3], 0xDE);
    EXPECT_EQ(complibBSGetBlock(s.get(), out, 0, &count), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(complibBSGetBlock(nullptr, out, 1, &count), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(complibBSGetBlock(s.get(), nullptr, 1, &count), JPG_STATUS_INVALID_HANDLE);
    // The bit address: 8 bits per byte loaded (all 7), less the 27 still in
    // the accumulator and the 32768 of a 4096-byte read-ahead. Then three
    // pending bytes come out of the accumulator in order.
    Stream t;
    openMemory(t, data);
    complibGetBits(t.get(), 5);
    EXPECT_EQ(complibGetBitAddress(t.get()), uint32_t(8 * 7 - 27 - 32768));
    complibGetBits(t.get(), 3);
    ASSERT_EQ(complibBSGetBlock(t.get(), out, 3, &count), JPG_STATUS_OK);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 3), (std::vector<uint8_t>{0x34, 0x56, 0x78}));
}

TEST(MemoryStream, ReadsAreCutAtTheEnd) {
    std::vector<uint8_t> data(10, 7);
    Stream s;
    openMemory(s, data);
    uint8_t out[16];
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 6, 0), 6);
    EXPECT_EQ(complibReadBitstreamFile(s.get(), out, 10), 4);
    EXPECT_EQ(complibReadBitstreamFile(s.get(), out, 10), 0);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), -4, 2), 6);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 2, 1), 8);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 50, 0), 50);
    EXPECT_EQ(complibReadBitstreamFile(s.get(), out, 10), 0);  // past the end: nothing
    // Before the block or beyond 31 bits: refused, the position stays.
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), -1, 0), -1);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), -11, 2), -1);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 0x7FFFFFFF, 1), -1);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 0, 1), 50);
}

TEST(MemoryStream, WritesGrowOneStepPerCall) {
    Stream s;
    s->flags = COMPLIB_BS_MEMORY;
    ASSERT_EQ(complibCreateBitstreamFile(s.get()), JPG_STATUS_OK);
    EXPECT_EQ(s->memOffset, 0x10000u);  // the growth step
    std::vector<uint8_t> chunk(0x10001, 0xAB);
    // Larger than the free room plus one growth step: outside the contract,
    // refused without writing.
    EXPECT_EQ(complibWriteBitstreamFile(s.get(), chunk.data(), 0x10001), -1);
    EXPECT_EQ(complibWriteBitstreamFile(s.get(), chunk.data(), 0x10000), 0x10000);
    EXPECT_EQ(s->memCapacity, 0x10000u);
    EXPECT_EQ(complibWriteBitstreamFile(s.get(), chunk.data(), 3), 3);
    EXPECT_EQ(s->memCapacity, 0x20000u);
    EXPECT_EQ(s->memLength, 0x10003u);
    EXPECT_EQ(s->memCursor[0x10002], 0xAB);
    // Lengths of 2^31 and more (negative as 32-bit signed values) are
    // refused, not copied past the block.
    for (uint32_t huge : {0x80000000u, 0xFFFFFFFFu, 0xFFFF0000u})
        EXPECT_EQ(complibWriteBitstreamFile(s.get(), chunk.data(), huge), -1) << huge;
    EXPECT_EQ(s->memLength, 0x10003u);
    complibMemFree(s->memCursor);
}

TEST(FileStream, BaseOffsetMakesSeeksRelative) {
    std::string path = kivtest::tempPath("based.bin");
    std::vector<uint8_t> bytes(100);
    for (int i = 0; i < 100; i++)
        bytes[i] = static_cast<uint8_t>(i);
    kivtest::writeFile(path, bytes);
    Stream s;
    complibLibCstrcpy(s->path, path.c_str());
    s->fileBase = 10;
    ASSERT_EQ(complibOpenBitstreamFile(s.get()), JPG_STATUS_OK);
    EXPECT_EQ(s->fileSize, 100u);
    EXPECT_EQ(complibGetBits(s.get(), 8), 10u);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 5, 0), 5);
    uint8_t b = 0;
    EXPECT_EQ(complibReadBitstreamFile(s.get(), &b, 1), 1);
    EXPECT_EQ(b, 15);
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 2, 1), 8);
    // From the end an offset counts backwards and is positive.
    EXPECT_EQ(complibSeekBitstreamFile(s.get(), 4, 2), 86);
    EXPECT_EQ(complibReadBitstreamFile(s.get(), &b, 1), 1);
    EXPECT_EQ(b, 96);
    EXPECT_EQ(complibCloseBitstreamFile(s.get()), JPG_STATUS_OK);
    EXPECT_EQ(s->fd, 0);
    EXPECT_EQ(complibCloseBitstreamFile(s.get()), JPG_STATUS_OK);  // nothing held
}

TEST(FileStream, OpenFailuresLeaveAClosableObject) {
    Stream s;
    complibLibCstrcpy(s->path, "/nonexistent/dir/file.jpg");
    EXPECT_EQ(complibOpenBitstreamFile(s.get()), JPG_STATUS_FILE_OPEN_FAILED);
    EXPECT_EQ(s->state, 3u);
    EXPECT_EQ(complibCloseBitstreamFile(s.get()), JPG_STATUS_OK);
    Stream w;
    complibLibCstrcpy(w->path, "/nonexistent/dir/out.jpg");
    EXPECT_EQ(complibCreateBitstreamFile(w.get()), JPG_STATUS_FILE_OPEN_FAILED);
    EXPECT_EQ(complibAppendBitstreamFile(w.get()), JPG_STATUS_FAILED);
}

TEST(FileStream, DuplicateCopiesARange) {
    std::string from = kivtest::tempPath("dup-from"), to = kivtest::tempPath("dup-to");
    std::vector<uint8_t> bytes(10000);
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = static_cast<uint8_t>(i * 7);
    kivtest::writeFile(from, bytes);
    Stream src, dst;
    complibLibCstrcpy(src->path, from.c_str());
    complibLibCstrcpy(dst->path, to.c_str());
    ASSERT_EQ(complibOpenBitstreamFile(src.get()), JPG_STATUS_OK);
    ASSERT_EQ(complibCreateBitstreamFile(dst.get()), JPG_STATUS_OK);
    EXPECT_EQ(complibDupBitstreamFile(dst.get(), src.get(), 100, 9000), JPG_STATUS_OK);
    EXPECT_EQ(complibDupBitstreamFile(dst.get(), src.get(), 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(complibDupBitstreamFile(dst.get(), src.get(), 9990, 100), JPG_STATUS_FAILED);
    complibCloseBitstreamFile(src.get());
    complibCloseBitstreamFile(dst.get());
    auto copied = kivtest::readFile(to);
    ASSERT_GE(copied.size(), 9000u);
    EXPECT_TRUE(std::equal(copied.begin(), copied.begin() + 9000, bytes.begin() + 100));
    // Opened again for appending, over the object's stale descriptor: the
    // write reaches the named file.
    src->fd = -1;
    ASSERT_EQ(complibAppendBitstreamFile(src.get()), JPG_STATUS_OK);
    const uint8_t mark[2] = {0xAB, 0xCD};
    EXPECT_EQ(complibWriteBitstreamFile(src.get(), mark, 2), 2);
    complibCloseBitstreamFile(src.get());
    kivtest::Bytes again = kivtest::readFile(from);
    EXPECT_TRUE(again.size() >= 2 && again[0] == 0xAB && again[1] == 0xCD);
}
