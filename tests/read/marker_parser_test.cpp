// Marker parser: header getters against the listings that come with the
// T.83 streams and against djpeg's own header dump on samples and
// photographs; refusals of streams this decoder does not take; one specific
// status for every kind of malformed header, truncation at every byte.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>

#include "core/tables.h"
#include "decode_helpers.h"
#include "stream_builder.h"

namespace {

using namespace kivtest;

// What a header listing (T.83 .txt or djpeg -verbose -verbose) states.
struct Listing {
    uint32_t sof = 0, precision = 0, width = 0, height = 0, nf = 0, restart = 0;
    std::vector<uint32_t> ids, sampling, tq;
    std::map<int, std::vector<uint32_t>> qtables;  // natural order
};

Listing parseT83Listing(const std::string &path) {
    Listing l;
    std::ifstream in(path);
    std::string line;
    std::smatch m;
    int qtable = -1;
    while (std::getline(in, line)) {
        if (std::regex_search(line, m, std::regex(R"(SOF\d+\(ff(c[0-9a-f])\).*P=(\d+) Y=(\d+) X=(\d+) Nf=(\d+))"))) {
            l.sof = 0xFF00 | std::stoul(m[1], nullptr, 16);
            l.precision = std::stoul(m[2]);
            l.height = std::stoul(m[3]);
            l.width = std::stoul(m[4]);
            l.nf = std::stoul(m[5]);
        } else if (std::regex_search(line, m, std::regex(R"(Ci=\s*(\d+) HV=(\d)(\d) Tqi=(\d+))"))) {
            l.ids.push_back(std::stoul(m[1]));
            l.sampling.push_back(std::stoul(m[2]) << 4 | std::stoul(m[3]));
            l.tq.push_back(std::stoul(m[4]));
        } else if (l.restart == 0 && std::regex_search(line, m, std::regex(R"(DRI .*Ri=(\d+))"))) {
            l.restart = std::stoul(m[1]);
        } else if (std::regex_search(line, m, std::regex(R"(Qtable (\d),)"))) {
            qtable = std::stoi(m[1]);
            l.qtables[qtable].clear();
        } else if (qtable >= 0 && std::regex_match(line, std::regex(R"(\s+(\d+\s*){8})"))) {
            std::istringstream values(line);
            for (uint32_t v; values >> v;)
                l.qtables[qtable].push_back(v);
        } else {
            qtable = -1;
        }
    }
    return l;
}

Listing djpegListing(const std::string &path) {
    Listing l;
    std::string out;
    run("djpeg -verbose -verbose '" + path + "' 2>&1 >/dev/null", &out);
    std::istringstream in(out);
    std::string line;
    std::smatch m;
    while (std::getline(in, line)) {
        if (std::regex_search(line, m, std::regex(R"(Start Of Frame 0x(..): width=(\d+), height=(\d+), components=(\d+))"))) {
            l.sof = 0xFF00 | std::stoul(m[1], nullptr, 16);
            l.width = std::stoul(m[2]);
            l.height = std::stoul(m[3]);
            l.nf = std::stoul(m[4]);
        } else if (std::regex_search(line, m, std::regex(R"(Component (\d+): (\d)hx(\d)v q=(\d))"))) {
            l.ids.push_back(std::stoul(m[1]));
            l.sampling.push_back(std::stoul(m[2]) << 4 | std::stoul(m[3]));
            l.tq.push_back(std::stoul(m[4]));
        } else if (std::regex_search(line, m, std::regex(R"(Define Restart Interval (\d+))"))) {
            l.restart = std::stoul(m[1]);
        }
    }
    return l;
}

void expectHeader(JpgParam *p, const Listing &l, bool idsAreComponentIndexes) {
    uint32_t width, height, value, mcuW, mcuH;
    ASSERT_EQ(jpgReadGetImageSize(p, &width, &height), JPG_STATUS_OK);
    EXPECT_EQ(width, l.width);
    EXPECT_EQ(height, l.height);
    ASSERT_EQ(jpgReadGetNumberOfChannels(p, &value), JPG_STATUS_OK);
    EXPECT_EQ(value, l.nf);
    ASSERT_EQ(jpgReadGetCodingProcess(p, &value), JPG_STATUS_OK);
    EXPECT_EQ(value, 0x8000u >> (l.sof - 0xFFC0));
    if (l.precision != 0) {
        ASSERT_EQ(jpgReadGetSamplePrecision(p, &value), JPG_STATUS_OK);
        EXPECT_EQ(value, l.precision);
    }
    ASSERT_EQ(jpgReadGetRestartInterval(p, &value), JPG_STATUS_OK);
    EXPECT_EQ(value, l.restart);
    uint32_t packed = 0, hmax = 0, vmax = 0;
    for (uint32_t s : l.sampling) {
        packed = packed << 8 | (l.nf == 1 ? 0x11 : s);
        hmax = std::max(hmax, l.nf == 1 ? 1 : s >> 4);
        vmax = std::max(vmax, l.nf == 1 ? 1 : s & 15);
    }
    ASSERT_EQ(jpgReadGetSubsamplingFactor(p, &value), JPG_STATUS_OK);
    EXPECT_EQ(value, packed);
    ASSERT_EQ(jpgReadGetMcuSize(p, &mcuW, &mcuH), JPG_STATUS_OK);
    EXPECT_EQ(mcuW, 8 * hmax);
    EXPECT_EQ(mcuH, 8 * vmax);
    uint32_t selectors[4] = {};
    ASSERT_EQ(jpgReadGetQuantizationTableSelector(p, selectors), JPG_STATUS_OK);
    for (size_t c = 0; c < l.ids.size(); c++) {
        if (!idsAreComponentIndexes)
            EXPECT_EQ(selectors[c], l.ids[c]);
        uint32_t table[64];
        ASSERT_EQ(jpgReadGetQuantizationTable(p, static_cast<uint32_t>(c), table), JPG_STATUS_OK);
        auto q = l.qtables.find(static_cast<int>(l.tq[c]));
        if (q == l.qtables.end())
            continue;
        for (int k = 0; k < 64; k++)
            EXPECT_EQ(table[k], q->second[kiv::kZigzag[k]]) << "component " << c << " zig-zag " << k;
    }
}

TEST(MarkerParser, ConformanceHeadersMatchTheirListings) {
    for (const char *name : {"A1", "C1", "C2", "E1", "E2", "O1", "O2"}) {
        SCOPED_TRACE(name);
        Listing l = parseT83Listing(corpus(std::string("conformance/") + name + ".txt"));
        ASSERT_EQ(l.nf, 4u);
        ASSERT_EQ(l.ids.size(), 4u);
        ReadHandle h(readFile(corpus(std::string("conformance/") + name + ".jpg")));
        if (name[0] == 'E') {  // 12-bit DCT: refused at the prolog
            EXPECT_EQ(h.status, JPG_STATUS_NOT_SUPPORTED) << hex(h.status);
            continue;
        }
        ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
        expectHeader(h.p, l, false);
    }
}

TEST(MarkerParser, RefusedStreamsLeaveNoHandle) {
    struct Case {
        const char *file;
        JpgStatus status;
    } cases[] = {
        {"conformance/B1.jpg", JPG_STATUS_END_OF_STREAM},  // tables only: no frame header
        {"conformance/B2.jpg", JPG_STATUS_BAD_DATA},       // 255 components
        {"samples/testimgari.jpg", JPG_STATUS_NOT_SUPPORTED},  // arithmetic coding (SOF9)
    };
    for (const Case &c : cases) {
        ReadHandle h(readFile(corpus(c.file)));
        EXPECT_EQ(h.status, c.status) << c.file << ": " << hex(h.status);
        EXPECT_EQ(h.p, nullptr) << c.file;
    }
}

std::vector<std::string> sampleAndPhotoFiles() {
    std::vector<std::string> files = {corpus("samples/testorig.jpg"), corpus("samples/testimgint.jpg"),
                                      corpus("samples/testprog.jpg")};
    auto photos = photographs();
    for (size_t i = 0; i < photos.size() && i < 6; i++)
        files.push_back(photos[i]);
    return files;
}

TEST(MarkerParser, SampleAndPhotographHeadersMatchDjpeg) {
    if (!haveTool("djpeg"))
        GTEST_SKIP() << "djpeg not installed";
    for (const std::string &file : sampleAndPhotoFiles()) {
        SCOPED_TRACE(file);
        Listing l = djpegListing(file);
        ASSERT_NE(l.sof, 0u);
        ReadHandle h(readFile(file));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
        expectHeader(h.p, l, true);
    }
}

TEST(MarkerParser, FilePrologReadsAnEmbeddedStream) {
    std::vector<uint8_t> jpeg = readFile(corpus("samples/testorig.jpg"));
    std::vector<uint8_t> file(100, 0x55);
    file.insert(file.end(), jpeg.begin(), jpeg.end());
    file.insert(file.end(), 50, 0xAA);  // trailing bytes behind the stream's end
    std::string path = tempPath("embedded.bin");
    writeFile(path, file);
    JpgParam *p = nullptr;
    ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 100, static_cast<int32_t>(jpeg.size()), 0, &p),
              JPG_STATUS_OK);
    uint32_t w, h;
    jpgReadGetImageSize(p, &w, &h);
    EXPECT_EQ(w, 227u);
    EXPECT_EQ(h, 149u);
    EXPECT_EQ(jpgReadEpilog(p), JPG_STATUS_OK);

    std::string longPath(300, 'a');
    EXPECT_EQ(jpgReadPrologFromFile(longPath.c_str(), 0, 0, 0, &p), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(jpgReadPrologFromFile(tempPath("missing.jpg").c_str(), 0, 0, 0, &p),
              JPG_STATUS_FILE_OPEN_FAILED);
    EXPECT_EQ(jpgReadPrologFromFile(path.c_str(), 0, static_cast<int32_t>(file.size()) + 1, 0, &p),
              JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgReadPrologFromFile(path.c_str(), -1, 0, 0, &p), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgReadPrologFromFile(nullptr, 0, 0, 0, &p), JPG_STATUS_INVALID_HANDLE);
    // Without EOI at the end the file needs flags bit 2.
    std::string noEnd = tempPath("noend.jpg");
    writeFile(noEnd, std::vector<uint8_t>(jpeg.begin(), jpeg.end() - 2));
    EXPECT_EQ(jpgReadPrologFromFile(noEnd.c_str(), 0, 0, 0x2, &p), JPG_STATUS_BAD_DATA);
    ASSERT_EQ(jpgReadPrologFromFile(noEnd.c_str(), 0, 0, 0x4, &p), JPG_STATUS_OK);
    jpgReadEpilog(p);
}

// The search for EOI reads the stream backwards a block of 64 KiB at a
// time: a stream followed by data of any length (as a camera's trailer)
// opens from memory and from a file at an offset, EOI across a block
// boundary included; without EOI anywhere it is refused.
TEST(MarkerParser, EndOfImageBehindTrailingData) {
    std::vector<uint8_t> jpeg = readFile(corpus("samples/testorig.jpg"));
    for (size_t trailer : {0, 1, 65533, 65534, 65535, 65536, 65537, 200000}) {
        std::vector<uint8_t> file(100 + jpeg.size() + trailer, 0x55);
        std::fill_n(file.begin(), 100, 0xFF);
        std::copy(jpeg.begin(), jpeg.end(), file.begin() + 100);
        std::string path = tempPath("trailer.jpg");
        writeFile(path, file);
        JpgParam *p = nullptr;
        EXPECT_EQ(jpgReadPrologFromFile(path.c_str(), 100, 0, 0, &p), JPG_STATUS_OK) << trailer;
        if (p != nullptr)
            jpgReadEpilog(p);
        ReadHandle h(std::vector<uint8_t>(file.begin() + 100, file.end()));
        EXPECT_EQ(h.status, JPG_STATUS_OK) << trailer;
        file[100 + jpeg.size() - 1] = 0xD8;  // the only EOI gone
        writeFile(path, file);
        EXPECT_EQ(jpgReadPrologFromFile(path.c_str(), 100, 0, 0, &p), JPG_STATUS_BAD_DATA) << trailer;
        EXPECT_EQ(jpgReadPrologFromFile(path.c_str(), 100, 0, 0x4, &p), JPG_STATUS_OK) << trailer;
        if (p != nullptr)
            jpgReadEpilog(p);
    }
}

TEST(MarkerParser, MemoryPrologArguments) {
    std::vector<uint8_t> jpeg = readFile(corpus("samples/testorig.jpg"));
    JpgParam *p = reinterpret_cast<JpgParam *>(1);
    EXPECT_EQ(jpgReadPrologFromMemory(nullptr, 10, 0, &p), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadPrologFromMemory(jpeg.data(), 0, 0, &p), JPG_STATUS_INVALID_PARAMETER);
    std::vector<uint8_t> noSoi = jpeg;
    noSoi[1] = 0xD9;
    EXPECT_EQ(jpgReadPrologFromMemory(noSoi.data(), static_cast<int32_t>(noSoi.size()), 0, &p),
              JPG_STATUS_BAD_DATA);
    EXPECT_EQ(p, nullptr);
    std::vector<uint8_t> noEnd(jpeg.begin(), jpeg.end() - 2);
    for (int32_t flags : {0, 2, 4}) {
        ReadHandle h(noEnd, flags);
        EXPECT_EQ(h.status, flags ? JPG_STATUS_OK : JPG_STATUS_BAD_DATA) << flags;
        if (h.p != nullptr)
            EXPECT_EQ(h.p->mode & (kModeMemory | kModePartial),
                      kModeMemory | (flags & 2 ? kModePartial : 0));
    }
}

TEST(MarkerParser, GeometryAndBuffers) {
    StreamBuilder s;
    s.soi().dqt(0).dqt(1).sof(0xC0, 8, 50, 100, {{1, 0x22, 0}, {2, 0x11, 1}, {3, 0x11, 1}})
        .dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc)
        .sos({{1, 0x00}, {2, 0x00}, {3, 0x00}}).raw({0x00}).eoi();
    ReadHandle h(s.bytes);
    ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
    JpgParam *p = h.p;
    EXPECT_EQ(p->mcuWidth, 16u);
    EXPECT_EQ(p->mcuHeight, 16u);
    EXPECT_EQ(p->mcusPerRow, 7u);
    EXPECT_EQ(p->mcuRows, 4u);
    EXPECT_EQ(p->totalMcus, 28u);
    EXPECT_EQ(p->mcusLeft, 28u);
    EXPECT_EQ(p->blocksPerMcu, 6u);
    EXPECT_EQ(p->hv, 4u);
    EXPECT_EQ(p->samplingFactors, 0x22111100u);
    EXPECT_EQ(p->dec.mcuNext, p->mcuBuffer + 6 * 64);
    EXPECT_EQ(p->dec.upsampleBuffer, p->dec.mcuNext + 6 * 64);
    for (uint32_t pos = 0; pos < 4; pos++)
        for (uint32_t c = 0; c < 4; c++)
            EXPECT_EQ(p->blockMap[4 * pos + c], c * 4 + pos);
    EXPECT_EQ(p->components[1].quant, p->quant[1]);
    EXPECT_TRUE(p->mode & kModeYCbCr);  // identifiers 1, 2, 3
    EXPECT_FALSE(p->mode & kModeRewind);
    EXPECT_EQ(p->firstScanOffset, s.bytes.size() - 3);
    EXPECT_EQ(p->routines.mcu, jpgReadDecodeBaselineMcu);
}

TEST(MarkerParser, SingleComponentFrameIsOneBlockPerMcu) {
    StreamBuilder s;
    s.soi().dqt(0).sof(0xC0, 8, 16, 16, {{1, 0x22, 0}}).dht(0x00, kLuminanceDc)
        .dht(0x10, kLuminanceAc).sos({{1, 0x00}}).raw({0x00}).eoi();
    ReadHandle h(s.bytes);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    uint32_t w, hgt, factor;
    jpgReadGetMcuSize(h.p, &w, &hgt);
    EXPECT_EQ(w, 8u);
    EXPECT_EQ(hgt, 8u);
    EXPECT_EQ(h.p->components[0].sampling, 0x11);
    jpgReadGetSubsamplingFactor(h.p, &factor);
    EXPECT_EQ(factor, 0x11u);
}

TEST(MarkerParser, ApplicationSegmentsAndColourSpace) {
    std::vector<uint8_t> jfif = {'J', 'F', 'I', 'F', 0, 1, 2, 1, 0, 72, 0, 72, 0, 0};
    std::vector<uint8_t> adobe = {'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, 0};
    struct Case {
        std::vector<uint8_t> app0, app14;
        std::vector<FrameComponent> comps;
        bool ycc;
    } cases[] = {
        {jfif, {}, {{'R', 0x11, 0}, {'G', 0x11, 0}, {'B', 0x11, 0}}, true},
        {{}, adobe, {{1, 0x11, 0}, {2, 0x11, 0}, {3, 0x11, 0}}, false},  // transform 0: RGB
        {{}, {}, {{'R', 0x11, 0}, {'G', 0x11, 0}, {'B', 0x11, 0}}, false},
        {{}, {}, {{1, 0x11, 0}, {2, 0x11, 0}, {3, 0x11, 0}}, true},
    };
    for (const Case &c : cases) {
        StreamBuilder s;
        s.soi();
        if (!c.app0.empty())
            s.segment(0xE0, c.app0);
        if (!c.app14.empty())
            s.segment(0xEE, c.app14);
        s.dqt(0).sof(0xC0, 8, 8, 8, c.comps).dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc)
            .sos({{c.comps[0].id, 0}, {c.comps[1].id, 0}, {c.comps[2].id, 0}}).raw({0}).eoi();
        ReadHandle h(s.bytes);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        EXPECT_EQ((h.p->mode & kModeYCbCr) != 0, c.ycc);
        if (!c.app0.empty()) {
            EXPECT_TRUE(h.p->mode & kModeJfif);
            EXPECT_EQ(h.p->densityUnits, 1);
            EXPECT_EQ(h.p->xDensity, 72);
            EXPECT_EQ(h.p->yDensity, 72);
        }
        if (!c.app14.empty())
            EXPECT_TRUE(h.p->mode & kModeAdobe);
    }
}

// A valid 8x8 grey stream: one block, DC difference 0 ("00"), EOB ("1010").
StreamBuilder validGrey() {
    StreamBuilder s;
    s.greyHeader(8, 8).raw({0x2B}).eoi();
    return s;
}

TEST(MarkerParser, MinimalStreamOpens) {
    ReadHandle h(validGrey().bytes);
    EXPECT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
}

struct BadCase {
    const char *what;
    std::vector<uint8_t> stream;
    JpgStatus status;
};

std::vector<BadCase> malformedHeaders() {
    using S = StreamBuilder;
    auto tail = [](S &s) -> S & { return s.dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc); };
    std::vector<BadCase> cases;
    auto add = [&](const char *what, S s, JpgStatus status) {
        s.raw({0x2B}).eoi();
        cases.push_back({what, s.bytes, status});
    };
    std::vector<uint8_t> dqtPayload(65, 1);
    dqtPayload[0] = 0;
    { S s; s.soi().segment(0xDB, dqtPayload, -1); add("DQT length one short", s, JPG_STATUS_SEGMENT_LENGTH); }
    { S s; s.soi().segment(0xDB, dqtPayload, 10); add("DQT length past its tables", s, JPG_STATUS_SEGMENT_LENGTH); }
    { S s; s.soi().dqt(4); add("DQT identifier 4", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().segment(0xC4, S::dhtPayload(0x00, kLuminanceDc), -1); add("DHT length one short", s, JPG_STATUS_SEGMENT_LENGTH); }
    { S s; s.soi().dht(0x04, kLuminanceDc); add("DHT identifier 4", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dht(0x20, kLuminanceDc); add("DHT class 2", s, JPG_STATUS_BAD_DATA); }
    {
        std::vector<uint8_t> nine;
        for (uint8_t id : {0, 1, 2, 3, 0x10, 0x11, 0x12, 0x13, 0})
            for (uint8_t b : S::dhtPayload(id, id & 0x10 ? kLuminanceAc : kLuminanceDc))
                nine.push_back(b);
        S s; s.soi().segment(0xC4, nine); add("ninth Huffman table", s, JPG_STATUS_BAD_DATA);
    }
    {
        HuffmanSpec big{};
        big.bits[8] = 200;
        big.bits[9] = 56;
        big.values.assign(256, 1);
        S s; s.soi().dht(0x10, big); add("256 Huffman values", s, JPG_STATUS_BAD_DATA);
    }
    {
        HuffmanSpec over{};
        over.bits[0] = 3;
        over.values = {0, 1, 2};
        S s; s.soi().dht(0x00, over); add("overfull code lengths", s, JPG_STATUS_BAD_DATA);
    }
    { S s; s.soi().segment(0xDD, {0, 4, 0, 0}); add("DRI length 4", s, JPG_STATUS_SEGMENT_LENGTH); }
    { S s; s.soi().raw({0xFF, 0xFE, 0x00, 0x01}); add("segment length 1", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().raw({0xFF, 0x05}); add("reserved marker", s, JPG_STATUS_ERROR); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 0, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}); add("zero width", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x10, 0}}); tail(s).sos({{1, 0}}); add("zero vertical factor", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x01, 0}}); tail(s).sos({{1, 0}}); add("zero horizontal factor", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x15, 0}}); tail(s).sos({{1, 0}}); add("factor 5", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {}); tail(s).sos({{1, 0}}); add("no components", s, JPG_STATUS_BAD_DATA); }
    {
        std::vector<FrameComponent> five(5, {1, 0x11, 0});
        S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, five); tail(s).sos({{1, 0}}); add("five components", s, JPG_STATUS_BAD_DATA);
    }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 4}}); tail(s).sos({{1, 0}}); add("quantization selector 4", s, JPG_STATUS_BAD_DATA); }
    {
        S s; s.soi().dqt(0).segment(0xC0, {8, 0, 8, 0, 8, 1, 1, 0x11, 0}, 3); tail(s).sos({{1, 0}});
        add("SOF length", s, JPG_STATUS_BAD_DATA);
    }
    { S s; s.soi().dqt(0).sof(0xC2, 12, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}, 0, 0); add("12-bit progressive", s, JPG_STATUS_NOT_SUPPORTED); }
    { S s; s.soi().dqt(0).sof(0xC5, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}); add("differential frame", s, JPG_STATUS_NOT_SUPPORTED); }
    { S s; s.soi().dqt(0).sof(0xC9, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}); add("arithmetic frame", s, JPG_STATUS_NOT_SUPPORTED); }
    { S s; s.soi().dqt(0); tail(s).sos({{1, 0}}); add("scan without frame", s, JPG_STATUS_NOT_SUPPORTED); }
    {
        S s; s.soi().dqt(0).sof(0xC2, 8, 65535, 65535, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}, 0, 0);
        add("huge progressive frame", s, JPG_STATUS_NO_MEMORY);
    }
    {
        S s; s.soi().dqt(0).sof(0xC2, 8, 65535, 65535, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}});
        tail(s).sos({{1, 0}, {2, 0}, {3, 0}}, 0, 0);
        add("huge progressive 4:2:0 frame", s, JPG_STATUS_NO_MEMORY);
    }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({}); add("no scan components", s, JPG_STATUS_BAD_DATA); }
    {
        S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}});
        add("five scan components", s, JPG_STATUS_BAD_DATA);
    }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{9, 0}}); add("unknown component selector", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0x40}}); add("DC selector 4", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0x04}}); add("AC selector 4", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC2, 8, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0x11}}, 0, 0, 0); add("undefined progressive DC table", s, JPG_STATUS_BAD_DATA); }
    {
        S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}, {2, 0x11, 0}}); tail(s).sos({{2, 0}, {2, 0}});
        add("a component twice in the scan", s, JPG_STATUS_BAD_DATA);
    }
    { S s; s.soi().dqt(0).sof(0xC1, 7, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}); add("DCT precision 7", s, JPG_STATUS_BAD_DATA); }
    { S s; s.soi().dqt(0).sof(0xC1, 12, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}); add("DCT precision 12", s, JPG_STATUS_NOT_SUPPORTED); }
    { S s; s.soi().sof(0xC3, 17, 8, 8, {{1, 0x11, 0}}); tail(s).sos({{1, 0}}, 1, 0, 0); add("lossless precision 17", s, JPG_STATUS_BAD_DATA); }
    {
        S s; s.soi().dqt(0).sof(0xC0, 8, 8, 8, {{1, 0x11, 0}}); tail(s);
        s.raw({0xFF, 0xDA, 0x00, 0x0A, 1, 1, 0, 0, 63, 0, 0, 0});
        add("SOS length", s, JPG_STATUS_BAD_DATA);
    }
    return cases;
}

TEST(MarkerParser, MalformedHeadersGetTheirStatus) {
    for (const BadCase &c : malformedHeaders()) {
        ReadHandle h(c.stream);
        EXPECT_EQ(h.status, c.status) << c.what << ": " << hex(h.status);
        EXPECT_EQ(h.p, nullptr) << c.what;
    }
}

// Where each marker segment of a stream starts and ends (offsets of the
// marker's 0xFF and one past the payload), up to the first SOS.
std::vector<std::pair<size_t, size_t>> headerSegments(const std::vector<uint8_t> &b) {
    std::vector<std::pair<size_t, size_t>> segments;
    size_t at = 2;
    while (at + 4 <= b.size()) {
        size_t length = static_cast<size_t>(b[at + 2]) << 8 | b[at + 3];
        segments.push_back({at, at + 2 + length});
        if (b[at + 1] == 0xDA)
            break;
        at += 2 + length;
    }
    return segments;
}

TEST(MarkerParser, TruncationAtEveryHeaderByte) {
    std::vector<std::vector<uint8_t>> streams = {validGrey().bytes,
                                                 readFile(corpus("samples/testorig.jpg"))};
    for (const auto &full : streams) {
        auto segments = headerSegments(full);
        size_t headerEnd = segments.back().second;
        for (size_t cut = 1; cut < headerEnd; cut++) {
            std::vector<uint8_t> part(full.begin(), full.begin() + static_cast<long>(cut));
            bool hasEnd = false;
            for (size_t i = 1; i + 1 < part.size(); i++)
                hasEnd |= part[i] == 0xFF && part[i + 1] == 0xD9;
            ReadHandle searched(part);
            if (!hasEnd)
                EXPECT_EQ(searched.status, JPG_STATUS_BAD_DATA) << "cut at " << cut;
            EXPECT_EQ(searched.p == nullptr, searched.status != JPG_STATUS_OK);
            // Without the EOI search the parser meets the end itself: inside a
            // marker code or between segments the marker search ends; inside
            // a length field or a payload the read runs past the end.
            JpgStatus expected = cut < 2 ? JPG_STATUS_BAD_DATA : JPG_STATUS_END_OF_STREAM;
            for (auto [start, end] : segments)
                if (cut > start + 1 && cut < end)
                    expected = JPG_STATUS_UNEXPECTED_END;
            ReadHandle unsearched(part, 4);
            EXPECT_EQ(unsearched.status, expected) << "cut at " << cut << ": " << hex(unsearched.status);
            EXPECT_EQ(unsearched.p, nullptr);
        }
    }
}

TEST(MarkerParser, QuantizationGetters) {
    ReadHandle h(readFile(corpus("samples/testorig.jpg")));
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    uint32_t table[64];
    EXPECT_EQ(jpgReadGetQuantizationTable(h.p, 4, table), JPG_STATUS_FAILED);
    EXPECT_EQ(jpgReadGetQuantizationTable(h.p, 0, nullptr), JPG_STATUS_INVALID_HANDLE);
    uint32_t v0 = 0, v1 = 0;
    ASSERT_EQ(jpgReadGetQuantizationTableNR(h.p, &v0, &v1), JPG_STATUS_OK);
    EXPECT_EQ(v0, h.p->quant[h.p->components[0].quantSelector][63]);
    EXPECT_EQ(v1, h.p->quant[h.p->components[1].quantSelector][63]);
    uint32_t w;
    EXPECT_EQ(jpgReadGetImageSize(h.p, &w, nullptr), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetCodingProcess(nullptr, &w), JPG_STATUS_INVALID_HANDLE);
    ReadHandle grey(validGrey().bytes);
    EXPECT_EQ(jpgReadGetQuantizationTableNR(grey.p, &v0, &v1), JPG_STATUS_ERROR);
}

}  // namespace

namespace {

// Random byte errors in the headers: every outcome is one of the documented
// statuses, and a stream that opens also decodes without harm.
TEST(MarkerParser, DamagedHeadersFailCleanly) {
    const std::set<JpgStatus> known = {
        JPG_STATUS_OK, JPG_STATUS_FAILED, JPG_STATUS_NO_MEMORY, JPG_STATUS_END_OF_STREAM,
        JPG_STATUS_NOT_SUPPORTED, JPG_STATUS_BAD_DATA, JPG_STATUS_UNEXPECTED_END,
        JPG_STATUS_BAD_DC_CODE, JPG_STATUS_BAD_AC_CODE, JPG_STATUS_SEGMENT_LENGTH, JPG_STATUS_ERROR};
    uint32_t seed = 11;
    int opened = 0;
    for (const char *name : {"samples/testorig.jpg", "conformance/A1.jpg"}) {
        std::vector<uint8_t> original = readFile(corpus(name));
        size_t header;
        {
            ReadHandle h(original);
            header = h.p->firstScanOffset;
        }
        for (int round = 0; round < 150; round++) {
            std::vector<uint8_t> bad = original;
            for (int i = 0; i <= round % 3; i++) {
                seed = seed * 1103515245 + 12345;
                bad[2 + (seed >> 8) % (header - 2)] = static_cast<uint8_t>(seed >> 20);
            }
            ReadHandle h(bad);
            EXPECT_TRUE(known.count(h.status)) << name << " round " << round << ": " << hex(h.status);
            if (h.p == nullptr)
                continue;
            opened++;
            if (h.p->width > 4096 || h.p->height > 4096)
                continue;  // a corrupted size only costs time
            Image image = blankImage(h.p);
            if (image.channels == 0 || image.pixels.empty())
                continue;
            ComplibRect r = rectFor(image);
            EXPECT_TRUE(known.count(jpgReadToRect(h.p, &r, h.p->height))) << name << " round " << round;
        }
    }
    std::printf("damaged headers that still opened: %d of 300\n", opened);
}

}  // namespace

namespace {

TEST(MarkerParser, HeaderParsedAgainReplacesTheBuffers) {
    std::vector<uint8_t> bytes = readFile(corpus("samples/testorig.jpg"));
    ReadHandle h(bytes);
    Image first, second;
    ASSERT_EQ(decodeWhole(h.p, &first), JPG_STATUS_OK);
    ASSERT_EQ(jpgReadRewindJPEGFile(h.p, 2, 1), JPG_STATUS_OK);
    ASSERT_EQ(jpgReadProlog(h.p), JPG_STATUS_OK);
    ASSERT_EQ(decodeWhole(h.p, &second), JPG_STATUS_OK);
    EXPECT_TRUE(first.pixels == second.pixels);
}

}  // namespace
