// Marker segment access: a walk with jpgReadSeekMarkerSegment and
// jpgReadReadMarkerData equals an independent byte walk on every corpus
// stream; payload reads in pieces; fill bytes; reserved codes; decoding
// after a walk starts over from the first scan.
#include <gtest/gtest.h>

#include "stream_builder.h"
#include "test_support.h"

namespace {

using namespace kivtest;

// The library's walk (marker, payload), reading each payload in pieces.
std::vector<std::pair<uint16_t, Bytes>> libraryWalk(JpgParam *p, uint32_t piece, JpgStatus *end) {
    std::vector<std::pair<uint16_t, Bytes>> out;
    uint16_t marker;
    uint32_t length, got;
    for (int32_t origin = 0;; origin = 1) {
        if ((*end = jpgReadSeekMarkerSegment(p, origin, &marker, &length)) != JPG_STATUS_OK)
            return out;
        Bytes payload, buffer(piece);
        while (jpgReadReadMarkerData(p, buffer.data(), piece, &got) == JPG_STATUS_OK)
            payload.insert(payload.end(), buffer.begin(), buffer.begin() + got);
        EXPECT_EQ(payload.size(), length);
        out.push_back({marker, payload});
    }
}

// The walk equals an independent walk over the bytes; afterwards decoding
// starts over from the first scan.
TEST(SegmentAccess, WalkEqualsByteWalkOnEveryStream) {
    std::vector<std::string> files = {"samples/testorig.jpg", "samples/testprog.jpg", "samples/testimgint.jpg"};
    for (const char *n : {"A1", "C1", "C2", "O1", "O2"})
        files.push_back(std::string("conformance/") + n + ".jpg");
    for (const std::string &name : files) {
        SCOPED_TRACE(name);
        Bytes bytes = readFile(corpus(name));
        ReadHandle h(bytes);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        JpgStatus end = 0;
        auto walked = libraryWalk(h.p, name.size() % 2 ? 7 : 4096, &end);
        EXPECT_EQ(end, JPG_STATUS_END_OF_STREAM);
        std::vector<Segment> expected = allSegments(bytes);
        ASSERT_EQ(walked.size(), expected.size());
        for (size_t i = 0; i < walked.size(); i++) {
            EXPECT_EQ(walked[i].first, expected[i].marker) << i;
            EXPECT_TRUE(walked[i].second == expected[i].body) << i;
        }
        if (h.p->frameMarker <= 0xFFC1 && h.p->precision == 8 && h.p->scanNs == h.p->numComponents) {
            Decoded walkedImage = decodeOpen(h.p);
            ASSERT_EQ(walkedImage.status, JPG_STATUS_OK);
            EXPECT_TRUE(walkedImage.image == decode(bytes).image);
        }
    }
}

TEST(SegmentAccess, PayloadInPiecesAndSkipping) {
    StreamBuilder image, s;
    image.greyHeader(8, 8).raw({0x2B}).eoi();
    std::vector<uint8_t> markerLike(40000);  // skipped unread, the second past the input buffer: FF E9 FF E9 ...
    for (size_t i = 0; i < markerLike.size(); i++)
        markerLike[i] = i % 2 ? 0xE9 : 0xFF;
    s.soi().segment(0xE3, markerLike).segment(0xE4, markerLike)
        .segment(0xFE, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}).segment(0xE1, {0xAA, 0xBB})
        .raw({0xFF, 0xFF, 0xFF, 0xE2, 0x00, 0x02})
        .raw(std::vector<uint8_t>(image.bytes.begin() + 2, image.bytes.end()));
    ReadHandle h(s.bytes);
    ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
    uint16_t marker;
    uint32_t length, got;
    uint8_t buffer[4];
    auto expectNext = [&](int32_t origin, uint16_t code, uint32_t size) {
        ASSERT_EQ(jpgReadSeekMarkerSegment(h.p, origin, &marker, &length), JPG_STATUS_OK) << hex(code);
        EXPECT_EQ(marker, code);
        EXPECT_EQ(length, size) << hex(code);
    };
    expectNext(0, 0xFFD8, 0);
    EXPECT_TRUE(h.p->mode & kModeRewind);
    expectNext(1, 0xFFE3, 40000);
    expectNext(1, 0xFFE4, 40000);
    expectNext(1, 0xFFFE, 10);
    for (uint32_t want : {4u, 4u, 2u}) {
        ASSERT_EQ(jpgReadReadMarkerData(h.p, buffer, 4, &got), JPG_STATUS_OK);
        EXPECT_EQ(got, want);
    }
    EXPECT_EQ(buffer[1], 10);
    EXPECT_EQ(jpgReadReadMarkerData(h.p, buffer, 4, &got), JPG_STATUS_INVALID_PARAMETER);
    expectNext(1, 0xFFE1, 2);
    ASSERT_EQ(jpgReadReadMarkerData(h.p, buffer, 1, nullptr), JPG_STATUS_OK);  // part of it
    expectNext(1, 0xFFE2, 0);  // behind fill bytes
    expectNext(1, 0xFFDB, 65);
    EXPECT_EQ(jpgReadSeekMarkerSegment(h.p, 2, &marker, &length), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgReadSeekMarkerSegment(h.p, 1, nullptr, &length), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadReadMarkerData(h.p, nullptr, 4, &got), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadSeekMarkerData(h.p), JPG_STATUS_NOT_SUPPORTED);
}

TEST(SegmentAccess, ReservedCodeAndEnd) {
    StreamBuilder s;
    s.greyHeader(8, 8).raw({0x2B, 0xFF, 0x05}).eoi();
    ReadHandle h(s.bytes);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    uint16_t marker = 1;
    uint32_t length = 1;
    JpgStatus status = jpgReadSeekMarkerSegment(h.p, 0, &marker, &length);
    while (status == JPG_STATUS_OK)
        status = jpgReadSeekMarkerSegment(h.p, 1, &marker, &length);
    EXPECT_EQ(status, JPG_STATUS_ERROR);
    EXPECT_EQ(marker, 0);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(jpgReadSeekMarkerSegment(h.p, 1, &marker, &length), JPG_STATUS_OK);  // EOI
    EXPECT_EQ(marker, 0xFFD9);
    EXPECT_EQ(jpgReadSeekMarkerSegment(h.p, 1, &marker, &length), JPG_STATUS_END_OF_STREAM);
    EXPECT_EQ(jpgReadSeekMarkerSegment(h.p, 1, &marker, &length), JPG_STATUS_UNEXPECTED_END);
}

}  // namespace
