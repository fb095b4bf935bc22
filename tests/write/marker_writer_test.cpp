// Marker writer and output: segment bounds, client segments, the epilogs
// to memory and to a file, DNL, partial output, and unwritable files.
#include <gtest/gtest.h>

#include <unistd.h>

#include "test_support.h"

using namespace kivtest;

namespace {

Image small() {
    Image img(20, 12, 3);
    for (size_t i = 0; i < img.pixels.size(); i++)
        img.pixels[i] = uint8_t(i * 3);
    return img;
}

Bytes finish(JpgParam *h) {
    JpgStatus status;
    Bytes out = finishToMemory(h, &status);
    EXPECT_EQ(status, JPG_STATUS_OK);
    return out;
}

}  // namespace

TEST(MarkerWriter, MarkerCodeAndDataBounds) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteWriteMarkerCode(h, 0xFFBF, 4), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteWriteMarkerCode(h, 0xFFFF, 4), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteWriteMarkerCode(h, 0xFFE1, 0), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteWriteMarkerCode(h, 0xFFE1, 0xFFFE), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteWriteMarkerCode(nullptr, 0xFFE1, 4), JPG_STATUS_INVALID_HANDLE);
    ASSERT_EQ(jpgWriteWriteMarkerCode(h, 0xFFE1, 4), JPG_STATUS_OK);
    const uint8_t data[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    uint32_t written = 0;
    EXPECT_EQ(jpgWriteWriteMarkerData(h, data, 10, &written), JPG_STATUS_OK);
    EXPECT_EQ(written, 4u);
    EXPECT_EQ(jpgWriteWriteMarkerData(h, data, 1, &written), JPG_STATUS_ERROR);
    EXPECT_EQ(jpgWriteWriteMarkerData(h, nullptr, 1, &written), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgWriteWriteMarkerData(h, data, 0, &written), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgWriteWriteMarkerSegment(h, 0xFFE2, data, -1), JPG_STATUS_INVALID_PARAMETER);
    auto out = finish(h);
    // SOI, APP1 with 4 bytes, DNL (no height was ever known) and EOI.
    EXPECT_EQ(out, (std::vector<uint8_t>{0xFF, 0xD8, 0xFF, 0xE1, 0, 6, 1, 2, 3, 4, 0xFF, 0xDC, 0, 4, 0, 0,
                                         0xFF, 0xD9}));
}

TEST(MarkerWriter, MemoryEpilogWithNullOutputsLeavesTheHandleOpen) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    uint8_t *buf = nullptr;
    EXPECT_EQ(jpgWriteEpilogToMemory(h, &buf, nullptr), JPG_STATUS_INVALID_HANDLE);
    uint32_t size = 0;
    EXPECT_EQ(jpgWriteEpilogToMemory(h, nullptr, &size), JPG_STATUS_INVALID_HANDLE);
    EXPECT_NE(jpgCheckParam(h), nullptr);
    // Straight after the prolog: SOI, a DNL of height 0 and EOI.
    EXPECT_EQ(finish(h), (std::vector<uint8_t>{0xFF, 0xD8, 0xFF, 0xDC, 0, 4, 0, 0, 0xFF, 0xD9}));
    EXPECT_EQ(jpgWriteFreeBitstream(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgWriteEpilogToFile(nullptr), JPG_STATUS_INVALID_HANDLE);
}

TEST(MarkerWriter, ClientSegmentsFollowSoiAndSurviveTheOracles) {
    Image img = small();
    EncodeOptions o;
    std::vector<uint8_t> jfif = {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0};
    // Two long segments overflow the 64 KiB staging buffer inside the second.
    std::vector<uint8_t> big(40000);
    for (size_t i = 0; i < big.size(); i++)
        big[i] = uint8_t(i * 7 + i / 251);
    o.segments = {jfif, big, big};
    auto jpeg = encode(img, o);
    auto segments = headerSegments(jpeg);
    ASSERT_GE(segments.size(), 4u);
    EXPECT_EQ(segments[0].marker, 0xFFE0);
    EXPECT_EQ(segments[0].body, jfif);
    for (int k : {1, 2}) {
        EXPECT_EQ(segments[k].marker, 0xFFE0 + k);
        EXPECT_TRUE(segments[k].body == big) << "segment " << k;
    }
    EXPECT_EQ(segments[3].marker, 0xFFDB);
    EXPECT_TRUE(jpegtranAccepts(jpeg));
    EXPECT_EQ(djpegStrict(jpeg).pixels, djpegStrict(encode(img, {})).pixels) << "segments change no pixel";
}

TEST(MarkerWriter, FileOutputDecodes) {
    Image img = small();
    std::string path = tempPath("file-output.jpg");
    JpgParam *h = nullptr;
    EXPECT_EQ(jpgWritePrologToFile(nullptr, 0, &h), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgWritePrologToFile(path.c_str(), 0, nullptr), JPG_STATUS_INVALID_HANDLE);
    ASSERT_EQ(jpgWritePrologToFile(path.c_str(), 0, &h), JPG_STATUS_OK);
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 12), JPG_STATUS_OK);
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(jpgWriteGetPartialBitstream(h, &buf, &size), JPG_STATUS_BLOCK_UNAVAILABLE);
    ASSERT_EQ(jpgWriteEpilogToFile(h), JPG_STATUS_OK);
    auto fromFile = readFile(path);
    EXPECT_EQ(fromFile, encode(img, {})) << "file and memory outputs are the same stream";
    EXPECT_TRUE(jpegtranAccepts(fromFile));
}

TEST(MarkerWriter, FileThatCannotBeCreatedIsRefused) {
    JpgParam *h = reinterpret_cast<JpgParam *>(1);
    EXPECT_EQ(jpgWritePrologToFile("/nonexistent-dir/x.jpg", 0, &h), JPG_STATUS_FILE_OPEN_FAILED);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(jpgWritePrologToFile(std::string(260, 'a').c_str(), 0, &h), JPG_STATUS_INVALID_PARAMETER)
        << "a name the handle cannot hold";
    EXPECT_EQ(h, nullptr);
}

// A file that cannot be written: a small image fails at the epilog's
// flush; a large one at full quality fills the staging buffer many times,
// so the driver itself meets the full device and the epilog adds nothing.
TEST(MarkerWriter, DevFullGivesOutputFull) {
    if (access("/dev/full", W_OK) != 0)
        GTEST_SKIP() << "no /dev/full";
    for (Image img : {readPnm(corpus("samples/testorig.ppm")), randomImage(512, 512, 3, 8, 1)}) {
        bool large = img.width == 512;
        JpgParam *h = nullptr;
        ASSERT_EQ(jpgWritePrologToFile("/dev/full", 0, &h), JPG_STATUS_OK);
        ASSERT_EQ(jpgWriteSetQuantizationFactor(h, 100), JPG_STATUS_OK);
        ComplibRect r = img.rect();
        EXPECT_EQ(jpgWriteFromRect(h, &r, static_cast<uint32_t>(img.height)), large ? JPG_STATUS_OUTPUT_FULL : JPG_STATUS_OK);
        if (large)
            EXPECT_EQ(h->bs.state, 2u);
        EXPECT_EQ(jpgWriteEpilogToFile(h), large ? JPG_STATUS_OK : JPG_STATUS_OUTPUT_FULL) << img.width;
    }
}

TEST(MarkerWriter, PartialOutputHandsOverHeadersThenPieces) {
    JpgParam *h = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &h), JPG_STATUS_OK);
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(jpgWriteGetPartialBitstream(h, &buf, &size), JPG_STATUS_BLOCK_UNAVAILABLE);
    finish(h);

    ASSERT_EQ(jpgWritePrologToMemory(JPG_WRITE_PARTIAL, &h), JPG_STATUS_OK);
    Image img = small();
    ASSERT_EQ(jpgWriteSetImageSize(h, 20, 12), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteSetNumberOfChannels(h, 3), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteGetPartialBitstream(h, &buf, nullptr), JPG_STATUS_INVALID_HANDLE);
    ASSERT_EQ(jpgWriteGetPartialBitstream(h, &buf, &size), JPG_STATUS_OK);
    std::vector<uint8_t> headers(buf, buf + size);
    jpgWriteFreeBitstream(buf);
    auto segments = headerSegments(headers);
    ASSERT_FALSE(segments.empty());
    EXPECT_EQ(segments.back().marker, 0xFFDA);
    EXPECT_EQ(headers[0], 0xFF);
    EXPECT_EQ(headers[1], 0xD8);
    EXPECT_EQ(headers[size - 1], 0xD9);
    ComplibRect r = img.rect();
    ASSERT_EQ(jpgWriteFromRect(h, &r, 12), JPG_STATUS_OK);
    ASSERT_EQ(jpgWriteGetPartialBitstream(h, &buf, &size), JPG_STATUS_OK);
    std::vector<uint8_t> piece(buf, buf + size);
    jpgWriteFreeBitstream(buf);
    ASSERT_GT(piece.size(), 2u);
    EXPECT_NE(piece[1], 0xD8) << "later pieces start without SOI";
    EXPECT_EQ(piece[piece.size() - 2], 0xFF);
    EXPECT_EQ(piece.back(), 0xD9);
    // Headers and the entropy-coded piece joined make the whole stream.
    std::vector<uint8_t> joined(headers.begin(), headers.end() - 2);
    joined.insert(joined.end(), piece.begin(), piece.end());
    EXPECT_EQ(joined, encode(img, {}));
    auto tail = finish(h);
    EXPECT_EQ(tail, (std::vector<uint8_t>{0xFF, 0xD9}));
}
