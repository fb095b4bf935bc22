// Progressive decoding end to end: DC-only scans with restart intervals
// against jpegtran's baseline copy, requests beyond the image, rectangles
// that must not be overrun, and disturbed restart markers in normal and
// incremental mode. (The incremental passes are checked against cut streams
// in scan_structures_test.cpp; truncation in decode_driver_test.cpp; the
// rectangle defects every driver refuses in tests/api/misuse_test.cpp.)
#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using namespace kivtest;

Bytes testorig() { return readFile(corpus("samples/testorig.jpg")); }
Bytes testprog() { return readFile(corpus("samples/testprog.jpg")); }

Bytes withScript(const Bytes &jpeg, const std::string &script, const std::string &options = "") {
    return jpegtran(jpeg, "-scans '" + writeTemp("script.txt", script) + "' " + options);
}

// DC scans alone give the flat image of the DC coefficients; with a restart
// interval of one MCU row the interval divides the MCU count, and the scan
// ends without a restart marker after its last MCU.
TEST(ProgressiveDecode, DcOnlyScansWithRestartIntervals) {
    for (const char *restart : {"-restart 1", "-restart 7B", "-restart 150B"}) {
        Bytes prog = withScript(testorig(), "0 1 2: 0-0, 0, 1;\n0 1 2: 0-0, 1, 0;\n", restart);
        Decoded expected = decode(jpegtran(prog, "")), image = decode(prog);
        ASSERT_EQ(image.status, JPG_STATUS_OK) << restart;
        EXPECT_EQ(differences(expected.image, image.image), 0u) << restart;
    }
}

// 40 rows asked 16 at a time: 16, 16 and 8 rows, then JPG_STATUS_FAILED;
// the input is complete once the last scan is read. A sequential frame is
// not for this driver.
TEST(ProgressiveDecode, RequestsBeyondTheImageFail) {
    Bytes jpeg = cjpeg(picture(48, 40, 3, 10, 1), "-progressive");
    ReadHandle h(jpeg);
    Image image(48, 16, 3);  // takes every call's rows
    ComplibRect rect = image.rect();
    uint32_t line = 0, completed = 7;
    EXPECT_EQ(jpgReadProgressiveIsCompleted(h.p, &completed), JPG_STATUS_OK);
    EXPECT_EQ(completed, 0u);
    for (uint32_t expected : {16u, 32u, 40u}) {
        EXPECT_EQ(jpgReadProgressiveToRect(h.p, &rect, 16, 0), JPG_STATUS_OK);
        jpgReadGetProcessedLine(h.p, &line);
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(jpgReadProgressiveIsCompleted(h.p, &completed), JPG_STATUS_OK);
    EXPECT_EQ(completed, 1u);
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, &rect, 16, 0), JPG_STATUS_FAILED);
    EXPECT_EQ(jpgReadProgressiveIsCompleted(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
    ReadHandle sequential(testorig());
    EXPECT_EQ(jpgReadProgressiveToRect(sequential.p, &rect, 16, 0), JPG_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(jpgReadProgressiveIsCompleted(sequential.p, &completed), JPG_STATUS_NOT_SUPPORTED);
}

// A rectangle narrower than the image receives only its own columns, one
// shorter than the request only its own rows.
TEST(ProgressiveDecode, RectanglesAreNotOverrun) {
    Image whole = decode(testprog()).image;
    ReadHandle narrow(testprog());
    Image image(227, 149, 3);
    ComplibRect rect = image.rect();
    rect.width = 100;  // the stride stays that of the whole image
    EXPECT_EQ(jpgReadProgressiveToRect(narrow.p, &rect, 149, 0), JPG_STATUS_OK);
    for (int y = 0; y < image.height; y++)
        for (int x = 0; x < image.width; x++)
            for (int c = 0; c < 3; c++)
                ASSERT_EQ(image.at(x, y, c), x < 100 ? whole.at(x, y, c) : 0) << x << "," << y;
    ReadHandle shorter(testprog());
    Image rows(227, 149, 3);
    rect = rows.rect();
    rect.height = 20;
    EXPECT_EQ(jpgReadProgressiveToRect(shorter.p, &rect, 100, 0), JPG_STATUS_OK);
    EXPECT_TRUE(std::all_of(rows.row(20), rows.row(149), [](uint8_t b) { return b == 0; }));
}

// Without colour conversion the rectangle receives the component planes, as
// the baseline original gives them; a walk over the marker segments first
// (or between passes) moves the input, and the decode rewinds to the first scan.
TEST(ProgressiveDecode, NoColourConversionAndSegmentWalk) {
    Image expected = decode(testorig(), {.noConversion = true}).image;
    ReadHandle h(testprog());
    ASSERT_EQ(jpgReadSetNoColorConversion(h.p), JPG_STATUS_OK);
    Image four(227, 149, 4);
    ComplibRect rect = four.rect();
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, &rect, 16, 0), JPG_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(differences(decodeOpen(h.p).image, expected), 0u);
    uint16_t marker = 0;
    uint32_t length = 0;
    for (int level : {3, 1}) {  // full size and scaled
        ReadHandle walked(testprog());
        for (int i = 0; jpgReadSeekMarkerSegment(walked.p, i ? 1 : 0, &marker, &length) == JPG_STATUS_OK; i++)
            continue;  // to the last segment, behind the scans
        Image expected = decode(testprog(), {.level = level}).image;
        EXPECT_EQ(differences(decodeOpen(walked.p, {.level = level}).image, expected), 0u) << level;
    }
    Image final = decode(testprog()).image;
    // A walk between incremental passes: the next pass starts again from the
    // first scan, and the passes still end with the final image.
    ReadHandle passes(testprog());
    Image image(227, 149, 3);
    ComplibRect all = image.rect();
    ASSERT_EQ(jpgReadProgressiveToRect(passes.p, &all, 149, JPG_PROGRESSIVE_INCREMENTAL), JPG_STATUS_OK);
    jpgReadSeekMarkerSegment(passes.p, 0, &marker, &length);
    while (jpgReadProgressiveToRect(passes.p, &all, 149, JPG_PROGRESSIVE_INCREMENTAL) == JPG_STATUS_OK) {
    }
    EXPECT_EQ(differences(image, final), 0u);
}

Bytes replaceRestartMarkers(const Bytes &stream, int replacement) {  // -1 removes them
    Bytes out;
    for (size_t i = 0; i < stream.size(); i++) {
        if (stream[i] == 0xFF && i + 1 < stream.size() && (stream[i + 1] & 0xF8) == 0xD0) {
            if (replacement >= 0)
                out.insert(out.end(), {0xFF, uint8_t(replacement)});
            i++;
            continue;
        }
        out.push_back(stream[i]);
    }
    return out;
}

// Restart markers where none belongs end with a status; missing ones are
// passed over at the next marker. In normal and incremental mode, and
// nothing is written outside the image (truncated streams:
// tests/read/decode_driver_test.cpp).
TEST(ProgressiveDecode, DisturbedRestartMarkers) {
    const Bytes prog = testprog();
    auto inside = [&](int scan, size_t offset) {  // not splitting a stuffed pair
        size_t at = scanData(prog, scan) + offset;
        while (prog[at - 1] == 0xFF)
            at++;
        return at;
    };
    auto insert = [&](int scan, size_t offset, uint8_t marker) {
        Bytes out = prog;
        out.insert(out.begin() + long(inside(scan, offset)), {0xFF, marker});
        return out;
    };
    Bytes dcRestart = withScript(testorig(), "0 1 2: 0-0, 0, 0;\n", "-restart 1");
    const struct {
        const char *name;
        Bytes stream;
        JpgStatus normal;
        size_t passes;  // complete incremental passes before the failure
        JpgStatus incremental;
    } cases[] = {
        {"RST0 inside a DC scan", insert(0, 100, 0xD0), JPG_STATUS_ERROR, 0, JPG_STATUS_ERROR},
        {"RST3 inside a refinement scan", insert(9, 200, 0xD3), JPG_STATUS_ERROR, 9, JPG_STATUS_ERROR},
        {"restart markers missing", replaceRestartMarkers(dcRestart, -1), JPG_STATUS_OK, 1, JPG_STATUS_ERROR},
        {"restart markers misnumbered", replaceRestartMarkers(dcRestart, 0xD5), JPG_STATUS_OK, 1, JPG_STATUS_ERROR},
        {"restart markers in one-component scans", jpegtran(testorig(), "-progressive -restart 1"), JPG_STATUS_OK, 10,
         JPG_STATUS_ERROR},
    };
    for (const auto &c : cases) {
        DecodeOptions o{.flags = 4};
        Decoded normal = decode(c.stream, o);
        EXPECT_EQ(normal.status, c.normal) << c.name;
        o.incremental = true;
        Decoded passes = decode(c.stream, o);
        EXPECT_EQ(passes.passes.size(), c.passes) << c.name;
        EXPECT_EQ(passes.status, c.incremental) << c.name;
        EXPECT_TRUE(normal.guardIntact && passes.guardIntact) << c.name;
    }
}

}  // namespace
