// Restart and end-of-scan processing on hand-made data: RSTn resets the
// prediction state once per marker, DNL fills only a missing height, EOI is
// recorded, a stuffed zero where a marker was expected is removed, and the
// restart-marker reader ends on a marker it does not handle.
#include <gtest/gtest.h>

#include "decode_helpers.h"
#include "stream_builder.h"

namespace {

using namespace kivtest;

// An open grey 8x8 stream whose entropy-coded data is `data`.
struct Opened {
    ReadHandle h;
    explicit Opened(const std::vector<uint8_t> &data, uint16_t height = 8)
        : h([&] {
              StreamBuilder s;
              s.greyHeader(height, 8).raw(data);
              return s.bytes;
          }(), 4) {}
    JpgParam *p() { return h.p; }
};

void dirty(JpgParam *p) {
    p->mcuAddress = 3;
    p->eobRun = 9;
    for (JpgComponent &c : p->components)
        c.dcPred = 17;
}

TEST(RestartMarkers, RestartMarkersResetPrediction) {
    Opened o({0xFF, 0xD0, 0xFF, 0xD1, 0x12, 0x34});
    ASSERT_EQ(o.h.status, JPG_STATUS_OK);
    dirty(o.p());
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(o.p()), JPG_STATUS_OK);
    EXPECT_EQ(o.p()->mcuAddress, 0u);
    EXPECT_EQ(o.p()->eobRun, 0);
    for (const JpgComponent &c : o.p()->components)
        EXPECT_EQ(c.dcPred, 0);
    EXPECT_EQ(jpgReadGetBits(o.p(), 16), 0x1234u);  // both markers consumed
}

TEST(RestartMarkers, DataFollowingIsLeftAlone) {
    Opened o({0x12, 0x34});
    dirty(o.p());
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(o.p()), JPG_STATUS_OK);
    EXPECT_EQ(o.p()->mcuAddress, 3u);
    EXPECT_EQ(jpgReadGetBits(o.p(), 16), 0x1234u);
}

TEST(RestartMarkers, EndOfImageIsRecorded) {
    Opened o({0xFF, 0xD9});
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(o.p()), JPG_STATUS_OK);
    EXPECT_EQ(o.p()->currentMarker, 0xFFD9u);
    Opened r({0xFF, 0xD9});
    EXPECT_EQ(jpgReadReadRestartMarker(r.p()), JPG_STATUS_OK);
    EXPECT_EQ(r.p()->currentMarker, 0xFFD9u);
}

TEST(RestartMarkers, NumberOfLinesFillsOnlyAMissingHeight) {
    Opened missing({0xFF, 0xDC, 0x00, 0x04, 0x00, 0x2A, 0xFF, 0xD9}, 0);
    ASSERT_EQ(missing.h.status, JPG_STATUS_OK);
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(missing.p()), JPG_STATUS_OK);
    EXPECT_EQ(missing.p()->height, 42u);
    EXPECT_EQ(missing.p()->currentMarker, 0xFFD9u);
    Opened known({0xFF, 0xDC, 0x00, 0x04, 0x00, 0x2A, 0xFF, 0xD9}, 8);
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(known.p()), JPG_STATUS_OK);
    EXPECT_EQ(known.p()->height, 8u);
}

TEST(RestartMarkers, StuffedZeroWhereAMarkerWasExpected) {
    Opened o({0xFF, 0x00, 0x5A, 0x77});
    dirty(o.p());
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(o.p()), JPG_STATUS_OK);
    EXPECT_EQ(o.p()->mcuAddress, 3u);
    EXPECT_EQ(jpgReadGetBits(o.p(), 16), 0xFF5Au);
    Opened r({0xFF, 0x00, 0x5A, 0x77});
    EXPECT_EQ(jpgReadReadRestartMarker(r.p()), JPG_STATUS_OK);
    EXPECT_EQ(jpgReadGetBits(r.p(), 16), 0xFF5Au);
}

TEST(RestartMarkers, RestartReaderResetsOnlyTheAddress) {
    Opened o({0xFF, 0xD4, 0x66});
    dirty(o.p());
    EXPECT_EQ(jpgReadReadRestartMarker(o.p()), JPG_STATUS_OK);
    EXPECT_EQ(o.p()->mcuAddress, 0u);
    EXPECT_EQ(o.p()->eobRun, 9);
    EXPECT_EQ(o.p()->components[0].dcPred, 17);
    EXPECT_EQ(jpgReadGetBits(o.p(), 8), 0x66u);
}

TEST(RestartMarkers, RestartReaderEndsOnOtherMarkers) {
    Opened o({0xFF, 0xC4, 0x00, 0x02});  // a table segment where a restart was expected
    EXPECT_EQ(jpgReadReadRestartMarker(o.p()), JPG_STATUS_BAD_DATA);
    Opened end({});  // nothing after the header
    EXPECT_EQ(jpgReadReadRestartMarker(end.p()), JPG_STATUS_UNEXPECTED_END);
    EXPECT_EQ(jpgReadReadRestartMarker(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(nullptr), JPG_STATUS_INVALID_HANDLE);
}

TEST(RestartMarkers, EndOfDataEndsTheLoop) {
    Opened o({0xFF, 0xD0});
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(o.p()), JPG_STATUS_OK);
    EXPECT_NE(o.p()->bs.state, 0u);
}

// A new scan header after the data of a sequential scan is read by the scan
// parser; its tables are rebound.
TEST(RestartMarkers, AnotherScanHeaderIsParsed) {
    StreamBuilder next;
    next.dht(0x01, kChrominanceDc).dht(0x11, kChrominanceAc).sos({{1, 0x11}});
    std::vector<uint8_t> data = next.bytes;
    data.push_back(0x42);
    Opened o(data);
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(o.p()), JPG_STATUS_OK);
    EXPECT_EQ(o.p()->components[0].dcTable, &o.p()->dcTables[1]);
    EXPECT_EQ(o.p()->components[0].acTable, &o.p()->acTables[1]);
    EXPECT_EQ(jpgReadGetBits(o.p(), 8), 0x42u);
}

}  // namespace
