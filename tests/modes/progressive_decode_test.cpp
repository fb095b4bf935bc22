// Progressive decoding end to end: jpegtran transcodes keep every
// coefficient, so a progressive transcode must decode to exactly the pixels
// of its baseline original; progressive photographs against djpeg; the
// incremental passes; row batches; driver statuses.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>

#include "progressive_helpers.h"

using namespace progtest;

namespace {

void writePpm(const std::string &path, const Image &image, int width) {
    std::string header = (image.channels == 3 ? "P6\n" : "P5\n") + std::to_string(width) + " " +
                         std::to_string(image.height) + "\n255\n";
    Bytes out(header.begin(), header.end());
    for (int y = 0; y < image.height; y++)
        for (int x = 0; x < width; x++)
            for (int c = image.channels - 1; c >= 0; c--)
                out.push_back(image.at(x, y, c));
    kivtest::writeFile(path, out);
}

// Baseline sources made once: the corpus sample, cjpeg encodings of its
// source image with other samplings, narrow crops one MCU wide, and a few
// baseline photographs.
struct Source {
    std::string name;
    std::string path;
    bool grey;
    int oneMcuColumn;  // x of the one column allowed to differ (one-MCU-wide images), else -1
};

std::vector<Source> sources() {
    static std::vector<Source> list = [] {
        std::vector<Source> s = {{"testorig", kivtest::corpus("samples/testorig.jpg"), false, -1}};
        Image original = readPnm(kivtest::readFile(kivtest::corpus("samples/testorig.ppm")));
        std::string ppm = kivtest::tempPath("testorig.ppm");
        writePpm(ppm, original, original.width);
        std::string narrow = kivtest::tempPath("narrow16.ppm");
        writePpm(narrow, original, 16);
        std::string narrower = kivtest::tempPath("narrow13.ppm");
        writePpm(narrower, original, 13);
        struct Make { const char *name, *options, *input; bool grey; int column; };
        const Make makes[] = {
            {"s444", "-sample 1x1 -quality 90", "testorig.ppm", false, -1},
            {"s422", "-sample 2x1 -quality 75", "testorig.ppm", false, -1},
            {"s440", "-sample 1x2 -quality 75", "testorig.ppm", false, -1},
            {"grey", "-grayscale -quality 85", "testorig.ppm", true, -1},
            {"wide16_420", "-sample 2x2", "narrow16.ppm", false, 15},
            {"wide13_420", "-sample 2x2", "narrow13.ppm", false, -1},
            {"wide16_444", "-sample 1x1", "narrow16.ppm", false, -1},
            {"wide13_grey", "-grayscale", "narrow13.ppm", true, -1},
        };
        for (const Make &m : makes) {
            std::string out = kivtest::tempPath(std::string(m.name) + ".jpg");
            std::string command = std::string("cjpeg -baseline ") + m.options + " -outfile '" + out +
                                  "' '" + kivtest::tempPath(m.input) + "'";
            EXPECT_EQ(kivtest::run(command), 0) << command;
            s.push_back({m.name, out, m.grey, m.column});
        }
        for (const char *photo : {"/usr/share/backgrounds/mate/desktop/GreenTraditional.jpg",
                                  "/usr/share/backgrounds/mate/nature/Aqua.jpg",
                                  "/usr/share/backgrounds/mate/nature/Storm.jpg"})
            if (std::filesystem::exists(photo))
                s.push_back({std::filesystem::path(photo).stem().string(), photo, false, -1});
        return s;
    }();
    return list;
}

// Scan scripts for jpegtran -scans: colour and grey variants.
struct Script {
    const char *name;
    const char *colour;
    const char *grey;
};

const Script kScripts[] = {
    {"default", nullptr, nullptr},
    {"spectral",
     "0 1 2: 0-0, 0, 0;\n0: 1-5, 0, 0;\n2: 1-63, 0, 0;\n0: 6-63, 0, 0;\n1: 1-9, 0, 0;\n1: 10-63, 0, 0;\n",
     "0: 0-0, 0, 0;\n0: 1-2, 0, 0;\n0: 3-20, 0, 0;\n0: 21-63, 0, 0;\n"},
    {"approximation",
     "0 1 2: 0-0, 0, 3;\n0 1 2: 0-0, 3, 2;\n0: 1-63, 0, 4;\n1: 1-63, 0, 3;\n2: 1-63, 0, 2;\n"
     "0 1 2: 0-0, 2, 1;\n0: 1-63, 4, 3;\n0: 1-63, 3, 2;\n0: 1-63, 2, 1;\n1: 1-63, 3, 2;\n"
     "1: 1-63, 2, 1;\n2: 1-63, 2, 1;\n0 1 2: 0-0, 1, 0;\n0: 1-63, 1, 0;\n1: 1-63, 1, 0;\n2: 1-63, 1, 0;\n",
     "0: 0-0, 0, 2;\n0: 0-0, 2, 1;\n0: 1-5, 0, 3;\n0: 6-63, 0, 4;\n0: 1-5, 3, 2;\n0: 6-63, 4, 3;\n"
     "0: 1-5, 2, 1;\n0: 6-63, 3, 2;\n0: 6-63, 2, 1;\n0: 0-0, 1, 0;\n0: 1-63, 1, 0;\n"},
    {"single",  // every scan, DC included, holds one component
     "0: 0-0, 0, 0;\n1: 0-0, 0, 1;\n2: 0-0, 0, 0;\n1: 0-0, 1, 0;\n0: 1-63, 0, 0;\n1: 1-63, 0, 0;\n"
     "2: 1-63, 0, 0;\n",
     nullptr},
    {"later_pair",  // an interleaved DC scan that starts at the second component
     "0: 0-0, 0, 0;\n1 2: 0-0, 0, 0;\n0: 1-63, 0, 0;\n2: 1-63, 0, 0;\n1: 1-63, 0, 0;\n", nullptr},
    {"gap",  // an interleaved DC scan of the first and the third component
     "0 2: 0-0, 0, 0;\n1: 0-0, 0, 0;\n0: 1-63, 0, 0;\n1: 1-63, 0, 0;\n2: 1-63, 0, 0;\n", nullptr},
};

void expectSamePixels(const Image &baseline, const Image &progressive, int allowedColumn,
                      const std::string &what) {
    ASSERT_EQ(baseline.pixels.size(), progressive.pixels.size()) << what;
    size_t differing = 0;
    for (int y = 0; y < baseline.height; y++)
        for (int x = 0; x < baseline.width; x++)
            for (int c = 0; c < baseline.channels; c++)
                if (x != allowedColumn && baseline.at(x, y, c) != progressive.at(x, y, c))
                    differing++;
    EXPECT_EQ(differing, 0u) << what;
    EXPECT_TRUE(guardIntact(progressive)) << what;
}

TEST(ProgressiveDecode, TranscodesDecodeToTheBaselinePixels) {
    ASSERT_TRUE(kivtest::haveTool("jpegtran") && kivtest::haveTool("cjpeg"));
    for (const Source &source : sources()) {
        Image baseline;
        ASSERT_EQ(decodeSequential(kivtest::readFile(source.path), &baseline), JPG_STATUS_OK) << source.name;
        for (const Script &script : kScripts) {
            const char *text = source.grey ? script.grey : script.colour;
            std::string options = "-progressive";
            if (script.colour != nullptr) {
                if (text == nullptr)
                    continue;
                options = "-scans '" + writeTemp(source.name + "_" + script.name + ".txt", text) + "'";
            }
            std::string what = source.name + " / " + script.name;
            Bytes prog = transcode(source.path, options, source.name + "_" + script.name + ".jpg");
            Image image;
            ASSERT_EQ(decodeProgressive(prog, &image), JPG_STATUS_OK) << what;
            expectSamePixels(baseline, image, source.oneMcuColumn, what);
        }
    }
}

// DC scans alone give the flat image of the DC coefficients; with a restart
// interval of one MCU row the interval divides the MCU count, and the scan
// ends without a restart marker after its last MCU.
TEST(ProgressiveDecode, DcOnlyScansWithRestartIntervals) {
    std::string source = kivtest::corpus("samples/testorig.jpg");
    std::string script = writeTemp("dc_only.txt", "0 1 2: 0-0, 0, 1;\n0 1 2: 0-0, 1, 0;\n");
    for (const char *restart : {"-restart 1", "-restart 7B", "-restart 150B"}) {
        Bytes prog = transcode(source, std::string("-scans '") + script + "' " + restart, "dc_only.jpg");
        std::string progPath = kivtest::tempPath("dc_only_in.jpg");
        kivtest::writeFile(progPath, prog);
        Bytes flat = transcode(progPath, "", "dc_only_baseline.jpg");
        Image expected, image;
        ASSERT_EQ(decodeSequential(flat, &expected), JPG_STATUS_OK) << restart;
        ASSERT_EQ(decodeProgressive(prog, &image), JPG_STATUS_OK) << restart;
        expectSamePixels(expected, image, -1, restart);
    }
}

TEST(ProgressiveDecode, TestprogMatchesTestorig) {
    Image original, progressive;
    ASSERT_EQ(decodeSequential(kivtest::readFile(kivtest::corpus("samples/testorig.jpg")), &original),
              JPG_STATUS_OK);
    ASSERT_EQ(decodeProgressive(kivtest::readFile(kivtest::corpus("samples/testprog.jpg")), &progressive),
              JPG_STATUS_OK);
    expectSamePixels(original, progressive, -1, "testprog");
}

// Progressive photographs against djpeg with the same DCT; its upsampling
// differs (replication against our interpolation), hence the margins.
TEST(ProgressiveDecode, PhotographsAgainstDjpeg) {
    ASSERT_TRUE(kivtest::haveTool("djpeg"));
    struct Photo { const char *path; double minimum; };
    const Photo photos[] = {
        {"/usr/share/backgrounds/mate/nature/FreshFlower.jpg", 30},          // 4:2:0
        {"/usr/share/backgrounds/mate/nature/GreenMeadow.jpg", 30},          // 4:2:0
        {"/usr/share/backgrounds/mate/abstract/Elephants.jpg", 40},          // 4:4:4
        {"/usr/share/backgrounds/mate/abstract/Elephants_3840x2160.jpg", 30} // 4:2:2, large
    };
    int tested = 0;
    for (const Photo &photo : photos) {
        if (!std::filesystem::exists(photo.path))
            continue;
        std::string out = kivtest::tempPath("djpeg.ppm");
        ASSERT_EQ(kivtest::run(std::string("djpeg -dct int -nosmooth -outfile '") + out + "' '" + photo.path + "'"), 0);
        Image reference = readPnm(kivtest::readFile(out));
        Image image;
        ASSERT_EQ(decodeProgressive(kivtest::readFile(photo.path), &image), JPG_STATUS_OK) << photo.path;
        ASSERT_EQ(image.width, reference.width);
        double db = psnr(image, reference);
        printf("  %s %dx%d: %.2f dB against djpeg\n", photo.path, image.width, image.height, db);
        EXPECT_GE(db, photo.minimum) << photo.path;
        tested++;
    }
    EXPECT_GT(tested, 0);
}

Bytes approximationTranscode() {
    std::string script = writeTemp("passes.txt", kScripts[2].colour);
    return transcode(kivtest::corpus("samples/testorig.jpg"), "-scans '" + script + "'", "passes.jpg");
}

// Each incremental pass decodes one more scan and delivers the whole image;
// the last equals a normal decode and the pass after EOI fails.
TEST(ProgressiveDecode, IncrementalPassesApproachTheFinalImage) {
    Bytes prog = approximationTranscode();
    Image final;
    ASSERT_EQ(decodeProgressive(prog, &final), JPG_STATUS_OK);
    for (uint32_t batch : {0u, 16u, 48u}) {
        std::vector<Image> passes;
        EXPECT_EQ(decodePasses(prog, &passes, batch), JPG_STATUS_ERROR) << batch;
        ASSERT_EQ(passes.size(), 16u) << batch;  // one pass per scan
        for (size_t i = 0; i < passes.size(); i++) {
            if (batch == 0)
                printf("  pass %2zu: %.2f dB\n", i + 1, psnr(passes[i], final));
            EXPECT_TRUE(guardIntact(passes[i]));
        }
        EXPECT_LT(psnr(passes[0], final), psnr(passes[8], final));
        EXPECT_LT(psnr(passes[8], final), psnr(passes[14], final));
        EXPECT_EQ(differences(passes.back(), final), 0u) << batch;
    }
}

TEST(ProgressiveDecode, RowBatchesGiveTheSamePixels) {
    Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    Image whole;
    ASSERT_EQ(decodeProgressive(prog, &whole), JPG_STATUS_OK);
    for (uint32_t batch : {16u, 48u, 64u, 149u, 500u}) {
        Image image;
        ASSERT_EQ(decodeProgressive(prog, &image, batch), JPG_STATUS_OK) << batch;
        EXPECT_EQ(differences(image, whole), 0u) << batch;
    }
}

// 40 rows asked 16 at a time: 16, 16 and 8 rows, then JPG_STATUS_FAILED.
TEST(ProgressiveDecode, RequestsBeyondTheImageFail) {
    Image source = readPnm(kivtest::readFile(kivtest::corpus("samples/testorig.ppm")));
    source.height = 40;
    std::string ppm = kivtest::tempPath("rows40.ppm");
    writePpm(ppm, source, 48);
    std::string jpg = kivtest::tempPath("rows40.jpg");
    ASSERT_EQ(kivtest::run("cjpeg -progressive -outfile '" + jpg + "' '" + ppm + "'"), 0);
    JpgParam *param = nullptr;
    Image image;
    Bytes data = kivtest::readFile(jpg);  // the handle reads it in place
    ASSERT_EQ(open(data, &param, &image), JPG_STATUS_OK);
    uint32_t line = 0, completed = 7;
    EXPECT_EQ(jpgReadProgressiveIsCompleted(param, &completed), JPG_STATUS_OK);
    EXPECT_EQ(completed, 0u);
    for (uint32_t expected : {16u, 32u, 40u}) {
        ComplibRect rect = rectFor(image);
        rect.pixels += size_t(line) * rect.stride;
        EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, 16, 0), JPG_STATUS_OK);
        jpgReadGetProcessedLine(param, &line);
        EXPECT_EQ(line, expected);
    }
    EXPECT_EQ(jpgReadProgressiveIsCompleted(param, &completed), JPG_STATUS_OK);
    EXPECT_EQ(completed, 1u);
    ComplibRect rect = rectFor(image);
    EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, 16, 0), JPG_STATUS_FAILED);
    EXPECT_TRUE(guardIntact(image));
    jpgReadEpilog(param);
}

TEST(ProgressiveDecode, DriverStatuses) {
    JpgParam *param = nullptr;
    Image image;
    Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    ASSERT_EQ(open(prog, &param, &image), JPG_STATUS_OK);
    ComplibRect rect = rectFor(image);
    uint32_t completed = 0;
    EXPECT_EQ(jpgReadProgressiveToRect(nullptr, &rect, 16, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadProgressiveToRect(param, nullptr, 16, 0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadProgressiveIsCompleted(param, nullptr), JPG_STATUS_INVALID_HANDLE);
    ComplibRect empty = rect;
    empty.pixels = nullptr;
    EXPECT_EQ(jpgReadProgressiveToRect(param, &empty, 16, 0), JPG_STATUS_INVALID_HANDLE);
    ComplibRect grey = rect;
    grey.channels = 1;
    EXPECT_EQ(jpgReadProgressiveToRect(param, &grey, 16, 0), JPG_STATUS_NOT_SUPPORTED);
    jpgReadEpilog(param);

    Bytes orig = kivtest::readFile(kivtest::corpus("samples/testorig.jpg"));
    ASSERT_EQ(open(orig, &param, &image), JPG_STATUS_OK);
    rect = rectFor(image);
    EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, 16, 0), JPG_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(jpgReadProgressiveIsCompleted(param, &completed), JPG_STATUS_NOT_SUPPORTED);
    jpgReadEpilog(param);
}

// A rectangle narrower than the image receives only its own columns.
TEST(ProgressiveDecode, NarrowRectangleIsNotOverrun) {
    Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    Image whole;
    ASSERT_EQ(decodeProgressive(prog, &whole), JPG_STATUS_OK);
    JpgParam *param = nullptr;
    Image image;
    ASSERT_EQ(open(prog, &param, &image), JPG_STATUS_OK);
    ComplibRect rect = rectFor(image);
    rect.width = 100;  // the stride stays that of the whole image
    EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, uint32_t(image.height), 0), JPG_STATUS_OK);
    for (int y = 0; y < image.height; y++)
        for (int x = 0; x < image.width; x++)
            for (int c = 0; c < 3; c++)
                ASSERT_EQ(image.at(x, y, c), x < 100 ? whole.at(x, y, c) : 0) << x << "," << y;
    jpgReadEpilog(param);
}

// A rectangle shorter than the request receives only its own rows.
TEST(ProgressiveDecode, ShortRectangleIsNotOverrun) {
    JpgParam *param = nullptr;
    Image image;
    Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    ASSERT_EQ(open(prog, &param, &image), JPG_STATUS_OK);
    ComplibRect rect = rectFor(image);
    rect.height = 20;
    size_t rowBytes = size_t(rect.stride);
    std::fill(image.pixels.begin() + 20 * rowBytes, image.pixels.end(), 0);
    EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, 100, 0), JPG_STATUS_OK);
    for (size_t i = 20 * rowBytes; i < image.pixels.size(); i++)
        ASSERT_EQ(image.pixels[i], 0) << i;
    jpgReadEpilog(param);
}

// Without colour conversion the rectangle receives the component planes,
// the same as the baseline original gives.
TEST(ProgressiveDecode, NoColourConversionCopiesTheComponents) {
    Bytes orig = kivtest::readFile(kivtest::corpus("samples/testorig.jpg"));
    Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    Image expected, image;
    JpgParam *param = nullptr;
    ASSERT_EQ(open(orig, &param, &expected), JPG_STATUS_OK);
    ASSERT_EQ(jpgReadSetNoColorConversion(param), JPG_STATUS_OK);
    ComplibRect rect = rectFor(expected);
    ASSERT_EQ(jpgReadToRect(param, &rect, uint32_t(expected.height)), JPG_STATUS_OK);
    jpgReadEpilog(param);
    ASSERT_EQ(open(prog, &param, &image), JPG_STATUS_OK);
    ASSERT_EQ(jpgReadSetNoColorConversion(param), JPG_STATUS_OK);
    rect = rectFor(image);
    ComplibRect four = rect;
    four.channels = 4;
    four.stride = 4 * four.width;
    EXPECT_EQ(jpgReadProgressiveToRect(param, &four, 16, 0), JPG_STATUS_NOT_SUPPORTED);
    EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, uint32_t(image.height), 0), JPG_STATUS_OK);
    EXPECT_EQ(differences(expected, image), 0u);
    jpgReadEpilog(param);
}

// Walking the marker segments first moves the input; the decode rewinds to
// the first scan and gives the same pixels.
TEST(ProgressiveDecode, SegmentWalkBeforeDecodingRewinds) {
    Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    Image expected, image;
    ASSERT_EQ(decodeProgressive(prog, &expected), JPG_STATUS_OK);
    JpgParam *param = nullptr;
    ASSERT_EQ(open(prog, &param, &image), JPG_STATUS_OK);
    uint16_t marker = 0;
    uint32_t length = 0;
    ASSERT_EQ(jpgReadSeekMarkerSegment(param, 0, &marker, &length), JPG_STATUS_OK);
    for (int i = 0; i < 5; i++)
        jpgReadSeekMarkerSegment(param, 1, &marker, &length);
    ComplibRect rect = rectFor(image);
    EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, uint32_t(image.height), 0), JPG_STATUS_OK);
    EXPECT_EQ(differences(expected, image), 0u);
    jpgReadEpilog(param);
}

// Where scan n's entropy-coded data starts (behind its SOS segment).
size_t scanData(const Bytes &stream, int n) {
    for (size_t i = 2; i + 3 < stream.size(); i++)
        if (stream[i] == 0xFF && stream[i + 1] == 0xDA && n-- == 0)
            return i + 2 + (size_t(stream[i + 2]) << 8 | stream[i + 3]);
    return 0;
}

// A byte position at least `offset` bytes into scan n that does not split
// a stuffed 0xFF 0x00 pair.
size_t insidesScan(const Bytes &stream, int n, size_t offset) {
    size_t at = scanData(stream, n) + offset;
    while (stream[at - 1] == 0xFF)
        at++;
    return at;
}

int scanCount(const Bytes &stream) {
    int n = 0;
    while (scanData(stream, n) != 0)
        n++;
    return n;
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

// Truncated streams (opened without the EOI search) deliver the image so
// far with JPG_STATUS_UNEXPECTED_END; restart markers where none belongs
// end with a status; missing ones are passed over at the next marker. In
// normal and incremental mode, and nothing is written outside the rectangle.
TEST(ProgressiveDecode, TruncatedAndDisturbedStreams) {
    const Bytes prog = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    ASSERT_EQ(scanCount(prog), 10);
    auto cut = [&](int scan, size_t offset) {
        return Bytes(prog.begin(), prog.begin() + static_cast<long>(insidesScan(prog, scan, offset)));
    };
    auto insert = [&](int scan, size_t offset, uint8_t marker) {
        Bytes out = prog;
        out.insert(out.begin() + static_cast<long>(insidesScan(prog, scan, offset)), {0xFF, marker});
        return out;
    };
    std::string script = writeTemp("dc_restart.txt", "0 1 2: 0-0, 0, 0;\n");
    Bytes dcRestart = transcode(kivtest::corpus("samples/testorig.jpg"), "-scans '" + script + "' -restart 1",
                                "dc_restart.jpg");
    Bytes restartEverywhere = transcode(kivtest::corpus("samples/testorig.jpg"), "-progressive -restart 1",
                                       "restart_everywhere.jpg");
    struct Case {
        const char *name;
        Bytes stream;
        JpgStatus normal;
        int passes;  // complete incremental passes before the failure
        JpgStatus incremental;
    } cases[] = {
        {"cut in the first DC scan", cut(0, 100), JPG_STATUS_UNEXPECTED_END, 0, JPG_STATUS_UNEXPECTED_END},
        {"cut in an AC first scan", cut(1, 60), JPG_STATUS_UNEXPECTED_END, 1, JPG_STATUS_UNEXPECTED_END},
        {"cut in the last refinement scan", cut(9, 100), JPG_STATUS_UNEXPECTED_END, 9,
         JPG_STATUS_UNEXPECTED_END},
        {"cut before EOI", Bytes(prog.begin(), prog.end() - 1), JPG_STATUS_UNEXPECTED_END, 9,
         JPG_STATUS_UNEXPECTED_END},
        {"RST0 inside a DC scan", insert(0, 100, 0xD0), JPG_STATUS_ERROR, 0, JPG_STATUS_ERROR},
        {"RST3 inside a refinement scan", insert(9, 200, 0xD3), JPG_STATUS_ERROR, 9, JPG_STATUS_ERROR},
        {"restart markers missing", replaceRestartMarkers(dcRestart, -1), JPG_STATUS_OK, 1, JPG_STATUS_ERROR},
        {"restart markers misnumbered", replaceRestartMarkers(dcRestart, 0xD5), JPG_STATUS_OK, 1, JPG_STATUS_ERROR},
        {"restart markers in one-component scans", restartEverywhere, JPG_STATUS_OK, 10, JPG_STATUS_ERROR},
    };
    for (Case &c : cases) {
        JpgParam *param = nullptr;
        Image image;
        ASSERT_EQ(open(c.stream, &param, &image, 4), JPG_STATUS_OK) << c.name;
        ComplibRect rect = rectFor(image);
        EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, uint32_t(image.height), 0), c.normal) << c.name;
        jpgReadEpilog(param);
        ASSERT_EQ(open(c.stream, &param, &image, 4), JPG_STATUS_OK) << c.name;
        int passes = 0;
        JpgStatus status;
        while ((status = jpgReadProgressiveToRect(param, &rect, uint32_t(image.height),
                                                  JPG_PROGRESSIVE_INCREMENTAL)) == JPG_STATUS_OK && passes < 50)
            passes++;
        EXPECT_EQ(passes, c.passes) << c.name;
        EXPECT_EQ(status, c.incremental) << c.name;
        EXPECT_TRUE(guardIntact(image)) << c.name;
        jpgReadEpilog(param);
    }
}

}  // namespace
