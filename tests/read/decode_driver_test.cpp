// Decode driver, end to end: the 8-bit sequential samples and a few
// photographs against djpeg (accurate integer DCT, no fancy upsampling; the
// four-component corpus streams: tests/golden.txt); sizes around MCU
// boundaries; refusals.
// Then every decode driver (rows, MCUs, progressive, scaled at each level,
// lossless) through one sweep: every row batching gives the pixels of one
// call, rectangles are never overrun, and streams cut anywhere end with the
// driver's status.
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
    std::vector<std::string> files = {corpus("samples/testorig.jpg"), corpus("samples/testimgint.jpg")};
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
    if (!haveTool("djpeg"))
        GTEST_SKIP() << "djpeg not installed";
    for (const std::string &file : decodableFiles()) {
        SCOPED_TRACE(file);
        ReadHandle h(readFile(file));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
        std::string layout = samplingName(h.p);
        int step = h.p->hmax == 3 ? 3 : 1;
        Decoded ours = decodeOpen(h.p);
        ASSERT_EQ(ours.status, JPG_STATUS_OK);
        Image oracle;
        ASSERT_TRUE(djpeg(file, &oracle));
        double minimum = layout == "3x4" ? 50.0 : layout == "grey" || layout == "1x1" ? 40.0 : 30.0;
        EXPECT_GE(compare(ours.image, oracle, step).psnr, minimum) << layout;
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
}

// A frame without a height (DNL) keeps whole MCU rows per call, yet a
// 21-line batch must stop at the rectangle's last row.
TEST(DecodeDriver, WithoutFrameHeightBatchesStopAtTheRectangle) {
    Bytes data = readFile(corpus("samples/testorig.jpg"));
    size_t sof = findMarker(data, 0xC0);
    data[sof + 5] = data[sof + 6] = 0;
    ReadHandle h(data);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    ASSERT_EQ(h.p->height, 0u);
    for (int call = 0; call < 3; call++) {
        Image out(int(h.p->width), 41, 3, 8, 0xA5);
        ComplibRect r = out.rect();
        r.height = 21;
        r.allocSize = uint32_t(21 * r.stride);
        jpgReadToRect(h.p, &r, 21);
        EXPECT_TRUE(std::all_of(out.row(21), out.row(41), [](uint8_t b) { return b == 0xA5; })) << call;
    }
}

// ---- Every decode driver: row batching, rectangles and truncated streams ----

constexpr int32_t kNoEndSearch = 0x4;  // truncated streams open; the decoder meets their end

Bytes testorig() { return readFile(corpus("samples/testorig.jpg")); }
Bytes testprog() { return readFile(corpus("samples/testprog.jpg")); }
Bytes verticalPairs() {  // luma 1x2: every MCU stands alone
    return encode(picture(37, 29, 3, 4, 1), {.sampling = 0x121111});
}
Bytes grey() { return encode(picture(37, 29, 1, 4, 2), {}); }  // MCUs decoded two at a time
Bytes lossless16() { return encode(randomImage(40, 30, 1, 16, 9), losslessOptions(4, 7)); }
Bytes lossless6() { return encode(randomImage(7, 5, 2, 6, 3), losslessOptions(7, 1)); }

struct DriverCase {
    const char *name;
    Bytes (*stream)();
    Driver driver;
    int level;
    std::vector<uint32_t> batches;  // lines per call (MCUs for the MCU driver; 0: a whole MCU row)
    bool wholeImageHeld;  // coefficient store or lossless rows: a batch may end anywhere
    bool clips;           // takes rectangles narrower and lower than the image
    JpgStatus afterEnd;   // a call once every line is out (0: not a line driver)
    JpgStatus cut;        // the stream ends inside its entropy-coded data
};

const DriverCase kDrivers[] = {
    {"rows", testorig, Driver::Rows, 3, {16, 48, 144}, false, true, JPG_STATUS_UNEXPECTED_END, JPG_STATUS_UNEXPECTED_END},
    {"mcus", verticalPairs, Driver::Mcus, 3, {1, 2, 3}, false, false, 0, JPG_STATUS_UNEXPECTED_END},
    {"mcusGrey", grey, Driver::Mcus, 3, {1, 2, 3}, false, false, 0, JPG_STATUS_UNEXPECTED_END},
    {"progressive", testprog, Driver::Progressive, 3, {16, 48, 5, 7}, true, true, JPG_STATUS_FAILED, JPG_STATUS_UNEXPECTED_END},
    {"scaled0", testorig, Driver::Scaled, 0, {2, 6}, false, true, JPG_STATUS_UNEXPECTED_END, JPG_STATUS_UNEXPECTED_END},
    {"scaled1", testorig, Driver::Scaled, 1, {4, 12}, false, true, JPG_STATUS_UNEXPECTED_END, JPG_STATUS_UNEXPECTED_END},
    {"scaled2", testorig, Driver::Scaled, 2, {8, 24}, false, true, JPG_STATUS_UNEXPECTED_END, JPG_STATUS_UNEXPECTED_END},
    {"scaledMcus0", testorig, Driver::Mcus, 0, {0, 1, 2}, false, false, 0, JPG_STATUS_UNEXPECTED_END},
    {"scaledMcus2", testorig, Driver::Mcus, 2, {0, 1, 2}, false, false, 0, JPG_STATUS_UNEXPECTED_END},
    {"lossless16", lossless16, Driver::Spatial, 3, {1, 3, 5, 7}, true, false, JPG_STATUS_FAILED, JPG_STATUS_FAILED},
    {"lossless6", lossless6, Driver::Spatial, 3, {1, 2, 3}, true, false, JPG_STATUS_FAILED, JPG_STATUS_FAILED},
};

JpgStatus lines(JpgParam *p, const DriverCase &c, ComplibRect *r, uint32_t n) {
    switch (c.driver) {
    case Driver::Progressive: return jpgReadProgressiveToRect(p, r, n, 0);
    case Driver::Scaled: return jpgReadScaleOutputToRect(p, r, n, uint32_t(c.level));
    case Driver::Spatial: return jpgReadSpatialToRect(p, r, n);
    default: return jpgReadToRect(p, r, n);
    }
}

class DecodeDrivers : public ::testing::TestWithParam<DriverCase> {
protected:
    void SetUp() override {
        stream = GetParam().stream();
        ASSERT_FALSE(stream.empty());
        // One call of the driver the frame's process needs.
        Decoded d = decode(stream, {.level = GetParam().level});
        ASSERT_EQ(d.status, JPG_STATUS_OK);
        whole = d.image;
        ReadHandle h(stream);
        unit = GetParam().driver == Driver::Spatial ? 1 : h.p->mcuHeight >> (3 - GetParam().level);
    }
    bool sameRows(const Image &image, int first, int count, int from) const {  // image rows [first, +count) = whole's from `from`
        return std::equal(image.row(first), image.row(first + count), whole.row(from));
    }
    Bytes stream;
    Image whole;
    uint32_t unit = 0;  // lines of one MCU row
};

// Every batching gives the pixels of one call and writes nothing behind the
// image; then every line is out and a further call fails. Where each call
// decodes whole MCU rows, a batch shorter than one still consumes its MCU
// row. A rectangle narrower and lower than the image receives its own part
// of the image and nothing outside it.
TEST_P(DecodeDrivers, EveryBatchingGivesThePixelsOfOneCall) {
    const DriverCase &c = GetParam();
    for (uint32_t batch : c.batches) {
        ReadHandle h(stream);
        if (c.driver == Driver::Mcus && c.level == 3) {  // no MCUs: nothing decoded
            Image scratch(whole.width, whole.height, whole.channels);
            ComplibRect r = scratch.rect();
            EXPECT_EQ(jpgReadMcuToRect(h.p, &r, 0), JPG_STATUS_OK);
        }
        Decoded d = decodeOpen(h.p, {.driver = c.driver, .level = c.level, .batch = batch});
        EXPECT_EQ(d.status, JPG_STATUS_OK) << "batch " << batch;
        EXPECT_EQ(differences(d.image, whole), 0u) << "batch " << batch;
        EXPECT_TRUE(d.guardIntact) << "batch " << batch;
        if (c.afterEnd != 0) {
            uint32_t processed = 0;
            jpgReadGetProcessedLine(h.p, &processed);
            EXPECT_EQ(processed, uint32_t(whole.height)) << "batch " << batch;
            ComplibRect r = d.image.rect();
            EXPECT_EQ(lines(h.p, c, &r, 1), c.afterEnd) << "batch " << batch;
        }
    }
    if (c.afterEnd != 0 && !c.wholeImageHeld) {
        ReadHandle h(stream);
        const uint32_t shortBatch = unit / 2 | 1;
        Image out(whole.width, int(shortBatch), whole.channels);
        for (uint32_t call = 0; call < 3; call++) {
            ComplibRect r = out.rect();
            ASSERT_EQ(lines(h.p, c, &r, shortBatch), JPG_STATUS_OK);
            EXPECT_TRUE(sameRows(out, 0, int(shortBatch), int(call * unit))) << "call " << call;
        }
        uint32_t processed = 0;
        jpgReadGetProcessedLine(h.p, &processed);
        EXPECT_EQ(processed, 3 * shortBatch);
    }
    if (c.clips) {
        ReadHandle h(stream);
        Image out(whole.width, whole.height, whole.channels, 8, 0x5A);
        ComplibRect r = out.rect();
        r.width = 5;
        r.height = int32_t(unit + 3);
        r.allocSize = uint32_t(r.height * r.stride);
        ASSERT_EQ(lines(h.p, c, &r, uint32_t(whole.height)), JPG_STATUS_OK);
        for (int y = 0; y < out.height; y++)
            for (int x = 0; x < out.width; x++)
                for (int k = 0; k < out.channels; k++) {
                    bool inside = x < r.width && y < r.height;
                    ASSERT_EQ(out.at(x, y, k), inside ? whole.at(x, y, k) : 0x5A) << x << "," << y;
                }
    }
}

// The scan whose entropy-coded data holds offset `at` (-1: none).
int scanHolding(const Bytes &s, size_t at) {
    for (int scan = 0; scanData(s, scan) != 0; scan++) {
        size_t end = scanData(s, scan);
        while (end + 1 < s.size() && !(s[end] == 0xFF && s[end + 1] != 0 && (s[end + 1] & 0xF8) != 0xD0))
            end++;
        if (at >= scanData(s, scan) && at <= end)
            return scan;
    }
    return -1;
}

// Cut inside the header, the parser meets the end itself (without the EOI
// search): at a marker code or between segments the marker search ends, in
// a length field or a payload the read runs past the end; with the search
// there is no EOI. Cut inside the entropy-coded data (left open, or closed
// with EOI), the driver ends with its status, the rows it delivered before
// are those of the whole stream, and nothing is written behind the image;
// incremental progressive decoding delivers one pass per completed scan.
TEST_P(DecodeDrivers, TruncatedStreamsEndWithTheirStatus) {
    const DriverCase &c = GetParam();
    const size_t header = scanData(stream), size = stream.size();
    std::vector<size_t> cuts;
    if (c.level == 3)  // each stream's header once
        for (size_t cut = 1; cut < header; cut++)
            cuts.push_back(cut);
    for (size_t cut = header; cut < size; cut += std::max<size_t>(1, (size - header) / 40))
        cuts.push_back(cut);
    cuts.insert(cuts.end(), {size - 3, size - 2, size - 1});
    const std::vector<Segment> segments = headerSegments(stream);
    for (size_t cut : cuts) {
        Bytes part(stream.begin(), stream.begin() + long(cut));
        if (cut < header) {
            JpgStatus expected = cut < 2 ? JPG_STATUS_BAD_DATA : JPG_STATUS_END_OF_STREAM;
            for (const Segment &s : segments)
                if (cut > s.offset + 1 && cut < s.offset + 4 + s.body.size())
                    expected = JPG_STATUS_UNEXPECTED_END;
            ReadHandle unsearched(part, kNoEndSearch), searched(part);
            EXPECT_EQ(unsearched.status, expected) << "cut at " << cut << ": " << hex(unsearched.status);
            EXPECT_EQ(unsearched.p, nullptr);
            if (findMarker(part, 0xD9, 1) == std::string::npos)
                EXPECT_EQ(searched.status, JPG_STATUS_BAD_DATA) << "cut at " << cut;
            continue;
        }
        for (bool closed : {false, true}) {
            if (closed && c.driver == Driver::Progressive)
                break;  // there EOI completes the scans received: the image so far, without a status
            std::string what = "cut at " + std::to_string(cut) + (closed ? " + EOI" : "");
            if (closed)
                part.insert(part.end(), {0xFF, 0xD9});
            DecodeOptions o{.driver = c.driver, .level = c.level, .batch = c.driver == Driver::Mcus ? 0 : unit,
                            .flags = closed ? 0 : kNoEndSearch};
            Decoded d = decode(part, o);
            // Near the end the missing bytes may not be needed (at 1/8 the
            // last partial MCU row is not decoded): then the whole image; the
            // lossless rows take the one-bits fed after the end of the last
            // few bytes as differences. EOI met inside an MCU may also end
            // with the code it broke.
            bool complete = d.status == JPG_STATUS_OK &&
                            (differences(d.image, whole) == 0 || (c.driver == Driver::Spatial && cut + 8 >= size));
            bool brokenCode = closed && (d.status == JPG_STATUS_BAD_DC_CODE || d.status == JPG_STATUS_BAD_AC_CODE);
            EXPECT_TRUE(d.status == c.cut || complete || brokenCode) << what << ": " << hex(d.status);
            EXPECT_TRUE(d.guardIntact) << what;
            if (!c.wholeImageHeld)  // lossless rows decode garbage for a while before the end is noticed
                EXPECT_TRUE(sameRows(d.image, 0, int(d.rows), 0)) << what << ", " << d.rows << " rows";
            int scan = scanHolding(stream, cut);
            if (c.driver == Driver::Progressive && scan >= 0) {
                o.incremental = true;
                Decoded passes = decode(part, o);
                EXPECT_EQ(passes.status, c.cut) << what << " incremental";
                EXPECT_EQ(passes.passes.size(), size_t(scan)) << what << " incremental";
                EXPECT_TRUE(passes.guardIntact) << what;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Drivers, DecodeDrivers, ::testing::ValuesIn(kDrivers),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
