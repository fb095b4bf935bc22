// Support-layer services: what they add to the C library beneath them
// (alignment, growth that keeps contents, the rename's argument order, the
// open modes, byte order and the string routines written here). Plain file
// reads, writes and seeks are exercised through the bitstream tests.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kivjpeg.h"
#include "test_support.h"

TEST(Memory, AlignedBlocksAndGrowthThatKeepsContents) {
    for (uint32_t size : {1u, 7u, 100u, 4096u}) {
        void *p = complibMemAlloc(size);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u) << size;
        EXPECT_EQ(complibMemFree(p), JPG_STATUS_OK);
    }
    auto *p = static_cast<uint8_t *>(complibMemReAlloc(nullptr, 64));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 64; i++)
        p[i] = static_cast<uint8_t>(i);
    auto *q = static_cast<uint8_t *>(complibMemReAlloc(p, 100000));
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 16, 0u);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(q[i], i);
    // Shrinking is outside the contract but must not overrun the new block.
    auto *r = static_cast<uint8_t *>(complibMemReAlloc(q, 16));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r[15], 15);
    complibMemFree(r);
}

TEST(Files, RenameTakesTheDestinationFirstAndOpenModesAreZeroToTwo) {
    std::string a = kivtest::tempPath("files-a"), b = kivtest::tempPath("files-b");
    kivtest::writeFile(a, {1, 2, 3});
    EXPECT_EQ(complibOpenFile(a.c_str(), 3), -1);
    EXPECT_EQ(complibOpenFile(a.c_str(), -1), -1);
    int32_t fd = complibOpenFile(a.c_str(), 2);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(complibCloseFile(fd), JPG_STATUS_OK);
    EXPECT_EQ(complibCloseFile(fd), JPG_STATUS_FAILED);
    EXPECT_EQ(complibRenameFile(b.c_str(), a.c_str()), JPG_STATUS_OK);
    EXPECT_EQ(complibGetFileSize(a.c_str()), 0xFFFFFFFFu);
    EXPECT_EQ(complibGetFileSize(b.c_str()), 3u);
    EXPECT_EQ(complibDeleteFile(b.c_str()), JPG_STATUS_OK);
    EXPECT_EQ(complibDeleteFile(b.c_str()), JPG_STATUS_FAILED);
}

TEST(ByteOrder, SwapsAndBigEndianValues) {
    EXPECT_EQ(complibSwapInt16(0x12345678), 0x7856);
    EXPECT_EQ(complibSwapInt32(0x11223344u), 0x44332211u);
    const uint8_t bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
    EXPECT_EQ(complibMemToVal(bytes, 0), 0u);
    EXPECT_EQ(complibMemToVal(bytes, -1), 0u);
    EXPECT_EQ(complibMemToVal(bytes, 5), 0x3456789Au);  // the last four bytes
    uint8_t out[6] = {};
    complibValToMem(out, 6, 0xAABBCCDD);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 6), (std::vector<uint8_t>{0, 0, 0xAA, 0xBB, 0xCC, 0xDD}));
}

TEST(Strings, ConcatenateCompareAndBoundedCopy) {
    char buf[16] = "JFIF";
    complibLibCstrcat(buf, "-ok");
    EXPECT_STREQ(buf, "JFIF-ok");
    EXPECT_EQ(complibLibCstrcmp("JFIF", "JFIF"), 0);
    EXPECT_LT(complibLibCstrcmp("Adobe", "JFIF"), 0);
    EXPECT_LT(complibLibCstrcmp("JFI", "JFIF"), 0);
    EXPECT_GT(complibLibCstrcmp("\xC0", "A"), 0);  // compared as unsigned bytes
    memset(buf, 'x', sizeof buf);
    complibLibCstrncpy(buf, "ab", 5);
    EXPECT_EQ(memcmp(buf, "ab\0\0\0x", 6), 0);
    memset(buf, 'x', sizeof buf);
    complibLibCstrncpy(buf, "abcdef", 3);  // no terminator for a long source
    EXPECT_EQ(memcmp(buf, "abcx", 4), 0);
    complibLibCstrncpy(buf, "zz", 0);
    EXPECT_EQ(buf[0], 'a');
}
