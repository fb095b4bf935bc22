// Entropy-coded segment reader and the baseline block decoder. The exported
// byte-at-a-time reader (jpgReadGetBits) on hand-made data: byte stuffing,
// markers inside the data, raw reads, the end-of-data states; offsets and
// rewinding. The block decoder (on the word-wide supply) against a plain
// reference built on the exported reader: the same coefficients, statuses
// and stream positions, and the same pixels for whole decodes of truncated
// and corrupted streams and across refills of the input buffer at every
// offset.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "core/tables.h"
#include "read/bit_reader.h"
#include "read/front_end.h"
#include "test_support.h"

namespace {

using namespace kivtest;

// One call of the exported reader and what it returns (0 for the calls that
// return nothing); kState reads the end-of-data state, kHeldMod8 the bits
// held modulo 8.
enum Call {
    kGet, kShow, kShowRaw, kGetBytes, kFill, kShowMarker, kFlushMarker, kDeleteStuffing, kFlushBits, kState, kHeldMod8
};

uint32_t call(JpgParam *p, Call c, int32_t n) {
    switch (c) {
    case kGet: return jpgReadGetBits(p, n);
    case kShow: return jpgReadShowBits(p, n);
    case kShowRaw: return jpgReadShowRawBits(p, n);
    case kGetBytes: return jpgReadGetBytes(p, n);
    case kFill: return jpgReadFillBuffer(p);
    case kShowMarker: return jpgReadShowMarkerCode(p);
    case kFlushMarker: jpgReadFlushMarkerCode(p); return 0;
    case kDeleteStuffing: jpgReadDeleteByteStuffingCode(p); return 0;
    case kFlushBits: jpgReadFlushBits(p); return 0;
    case kState: return p->bs.state;
    default: return uint32_t(p->bs.bitCount % 8);
    }
}

TEST(BitReader, CallsOnHandMadeData) {
    const struct {
        const char *what;
        Bytes data;
        std::vector<std::tuple<Call, int32_t, uint32_t>> calls;  // call, bits, result
    } cases[] = {
        {"stuffed pairs", {0x12, 0xFF, 0x00, 0x34, 0xFF, 0x00, 0xFF, 0x00},
         {{kGet, 4, 0x1}, {kGet, 12, 0x2FF}, {kShow, 16, 0x34FF}, {kGet, 16, 0x34FF}, {kGet, 8, 0xFF}, {kState, 0, 0}}},
        {"a marker becomes data", {0xFF, 0xD0}, {{kGet, 16, 0xFFD0}}},
        {"raw reads, all ones past the end", {0xFF, 0x00, 0xAB},
         {{kShowRaw, 16, 0xFF00}, {kGetBytes, 16, 0xFF00}, {kGetBytes, 8, 0xAB}, {kState, 0, 0}, {kGetBytes, 8, 0xFF},
          {kState, 0, 2}, {kGetBytes, 8, 0xFF}, {kState, 0, 1}}},
        {"the fill also sets the pending bits above it", {0x00},
         {{kGet, 4, 0x0}, {kGet, 8, 0xFF}, {kState, 0, 2}, {kFill, 0, 0}, {kState, 0, 1}}},
        {"marker code with 5 bits of a byte pending", {0xA0, 0xFF, 0xD3, 0x12},
         {{kGet, 3, 0x5}, {kShowMarker, 0, 0xFFD3}, {kFlushMarker, 0, 0}, {kShowMarker, 0, 0x12}, {kGet, 8, 0x12}}},
        {"a stuffed zero where a marker was expected: the byte after it takes its place", {0xFF, 0x00, 0x5C, 0x77},
         {{kShowMarker, 0, 0xFF00}, {kDeleteStuffing, 0, 0}, {kGet, 16, 0xFF5C}, {kGet, 8, 0x77}}},
        {"flush to the byte boundary", {0xF0, 0x0F},
         {{kGet, 3, 0x7}, {kFlushBits, 0, 0}, {kHeldMod8, 0, 0}, {kGet, 8, 0x0F}}},
    };
    for (const auto &c : cases) {
        RawReader r(c.data);
        for (size_t i = 0; i < c.calls.size(); i++) {
            auto [what, bits, result] = c.calls[i];
            EXPECT_EQ(call(r.p, what, bits), result) << c.what << ", call " << i;
        }
    }
}

TEST(BitReader, OffsetRewindAndFileLength) {
    Bytes jpeg = readFile(corpus("samples/testorig.jpg"));
    ReadHandle h(jpeg);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    size_t dataStart = scanData(jpeg);
    EXPECT_EQ(h.p->firstScanOffset, dataStart);
    EXPECT_EQ(jpgReadGetJPEGFileOffset(&h.p->bs), dataStart);
    uint32_t first = jpgReadGetBits(h.p, 16);
    h.p->components[0].dcPred = 5;
    h.p->mcusLeft = 1;
    ASSERT_EQ(jpgReadRewindJPEGFile(h.p, h.p->firstScanOffset, 1), JPG_STATUS_OK);
    EXPECT_EQ(h.p->components[0].dcPred, 0);
    EXPECT_EQ(h.p->mcusLeft, h.p->totalMcus);
    EXPECT_EQ(jpgReadGetBits(h.p, 16), first);
    ASSERT_EQ(jpgReadRewindJPEGFile(h.p, 0, 0), JPG_STATUS_OK);
    EXPECT_EQ(jpgReadGetBytes(h.p, 16), 0xFFD8u);
    // A file read up to a given length stops at the stream's end, not the file's.
    Bytes file = jpeg;
    file.insert(file.end(), 5000, 0x00);
    std::string path = tempPath("padded.jpg");
    writeFile(path, file);
    JpgParam *p = nullptr;
    ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 0, int32_t(jpeg.size()), 0, &p), JPG_STATUS_OK);
    uint32_t bytes = 0;
    for (; p->bs.state == 0; bytes++)
        jpgReadGetBytes(p, 8);
    EXPECT_EQ(bytes + p->firstScanOffset - 1, jpeg.size());
    jpgReadEpilog(p);
}

// The position in the stream: bytes taken from the input less the bits held.
int64_t bitPosition(const JpgParam *p) {
    const ComplibBitstream &bs = p->bs;
    return 8 * (int64_t(bs.bytesLoaded) - bs.fill + bs.readPos) - bs.bitCount;
}

// The bits both hold agree, and below its count each handle holds zeros.
bool sameHeldBits(const JpgParam *a, const JpgParam *b) {
    auto zeroBelowCount = [](const JpgParam *p) {
        int32_t n = p->bs.bitCount;
        return n <= 0 || n >= 32 || p->bs.accumulator << n == 0;
    };
    int32_t n = std::min(a->bs.bitCount, b->bs.bitCount);
    return zeroBelowCount(a) && zeroBelowCount(b) &&
           (n <= 0 || a->bs.accumulator >> (32 - n) == b->bs.accumulator >> (32 - n));
}

// ---- The reference block decoder: the lookup rules of the tables, read bit by bit ----

constexpr uint32_t kInvalid = 0xFFFF0000u;

uint32_t refLower(const JpgHuffLevel &level, uint32_t window) {
    uint32_t index = (window & level.mask) >> level.shift;
    return level.entries != nullptr && index < level.count ? level.entries[index] : kInvalid;
}

int32_t refWidth(const JpgHuffLevel &level) { return level.shift < 16 ? 16 - int32_t(level.shift) : 16; }

void refSkip(JpgParam *p, uint32_t n) {
    p->bs.accumulator = n < 32 ? p->bs.accumulator << n : 0;
    p->bs.bitCount -= int32_t(n);
}

int32_t refReceive(JpgParam *p, uint32_t size) {
    return kiv::extend(int32_t(jpgReadGetBits(p, int32_t(size))), int(size));
}

JpgStatus refBad(JpgParam *p, JpgStatus status) { return p->bs.state != 0 ? JPG_STATUS_UNEXPECTED_END : status; }

// One block; coefficients at zig-zag index `limit` and beyond are dropped.
JpgStatus refBlock(JpgParam *p, int16_t *block, JpgComponent *comp, uint32_t limit) {
    if (comp->dcLookup == nullptr || comp->acLookup == nullptr || comp->quant == nullptr)
        return JPG_STATUS_FAILED;
    const JpgHuffLevel *dc = comp->dcLookup, *ac = comp->acLookup;
    uint32_t index = jpgReadShowBits(p, refWidth(dc[0])), entry;
    bool carried = index < dc[0].limit;
    entry = carried ? dc[0].entries[index] : refLower(dc[1], jpgReadShowBits(p, 16));
    if (entry == kInvalid)
        return refBad(p, JPG_STATUS_BAD_DC_CODE);
    refSkip(p, entry & 0xFF);
    uint32_t size = (entry >> 8) & 15;
    int32_t diff = carried ? int16_t(entry >> 16) : size ? refReceive(p, size) : 0;
    if (size != 0)
        comp->dcPred = int32_t(uint32_t(comp->dcPred) + uint32_t(diff));
    block[0] = int16_t(comp->quant[0] * uint32_t(comp->dcPred));
    for (uint32_t k = 0;;) {
        index = jpgReadShowBits(p, refWidth(ac[0]));
        carried = true;
        if (index < ac[0].limit) {
            entry = ac[0].entries[index];
        } else {
            uint32_t window = jpgReadShowBits(p, 16);
            carried = window < ac[1].limit;
            entry = refLower(ac[carried ? 1 : 2], window);
        }
        if (entry == kInvalid)
            return refBad(p, JPG_STATUS_BAD_AC_CODE);
        refSkip(p, entry & 0xFF);
        uint32_t run = (entry >> 12) & 15;
        size = (entry >> 8) & 15;
        k += size == 0 ? (run == 0 ? 64 : 16) : run + 1;
        if (k > 63)
            return JPG_STATUS_OK;
        if (size == 0)
            continue;
        int32_t value = carried ? int16_t(entry >> 16) : refReceive(p, size);
        if (k < limit)
            block[kiv::kZigzag[k]] = int16_t(uint32_t(value) * comp->quant[k]);
        if (k == 63)
            return JPG_STATUS_OK;
    }
}

// The baseline MCU routine built on the reference block decoder.
JpgStatus refMcu(JpgParam *p) {
    JpgStatus status = kiv::checkSequentialScan(p);
    int16_t *block = p->mcuBuffer;
    for (uint32_t c = 0; c < p->numComponents && status == JPG_STATUS_OK; c++)
        for (uint32_t b = 0; b < p->components[c].blocks && status == JPG_STATUS_OK; b++, block += 64) {
            memset(block, 0, 64 * sizeof(int16_t));
            if ((status = refBlock(p, block, &p->components[c], 64)) == JPG_STATUS_OK)
                jpgReadInverseDCT(block);
        }
    if (status == JPG_STATUS_OK)
        kiv::advanceMcuCounters(p);
    return status;
}

// Sampling, restart intervals in MCUs and in rows, optimised tables (codes
// in the third lookup level), high quality (many 0xFF bytes).
const struct {
    int width, height, noise;
    const char *options;
} kCases[] = {
    {67, 45, 40, "-quality 95 -sample 2x2 -restart 1B"},
    {100, 41, 60, "-quality 100 -sample 1x1 -restart 3B"},
    {81, 33, 20, "-quality 85 -sample 2x2 -restart 5B -optimize"},
    {64, 64, 90, "-quality 100 -optimize -restart 7B"},
    {90, 50, 50, "-quality 98 -grayscale -restart 1"},
    {120, 32, 35, "-quality 92 -sample 1x2 -restart 13B -optimize"},
};

std::vector<Bytes> caseStreams() {
    std::vector<Bytes> streams;
    uint32_t seed = 1;
    for (const auto &c : kCases)
        streams.push_back(cjpeg(picture(c.width, c.height, 3, c.noise, seed++), c.options));
    return streams;
}

// Flag 0x4: no search for EOI, so that truncated streams open as well.
constexpr int32_t kNoEndSearch = 0x4;

Decoded decodeWith(const Bytes &bytes, bool reference) {
    ReadHandle h(bytes, kNoEndSearch);
    if (h.status != JPG_STATUS_OK) {
        Decoded d;
        d.status = h.status;
        return d;
    }
    if (reference)
        h.p->routines.mcu = refMcu;
    return decodeOpen(h.p);
}

void expectSameDecode(const Bytes &bytes, const std::string &what) {
    Decoded fast = decodeWith(bytes, false), ref = decodeWith(bytes, true);
    EXPECT_EQ(fast.status, ref.status) << what;
    EXPECT_TRUE(fast.image == ref.image) << what;
}

// Walks a whole scan block by block with jpgReadGetCoefficient (limit < 0)
// or jpgReadGetScaleCoefficient on one handle and the reference on another,
// restart processing included; behind a restart marker of an intact stream
// both hold the same bits.
void compareBlocks(const Bytes &bytes, int32_t limit, const std::string &what, bool intact = true) {
    ReadHandle a(bytes, kNoEndSearch), b(bytes, kNoEndSearch);
    ASSERT_EQ(a.status, JPG_STATUS_OK) << what;
    int16_t blockA[64], blockB[64];
    for (uint32_t mcu = 0; mcu < a.p->totalMcus; mcu++) {
        for (uint32_t c = 0; c < a.p->numComponents; c++)
            for (uint32_t n = 0; n < a.p->components[c].blocks; n++) {
                memset(blockA, 0, sizeof blockA);
                memset(blockB, 0, sizeof blockB);
                JpgStatus sa = limit < 0 ? jpgReadGetCoefficient(a.p, blockA, &a.p->components[c])
                                         : jpgReadGetScaleCoefficient(a.p, blockA, &a.p->components[c], uint32_t(limit));
                JpgStatus sb = refBlock(b.p, blockB, &b.p->components[c], limit < 0 ? 64u : uint32_t(limit));
                ASSERT_EQ(sa, sb) << what << " MCU " << mcu;
                ASSERT_EQ(memcmp(blockA, blockB, sizeof blockA), 0) << what << " MCU " << mcu;
                ASSERT_EQ(a.p->components[c].dcPred, b.p->components[c].dcPred) << what;
                ASSERT_EQ(bitPosition(a.p), bitPosition(b.p)) << what << " MCU " << mcu;
                ASSERT_TRUE(sameHeldBits(a.p, b.p)) << what << " MCU " << mcu;
                ASSERT_EQ(a.p->bs.state, b.p->bs.state) << what;
                ASSERT_LE(a.p->bs.bitCount, 32) << what;
                if (sa != JPG_STATUS_OK)
                    return;
            }
        kiv::advanceMcuCounters(a.p);
        kiv::advanceMcuCounters(b.p);
        ASSERT_EQ(a.p->mcuAddress, b.p->mcuAddress) << what;
        ASSERT_EQ(bitPosition(a.p), bitPosition(b.p)) << what << " after MCU " << mcu;
        if (intact && a.p->restartInterval != 0 && a.p->mcuAddress == 0)  // a marker was read
            ASSERT_EQ(a.p->bs.bitCount, b.p->bs.bitCount) << what << " after MCU " << mcu;
    }
}

// Per stream: the whole decode and the decode of every cut (the end-of-data
// fill must reach the same bits at the same moment); block by block at every
// scale, whole and truncated; corrupted by flipped bytes, inserted 0xFF
// bytes and stray markers in the entropy data.
TEST(BlockDecoder, WholeTruncatedAndCorruptedStreamsMatchTheReference) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::mt19937 rng(77);
    int i = 0;
    for (const Bytes &bytes : caseStreams()) {
        const std::string what = kCases[i++].options;
        ASSERT_EQ(decodeWith(bytes, false).status, JPG_STATUS_OK) << what;
        expectSameDecode(bytes, what);
        const size_t start = scanData(bytes);
        for (size_t cut = start; cut < bytes.size(); cut += cut + 64 < bytes.size() ? 97 : 3)
            expectSameDecode(Bytes(bytes.begin(), bytes.begin() + long(cut)),
                             what + " cut at " + std::to_string(cut));
        for (int32_t limit : {-1, 0, 1, 4, 24, 64})
            compareBlocks(bytes, limit, what + " limit " + std::to_string(limit));
        Bytes cut(bytes.begin(), bytes.begin() + long(start + (bytes.size() - start) * 2 / 3));
        compareBlocks(cut, -1, what + " truncated");
        compareBlocks(cut, 0, what + " truncated, 1/8");
        for (int trial = 0; trial < 24; trial++) {
            Bytes bad = bytes;
            for (int n = 0; n < 1 + trial % 4; n++) {
                size_t at = start + rng() % (bad.size() - start - 2);
                switch (rng() % 4) {
                case 0: bad[at] = uint8_t(rng()); break;
                case 1: bad[at] = 0xFF; break;
                case 2: bad[at] = 0xFF, bad[at + 1] = uint8_t(0xD0 + rng() % 8); break;
                default: bad[at] = 0xFF, bad[at + 1] = uint8_t(rng()); break;
                }
            }
            expectSameDecode(bad, what + " trial " + std::to_string(trial));
            compareBlocks(bad, trial % 2 ? -1 : 0, what + " trial " + std::to_string(trial), false);
        }
    }
    for (const char *name : {"samples/testorig.jpg", "samples/testimgint.jpg"})
        expectSameDecode(readFile(corpus(name)), name);
}

// A comment segment of `padding` bytes (at least 4) after SOI moves the
// entropy data against the 64 KiB input buffer.
Bytes padded(const Bytes &bytes, size_t padding) {
    Bytes out(bytes.begin(), bytes.begin() + 2);
    out.insert(out.end(), {0xFF, 0xFE, uint8_t((padding - 2) >> 8), uint8_t(padding - 2)});
    out.insert(out.end(), padding - 4, 0x20);
    out.insert(out.end(), bytes.begin() + 2, bytes.end());
    return out;
}

// Refills land on each byte of a run of data, on both bytes of stuffed
// 0xFF 0x00 pairs and of restart markers; from memory and from a file.
TEST(BlockDecoder, BufferBoundaryAtEveryOffset) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    Bytes bytes = cjpeg(picture(400, 320, 3, 70, 9), "-quality 97 -sample 2x2 -restart 3B");
    Decoded whole = decodeWith(bytes, false);
    ASSERT_EQ(whole.status, JPG_STATUS_OK);
    EXPECT_TRUE(whole.image == decodeWith(bytes, true).image);
    size_t start = scanData(bytes), middle = (start + bytes.size()) / 2;
    std::vector<size_t> targets;  // stream offsets that should meet the boundary
    for (size_t t = middle; t < middle + 24; t++)
        targets.push_back(t);
    int pairs = 0, markers = 0;
    for (size_t t = start + 100; t + 2 < std::min<size_t>(bytes.size(), 65530); t++) {
        bool stuffed = bytes[t] == 0xFF && bytes[t + 1] == 0x00;
        bool marker = bytes[t] == 0xFF && bytes[t + 1] >= 0xD0 && bytes[t + 1] <= 0xD7;
        if ((stuffed && pairs++ < 8) || (marker && markers++ < 8))
            for (size_t d : {0, 1, 2})
                targets.push_back(t + d);
    }
    ASSERT_GE(pairs, 8);
    ASSERT_GE(markers, 8);
    for (size_t t : targets) {
        size_t padding = kInputBufferSize + 2 - t;  // the first buffer starts behind SOI
        if (padding < 4 || padding > 65530)
            continue;
        Decoded fast = decodeWith(padded(bytes, padding), false);
        EXPECT_EQ(fast.status, JPG_STATUS_OK) << t;
        EXPECT_TRUE(fast.image == whole.image) << "boundary at stream offset " << t;
    }
    for (size_t padding : {kInputBufferSize + 2 - (start + 5000), kInputBufferSize + 2 - (start + 5003)}) {
        std::string path = tempPath("boundary.jpg");
        Bytes file = padded(bytes, padding);
        writeFile(path, file);
        JpgParam *p = nullptr;
        ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 0, int32_t(file.size()), 0, &p), JPG_STATUS_OK);
        Decoded d = decodeOpen(p);
        EXPECT_EQ(d.status, JPG_STATUS_OK) << padding;
        EXPECT_TRUE(d.image == whole.image) << "file, padding " << padding;
        jpgReadEpilog(p);
    }
}

}  // namespace
