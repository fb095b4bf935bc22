// Hostile input: every corpus stream (and a few the tests build) damaged in
// the ways real files get damaged — truncated at every segment boundary,
// bits flipped, markers inserted, segments duplicated, segment
// lengths that lie, frame sizes of zero and 65535 — and driven through every
// decode path. Each case must end with a library status within a time
// bound; the sanitizer build adds "no invalid access, nothing leaked".
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include "api_program.h"
#include "hostile_decode.h"
#include "hostile_encode.h"
#include "stream_builder.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Where the marker segments of a stream begin, up to and including the
// first SOS, and where its entropy-coded data starts (0: nowhere).
struct Layout {
    std::vector<size_t> segments;
    size_t scanData = 0;
};

kivtest::DecodeOutcome TimedDecode(const uint8_t *data, size_t size, const kivtest::DecodePlan &plan,
                                   double *seconds) {
    auto start = std::chrono::steady_clock::now();
    kivtest::DecodeOutcome out = kivtest::DecodeWithPlan(data, size, plan);
    *seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return out;
}

struct Input {
    std::string name;
    Bytes bytes;
};

const std::vector<Input> &Inputs() {
    static std::vector<Input> inputs;
    if (!inputs.empty())
        return inputs;
    for (const char *sub : {"conformance", "samples"}) {
        std::error_code ec;
        std::vector<std::filesystem::path> files;
        for (auto &e : std::filesystem::directory_iterator(kivtest::corpus(sub), ec))
            if (e.path().extension() == ".jpg")
                files.push_back(e.path());
        std::sort(files.begin(), files.end());
        for (auto &f : files)
            inputs.push_back({std::string(sub) + "/" + f.filename().string(),
                              kivtest::readFile(f.string())});
    }
    inputs.push_back({"built/progressive", kivtest::ProgressiveBomb(64, 48, 64, 3, 1)});
    inputs.push_back({"built/lossless16", kivtest::LosslessBomb(40, 20, 16, 3, 400)});
    return inputs;
}

// The plans each damaged stream is decoded with: one per output driver.
std::vector<kivtest::DecodePlan> Plans() {
    std::vector<kivtest::DecodePlan> plans;
    // Flags 2 skips the EOI search (so truncated streams reach the parser),
    // 4 opens from a file, 1 enables partial input, 8 no colour conversion,
    // 16 walks the segments, 0x60 puts the stream at an offset in the file.
    const uint8_t table[][4] = {{0, 16, 2, 0},  {1, 7, 2, 3},  {2, 3, 6, 0},    {4, 5, 2, 1},
                                {8, 16, 2, 9},  {10, 1, 2, 5}, {12, 9, 3, 9},   {0, 0, 0x1A, 7},
                                {6, 16, 0x66, 2}, {0, 16, 0, 0}};
    for (auto &p : table) {
        kivtest::DecodePlan plan;
        kivtest::ReadPlan(p, 4, &plan);
        plan.pixelCap = 1 << 21;
        plan.maxCalls = 512;
        plan.tempDir = kivtest::tempDir();
        plans.push_back(plan);
    }
    return plans;
}

class HostileInput : public ::testing::Test {
protected:
    // Decodes a damaged stream with one plan (rotating through all of them)
    // and checks that it ends with a library status in time.
    void Check(const std::string &what, const Bytes &bytes) {
        const kivtest::DecodePlan &plan = plans_[next_++ % plans_.size()];
        double seconds = 0;
        kivtest::DecodeOutcome out = TimedDecode(bytes.data(), bytes.size(), plan, &seconds);
        cases_++;
        EXPECT_TRUE(kivtest::IsDocumentedStatus(out.prolog)) << what << std::hex << " prolog 0x" << out.prolog;
        EXPECT_TRUE(kivtest::IsDocumentedStatus(out.last)) << what << std::hex << " last 0x" << out.last;
        EXPECT_LT(seconds, 5.0) << what << " plan path " << int(plan.path);
    }

    // Runs `damage` on every input (but the largest, unless `all`) and its layout.
    template <typename F>
    void ForEachInput(bool all, F damage) {
        for (const Input &in : Inputs()) {
            Layout layout{{}, kivtest::scanData(in.bytes)};
            for (const kivtest::Segment &segment : kivtest::headerSegments(in.bytes))
                layout.segments.push_back(segment.offset);
            if (all || in.bytes.size() <= 200000)
                damage(in, layout);
        }
    }

    const std::vector<kivtest::DecodePlan> plans_ = Plans();
    size_t next_ = 0;
    int cases_ = 0;
};

TEST_F(HostileInput, TruncatedAtEverySegmentBoundaryAndInsideTheScan) {
    ForEachInput(true, [&](const Input &in, const Layout &layout) {
        std::vector<size_t> cuts = layout.segments;
        cuts.insert(cuts.end(), {0, 1, 2, 3, in.bytes.size() - 1, in.bytes.size() - 2});
        if (layout.scanData != 0)
            for (size_t k = 1; k <= 4; k++)
                cuts.push_back(layout.scanData + (in.bytes.size() - layout.scanData) * k / 5);
        for (size_t cut : cuts) {
            if (cut >= in.bytes.size())
                continue;
            Bytes truncated(in.bytes.begin(), in.bytes.begin() + cut);
            Check(in.name + " cut at " + std::to_string(cut), truncated);
            // The same, closed with EOI, so that the memory prolog's EOI search passes.
            truncated.insert(truncated.end(), {0xFF, 0xD9});
            Check(in.name + " cut at " + std::to_string(cut) + " + EOI", truncated);
        }
    });
    EXPECT_GT(cases_, 200);
}

// Damage to the scan structure of real streams: restart markers missing,
// repeated, out of order or inside a band; a scan naming a component twice
// or one the frame lacks; a sequential frame whose scans leave a component
// without data; restart intervals that do not divide the blocks. Each is
// decoded twice through every driver, with other bytes in the output and
// in fresh heap memory (glibc's perturbation; the sanitizer build has its
// own allocator), and must give the same statuses and pixels both times.
std::vector<Input> ScanDamage() {
    std::vector<Input> out;
    if (!kivtest::haveTool("jpegtran"))
        return out;
    auto transcode = [](const std::string &options) {
        return kivtest::jpegtran(kivtest::readFile(kivtest::corpus("samples/testorig.jpg")), options);
    };
    std::string script = kivtest::writeTemp("luma-then-chroma.txt", "0: 0-63, 0, 0; 1 2: 0-63, 0, 0;");
    const Bytes prog = transcode("-progressive -restart 2"), multi = transcode("-scans '" + script + "' -restart 3");
    out.push_back({"progressive, interval 7", transcode("-progressive -restart 7")});
    for (const auto &[name, stream] : {std::make_pair("progressive", prog), std::make_pair("multi-scan", multi)}) {
        std::vector<size_t> rst, sos;
        for (const kivtest::Segment &segment : kivtest::allSegments(stream))
            if ((segment.marker & 0xFFF8) == 0xFFD0 || segment.marker == 0xFFDA)
                (segment.marker == 0xFFDA ? sos : rst).push_back(segment.offset);
        Bytes missing, repeated = stream, swapped = stream, inBand = stream, twice = stream, foreign = stream;
        for (size_t i = 0; i < stream.size(); i++)
            if (std::find(rst.begin(), rst.end(), i) != rst.end())
                i++;
            else
                missing.push_back(stream[i]);
        repeated.insert(repeated.begin() + long(rst[1]), {0xFF, stream[rst[1] + 1]});
        std::swap(swapped[rst[0] + 1], swapped[rst[1] + 1]);
        size_t scan = sos.size() / 2, middle = (sos[scan] + (scan + 1 < sos.size() ? sos[scan + 1] : stream.size())) / 2;
        while (inBand[middle - 1] == 0xFF)
            middle++;
        inBand.insert(inBand.begin() + long(middle), {0xFF, 0xD3});
        size_t pair = stream[sos[0] + 4] > 1 ? sos[0] : sos[1];  // a scan of two components or more
        twice[pair + 7] = twice[pair + 5];  // its second selector names its first component
        foreign[pair + 5] = 9;
        Bytes lost(stream.begin(), stream.begin() + long(sos.back()));
        lost.insert(lost.end(), {0xFF, 0xD9});
        for (auto &[what, bytes] : {std::make_pair("restart markers missing", missing),
                                    std::make_pair("a restart marker repeated", repeated),
                                    std::make_pair("restart markers swapped", swapped),
                                    std::make_pair("a restart marker inside a band", inBand),
                                    std::make_pair("a component twice in a scan", twice),
                                    std::make_pair("a component the frame lacks", foreign),
                                    std::make_pair("the last scan missing", lost)})
            out.push_back({std::string(name) + ": " + what, bytes});
    }
    return out;
}

TEST_F(HostileInput, DamagedScanStructuresDecodeTheSameInFreshMemory) {
    const uint8_t paths[][2] = {{0, 0}, {1, 0}, {2, 0}, {2, 1}, {2, 2}, {4, 1}, {4, 2}};
    mallopt(M_MMAP_THRESHOLD, 256 << 20);  // large blocks too come from the perturbed heap
    int cases = 0;
    for (const Input &in : ScanDamage()) {
        for (const auto &p : paths) {
            kivtest::DecodeOutcome runs[2];
            for (int run = 0; run < 2; run++) {
                kivtest::DecodePlan plan{.path = p[0], .batch = 16, .flags = 2, .extra = p[1],
                                         .fill = uint8_t(run == 0 ? 0xA5 : 0x5A)};
                mallopt(M_PERTURB, run == 0 ? 0x11 : 0xEE);
                runs[run] = kivtest::DecodeWithPlan(in.bytes.data(), in.bytes.size(), plan);
            }
            mallopt(M_PERTURB, 0);
            std::string what = in.name + " path " + std::to_string(p[0]) + " level " + std::to_string(p[1]);
            EXPECT_TRUE(kivtest::IsDocumentedStatus(runs[0].last)) << what;
            if (in.name.find("last scan missing") != std::string::npos)  // an image lacking a component
                EXPECT_EQ(runs[0].last, p[0] == 2 && in.name[0] == 'm' ? JPG_STATUS_NOT_SUPPORTED
                                                                        : JPG_STATUS_UNEXPECTED_END) << what;
            EXPECT_EQ(runs[0].prolog, runs[1].prolog) << what;
            EXPECT_EQ(runs[0].last, runs[1].last) << what;
            // An error leaves the rectangle as it was; otherwise every byte is the decoder's.
            JpgStatus last = runs[0].last;
            if (last == JPG_STATUS_OK || last == JPG_STATUS_UNEXPECTED_END || (last >> 28) == 8)
                EXPECT_EQ(runs[0].hash, runs[1].hash) << what << std::hex << " status 0x" << last;
            cases++;
        }
    }
    if (kivtest::haveTool("jpegtran"))
        EXPECT_EQ(cases, 15 * 7);
}

// Header damage to every input: bits flipped (two thirds of the flips in
// the header, where decisions are made); a marker inserted before each
// segment and in the scan; each segment twice; every segment length lying;
// every frame header stating a width and height of 0, 1 or 65535.
TEST_F(HostileInput, FlippedInsertedDuplicatedAndLyingSegments) {
    const Bytes kInserts[] = {
        {0xFF, 0xD3},                    // RST3 where none belongs
        {0xFF, 0xD8},                    // a second SOI
        {0xFF, 0xD9},                    // an early EOI
        {0xFF, 0x01},                    // a reserved marker
        {0xFF, 0xFF, 0xFF},              // fill bytes
        {0xFF, 0xDD, 0x00, 0x04, 0, 1},  // DRI with a wrong length
        {0xFF, 0xC4, 0x00, 0x13, 0x05, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
         0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},  // DHT with id 5 and huge counts
    };
    std::minstd_rand random(2463534242u);
    ForEachInput(false, [&](const Input &in, const Layout &layout) {
        size_t header = layout.scanData != 0 ? layout.scanData : in.bytes.size();
        for (int i = 0; i < 36; i++) {
            Bytes damaged = in.bytes;
            size_t span = i % 3 != 2 ? header : damaged.size();
            for (int f = 0; f <= i % 3; f++)
                damaged[random() % span] ^= uint8_t(1u << (random() % 8));
            Check(in.name + " flip " + std::to_string(i), damaged);
        }
        std::vector<size_t> points = layout.segments;
        if (layout.scanData != 0)
            points.push_back(layout.scanData + (in.bytes.size() - layout.scanData) / 2);
        for (size_t p = 0; p < points.size(); p++) {
            const Bytes &insert = kInserts[p % std::size(kInserts)];
            Bytes damaged = in.bytes;
            damaged.insert(damaged.begin() + points[p], insert.begin(), insert.end());
            Check(in.name + " insert at " + std::to_string(points[p]), damaged);
        }
        for (size_t i = 0; i + 1 < points.size() && layout.scanData != 0; i++) {
            Bytes twice = in.bytes;
            size_t end = i + 2 < points.size() ? points[i + 1] : layout.scanData;
            twice.insert(twice.begin() + end, in.bytes.begin() + points[i], in.bytes.begin() + end);
            Check(in.name + " duplicate segment " + std::to_string(i), twice);
        }
        for (size_t at : layout.segments) {
            uint32_t length = uint32_t(in.bytes[at + 2]) << 8 | in.bytes[at + 3];
            for (uint32_t lie : {0u, 1u, 2u, length - 1, length + 1, length + 64, 0xFFFFu}) {
                Bytes damaged = in.bytes;
                damaged[at + 2] = uint8_t(lie >> 8);
                damaged[at + 3] = uint8_t(lie);
                Check(in.name + " length " + std::to_string(lie) + " at " + std::to_string(at), damaged);
            }
            uint8_t code = in.bytes[at + 1];
            if (code < 0xC0 || code > 0xCF || code == 0xC4 || code == 0xC8 || code == 0xCC)
                continue;
            for (uint32_t height : {0u, 1u, 65535u})
                for (uint32_t width : {0u, 1u, 65535u}) {
                    Bytes damaged = in.bytes;
                    damaged[at + 5] = uint8_t(height >> 8);
                    damaged[at + 6] = uint8_t(height);
                    damaged[at + 7] = uint8_t(width >> 8);
                    damaged[at + 8] = uint8_t(width);
                    Check(in.name + " size " + std::to_string(width) + "x" + std::to_string(height), damaged);
                }
        }
    });
    EXPECT_GT(cases_, 800);
}

// A few hundred bytes declaring a 65535 x 65535 frame: opening and decoding
// end quickly with a status, whatever the process.
TEST(HostileInputStatus, DecompressionBombsEndQuickly) {
    struct Bomb {
        const char *what;
        Bytes stream;
        uint8_t path;
        bool truncated;  // the data ends long before the frame does
    };
    const Bomb bombs[] = {
        {"baseline", kivtest::BaselineBomb(65535, 65535, 200), 0, true},
        {"baseline scaled", kivtest::BaselineBomb(65535, 65535, 200), 4, true},
        {"baseline MCU seek", kivtest::BaselineBomb(65535, 65535, 200), 10, true},
        {"progressive 4:2:0", kivtest::ProgressiveColourBomb(65535, 65535, 200), 1, true},
        {"progressive many scans", kivtest::ProgressiveBomb(1024, 1024, 2048, 300, 1), 0, false},
        {"lossless 16-bit", kivtest::LosslessBomb(65535, 65535, 16, 4, 200), 0, true},
        {"lossless no height", kivtest::LosslessBomb(65535, 0, 8, 1, 200), 0, true},
    };
    for (const Bomb &bomb : bombs) {
        // The caller asks for every line.
        kivtest::DecodePlan plan{.path = bomb.path, .batch = 16, .extra = 0x7F, .pixelCap = UINT64_MAX,
                                 .maxCalls = 1 << 20};
        double seconds = 0;
        kivtest::DecodeOutcome out = TimedDecode(bomb.stream.data(), bomb.stream.size(), plan, &seconds);
        EXPECT_LT(seconds, 10.0) << bomb.what;
        EXPECT_TRUE(kivtest::IsDocumentedStatus(out.prolog)) << bomb.what;
        if (!bomb.truncated)
            continue;
        EXPECT_TRUE(out.prolog != JPG_STATUS_OK || out.last != JPG_STATUS_OK || out.height == 0)
            << bomb.what << ": a few hundred bytes cannot hold a whole 65535-line image";
        EXPECT_LT(out.calls, 64) << bomb.what << ": decoding went on past the end of the data";
    }
}

// Peak resident memory of this process in KiB (VmHWM), 0 where unknown.
long PeakResidentKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0)
            return std::stol(line.substr(6));
    return 0;
}

// AddressSanitizer keeps one shadow byte per eight bytes of every
// allocation and writes it when the allocation is made: that much of a
// reservation becomes resident whatever the library does.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kShadowDivisor = 8;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr long kShadowDivisor = 8;
#else
constexpr long kShadowDivisor = 0;
#endif
#else
constexpr long kShadowDivisor = 0;
#endif

// A progressive stream of a few hundred bytes declaring a frame of 2 GiB
// and more of coefficients: the library may reserve that address space, but
// the pages it touches must follow the data, not the declared size. Each
// decode runs in a child process so that its peak resident size is its own;
// the child reports the growth (KiB) through its pipe.
TEST(HostileInputStatus, ProgressiveBombsTouchLittleMemory) {
    struct Bomb {
        const char *what;
        Bytes stream;
        uint32_t flags;
        long coefficientMiB;  // the coefficient memory the frame declares
    };
    const Bomb bombs[] = {
        {"grey 32760 x 32760, DC scan cut short", kivtest::ProgressiveBomb(32760, 32760, 300, 1, 1), 0,
         2047},
        {"4:2:0 30000 x 30000, DC scan cut short", kivtest::ProgressiveColourBomb(30000, 30000, 300), 0,
         2575},
        {"4:2:0 30000 x 30000, incremental", kivtest::ProgressiveColourBomb(30000, 30000, 300),
         JPG_PROGRESSIVE_INCREMENTAL, 2575},
    };
    for (const Bomb &bomb : bombs) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            long report[2] = {-1, 0};  // status, KiB grown
            long before = PeakResidentKiB();
            JpgParam *param = nullptr;
            JpgStatus status = jpgReadPrologFromMemory(bomb.stream.data(),
                                                       int32_t(bomb.stream.size()), 0, &param);
            if (status == JPG_STATUS_OK) {
                kivtest::Image pixels(30000, 16, 3);  // the caller asks for the first 16 rows only
                ComplibRect rect = pixels.rect();
                status = jpgReadProgressiveToRect(param, &rect, 16, bomb.flags);
                jpgReadEpilog(param);
            }
            report[0] = long(status);
            report[1] = PeakResidentKiB() - before;
            _exit(write(fds[1], report, sizeof report) == sizeof report ? 0 : 1);
        }
        close(fds[1]);
        long report[2] = {};
        bool reported = read(fds[0], report, sizeof report) == sizeof report;
        close(fds[0]);
        int exit = 0;
        waitpid(child, &exit, 0);
        ASSERT_TRUE(reported) << bomb.what << ": the child died";
        JpgStatus status = JpgStatus(report[0]);
        EXPECT_TRUE(kivtest::IsDocumentedStatus(status)) << bomb.what;
        // Where the address space is too small (32-bit) the prolog says so.
        if (status == JPG_STATUS_NO_MEMORY)
            continue;
        const long shadowKiB = kShadowDivisor == 0 ? 0 : bomb.coefficientMiB * 1024 / kShadowDivisor;
        EXPECT_LT(report[1], 64 * 1024 + shadowKiB) << bomb.what << ": KiB of resident memory grown";
    }
}

// Inputs that fuzzing once found to crash, hang, leak or misdecode, under
// tests/regressions/decode/, in the decode fuzz target's format (plan bytes,
// then the stream). They replay here on every build.
TEST(Regressions, DecodeFindingsEndWithAStatus) {
    std::error_code ec;
    std::string dir = std::string(KIV_SOURCE_DIR) + "/tests/regressions/decode";
    for (const auto &file : std::filesystem::directory_iterator(dir, ec)) {
        Bytes input = kivtest::readFile(file.path().string());
        kivtest::DecodePlan plan;
        size_t used = kivtest::ReadPlan(input.data(), input.size(), &plan);
        plan.pixelCap = uint64_t(1) << 18;
        plan.maxCalls = 2048;
        plan.tempDir = kivtest::tempDir();
        double seconds = 0;
        kivtest::DecodeOutcome out = TimedDecode(input.data() + used, input.size() - used, plan, &seconds);
        EXPECT_TRUE(kivtest::IsDocumentedStatus(out.prolog)) << file.path().filename();
        EXPECT_TRUE(kivtest::IsDocumentedStatus(out.last)) << file.path().filename();
        EXPECT_LT(seconds, 5.0) << file.path().filename();
    }
}

}  // namespace
