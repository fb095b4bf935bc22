// The kivjpeg command-line tool, run as a program: info against an
// independent marker walk and the T.83 listings on every corpus stream,
// decode and encode round trips with djpeg as an oracle, and one test per
// option that fails if the option were ignored.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

#include "cmyk_helpers.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using kivtest::corpus;
using kivtest::readFile;
using kivtest::tempPath;

std::string tool() { return KIV_TOOL; }
bool toolHasPng() { return KIV_TOOL_PNG != 0; }

// Runs the tool; stdout and stderr together in *out.
int kiv(const std::string &args, std::string *out = nullptr) {
    return kivtest::run(tool() + " " + args + " 2>&1", out);
}

// ------------------------------------------------ independent JPEG walker

struct Seg {
    uint16_t marker;
    uint32_t length;  // length field (0 for SOI, EOI, RSTn)
    std::vector<uint8_t> payload;
};

std::vector<Seg> walkJpeg(const std::vector<uint8_t> &b, uint32_t *restarts = nullptr) {
    std::vector<Seg> list;
    size_t i = 0;
    uint32_t rst = 0;
    while (i + 1 < b.size()) {
        if (b[i] != 0xFF || b[i + 1] == 0 || b[i + 1] == 0xFF) {
            i++;
            continue;
        }
        uint16_t m = uint16_t(0xFF00 | b[i + 1]);
        i += 2;
        if (m >= 0xFFD0 && m <= 0xFFD7) {
            rst++;
            continue;
        }
        if (m == 0xFFD8 || m == 0xFFD9) {
            list.push_back({m, 0, {}});
            if (m == 0xFFD9)
                break;
            continue;
        }
        if (i + 2 > b.size())
            break;
        uint32_t len = uint32_t(b[i] << 8 | b[i + 1]);
        size_t end = std::min(b.size(), i + len);
        list.push_back({m, len, std::vector<uint8_t>(b.begin() + long(i) + 2, b.begin() + long(end))});
        i = end;
    }
    if (restarts != nullptr)
        *restarts = rst;
    return list;
}

struct Frame {
    uint16_t sof = 0;
    uint32_t precision = 0, height = 0, width = 0, components = 0;
    std::vector<uint8_t> sampling;
};

Frame frameOf(const std::vector<Seg> &segs) {
    Frame f;
    for (auto &s : segs)
        if (s.marker >= 0xFFC0 && s.marker <= 0xFFCF && s.marker != 0xFFC4 && s.marker != 0xFFC8 &&
            s.marker != 0xFFCC && s.payload.size() >= 6) {
            f.sof = s.marker;
            f.precision = s.payload[0];
            f.height = uint32_t(s.payload[1] << 8 | s.payload[2]);
            f.width = uint32_t(s.payload[3] << 8 | s.payload[4]);
            f.components = s.payload[5];
            for (uint32_t c = 0; c < f.components && 8 + 3 * c < s.payload.size(); c++)
                f.sampling.push_back(s.payload[7 + 3 * c]);
            break;
        }
    return f;
}

// ------------------------------------------------ JSON through python3

// Flattens the tool's JSON into "path=value" lines, e.g. "segments.3.name=DQT".
std::map<std::string, std::string> infoJson(const std::string &file, int *rc = nullptr) {
    std::string out;
    std::string py =
        "import json,sys\n"
        "def walk(p,v):\n"
        "  if isinstance(v,dict):\n"
        "    [walk(p+[k],x) for k,x in v.items()]\n"
        "  elif isinstance(v,list):\n"
        "    print('.'.join(p+['count'])+'='+str(len(v)))\n"
        "    [walk(p+[str(i)],x) for i,x in enumerate(v)]\n"
        "  else: print('.'.join(p)+'='+str(v))\n"
        "walk([],json.load(sys.stdin))\n";
    std::string script = tempPath("flatten.py");
    std::ofstream(script) << py;
    int status = kivtest::run(tool() + " info '" + file + "' --json | python3 " + script, &out);
    if (rc != nullptr)
        *rc = status;
    std::map<std::string, std::string> map;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) {
        auto eq = line.find('=');
        if (eq != std::string::npos)
            map[line.substr(0, eq)] = line.substr(eq + 1);
    }
    return map;
}

// ------------------------------------------------ images

struct Pnm {
    uint32_t width = 0, height = 0, channels = 0, maxval = 0;
    std::vector<uint8_t> data;
    std::string tupleType;  // PAM only
};

// Binary PGM, PPM or PAM.
Pnm readPnm(const std::string &path) {
    Pnm p;
    std::vector<uint8_t> b = readFile(path);
    std::string head(b.begin(), b.begin() + long(std::min<size_t>(b.size(), 128)));
    std::istringstream in(head);
    std::string magic;
    in >> magic;
    if (magic == "P7") {
        std::map<std::string, uint32_t *> fields = {
            {"WIDTH", &p.width}, {"HEIGHT", &p.height}, {"DEPTH", &p.channels}, {"MAXVAL", &p.maxval}};
        for (std::string key; in >> key && key != "ENDHDR";)
            if (key == "TUPLTYPE")
                in >> p.tupleType;
            else if (fields.count(key))
                in >> *fields[key];
    } else {
        in >> p.width >> p.height >> p.maxval;
        p.channels = magic == "P6" ? 3 : magic == "P5" ? 1 : 0;
    }
    size_t offset = size_t(in.tellg()) + 1;
    if (p.channels != 0 && offset <= b.size())
        p.data.assign(b.begin() + long(offset), b.end());
    return p;
}

void writePnm(const std::string &path, const Pnm &p) {
    std::ofstream out(path, std::ios::binary);
    out << (p.channels == 3 ? "P6\n" : "P5\n") << p.width << " " << p.height << "\n" << p.maxval << "\n";
    out.write(reinterpret_cast<const char *>(p.data.data()), long(p.data.size()));
}

// Largest sample difference reported by `kivjpeg compare`; -1 on failure.
int maxDifference(const std::string &a, const std::string &b) {
    std::string out;
    std::smatch m;
    if (kiv("compare '" + a + "' '" + b + "'", &out) != 0 ||
        !std::regex_search(out, m, std::regex("max difference ([0-9]+)")))
        return -1;
    return std::stoi(m[1]);
}

// PSNR reported by `kivjpeg compare`; +inf for identical images, NaN on failure.
double psnr(const std::string &a, const std::string &b) {
    std::string out;
    if (kiv("compare '" + a + "' '" + b + "'", &out) != 0)
        return NAN;
    if (out.find("identical") != std::string::npos)
        return INFINITY;
    std::smatch m;
    if (std::regex_search(out, m, std::regex("PSNR ([0-9.]+) dB")))
        return std::stod(m[1]);
    return NAN;
}

std::vector<std::string> corpusJpegs() {
    std::vector<std::string> files;
    for (const char *dir : {"samples", "conformance"})
        for (auto &e : fs::directory_iterator(corpus(dir)))
            if (e.path().extension() == ".jpg")
                files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

// The library opens Huffman-coded non-hierarchical frames with up to four
// components, DCT frames only at 8 bits.
bool libraryOpens(const std::string &file) {
    Frame f = frameOf(walkJpeg(readFile(file)));
    return f.sof >= 0xFFC0 && f.sof <= 0xFFC3 && f.components <= 4 &&
           (f.sof == 0xFFC3 || f.precision == 8);  // 12-bit DCT frames are refused
}

// ================================================================= info

TEST(ToolInfo, MatchesAnIndependentMarkerWalkOnEveryCorpusStream) {
    for (const std::string &file : corpusJpegs()) {
        SCOPED_TRACE(file);
        std::vector<uint8_t> bytes = readFile(file);
        uint32_t restarts = 0;
        std::vector<Seg> segs = walkJpeg(bytes, &restarts);
        Frame f = frameOf(segs);
        int rc = 0;
        auto info = infoJson(file, &rc);
        if (!libraryOpens(file)) {
            std::string out;
            EXPECT_EQ(kiv("info '" + file + "'", &out), 1);
            EXPECT_NE(out.find("JPG_STATUS_"), std::string::npos) << out;
            continue;
        }
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(info["width"], std::to_string(f.width));
        EXPECT_EQ(info["height"], std::to_string(f.height));
        EXPECT_EQ(info["precision"], std::to_string(f.precision));
        EXPECT_EQ(info["components.count"], std::to_string(f.components));
        EXPECT_EQ(info["frame"], "SOF" + std::to_string(f.sof - 0xFFC0));
        for (uint32_t c = 0; c < f.components; c++) {
            uint32_t s = f.components == 1 ? 0x11 : f.sampling[c];
            EXPECT_EQ(info["components." + std::to_string(c) + ".h"], std::to_string(s >> 4));
            EXPECT_EQ(info["components." + std::to_string(c) + ".v"], std::to_string(s & 15));
        }
        ASSERT_EQ(info["segments.count"], std::to_string(segs.size()));
        for (size_t i = 0; i < segs.size(); i++) {
            std::string k = "segments." + std::to_string(i);
            char code[8];
            snprintf(code, sizeof code, "%04X", segs[i].marker);
            EXPECT_EQ(info[k + ".marker"], code);
            EXPECT_EQ(info[k + ".length"], std::to_string(segs[i].length));
        }
        EXPECT_EQ(info["restart_markers"], std::to_string(restarts));
        // Every scan header, as the walk reads it.
        size_t n = 0;
        for (auto &seg : segs) {
            if (seg.marker != 0xFFDA)
                continue;
            std::string k = "scans." + std::to_string(n++);
            uint32_t ns = seg.payload[0];
            EXPECT_EQ(info[k + ".components.count"], std::to_string(ns));
            EXPECT_EQ(info[k + ".components.0"], std::to_string(seg.payload[1]));
            EXPECT_EQ(info[k + ".ss"], std::to_string(seg.payload[1 + 2 * ns]));
            EXPECT_EQ(info[k + ".se"], std::to_string(seg.payload[2 + 2 * ns]));
            EXPECT_EQ(info[k + ".al"], std::to_string(seg.payload[3 + 2 * ns] & 15));
        }
        EXPECT_EQ(info["scans.count"], std::to_string(n));
    }
}

TEST(ToolInfo, RefusesEveryOtherCorpusFileByName) {
    for (const char *dir : {"samples", "conformance"})
        for (auto &e : fs::directory_iterator(corpus(dir))) {
            if (e.path().extension() == ".jpg")
                continue;
            std::string out;
            EXPECT_EQ(kiv("info '" + e.path().string() + "'", &out), 1) << e.path();
            EXPECT_NE(out.find("JPG_STATUS_BAD_DATA"), std::string::npos) << out;
            EXPECT_NE(out.find("not a JPEG file"), std::string::npos) << out;
        }
}

TEST(ToolInfo, AgreesWithTheConformanceListings) {
    std::regex line(R"(^\s*\d+\s+([A-Z]+[0-9]*)\s*\((?:ff)*(ff[0-9a-f]{2})\)\s*(?:L[a-z]=(\d+))?)");
    for (const char *name : {"A1", "C1", "C2", "O1", "O2"}) {  // E1, E2: 12-bit, refused
        SCOPED_TRACE(name);
        std::ifstream listing(corpus(std::string("conformance/") + name + ".txt"));
        std::vector<std::pair<std::string, std::string>> expected;
        std::string text;
        std::smatch m;
        while (std::getline(listing, text))
            if (std::regex_search(text, m, line) && m[1].str().compare(0, 3, "RST") != 0)
                expected.push_back({m[2].str(), m[3].matched ? m[3].str() : "0"});
        auto info = infoJson(corpus(std::string("conformance/") + name + ".jpg"));
        ASSERT_EQ(info["segments.count"], std::to_string(expected.size()));
        for (size_t i = 0; i < expected.size(); i++) {
            std::string marker = info["segments." + std::to_string(i) + ".marker"];
            for (auto &ch : marker)
                ch = char(tolower(ch));
            EXPECT_EQ(marker, expected[i].first) << i;
            EXPECT_EQ(info["segments." + std::to_string(i) + ".length"], expected[i].second) << i;
        }
    }
}

TEST(ToolInfo, TextListsHeaderTablesAndSegments) {
    std::string out;
    ASSERT_EQ(kivtest::run(tool() + " info - < " + corpus("samples/testorig.jpg"), &out), 0) << out;
    for (const char *want : {"process:     baseline (SOF0)", "size:        227 x 149",
                             "precision:   8 bits", "components:  3 (4:2:0)",
                             "component 0: id 1, sampling 2x2", "mcu:         16 x 16",
                             "quantization table of component 0", "DQT", "DHT", "SOF0", "SOS", "EOI"})
        EXPECT_NE(out.find(want), std::string::npos) << want << "\n" << out;
    // The first row of the luminance table, in natural order, from the DQT.
    std::vector<Seg> segs = walkJpeg(readFile(corpus("samples/testorig.jpg")));
    for (auto &s : segs)
        if (s.marker == 0xFFDB && (s.payload[0] & 15) == 0) {
            char row[64];
            snprintf(row, sizeof row, " %4u %4u %4u", s.payload[1], s.payload[2], s.payload[6]);
            EXPECT_NE(out.find(row), std::string::npos) << row;
            break;
        }
}

TEST(ToolSegments, ListsAndExtracts) {
    std::string out;
    ASSERT_EQ(kiv("segments " + corpus("conformance/A1.jpg"), &out), 0) << out;
    EXPECT_NE(out.find("FFFE COM   368"), std::string::npos) << out;
    std::string payload = tempPath("a1-com.bin");
    ASSERT_EQ(kiv("segments " + corpus("conformance/A1.jpg") + " --extract COM " + payload, &out), 0)
        << out;
    std::vector<uint8_t> bytes = readFile(payload);
    ASSERT_EQ(bytes.size(), 366u);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 28), "Compressed test data stream ");
    // By code, and a marker the stream does not have.
    ASSERT_EQ(kiv("segments " + corpus("conformance/A1.jpg") + " --extract FFE0 " + payload, &out), 0);
    EXPECT_EQ(readFile(payload).size(), 44u);
    EXPECT_EQ(kiv("segments " + corpus("conformance/A1.jpg") + " --extract APP1 " + payload, &out), 1);
    EXPECT_EQ(kiv("segments " + corpus("conformance/A1.jpg") + " --extract BOGUS " + payload, &out), 1);
}

// ================================================================= decode

TEST(ToolDecode, BaselineAgreesWithDjpeg) {
    if (!kivtest::haveTool("djpeg"))
        GTEST_SKIP() << "djpeg not installed";
    std::string ours = tempPath("orig-ours.ppm"), theirs = tempPath("orig-djpeg.ppm");
    std::string out;
    for (const char *file : {"samples/testorig.jpg", "samples/testimgint.jpg", "conformance/A1.jpg"}) {
        SCOPED_TRACE(file);
        if (std::string(file).find("A1") != std::string::npos) {
            // Four components: written as PAM.
            ASSERT_EQ(kiv("decode " + corpus(file) + " " + tempPath("a1.pam"), &out), 0) << out;
            std::vector<uint8_t> pam = readFile(tempPath("a1.pam"));
            std::string head(pam.begin(), pam.begin() + 64);
            EXPECT_EQ(head.find("P7\nWIDTH 255\nHEIGHT 257\nDEPTH 4\n"), 0u);
            EXPECT_EQ(pam.size(), 255u * 257u * 4u + head.find("ENDHDR\n") + 7);
            continue;
        }
        ASSERT_EQ(kiv("decode " + corpus(file) + " " + ours, &out), 0) << out;
        ASSERT_EQ(kivtest::run("djpeg -ppm -outfile " + theirs + " " + corpus(file)), 0);
        EXPECT_GT(psnr(ours, theirs), 30.0);
    }
}

TEST(ToolDecode, EveryCorpusStreamDecodesOrNamesItsStatus) {
    for (const std::string &file : corpusJpegs()) {
        SCOPED_TRACE(file);
        std::string pam = tempPath("corpus.pam"), out;
        fs::remove(pam);
        int rc = kiv("decode '" + file + "' " + pam, &out);
        if (rc == 0) {
            Frame f = frameOf(walkJpeg(readFile(file)));
            std::string head = "P7\nWIDTH " + std::to_string(f.width) + "\nHEIGHT " +
                               std::to_string(f.height) + "\nDEPTH " + std::to_string(f.components);
            std::vector<uint8_t> bytes = readFile(pam);
            EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + long(head.size())), head);
        } else {
            EXPECT_EQ(rc, 1) << out;
            EXPECT_NE(out.find("JPG_STATUS_"), std::string::npos) << out;
            EXPECT_FALSE(fs::exists(pam));
        }
    }
    // The ones the library is known to refuse say why.
    std::string out;
    EXPECT_EQ(kiv("decode " + corpus("samples/testimgari.jpg") + " " + tempPath("x.pam"), &out), 1);
    EXPECT_NE(out.find("JPG_STATUS_NOT_SUPPORTED"), std::string::npos) << out;
    EXPECT_EQ(kiv("decode " + corpus("conformance/B2.jpg") + " " + tempPath("x.pam"), &out), 1);
    EXPECT_NE(out.find("JPG_STATUS_BAD_DATA"), std::string::npos) << out;
}

TEST(ToolDecode, PhotographsAgreeWithDjpeg) {
    std::vector<std::string> photos = kivtest::photographs();
    if (photos.empty() || !kivtest::haveTool("djpeg"))
        GTEST_SKIP() << "no photographs or no djpeg";
    std::sort(photos.begin(), photos.end(),
              [](auto &a, auto &b) { return fs::file_size(a) < fs::file_size(b); });
    photos.resize(std::min<size_t>(photos.size(), 2));  // the two smallest keep this quick
    for (auto &photo : photos) {
        SCOPED_TRACE(photo);
        std::string ours = tempPath("photo.ppm"), theirs = tempPath("photo-djpeg.ppm"), out;
        ASSERT_EQ(kiv("decode '" + photo + "' " + ours, &out), 0) << out;
        ASSERT_EQ(kivtest::run("djpeg -ppm -outfile " + theirs + " '" + photo + "'"), 0);
        EXPECT_GT(psnr(ours, theirs), 40.0);
    }
}

TEST(ToolDecode, EveryOutputFormatHoldsTheSamePixels) {
    std::string in = corpus("samples/testorig.jpg"), ppm = tempPath("fmt.ppm"), out;
    ASSERT_EQ(kiv("decode " + in + " " + ppm, &out), 0) << out;
    Pnm p = readPnm(ppm);
    EXPECT_EQ(p.width, 227u);
    EXPECT_EQ(p.height, 149u);
    EXPECT_EQ(p.data.size(), 227u * 149u * 3u);
    std::vector<std::string> others = {tempPath("fmt.bmp"), tempPath("fmt.pam")};
    if (toolHasPng())
        others.push_back(tempPath("fmt.png"));
    for (auto &o : others) {
        ASSERT_EQ(kiv("decode " + in + " " + o, &out), 0) << out;
        EXPECT_EQ(psnr(ppm, o), INFINITY) << o;
    }
    // Standard output with --format, standard input with "-".
    std::string piped = tempPath("fmt-piped.ppm");
    ASSERT_EQ(kivtest::run("cat " + in + " | " + tool() + " decode - - --format pnm > " + piped), 0);
    EXPECT_EQ(readFile(piped), readFile(ppm));
    ASSERT_EQ(kivtest::run(tool() + " decode " + in + " - --format bmp > " + piped), 0);
    EXPECT_EQ(readFile(piped)[0], 'B');
    EXPECT_EQ(kiv("decode " + in + " " + tempPath("fmt.xyz"), &out), 1);
}

TEST(ToolDecode, ScaleReducesTheImage) {
    std::string in = corpus("samples/testorig.jpg"), full = tempPath("scale-full.ppm"), out;
    ASSERT_EQ(kiv("decode " + in + " " + full, &out), 0) << out;
    for (uint32_t f : {2u, 4u, 8u}) {
        SCOPED_TRACE(f);
        std::string scaled = tempPath("scale-" + std::to_string(f) + ".ppm");
        ASSERT_EQ(kiv("decode " + in + " " + scaled + " --scale 1/" + std::to_string(f), &out), 0) << out;
        Pnm p = readPnm(scaled);
        EXPECT_EQ(p.width, 227u / f);
        EXPECT_EQ(p.height, 149u / f);
        // Against the full decode averaged down: a sampled pixel near the centre.
        Pnm big = readPnm(full);
        for (uint32_t c = 0; c < 3; c++) {
            uint32_t x = p.width / 2, y = p.height / 2, sum = 0;
            for (uint32_t dy = 0; dy < f; dy++)
                for (uint32_t dx = 0; dx < f; dx++)
                    sum += big.data[((y * f + dy) * 227 + x * f + dx) * 3 + c];
            EXPECT_NEAR(p.data[(y * p.width + x) * 3 + c], double(sum) / (f * f), 24.0);
        }
    }
    EXPECT_EQ(kiv("decode " + in + " " + full + " --scale 1/3", &out), 1);
    // A progressive frame holds the same coefficients: the same reduced image.
    std::string prog = tempPath("scale-prog.ppm");
    ASSERT_EQ(kiv("decode " + corpus("samples/testprog.jpg") + " " + prog + " --scale 1/4", &out), 0);
    EXPECT_EQ(readPnm(prog).data, readPnm(tempPath("scale-4.ppm")).data);
    // A progressive stream cut short: the image so far, exit status 2.
    std::vector<uint8_t> cut = readFile(corpus("samples/testprog.jpg"));
    cut.resize(cut.size() * 2 / 3);
    kivtest::writeFile(tempPath("cut-prog.jpg"), cut);
    EXPECT_EQ(kiv("decode " + tempPath("cut-prog.jpg") + " " + prog, &out), 2) << out;
    EXPECT_EQ(readPnm(prog).width, 227u);
}

TEST(ToolDecode, NoColorConversionKeepsTheCodedComponents) {
    std::string in = corpus("samples/testorig.jpg"), rgb = tempPath("ncc-rgb.ppm"),
                ycc = tempPath("ncc-ycc.ppm"), out;
    ASSERT_EQ(kiv("decode " + in + " " + rgb, &out), 0) << out;
    ASSERT_EQ(kiv("decode " + in + " " + ycc + " --no-color-conversion", &out), 0) << out;
    Pnm a = readPnm(rgb), b = readPnm(ycc);
    ASSERT_EQ(a.data.size(), b.data.size());
    EXPECT_NE(a.data, b.data);
    // Channel 0 is the luminance: close to the BT.601 luma of the RGB pixels
    // (apart from pixels whose colour was clamped), the chroma near 128.
    double error = 0, chroma = 0;
    for (size_t i = 0; i + 2 < a.data.size(); i += 3) {
        double y = 0.299 * a.data[i] + 0.587 * a.data[i + 1] + 0.114 * a.data[i + 2];
        error += std::fabs(y - b.data[i]);
        chroma += std::fabs(b.data[i + 1] - 128.0) + std::fabs(b.data[i + 2] - 128.0);
    }
    EXPECT_LT(error / (a.data.size() / 3), 1.0);
    EXPECT_LT(chroma / (a.data.size() / 3), 60.0);
    EXPECT_GT(chroma / (a.data.size() / 3), 2.0);
}

TEST(ToolDecode, PassesWritesOneImagePerProgressiveScan) {
    std::string dir = tempPath("passes"), last = tempPath("passes-final.ppm"), out;
    fs::remove_all(dir);
    ASSERT_EQ(kiv("decode " + corpus("samples/testprog.jpg") + " " + last + " --passes " + dir, &out), 0)
        << out;
    size_t scans = 0;
    for (auto &s : walkJpeg(readFile(corpus("samples/testprog.jpg"))))
        scans += s.marker == 0xFFDA;
    std::vector<std::string> files;
    for (auto &e : fs::directory_iterator(dir))
        files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    ASSERT_EQ(files.size(), scans);
    EXPECT_EQ(files.front(), dir + "/pass-01.pnm");
    EXPECT_LT(psnr(files.front(), files.back()), 60.0);  // the first pass is coarser
    EXPECT_EQ(psnr(files.back(), last), INFINITY);
    // The same coefficients as testorig.jpg: the final pass equals its decode.
    std::string orig = tempPath("passes-orig.ppm");
    ASSERT_EQ(kiv("decode " + corpus("samples/testorig.jpg") + " " + orig, &out), 0);
    EXPECT_EQ(psnr(orig, last), INFINITY);
    EXPECT_EQ(kiv("decode " + corpus("samples/testorig.jpg") + " " + last + " --passes " + dir, &out), 1);
}

TEST(ToolDecode, ErrorsNameTheStatus) {
    std::string out;
    EXPECT_EQ(kiv("decode /nonexistent.jpg " + tempPath("x.ppm"), &out), 1);
    EXPECT_NE(out.find("nonexistent"), std::string::npos);
    std::string bad = tempPath("bad.jpg");
    kivtest::writeFile(bad, {0xFF, 0xD8, 0xFF, 0xC0, 0x00, 0x0B, 0x08, 0x00, 0x10, 0x00, 0x10, 0x09,
                             0x01, 0x11, 0x00, 0xFF, 0xD9});
    EXPECT_EQ(kiv("decode " + bad + " " + tempPath("x.ppm"), &out), 1);
    EXPECT_NE(out.find("JPG_STATUS_BAD_DATA: the stream contradicts the JPEG syntax"), std::string::npos)
        << out;
    std::vector<uint8_t> half = readFile(corpus("samples/testorig.jpg"));
    half.resize(half.size() / 2);
    kivtest::writeFile(bad, half);
    int rc = kiv("decode " + bad + " " + tempPath("x.ppm"), &out);
    EXPECT_TRUE(rc == 1 || rc == 2) << rc;
    EXPECT_NE(out.find("JPG_STATUS_"), std::string::npos) << out;
    EXPECT_EQ(kiv("decode " + corpus("samples/testimgari.jpg") + " " + tempPath("x.ppm"), &out), 1);
    EXPECT_NE(out.find("JPG_STATUS_NOT_SUPPORTED"), std::string::npos) << out;
    EXPECT_EQ(kiv("decode a b --bogus", &out), 1);
    EXPECT_NE(out.find("unknown option --bogus"), std::string::npos);
    EXPECT_EQ(kiv("frobnicate", &out), 1);
}

TEST(ToolDecode, UnsupportedProcessesAreNamed) {
    // Frame headers alone: the prolog refuses them before any scan.
    auto frameOnly = [](uint8_t sof, uint8_t precision) {
        std::string path = tempPath("sof" + std::to_string(sof & 15) + ".jpg");
        kivtest::writeFile(path, {0xFF, 0xD8, 0xFF, sof, 0x00, 0x0B, precision, 0x00, 0x10, 0x00,
                                  0x10, 0x01, 0x01, 0x11, 0x00, 0xFF, 0xD9});
        return path;
    };
    // The 12-bit sequential streams are refused at the prolog only by a
    // library that has no 12-bit DCT routines; before that, info reports them.
    const std::pair<std::string, std::string> cases[] = {
        {corpus("samples/testimgari.jpg"), "arithmetic-coded sequential DCT (SOF9) is not supported"},
        {corpus("samples/monkey12.jpg"), "12-bit extended sequential DCT (SOF1) is not supported"},
        {corpus("conformance/E1.jpg"), "12-bit extended sequential DCT (SOF1) is not supported"},
        {frameOnly(0xC2, 12), "12-bit progressive DCT (SOF2) is not supported"},
        {frameOnly(0xC5, 8), "hierarchical sequential DCT (SOF5) is not supported"},
        {frameOnly(0xCB, 8), "arithmetic-coded lossless (SOF11) is not supported"},
    };
    for (const auto &[file, message] : cases)
        for (const std::string command : {"info", "decode"}) {
            SCOPED_TRACE(command + " " + file);
            std::string out, target = command == "decode" ? " " + tempPath("x.pam") : "";
            EXPECT_EQ(kiv(command + " '" + file + "'" + target, &out), 1);
            EXPECT_NE(out.find(message + " (JPG_STATUS_NOT_SUPPORTED)"), std::string::npos) << out;
        }
}

// Four-component Adobe streams written by libjpeg from CMYK: a PAM holds ink
// amounts (Netpbm's CMYK), the other formats RGB from the stored, inverted
// values; ImageMagick reads our PAM and decodes the stream itself.
TEST(ToolDecode, AdobeCmykBecomesInkOrRgb) {
    if (kivtest::libjpegCmyk().empty() || !kivtest::haveTool("convert"))
        GTEST_SKIP() << "needs the libjpeg oracle and ImageMagick";
    kivtest::Image picture = kivtest::photographAsCmyk();
    if (picture.pixels.empty())
        picture = kivtest::cmykEdges(67, 45);
    for (const std::string kind : {"cmyk", "ycck"}) {
        SCOPED_TRACE(kind);
        std::string jpg = tempPath(kind + ".jpg"), pam = tempPath(kind + ".pam"),
                    raw = tempPath(kind + "-raw.pam"), ppm = tempPath(kind + ".ppm"), out;
        ASSERT_TRUE(kivtest::writeCmykJpeg(picture, jpg, kind, 90, "444"));
        ASSERT_EQ(kiv("info " + jpg, &out), 0) << out;
        EXPECT_NE(out.find("components:  4"), std::string::npos) << out;
        ASSERT_EQ(kiv("decode " + jpg + " " + pam, &out), 0) << out;
        ASSERT_EQ(kiv("decode " + jpg + " " + raw + " --no-color-conversion", &out), 0) << out;
        ASSERT_EQ(kiv("decode " + jpg + " " + ppm, &out), 0) << out;
        Pnm ink = readPnm(pam), coded = readPnm(raw), rgb = readPnm(ppm);
        ASSERT_EQ(ink.data.size(), size_t(picture.width) * picture.height * 4);
        ASSERT_EQ(coded.data.size(), ink.data.size());
        ASSERT_EQ(rgb.data.size(), ink.data.size() / 4 * 3);
        EXPECT_EQ(ink.tupleType, "CMYK");
        for (size_t i = 0; i < ink.data.size() / 4; i++) {
            const uint8_t *k = &ink.data[4 * i], *c = &coded.data[4 * i];
            for (int ch = 0; ch < 4; ch++)  // plain CMYK: as coded, inverted
                if (kind == "cmyk")
                    ASSERT_EQ(k[ch], 255 - c[ch]) << "pixel " << i;
            for (int ch = 0; ch < 3; ch++)
                ASSERT_EQ(rgb.data[3 * i + ch], ((255 - k[ch]) * (255 - k[3]) + 127) / 255)
                    << "pixel " << i;
        }
        if (kind == "ycck")  // the coded Y, Cb, Cr are far from the converted C, M, Y
            EXPECT_LT(psnr(pam, raw), 20.0);
        std::string fromPam = tempPath(kind + "-im-pam.ppm"), fromJpeg = tempPath(kind + "-im.png");
        ASSERT_EQ(kivtest::run("convert " + pam + " " + fromPam), 0);
        ASSERT_EQ(kivtest::run("convert " + jpg + " " + fromJpeg), 0);
        EXPECT_LE(maxDifference(ppm, fromPam), 1);  // RGB rounding only
        // Decoded by libjpeg: inverse DCTs that round differently, scaled up
        // by the YCCK conversion.
        EXPECT_LE(maxDifference(ppm, fromJpeg), kind == "ycck" ? 4 : 2);
        EXPECT_GE(psnr(ppm, fromJpeg), 45.0);
        // Every RGB format holds the same pixels, and compare decodes alike.
        std::vector<std::string> others = {tempPath(kind + ".bmp"), jpg};
        if (toolHasPng())
            others.push_back(tempPath(kind + ".png"));
        for (auto &o : others) {
            if (o != jpg)
                ASSERT_EQ(kiv("decode " + jpg + " " + o, &out), 0) << out;
            EXPECT_EQ(psnr(ppm, o), INFINITY) << o;
        }
    }
}

// ================================================================= encode

struct Encoded {
    std::string path;
    std::vector<Seg> segs;
    std::map<std::string, std::string> info;
};

Encoded encode(const std::string &input, const std::string &name, const std::string &options) {
    Encoded e;
    e.path = tempPath(name);
    std::string out;
    EXPECT_EQ(kiv("encode " + input + " " + e.path + " " + options, &out), 0) << options << "\n" << out;
    e.segs = walkJpeg(readFile(e.path));
    e.info = infoJson(e.path);
    return e;
}

const Seg *find(const Encoded &e, uint16_t marker) {
    for (auto &s : e.segs)
        if (s.marker == marker)
            return &s;
    return nullptr;
}

TEST(ToolEncode, RoundTripsEveryInputFormat) {
    std::string png = tempPath("rt-source.png"), pgm = tempPath("rt-source.pgm"), out;
    std::vector<std::string> inputs = {corpus("samples/testorig.ppm"), corpus("samples/shira_bird8.bmp"),
                                       corpus("samples/vgl_6434_0018a.bmp"), pgm};
    Pnm p = readPnm(corpus("samples/testorig.ppm"));
    Pnm g{p.width, p.height, 1, 255, {}};
    for (size_t i = 0; i < p.data.size(); i += 3)
        g.data.push_back(uint8_t((77 * p.data[i] + 150 * p.data[i + 1] + 29 * p.data[i + 2]) >> 8));
    writePnm(pgm, g);
    if (toolHasPng()) {
        ASSERT_EQ(kiv("decode " + corpus("samples/testorig.jpg") + " " + png, &out), 0);
        inputs.push_back(png);
    }
    // 4:4:4, so that no upsampling method separates our decoder from djpeg.
    for (auto &in : inputs) {
        SCOPED_TRACE(in);
        Encoded e = encode(in, "rt.jpg", "--sampling 444");
        EXPECT_GT(psnr(in, e.path), 30.0);
        if (kivtest::haveTool("djpeg")) {
            std::string theirs = tempPath("rt-djpeg.pnm");
            ASSERT_EQ(kivtest::run("djpeg -outfile " + theirs + " " + e.path), 0);
            EXPECT_GT(psnr(e.path, theirs), 45.0);
        }
    }
    // From standard input.
    std::string piped = tempPath("rt-piped.jpg");
    ASSERT_EQ(kivtest::run("cat " + corpus("samples/testorig.ppm") + " | " + tool() + " encode - " + piped), 0);
    EXPECT_EQ(readFile(piped), readFile(encode(corpus("samples/testorig.ppm"), "rt-path.jpg", "").path));
    EXPECT_GT(psnr(corpus("samples/testorig.ppm"), piped), 30.0);
}

TEST(ToolEncode, QualityScalesTablesAndSize) {
    std::string in = corpus("samples/testorig.ppm");
    Encoded low = encode(in, "q20.jpg", "--quality 20"), high = encode(in, "q95.jpg", "--quality 95");
    ASSERT_NE(find(low, 0xFFDB), nullptr);
    ASSERT_NE(find(high, 0xFFDB), nullptr);
    // Annex K luminance DC entry 16 scaled: q20 -> 5000/20=250% -> 40; q95 -> 10% -> 2.
    EXPECT_EQ(find(low, 0xFFDB)->payload[1], 40);
    EXPECT_EQ(find(high, 0xFFDB)->payload[1], 2);
    EXPECT_LT(readFile(low.path).size(), readFile(high.path).size());
    EXPECT_GT(psnr(in, high.path), psnr(in, low.path));
    std::string out;
    EXPECT_EQ(kiv("encode " + in + " " + tempPath("q0.jpg") + " --quality 0", &out), 1);
    EXPECT_EQ(kiv("encode " + in + " " + tempPath("q0.jpg") + " --quality 101", &out), 1);
}

TEST(ToolEncode, SamplingChoosesTheFactors) {
    std::string in = corpus("samples/testorig.ppm");
    const struct { const char *name; const char *h; const char *v; const char *components; } kCases[] = {
        {"444", "1", "1", "3"}, {"422", "2", "1", "3"}, {"420", "2", "2", "3"},
        {"440", "1", "2", "3"}, {"411", "4", "1", "3"}, {"gray", "1", "1", "1"}};
    for (auto &c : kCases) {
        SCOPED_TRACE(c.name);
        Encoded e = encode(in, std::string("s") + c.name + ".jpg", std::string("--sampling ") + c.name);
        EXPECT_EQ(e.info["components.count"], c.components);
        EXPECT_EQ(e.info["components.0.h"], c.h);
        EXPECT_EQ(e.info["components.0.v"], c.v);
        if (std::string(c.components) == "3") {
            EXPECT_EQ(e.info["components.1.h"], "1");
            EXPECT_EQ(e.info["components.2.v"], "1");
        }
        EXPECT_GT(psnr(in, e.path), 28.0);
    }
    std::string out;
    EXPECT_EQ(kiv("encode " + in + " " + tempPath("s.jpg") + " --sampling 421", &out), 1);
}

TEST(ToolEncode, HqAveragesWhenSubsampling) {
    std::string in = corpus("samples/testorig.ppm");
    Encoded plain = encode(in, "plain.jpg", "--sampling 420"), hq = encode(in, "hq.jpg", "--sampling 420 --hq");
    EXPECT_NE(readFile(plain.path), readFile(hq.path));
    EXPECT_GT(psnr(in, hq.path), 30.0);
    // Without subsampling there is nothing to average.
    Encoded a = encode(in, "plain444.jpg", "--sampling 444"), b = encode(in, "hq444.jpg", "--sampling 444 --hq");
    EXPECT_EQ(readFile(a.path), readFile(b.path));
}

TEST(ToolEncode, RestartInsertsMarkers) {
    std::string in = corpus("samples/testorig.ppm");
    Encoded e = encode(in, "rst.jpg", "--restart 4 --sampling 420");
    EXPECT_EQ(e.info["restart_interval"], "4");
    const uint32_t mcus = ((227 + 15) / 16) * ((149 + 15) / 16);  // 15 x 10
    EXPECT_EQ(e.info["restart_markers"], std::to_string((mcus + 3) / 4 - 1));
    ASSERT_NE(find(e, 0xFFDD), nullptr);
    Encoded none = encode(in, "norst.jpg", "");
    EXPECT_EQ(find(none, 0xFFDD), nullptr);
    EXPECT_EQ(none.info["restart_markers"], "0");
    EXPECT_EQ(psnr(none.path, e.path), INFINITY);  // restart markers change no pixel
}

TEST(ToolEncode, CommentAndJfifSegments) {
    std::string in = corpus("samples/testorig.ppm"), text = "KivJPEG test comment 123";
    Encoded e = encode(in, "com.jpg", "--comment '" + text + "'");
    ASSERT_NE(find(e, 0xFFFE), nullptr);
    std::string payload = tempPath("com.txt"), out;
    ASSERT_EQ(kiv("segments " + e.path + " --extract COM " + payload, &out), 0) << out;
    std::vector<uint8_t> got = readFile(payload);
    EXPECT_EQ(std::string(got.begin(), got.end()), text);
    const Seg *app0 = find(e, 0xFFE0);
    ASSERT_NE(app0, nullptr);
    EXPECT_EQ(std::string(app0->payload.begin(), app0->payload.begin() + 5), std::string("JFIF\0", 5));
    Encoded bare = encode(in, "bare.jpg", "--no-jfif");
    EXPECT_EQ(find(bare, 0xFFE0), nullptr);
    EXPECT_EQ(find(bare, 0xFFFE), nullptr);
}

TEST(ToolEncode, LosslessIsExactForEveryPredictor) {
    std::string in = corpus("samples/testorig.ppm");
    std::vector<size_t> sizes;
    for (int p = 1; p <= 7; p++) {
        SCOPED_TRACE(p);
        Encoded e = encode(in, "ll" + std::to_string(p) + ".jpg", "--lossless --predictor " + std::to_string(p));
        EXPECT_EQ(e.info["process"], "lossless");
        const Seg *sos = find(e, 0xFFDA);
        ASSERT_NE(sos, nullptr);
        EXPECT_EQ(sos->payload[1 + 2 * sos->payload[0]], p);  // Ss carries the predictor
        EXPECT_EQ(e.info["scans.0.ss"], std::to_string(p));
        EXPECT_EQ(psnr(in, e.path), INFINITY);
        sizes.push_back(readFile(e.path).size());
    }
    EXPECT_NE(sizes[0], sizes[1]);
    std::string out;
    EXPECT_EQ(kiv("encode " + in + " " + tempPath("x.jpg") + " --lossless --predictor 8", &out), 1);
    EXPECT_EQ(kiv("encode " + in + " " + tempPath("x.jpg") + " --predictor 2", &out), 1);
}

TEST(ToolEncode, LosslessKeepsThePrecisionOfTheInput) {
    // 16-bit source from the corpus, and a 12-bit one made here.
    Pnm deep = readPnm(corpus("samples/monkey16.pgm"));
    Pnm twelve = deep;
    twelve.maxval = 4095;
    for (size_t i = 0; i + 1 < twelve.data.size(); i += 2) {
        uint32_t v = uint32_t(deep.data[i] << 8 | deep.data[i + 1]) >> 4;
        twelve.data[i] = uint8_t(v >> 8);
        twelve.data[i + 1] = uint8_t(v);
    }
    std::string pgm12 = tempPath("deep12.pgm"), pgm6 = tempPath("shallow6.pgm");
    writePnm(pgm12, twelve);
    Pnm six{twelve.width, twelve.height, 1, 63, {}};
    for (size_t i = 0; i + 1 < twelve.data.size(); i += 2)
        six.data.push_back(uint8_t((twelve.data[i] << 8 | twelve.data[i + 1]) >> 6));
    writePnm(pgm6, six);
    for (auto &c : {std::make_pair(corpus("samples/monkey16.pgm"), "16"), std::make_pair(pgm12, "12"),
                    std::make_pair(pgm6, "6")}) {
        SCOPED_TRACE(c.second);
        Encoded e = encode(c.first, std::string("deep") + c.second + ".jpg", "--lossless --predictor 6");
        EXPECT_EQ(e.info["precision"], c.second);
        std::string back = tempPath(std::string("deep") + c.second + "-back.pgm"), out;
        ASSERT_EQ(kiv("decode " + e.path + " " + back, &out), 0) << out;
        EXPECT_EQ(readFile(back), readFile(c.first));
        if (toolHasPng()) {
            std::string png = tempPath(std::string("deep") + c.second + ".png");
            ASSERT_EQ(kiv("decode " + e.path + " " + png, &out), 0) << out;
            EXPECT_EQ(psnr(png, c.first), INFINITY);
            // Re-encoding the PNG keeps the precision (sBIT).
            Encoded again = encode(png, std::string("deep") + c.second + "-png.jpg", "--lossless");
            EXPECT_EQ(again.info["precision"], c.second);
        }
    }
    // A baseline encode of deep input reduces it to 8 bits and says so.
    std::string out;
    EXPECT_EQ(kiv("encode " + pgm12 + " " + tempPath("deep-baseline.jpg"), &out), 0);
    EXPECT_NE(out.find("reduced to 8 bits"), std::string::npos);
}

TEST(ToolProgress, ShownOnATerminalOnly) {
    if (!kivtest::haveTool("script"))
        GTEST_SKIP() << "script (util-linux) not installed";
    Pnm big{2048, 2048, 1, 255, std::vector<uint8_t>(2048u * 2048u)};
    for (size_t i = 0; i < big.data.size(); i++)
        big.data[i] = uint8_t((i % 2048) ^ (i / 2048));
    std::string pgm = tempPath("big.pgm"), jpg = tempPath("big.jpg"), out;
    writePnm(pgm, big);
    ASSERT_EQ(kiv("encode " + pgm + " " + jpg, &out), 0);
    EXPECT_EQ(out.find('%'), std::string::npos) << out;  // not a terminal here
    // `script` runs the tool on a pseudo-terminal.
    for (const std::string &command : {"encode " + pgm + " " + jpg, "decode " + jpg + " " + pgm}) {
        ASSERT_EQ(kivtest::run("script -qec '" + tool() + " " + command + "' /dev/null", &out), 0);
        EXPECT_NE(out.find("100%"), std::string::npos) << command << ": " << out;
    }
}

// ================================================================= compare

TEST(ToolCompare, ReportsPsnrMaxDifferenceAndDiffImage) {
    Pnm p = readPnm(corpus("samples/testorig.ppm"));
    std::string a = tempPath("cmp-a.ppm"), b = tempPath("cmp-b.ppm"), diff = tempPath("cmp-diff.ppm"), out;
    writePnm(a, p);
    p.data[1000] = uint8_t(p.data[1000] < 128 ? p.data[1000] + 10 : p.data[1000] - 10);
    writePnm(b, p);
    ASSERT_EQ(kiv("compare " + a + " " + a, &out), 0);
    EXPECT_NE(out.find("identical"), std::string::npos);
    ASSERT_EQ(kiv("compare " + a + " " + b + " --diff " + diff, &out), 0);
    EXPECT_NE(out.find("max difference 10"), std::string::npos) << out;
    // One sample off by 10 among 227*149*3: MSE = 100/101469.
    EXPECT_NEAR(psnr(a, b), 10 * std::log10(255.0 * 255.0 * 101469 / 100), 0.01);
    Pnm d = readPnm(diff);
    EXPECT_EQ(d.width, 227u);
    EXPECT_EQ(d.data[1000], 40);
    EXPECT_EQ(d.data[1001], 0);
    EXPECT_EQ(kiv("compare " + a + " " + corpus("samples/shira_bird8.bmp"), &out), 1);
    EXPECT_NE(out.find("differ in size"), std::string::npos);
}

// ================================================================= demo

TEST(ToolDemo, RunsAndWritesItsFiles) {
    std::string dir = tempPath("demo"), out;
    fs::remove_all(dir);
    ASSERT_EQ(kiv("demo " + dir + " --size 120x80", &out), 0) << out;
    for (const char *want : {"q50-444", "q90-420", "q100-420", "q85-422", "q85-411", "q85-gray",
                             "lossless-p1", "lossless-gray12-p6"})
        EXPECT_NE(out.find(want), std::string::npos) << want;
    EXPECT_TRUE(fs::exists(dir + "/q90-420.jpg"));
    auto info = infoJson(dir + "/q90-420.jpg");
    EXPECT_EQ(info["width"], "120");
    EXPECT_EQ(info["height"], "80");
    EXPECT_EQ(kiv("demo " + dir + " --size 0x5", &out), 1);
    EXPECT_TRUE(fs::exists(dir + "/lossless-p7.jpg"));
    EXPECT_EQ(psnr(dir + "/lossless-p7.jpg", dir + (toolHasPng() ? "/original.png" : "/original.pnm")),
              INFINITY);
    EXPECT_EQ(out.find("JPG_STATUS"), std::string::npos) << out;
}

}  // namespace
