// Baseline block decoding on streams written in the test: coefficients
// come back exactly as coded (through every lookup level, including
// optimised tables whose long codes skip the second AC level), the scaled
// variant keeps only the first coefficients, and the edge rules hold (runs
// past 63, DC category 0, 16-bit wrap, end of data, MCU counters).
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "core/tables.h"
#include "stream_builder.h"
#include "test_support.h"

namespace {

using namespace kivtest;

using Zigzag = std::vector<int>;  // coefficients in zig-zag order, DC as value

// An optimised AC table whose first code past level 1 ("1000", run 0 size
// 10) leaves the second level empty; the rest must decode through level 3.
const HuffmanDefinition kOptimisedAc = {{0, 2, 1, 2, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3},
                                  {0x00, 0x01, 0x02, 0x0A, 0x11, 0x09, 0x21, 0x03, 0x31, 0x41}};

// A grey image of the blocks in one row, coded with the given tables.
Bytes codeBlocks(const std::vector<Zigzag> &blocks, const HuffmanDefinition &dc, const HuffmanDefinition &ac,
                 uint8_t quant = 1, int restart = 0) {
    StreamBuilder s;
    s.soi().dqt(0, quant).sof(0xC0, 8, 8, uint16_t(8 * blocks.size()), {{1, 0x11, 0}}).dht(0x00, dc).dht(0x10, ac);
    if (restart)
        s.dri(uint16_t(restart));
    s.sos({{1, 0x00}});
    BitWriter w;
    Codes dcCodes = canonicalCodes(dc), acCodes = canonicalCodes(ac);
    int pred = 0;
    for (size_t b = 0; b < blocks.size(); b++) {
        if (restart && b > 0 && b % restart == 0) {
            s.raw(w.finish()).marker(uint8_t(0xD0 + (b / restart - 1) % 8));
            w = BitWriter();
            pred = 0;
        }
        w.block(dcCodes, acCodes, blocks[b].data(), &pred);
    }
    return s.raw(w.finish()).eoi().bytes;
}

Zigzag block(std::initializer_list<std::pair<int, int>> entries) {
    Zigzag zz(64, 0);
    for (auto [k, v] : entries)
        zz[k] = v;
    return zz;
}

// Decodes the blocks one by one with jpgReadGetCoefficient, or with
// jpgReadGetScaleCoefficient keeping `limit` coefficients.
void expectCoefficients(const Bytes &stream, const std::vector<Zigzag> &blocks, int quant = 1, int limit = -1) {
    ReadHandle h(stream);
    ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
    for (size_t b = 0; b < blocks.size(); b++) {
        int16_t out[64] = {};
        ASSERT_EQ(limit < 0 ? jpgReadGetCoefficient(h.p, out, &h.p->components[0])
                            : jpgReadGetScaleCoefficient(h.p, out, &h.p->components[0], uint32_t(limit)),
                  JPG_STATUS_OK)
            << b;
        for (int k = 0; k < 64; k++) {
            int expected = k == 0 || limit < 0 || k < limit ? blocks[b][k] * quant : 0;
            EXPECT_EQ(out[kiv::kZigzag[k]], int16_t(expected)) << "block " << b << " zig-zag " << k;
        }
    }
}

TEST(BaselineCoefficients, CodedBlocksComeBackExactly) {
    std::vector<Zigzag> optimised = {
        block({{0, 50}, {1, 700}, {3, 1}, {4, -300}, {7, -1}, {8, 5}, {12, 1}, {17, -1}, {18, 1}, {19, -2}}),
        block({{0, -20}, {1, -1023}, {2, 2}, {3, 511}, {5, 1}}), block({{0, 0}, {1, 1}})};
    Bytes stream = codeBlocks(optimised, kLuminanceDc, kOptimisedAc);
    expectCoefficients(stream, optimised);
    std::string path = tempPath("optimised.jpg");
    writeFile(path, stream);
    Image oracle;
    if (djpeg(path, &oracle))
        EXPECT_LE(compare(decode(stream).image, oracle).maxDiff, 1);
    std::mt19937 rng(99);
    std::vector<Zigzag> blocks;
    for (int b = 0; b < 40; b++) {
        Zigzag zz(64, 0);
        zz[0] = std::uniform_int_distribution<int>(-1000, 1000)(rng);
        int density = b % 4 == 0 ? 60 : 10;
        for (int k = 1; k < 64; k++)
            if (std::uniform_int_distribution<int>(0, 99)(rng) < density)
                zz[k] = std::uniform_int_distribution<int>(-1023, 1023)(rng) >> (rng() % 10);
        blocks.push_back(zz);
    }
    for (int limit : {-1, 0, 4, 24, 64})  // the scaled variant keeps the DC and the first coefficients
        expectCoefficients(codeBlocks(blocks, kLuminanceDc, kLuminanceAc), blocks, 1, limit);
    expectCoefficients(codeBlocks(blocks, kChrominanceDc, kChrominanceAc, 3), blocks, 3);
}

Bytes greyStream(const Bytes &data, uint8_t quant = 1) {
    StreamBuilder s;
    return s.greyHeader(8, 8, quant).raw(data).eoi().bytes;
}

TEST(BaselineCoefficients, EdgeRules) {
    Codes dc = canonicalCodes(kLuminanceDc), ac = canonicalCodes(kLuminanceAc);
    // Run/size 0xF1 four times: k = 16, 32, 48, 64 > 63: the block ends silently.
    BitWriter runs;
    runs.symbol(dc, 0);
    for (int i = 0; i < 4; i++) {
        runs.symbol(ac, 0xF1);
        runs.magnitude(1, 1);
    }
    ReadHandle h(greyStream(runs.finish()));
    int16_t out[64] = {};
    EXPECT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[0]), JPG_STATUS_OK);
    EXPECT_EQ(out[kiv::kZigzag[16]], 1);
    EXPECT_EQ(out[kiv::kZigzag[48]], 1);
    // DC category 0 keeps the predictor; the product wraps at 16 bits.
    BitWriter wrap;
    wrap.symbol(dc, 0);
    wrap.symbol(ac, 0x0A);
    wrap.magnitude(1000, 10);
    wrap.symbol(ac, 0x00);
    ReadHandle w(greyStream(wrap.finish(), 200));
    w.p->components[0].dcPred = 7;
    EXPECT_EQ(jpgReadGetCoefficient(w.p, out, &w.p->components[0]), JPG_STATUS_OK);
    EXPECT_EQ(w.p->components[0].dcPred, 7);
    EXPECT_EQ(out[0], 1400);
    EXPECT_EQ(out[1], int16_t(200000 & 0xFFFF));
    // "111111111" is no DC code; DC "00" then sixteen ones is no AC code.
    ReadHandle badDc(greyStream({0xFF, 0x80, 0x00})), badAc(greyStream({0x3F, 0xFF, 0xC0}));
    EXPECT_EQ(jpgReadGetCoefficient(badDc.p, out, &badDc.p->components[0]), JPG_STATUS_BAD_DC_CODE);
    EXPECT_EQ(jpgReadGetCoefficient(badAc.p, out, &badAc.p->components[0]), JPG_STATUS_BAD_AC_CODE);
    // Input that ends inside a block feeds one-bits, which form no AC code.
    Bytes cut = greyStream({0x20});
    cut.resize(cut.size() - 2);
    ReadHandle end(cut, 4);
    EXPECT_EQ(jpgReadGetCoefficient(end.p, out, &end.p->components[0]), JPG_STATUS_UNEXPECTED_END);
    EXPECT_EQ(jpgReadGetCoefficient(end.p, out, &end.p->components[2]), JPG_STATUS_FAILED);  // unbound component
}

TEST(BaselineCoefficients, McuCountersAndRestartProcessing) {
    ReadHandle h(codeBlocks(std::vector<Zigzag>(6, block({{0, 10}, {1, 1}})), kLuminanceDc, kLuminanceAc, 1, 2));
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    EXPECT_EQ(h.p->totalMcus, 6u);
    for (int m = 0; m < 6; m++) {
        ASSERT_EQ(jpgReadDecodeBaselineMcu(h.p), JPG_STATUS_OK) << m;
        EXPECT_EQ(h.p->mcusLeft, 5u - m);
        if (m < 5) {
            EXPECT_EQ(h.p->mcuAddress, (m + 1) % 2u) << m;
            EXPECT_EQ(h.p->components[0].dcPred, (m % 2 == 1) ? 0 : 10) << m;
        }
    }
    EXPECT_EQ(h.p->currentMarker, 0xFFD9u);
    // Every block decoded to the same flat value: the predictor restarted.
    for (int i = 1; i < 64; i++)
        EXPECT_NEAR(h.p->mcuBuffer[i], h.p->mcuBuffer[0], 2);
}

}  // namespace
