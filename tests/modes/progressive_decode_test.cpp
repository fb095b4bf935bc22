// Progressive decoding end to end: DC-only scans with restart intervals
// against jpegtran's baseline copy, progressive photographs against djpeg,
// the incremental passes, requests beyond the image, rectangles that must
// not be overrun, driver statuses, and disturbed restart markers in normal
// and incremental mode.
#include <gtest/gtest.h>

#include <filesystem>

#include "test_support.h"

namespace {

using namespace kivtest;

Bytes testorig() { return readFile(corpus("samples/testorig.jpg")); }
Bytes testprog() { return readFile(corpus("samples/testprog.jpg")); }

Bytes withScript(const Bytes &jpeg, const std::string &script, const std::string &options = "") {
    return jpegtran(jpeg, "-scans '" + writeTemp("script.txt", script) + "' " + options);
}

const char *kSuccessive =
    "0 1 2: 0-0, 0, 3;\n0 1 2: 0-0, 3, 2;\n0: 1-63, 0, 4;\n1: 1-63, 0, 3;\n2: 1-63, 0, 2;\n"
    "0 1 2: 0-0, 2, 1;\n0: 1-63, 4, 3;\n0: 1-63, 3, 2;\n0: 1-63, 2, 1;\n1: 1-63, 3, 2;\n"
    "1: 1-63, 2, 1;\n2: 1-63, 2, 1;\n0 1 2: 0-0, 1, 0;\n0: 1-63, 1, 0;\n1: 1-63, 1, 0;\n2: 1-63, 1, 0;\n";

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

// Progressive photographs against djpeg with the same DCT; its upsampling
// differs (replication against our interpolation), hence the margins.
TEST(ProgressiveDecode, PhotographsAgainstDjpeg) {
    const struct {
        const char *path;
        double minimum;
    } photos[] = {
        {"/usr/share/backgrounds/mate/nature/FreshFlower.jpg", 30},  // 4:2:0
        {"/usr/share/backgrounds/mate/abstract/Elephants.jpg", 40},  // 4:4:4
    };
    int tested = 0;
    for (const auto &photo : photos) {
        Image reference;
        if (!std::filesystem::exists(photo.path) || !djpeg(photo.path, &reference))
            continue;
        Decoded image = decode(readFile(photo.path));
        ASSERT_EQ(image.status, JPG_STATUS_OK) << photo.path;
        ASSERT_EQ(image.image.width, reference.width);
        EXPECT_GE(psnr(image.image, reference), photo.minimum) << photo.path;
        tested++;
    }
    if (tested == 0)
        GTEST_SKIP() << "no progressive photographs or no djpeg";
}

// Each incremental pass decodes one more scan and delivers the whole image;
// the last equals a normal decode and the pass after EOI fails.
TEST(ProgressiveDecode, IncrementalPassesApproachTheFinalImage) {
    Bytes prog = withScript(testorig(), kSuccessive);
    Image final = decode(prog).image;
    for (uint32_t batch : {0u, 48u}) {
        DecodeOptions o;
        o.incremental = true;
        o.batch = batch;
        Decoded d = decode(prog, o);
        EXPECT_EQ(d.status, JPG_STATUS_ERROR) << batch;
        ASSERT_EQ(d.passes.size(), 16u) << batch;  // one pass per scan
        EXPECT_TRUE(d.guardIntact);
        EXPECT_LT(psnr(d.passes[0], final), psnr(d.passes[8], final));
        EXPECT_LT(psnr(d.passes[8], final), psnr(d.passes[14], final));
        EXPECT_EQ(differences(d.passes.back(), final), 0u) << batch;
    }
}

// 40 rows asked 16 at a time: 16, 16 and 8 rows, then JPG_STATUS_FAILED.
TEST(ProgressiveDecode, RequestsBeyondTheImageFail) {
    Bytes jpeg = cjpeg(picture(48, 40, 3, 10, 1), "-progressive");
    ReadHandle h(jpeg);
    Image image(48, 40, 3);
    uint32_t line = 0, completed = 7;
    EXPECT_EQ(jpgReadProgressiveIsCompleted(h.p, &completed), JPG_STATUS_OK);
    EXPECT_EQ(completed, 0u);
    for (uint32_t expected : {16u, 32u, 40u}) {
        ComplibRect rect = image.rect();
        rect.pixels += size_t(line) * rect.stride;
        rect.height -= int32_t(line);
        rect.allocSize = uint32_t(rect.height * rect.stride);
        EXPECT_EQ(jpgReadProgressiveToRect(h.p, &rect, 16, 0), JPG_STATUS_OK);
        jpgReadGetProcessedLine(h.p, &line);
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(jpgReadProgressiveIsCompleted(h.p, &completed), JPG_STATUS_OK);
    EXPECT_EQ(completed, 1u);
    ComplibRect rect = image.rect();
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, &rect, 16, 0), JPG_STATUS_FAILED);
}

TEST(ProgressiveDecode, DriverStatuses) {
    ReadHandle h(testprog());
    Image image(227, 149, 3);
    ComplibRect rect = image.rect(), empty = rect, grey = rect;
    empty.pixels = nullptr;
    grey.channels = 1;
    uint32_t completed = 0;
    EXPECT_EQ(jpgReadProgressiveToRect(nullptr, &rect, 16, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, nullptr, 16, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadProgressiveIsCompleted(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, &empty, 16, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, &grey, 16, 0), JPG_STATUS_NOT_SUPPORTED);
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
// moves the input, and the decode rewinds to the first scan.
TEST(ProgressiveDecode, NoColourConversionAndSegmentWalk) {
    DecodeOptions o;
    o.noConversion = true;
    Image expected = decode(testorig(), o).image;
    ReadHandle h(testprog());
    ASSERT_EQ(jpgReadSetNoColorConversion(h.p), JPG_STATUS_OK);
    Image four(227, 149, 4);
    ComplibRect rect = four.rect();
    EXPECT_EQ(jpgReadProgressiveToRect(h.p, &rect, 16, 0), JPG_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(differences(decodeOpen(h.p).image, expected), 0u);
    ReadHandle walked(testprog());
    uint16_t marker = 0;
    uint32_t length = 0;
    for (int i = 0; i < 6; i++)
        jpgReadSeekMarkerSegment(walked.p, i ? 1 : 0, &marker, &length);
    EXPECT_EQ(differences(decodeOpen(walked.p).image, decode(testprog()).image), 0u);
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
        DecodeOptions o;
        o.flags = 4;
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
