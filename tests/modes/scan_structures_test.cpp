// Every way of arranging the same coefficients into scans decodes to the
// same pixels: jpegtran's lossless transcodes of a baseline original (restart
// intervals, optimised tables, progressive scripts with spectral selection,
// successive approximation and one-component scans, sequential frames split
// into several scans) through every output driver, at full size and scaled;
// Motion-JPEG frames without tables; progressive streams cut anywhere.
#include <gtest/gtest.h>

#include <map>

#include "test_support.h"

namespace {

using namespace kivtest;

// Sources: the corpus image at its odd size, a narrow strip of it (one MCU
// wide), and a photograph reduced by djpeg.
std::vector<std::pair<std::string, Image>> sourceImages() {
    Image whole = readPnm(corpus("samples/testorig.ppm")), strip(13, 37, 3);
    for (int y = 0; y < strip.height; y++)
        std::copy_n(whole.row(y + 50) + 300, strip.stride(), strip.row(y));
    std::vector<std::pair<std::string, Image>> list = {{"testorig", whole}, {"strip13x37", strip}};
    std::vector<std::string> photos = photographs();
    Image photo;
    if (!photos.empty() && djpeg(photos[photos.size() / 2], &photo, "-scale 1/8"))
        list.push_back({"photograph", photo});
    return list;
}

// Scan scripts for jpegtran -scans: progressive ones (spectral selection,
// successive approximation, one-component DC and AC scans, chroma before
// luma, interleaved DC scans that skip a component or start at the second)
// and sequential ones (every scan full-spectrum).
const std::map<std::string, std::string> kColourScripts = {
    {"spectral", "0 1 2: 0-0, 0, 0; 0: 1-5, 0, 0; 0: 6-63, 0, 0; 1: 1-63, 0, 0; 2: 1-63, 0, 0;"},
    {"successive", "0 1 2: 0-0, 0, 1; 0: 1-5, 0, 2; 2: 1-63, 0, 1; 1: 1-63, 0, 1; 0: 6-63, 0, 2;"
                   "0: 1-63, 2, 1; 0 1 2: 0-0, 1, 0; 2: 1-63, 1, 0; 1: 1-63, 1, 0; 0: 1-63, 1, 0;"},
    {"single", "0: 0-0, 0, 0; 1: 0-0, 0, 1; 2: 0-0, 0, 0; 1: 0-0, 1, 0; 0: 1-63, 0, 0; 1: 1-63, 0, 0; 2: 1-63, 0, 0;"},
    {"later-pair", "0: 0-0, 0, 0; 1 2: 0-0, 0, 0; 0: 1-63, 0, 0; 2: 1-63, 0, 0; 1: 1-63, 0, 0;"},
    {"gap", "0 2: 0-0, 0, 0; 1: 0-0, 0, 0; 0: 1-63, 0, 0; 1: 1-63, 0, 0; 2: 1-63, 0, 0;"},
    {"per-component", "0: 0-63, 0, 0; 1: 0-63, 0, 0; 2: 0-63, 0, 0;"},
    {"luma-then-chroma", "0: 0-63, 0, 0; 1 2: 0-63, 0, 0;"},
    {"chroma-first", "1 2: 0-63, 0, 0; 0: 0-63, 0, 0;"},
};
const std::map<std::string, std::string> kGreyScripts = {
    {"grey-successive", "0: 0-0, 0, 1; 0: 1-9, 0, 0; 0: 10-63, 0, 1; 0: 0-0, 1, 0; 0: 10-63, 1, 0;"},
};

// The transcodes of one baseline original: jpegtran options by name.
std::vector<std::pair<std::string, std::string>> variants(bool grey) {
    std::vector<std::pair<std::string, std::string>> list;
    for (const char *restart : {"", " -restart 1", " -optimize -restart 2", " -restart 7B"}) {
        if (*restart)
            list.push_back({restart, restart});
        list.push_back({std::string("-progressive") + restart, std::string("-progressive") + restart});
    }
    for (const auto &[name, script] : grey ? kGreyScripts : kColourScripts) {
        std::string path = writeTemp(name + ".txt", script);
        list.push_back({name, "-scans '" + path + "'"});
        list.push_back({name + " -restart 2", "-scans '" + path + "' -restart 2"});
        if (name == "successive" || name == "per-component" || grey)
            list.push_back({name + " -restart 1", "-scans '" + path + "' -restart 1"});
    }
    return list;
}

// Every driver that takes the stream, in batches of one MCU row, three,
// five lines and all, and every scale must reproduce the original's pixels.
void expectSamePixels(const Bytes &jpeg, const Image (&levels)[4], const std::string &what) {
    ReadHandle h(jpeg);
    ASSERT_EQ(h.status, JPG_STATUS_OK) << what;
    const bool progressive = h.p->frameMarker == 0xFFC2, multiScan = progressive || h.p->scanNs != h.p->numComponents;
    const uint32_t mcuH = h.p->mcuHeight;
    std::vector<Driver> fullSize = {progressive ? Driver::Progressive : Driver::Rows};
    if (!progressive && multiScan)
        fullSize.push_back(Driver::Progressive);
    auto expect = [&](Driver driver, int level, uint32_t batch) {
        Decoded d = decode(jpeg, {.driver = driver, .level = level, .batch = batch});
        EXPECT_EQ(d.status, JPG_STATUS_OK) << what;
        EXPECT_EQ(differences(d.image, levels[level]), 0u)
            << what << " driver " << int(driver) << " level " << level << " batch " << batch;
        EXPECT_TRUE(d.guardIntact) << what;
    };
    for (Driver driver : fullSize)
        // Batches that end inside an MCU row work where the whole image is
        // held (a single interleaved scan decodes whole MCU rows per call).
        for (uint32_t batch : {0u, mcuH, 3 * mcuH, multiScan ? 5u : 0u})
            expect(driver, 3, batch);
    for (int level = 0; level < 3; level++)
        for (uint32_t batch : {0u, mcuH >> (3 - level)})
            expect(Driver::Auto, level, batch);
}

TEST(ScanStructures, TranscodesDecodeToTheOriginalsPixels) {
    if (!haveTool("jpegtran") || !haveTool("cjpeg"))
        GTEST_SKIP() << "libjpeg-turbo's tools not installed";
    for (const auto &[source, image] : sourceImages())
        for (const char *sampling : {"2x2", "2x1", "1x1", "1x2", "4x1", "grey"}) {
            const bool grey = std::string(sampling) == "grey";
            Bytes base = cjpeg(image, grey ? "-grayscale" : std::string("-sample ") + sampling + ",1x1,1x1");
            Image levels[4];
            for (int level = 0; level < 4; level++) {
                Decoded d = decode(base, {.level = level});
                ASSERT_EQ(d.status, JPG_STATUS_OK);
                levels[level] = d.image;
            }
            for (const auto &[name, options] : variants(grey)) {
                std::string what = source + " " + sampling + " " + name;
                SCOPED_TRACE(what);
                expectSamePixels(jpegtran(base, options), levels, what);
            }
        }
}

// An RSTn marker may close a scan whose last interval is full, and fill
// bytes may precede any marker: neither changes the pixels.
TEST(ScanStructures, MarkersBehindScansAreSkipped) {
    if (!haveTool("jpegtran"))
        GTEST_SKIP() << "jpegtran not installed";
    const std::string script = writeTemp("lc.txt", kColourScripts.at("luma-then-chroma"));
    for (const std::string &options : {std::string("-progressive"), "-scans '" + script + "'"}) {
        Bytes plain = jpegtran(readFile(corpus("samples/testorig.jpg")), options), marked;
        for (size_t i = 0; i < plain.size(); i++) {
            bool next = i > 2 && plain[i] == 0xFF && (plain[i + 1] == 0xDA || plain[i + 1] == 0xD9) &&
                        std::count(plain.begin(), plain.begin() + long(i), 0xDA) > 0;
            if (next)
                marked.insert(marked.end(), {0xFF, 0xFF, 0xD5});  // a fill byte, then RST5
            marked.push_back(plain[i]);
        }
        Decoded expected = decode(plain), d = decode(marked);
        ASSERT_EQ(expected.status, JPG_STATUS_OK);
        ASSERT_EQ(d.status, JPG_STATUS_OK) << options;
        EXPECT_EQ(differences(expected.image, d.image), 0u) << options;
    }
}

// Motion-JPEG frames carry no DHT segment: the decoder uses the tables of
// Annex K.3, which cjpeg writes by default.
TEST(ScanStructures, FramesWithoutTablesUseAnnexK) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    Bytes with = cjpeg(readPnm(corpus("samples/testorig.ppm")), "-quality 80"), without;
    for (size_t i = 0; i < with.size();) {
        bool dht = with[i] == 0xFF && i + 3 < with.size() && with[i + 1] == 0xC4;
        if (!dht)
            without.push_back(with[i]);
        i += dht ? 2 + (size_t(with[i + 2]) << 8 | with[i + 3]) : 1;
    }
    ASSERT_LT(without.size(), with.size());
    Decoded d = decode(without);
    ASSERT_EQ(d.status, JPG_STATUS_OK);
    EXPECT_EQ(differences(decode(with).image, d.image), 0u);
}

// Incremental decoding gives one pass per scan, the last one the image. Rows
// of a cut progressive stream: those of MCU rows the cut scan had passed
// equal the pass that includes the scan, those it had not reached the pass
// before; the MCU row it stopped in mixes them.
TEST(ScanStructures, CutProgressiveStreamsShowTheScansReceived) {
    if (!haveTool("jpegtran"))
        GTEST_SKIP() << "jpegtran not installed";
    std::string script = writeTemp("cut-script.txt", kColourScripts.at("successive"));
    for (const char *restart : {"", " -restart 3"}) {
        Bytes prog = jpegtran(readFile(corpus("samples/testorig.jpg")), "-scans '" + script + "'" + restart);
        // Every pass delivers the whole image, in any batches.
        Decoded all = decode(prog, {.batch = *restart ? 48u : 0u, .incremental = true});
        ASSERT_EQ(all.status, JPG_STATUS_ERROR);  // the pass after the last scan
        ASSERT_EQ(all.passes.size(), 10u);
        EXPECT_TRUE(all.guardIntact);
        EXPECT_EQ(differences(all.passes.back(), decode(prog).image), 0u) << "the last pass is the image";
        Image grey = all.passes[0];
        std::fill(grey.pixels.begin(), grey.pixels.end(), 128);  // no scan yet: all coefficients zero
        auto rowEquals = [](const Image &a, const Image &b, int y) { return std::equal(a.row(y), a.row(y + 1), b.row(y)); };
        for (size_t at = findMarker(prog, 0xDA) + 20; at < prog.size(); at += prog.size() / 97) {
            std::string what = std::string(restart) + " cut at " + std::to_string(at);
            size_t scan = 0;  // scans started before the cut
            for (size_t sos = findMarker(prog, 0xDA); sos < at; sos = findMarker(prog, 0xDA, sos + 2))
                scan++;
            Decoded cut = decode(Bytes(prog.begin(), prog.begin() + long(at)), {.flags = 4});
            EXPECT_EQ(cut.status, JPG_STATUS_UNEXPECTED_END) << what;
            const Image &after = all.passes[scan - 1], &before = scan >= 2 ? all.passes[scan - 2] : grey;
            int y = 0;
            while (y < cut.image.height && rowEquals(cut.image, after, y))
                y++;
            for (y = (y / 16 + 1) * 16; y < cut.image.height; y++)
                ASSERT_TRUE(rowEquals(cut.image, before, y)) << what << " scan " << scan << " row " << y;
        }
    }
}

}  // namespace
