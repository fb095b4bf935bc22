// Support-layer services: memory, files, byte order and strings.
#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "kivjpeg.h"
#include "test_support.h"

TEST(Memory, AllocationsAreSixteenByteAligned) {
    for (uint32_t size : {1u, 7u, 100u, 4096u}) {
        void *p = complibMemAlloc(size);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % 16, 0u);
        EXPECT_EQ(complibMemFree(p), JPG_STATUS_OK);
    }
    EXPECT_EQ(complibMemFree(nullptr), JPG_STATUS_OK);
}

TEST(Memory, ReAllocGrowsAndKeepsContents) {
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

TEST(Files, CreateWriteSeekReadRenameDelete) {
    std::string a = kivtest::tempPath("files-a"), b = kivtest::tempPath("files-b");
    int32_t fd = complibCreateFile(a.c_str());
    ASSERT_GE(fd, 0);
    EXPECT_EQ(complibWriteFile(fd, "0123456789", 10), 10);
    EXPECT_EQ(complibCloseFile(fd), JPG_STATUS_OK);
    EXPECT_EQ(complibGetFileSize(a.c_str()), 10u);

    fd = complibOpenFile(a.c_str(), 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(complibSeekFile(fd, -3, 2), 7);
    char buf[8] = {};
    EXPECT_EQ(complibReadFile(fd, buf, 8), 3);
    EXPECT_STREQ(buf, "789");
    EXPECT_EQ(complibReadFile(fd, buf, 8), 0);
    EXPECT_EQ(complibCloseFile(fd), JPG_STATUS_OK);
    EXPECT_EQ(complibCloseFile(fd), JPG_STATUS_FAILED);

    // The destination comes first.
    EXPECT_EQ(complibRenameFile(b.c_str(), a.c_str()), JPG_STATUS_OK);
    EXPECT_EQ(complibGetFileSize(a.c_str()), 0xFFFFFFFFu);
    EXPECT_EQ(complibGetFileSize(b.c_str()), 10u);
    EXPECT_EQ(complibDeleteFile(b.c_str()), JPG_STATUS_OK);
    EXPECT_EQ(complibDeleteFile(b.c_str()), JPG_STATUS_FAILED);
}

TEST(Files, OpenModeOutsideZeroToTwoOpensNothing) {
    std::string a = kivtest::tempPath("files-mode");
    kivtest::writeFile(a, {1, 2, 3});
    EXPECT_EQ(complibOpenFile(a.c_str(), 3), -1);
    EXPECT_EQ(complibOpenFile(a.c_str(), -1), -1);
    int32_t fd = complibOpenFile(a.c_str(), 2);
    EXPECT_GE(fd, 0);
    complibCloseFile(fd);
}

TEST(ByteOrder, SwapsAndBigEndianValues) {
    EXPECT_EQ(complibSwapInt16(0x12345678), 0x7856);
    EXPECT_EQ(complibSwapInt32(0x11223344u), 0x44332211u);
    const uint8_t bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
    EXPECT_EQ(complibMemToVal(bytes, 2), 0x1234u);
    EXPECT_EQ(complibMemToVal(bytes, 0), 0u);
    EXPECT_EQ(complibMemToVal(bytes, -1), 0u);
    EXPECT_EQ(complibMemToVal(bytes, 5), 0x3456789Au);  // the last four bytes
    uint8_t out[6] = {};
    complibValToMem(out, 2, 0x1234);
    EXPECT_EQ(out[0], 0x12);
    EXPECT_EQ(out[1], 0x34);
    complibValToMem(out, 6, 0xAABBCCDD);
    const uint8_t six[] = {0, 0, 0xAA, 0xBB, 0xCC, 0xDD};
    EXPECT_EQ(memcmp(out, six, 6), 0);
}

TEST(Strings, CopyConcatenateCompare) {
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(complibLibCstrcpy(buf, "JFIF"), buf);
    EXPECT_STREQ(buf, "JFIF");
    EXPECT_EQ(complibLibCstrlen(buf), 4u);
    complibLibCstrcat(buf, "-ok");
    EXPECT_STREQ(buf, "JFIF-ok");
    EXPECT_EQ(complibLibCstrcmp("JFIF", "JFIF"), 0);
    EXPECT_LT(complibLibCstrcmp("Adobe", "JFIF"), 0);
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
