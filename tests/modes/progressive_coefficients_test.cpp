// The four progressive coefficient routines on hand-made scans (called
// directly after the prolog has read the first scan header), and malformed
// progressive streams through the driver: each fails with its own status or
// decodes to defined pixels, inside the buffers (checked under ASan).
#include <gtest/gtest.h>

#include <cstring>

#include "progressive_helpers.h"

using namespace progtest;

namespace {

const std::vector<uint8_t> kGrey = {0x11};

// Opens a one-scan grey stream and returns the handle standing at its data.
struct Opened {
    Bytes data;  // the handle reads it in place
    JpgParam *param = nullptr;
    Image image;
    explicit Opened(const Bytes &stream) : data(stream) {
        EXPECT_EQ(open(data, &param, &image), JPG_STATUS_OK);
    }
    ~Opened() {
        if (param != nullptr)
            jpgReadEpilog(param);
    }
    JpgComponent *comp() { return &param->components[0]; }
};

Bytes oneScan(uint8_t ss, uint8_t se, uint8_t ah, uint8_t al, const Bytes &data, int width = 8) {
    return progressiveStream(width, 8, kGrey, {{{1}, ss, se, ah, al, data}});
}

int16_t zz(const int16_t *block, int k) {
    static const int kOrder[] = {0, 1, 8, 16, 9, 2, 3, 10, 17, 24};
    return block[kOrder[k]];
}

TEST(ProgressiveCoefficients, DcFirstClearsTheBlockAndAccumulatesThePredictor) {
    BitWriter w;
    w.dc(3, 5);  // +5
    w.dc(2, 1);  // raw 01 -> -2
    w.dc(4, 8);  // +8, shifted by Al = 13 -> 0x10000 -> 0
    Opened s(oneScan(0, 0, 0, 13, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64];
    std::fill(block, block + 64, 7);
    s.param->scanAl = 1;
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[0], 10);
    for (int i = 1; i < 64; i++)
        ASSERT_EQ(block[i], 0);
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[0], 6);
    s.param->scanAl = 13;
    s.comp()->dcPred = 0;
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[0], 0);
    EXPECT_EQ(s.comp()->dcPred, 8);
}

TEST(ProgressiveCoefficients, DcFirstTakesAnInvalidCodeAsAnEmptyBlock) {
    BitWriter w;
    w.put(0xF, 4);  // no code of the DC table
    w.dc(1, 1);
    Opened s(oneScan(0, 0, 0, 0, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64];
    std::fill(block, block + 64, 3);
    s.comp()->dcPred = 9;
    EXPECT_EQ(jpgReadGetProgressiveDCBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(block[i], 0);
    EXPECT_EQ(s.comp()->dcPred, 9);
    EXPECT_EQ(jpgReadShowBits(s.param, 4), 0xFu);  // nothing consumed
}

TEST(ProgressiveCoefficients, DcRefinementOrsOneBit) {
    BitWriter w;
    w.put(0b10, 2);
    Opened s(oneScan(0, 0, 1, 2, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {-8};
    EXPECT_EQ(jpgReadGetProgressiveDCDiffCoefficient(s.param, block), JPG_STATUS_OK);
    EXPECT_EQ(block[0], -4);
    EXPECT_EQ(jpgReadGetProgressiveDCDiffCoefficient(s.param, block), JPG_STATUS_OK);
    EXPECT_EQ(block[0], -4);
}

// An EOB run of 4 read in the first block skips the next four blocks
// without reading bits; the sixth block decodes the following symbol.
TEST(ProgressiveCoefficients, EndOfBandRunSkipsBlocks) {
    BitWriter w;
    w.ac(0x20);      // EOB2
    w.put(1, 2);     // run 2^2 - 1 + 1 = 4 further blocks
    w.ac(0x01, 1);   // +1 at position 1
    w.ac(0x21, 1);          // run 2, +1 at position 4
    w.ac(0x00);      // EOB
    Opened s(oneScan(1, 63, 0, 1, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(s.param->eobRun, 4);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(s.param->eobRun, 0);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(block[i], 0);
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(zz(block, 1), 2);
    EXPECT_EQ(zz(block, 4), 2);
    EXPECT_EQ(s.param->eobRun, 0);
}

TEST(ProgressiveCoefficients, AcFirstWithStartAboveEndStoresNothing) {
    BitWriter w;
    w.ac(0x01, 1);
    Opened s(oneScan(5, 2, 0, 0, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(block[i], 0);
    EXPECT_EQ(jpgReadShowBits(s.param, 4), 1u);
}

TEST(ProgressiveCoefficients, AcFirstInvalidCodeWithDataAndAtTheEnd) {
    BitWriter w;
    w.put(0xF, 4);
    Opened s(oneScan(1, 63, 0, 0, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_BAD_AC_CODE);
    for (int i = 0; i < 4; i++)
        jpgReadGetBits(s.param, 16);  // run past the end of the input
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_UNEXPECTED_END);
}

// Correction bits change only coefficients that are non-zero and lack bit
// p; a zero coefficient becomes non-zero only through a new value.
TEST(ProgressiveCoefficients, RefinementCorrectsOnlyNonZeroCoefficients) {
    BitWriter w;
    w.ac(0x00);       // EOB: corrections for positions 1, 2 and 4
    w.put(0b111, 3);
    w.ac(0x11, 1);    // skip one zero, then +1 ...
    w.put(0b000, 3);  // ... after corrections 0 for positions 1, 2, 4
    Opened s(oneScan(1, 5, 1, 0, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {};
    const int order[] = {0, 1, 8, 16, 9, 2};
    block[order[1]] = 2;
    block[order[2]] = 3;
    block[order[4]] = -2;
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[order[1]], 3);
    EXPECT_EQ(block[order[2]], 3);
    EXPECT_EQ(block[order[3]], 0);
    EXPECT_EQ(block[order[4]], -3);
    EXPECT_EQ(block[order[5]], 0);
    EXPECT_EQ(s.param->eobRun, 0);
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(s.param, block, s.comp()), JPG_STATUS_OK);
    EXPECT_EQ(block[order[1]], 3);
    EXPECT_EQ(block[order[3]], 0);
    EXPECT_EQ(block[order[5]], 1);
}

TEST(ProgressiveCoefficients, RefinementSymbolOfSizeTwoIsRefused) {
    BitWriter w;
    w.ac(0x22, 2);
    Opened s(oneScan(1, 63, 1, 0, w.finish()));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(s.param, block, s.comp()), JPG_STATUS_ERROR);
}

TEST(ProgressiveCoefficients, BandsPastPosition63AreRefused) {
    Opened s(oneScan(1, 70, 0, 0, {0x00}));
    ASSERT_NE(s.param, nullptr);
    int16_t block[64] = {};
    EXPECT_EQ(jpgReadGetProgressiveACBaseCoefficient(s.param, block, s.comp()), JPG_STATUS_BAD_DATA);
    s.param->scanAh = 1;
    EXPECT_EQ(jpgReadGetProgressiveACDiffCoefficient(s.param, block, s.comp()), JPG_STATUS_BAD_DATA);
}

// ---------------------------------------------------------------------------
// Malformed and unusual streams through the driver.

Bytes dcScanData(int blocks, int size = 2, uint32_t bits = 3) {
    BitWriter w;
    for (int i = 0; i < blocks; i++)
        w.dc(i == 0 ? size : 0, i == 0 ? bits : 0);
    return w.finish();
}

// Decodes a hand-made stream and, through jpegtran, its baseline copy with
// the same coefficients; both must give the same pixels.
void expectSameAsJpegtran(const Bytes &stream, const std::string &name) {
    std::string in = kivtest::tempPath(name + ".jpg");
    std::string out = kivtest::tempPath(name + "_baseline.jpg");
    kivtest::writeFile(in, stream);
    int rc = kivtest::run("jpegtran -outfile '" + out + "' '" + in + "' 2>/dev/null");
    ASSERT_TRUE(rc == 0 || rc == 2) << name;  // 2: libjpeg warned
    Image expected, image;
    ASSERT_EQ(decodeSequential(kivtest::readFile(out), &expected), JPG_STATUS_OK) << name;
    ASSERT_EQ(decodeProgressive(stream, &image), JPG_STATUS_OK) << name;
    EXPECT_EQ(differences(expected, image), 0u) << name;
    EXPECT_TRUE(guardIntact(image)) << name;
}

// An EOB run that reaches past the last block of a scan ends with the scan:
// the next scan starts without a run.
TEST(ProgressiveStreams, EndOfBandRunAcrossTheEndOfTheScan) {
    BitWriter first;
    first.ac(0x01, 1);
    first.ac(0xE0);
    first.put(0, 14);  // a run of 16383 blocks in a scan of 4
    BitWriter refine;
    for (int b = 0; b < 4; b++) {
        refine.ac(0x11, 1);  // a new +1 behind one zero...
        if (b == 0)
            refine.put(1, 1);  // ... with a correction for position 1 of block 0
        refine.ac(0x00);
    }
    Bytes stream = progressiveStream(16, 16, kGrey,
                                     {{{1}, 0, 0, 0, 0, dcScanData(4)},
                                      {{1}, 1, 63, 0, 2, first.finish()},
                                      {{1}, 1, 63, 2, 1, refine.finish()}});
    expectSameAsJpegtran(stream, "eob_across");
}

// Every scan starts with DC predictions of zero: three one-component DC
// scans of a colour image each start from zero.
TEST(ProgressiveStreams, EveryScanStartsWithZeroPredictions) {
    std::vector<Scan> scans;
    for (uint8_t id = 1; id <= 3; id++)
        scans.push_back({{id}, 0, 0, 0, 0, dcScanData(id == 1 ? 4 : 1, 3, 2 + id)});
    Bytes stream = progressiveStream(16, 16, {0x22, 0x11, 0x11}, scans);
    expectSameAsJpegtran(stream, "dc_per_component");
}

// A DC first scan after an AC scan clears what the AC scan stored.
TEST(ProgressiveStreams, AcScanBeforeDcScanIsOverwritten) {
    BitWriter ac;
    ac.ac(0x01, 1);
    ac.ac(0x00);
    Bytes dc = dcScanData(1, 3, 5);
    Bytes swapped = progressiveStream(8, 8, kGrey, {{{1}, 1, 63, 0, 0, ac.finish()}, {{1}, 0, 0, 0, 0, dc}});
    Bytes dcOnly = progressiveStream(8, 8, kGrey, {{{1}, 0, 0, 0, 0, dc}});
    Image a, b;
    ASSERT_EQ(decodeProgressive(swapped, &a), JPG_STATUS_OK);
    ASSERT_EQ(decodeProgressive(dcOnly, &b), JPG_STATUS_OK);
    EXPECT_EQ(differences(a, b), 0u);
}

// Each malformed stream stops with its own status.
TEST(ProgressiveStreams, MalformedScansFailWithTheirStatus) {
    BitWriter size2;
    size2.ac(0x22, 1);
    BitWriter badAc;
    badAc.put(0xF, 4);
    badAc.put(0xF, 4);
    struct Case {
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
    for (const Case &c : cases) {
        Image image;
        EXPECT_EQ(decodeProgressive(progressiveStream(8, 8, kGrey, c.scans), &image), c.status) << c.name;
    }
}

}  // namespace
