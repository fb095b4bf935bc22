// Every way of arranging the same coefficients into scans decodes to the
// same pixels: jpegtran's lossless transcodes of a baseline original (restart
// intervals, progressive scripts with spectral selection, successive
// approximation and one-component scans, sequential frames split into
// several scans) through every output driver, at full size and scaled;
// Motion-JPEG frames without tables; progressive streams cut anywhere.
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "progressive_helpers.h"

namespace {

using namespace progtest;

// Sources: the corpus image at its odd size, a narrow strip of it (one MCU
// wide), and a photograph reduced by djpeg.
std::vector<std::pair<std::string, std::string>> sourceImages() {
    std::vector<std::pair<std::string, std::string>> list = {
        {"testorig", kivtest::corpus("samples/testorig.ppm")}};
    Image strip, whole = readPnm(kivtest::readFile(kivtest::corpus("samples/testorig.ppm")));
    strip.width = 13, strip.height = 37, strip.channels = 3;
    std::string ppm = "P6\n13 37\n255\n";
    for (int y = 0; y < strip.height; y++)
        for (int x = 0; x < strip.width; x++)
            for (int c = 2; c >= 0; c--)
                ppm += char(whole.at(x + 100, y + 50, c));
    list.push_back({"strip13x37", writeTemp("strip.ppm", ppm)});
    std::vector<std::string> photos = kivtest::photographs();
    if (!photos.empty()) {
        std::string small = kivtest::tempPath("photo.ppm");
        if (kivtest::run("djpeg -scale 1/8 -outfile '" + small + "' '" + photos[photos.size() / 2] + "'") == 0)
            list.push_back({"photograph", small});
    }
    return list;
}

// Scan scripts for jpegtran -scans: progressive ones (spectral selection,
// successive approximation, one-component AC scans, chroma before luma)
// and sequential ones (every scan full-spectrum: one per component, luma
// then chroma, chroma first).
const std::map<std::string, std::string> kColourScripts = {
    {"spectral", "0 1 2: 0-0, 0, 0; 0: 1-5, 0, 0; 0: 6-63, 0, 0; 1: 1-63, 0, 0; 2: 1-63, 0, 0;"},
    {"successive", "0 1 2: 0-0, 0, 1; 0: 1-5, 0, 2; 2: 1-63, 0, 1; 1: 1-63, 0, 1; 0: 6-63, 0, 2;"
                   "0: 1-63, 2, 1; 0 1 2: 0-0, 1, 0; 2: 1-63, 1, 0; 1: 1-63, 1, 0; 0: 1-63, 1, 0;"},
    {"per-component", "0: 0-63, 0, 0; 1: 0-63, 0, 0; 2: 0-63, 0, 0;"},
    {"luma-then-chroma", "0: 0-63, 0, 0; 1 2: 0-63, 0, 0;"},
    {"chroma-first", "1 2: 0-63, 0, 0; 0: 0-63, 0, 0;"},
};
const std::map<std::string, std::string> kGreyScripts = {
    {"grey-successive", "0: 0-0, 0, 1; 0: 1-9, 0, 0; 0: 10-63, 0, 1; 0: 0-0, 1, 0; 0: 10-63, 1, 0;"},
};

// The transcodes of one baseline original: options of jpegtran by name.
std::vector<std::pair<std::string, std::string>> variants(bool grey) {
    std::vector<std::pair<std::string, std::string>> list;
    for (const char *restart : {"", " -restart 1", " -restart 2", " -restart 7B"}) {
        if (*restart)
            list.push_back({restart, restart});
        list.push_back({std::string("-progressive") + restart, std::string("-progressive") + restart});
    }
    for (const auto &[name, script] : grey ? kGreyScripts : kColourScripts) {
        std::string path = writeTemp(name + ".txt", script);
        list.push_back({name, "-scans '" + path + "'"});
        list.push_back({name + " -restart 2", "-scans '" + path + "' -restart 2"});
        list.push_back({name + " -restart 1", "-scans '" + path + "' -restart 1"});
    }
    return list;
}

uint32_t frameMarker(const Bytes &jpeg) {
    for (size_t i = 2; i + 1 < jpeg.size(); i++)
        if (jpeg[i] == 0xFF && jpeg[i + 1] >= 0xC0 && jpeg[i + 1] <= 0xC3)
            return 0xFF00u | jpeg[i + 1];
    return 0;
}

// One decode through a driver, `batch` lines per call (0: all at once),
// at scale level 0-2 or full size (3).
enum class Driver { Rows, Progressive, Scaled };

JpgStatus decodeWith(const Bytes &jpeg, Driver driver, int level, uint32_t batch, Image *image) {
    JpgParam *param = nullptr;
    JpgStatus status = open(jpeg, &param, image);
    if (status != JPG_STATUS_OK)
        return status;
    if (driver == Driver::Scaled) {
        uint32_t w = 0, h = 0;
        jpgReadScaleOutputGetImageSize(param, &w, &h, uint32_t(level));
        image->width = int(w), image->height = int(h);
        image->pixels.assign(size_t(w) * h * image->channels + 16, 0);
    }
    uint32_t rows = batch == 0 ? uint32_t(image->height) : batch;
    for (uint32_t y = 0; y < uint32_t(image->height) && status == JPG_STATUS_OK; y += rows) {
        ComplibRect rect = rectFor(*image);
        rect.pixels += size_t(y) * rect.stride;
        rect.height -= int32_t(y);
        uint32_t n = rows < uint32_t(rect.height) ? rows : uint32_t(rect.height);
        status = driver == Driver::Rows          ? jpgReadToRect(param, &rect, n)
                 : driver == Driver::Progressive ? jpgReadProgressiveToRect(param, &rect, n, 0)
                                                 : jpgReadScaleOutputToRect(param, &rect, n, uint32_t(level));
    }
    jpgReadEpilog(param);
    return status;
}

struct Reference {
    Image levels[4];  // 1/8, 1/4, 1/2, full size of the baseline original
};

// Every driver that takes the stream, in batches of one MCU row, three,
// five lines and all, must reproduce the original's pixels exactly.
void expectSamePixels(const Bytes &jpeg, const Reference &ref, const std::string &what) {
    const uint32_t sof = frameMarker(jpeg);
    JpgParam *param = nullptr;
    ASSERT_EQ(jpgReadPrologFromMemory(jpeg.data(), int32_t(jpeg.size()), 0, &param), JPG_STATUS_OK) << what;
    uint32_t mcuW = 0, mcuH = 0, scanComponents = param->scanNs, components = param->numComponents;
    jpgReadGetMcuSize(param, &mcuW, &mcuH);
    jpgReadEpilog(param);
    const bool multiScan = sof == 0xFFC2 || scanComponents != components;
    std::vector<Driver> fullSize = {sof == 0xFFC2 ? Driver::Progressive : Driver::Rows};
    if (sof != 0xFFC2 && multiScan)
        fullSize.push_back(Driver::Progressive);
    for (Driver driver : fullSize) {
        // Batches that end inside an MCU row work where the whole image is
        // held (a single interleaved scan decodes whole MCU rows per call).
        for (uint32_t batch : {0u, mcuH, 3 * mcuH, multiScan ? 5u : 0u}) {
            Image image;
            EXPECT_EQ(decodeWith(jpeg, driver, 3, batch, &image), JPG_STATUS_OK) << what;
            EXPECT_EQ(differences(image, ref.levels[3]), 0u) << what << " driver " << int(driver) << " batch " << batch;
            EXPECT_TRUE(guardIntact(image)) << what;
        }
    }
    for (int level = 0; level < 3; level++) {
        for (uint32_t batch : {0u, mcuH >> (3 - level)}) {
            Image image;
            EXPECT_EQ(decodeWith(jpeg, Driver::Scaled, level, batch, &image), JPG_STATUS_OK) << what;
            EXPECT_EQ(differences(image, ref.levels[level]), 0u) << what << " level " << level << " batch " << batch;
        }
    }
}

TEST(ScanStructures, TranscodesDecodeToTheOriginalsPixels) {
    if (!kivtest::haveTool("jpegtran") || !kivtest::haveTool("cjpeg"))
        GTEST_SKIP() << "libjpeg-turbo's tools not installed";
    const char *samplings[] = {"2x2", "2x1", "1x1", "1x2", "4x1", "grey"};
    int checked = 0;
    for (const auto &[source, ppm] : sourceImages()) {
        for (const char *sampling : samplings) {
            const bool grey = std::string(sampling) == "grey";
            std::string original = kivtest::tempPath(source + "-" + sampling + ".jpg");
            std::string options = grey ? "-grayscale" : std::string("-sample ") + sampling + ",1x1,1x1";
            ASSERT_EQ(kivtest::run("cjpeg " + options + " -outfile '" + original + "' '" + ppm + "'"), 0);
            Bytes base = kivtest::readFile(original);
            Reference ref;
            for (int level = 0; level < 4; level++)
                ASSERT_EQ(decodeWith(base, level == 3 ? Driver::Rows : Driver::Scaled, level, 0, &ref.levels[level]),
                          JPG_STATUS_OK);
            for (const auto &[name, jpegtran] : variants(grey)) {
                std::string what = source + " " + sampling + " " + name;
                SCOPED_TRACE(what);
                expectSamePixels(transcode(original, jpegtran, "variant.jpg"), ref, what);
                checked++;
            }
        }
    }
    std::printf("%d transcodes decode exactly like their originals through every driver\n", checked);
}

// An RSTn marker may close a scan whose last interval is full, and fill
// bytes may precede any marker: neither changes the pixels.
TEST(ScanStructures, MarkersBehindScansAreSkipped) {
    if (!kivtest::haveTool("jpegtran"))
        GTEST_SKIP() << "jpegtran not installed";
    const std::string script = writeTemp("lc.txt", kColourScripts.at("luma-then-chroma"));
    for (const std::string &options : {std::string("-progressive"), "-scans '" + script + "'"}) {
        Bytes plain = transcode(kivtest::corpus("samples/testorig.jpg"), options, "behind.jpg"), marked;
        for (size_t i = 0; i < plain.size(); i++) {
            bool next = i > 2 && plain[i] == 0xFF && (plain[i + 1] == 0xDA || plain[i + 1] == 0xD9) &&
                        std::count(plain.begin(), plain.begin() + long(i), 0xDA) > 0;
            if (next)
                marked.insert(marked.end(), {0xFF, 0xFF, 0xD5});  // a fill byte, then RST5
            marked.push_back(plain[i]);
        }
        Image expected, image;
        ASSERT_EQ(decodeProgressive(plain, &expected), JPG_STATUS_OK);
        ASSERT_EQ(decodeProgressive(marked, &image), JPG_STATUS_OK) << options;
        EXPECT_EQ(differences(expected, image), 0u) << options;
    }
}

// Motion-JPEG frames carry no DHT segment: the decoder uses the tables of
// Annex K.3, which cjpeg writes by default.
TEST(ScanStructures, FramesWithoutTablesUseAnnexK) {
    if (!kivtest::haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::string original = kivtest::tempPath("mjpeg-source.jpg");
    ASSERT_EQ(kivtest::run("cjpeg -quality 80 -outfile '" + original + "' '" +
                           kivtest::corpus("samples/testorig.ppm") + "'"), 0);
    Bytes with = kivtest::readFile(original), without;
    for (size_t i = 0; i < with.size();) {
        bool dht = with[i] == 0xFF && i + 3 < with.size() && with[i + 1] == 0xC4;
        size_t length = dht ? 2 + (size_t(with[i + 2]) << 8 | with[i + 3]) : 1;
        if (!dht)
            without.push_back(with[i]);
        i += length;
    }
    ASSERT_LT(without.size(), with.size());
    Image expected, image;
    ASSERT_EQ(decodeSequential(with, &expected), JPG_STATUS_OK);
    ASSERT_EQ(decodeSequential(without, &image), JPG_STATUS_OK);
    EXPECT_EQ(differences(expected, image), 0u);
}

// Rows of a cut progressive stream: those of MCU rows the cut scan had
// passed equal the pass that includes the scan, those it had not reached
// the pass before; the MCU row it stopped in mixes them.
void expectPassesAroundTheCut(const Image &cut, const Image &after, const Image &before, int mcuHeight,
                              const std::string &what) {
    auto rowEquals = [](const Image &a, const Image &b, int y) {
        size_t n = size_t(a.width) * a.channels;
        return std::equal(a.pixels.begin() + y * n, a.pixels.begin() + (y + 1) * n, b.pixels.begin() + y * n);
    };
    int y = 0;
    while (y < cut.height && rowEquals(cut, after, y))
        y++;
    for (y = (y / mcuHeight + 1) * mcuHeight; y < cut.height; y++)
        ASSERT_TRUE(rowEquals(cut, before, y)) << what << " row " << y;
}

TEST(ScanStructures, CutProgressiveStreamsShowTheScansReceived) {
    if (!kivtest::haveTool("jpegtran"))
        GTEST_SKIP() << "jpegtran not installed";
    std::string script = writeTemp("cut-script.txt", kColourScripts.at("successive"));
    for (const char *restart : {"", " -restart 3"}) {
        Bytes prog = transcode(kivtest::corpus("samples/testorig.jpg"), "-scans '" + script + "'" + restart,
                               "cut.jpg");
        std::vector<Image> passes;
        ASSERT_EQ(decodePasses(prog, &passes), JPG_STATUS_ERROR);  // the pass after the last scan
        ASSERT_EQ(passes.size(), 10u);
        Image grey = passes[0];
        std::fill(grey.pixels.begin(), grey.pixels.end(), 128);  // no scan yet: all coefficients zero
        std::vector<size_t> scanStarts;
        for (size_t i = 2; i + 1 < prog.size(); i++)
            if (prog[i] == 0xFF && prog[i + 1] == 0xDA)
                scanStarts.push_back(i);
        for (size_t at = scanStarts[0] + 20; at < prog.size(); at += prog.size() / 97) {
            std::string what = std::string(restart) + " cut at " + std::to_string(at);
            size_t scan = 0;  // scans started before the cut
            while (scan < scanStarts.size() && scanStarts[scan] < at)
                scan++;
            Image image;
            JpgParam *param = nullptr;
            Bytes part(prog.begin(), prog.begin() + long(at));
            ASSERT_EQ(open(part, &param, &image, 4), JPG_STATUS_OK) << what;
            ComplibRect rect = rectFor(image);
            EXPECT_EQ(jpgReadProgressiveToRect(param, &rect, uint32_t(image.height), 0), JPG_STATUS_UNEXPECTED_END)
                << what;
            jpgReadEpilog(param);
            const Image &before = scan >= 2 ? passes[scan - 2] : grey;
            expectPassesAroundTheCut(image, passes[scan - 1], before, 16, what + " scan " + std::to_string(scan));
        }
    }
}

}  // namespace
