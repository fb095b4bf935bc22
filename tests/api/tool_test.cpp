// The kivjpeg command-line tool, run as a program: info against an
// independent marker walk on every corpus stream, one test per option that
// fails if the option were ignored, and one table of the exit statuses and
// messages. The pixels the library computes are guarded by the golden and
// oracle tests; here only what the tool adds (formats, options, reports).
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using namespace kivtest;

std::string tool() { return KIV_TOOL; }
bool toolHasPng() { return KIV_TOOL_PNG != 0; }

// Runs the tool; stdout and stderr together in *out.
int kiv(const std::string &args, std::string *out = nullptr) { return run(tool() + " " + args + " 2>&1", out); }

// The frame header of a stream: the first SOFn segment.
const Segment *frameOf(const std::vector<Segment> &segs) {
    for (const Segment &s : segs)
        if (s.marker >= 0xFFC0 && s.marker <= 0xFFCF && s.marker != 0xFFC4 && s.marker != 0xFFC8 &&
            s.marker != 0xFFCC && s.body.size() >= 6)
            return &s;
    return nullptr;
}

uint32_t be16(const Bytes &b, size_t at) { return uint32_t(b[at] << 8 | b[at + 1]); }

// The tool's JSON flattened into "path=value" lines, e.g. "segments.3.name=DQT".
std::map<std::string, std::string> infoJson(const std::string &file, int *rc = nullptr) {
    std::string script = writeTemp("flatten.py", "import json,sys\n"
                                                 "def walk(p,v):\n"
                                                 "  if isinstance(v,dict):\n"
                                                 "    [walk(p+[k],x) for k,x in v.items()]\n"
                                                 "  elif isinstance(v,list):\n"
                                                 "    print('.'.join(p+['count'])+'='+str(len(v)))\n"
                                                 "    [walk(p+[str(i)],x) for i,x in enumerate(v)]\n"
                                                 "  else: print('.'.join(p)+'='+str(v))\n"
                                                 "walk([],json.load(sys.stdin))\n");
    std::string out;
    int status = run(tool() + " info '" + file + "' --json | python3 " + script, &out);
    if (rc != nullptr)
        *rc = status;
    std::map<std::string, std::string> map;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);)
        if (line.find('=') != std::string::npos)
            map[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
    return map;
}

// `kivjpeg compare`: PSNR (+inf for identical images, NaN on failure).
double psnr(const std::string &a, const std::string &b) {
    std::string out;
    std::smatch m;
    if (kiv("compare '" + a + "' '" + b + "'", &out) != 0)
        return NAN;
    if (out.find("identical") != std::string::npos)
        return INFINITY;
    return std::regex_search(out, m, std::regex("PSNR ([0-9.]+) dB")) ? std::stod(m[1]) : NAN;
}

std::vector<std::string> corpusFiles(bool jpeg) {
    std::vector<std::string> files;
    for (const char *dir : {"samples", "conformance"})
        for (auto &e : fs::directory_iterator(corpus(dir)))
            if ((e.path().extension() == ".jpg") == jpeg)
                files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    return files;
}

const std::string kOrig = corpus("samples/testorig.ppm"), kJpg = corpus("samples/testorig.jpg");

// ================================================================= info, segments

// The library opens Huffman-coded non-hierarchical frames with up to four
// components, DCT frames only at 8 bits; the others are refused by name.
// Decoding writes the frame's size (four components as PAM), or names the
// status and leaves no file.
TEST(ToolCorpus, InfoMatchesAMarkerWalkAndDecodeTheFrameSize) {
    for (const std::string &file : corpusFiles(true)) {
        SCOPED_TRACE(file);
        std::vector<Segment> segs = allSegments(readFile(file)), listed;
        const Segment *frame = frameOf(segs);
        std::string pam = tempPath("corpus.pam"), out;
        fs::remove(pam);
        int decoded = kiv("decode '" + file + "' " + pam, &out);
        EXPECT_TRUE(decoded == 0 || (decoded == 1 && out.find("JPG_STATUS_") != std::string::npos)) << out;
        EXPECT_EQ(fs::exists(pam), decoded == 0);
        if (decoded == 0) {
            Image image = readPnm(pam, true);
            EXPECT_EQ(image.width, int(be16(frame->body, 3)));
            EXPECT_EQ(image.height, int(be16(frame->body, 1)));
            EXPECT_EQ(image.channels, frame->body[5]);
        }
        int rc = 0;
        auto info = infoJson(file, &rc);
        if (!frame || frame->marker > 0xFFC3 || frame->body[5] > 4 || (frame->marker != 0xFFC3 && frame->body[0] != 8)) {
            EXPECT_EQ(kiv("info '" + file + "'", &out), 1);
            EXPECT_NE(out.find("JPG_STATUS_"), std::string::npos) << out;
            continue;
        }
        ASSERT_EQ(rc, 0);
        uint32_t restarts = 0;
        for (const Segment &s : segs)
            if ((s.marker & 0xFFF8) == 0xFFD0)
                restarts++;
            else
                listed.push_back(s);
        const Bytes &f = frame->body;
        EXPECT_EQ(info["width"], std::to_string(be16(f, 3)));
        EXPECT_EQ(info["height"], std::to_string(be16(f, 1)));
        EXPECT_EQ(info["precision"], std::to_string(f[0]));
        EXPECT_EQ(info["components.count"], std::to_string(f[5]));
        EXPECT_EQ(info["frame"], "SOF" + std::to_string(frame->marker - 0xFFC0));
        ASSERT_EQ(info["segments.count"], std::to_string(listed.size()));
        size_t scans = 0;
        for (size_t i = 0; i < listed.size(); i++) {
            std::string k = "segments." + std::to_string(i);
            char code[8];
            snprintf(code, sizeof code, "%04X", listed[i].marker);
            EXPECT_EQ(info[k + ".marker"], code);
            bool standalone = listed[i].marker == 0xFFD8 || listed[i].marker == 0xFFD9;
            EXPECT_EQ(info[k + ".length"], std::to_string(standalone ? 0 : listed[i].body.size() + 2));
            if (listed[i].marker != 0xFFDA)
                continue;
            const Bytes &sos = listed[i].body;  // every scan header, as the walk reads it
            uint32_t ns = sos[0];
            k = "scans." + std::to_string(scans++);
            EXPECT_EQ(info[k + ".components.count"], std::to_string(ns));
            EXPECT_EQ(info[k + ".components.0"], std::to_string(sos[1]));
            EXPECT_EQ(info[k + ".ss"], std::to_string(sos[1 + 2 * ns]));
            EXPECT_EQ(info[k + ".se"], std::to_string(sos[2 + 2 * ns]));
            EXPECT_EQ(info[k + ".al"], std::to_string(sos[3 + 2 * ns] & 15));
        }
        EXPECT_EQ(info["scans.count"], std::to_string(scans));
        EXPECT_EQ(info["restart_markers"], std::to_string(restarts));
    }
}

TEST(ToolInfo, TextListsHeaderTablesAndSegments) {
    std::string out;
    ASSERT_EQ(run(tool() + " info - < " + kJpg, &out), 0) << out;
    for (const char *want : {"process:     baseline (SOF0)", "size:        227 x 149", "precision:   8 bits",
                             "components:  3 (4:2:0)", "component 0: id 1, sampling 2x2", "mcu:         16 x 16",
                             "quantization table of component 0", "DQT", "DHT", "SOF0", "SOS", "EOI"})
        EXPECT_NE(out.find(want), std::string::npos) << want << "\n" << out;
    // The first row of the luminance table, in natural order, from the DQT.
    for (const Segment &s : headerSegments(readFile(kJpg)))
        if (s.marker == 0xFFDB && (s.body[0] & 15) == 0) {
            char row[64];
            snprintf(row, sizeof row, " %4u %4u %4u", s.body[1], s.body[2], s.body[6]);
            EXPECT_NE(out.find(row), std::string::npos) << row;
            break;
        }
}

TEST(ToolSegments, ListsAndExtracts) {
    std::string out, a1 = corpus("conformance/A1.jpg"), payload = tempPath("a1-com.bin");
    ASSERT_EQ(kiv("segments " + a1, &out), 0) << out;
    EXPECT_NE(out.find("FFFE COM   368"), std::string::npos) << out;
    ASSERT_EQ(kiv("segments " + a1 + " --extract COM " + payload, &out), 0) << out;
    Bytes bytes = readFile(payload);
    ASSERT_EQ(bytes.size(), 366u);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 28), "Compressed test data stream ");
    ASSERT_EQ(kiv("segments " + a1 + " --extract FFE0 " + payload, &out), 0);  // by code
    EXPECT_EQ(readFile(payload).size(), 44u);
}

// ================================================================= exit statuses

// Each failure as a command, its exit status (1 error, 2 an image written
// from a damaged stream) and the words the user is told.
TEST(ToolExit, EveryFailureHasItsStatusAndMessage) {
    Bytes prog = readFile(corpus("samples/testprog.jpg"));
    prog.resize(prog.size() * 2 / 3);
    writeFile(tempPath("cut-prog.jpg"), prog);
    const std::string cutProg = tempPath("cut-prog.jpg"), x = tempPath("x.pam"), a1 = corpus("conformance/A1.jpg"),
                      ppm = tempPath("x.ppm"), cutOut = tempPath("cut.ppm"), enc = "encode " + kOrig + " " + x;
    const struct {
        std::string command;
        int status;
        std::string message;
    } cases[] = {
        {"info " + corpus("samples/testimgari.jpg"), 1,
         "arithmetic-coded sequential DCT (SOF9) is not supported (JPG_STATUS_NOT_SUPPORTED)"},
        {"decode " + corpus("samples/monkey12.jpg") + " " + x, 1,
         "12-bit extended sequential DCT (SOF1) is not supported (JPG_STATUS_NOT_SUPPORTED)"},
        {"info " + kOrig, 1, "JPG_STATUS_BAD_DATA: the stream contradicts the JPEG syntax (not a JPEG file"},
        {"decode /nonexistent.jpg " + x, 1, "nonexistent"},
        {"decode " + cutProg + " " + cutOut, 2, "JPG_STATUS_"},
        {"decode a b --bogus", 1, "unknown option --bogus"},
        {"frobnicate", 1, "usage: kivjpeg"},
        {"decode " + kJpg + " " + tempPath("x.xyz"), 1, "use .png, .ppm"},
        {"decode " + kJpg + " " + ppm + " --scale 1/3", 1, "--scale takes 1/2, 1/4 or 1/8"},
        {"decode " + kJpg + " " + ppm + " --passes " + tempPath("passes-x"), 1, "needs a progressive stream"},
        {enc + " --quality 0", 1, "--quality takes 1 to 100"},
        {enc + " --sampling 421", 1, "--sampling takes"},
        {enc + " --lossless --predictor 8", 1, "--predictor takes 1 to 7"},
        {enc + " --predictor 2", 1, "--predictor needs --lossless"},
        {"segments " + a1 + " --extract APP1 " + x, 1, "APP1"},  // a marker it lacks
        {"segments " + a1 + " --extract BOGUS " + x, 1, "BOGUS"},
        {"compare " + kOrig + " " + corpus("samples/shira_bird8.bmp"), 1, "differ in size"},
        {"demo " + tempPath("demo-x") + " --size 0x5", 1, "--size"},
    };
    for (const auto &c : cases) {
        std::string out;
        EXPECT_EQ(kiv(c.command, &out), c.status) << c.command << "\n" << out;
        EXPECT_NE(out.find(c.message), std::string::npos) << c.command << "\n" << out;
    }
    // What a damaged stream gave is still written.
    EXPECT_EQ(readPnm(cutOut).width, 227);
}

// ================================================================= decode

TEST(ToolDecode, EveryOutputFormatAndScaleHoldsThePixels) {
    std::string ppm = tempPath("fmt.ppm"), out;
    ASSERT_EQ(kiv("decode " + kJpg + " " + ppm, &out), 0) << out;
    std::vector<std::string> others = {tempPath("fmt.bmp"), tempPath("fmt.pam")};
    if (toolHasPng())
        others.push_back(tempPath("fmt.png"));
    for (auto &o : others) {
        ASSERT_EQ(kiv("decode " + kJpg + " " + o, &out), 0) << out;
        EXPECT_EQ(psnr(ppm, o), INFINITY) << o;
    }
    // Standard output with --format, standard input with "-".
    std::string piped = tempPath("fmt-piped.ppm");
    ASSERT_EQ(run("cat " + kJpg + " | " + tool() + " decode - - --format pnm > " + piped), 0);
    EXPECT_EQ(readFile(piped), readFile(ppm));
    for (int f : {2, 4, 8}) {
        ASSERT_EQ(kiv("decode " + kJpg + " " + ppm + " --scale 1/" + std::to_string(f), &out), 0) << out;
        Image p = readPnm(ppm);
        EXPECT_EQ(p.width, 227 / f);
        EXPECT_EQ(p.height, 149 / f);
    }
}

TEST(ToolDecode, PassesWritesOneImagePerProgressiveScan) {
    std::string dir = tempPath("passes"), last = tempPath("passes-final.ppm"), out;
    fs::remove_all(dir);
    ASSERT_EQ(kiv("decode " + corpus("samples/testprog.jpg") + " " + last + " --passes " + dir, &out), 0) << out;
    size_t scans = 0;
    for (const Segment &s : allSegments(readFile(corpus("samples/testprog.jpg"))))
        scans += s.marker == 0xFFDA;
    std::vector<std::string> files;
    for (auto &e : fs::directory_iterator(dir))
        files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
    ASSERT_EQ(files.size(), scans);
    EXPECT_EQ(files.front(), dir + "/pass-01.pnm");
    EXPECT_LT(psnr(files.front(), files.back()), 60.0);  // the first pass is coarser
    EXPECT_EQ(psnr(files.back(), last), INFINITY);
}

// Four-component Adobe streams written by libjpeg from CMYK: a PAM holds ink
// amounts (Netpbm's CMYK), the other formats RGB from the stored, inverted
// values.
TEST(ToolDecode, AdobeCmykBecomesInkOrRgb) {
    if (libjpegCmyk().empty())
        GTEST_SKIP() << "needs the libjpeg oracle";
    Image picture = photographAsCmyk();
    if (picture.empty())
        picture = cmykEdges(67, 45);
    for (const std::string kind : {"cmyk", "ycck"}) {
        SCOPED_TRACE(kind);
        std::string jpg = tempPath(kind + ".jpg"), pam = tempPath(kind + ".pam"), raw = tempPath(kind + "-raw.pam"),
                    ppm = tempPath(kind + ".ppm"), out;
        ASSERT_TRUE(writeCmykJpeg(picture, jpg, kind, 90, "444"));
        for (const std::string &to : {pam, raw + " --no-color-conversion", ppm})
            ASSERT_EQ(kiv("decode " + jpg + " " + to, &out), 0) << out;
        Bytes header = readFile(pam);
        EXPECT_NE(std::string(header.begin(), header.begin() + 80).find("TUPLTYPE CMYK"), std::string::npos);
        Image ink = readPnm(pam, true), coded = readPnm(raw, true), rgb = readPnm(ppm, true);
        ASSERT_EQ(ink.pixels.size(), size_t(picture.width) * picture.height * 4);
        ASSERT_EQ(coded.pixels.size(), ink.pixels.size());
        ASSERT_EQ(rgb.pixels.size(), ink.pixels.size() / 4 * 3);
        for (size_t i = 0; i < ink.pixels.size() / 4; i++) {
            const uint8_t *k = &ink.pixels[4 * i], *c = &coded.pixels[4 * i];
            for (int ch = 0; ch < 4 && kind == "cmyk"; ch++)  // plain CMYK: as coded, inverted
                ASSERT_EQ(k[ch], 255 - c[ch]) << "pixel " << i;
            for (int ch = 0; ch < 3; ch++)
                ASSERT_EQ(rgb.pixels[3 * i + ch], ((255 - k[ch]) * (255 - k[3]) + 127) / 255) << "pixel " << i;
        }
    }
}

// ================================================================= encode

struct Encoded {
    std::string path;
    std::map<std::string, std::string> info;
};

Encoded encodeFile(const std::string &input, const std::string &name, const std::string &options) {
    Encoded e{tempPath(name), {}};
    std::string out;
    EXPECT_EQ(kiv("encode " + input + " " + e.path + " " + options, &out), 0) << options << "\n" << out;
    e.info = infoJson(e.path);
    return e;
}

TEST(ToolEncode, ReadsEveryInputFormat) {
    // Grey PGM input is in LosslessKeepsThePrecision.
    std::string png = tempPath("rt-source.png"), out;
    std::vector<std::string> inputs = {kOrig, corpus("samples/shira_bird8.bmp"), corpus("samples/vgl_6434_0018a.bmp")};
    if (toolHasPng() && kiv("decode " + kJpg + " " + png, &out) == 0)
        inputs.push_back(png);
    for (auto &in : inputs)
        EXPECT_GT(psnr(in, encodeFile(in, "rt.jpg", "--sampling 444").path), 30.0) << in;
    std::string piped = tempPath("rt-piped.jpg");  // from standard input
    ASSERT_EQ(run("cat " + kOrig + " | " + tool() + " encode - " + piped), 0);
    EXPECT_EQ(readFile(piped), readFile(encodeFile(kOrig, "rt-path.jpg", "").path));
}

// Each option as the stream's header shows it through info: "names" is the
// marker segments in order, "q0" the first luminance quantizer (the example
// luminance table's 16 scaled by 250% at q20).
TEST(ToolEncode, EveryOptionReachesTheStream) {
    const struct {
        std::string options;
        std::map<std::string, std::string> want;
    } cases[] = {
        {"--quality 20", {{"q0", "40"}}},
        {"--sampling 444", {{"components.count", "3"}, {"components.0.h", "1"}, {"components.0.v", "1"}}},
        {"--sampling 422", {{"components.0.h", "2"}, {"components.0.v", "1"}, {"components.1.h", "1"}}},
        {"--sampling 420", {{"components.0.h", "2"}, {"components.0.v", "2"}, {"components.2.v", "1"}}},
        {"--sampling 440", {{"components.0.h", "1"}, {"components.0.v", "2"}}},
        {"--sampling 411", {{"components.0.h", "4"}, {"components.0.v", "1"}}},
        {"--sampling gray", {{"components.count", "1"}}},
        {"--restart 4 --sampling 420", {{"restart_interval", "4"}, {"names", "SOI APP0 DQT DHT SOF0 DRI SOS EOI"}}},
        {"--comment 'KivJPEG test comment'", {{"names", "SOI APP0 COM DQT"}, {"segments.2.length", "22"}}},
        {"--no-jfif", {{"names", "SOI DQT"}, {"restart_interval", "0"}}},
        {"--lossless --predictor 7", {{"process", "lossless"}, {"scans.0.ss", "7"}}},
    };
    for (const auto &c : cases) {
        Encoded e = encodeFile(kOrig, "option.jpg", c.options);
        e.info["q0"] = e.info["components.0.quantization_zigzag.0"];
        for (int i = 0; i < std::stoi(e.info["segments.count"]); i++)
            e.info["names"] += (i ? " " : "") + e.info["segments." + std::to_string(i) + ".name"];
        for (const auto &[key, value] : c.want)
            if (key == "names")
                EXPECT_EQ(e.info[key].rfind(value, 0), 0u) << c.options << ": " << e.info[key];
            else
                EXPECT_EQ(e.info[key], value) << c.options << ": " << key;
    }
    // --hq averages when subsampling; without subsampling there is nothing to average.
    EXPECT_NE(readFile(encodeFile(kOrig, "plain.jpg", "--sampling 420").path),
              readFile(encodeFile(kOrig, "hq.jpg", "--sampling 420 --hq").path));
    EXPECT_EQ(readFile(encodeFile(kOrig, "plain444.jpg", "--sampling 444").path),
              readFile(encodeFile(kOrig, "hq444.jpg", "--sampling 444 --hq").path));
}

// 16-bit source from the corpus and a 12-bit one made here keep their
// precision through PGM and PNG (sBIT); a baseline encode of deep input
// reduces it to 8 bits and says so.
TEST(ToolEncode, LosslessKeepsThePrecision) {
    Image deep = readPnm(corpus("samples/monkey16.pgm")), twelve(deep.width, deep.height, 1, 12);
    for (size_t i = 0; i < deep.samples(); i++)
        twelve.set(i, deep.get(i) >> 4);
    std::string pgm12 = tempPath("deep12.pgm"), out;
    writePnm(pgm12, twelve);
    for (auto &[file, bits] : {std::pair{corpus("samples/monkey16.pgm"), "16"}, {pgm12, "12"}}) {
        SCOPED_TRACE(bits);
        Encoded e = encodeFile(file, std::string("deep") + bits + ".jpg", "--lossless --predictor 6");
        EXPECT_EQ(e.info["precision"], bits);
        std::string back = tempPath(std::string("deep") + bits + "-back.pgm");
        ASSERT_EQ(kiv("decode " + e.path + " " + back, &out), 0) << out;
        EXPECT_EQ(readFile(back), readFile(file));
        if (toolHasPng()) {
            std::string png = tempPath(std::string("deep") + bits + ".png");
            ASSERT_EQ(kiv("decode " + e.path + " " + png, &out), 0) << out;
            EXPECT_EQ(encodeFile(png, std::string("deep") + bits + "-png.jpg", "--lossless").info["precision"], bits);
        }
    }
    EXPECT_EQ(kiv("encode " + pgm12 + " " + tempPath("deep-baseline.jpg"), &out), 0);
    EXPECT_NE(out.find("reduced to 8 bits"), std::string::npos);
}

TEST(ToolProgress, ShownOnATerminalOnly) {
    if (!haveTool("script"))
        GTEST_SKIP() << "script (util-linux) not installed";
    Image big(2048, 2048, 1);
    for (size_t i = 0; i < big.pixels.size(); i++)
        big.pixels[i] = uint8_t((i % 2048) ^ (i / 2048));
    std::string pgm = tempPath("big.pgm"), jpg = tempPath("big.jpg"), out;
    writePnm(pgm, big);
    ASSERT_EQ(kiv("encode " + pgm + " " + jpg, &out), 0);
    EXPECT_EQ(out.find('%'), std::string::npos) << out;  // not a terminal here
    for (const std::string &command : {"encode " + pgm + " " + jpg, "decode " + jpg + " " + pgm}) {
        ASSERT_EQ(run("script -qec '" + tool() + " " + command + "' /dev/null", &out), 0);  // on a pseudo-terminal
        EXPECT_NE(out.find("100%"), std::string::npos) << command << ": " << out;
    }
}

// ================================================================= compare, demo

TEST(ToolCompare, ReportsPsnrMaxDifferenceAndDiffImage) {
    std::string a = tempPath("cmp-a.ppm"), b = tempPath("cmp-b.ppm"), diff = tempPath("cmp-diff.ppm"), out;
    Bytes file = readFile(kOrig);
    writeFile(a, file);
    uint8_t &sample = file[file.size() - 227 * 149 * 3 + 1000];
    sample = uint8_t(sample < 128 ? sample + 10 : sample - 10);
    writeFile(b, file);
    ASSERT_EQ(kiv("compare " + a + " " + a, &out), 0);
    EXPECT_NE(out.find("identical"), std::string::npos);
    ASSERT_EQ(kiv("compare " + a + " " + b + " --diff " + diff, &out), 0);
    EXPECT_NE(out.find("max difference 10"), std::string::npos) << out;
    // One sample off by 10 among 227*149*3: MSE = 100/101469.
    EXPECT_NEAR(psnr(a, b), 10 * std::log10(255.0 * 255.0 * 101469 / 100), 0.01);
    Image d = readPnm(diff, true);
    EXPECT_EQ(d.width, 227);
    EXPECT_EQ(d.pixels[1000], 40);
    EXPECT_EQ(d.pixels[1001], 0);
}

TEST(ToolDemo, RunsAndWritesItsFiles) {
    std::string dir = tempPath("demo"), out;
    fs::remove_all(dir);
    ASSERT_EQ(kiv("demo " + dir + " --size 120x80", &out), 0) << out;
    for (const char *want : {"q50-444", "q90-420", "q100-420", "q85-422", "q85-411", "q85-gray", "lossless-p1",
                             "lossless-gray12-p6"})
        EXPECT_NE(out.find(want), std::string::npos) << want;
    EXPECT_EQ(out.find("JPG_STATUS"), std::string::npos) << out;
    auto info = infoJson(dir + "/q90-420.jpg");
    EXPECT_EQ(info["width"], "120");
    EXPECT_EQ(info["height"], "80");
    EXPECT_EQ(psnr(dir + "/lossless-p7.jpg", dir + (toolHasPng() ? "/original.png" : "/original.pnm")), INFINITY);
}

}  // namespace
