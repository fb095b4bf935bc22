// The four progressive coefficient routines on hand-made scans (called
// directly after the prolog has read the first scan header), and malformed
// progressive streams through the driver: each fails with its own status or
// decodes to the pixels of jpegtran's baseline copy, inside the buffers.
// The streams use one table pair whose codes are all 4 bits long, so that a
// symbol's code is its index in the table.
#include <gtest/gtest.h>

#include <random>

#include "modes/dequantize.h"
#include "stream_builder.h"
#include "test_support.h"

namespace {

using namespace kivtest;

const HuffmanDefinition kDc4 = {{0, 0, 0, 12}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}};
const HuffmanDefinition kAc4 = {{0, 0, 0, 15}, {0x00, 0x01, 0x02, 0x10, 0x11, 0xF0, 0x20, 0x21, 0xE0, 0x30, 0x31, 0x41, 0x03, 0x13, 0x22}};

void dc(BitWriter &w, int size, uint32_t bits) {  // DC difference: category, then magnitude bits
    w.symbol(canonicalCodes(kDc4), size);
    w.put(bits, size);
}

void ac(BitWriter &w, int symbol, uint32_t bits = 0) {  // run/size, then size bits
    w.symbol(canonicalCodes(kAc4), symbol);
    w.put(bits, symbol & 15);
}

struct Scan {
    std::vector<uint8_t> components;  // identifiers
    uint8_t ss, se, ah, al;
    Bytes data;
};

// Identity quantization, the 4-bit tables, components (identifier = index
// + 1) with the given sampling, the scans, EOI.
Bytes progressiveStream(int width, int height, const std::vector<uint8_t> &sampling, const std::vector<Scan> &scans) {
    std::vector<FrameComponent> frame;
    for (size_t i = 0; i < sampling.size(); i++)
        frame.push_back({uint8_t(i + 1), sampling[i], 0});
    StreamBuilder s;
    s.soi().dqt().sof(0xC2, 8, uint16_t(height), uint16_t(width), frame).dht(0x00, kDc4).dht(0x10, kAc4);
    for (const Scan &scan : scans) {
        std::vector<ScanComponent> comps;
        for (uint8_t id : scan.components)
            comps.push_back({id, 0x00});
        s.sos(comps, scan.ss, scan.se, uint8_t(scan.ah << 4 | scan.al)).raw(scan.data);
    }
    return s.eoi().bytes;
}

const std::vector<uint8_t> kGrey = {0x11};

// A one-scan grey stream opened, the handle standing at its data.
struct Opened : ReadHandle {
    Opened(uint8_t ss, uint8_t se, uint8_t ah, uint8_t al, BitWriter &w)
        : ReadHandle(progressiveStream(8, 8, kGrey, {{{1}, ss, se, ah, al, w.finish()}})) {
        EXPECT_EQ(status, JPG_STATUS_OK);
    }
    JpgComponent *comp() { return &p->components[0]; }
};

int16_t &zz(int16_t *block, int k) {
    static const int kOrder[] = {0, 1, 8, 16, 9, 2, 3, 10, 17, 24};
    return block[kOrder[k]];
}

TEST(ProgressiveCoefficients, DcFirstClearsTheBlockAndAccumulatesThePredictor) {
    BitWriter w;
    dc(w, 3, 5);  // +5
    dc(w, 2, 1);  // raw 01 -> -2
    dc(w, 4, 8);  // +8, shifted by Al = 13 -> 0x10000 -> 0
    Opened s(0, 0, 0, 13, w);
    int16_t block[64];
    std::fill(block, block + 64, 7);
    s.p->scanAl = 1;
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[0], 10);
    EXPECT_TRUE(std::all_of(block + 1, block + 64, [](int16_t v) { return v == 0; }));
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[0], 6);
    s.p->scanAl = 13;
    s.comp()->dcPred = 0;
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[0], 0);
    EXPECT_EQ(s.comp()->dcPred, 8);
}

TEST(ProgressiveCoefficients, DcFirstTakesAnInvalidCodeAsAnEmptyBlock) {
    BitWriter w;
    w.put(0xF, 4);  // no code of the DC table
    dc(w, 1, 1);
    Opened s(0, 0, 0, 0, w);
    int16_t block[64];
    std::fill(block, block + 64, 3);
    s.comp()->dcPred = 9;
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_TRUE(std::all_of(block, block + 64, [](int16_t v) { return v == 0; }));
    EXPECT_EQ(s.comp()->dcPred, 9);
    EXPECT_EQ(jpgReadShowBits(s.p, 4), 0xFu);  // nothing consumed
}

TEST(ProgressiveCoefficients, DcRefinementOrsOneBit) {
    BitWriter w;
    w.put(0b10, 2);
    Opened s(0, 0, 1, 2, w);
    int16_t block[64] = {-8};
    EXPECT_EQ(jpgReadGetProgressiveDCDiffCoefficient(s.p, block), JPG_STATUS_OK);
    EXPECT_EQ(block[0], -4);
    EXPECT_EQ(jpgReadGetProgressiveDCDiffCoefficient(s.p, block), JPG_STATUS_OK);
    EXPECT_EQ(block[0], -4);
}

// An EOB run of 4 read in the first block skips the next four blocks
// without reading bits; the sixth block decodes the following symbol.
TEST(ProgressiveCoefficients, EndOfBandRunSkipsBlocks) {
    BitWriter w;
    ac(w, 0x20);     // EOB2
    w.put(1, 2);     // run 2^2 - 1 + 1 = 4 further blocks
    ac(w, 0x01, 1);  // +1 at position 1
    ac(w, 0x21, 1);  // run 2, +1 at position 4
    ac(w, 0x00);     // EOB
    Opened s(1, 63, 0, 1, w);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(s.p->eobRun, 4);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(s.p->eobRun, 0);
    EXPECT_TRUE(std::all_of(block, block + 64, [](int16_t v) { return v == 0; }));
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(zz(block, 1), 2);
    EXPECT_EQ(zz(block, 4), 2);
    EXPECT_EQ(s.p->eobRun, 0);
}

TEST(ProgressiveCoefficients, AcFirstEdgeCases) {
    BitWriter startAboveEnd;
    ac(startAboveEnd, 0x01, 1);
    Opened s(5, 2, 0, 0, startAboveEnd);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_TRUE(std::all_of(block, block + 64, [](int16_t v) { return v == 0; }));
    EXPECT_EQ(jpgReadShowBits(s.p, 4), 1u) << "nothing stored, nothing read";
    BitWriter bad;
    bad.put(0xF, 4);
    Opened b(1, 63, 0, 0, bad);
    for (int i = 0; i < 4; i++)
        jpgReadGetBits(b.p, 16);  // run past the end of the input
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(b.p, block, b.comp()), JPG_STATUS_UNEXPECTED_END);
    Opened past(1, 70, 0, 0, bad);  // a refinement band past position 63
    past.p->scanAh = 1;
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(past.p, block, past.comp()), JPG_STATUS_BAD_DATA);
}

// Correction bits change only coefficients that are non-zero and lack bit
// p; a zero coefficient becomes non-zero only through a new value.
TEST(ProgressiveCoefficients, RefinementCorrectsOnlyNonZeroCoefficients) {
    BitWriter w;
    ac(w, 0x00);       // EOB: corrections for positions 1, 2 and 4
    w.put(0b111, 3);
    ac(w, 0x11, 1);    // skip one zero, then +1 ...
    w.put(0b000, 3);   // ... after corrections 0 for positions 1, 2, 4
    Opened s(1, 5, 1, 0, w);
    int16_t block[64] = {};
    zz(block, 1) = 2;
    zz(block, 2) = 3;
    zz(block, 4) = -2;
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(zz(block, 1), 3);
    EXPECT_EQ(zz(block, 2), 3);
    EXPECT_EQ(zz(block, 3), 0);
    EXPECT_EQ(zz(block, 4), -3);
    EXPECT_EQ(zz(block, 5), 0);
    EXPECT_EQ(s.p->eobRun, 0);
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(s.p, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(zz(block, 1), 3);
    EXPECT_EQ(zz(block, 3), 0);
    EXPECT_EQ(zz(block, 5), 1);
}

// ---------------------------------------------------------------------------
// Malformed and unusual streams through the driver.

Bytes dcScanData(int blocks, int size = 2, uint32_t bits = 3) {
    BitWriter w;
    for (int i = 0; i < blocks; i++)
        dc(w, i == 0 ? size : 0, i == 0 ? bits : 0);
    return w.finish();
}

// The stream and jpegtran's baseline copy (the same coefficients) decode
// to the same pixels.
void expectSameAsJpegtran(const Bytes &stream, const std::string &name) {
    Decoded expected = decode(jpegtran(stream, "")), image = decode(stream);
    ASSERT_EQ(expected.status, JPG_STATUS_OK) << name;
    ASSERT_EQ(image.status, JPG_STATUS_OK) << name;
    EXPECT_EQ(differences(expected.image, image.image), 0u) << name;
    EXPECT_TRUE(image.guardIntact) << name;
}

TEST(ProgressiveStreams, UnusualScansDecodeLikeTheBaselineCopy) {
    // An EOB run that reaches past the last block of a scan ends with the
    // scan: the next scan starts without a run.
    BitWriter first, refine;
    ac(first, 0x01, 1);
    ac(first, 0xE0);
    first.put(0, 14);  // a run of 16383 blocks in a scan of 4
    for (int b = 0; b < 4; b++) {
        ac(refine, 0x11, 1);  // a new +1 behind one zero...
        if (b == 0)
            refine.put(1, 1);  // ... with a correction for position 1 of block 0
        ac(refine, 0x00);
    }
    expectSameAsJpegtran(progressiveStream(16, 16, kGrey,
                                           {{{1}, 0, 0, 0, 0, dcScanData(4)},
                                            {{1}, 1, 63, 0, 2, first.finish()},
                                            {{1}, 1, 63, 2, 1, refine.finish()}}),
                         "EOB run across the end of the scan");
    // Every scan starts with DC predictions of zero: three one-component DC
    // scans of a colour image each start from zero.
    std::vector<Scan> scans;
    for (uint8_t id = 1; id <= 3; id++)
        scans.push_back({{id}, 0, 0, 0, 0, dcScanData(id == 1 ? 4 : 1, 3, 2 + id)});
    expectSameAsJpegtran(progressiveStream(16, 16, {0x22, 0x11, 0x11}, scans), "DC scan per component");
    // A DC first scan after an AC scan clears what the AC scan stored.
    BitWriter acData;
    ac(acData, 0x01, 1);
    ac(acData, 0x00);
    Bytes dcData = dcScanData(1, 3, 5);
    Decoded swapped = decode(progressiveStream(8, 8, kGrey, {{{1}, 1, 63, 0, 0, acData.finish()}, {{1}, 0, 0, 0, 0, dcData}}));
    Decoded dcOnly = decode(progressiveStream(8, 8, kGrey, {{{1}, 0, 0, 0, 0, dcData}}));
    ASSERT_EQ(swapped.status, JPG_STATUS_OK);
    EXPECT_EQ(differences(swapped.image, dcOnly.image), 0u);
}

// An EOB run ends at a restart marker: the block behind the marker decodes
// its own data, as if the run had been a single end of block.
TEST(ProgressiveStreams, EndOfBandRunEndsAtARestartMarker) {
    auto stream = [](bool run) {
        BitWriter first, second;
        ac(first, run ? 0x10 : 0x00);
        if (run)
            first.put(0, 1);  // a run of two blocks, one past the interval
        ac(second, 0x01, 1);
        ac(second, 0x00);
        Bytes data = first.finish(), rest = second.finish();
        data.insert(data.end(), {0xFF, 0xD0});
        data.insert(data.end(), rest.begin(), rest.end());
        StreamBuilder s;
        s.soi().dqt().sof(0xC2, 8, 8, 16, {{1, 0x11, 0}}).dht(0x00, kDc4).dht(0x10, kAc4);
        s.sos({{1, 0x00}}, 0, 0, 0).raw(dcScanData(2)).dri(1).sos({{1, 0x00}}, 1, 63, 0).raw(data);
        return s.eoi().bytes;
    };
    Decoded withRun = decode(stream(true)), plain = decode(stream(false));
    ASSERT_EQ(plain.status, JPG_STATUS_OK);
    EXPECT_EQ(withRun.status, JPG_STATUS_OK);
    EXPECT_EQ(differences(withRun.image, plain.image), 0u);
}

TEST(ProgressiveStreams, MalformedScansFailWithTheirStatus) {
    BitWriter size2, badAc;
    ac(size2, 0x22, 1);
    badAc.put(0xFF, 8);
    const struct {
        const char *name;
        std::vector<Scan> scans;
        JpgStatus status;
    } cases[] = {
        {"refinement size 2",
         {{{1}, 0, 0, 0, 0, dcScanData(1)}, {{1}, 1, 63, 0, 1, {0x0F}}, {{1}, 1, 63, 1, 0, size2.finish()}},
         JPG_STATUS_ERROR},
        {"band end past 63", {{{1}, 0, 0, 0, 0, dcScanData(1)}, {{1}, 1, 70, 0, 0, {0x0F}}}, JPG_STATUS_BAD_DATA},
        {"AC code that is none", {{{1}, 0, 0, 0, 0, dcScanData(1)}, {{1}, 1, 63, 0, 0, badAc.finish()}},
         JPG_STATUS_BAD_AC_CODE},
        {"data after the scan", {{{1}, 0, 0, 0, 0, {0x0F, 0x12, 0x34, 0x56}}}, JPG_STATUS_ERROR},
    };
    for (const auto &c : cases)
        EXPECT_EQ(decode(progressiveStream(8, 8, kGrey, c.scans)).status, c.status) << c.name;
}

// Stored blocks are dequantized modulo 2^16, as the sequential decoder
// dequantizes, by the same arithmetic at every processor level.
TEST(StoreOutput, DequantizationWrapsAlikeAtEveryLevel) {
    std::mt19937 random(7);
    for (int n = 0; n < 200; n++) {
        int16_t coefficients[64], quant[64], expected[64], block[64];
        for (int i = 0; i < 64; i++) {
            coefficients[i] = int16_t(n < 2 ? (n ? -32768 : 32767) : random());
            quant[i] = int16_t(n < 2 ? 255 : random() % 65536);
            expected[i] = int16_t(uint16_t(int32_t(coefficients[i]) * int32_t(uint16_t(quant[i]))));
        }
        for (uint32_t flag : {0u, uint32_t(JPG_PROCESSOR_SSE2), uint32_t(JPG_PROCESSOR_SSE2 | JPG_PROCESSOR_AVX2)}) {
            kiv::dequantizeFor(flag)(coefficients, quant, block);
            ASSERT_TRUE(std::equal(block, block + 64, expected)) << "flag " << flag << ", block " << n;
        }
    }
}

}  // namespace
