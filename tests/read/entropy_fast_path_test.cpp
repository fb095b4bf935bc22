// The word-wide bit supply and the baseline block decoder against a plain
// reference that decodes through the exported byte-at-a-time reader
// (jpgReadShowBits, ISO/IEC 10918-1 F.2.2): same coefficients, statuses,
// predictors and stream position block by block, and the same pixels and
// statuses for whole decodes with restart intervals, buffer refills at
// every offset, truncated and corrupted data, piecewise input and seeking.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "core/tables.h"
#include "decode_helpers.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

using namespace kivtest;

// ---- Reference decoder (the lookup rules of the tables, read bit by bit) ----

constexpr uint32_t kInvalid = 0xFFFF0000u;

uint32_t refLower(const JpgHuffLevel &level, uint32_t window) {
    uint32_t index = (window & level.mask) >> level.shift;
    return level.entries != nullptr && index < level.count ? level.entries[index] : kInvalid;
}

int32_t refWidth(const JpgHuffLevel &level) { return level.shift < 16 ? 16 - static_cast<int32_t>(level.shift) : 16; }

void refSkip(JpgParam *p, uint32_t n) {
    p->bs.accumulator = n < 32 ? p->bs.accumulator << n : 0;
    p->bs.bitCount -= static_cast<int32_t>(n);
}

int32_t refReceive(JpgParam *p, uint32_t size) {
    return kiv::extend(static_cast<int32_t>(jpgReadGetBits(p, static_cast<int32_t>(size))),
                       static_cast<int>(size));
}

JpgStatus refBad(JpgParam *p, JpgStatus status) {
    return p->bs.state != 0 ? JPG_STATUS_UNEXPECTED_END : status;
}

// One block; coefficients at zig-zag index `limit` and beyond are dropped.
JpgStatus refBlock(JpgParam *p, int16_t *block, JpgComponent *comp, uint32_t limit) {
    if (comp->dcLookup == nullptr || comp->acLookup == nullptr || comp->quant == nullptr)
        return JPG_STATUS_FAILED;
    const JpgHuffLevel *dc = comp->dcLookup, *ac = comp->acLookup;
    int32_t width = refWidth(dc[0]);
    uint32_t index = jpgReadShowBits(p, width);
    uint32_t entry;
    bool carried = index < dc[0].limit;
    if (carried)
        entry = dc[0].entries[index];
    else
        entry = refLower(dc[1], jpgReadShowBits(p, 16));
    if (entry == kInvalid)
        return refBad(p, JPG_STATUS_BAD_DC_CODE);
    refSkip(p, entry & 0xFF);
    uint32_t size = (entry >> 8) & 15;
    int32_t diff = carried ? static_cast<int16_t>(entry >> 16) : size ? refReceive(p, size) : 0;
    if (size != 0)
        comp->dcPred = static_cast<int32_t>(static_cast<uint32_t>(comp->dcPred) + static_cast<uint32_t>(diff));
    block[0] = static_cast<int16_t>(comp->quant[0] * static_cast<uint32_t>(comp->dcPred));
    width = refWidth(ac[0]);
    for (uint32_t k = 0;;) {
        index = jpgReadShowBits(p, width);
        carried = true;
        if (index < ac[0].limit) {
            entry = ac[0].entries[index];
        } else {
            uint32_t window = jpgReadShowBits(p, 16);
            if (window < ac[1].limit) {
                entry = refLower(ac[1], window);
            } else {
                entry = refLower(ac[2], window);
                carried = false;
            }
        }
        if (entry == kInvalid)
            return refBad(p, JPG_STATUS_BAD_AC_CODE);
        refSkip(p, entry & 0xFF);
        uint32_t run = (entry >> 12) & 15;
        size = (entry >> 8) & 15;
        if (size == 0) {
            if (run == 0)
                return JPG_STATUS_OK;
            k += 16;
            if (k > 63)
                return JPG_STATUS_OK;
            continue;
        }
        k += run + 1;
        if (k > 63)
            return JPG_STATUS_OK;
        int32_t value = carried ? static_cast<int16_t>(entry >> 16) : refReceive(p, size);
        if (k < limit)
            block[kiv::kZigzag[k]] = static_cast<int16_t>(static_cast<uint32_t>(value) * comp->quant[k]);
        if (k == 63)
            return JPG_STATUS_OK;
    }
}

// The baseline MCU routine built on the reference block decoder.
JpgStatus refMcu(JpgParam *p) {
    JpgStatus status = kiv::checkSequentialScan(p);
    if (status != JPG_STATUS_OK)
        return status;
    int16_t *block = p->mcuBuffer;
    for (uint32_t c = 0; c < p->numComponents; c++) {
        JpgComponent *comp = &p->components[c];
        for (uint32_t b = 0; b < comp->blocks; b++, block += 64) {
            memset(block, 0, 64 * sizeof(int16_t));
            status = refBlock(p, block, comp, 64);
            if (status != JPG_STATUS_OK)
                return status;
            jpgReadInverseDCT(block);
        }
    }
    kiv::advanceMcuCounters(p);
    return status;
}

// ---- Streams ----

// A test picture: smooth areas, edges and (with `noise`) random texture,
// which gives long codes, large magnitudes and many 0xFF bytes.
std::vector<uint8_t> makePpm(int width, int height, int noise, uint32_t seed) {
    std::mt19937 rng(seed);
    std::string header = "P6\n" + std::to_string(width) + " " + std::to_string(height) + "\n255\n";
    std::vector<uint8_t> data(header.begin(), header.end());
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            for (int c = 0; c < 3; c++) {
                double v = 128 + 90 * std::sin((x + 7 * c) / 11.0 + y / 7.0);
                if ((x / 24 + y / 24) % 3 == 0)
                    v = ((x ^ y) & 16) ? 230 : 20;
                v += noise ? static_cast<int>(rng() % (2 * noise + 1)) - noise : 0;
                data.push_back(static_cast<uint8_t>(std::clamp(v, 0.0, 255.0)));
            }
    return data;
}

std::vector<uint8_t> cjpeg(const std::vector<uint8_t> &ppm, const std::string &options) {
    std::string in = tempPath("fast.ppm"), out = tempPath("fast.jpg");
    writeFile(in, ppm);
    if (run("cjpeg " + options + " -outfile " + out + " " + in) != 0)
        return {};
    return readFile(out);
}

struct StreamCase {
    int width, height, noise;
    const char *options;
};

// Sampling, restart intervals of many sizes (in MCUs and in rows), optimised
// tables (codes in the third lookup level), high quality (many 0xFF bytes).
const StreamCase kCases[] = {
    {67, 45, 0, "-quality 75 -sample 2x2"},
    {67, 45, 40, "-quality 95 -sample 2x2 -restart 1B"},
    {96, 40, 30, "-quality 90 -sample 2x1 -restart 2B"},
    {100, 41, 60, "-quality 100 -sample 1x1 -restart 3B"},
    {81, 33, 20, "-quality 85 -sample 2x2 -restart 5B -optimize"},
    {64, 64, 90, "-quality 100 -optimize -restart 7B"},
    {90, 50, 50, "-quality 98 -grayscale -restart 1"},
    {120, 32, 35, "-quality 92 -sample 1x2 -restart 13B -optimize"},
    {50, 70, 0, "-quality 50 -sample 2x2 -restart 1"},
};

std::vector<std::vector<uint8_t>> caseStreams() {
    std::vector<std::vector<uint8_t>> streams;
    uint32_t seed = 1;
    for (const StreamCase &c : kCases)
        streams.push_back(cjpeg(makePpm(c.width, c.height, c.noise, seed++), c.options));
    return streams;
}

void compareBlocks(const std::vector<uint8_t> &bytes, int32_t limit, const std::string &what);

// ---- Whole decodes: library MCU routine against the reference routine ----

struct Outcome {
    JpgStatus prolog = JPG_STATUS_FAILED;
    JpgStatus status = JPG_STATUS_FAILED;
    std::vector<uint8_t> pixels;
    bool operator==(const Outcome &o) const = default;
};

// Flag 0x4: no search for EOI, so that truncated streams open as well.
constexpr int32_t kNoEndSearch = 0x4;

Outcome decodeWith(const std::vector<uint8_t> &bytes, bool reference) {
    Outcome out;
    ReadHandle h(bytes, kNoEndSearch);
    out.prolog = h.status;
    if (h.status != JPG_STATUS_OK)
        return out;
    if (reference)
        h.p->routines.mcu = refMcu;
    Image image = blankImage(h.p);
    std::fill(image.pixels.begin(), image.pixels.end(), 0x5A);
    ComplibRect r = rectFor(image);
    out.status = jpgReadToRect(h.p, &r, h.p->height);
    out.pixels = std::move(image.pixels);
    return out;
}

void expectSameDecode(const std::vector<uint8_t> &bytes, const std::string &what) {
    Outcome fast = decodeWith(bytes, false), ref = decodeWith(bytes, true);
    EXPECT_EQ(fast.prolog, ref.prolog) << what;
    EXPECT_EQ(fast.status, ref.status) << what;
    EXPECT_TRUE(fast.pixels == ref.pixels) << what;
}

size_t entropyStart(const std::vector<uint8_t> &bytes) {
    ReadHandle h(bytes);
    return h.status == JPG_STATUS_OK ? h.p->firstScanOffset : 0;
}

TEST(EntropyFastPath, WholeDecodesMatchTheReference) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    int i = 0;
    for (const std::vector<uint8_t> &bytes : caseStreams()) {
        ASSERT_FALSE(bytes.empty());
        Outcome fast = decodeWith(bytes, false);
        EXPECT_EQ(fast.status, JPG_STATUS_OK) << kCases[i].options;
        expectSameDecode(bytes, kCases[i++].options);
    }
    for (const char *name : {"samples/testorig.jpg", "samples/testimgint.jpg", "samples/monkey12.jpg"}) {
        std::vector<uint8_t> bytes = readFile(corpus(name));
        if (!bytes.empty())
            expectSameDecode(bytes, name);
    }
}

// Every truncation inside the last part of the data and a sample elsewhere:
// the end-of-data fill must reach the same bits at the same moment.
TEST(EntropyFastPath, TruncatedStreamsMatchTheReference) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    for (const std::vector<uint8_t> &bytes : caseStreams()) {
        size_t start = entropyStart(bytes);
        ASSERT_GT(start, 0u);
        ASSERT_EQ(decodeWith(std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(start + 10)), false).prolog,
                  JPG_STATUS_OK);
        for (size_t cut = start; cut < bytes.size(); cut += cut + 64 < bytes.size() ? 37 : 1)
            expectSameDecode(std::vector<uint8_t>(bytes.begin(), bytes.begin() + static_cast<long>(cut)),
                             "cut at " + std::to_string(cut));
    }
}

// Flipped bytes, inserted 0xFF bytes and stray markers in the entropy data.
TEST(EntropyFastPath, CorruptedStreamsMatchTheReference) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::mt19937 rng(77);
    for (const std::vector<uint8_t> &bytes : caseStreams()) {
        size_t start = entropyStart(bytes);
        for (int trial = 0; trial < 40; trial++) {
            std::vector<uint8_t> bad = bytes;
            for (int n = 0; n < 1 + trial % 4; n++) {
                size_t at = start + rng() % (bad.size() - start - 2);
                switch (rng() % 4) {
                case 0: bad[at] = static_cast<uint8_t>(rng()); break;
                case 1: bad[at] = 0xFF; break;
                case 2: bad[at] = 0xFF, bad[at + 1] = static_cast<uint8_t>(0xD0 + rng() % 8); break;
                default: bad[at] = 0xFF, bad[at + 1] = static_cast<uint8_t>(rng()); break;
                }
            }
            expectSameDecode(bad, "trial " + std::to_string(trial));
            compareBlocks(bad, trial % 2 ? -1 : 0, "trial " + std::to_string(trial));
        }
    }
}

// Inserts a comment segment of `padding` bytes (at least 4) after SOI, which
// moves the entropy data against the 64 KiB input buffer.
std::vector<uint8_t> padded(const std::vector<uint8_t> &bytes, size_t padding) {
    std::vector<uint8_t> out(bytes.begin(), bytes.begin() + 2);
    size_t length = padding - 2;
    out.insert(out.end(), {0xFF, 0xFE, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
    out.insert(out.end(), padding - 4, 0x20);
    out.insert(out.end(), bytes.begin() + 2, bytes.end());
    return out;
}

std::vector<uint8_t> largeStream(const std::string &options) {
    return cjpeg(makePpm(400, 320, 70, 9), options);
}

// Buffer refills at every offset: the refill lands on each byte of a run of
// data, on both bytes of stuffed 0xFF 0x00 pairs and of restart markers.
TEST(EntropyFastPath, BufferBoundaryAtEveryOffset) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::vector<uint8_t> bytes = largeStream("-quality 97 -sample 2x2 -restart 3B");
    Outcome whole = decodeWith(bytes, false);
    ASSERT_EQ(whole.status, JPG_STATUS_OK);
    EXPECT_TRUE(whole == decodeWith(bytes, true));
    size_t start = entropyStart(bytes), middle = (start + bytes.size()) / 2;
    std::vector<size_t> targets;  // stream offsets that should meet the boundary
    for (size_t t = middle; t < middle + 48; t++)
        targets.push_back(t);
    int pairs = 0, markers = 0;
    for (size_t t = start + 100; t + 2 < std::min<size_t>(bytes.size(), 65530); t++) {
        bool stuffed = bytes[t] == 0xFF && bytes[t + 1] == 0x00;
        bool marker = bytes[t] == 0xFF && bytes[t + 1] >= 0xD0 && bytes[t + 1] <= 0xD7;
        if ((stuffed && pairs++ < 12) || (marker && markers++ < 12))
            for (size_t d : {0, 1, 2})
                targets.push_back(t + d);
    }
    ASSERT_GE(pairs, 12);
    ASSERT_GE(markers, 12);
    for (size_t t : targets) {
        // The first buffer starts behind SOI, at stream offset 2.
        size_t padding = kInputBufferSize + 2 - t;
        if (padding < 4 || padding > 65530)
            continue;
        Outcome fast = decodeWith(padded(bytes, padding), false);
        EXPECT_EQ(fast.status, JPG_STATUS_OK) << t;
        EXPECT_TRUE(fast.pixels == whole.pixels) << "boundary at stream offset " << t;
    }
}

// The same through file input, and a stream whose data ends right at a
// buffer boundary.
TEST(EntropyFastPath, FileInputAcrossBufferBoundaries) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::vector<uint8_t> bytes = largeStream("-quality 96 -sample 2x1 -restart 2B -optimize");
    Outcome whole = decodeWith(bytes, false);
    ASSERT_EQ(whole.status, JPG_STATUS_OK);
    size_t start = entropyStart(bytes);
    std::vector<size_t> paddings;
    for (size_t t = start + 5000; t < start + 5010; t++)
        paddings.push_back(kInputBufferSize + 2 - t);
    if (bytes.size() < kInputBufferSize)
        paddings.push_back(kInputBufferSize + 2 - bytes.size());  // EOI ends the first buffer
    for (size_t padding : paddings) {
        if (padding < 4)
            continue;
        std::string path = tempPath("boundary.jpg");
        std::vector<uint8_t> file = padded(bytes, padding);
        writeFile(path, file);
        JpgParam *p = nullptr;
        ASSERT_EQ(jpgReadPrologFromFile(path.c_str(), 0, static_cast<int32_t>(file.size()), 0, &p),
                  JPG_STATUS_OK);
        Image image = blankImage(p);
        std::fill(image.pixels.begin(), image.pixels.end(), 0x5A);
        ComplibRect r = rectFor(image);
        EXPECT_EQ(jpgReadToRect(p, &r, p->height), JPG_STATUS_OK) << padding;
        EXPECT_TRUE(image.pixels == whole.pixels) << "padding " << padding;
        jpgReadEpilog(p);
    }
}

// ---- Block by block, including the scaled decoder ----

// The position in the stream: bytes taken from the input less the bits held.
int64_t bitPosition(const JpgParam *p) {
    const ComplibBitstream &bs = p->bs;
    return 8 * (static_cast<int64_t>(bs.bytesLoaded) - bs.fill + bs.readPos) - bs.bitCount;
}

// The held bits both readers share.
bool sameHeldBits(const JpgParam *a, const JpgParam *b) {
    int32_t n = std::min(a->bs.bitCount, b->bs.bitCount);
    if (n <= 0)
        return true;
    return a->bs.accumulator >> (32 - n) == b->bs.accumulator >> (32 - n);
}

// Walks a whole scan with jpgReadGetCoefficient or jpgReadGetScaleCoefficient
// on one handle and the reference on another, restart processing included.
void compareBlocks(const std::vector<uint8_t> &bytes, int32_t limit, const std::string &what) {
    ReadHandle a(bytes, kNoEndSearch), b(bytes, kNoEndSearch);
    ASSERT_EQ(a.status, JPG_STATUS_OK) << what;
    ASSERT_EQ(b.status, JPG_STATUS_OK) << what;
    int16_t blockA[64], blockB[64];
    for (uint32_t mcu = 0; mcu < a.p->totalMcus; mcu++) {
        for (uint32_t c = 0; c < a.p->numComponents; c++) {
            for (uint32_t n = 0; n < a.p->components[c].blocks; n++) {
                memset(blockA, 0, sizeof blockA);
                memset(blockB, 0, sizeof blockB);
                JpgStatus sa = limit < 0 ? jpgReadGetCoefficient(a.p, blockA, &a.p->components[c])
                                         : jpgReadGetScaleCoefficient(a.p, blockA, &a.p->components[c],
                                                                      static_cast<uint32_t>(limit));
                JpgStatus sb = refBlock(b.p, blockB, &b.p->components[c], limit < 0 ? 64u : static_cast<uint32_t>(limit));
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
        }
        kiv::advanceMcuCounters(a.p);
        kiv::advanceMcuCounters(b.p);
        ASSERT_EQ(a.p->mcuAddress, b.p->mcuAddress) << what;
        ASSERT_EQ(bitPosition(a.p), bitPosition(b.p)) << what << " after MCU " << mcu;
        if (a.p->restartInterval != 0 && a.p->mcuAddress == 0)  // a marker was read
            ASSERT_EQ(a.p->bs.bitCount, b.p->bs.bitCount) << what << " after MCU " << mcu;
    }
}

TEST(EntropyFastPath, BlocksMatchTheReferenceAtEveryScale) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    int i = 0;
    for (const std::vector<uint8_t> &bytes : caseStreams()) {
        for (int32_t limit : {-1, 0, 1, 4, 24, 63, 64})
            compareBlocks(bytes, limit, std::string(kCases[i].options) + " limit " + std::to_string(limit));
        // Truncated: the end-of-data states and fill must agree as well.
        size_t start = entropyStart(bytes);
        std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<long>(start + (bytes.size() - start) * 2 / 3));
        compareBlocks(cut, -1, std::string(kCases[i].options) + " truncated");
        compareBlocks(cut, 0, std::string(kCases[i].options) + " truncated, 1/8");
        i++;
    }
}

// The MCU routine is what the decode driver and seeking use: seek by MCUs
// and by restart intervals, then decode the rest with each routine.
TEST(EntropyFastPath, SeekingThenDecodingMatchesTheReference) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::vector<uint8_t> bytes = cjpeg(makePpm(96, 48, 40, 3), "-quality 95 -sample 1x1 -restart 5B");
    for (uint32_t skip : {1u, 4u, 5u, 6u, 17u, 40u}) {
        Image images[2];
        for (int ref = 0; ref < 2; ref++) {
            ReadHandle h(bytes);
            ASSERT_EQ(h.status, JPG_STATUS_OK);
            if (ref)
                h.p->routines.mcu = refMcu;
            ASSERT_EQ(jpgReadSeekMcu(h.p, skip, 0), JPG_STATUS_OK);
            images[ref] = blankImage(h.p);
            for (uint32_t mcu = skip; mcu < h.p->totalMcus; mcu++) {
                int x = static_cast<int>(mcu % h.p->mcusPerRow * h.p->mcuWidth);
                int y = static_cast<int>(mcu / h.p->mcusPerRow * h.p->mcuHeight);
                ComplibRect r = rectFor(images[ref]);
                r.pixels = images[ref].row(y) + x * images[ref].channels;
                r.width = std::min<int>(images[ref].width - x, static_cast<int>(h.p->mcuWidth));
                r.height = std::min<int>(images[ref].height - y, static_cast<int>(h.p->mcuHeight));
                ASSERT_EQ(jpgReadMcuToRect(h.p, &r, 1), JPG_STATUS_OK) << skip << " " << mcu;
            }
        }
        EXPECT_TRUE(images[0].pixels == images[1].pixels) << "after seeking " << skip;
    }
}

// Input fed piece by piece, with pieces cut inside the data as well as at
// restart markers: the two routines must see the same bits and statuses.
TEST(EntropyFastPath, PiecewiseInputMatchesTheReference) {
    if (!haveTool("cjpeg"))
        GTEST_SKIP() << "cjpeg not installed";
    std::vector<uint8_t> bytes = cjpeg(makePpm(96, 48, 40, 4), "-quality 95 -sample 1x1 -restart 4B");
    size_t start = entropyStart(bytes);
    for (size_t step : {size_t(200), size_t(333), size_t(1000)}) {
        std::vector<std::vector<uint8_t>> pieces;
        pieces.emplace_back(bytes.begin(), bytes.begin() + static_cast<long>(start + step));
        for (size_t at = start + step; at < bytes.size(); at += step)
            pieces.emplace_back(bytes.begin() + static_cast<long>(at),
                                bytes.begin() + static_cast<long>(std::min(bytes.size(), at + step)));
        std::vector<JpgStatus> statuses[2];
        Image images[2];
        for (int ref = 0; ref < 2; ref++) {
            ReadHandle h(pieces[0], 0x2);
            ASSERT_EQ(h.status, JPG_STATUS_OK);
            if (ref)
                h.p->routines.mcu = refMcu;
            images[ref] = blankImage(h.p);
            uint32_t mcu = 0;
            for (size_t piece = 0; piece < pieces.size(); piece++) {
                if (piece > 0)
                    jpgReadSetPartialBitstream(h.p, pieces[piece].data(),
                                               static_cast<uint32_t>(pieces[piece].size()));
                for (int i = 0; i < 6 && mcu < h.p->totalMcus; i++, mcu++) {
                    int x = static_cast<int>(mcu % h.p->mcusPerRow * h.p->mcuWidth);
                    int y = static_cast<int>(mcu / h.p->mcusPerRow * h.p->mcuHeight);
                    ComplibRect r = rectFor(images[ref]);
                    r.pixels = images[ref].row(y) + x * images[ref].channels;
                    r.width = std::min<int>(images[ref].width - x, static_cast<int>(h.p->mcuWidth));
                    r.height = std::min<int>(images[ref].height - y, static_cast<int>(h.p->mcuHeight));
                    statuses[ref].push_back(jpgReadMcuToRect(h.p, &r, 1));
                }
            }
        }
        EXPECT_TRUE(statuses[0] == statuses[1]) << "step " << step;
        EXPECT_TRUE(images[0].pixels == images[1].pixels) << "step " << step;
    }
}

// ---- The bit supply on its own ----

// Long runs without 0xFF (the fast path) alternate with stuffed pairs,
// markers and fill bytes; more than one buffer, and the data runs out.
std::vector<uint8_t> mixedData(std::mt19937 &rng, size_t size) {
    std::vector<uint8_t> data;
    while (data.size() < size) {
        size_t run = rng() % 3 == 0 ? rng() % 40 : rng() % 4;
        for (size_t i = 0; i < run; i++)
            data.push_back(static_cast<uint8_t>(rng() % 255));
        switch (rng() % 4) {
        case 0: data.insert(data.end(), {0xFF, 0x00}); break;
        case 1: data.insert(data.end(), {0xFF, static_cast<uint8_t>(0xD0 + rng() % 8)}); break;
        case 2: data.push_back(0xFF); break;
        default: break;
        }
    }
    return data;
}

struct RawReader {
    std::vector<uint8_t> data;
    JpgParam *p;
    explicit RawReader(std::vector<uint8_t> bytes) : data(std::move(bytes)) {
        p = jpgProlog(nullptr);
        p->mode = kModeRead;
        p->bs.flags = COMPLIB_BS_MEMORY;
        p->bs.memBase = p->bs.memCursor = data.data();
        p->bs.memLength = static_cast<uint32_t>(data.size());
        complibOpenBitstreamFile(&p->bs);
    }
    ~RawReader() { jpgEpilog(p); }
};

// Sessions of the inline supply (stored and reloaded at random points, with
// exported raw and entropy reads between them) read what the exported
// reader alone reads, up to and past the end of the data.
TEST(EntropyFastPath, SupplySessionsMatchTheExportedReader) {
    std::mt19937 rng(11);
    for (int round = 0; round < 6; round++) {
        std::vector<uint8_t> data = mixedData(rng, round < 3 ? 3000 : 140000);
        RawReader a(data), b(data);
        int64_t reads = static_cast<int64_t>(data.size()) * 8 / 6;
        for (int64_t i = 0; i < reads;) {
            kiv::BitState bits(b.p);
            for (int j = static_cast<int>(rng() % 50); j >= 0; j--, i++) {
                int n = 1 + static_cast<int>(rng() % 16);
                if (rng() % 2) {
                    bits.needAhead(n, 16);
                    ASSERT_EQ(bits.peek(n), jpgReadShowBits(a.p, n)) << round << " " << i;
                    bits.skip(n);
                    jpgReadGetBits(a.p, n);
                } else {
                    ASSERT_EQ(bits.receive(n), jpgReadGetBits(a.p, n)) << round << " " << i;
                }
                ASSERT_EQ(b.p->bs.state, a.p->bs.state) << round << " " << i;
            }
            bits.store();
            ASSERT_LE(b.p->bs.bitCount, 32);
            ASSERT_EQ(bitPosition(b.p), bitPosition(a.p)) << round << " " << i;
            ASSERT_TRUE(sameHeldBits(a.p, b.p));
            ASSERT_EQ(b.p->bs.bitCount % 8, a.p->bs.bitCount % 8);
            if (rng() % 8 == 0) {  // exported reads between sessions
                ASSERT_EQ(jpgReadShowMarkerCode(b.p), jpgReadShowMarkerCode(a.p));
                int n = 1 + static_cast<int>(rng() % 16);
                ASSERT_EQ(jpgReadGetBits(b.p, n), jpgReadGetBits(a.p, n));
            }
        }
    }
}

// The end-of-data fill sets the bits still held, at the same moment for
// both readers, also when the fast path filled the word just before.
TEST(EntropyFastPath, EndOfDataAfterFastLoads) {
    for (size_t size = 8; size < 40; size++) {
        std::vector<uint8_t> data(size);
        for (size_t i = 0; i < size; i++)
            data[i] = static_cast<uint8_t>(0x11 * (i % 15));
        for (int n : {1, 3, 7, 11, 16}) {
            RawReader a(data), b(data);
            kiv::BitState bits(b.p);
            for (int i = 0; a.p->bs.state != 1; i++) {
                bits.needAhead(n, 16);
                ASSERT_EQ(bits.peek(n), jpgReadShowBits(a.p, n)) << size << " " << n << " " << i;
                bits.skip(n);
                jpgReadGetBits(a.p, n);
                ASSERT_EQ(b.p->bs.state, a.p->bs.state) << size << " " << n << " " << i;
            }
            bits.store();
            EXPECT_EQ(b.p->bs.accumulator, a.p->bs.accumulator);
            EXPECT_EQ(b.p->bs.bitCount, a.p->bs.bitCount);
        }
    }
}

}  // namespace
