// Decode driver, end to end: the 8-bit sequential corpus streams and a few
// photographs against djpeg (accurate integer DCT, no fancy upsampling) and
// ImageMagick for four components; row batches, short batches and MCU-wise
// decoding agree with one call; sizes around MCU boundaries; refusals,
// damaged input and rectangles that must not be overrun.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "test_support.h"

namespace {

using namespace kivtest;

std::string samplingName(JpgParam *p) {
    return p->numComponents == 1 ? "grey" : std::to_string(p->hmax) + "x" + std::to_string(p->vmax);
}

// The corpus streams, and the sequential photographs: the two smallest, the
// smallest of every other sampling layout, the largest.
std::vector<std::string> decodableFiles() {
    std::vector<std::string> files = {corpus("samples/testorig.jpg"), corpus("samples/testimgint.jpg"),
                                      corpus("conformance/A1.jpg"), corpus("conformance/C1.jpg")};
    std::vector<std::string> sequential;
    std::set<std::string> layouts;
    for (const std::string &f : photographsBySize()) {
        ReadHandle h(readFile(f));
        if (h.p == nullptr || h.p->frameMarker > 0xFFC1)
            continue;
        std::string layout = samplingName(h.p);
        if (sequential.size() < 2 || !layouts.count(layout))
            files.push_back(f);
        layouts.insert(layout);
        sequential.push_back(f);
    }
    if (sequential.size() > 2 && files.back() != sequential.back())
        files.push_back(sequential.back());
    return files;
}

// Full-resolution chroma and grey differ from djpeg by IDCT rounding only;
// subsampled chroma also by the upsampling rule. Chroma subsampled by 3:
// ours interpolates between co-sited samples, the oracle replicates; the
// samples at every third column are common.
TEST(DecodeDriver, MatchesDjpeg) {
    if (!haveTool("djpeg") || !haveTool("convert"))
        GTEST_SKIP() << "djpeg or ImageMagick not installed";
    for (const std::string &file : decodableFiles()) {
        SCOPED_TRACE(file);
        ReadHandle h(readFile(file));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
        std::string layout = samplingName(h.p);
        int step = h.p->hmax == 3 ? 3 : 1;
        Decoded ours = decodeOpen(h.p);
        ASSERT_EQ(ours.status, JPG_STATUS_OK);
        Image oracle;
        if (h.p->numComponents == 4) {  // ImageMagick writes CMYK inverted, as Adobe applications store it
            std::string raw = tempPath("oracle.cmyk");
            ASSERT_EQ(run("convert -define jpeg:fancy-upsampling=off -define jpeg:dct-method=islow '" + file +
                          "' -depth 8 cmyk:" + raw), 0);
            oracle = Image(ours.image.width, ours.image.height, 4);
            oracle.pixels = readFile(raw);
            for (uint8_t &v : oracle.pixels)
                v = uint8_t(255 - v);
        } else {
            ASSERT_TRUE(djpeg(file, &oracle));
        }
        double minimum = layout == "3x4" ? 50.0 : layout == "grey" || layout == "1x1" ? 40.0 : 30.0;
        EXPECT_GE(compare(ours.image, oracle, step).psnr, minimum) << layout;
    }
}

// Each call decodes whole MCU rows: batches of whole MCU rows reproduce the
// image; the last batch is cut at the image height; a batch shorter than an
// MCU row still consumes the whole MCU row.
TEST(DecodeDriver, RowBatchesEqualOneCall) {
    Bytes bytes = readFile(corpus("samples/testorig.jpg"));
    Image whole = decode(bytes).image;
    for (uint32_t batch : {16u, 48u, 144u}) {
        ReadHandle h(bytes);
        Image image(whole.width, whole.height, 3);
        for (uint32_t done = 0; done < h.p->height;) {
            ComplibRect r = image.rect();
            r.pixels = image.row(int(done));
            r.height = image.height - int(done);
            ASSERT_EQ(jpgReadToRect(h.p, &r, batch), JPG_STATUS_OK) << batch << " at " << done;
            done = std::min(done + batch, h.p->height);
            uint32_t processed;
            jpgReadGetProcessedLine(h.p, &processed);
            EXPECT_EQ(processed, done);
        }
        EXPECT_TRUE(image == whole) << "batches of " << batch;
        ComplibRect r = image.rect();
        EXPECT_EQ(jpgReadToRect(h.p, &r, 1), JPG_STATUS_UNEXPECTED_END);
    }
    ReadHandle h(bytes);
    Image image(whole.width, whole.height, 3);
    for (int call = 0; call < 3; call++) {
        ComplibRect r = image.rect();
        ASSERT_EQ(jpgReadToRect(h.p, &r, 5), JPG_STATUS_OK);
        for (int y = 0; y < 5; y++)
            EXPECT_TRUE(std::equal(image.row(y), image.row(y) + image.stride(), whole.row(16 * call + y)))
                << "call " << call << " row " << y;
    }
    uint32_t processed;
    jpgReadGetProcessedLine(h.p, &processed);
    EXPECT_EQ(processed, 15u);
}

TEST(DecodeDriver, McuByMcuEqualsWholeImage) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    DecodeOptions byMcu;
    byMcu.driver = Driver::Mcus;
    // Without horizontal subsampling every MCU stands alone.
    for (const char *options : {"-sample 1x1", "-sample 1x2", "-grayscale"}) {
        Bytes bytes = cjpeg(picture(37, 29, 3, 4, 1), "-quality 95 " + std::string(options));
        Image whole = decode(bytes).image;
        for (uint32_t perCall : {1u, 2u}) {
            byMcu.batch = perCall;
            EXPECT_TRUE(decode(bytes, byMcu).image == whole) << options << " " << perCall;
        }
    }
    // Horizontally subsampled chroma interpolates across MCUs: a whole MCU
    // row per call reproduces the image exactly.
    byMcu.batch = 0;
    for (const char *name : {"samples/testorig.jpg", "conformance/A1.jpg"}) {
        Bytes bytes = readFile(corpus(name));
        EXPECT_TRUE(decode(bytes, byMcu).image == decode(bytes).image) << name;
    }
}

TEST(DecodeDriver, SizesAroundMcuBoundaries) {
    if (!haveTool("cjpeg") || !haveTool("djpeg"))
        GTEST_SKIP() << "cjpeg/djpeg not installed";
    const struct {
        const char *options;
        double minimum;
    } layouts[] = {{"-sample 1x1", 40}, {"-sample 2x2", 30}, {"-sample 2x1", 30}, {"-sample 1x2", 30}, {"-grayscale", 40}};
    for (int size : {1, 8, 9, 16, 17, 33})
        for (const auto &layout : layouts)
            for (auto [w, h] : {std::pair{size, 9}, std::pair{13, size}}) {
                std::string jpg = tempPath("made.jpg");
                writeFile(jpg, cjpeg(picture(w, h, 3, 0, 5), std::string("-quality 95 ") + layout.options));
                Image oracle;
                ASSERT_TRUE(djpeg(jpg, &oracle));
                EXPECT_GE(psnr(decode(readFile(jpg)).image, oracle), layout.minimum)
                    << layout.options << " " << w << "x" << h;
            }
}

TEST(DecodeDriver, RefusedFramesAndRectangles) {
    for (const char *file : {"samples/testprog.jpg", "conformance/O1.jpg", "conformance/C2.jpg"}) {
        ReadHandle h(readFile(corpus(file)));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << file;
        Image image(int(h.p->width), int(h.p->height), 4);
        ComplibRect r = image.rect();
        if (std::string(file).find("C2") == std::string::npos)  // several scans go through the store
            EXPECT_EQ(jpgReadToRect(h.p, &r, h.p->height), JPG_STATUS_NOT_SUPPORTED) << file;
        EXPECT_EQ(jpgReadMcuToRect(h.p, &r, 1), JPG_STATUS_NOT_SUPPORTED) << file;
    }
    ReadHandle colour(readFile(corpus("samples/testorig.jpg")));
    uint8_t pixel[16];
    ComplibRect grey{1, 1, 1, 8, 1, 8, pixel, sizeof pixel};
    EXPECT_EQ(jpgReadToRect(colour.p, &grey, 1), JPG_STATUS_NOT_SUPPORTED);  // 3 components, 1 channel
    EXPECT_EQ(jpgReadToRect(colour.p, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
    grey.pixels = nullptr;
    EXPECT_EQ(jpgReadToRect(colour.p, &grey, 1), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadEpilog(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadSetNoColorConversion(nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadMcuToRect(nullptr, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
}

// Without colour conversion the components come out in stream order: the
// first is djpeg's -grayscale plane.
TEST(DecodeDriver, NoColourConversionCopiesComponents) {
    DecodeOptions o;
    o.noConversion = true;
    Decoded d = decode(readFile(corpus("samples/testorig.jpg")), o);
    ASSERT_EQ(d.status, JPG_STATUS_OK);
    Image luma, ours(d.image.width, d.image.height, 1);
    if (!djpeg(corpus("samples/testorig.jpg"), &luma, "-dct int -nosmooth -grayscale"))
        GTEST_SKIP() << "djpeg not installed";
    for (size_t i = 0; i < ours.pixels.size(); i++)
        ours.pixels[i] = d.image.pixels[3 * i];
    EXPECT_GE(psnr(ours, luma), 40.0);
}

// Damaged data: decoding ends with a warning or an error, never a crash.
TEST(DecodeDriver, CorruptedAndTruncatedStreams) {
    Bytes original = readFile(corpus("samples/testorig.jpg"));
    size_t dataStart = scanData(original);
    for (size_t keep : {dataStart + 10, dataStart + 1000, original.size() - 200}) {
        DecodeOptions o;
        o.flags = 4;
        JpgStatus s = decode(Bytes(original.begin(), original.begin() + long(keep)), o).status;
        EXPECT_TRUE(s == JPG_STATUS_OK || s == JPG_STATUS_UNEXPECTED_END || (s & 0xC0000000u) == 0x80000000u)
            << keep << ": " << hex(s);
    }
    uint32_t seed = 7;
    for (int round = 0; round < 30; round++) {
        Bytes bad = original;
        for (int i = 0; i < 1 + round % 5; i++) {
            seed = seed * 1103515245 + 12345;
            bad[dataStart + (seed >> 8) % (bad.size() - dataStart - 2)] = uint8_t(seed >> 3);
        }
        JpgStatus s = decode(bad).status;
        EXPECT_TRUE(s == JPG_STATUS_OK || s == JPG_STATUS_BAD_DC_CODE || s == JPG_STATUS_BAD_AC_CODE ||
                    s == JPG_STATUS_UNEXPECTED_END)
            << round << ": " << hex(s);
    }
}

// Rectangles followed by guard bytes that no decode may touch: without a
// frame height (DNL) every MCU row is whole, yet a 21-line batch stops at
// the rectangle's last row; more lines asked for than a rectangle holds.
TEST(DecodeDriver, BatchesNeverWriteBelowTheRectangle) {
    auto guarded = [](JpgParam *p, uint32_t lines, auto call) {
        Image out(int(p->width), int(lines) + 20, 3, 8, 0xA5);
        ComplibRect r = out.rect();
        r.height = int(lines);
        r.allocSize = uint32_t(lines) * uint32_t(r.stride);
        call(&r);
        return std::all_of(out.row(int(lines)), out.pixels.data() + out.pixels.size(), [](uint8_t b) { return b == 0xA5; });
    };
    Bytes data = readFile(corpus("samples/testorig.jpg"));
    size_t sof = findMarker(data, 0xC0);
    data[sof + 5] = data[sof + 6] = 0;
    ReadHandle dnl(data);
    ASSERT_EQ(dnl.status, JPG_STATUS_OK);
    ASSERT_EQ(dnl.p->height, 0u);
    for (int call = 0; call < 3; call++)
        EXPECT_TRUE(guarded(dnl.p, 21, [&](ComplibRect *r) { jpgReadToRect(dnl.p, r, 21); })) << call;
    for (uint32_t level : {0u, 1u, 2u, 3u}) {
        ReadHandle h(readFile(corpus("samples/testorig.jpg")));
        EXPECT_TRUE(guarded(h.p, 3, [&](ComplibRect *r) { jpgReadScaleOutputToRect(h.p, r, 100, level); })) << level;
    }
}

}  // namespace
