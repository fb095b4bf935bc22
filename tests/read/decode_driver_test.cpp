// Decode driver, end to end: every 8-bit sequential corpus stream and a few
// photographs against djpeg (accurate integer DCT, no fancy upsampling),
// exact invariants (jpegtran transcodes decode to identical pixels; row
// batches, MCU-by-MCU and whole-image decoding agree), sizes around MCU
// boundaries, refusals and damaged input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "decode_helpers.h"
#include "stream_builder.h"

namespace {

using namespace kivtest;

struct Measured {
    std::string name;
    std::string sampling;
    Difference d;
    Difference cosited;  // only the columns where both upsampling rules take an input sample
};

std::string samplingName(JpgParam *p) {
    if (p->numComponents == 1)
        return "grey";
    char text[32];
    std::snprintf(text, sizeof text, "%ux%u", p->hmax, p->vmax);
    return text;
}

// Decodes a file with the library and with djpeg and compares.
Measured measure(const std::string &path) {
    Measured m{path.substr(path.rfind('/') + 1), "", {}};
    ReadHandle h(readFile(path));
    EXPECT_EQ(h.status, JPG_STATUS_OK) << path << ": " << hex(h.status);
    if (h.p == nullptr)
        return m;
    m.sampling = samplingName(h.p);
    Image ours, oracle;
    EXPECT_EQ(decodeWhole(h.p, &ours), JPG_STATUS_OK) << path;
    if (h.p->numComponents == 4) {
        // The oracle writes CMYK inverted, as Adobe applications store it.
        EXPECT_TRUE(imageMagickDecodeCmyk(path, ours.width, ours.height, &oracle)) << path;
        for (uint8_t &v : oracle.pixels)
            v = static_cast<uint8_t>(255 - v);
    } else {
        EXPECT_TRUE(djpegDecode(path, &oracle)) << path;
    }
    m.d = compare(ours, oracle);
    // Chroma subsampled by 3: ours interpolates between co-sited samples,
    // the oracle replicates; the samples at every third column are common.
    m.cosited = h.p->hmax == 3 ? compare(ours, oracle, 3) : m.d;
    return m;
}

// Thresholds from the measurements below with a margin: full-resolution
// chroma and grey differ from djpeg by IDCT rounding only; subsampled chroma
// also by the upsampling rule.
double threshold(const std::string &sampling) {
    return sampling == "grey" || sampling == "1x1" ? 40.0 : 30.0;
}

std::vector<std::string> decodableFiles() {
    std::vector<std::string> files = {corpus("samples/testorig.jpg"), corpus("samples/testimgint.jpg"),
                                      corpus("conformance/A1.jpg"), corpus("conformance/C1.jpg")};
    // A few photographs: the sequential ones, smallest first, and one large.
    std::vector<std::string> sequential;
    for (const std::string &f : photographs()) {
        std::vector<uint8_t> head = readFile(f);
        for (size_t i = 0; i + 1 < head.size() && i < 4096; i++)
            if (head[i] == 0xFF && (head[i + 1] == 0xC0 || head[i + 1] == 0xC1)) {
                sequential.push_back(f);
                break;
            }
    }
    std::sort(sequential.begin(), sequential.end(), [](const std::string &a, const std::string &b) {
        return readFile(a).size() < readFile(b).size();
    });
    // The two smallest, the smallest of every other sampling layout, the largest.
    std::set<std::string> layouts;
    for (size_t i = 0; i < sequential.size(); i++) {
        ReadHandle h(readFile(sequential[i]));
        std::string layout = h.p != nullptr ? samplingName(h.p) : "";
        if (i < 2 || i + 1 == sequential.size() || !layouts.count(layout))
            files.push_back(sequential[i]);
        layouts.insert(layout);
    }
    return files;
}

TEST(DecodeDriver, MatchesDjpeg) {
    if (!haveTool("djpeg"))
        GTEST_SKIP() << "djpeg not installed";
    std::printf("%-28s %-6s %9s %8s %14s\n", "stream", "layout", "PSNR dB", "max diff",
                "co-sited dB");
    for (const std::string &file : decodableFiles()) {
        Measured m = measure(file);
        std::printf("%-28s %-6s %9.2f %8d %14.2f\n", m.name.c_str(), m.sampling.c_str(), m.d.psnr,
                    m.d.maxDiff, m.cosited.psnr);
        EXPECT_GE(m.cosited.psnr, m.sampling == "3x4" ? 50.0 : threshold(m.sampling)) << file;
    }
}

// Decodes a stream whole; fails the test on any status.
Image decodeBytes(const std::vector<uint8_t> &bytes, JpgStatus expected = JPG_STATUS_OK) {
    ReadHandle h(bytes);
    EXPECT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
    Image image;
    if (h.p != nullptr)
        EXPECT_EQ(decodeWhole(h.p, &image), expected);
    return image;
}

TEST(DecodeDriver, TranscodesDecodeToIdenticalPixels) {
    if (!haveTool("jpegtran"))
        GTEST_SKIP() << "jpegtran not installed";
    std::vector<std::string> sources = {corpus("samples/testorig.jpg"), corpus("conformance/A1.jpg")};
    auto photos = decodableFiles();
    sources.push_back(photos[4 < photos.size() ? 4 : 0]);
    for (const std::string &src : sources) {
        Image reference = decodeBytes(readFile(src));
        for (const char *options : {"-optimize", "-restart 1", "-restart 7", "-copy all",
                                    "-optimize -restart 2B"}) {
            std::string out = tempPath("transcoded.jpg");
            ASSERT_EQ(run(std::string("jpegtran ") + options + " -outfile " + out + " '" + src + "'"), 0);
            Image image = decodeBytes(readFile(out));
            EXPECT_TRUE(image.pixels == reference.pixels) << src << " jpegtran " << options;
        }
    }
}

// Each call decodes whole MCU rows: batches of whole MCU rows (16 lines
// here) reproduce the image; the last batch is cut at the image height.
TEST(DecodeDriver, RowBatchesEqualOneCall) {
    std::vector<uint8_t> bytes = readFile(corpus("samples/testorig.jpg"));
    Image whole = decodeBytes(bytes);
    for (uint32_t batch : {16u, 32u, 48u, 144u}) {
        ReadHandle h(bytes);
        Image image = blankImage(h.p);
        uint32_t done = 0;
        while (done < h.p->height) {
            ComplibRect r = rectFor(image);
            r.pixels = image.row(static_cast<int>(done));
            r.height = image.height - static_cast<int>(done);
            ASSERT_EQ(jpgReadToRect(h.p, &r, batch), JPG_STATUS_OK) << batch << " at " << done;
            done = std::min(done + batch, h.p->height);
            uint32_t processed;
            jpgReadGetProcessedLine(h.p, &processed);
            EXPECT_EQ(processed, done);
        }
        EXPECT_TRUE(image.pixels == whole.pixels) << "batches of " << batch;
        ComplibRect r = rectFor(image);
        EXPECT_EQ(jpgReadToRect(h.p, &r, 1), JPG_STATUS_UNEXPECTED_END);
    }
}

// Decodes with jpgReadMcuToRect, `perCall` MCUs at a time, each MCU row into
// its place of the image.
Image decodeByMcus(const std::vector<uint8_t> &bytes, uint32_t perCall) {
    ReadHandle h(bytes);
    Image image = blankImage(h.p);
    for (uint32_t row = 0; row < h.p->mcuRows; row++) {
        for (uint32_t mcu = 0; mcu < h.p->mcusPerRow; mcu += perCall) {
            ComplibRect r = rectFor(image);
            int x = static_cast<int>(mcu * h.p->mcuWidth), y = static_cast<int>(row * h.p->mcuHeight);
            r.pixels = image.row(y) + x * image.channels;
            r.width = image.width - x;
            r.height = std::min<int>(image.height - y, static_cast<int>(h.p->mcuHeight));
            EXPECT_EQ(jpgReadMcuToRect(h.p, &r, std::min(perCall, h.p->mcusPerRow - mcu)), JPG_STATUS_OK);
        }
    }
    return image;
}

// A batch shorter than an MCU row still consumes the whole MCU row.
TEST(DecodeDriver, ShortBatchesTakeTheTopOfEachMcuRow) {
    std::vector<uint8_t> bytes = readFile(corpus("samples/testorig.jpg"));
    Image whole = decodeBytes(bytes);
    ReadHandle h(bytes);
    Image image = blankImage(h.p);
    for (int call = 0; call < 3; call++) {
        ComplibRect r = rectFor(image);
        ASSERT_EQ(jpgReadToRect(h.p, &r, 5), JPG_STATUS_OK);
        for (int y = 0; y < 5; y++)
            EXPECT_TRUE(std::equal(image.row(y), image.row(y) + image.width * 3, whole.row(16 * call + y)))
                << "call " << call << " row " << y;
    }
    uint32_t processed;
    jpgReadGetProcessedLine(h.p, &processed);
    EXPECT_EQ(processed, 15u);
}

std::string cjpegStream(const std::string &options, int width, int height);

TEST(DecodeDriver, McuByMcuEqualsWholeImage) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    // Without horizontal subsampling every MCU stands alone.
    for (const char *options : {"-sample 1x1", "-sample 1x2", "-grayscale"}) {
        auto bytes = readFile(cjpegStream(options, 37, 29));
        EXPECT_TRUE(decodeByMcus(bytes, 1).pixels == decodeBytes(bytes).pixels) << options;
        EXPECT_TRUE(decodeByMcus(bytes, 2).pixels == decodeBytes(bytes).pixels) << options;
    }
    // Horizontally subsampled chroma interpolates across MCUs: a whole MCU
    // row per call reproduces the image exactly.
    for (const char *name : {"samples/testorig.jpg", "conformance/A1.jpg"}) {
        auto bytes = readFile(corpus(name));
        ReadHandle h(bytes);
        EXPECT_TRUE(decodeByMcus(bytes, h.p->mcusPerRow).pixels == decodeBytes(bytes).pixels) << name;
    }
}

// A PPM of the given size with smooth content (the same for every size).
std::string makePpm(int width, int height) {
    std::string path = tempPath("source.ppm");
    std::vector<uint8_t> data;
    std::string header = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    data.assign(header.begin(), header.end());
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            data.push_back(static_cast<uint8_t>(40 + 5 * (x % 40)));
            data.push_back(static_cast<uint8_t>(50 + 4 * (y % 50)));
            data.push_back(static_cast<uint8_t>(128 + 60 * std::sin(x / 5.0) * std::cos(y / 7.0)));
        }
    writeFile(path, data);
    return path;
}

std::string cjpegStream(const std::string &options, int width, int height) {
    std::string jpg = tempPath("made.jpg");
    EXPECT_EQ(run("cjpeg -quality 95 " + options + " -outfile " + jpg + " " + makePpm(width, height)), 0);
    return jpg;
}

TEST(DecodeDriver, SizesAroundMcuBoundaries) {
    if (!haveTool("cjpeg") || !haveTool("djpeg"))
        GTEST_SKIP() << "cjpeg/djpeg not installed";
    struct Layout {
        const char *options;
        double minimum;
    } layouts[] = {{"-sample 1x1", 40}, {"-sample 2x2", 30}, {"-sample 2x1", 30},
                   {"-sample 1x2", 30}, {"-grayscale", 40}};
    double worst[5] = {INFINITY, INFINITY, INFINITY, INFINITY, INFINITY};
    for (int size = 1; size <= 33; size++) {
        for (int l = 0; l < 5; l++) {
            for (auto [w, h] : {std::pair{size, 9}, std::pair{13, size}}) {
                std::string jpg = cjpegStream(layouts[l].options, w, h);
                Image ours = decodeBytes(readFile(jpg)), oracle;
                ASSERT_TRUE(djpegDecode(jpg, &oracle));
                Difference d = compare(ours, oracle);
                worst[l] = std::min(worst[l], d.psnr);
                EXPECT_GE(d.psnr, layouts[l].minimum) << layouts[l].options << " " << w << "x" << h;
            }
        }
    }
    for (int l = 0; l < 5; l++)
        std::printf("sizes 1..33, %-12s worst PSNR %6.2f dB\n", layouts[l].options, worst[l]);
}

TEST(DecodeDriver, RefusedFrames) {
    for (const char *file : {"samples/testprog.jpg", "conformance/O1.jpg", "conformance/C2.jpg"}) {
        ReadHandle h(readFile(corpus(file)));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << file;
        Image image = blankImage(h.p);
        image.channels = 4;
        image.pixels.resize(static_cast<size_t>(image.width) * image.height * 4);
        ComplibRect r = rectFor(image);
        bool multiScan = std::string(file).find("C2") != std::string::npos;  // goes through the store
        if (!multiScan)
            EXPECT_EQ(jpgReadToRect(h.p, &r, h.p->height), JPG_STATUS_NOT_SUPPORTED) << file;
        EXPECT_EQ(jpgReadMcuToRect(h.p, &r, 1), JPG_STATUS_NOT_SUPPORTED) << file;
    }
    // 12-bit DCT frames are refused at the prolog.
    for (const char *file : {"conformance/E1.jpg", "conformance/E2.jpg", "samples/monkey12.jpg"})
        EXPECT_EQ(ReadHandle(readFile(corpus(file))).status, JPG_STATUS_NOT_SUPPORTED) << file;
    ReadHandle colour(readFile(corpus("samples/testorig.jpg")));
    uint8_t pixel[16];
    ComplibRect grey{1, 1, 1, 8, 1, 8, pixel, sizeof pixel};
    EXPECT_EQ(jpgReadToRect(colour.p, &grey, 1), JPG_STATUS_NOT_SUPPORTED);  // 3 components, 1 channel
    EXPECT_EQ(jpgReadToRect(colour.p, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
    grey.pixels = nullptr;
    EXPECT_EQ(jpgReadToRect(colour.p, &grey, 1), JPG_STATUS_INVALID_HANDLE);
}

TEST(DecodeDriver, NoColourConversionCopiesComponents) {
    ReadHandle h(readFile(corpus("samples/testorig.jpg")));
    ASSERT_EQ(jpgReadSetNoColorConversion(h.p), JPG_STATUS_OK);
    EXPECT_TRUE(h.p->mode & kModeNoColorConversion);
    Image image;
    ASSERT_EQ(decodeWhole(h.p, &image), JPG_STATUS_OK);
    if (!haveTool("djpeg"))
        return;
    // djpeg's raw YCbCr output: -rgb would convert; -grayscale is the Y plane.
    Image luma;
    ASSERT_TRUE(djpegDecode(corpus("samples/testorig.jpg"), &luma, "-grayscale"));
    Image ourLuma = luma;
    for (size_t i = 0; i < luma.pixels.size(); i++)
        ourLuma.pixels[i] = image.pixels[3 * i];  // components in stream order
    EXPECT_GE(compare(ourLuma, luma).psnr, 40.0);
}

// Damaged data: every status is a warning or an error, never a crash.
TEST(DecodeDriver, CorruptedAndTruncatedStreams) {
    std::vector<uint8_t> original = readFile(corpus("samples/testorig.jpg"));
    size_t dataStart = 0;
    {
        ReadHandle h(original);
        dataStart = h.p->firstScanOffset;
    }
    // Truncated inside the entropy-coded data: the header opens, decoding ends.
    for (size_t keep : {dataStart + 10, dataStart + 1000, original.size() - 200}) {
        std::vector<uint8_t> part(original.begin(), original.begin() + static_cast<long>(keep));
        ReadHandle h(part, 4);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        Image image;
        JpgStatus s = decodeWhole(h.p, &image);
        EXPECT_TRUE(s == JPG_STATUS_OK || s == JPG_STATUS_UNEXPECTED_END || (s & 0xC0000000u) == 0x80000000u)
            << keep << ": " << hex(s);
    }
    // Random byte errors in the data.
    uint32_t seed = 7;
    int warnings = 0;
    for (int round = 0; round < 60; round++) {
        std::vector<uint8_t> bad = original;
        for (int i = 0; i < 1 + round % 5; i++) {
            seed = seed * 1103515245 + 12345;
            size_t at = dataStart + (seed >> 8) % (bad.size() - dataStart - 2);
            bad[at] = static_cast<uint8_t>(seed >> 3);
        }
        ReadHandle h(bad);
        if (h.p == nullptr)
            continue;
        Image image;
        JpgStatus s = decodeWhole(h.p, &image);
        warnings += s != JPG_STATUS_OK;
        EXPECT_TRUE(s == JPG_STATUS_OK || s == JPG_STATUS_BAD_DC_CODE || s == JPG_STATUS_BAD_AC_CODE ||
                    s == JPG_STATUS_UNEXPECTED_END)
            << round << ": " << hex(s);
    }
    std::printf("damaged streams with a warning or error status: %d of 60\n", warnings);
}

TEST(DecodeDriver, EpilogAndNullHandles) {
    EXPECT_EQ(jpgReadEpilog(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadSetNoColorConversion(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadMcuToRect(nullptr, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
}

}  // namespace

namespace {

// Rectangles followed by guard bytes that no decode may touch.
struct GuardedRect {
    std::vector<uint8_t> bytes;
    ComplibRect rect{};
    GuardedRect(int width, int height, int channels) : bytes(size_t(width) * height * channels + 4096, 0xA5) {
        rect.width = width;
        rect.height = height;
        rect.channels = channels;
        rect.stride = width * channels;
        rect.pixelBits = 8 * channels;
        rect.sampleBits = 8;
        rect.pixels = bytes.data();
        rect.allocSize = static_cast<uint32_t>(bytes.size() - 4096);
    }
    bool guardIntact() const {
        return std::all_of(bytes.end() - 4096, bytes.end(), [](uint8_t b) { return b == 0xA5; });
    }
};

TEST(DecodeDriverBounds, BatchesNeverWriteBelowTheRectangle) {
    // Without a frame height (DNL) every MCU row is whole; a 21-line batch (one MCU row and five lines)
    // must still stop at the rectangle's last row.
    std::vector<uint8_t> data = readFile(corpus("samples/testorig.jpg"));
    for (size_t i = 0; i + 9 < data.size(); i++)
        if (data[i] == 0xFF && data[i + 1] == 0xC0) {
            data[i + 5] = 0;
            data[i + 6] = 0;
            break;
        }
    ReadHandle dnl(data);
    ASSERT_EQ(dnl.status, JPG_STATUS_OK);
    ASSERT_EQ(dnl.p->height, 0u);
    for (int call = 0; call < 3; call++) {
        GuardedRect out(static_cast<int>(dnl.p->width), 21, 3);
        jpgReadToRect(dnl.p, &out.rect, 21);
        EXPECT_TRUE(out.guardIntact()) << "call " << call;
    }
    // More lines asked for than the rectangle holds, at every scale.
    for (uint32_t level : {0u, 1u, 2u, 3u}) {
        ReadHandle h(readFile(corpus("samples/testorig.jpg")));
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        GuardedRect out(static_cast<int>(h.p->width), 3, 3);
        jpgReadScaleOutputToRect(h.p, &out.rect, 100, level);
        EXPECT_TRUE(out.guardIntact()) << "level " << level;
    }
}

}  // namespace
