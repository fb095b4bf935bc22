// Misuse of the public interface, as application code commits it: calls of
// the other family on both kinds of handle, each rectangle defect on each
// output driver, and the call programs that seed the api fuzz target (every
// call of the other family and every epilog after every stage among them).
// Every refusal must name its status, leave the caller's buffer as it was
// and the handle working; the sanitizer build's leak checker sees every
// sequence end.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "api_seeds.h"
#include "test_support.h"

namespace {

using kivtest::Bytes;
using kivtest::Image;
constexpr int kW = 40, kH = 24;  // 4:2:0: three MCUs across (the last partial), two down

// The source of the encoders: colour baseline, or 12-bit grey lossless.
Image Source(bool lossless) {
    return lossless ? kivtest::gradientImage(kW, kH, 1, 12, 3) : kivtest::picture(kW, kH, 3, 20, 3);
}

Bytes Finish(JpgParam *enc) {
    JpgStatus status;
    Bytes out = kivtest::finishToMemory(enc, &status);
    EXPECT_EQ(status, JPG_STATUS_OK);
    return out;
}

// Encodes in two strips; `between` runs on the encoder between them.
Bytes Encode(bool lossless, const std::function<void(JpgParam *)> &between = {}) {
    Image image = Source(lossless);
    JpgParam *enc = nullptr;
    EXPECT_EQ(jpgWritePrologToMemory(0, &enc), JPG_STATUS_OK);
    EXPECT_EQ(jpgWriteSetImageSize(enc, kW, kH), JPG_STATUS_OK);
    for (auto [first, rows] : {std::pair{0, 16}, {16, kH - 16}}) {
        ComplibRect s = image.rect();  // rows [first, first + rows)
        s.pixels = image.row(first);
        s.height = rows;
        s.allocSize = uint32_t(rows * s.stride);
        EXPECT_EQ(lossless ? jpgWriteSpatialFromRect(enc, &s, rows) : jpgWriteFromRect(enc, &s, uint32_t(rows)),
                  JPG_STATUS_OK);
        if (first == 0 && between)
            between(enc);
    }
    return Finish(enc);
}

// The decoder entry points that the api seed programs (ApiPrograms below)
// do not reach; those check every getter, setter, driver, seek, segment call
// and epilog of one family on a handle of the other.
std::vector<std::pair<const char *, std::function<JpgStatus(JpgParam *)>>> DecoderCalls() {
    static int32_t diff;
    static int16_t block[64];
    return {
        {"jpgReadProlog", [](JpgParam *p) { return jpgReadProlog(p); }},
        {"jpgReadRewindJPEGFile", [](JpgParam *p) { return jpgReadRewindJPEGFile(p, 0, 1); }},
        {"jpgReadInitializeDecVLCTable", [](JpgParam *p) { return jpgReadInitializeDecVLCTable(p); }},
        {"jpgReadParseScanLevel", [](JpgParam *p) { return jpgReadParseScanLevel(p); }},
        {"jpgReadEpilogEntropyCodedSegment", [](JpgParam *p) { return jpgReadEpilogEntropyCodedSegment(p); }},
        {"jpgReadReadRestartMarker", [](JpgParam *p) { return jpgReadReadRestartMarker(p); }},
        {"jpgReadDecodeBaselineMcu", [](JpgParam *p) { return jpgReadDecodeBaselineMcu(p); }},
        {"jpgReadScaleOutputLevel1MCU", [](JpgParam *p) { return jpgReadScaleOutputLevel1MCU(p); }},
        {"jpgReadGetProgressiveACBaseCoefficient",
         [](JpgParam *p) { return jpgReadGetProgressiveACBaseCoefficient(p, block, nullptr); }},
        {"jpgReadGetSpatialDifferenceAtIndex", [](JpgParam *p) { return jpgReadGetSpatialDifferenceAtIndex(p, &diff, 0); }},
        // Bit-reader primitives have no status: refusing returns 0 and touches nothing.
        {"jpgReadGetBits", [](JpgParam *p) { return jpgReadGetBits(p, 16) == 0 ? JPG_STATUS_WRONG_MODE : 0; }},
        {"jpgReadGetBytes", [](JpgParam *p) { return jpgReadGetBytes(p, 16) == 0 ? JPG_STATUS_WRONG_MODE : 0; }},
        {"jpgReadFillBuffer", [](JpgParam *p) { return jpgReadFillBuffer(p) == 0 ? JPG_STATUS_WRONG_MODE : 0; }},
    };
}

// The same for the encoder entry points.
std::vector<std::pair<const char *, std::function<JpgStatus(JpgParam *)>>> EncoderCalls() {
    static uint32_t factors[8];
    static const uint8_t body[16] = {8, 0, 16, 0, 16, 1, 1, 0x11, 0};
    return {
        {"jpgWriteProlog", [](JpgParam *p) { return jpgWriteProlog(p); }},
        {"SetColorIngredient", [](JpgParam *p) { return SetColorIngredient(p); }},
        {"jpgWriteSSSetting", [](JpgParam *p) { return jpgWriteSSSetting(p, factors); }},
        {"jpgWriteMakeClrCvtID", [](JpgParam *p) { return jpgWriteMakeClrCvtID(p) == 0 ? JPG_STATUS_WRONG_MODE : 0; }},
        {"jpgWriteCreateTables", [](JpgParam *p) { return jpgWriteCreateTables(p); }},
        {"createDQT", [](JpgParam *p) { return createDQT(p); }},
        {"jpgWriteSortHuffmanTable", [](JpgParam *p) { return jpgWriteSortHuffmanTable(p); }},
        {"jpgWriteEpilogEntropyCodedSegment", [](JpgParam *p) { return jpgWriteEpilogEntropyCodedSegment(p); }},
        {"jpgWriteWriteSOF", [](JpgParam *p) { return jpgWriteWriteSOF(p, 0xFFC0, body); }},
        {"jpgWriteWriteSOS", [](JpgParam *p) { return jpgWriteWriteSOS(p, body + 5); }},
        {"jpgWriteWriteDRI", [](JpgParam *p) { return jpgWriteWriteDRI(p); }},
    };
}

TEST(WrongMode, DecoderCallsOnAnEncoderChangeNothing) {
    Bytes misused = Encode(false, [](JpgParam *enc) {
        for (auto &[name, call] : DecoderCalls())
            EXPECT_EQ(call(enc), JPG_STATUS_WRONG_MODE) << name;
    });
    EXPECT_EQ(misused, Encode(false)) << "the stream of an encoder that refused every decoder call";
}

TEST(WrongMode, EncoderCallsOnADecoderChangeNothing) {
    for (bool lossless : {false, true}) {
        Bytes jpeg = Encode(lossless);
        kivtest::ReadHandle h(jpeg);
        ASSERT_EQ(h.status, JPG_STATUS_OK);
        for (auto &[name, call] : EncoderCalls())
            EXPECT_EQ(call(h.p), JPG_STATUS_WRONG_MODE) << name;
        kivtest::Decoded clean = kivtest::decode(jpeg), misused = kivtest::decodeOpen(h.p);
        ASSERT_EQ(clean.status, JPG_STATUS_OK);
        EXPECT_EQ(misused.status, JPG_STATUS_OK) << lossless;
        EXPECT_TRUE(misused.image == clean.image) << lossless;
    }
}

// Once rows are encoded, the setters that size the frame are refused: the
// encoder's buffers and the written headers keep the first size.
TEST(WrongMode, FrameSizeStaysFixedOnceEncodingBegan) {
    for (bool lossless : {false, true}) {
        Bytes clean = Encode(lossless);
        Bytes resized = Encode(lossless, [](JpgParam *enc) {
            EXPECT_EQ(jpgWriteSetImageSize(enc, kW / 2, kH), JPG_STATUS_INVALID_PARAMETER);
            EXPECT_EQ(jpgWriteSetNumberOfChannels(enc, 4), JPG_STATUS_INVALID_PARAMETER);
        });
        EXPECT_EQ(resized, clean) << lossless;
    }
}

// A handle that is none (never made, or a block without the magic): the
// two getters that once skipped the check refuse it like the others.
TEST(WrongMode, DeadHandlesAreRefused) {
    std::vector<uint32_t> block(70000 / 4, 0);
    auto *dead = reinterpret_cast<JpgParam *>(block.data());
    uint32_t out[64];
    for (JpgParam *p : {static_cast<JpgParam *>(nullptr), dead}) {
        EXPECT_EQ(jpgReadGetQuantizationTableSelector(p, out), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadGetQuantizationTable(p, 0, out), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadToRect(p, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgWriteFromRect(p, nullptr, 1), JPG_STATUS_INVALID_HANDLE);
        EXPECT_EQ(jpgReadGetBits(p, 8), 0u);
    }
    EXPECT_TRUE(std::all_of(block.begin(), block.end(), [](uint32_t w) { return w == 0; }));
}

// ---------------------------------------------------------------- rectangles

enum class Driver { ToRect, McuToRect, McuRow, Scaled, ScaledMcu, Progressive, Spatial, Write, WriteSpatial };

// The rectangle a driver fills or reads in one call: the whole image, half
// of it scaled, or the first MCU row.
struct DriverCase {
    const char *name;
    Driver driver;
    bool decoder;
    bool lossless;
    int w, h;
};

constexpr DriverCase kDrivers[] = {
    {"jpgReadToRect", Driver::ToRect, true, false, kW, kH},
    {"jpgReadMcuToRect", Driver::McuToRect, true, false, kW, 16},
    {"jpgReadDecodeMcuRow", Driver::McuRow, true, false, kW, 16},
    {"jpgReadScaleOutputToRect", Driver::Scaled, true, false, kW / 2, kH / 2},
    {"jpgReadScaleOutputMcuToRect", Driver::ScaledMcu, true, false, kW / 2, 8},
    {"jpgReadProgressiveToRect", Driver::Progressive, true, false, kW, kH},
    {"jpgReadSpatialToRect", Driver::Spatial, true, true, kW, kH},
    {"jpgWriteFromRect", Driver::Write, false, false, kW, kH},
    {"jpgWriteSpatialFromRect", Driver::WriteSpatial, false, true, kW, kH},
};

// `rows` counts lines at the driver's scale.
JpgStatus Drive(Driver d, JpgParam *p, ComplibRect *r, uint32_t rows) {
    switch (d) {
    case Driver::ToRect: return jpgReadToRect(p, r, rows);
    case Driver::McuToRect: return jpgReadMcuToRect(p, r, 3);
    case Driver::McuRow: return jpgReadDecodeMcuRow(p, r, 3);
    case Driver::Scaled: return jpgReadScaleOutputToRect(p, r, rows, 2);
    case Driver::ScaledMcu: return jpgReadScaleOutputMcuToRect(p, r, 3, 2);
    case Driver::Progressive: return jpgReadProgressiveToRect(p, r, rows, 0);
    case Driver::Spatial: return jpgReadSpatialToRect(p, r, rows);
    case Driver::Write: return jpgWriteFromRect(p, r, rows);
    default: return jpgWriteSpatialFromRect(p, r, int32_t(rows));
    }
}

// The buffer behind a rectangle: 64 guard bytes on each side and 6 bytes of
// padding behind every row, all holding a pattern, so that a write outside
// the rectangle shows; a refused call must leave every byte.
struct Guarded {
    static constexpr size_t kGuard = 64, kPad = 6;  // even: 16-bit rows stay aligned
    Bytes bytes;
    ComplibRect rect;
    size_t rowBytes, stride;
    Guarded(const DriverCase &c, int w, int h) {
        int channels = c.lossless ? 1 : 3, bits = c.lossless ? 12 : 8;
        rowBytes = size_t(w) * channels * (bits > 8 ? 2 : 1);
        stride = rowBytes + kPad;
        size_t reach = (size_t(h) - 1) * stride + rowBytes;
        bytes.resize(2 * kGuard + reach);
        for (size_t i = 0; i < bytes.size(); i++)
            bytes[i] = Pattern(i);
        rect = {w, h, int32_t(stride), 8 * channels * (bits > 8 ? 2 : 1), channels, bits, bytes.data() + kGuard,
                uint32_t(reach)};
    }
    static uint8_t Pattern(size_t i) { return uint8_t(i * 29 + 5); }
    bool InRow(size_t i) const {
        return i >= kGuard && i < bytes.size() - kGuard && (i - kGuard) % stride < rowBytes;
    }
    bool Untouched(bool rowsToo = true) const {
        for (size_t i = 0; i < bytes.size(); i++)
            if (bytes[i] != Pattern(i) && (rowsToo || !InRow(i)))
                return false;
        return true;
    }
};

// What a fresh handle, or one that refused calls before, delivers in one
// call: a decoder's whole buffer (nothing written outside the rectangle) or an
// encoder's stream.
Bytes Complete(const DriverCase &c, JpgParam *p) {
    if (!c.decoder) {
        Image pixels = Source(c.lossless);
        ComplibRect r = pixels.rect();
        EXPECT_EQ(Drive(c.driver, p, &r, uint32_t(kH)), JPG_STATUS_OK) << c.name;
        return Finish(p);
    }
    Guarded g(c, c.w, c.h);
    EXPECT_EQ(Drive(c.driver, p, &g.rect, uint32_t(c.h)), JPG_STATUS_OK) << c.name;
    EXPECT_TRUE(g.Untouched(false)) << c.name << ": written outside the rectangle";
    return g.bytes;
}

JpgParam *Open(const DriverCase &c, const Bytes &jpeg) {
    JpgParam *p = nullptr;
    JpgStatus s = c.decoder ? jpgReadPrologFromMemory(jpeg.data(), int32_t(jpeg.size()), 0, &p)
                            : jpgWritePrologToMemory(0, &p);
    if (s == JPG_STATUS_OK && !c.decoder)
        s = jpgWriteSetImageSize(p, kW, kH);
    EXPECT_EQ(s, JPG_STATUS_OK) << c.name;
    return p;
}

struct Defect {
    const char *name;
    void (*apply)(ComplibRect &, const DriverCase &);
    JpgStatus decoder, encoder, losslessEncoder;  // expected status
};

constexpr JpgStatus kHandle = JPG_STATUS_INVALID_HANDLE, kParameter = JPG_STATUS_INVALID_PARAMETER,
                    kNotSupported = JPG_STATUS_NOT_SUPPORTED;

const Defect kDefects[] = {
    {"no pixels", [](ComplibRect &r, const DriverCase &) { r.pixels = nullptr; }, kHandle, kHandle, kHandle},
    {"zero width", [](ComplibRect &r, const DriverCase &) { r.width = 0; }, kParameter, kParameter, kParameter},
    {"width whose row overflows 32 bits",
     [](ComplibRect &r, const DriverCase &) { r.width = 0x40000000; r.stride = 0x7FFFFFFF; },
     kParameter, kParameter, kParameter},
    {"zero height", [](ComplibRect &r, const DriverCase &) { r.height = 0; }, kParameter, kParameter, kParameter},
    {"stride shorter than a row",
     [](ComplibRect &r, const DriverCase &) { r.stride = r.width * r.channels * ((r.sampleBits + 7) / 8) - 1; },
     kParameter, kParameter, kParameter},
    {"negative stride over a stated allocation", [](ComplibRect &r, const DriverCase &) { r.stride = -r.stride; },
     kParameter, kParameter, kParameter},
    {"allocation a byte short", [](ComplibRect &r, const DriverCase &) { r.allocSize -= 1; }, kParameter, kParameter, kParameter},
    {"no channels", [](ComplibRect &r, const DriverCase &) { r.channels = 0; }, kNotSupported, kParameter, kParameter},
    {"five channels", [](ComplibRect &r, const DriverCase &) { r.channels = 5; }, kNotSupported, kParameter, kParameter},
    {"sample size the call does not take",
     [](ComplibRect &r, const DriverCase &c) { r.sampleBits = c.lossless ? 17 : 16; },
     kNotSupported, kNotSupported, kParameter},
};

TEST(RectangleDefects, EveryDriverRefusesEachDefectAndThenWorks) {
    for (const DriverCase &c : kDrivers) {
        // A stream for the decoders, and the same image progressive via jpegtran.
        Bytes jpeg = !c.decoder                        ? Bytes{}
                     : c.driver != Driver::Progressive ? Encode(c.lossless)
                                                       : kivtest::jpegtran(Encode(false), "-progressive");
        if (c.decoder && jpeg.empty()) {
            ADD_FAILURE() << c.name << ": no stream (jpegtran missing?)";
            continue;
        }
        JpgParam *reference = Open(c, jpeg);
        Bytes expected = Complete(c, reference);
        if (c.decoder)
            jpgReadEpilog(reference);
        JpgParam *p = Open(c, jpeg);
        for (const Defect &d : kDefects) {
            Guarded g(c, c.w, c.h);
            d.apply(g.rect, c);
            JpgStatus expected = c.decoder ? d.decoder : c.lossless ? d.losslessEncoder : d.encoder;
            EXPECT_EQ(Drive(c.driver, p, &g.rect, uint32_t(c.h)), expected) << c.name << ", " << d.name;
            EXPECT_TRUE(g.Untouched()) << c.name << ", " << d.name;
        }
        // A decoder also refuses a bottom-up rectangle that states no allocation.
        if (c.decoder) {
            Guarded g(c, c.w, c.h);
            g.rect.pixels += size_t(c.h - 1) * g.rect.stride;
            g.rect.stride = -g.rect.stride;
            g.rect.allocSize = 0;
            EXPECT_EQ(Drive(c.driver, p, &g.rect, uint32_t(c.h)), JPG_STATUS_INVALID_PARAMETER) << c.name;
            EXPECT_TRUE(g.Untouched()) << c.name;
        }
        EXPECT_EQ(Complete(c, p), expected) << c.name << ": the handle after the refusals";
        if (c.decoder)
            jpgReadEpilog(p);
    }
}

// A call is checked for the rows it may reach, the lines asked for up to
// the rectangle's height: a strip inside a short buffer is decoded, a
// request that could reach past the buffer is refused.
TEST(RectangleDefects, RowsAskedForMustFitTheAllocation) {
    kivtest::ReadHandle h(Encode(false));
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    Image pixels(kW, 16, 3);
    ComplibRect r = pixels.rect();
    r.height = kH;
    EXPECT_EQ(jpgReadToRect(h.p, &r, 16), JPG_STATUS_OK);
    EXPECT_EQ(jpgReadToRect(h.p, &r, kH), JPG_STATUS_INVALID_PARAMETER) << "24 rows into 16 rows of memory";
}

// A bottom-up source (negative stride, pixels at the first row to read)
// stays valid for the encoders when it states no allocation.
TEST(RectangleDefects, EncodersReadBottomUpSources) {
    Image pixels = Source(false), flipped = pixels;
    for (int y = 0; y < kH; y++)
        std::copy_n(pixels.row(y), pixels.stride(), flipped.row(kH - 1 - y));
    JpgParam *enc = nullptr;
    ASSERT_EQ(jpgWritePrologToMemory(0, &enc), JPG_STATUS_OK);
    ComplibRect r = flipped.rect();
    r.pixels = flipped.row(kH - 1);
    r.stride = -r.stride;
    r.allocSize = 0;
    ASSERT_EQ(jpgWriteFromRect(enc, &r, kH), JPG_STATUS_OK);
    EXPECT_EQ(Finish(enc), kivtest::encode(pixels));
}

// ---------------------------------------------------------------- programs

// The api fuzz target's seeds and its regression inputs keep the contract
// (the fuzz target aborts where this test fails).
TEST(ApiPrograms, SeedsAndFindingsKeepTheContract) {
    Bytes sequential = kivtest::readFile(kivtest::corpus("samples/testorig.jpg"));
    Bytes progressive = kivtest::readFile(kivtest::corpus("samples/testprog.jpg"));
    kivtest::ApiOptions options;
    options.tempDir = kivtest::tempDir();
    std::vector<std::pair<std::string, Bytes>> programs;
    for (const auto &seed : kivtest::ApiSeedPrograms(sequential, progressive))
        programs.push_back({seed.name, seed.input.bytes()});
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(
             std::string(KIV_SOURCE_DIR) + "/tests/regressions/api", ec))
        programs.push_back({e.path().filename().string(), kivtest::readFile(e.path().string())});
    for (const auto &[name, bytes] : programs) {
        kivtest::ApiOutcome out = kivtest::RunApiProgram(bytes.data(), bytes.size(), options);
        EXPECT_EQ(out.violation, "") << name;
        EXPECT_GT(out.calls, 0) << name;
    }
}

}  // namespace
