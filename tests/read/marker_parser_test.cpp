// Marker parser: header getters against the listings that come with the
// T.83 streams; the prologs' arguments and the EOI search; MCU geometry;
// one specific status for every kind of malformed header (truncation at
// every header byte: decode_driver_test.cpp).
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <regex>
#include <sstream>

#include "core/tables.h"
#include "stream_builder.h"
#include "test_support.h"

namespace {

using namespace kivtest;

// What the listing of a T.83 stream states.
struct Listing {
    uint32_t sof = 0, precision = 0, width = 0, height = 0, nf = 0, restart = 0;
    std::vector<uint32_t> ids, sampling, tq;
    std::map<int, std::vector<uint32_t>> qtables;  // natural order
};

// Each pattern fills its fields from the matched groups.
Listing parseListing(const std::string &text) {
    Listing l;
    std::istringstream in(text);
    std::smatch m;
    int qtable = -1;
    const std::regex frame(R"(SOF\d+\(ff(c[0-9a-f])\).*P=(\d+) Y=(\d+) X=(\d+) Nf=(\d+))");
    for (std::string line; std::getline(in, line);) {
        if (std::regex_search(line, m, frame)) {
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
            l.qtables[qtable = std::stoi(m[1])].clear();
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

// The header getters of the T.83 streams against their listings (photographs
// and samples: their decodes against djpeg in decode_driver_test.cpp).
TEST(MarkerParser, ConformanceHeadersMatchTheirListings) {
    for (const char *name : {"A1", "C1", "C2", "O1", "O2"}) {
        SCOPED_TRACE(name);
        Bytes text = readFile(corpus(std::string("conformance/") + name + ".txt"));
        Listing l = parseListing(std::string(text.begin(), text.end()));
        ASSERT_EQ(l.ids.size(), 4u);
        ReadHandle h(readFile(corpus(std::string("conformance/") + name + ".jpg")));
        ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
        JpgParam *p = h.p;
        uint32_t width, height, value, mcuW, mcuH;
        ASSERT_EQ(jpgReadGetImageSize(p, &width, &height), JPG_STATUS_OK);
        EXPECT_EQ(width, l.width);
        EXPECT_EQ(height, l.height);
        ASSERT_EQ(jpgReadGetNumberOfChannels(p, &value), JPG_STATUS_OK);
        EXPECT_EQ(value, l.nf);
        ASSERT_EQ(jpgReadGetCodingProcess(p, &value), JPG_STATUS_OK);
        EXPECT_EQ(value, 0x8000u >> (l.sof - 0xFFC0));
        ASSERT_EQ(jpgReadGetSamplePrecision(p, &value), JPG_STATUS_OK);
        EXPECT_EQ(value, l.precision);
        ASSERT_EQ(jpgReadGetRestartInterval(p, &value), JPG_STATUS_OK);
        EXPECT_EQ(value, l.restart);
        uint32_t packed = 0, hmax = 0, vmax = 0;
        for (uint32_t s : l.sampling) {
            packed = packed << 8 | s;
            hmax = std::max(hmax, s >> 4);
            vmax = std::max(vmax, s & 15);
        }
        ASSERT_EQ(jpgReadGetSubsamplingFactor(p, &value), JPG_STATUS_OK);
        EXPECT_EQ(value, packed);
        ASSERT_EQ(jpgReadGetMcuSize(p, &mcuW, &mcuH), JPG_STATUS_OK);
        EXPECT_EQ(mcuW, 8 * hmax);
        EXPECT_EQ(mcuH, 8 * vmax);
        uint32_t selectors[4] = {};
        ASSERT_EQ(jpgReadGetQuantizationTableSelector(p, selectors), JPG_STATUS_OK);
        for (size_t c = 0; c < l.ids.size(); c++) {
            EXPECT_EQ(selectors[c], l.ids[c]);
            uint32_t table[64];
            ASSERT_EQ(jpgReadGetQuantizationTable(p, uint32_t(c), table), JPG_STATUS_OK);
            auto q = l.qtables.find(int(l.tq[c]));
            for (int k = 0; q != l.qtables.end() && k < 64; k++)
                EXPECT_EQ(table[k], q->second[kiv::kZigzag[k]]) << "component " << c << " zig-zag " << k;
        }
    }
}

// The search for EOI reads the stream backwards a block of 64 KiB at a
// time: a stream followed by data of any length opens from memory and from
// a file at an offset (with or without its length), EOI across a block
// boundary included; without EOI anywhere it is refused unless the search
// is off (flags bit 2).
TEST(MarkerParser, EndOfImageBehindTrailingData) {
    Bytes jpeg = readFile(corpus("samples/testorig.jpg"));
    std::string path = tempPath("trailer.jpg");
    JpgParam *p = nullptr;
    uint32_t w = 0, h = 0;
    for (size_t trailer : {0, 1, 65534, 65535, 65536, 200000}) {
        SCOPED_TRACE(trailer);
        Bytes file(100 + jpeg.size() + trailer, 0x55);
        std::fill_n(file.begin(), 100, 0xFF);
        std::copy(jpeg.begin(), jpeg.end(), file.begin() + 100);
        writeFile(path, file);
        for (int32_t length : {0, int32_t(jpeg.size())}) {
            ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 100, length, 0, &p), JPG_STATUS_OK);
            jpgReadGetImageSize(p, &w, &h);
            EXPECT_EQ(w * h, 227u * 149u);
            EXPECT_EQ(jpgReadEpilog(p), JPG_STATUS_OK);
        }
        EXPECT_EQ(ReadHandle(Bytes(file.begin() + 100, file.end())).status, JPG_STATUS_OK);
        file[100 + jpeg.size() - 1] = 0xD8;  // the only EOI gone
        writeFile(path, file);
        EXPECT_EQ(jpgReadPrologFromFile(path.c_str(), 100, 0, 0x2, &p), JPG_STATUS_BAD_DATA);
        ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 100, 0, 0x4, &p), JPG_STATUS_OK);
        jpgReadEpilog(p);
    }
}

TEST(MarkerParser, PrologArguments) {
    Bytes jpeg = readFile(corpus("samples/testorig.jpg"));
    std::string path = tempPath("prolog.jpg");
    writeFile(path, jpeg);
    const std::string tooLong(300, 'a'), missing = tempPath("missing.jpg");
    const struct {
        const char *file;
        int32_t offset, length;
        JpgStatus status;
    } files[] = {{tooLong.c_str(), 0, 0, JPG_STATUS_INVALID_PARAMETER},  // more than the handle holds
                 {missing.c_str(), 0, 0, JPG_STATUS_FILE_OPEN_FAILED},
                 {path.c_str(), 0, int32_t(jpeg.size()) + 1, JPG_STATUS_INVALID_PARAMETER},
                 {path.c_str(), -1, 0, JPG_STATUS_INVALID_PARAMETER},
                 {nullptr, 0, 0, JPG_STATUS_INVALID_HANDLE}};
    JpgParam *p = reinterpret_cast<JpgParam *>(1);
    for (const auto &c : files) {
        EXPECT_EQ(jpgReadPrologFromFile(c.file, c.offset, c.length, 0, &p), c.status) << (c.file ? c.file : "null");
        EXPECT_EQ(p, nullptr);
    }
    EXPECT_EQ(jpgReadPrologFromMemory(nullptr, 10, 0, &p), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadPrologFromMemory(jpeg.data(), 0, 0, &p), JPG_STATUS_INVALID_PARAMETER);
    Bytes noEnd(jpeg.begin(), jpeg.end() - 2);
    for (int32_t flags : {0, 2, 4}) {
        ReadHandle h(noEnd, flags);
        EXPECT_EQ(h.status, flags ? JPG_STATUS_OK : JPG_STATUS_BAD_DATA) << flags;
        if (h.p != nullptr)
            EXPECT_EQ(h.p->mode & (kModeMemory | kModePartial), kModeMemory | (flags & 2 ? kModePartial : 0));
    }
}

// MCU geometry of a 4:2:0 frame of 50 x 100; a single component is coded
// one block per MCU whatever its factors.
TEST(MarkerParser, McuGeometry) {
    const std::vector<FrameComponent> colour = {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}}, grey = {{1, 0x22, 0}};
    for (const auto &comps : {colour, grey}) {
        StreamBuilder s;
        s.soi().dqt(0).sof(0xC0, 8, 50, 100, comps).dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc);
        std::vector<ScanComponent> scan;
        for (const FrameComponent &c : comps)
            scan.push_back({c.id, 0x00});
        ReadHandle h(s.sos(scan).raw({0}).eoi().bytes);
        ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
        uint32_t w, hgt, factor;
        jpgReadGetMcuSize(h.p, &w, &hgt);
        jpgReadGetSubsamplingFactor(h.p, &factor);
        bool g = comps.size() == 1;
        EXPECT_EQ(w * hgt, g ? 64u : 256u);
        EXPECT_EQ(factor, g ? 0x11u : 0x221111u);
        EXPECT_EQ(h.p->totalMcus, g ? 13u * 7u : 7u * 4u);
        EXPECT_EQ(h.p->blocksPerMcu, g ? 1u : 6u);
        EXPECT_EQ(h.p->firstScanOffset, s.bytes.size() - 3);
    }
}

TEST(MarkerParser, ApplicationSegmentsAndColourSpace) {
    Bytes jfif = {'J', 'F', 'I', 'F', 0, 1, 2, 1, 0, 72, 0, 72, 0, 0};
    Bytes adobe = {'A', 'd', 'o', 'b', 'e', 0, 100, 0, 0, 0, 0, 0};
    const struct {
        Bytes app0, app14;
        uint8_t ids[3];
        bool ycc;
    } cases[] = {
        {jfif, {}, {'R', 'G', 'B'}, true},
        {{}, adobe, {1, 2, 3}, false},  // transform 0: RGB
        {{}, {}, {'R', 'G', 'B'}, false},
        {{}, {}, {1, 2, 3}, true},
    };
    for (const auto &c : cases) {
        StreamBuilder s;
        s.soi();
        if (!c.app0.empty())
            s.segment(0xE0, c.app0);
        if (!c.app14.empty())
            s.segment(0xEE, c.app14);
        s.dqt(0).sof(0xC0, 8, 8, 8, {{c.ids[0], 0x11, 0}, {c.ids[1], 0x11, 0}, {c.ids[2], 0x11, 0}})
            .dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc).sos({{c.ids[0], 0}, {c.ids[1], 0}, {c.ids[2], 0}})
            .raw({0}).eoi();
        ReadHandle h(s.bytes);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        EXPECT_EQ((h.p->mode & kModeYCbCr) != 0, c.ycc);
        EXPECT_EQ((h.p->mode & kModeJfif) != 0, !c.app0.empty());
        EXPECT_EQ((h.p->mode & kModeAdobe) != 0, !c.app14.empty());
        if (!c.app0.empty())  // units 1, 72 x 72
            EXPECT_EQ((std::array<int, 3>{h.p->densityUnits, h.p->xDensity, h.p->yDensity}),
                      (std::array<int, 3>{1, 72, 72}));
    }
}

// A valid 8x8 grey stream: one block, DC difference 0 ("00"), EOB ("1010").
Bytes validGrey() {
    StreamBuilder s;
    return s.greyHeader(8, 8).raw({0x2B}).eoi().bytes;
}

struct BadCase {
    const char *what;
    Bytes stream;
    JpgStatus status;
};

std::vector<BadCase> malformedStreams() {
    using S = StreamBuilder;
    const std::vector<FrameComponent> grey = {{1, 0x11, 0}};
    std::vector<BadCase> cases;
    // A header behind SOI (`head`), then the Annex K tables, a scan and one block.
    auto add = [&](const char *what, JpgStatus status, auto head, std::vector<ScanComponent> scan = {{1, 0}},
                   uint8_t ss = 0, uint8_t se = 63) {
        S s;
        s.soi();
        head(s);
        s.dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc).sos(scan, ss, se).raw({0x2B}).eoi();
        cases.push_back({what, s.bytes, status});
    };
    auto frame = [&](uint8_t code, uint8_t precision, uint16_t width, std::vector<FrameComponent> comps) {
        return [=](S &s) { s.dqt(0).sof(code, precision, 8, width, comps); };
    };
    Bytes dqtPayload(65, 1);
    dqtPayload[0] = 0;
    cases.push_back({"valid", validGrey(), JPG_STATUS_OK});
    cases.push_back({"no SOI", {0xFF, 0xD9, 0xFF, 0xD9}, JPG_STATUS_BAD_DATA});
    cases.push_back({"SOI only, no EOI", {0xFF, 0xD8, 0x00, 0x00}, JPG_STATUS_BAD_DATA});
    add("DQT length one short", JPG_STATUS_SEGMENT_LENGTH, [&](S &s) { s.segment(0xDB, dqtPayload, -1); });
    add("DQT length past its tables", JPG_STATUS_SEGMENT_LENGTH, [&](S &s) { s.segment(0xDB, dqtPayload, 10); });
    add("DQT identifier 4", JPG_STATUS_BAD_DATA, [](S &s) { s.dqt(4); });
    add("DHT length one short", JPG_STATUS_SEGMENT_LENGTH,
        [](S &s) { s.segment(0xC4, S::dhtPayload(0x00, kLuminanceDc), -1); });
    add("DHT identifier 4", JPG_STATUS_BAD_DATA, [](S &s) { s.dht(0x04, kLuminanceDc); });
    add("DHT class 2", JPG_STATUS_BAD_DATA, [](S &s) { s.dht(0x20, kLuminanceDc); });
    add("ninth Huffman table", JPG_STATUS_BAD_DATA, [](S &s) {
        Bytes nine;
        for (uint8_t id : {0, 1, 2, 3, 0x10, 0x11, 0x12, 0x13, 0})
            for (uint8_t b : S::dhtPayload(id, id & 0x10 ? kLuminanceAc : kLuminanceDc))
                nine.push_back(b);
        s.segment(0xC4, nine);
    });
    add("256 Huffman values", JPG_STATUS_BAD_DATA, [](S &s) {
        HuffmanDefinition big{};
        big.bits[8] = 200;
        big.bits[9] = 56;
        big.values.assign(256, 1);
        s.dht(0x10, big);
    });
    add("DHT values running past the segment", JPG_STATUS_SEGMENT_LENGTH, [](S &s) {
        Bytes p{0x01, 0, 0, 4};
        p.insert(p.end(), 14, 0);  // one of the four values
        s.segment(0xC4, p);
    });
    add("DRI length 4", JPG_STATUS_SEGMENT_LENGTH, [](S &s) { s.segment(0xDD, {0, 4, 0, 0}); });
    add("segment length 1", JPG_STATUS_BAD_DATA, [](S &s) { s.raw({0xFF, 0xFE, 0x00, 0x01}); });
    add("reserved marker", JPG_STATUS_ERROR, [](S &s) { s.raw({0xFF, 0x05}); });
    add("zero width", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 0, grey));
    add("zero vertical factor", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, {{1, 0x10, 0}}));
    add("zero horizontal factor", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, {{1, 0x01, 0}}));
    add("factor 5", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, {{1, 0x15, 0}}));
    add("no components", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, {}));
    add("five components", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, std::vector<FrameComponent>(5, {1, 0x11, 0})));
    add("quantization selector 4", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, {{1, 0x11, 4}}));
    add("SOF length", JPG_STATUS_BAD_DATA, [](S &s) { s.dqt(0).segment(0xC0, {8, 0, 8, 0, 8, 1, 1, 0x11, 0}, 3); });
    add("12-bit progressive", JPG_STATUS_NOT_SUPPORTED, frame(0xC2, 12, 8, grey), {{1, 0}}, 0, 0);
    add("differential frame", JPG_STATUS_NOT_SUPPORTED, frame(0xC5, 8, 8, grey));
    add("arithmetic frame", JPG_STATUS_NOT_SUPPORTED, frame(0xC9, 8, 8, grey));
    add("scan without frame", JPG_STATUS_NOT_SUPPORTED, [](S &s) { s.dqt(0); });
    add("DCT precision 7", JPG_STATUS_BAD_DATA, frame(0xC1, 7, 8, grey));
    add("DCT precision 12", JPG_STATUS_NOT_SUPPORTED, frame(0xC1, 12, 8, grey));
    add("zero-width lossless", JPG_STATUS_BAD_DATA, [](S &s) { s.sof(0xC3, 8, 8, 0, {{1, 0x11, 0}}); }, {{1, 0}}, 1, 0);
    add("huge progressive frame", JPG_STATUS_NO_MEMORY, [](S &s) { s.dqt(0).sof(0xC2, 8, 65535, 65535, {{1, 0x11, 0}}); },
        {{1, 0}}, 0, 0);
    add("huge progressive 4:2:0 frame", JPG_STATUS_NO_MEMORY,
        [](S &s) { s.dqt(0).sof(0xC2, 8, 65535, 65535, {{1, 0x22, 0}, {2, 0x11, 0}, {3, 0x11, 0}}); },
        {{1, 0}, {2, 0}, {3, 0}}, 0, 0);
    add("no scan components", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, grey), {});
    add("five scan components", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, grey), {{1, 0}, {2, 0}, {3, 0}, {4, 0}, {5, 0}});
    add("unknown component selector", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, grey), {{9, 0}});
    add("DC selector 4", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, grey), {{1, 0x40}});
    add("AC selector 4", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, grey), {{1, 0x04}});
    add("undefined progressive DC table", JPG_STATUS_BAD_DATA, frame(0xC2, 8, 8, grey), {{1, 0x11}}, 0, 0);
    add("a component twice in the scan", JPG_STATUS_BAD_DATA, frame(0xC0, 8, 8, {{1, 0x11, 0}, {2, 0x11, 0}}),
        {{2, 0}, {2, 0}});
    S sosLength;
    sosLength.soi().dqt(0).sof(0xC0, 8, 8, 8, grey).dht(0x00, kLuminanceDc).dht(0x10, kLuminanceAc)
        .raw({0xFF, 0xDA, 0x00, 0x0A, 1, 1, 0, 0, 63, 0, 0, 0, 0xFF, 0xD9});
    cases.push_back({"SOS length", sosLength.bytes, JPG_STATUS_BAD_DATA});
    for (const auto &[file, status] : {std::pair{"conformance/B1.jpg", JPG_STATUS_END_OF_STREAM},  // tables only
                                       {"conformance/B2.jpg", JPG_STATUS_BAD_DATA},            // 255 components
                                       {"samples/testimgari.jpg", JPG_STATUS_NOT_SUPPORTED},   // arithmetic (SOF9)
                                       {"conformance/E1.jpg", JPG_STATUS_NOT_SUPPORTED},       // 12-bit DCT
                                       {"samples/monkey12.jpg", JPG_STATUS_NOT_SUPPORTED}})
        cases.push_back({file, readFile(corpus(file)), status});
    return cases;
}

TEST(MarkerParser, MalformedHeadersGetTheirStatus) {
    for (const BadCase &c : malformedStreams()) {
        ReadHandle h(c.stream);
        EXPECT_EQ(h.status, c.status) << c.what << ": " << hex(h.status);
        EXPECT_EQ(h.p == nullptr, c.status != JPG_STATUS_OK) << c.what;
    }
}

TEST(MarkerParser, QuantizationGettersAndReparsing) {
    Bytes bytes = readFile(corpus("samples/testorig.jpg"));
    ReadHandle h(bytes);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    uint32_t table[64], v0 = 0, v1 = 0;
    EXPECT_EQ(jpgReadGetQuantizationTable(h.p, 4, table), JPG_STATUS_FAILED);
    EXPECT_EQ(jpgReadGetQuantizationTable(h.p, 0, nullptr), JPG_STATUS_INVALID_HANDLE);
    ASSERT_EQ(jpgReadGetQuantizationTableNR(h.p, &v0, &v1), JPG_STATUS_OK);
    EXPECT_EQ(v0, h.p->quant[h.p->components[0].quantSelector][63]);
    EXPECT_EQ(v1, h.p->quant[h.p->components[1].quantSelector][63]);
    for (JpgStatus (*getPair)(JpgParam *, uint32_t *, uint32_t *) : {jpgReadGetImageSize, jpgReadGetMcuSize}) {
        EXPECT_EQ(getPair(h.p, &v0, nullptr), JPG_STATUS_INVALID_HANDLE);  // either output missing
        EXPECT_EQ(getPair(h.p, nullptr, &v0), JPG_STATUS_INVALID_HANDLE);
    }
    EXPECT_EQ(jpgReadGetCodingProcess(nullptr, &v0), JPG_STATUS_INVALID_HANDLE);
    EXPECT_EQ(jpgReadGetQuantizationTableNR(ReadHandle(validGrey()).p, &v0, &v1), JPG_STATUS_ERROR);
    // The header parsed again replaces the buffers: the same pixels.
    Image first = decodeOpen(h.p).image;
    ASSERT_EQ(jpgReadRewindJPEGFile(h.p, 2, 1), JPG_STATUS_OK);
    ASSERT_EQ(jpgReadProlog(h.p), JPG_STATUS_OK);
    Decoded second = decodeOpen(h.p);
    EXPECT_EQ(second.status, JPG_STATUS_OK);
    EXPECT_TRUE(first == second.image);
}

}  // namespace
