// Restart and end-of-scan processing on hand-made data behind an 8x8 grey
// header: RSTn resets the prediction state once per marker, DNL fills only
// a missing height, EOI is recorded, a stuffed zero where a marker was
// expected is removed, the restart-marker reader resets only the address
// and ends on a marker it does not handle; another scan header is parsed.
#include <gtest/gtest.h>

#include "stream_builder.h"
#include "test_support.h"

namespace {

using namespace kivtest;

Bytes withHeader(const Bytes &data, uint16_t height = 8) {
    StreamBuilder s;
    return s.greyHeader(height, 8).raw(data).bytes;
}

// The end of a segment (jpgReadEpilogEntropyCodedSegment) or the restart
// reader behind the header of an 8-line frame (0 lines: DNL states them);
// the state before the call: address 3, EOB run 9, prediction 17.
TEST(RestartMarkers, EndOfSegmentAndRestartReader) {
    StreamBuilder next;
    next.dht(0x01, kChrominanceDc).dht(0x11, kChrominanceAc).sos({{1, 0x11}}).raw({0x42});
    const Bytes dnl = {0xFF, 0xDC, 0x00, 0x04, 0x00, 0x2A, 0xFF, 0xD9};
    const struct {
        const char *what;
        Bytes data;
        bool restartReader;  // jpgReadReadRestartMarker, else jpgReadEpilogEntropyCodedSegment
        JpgStatus status;
        uint32_t address;  // after the call; 3 when untouched
        int32_t eobRun, dcPred;
        int nextBits;     // the next 8 or 16 bits, -1: none checked
        uint32_t marker;  // currentMarker, 0: not checked
        uint16_t lines;   // the frame's height, then after the call
        uint32_t height;
    } cases[] = {
        {"two restart markers", {0xFF, 0xD0, 0xFF, 0xD1, 0x12, 0x34}, false, JPG_STATUS_OK, 0, 0, 0, 0x1234, 0, 8, 8},
        {"data follows", {0x12, 0x34}, false, JPG_STATUS_OK, 3, 9, 17, 0x1234, 0, 8, 8},
        {"end of image", {0xFF, 0xD9}, false, JPG_STATUS_OK, 3, 9, 17, -1, 0xFFD9, 8, 8},
        {"stuffed zero", {0xFF, 0x00, 0x5A, 0x77}, false, JPG_STATUS_OK, 3, 9, 17, 0xFF5A, 0, 8, 8},
        {"end of data", {0xFF, 0xD0}, false, JPG_STATUS_OK, 0, 0, 0, -1, 0, 8, 8},
        {"number of lines", dnl, false, JPG_STATUS_OK, 3, 9, 17, -1, 0xFFD9, 0, 42},
        {"number of lines, height known", dnl, false, JPG_STATUS_OK, 3, 9, 17, -1, 0xFFD9, 8, 8},
        {"another scan header", next.bytes, false, JPG_STATUS_OK, 0, 0, 0, 0x42, 0, 8, 8},  // a new scan
        {"reader: restart marker", {0xFF, 0xD4, 0x66}, true, JPG_STATUS_OK, 0, 9, 17, 0x66, 0, 8, 8},
        {"reader: end of image", {0xFF, 0xD9}, true, JPG_STATUS_OK, 3, 9, 17, -1, 0xFFD9, 8, 8},
        {"reader: stuffed zero", {0xFF, 0x00, 0x5A, 0x77}, true, JPG_STATUS_OK, 3, 9, 17, 0xFF5A, 0, 8, 8},
        {"reader: a table segment", {0xFF, 0xC4, 0x00, 0x02}, true, JPG_STATUS_BAD_DATA, 3, 9, 17, -1, 0, 8, 8},
        {"reader: nothing after the header", {}, true, JPG_STATUS_UNEXPECTED_END, 3, 9, 17, -1, 0, 8, 8},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        ReadHandle h(withHeader(c.data, c.lines), 4);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        h.p->mcuAddress = 3;
        h.p->eobRun = 9;
        for (JpgComponent &comp : h.p->components)
            comp.dcPred = 17;
        EXPECT_EQ(c.restartReader ? jpgReadReadRestartMarker(h.p) : jpgReadEpilogEntropyCodedSegment(h.p), c.status);
        EXPECT_EQ(h.p->mcuAddress, c.address);
        EXPECT_EQ(h.p->eobRun, c.eobRun);
        EXPECT_EQ(h.p->components[0].dcPred, c.dcPred);
        EXPECT_EQ(h.p->height, c.height);
        if (c.nextBits >= 0)
            EXPECT_EQ(jpgReadGetBits(h.p, c.nextBits > 0xFF ? 16 : 8), uint32_t(c.nextBits));
        if (c.marker)
            EXPECT_EQ(h.p->currentMarker, c.marker);
    }
    EXPECT_EQ(jpgReadReadRestartMarker(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadEpilogEntropyCodedSegment(nullptr), JPG_STATUS_INVALID_HANDLE);
}

}  // namespace
