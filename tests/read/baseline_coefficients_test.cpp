// Baseline block decoding on streams written in the test: coefficients
// come back exactly as coded (through every lookup level, including
// optimised tables whose long codes skip the second AC level), the scaled
// variant keeps only the first coefficients, and the edge rules hold (runs
// past 63, DC category 0, 16-bit wrap, end of data, MCU counters).
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "core/tables.h"
#include "decode_helpers.h"
#include "stream_builder.h"

namespace {

using namespace kivtest;

// An optimised AC table whose first code past level 1 ("1000", run 0 size
// 10) leaves the second level empty; the rest must decode through level 3.
const HuffmanSpec kOptimisedAc = {
    {0, 2, 1, 2, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3},
    {0x00, 0x01, 0x02, 0x0A, 0x11, 0x09, 0x21, 0x03, 0x31, 0x41}};

struct CodedImage {
    std::vector<uint8_t> stream;
    std::vector<std::vector<int>> blocks;  // zig-zag order, DC as value
};

// A grey image of `count` blocks in one row, coded with the given tables.
CodedImage codeBlocks(const std::vector<std::vector<int>> &blocks, const HuffmanSpec &dc,
                      const HuffmanSpec &ac, uint8_t quant = 1, int restart = 0) {
    StreamBuilder s;
    s.soi().dqt(0, quant).sof(0xC0, 8, 8, static_cast<uint16_t>(8 * blocks.size()), {{1, 0x11, 0}})
        .dht(0x00, dc).dht(0x10, ac);
    if (restart)
        s.dri(static_cast<uint16_t>(restart));
    s.sos({{1, 0x00}});
    EntropyWriter w;
    int pred = 0;
    for (size_t b = 0; b < blocks.size(); b++) {
        if (restart && b > 0 && b % restart == 0) {
            w.flush();
            s.raw(w.out).raw({0xFF, static_cast<uint8_t>(0xD0 + (b / restart - 1) % 8)});
            w.out.clear();
            pred = 0;
        }
        w.block(dc, ac, blocks[b].data(), &pred);
    }
    w.flush();
    s.raw(w.out).eoi();
    return {s.bytes, blocks};
}

std::vector<int> block(std::initializer_list<std::pair<int, int>> entries) {
    std::vector<int> zz(64, 0);
    for (auto [k, v] : entries)
        zz[k] = v;
    return zz;
}

// Decodes the blocks one by one with jpgReadGetCoefficient and checks them.
void expectCoefficients(const CodedImage &image, uint8_t quant = 1) {
    ReadHandle h(image.stream);
    ASSERT_EQ(h.status, JPG_STATUS_OK) << hex(h.status);
    for (size_t b = 0; b < image.blocks.size(); b++) {
        int16_t out[64];
        std::memset(out, 0, sizeof out);
        ASSERT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[0]), JPG_STATUS_OK) << b;
        for (int k = 0; k < 64; k++)
            EXPECT_EQ(out[kiv::kZigzag[k]], static_cast<int16_t>(image.blocks[b][k] * quant))
                << "block " << b << " zig-zag " << k;
    }
}

TEST(BaselineCoefficients, OptimisedTableLongCodesDecodeThroughTheThirdLevel) {
    CodedImage image = codeBlocks(
        {block({{0, 50}, {1, 700}, {3, 1}, {4, -300}, {7, -1}, {8, 5}, {12, 1}, {17, -1}, {18, 1}, {19, -2}}),
         block({{0, -20}, {1, -1023}, {2, 2}, {3, 511}, {5, 1}}),
         block({{0, 0}, {1, 1}})},
        kLuminanceDc, kOptimisedAc);
    expectCoefficients(image);
    if (!haveTool("djpeg"))
        return;
    std::string path = tempPath("optimised.jpg");
    writeFile(path, image.stream);
    Image oracle, ours = [&] {
        ReadHandle h(image.stream);
        Image i;
        EXPECT_EQ(decodeWhole(h.p, &i), JPG_STATUS_OK);
        return i;
    }();
    ASSERT_TRUE(djpegDecode(path, &oracle));
    EXPECT_LE(compare(ours, oracle).maxDiff, 1);
}

TEST(BaselineCoefficients, AnnexKTablesRandomBlocks) {
    std::mt19937 rng(99);
    std::vector<std::vector<int>> blocks;
    for (int b = 0; b < 40; b++) {
        std::vector<int> zz(64, 0);
        zz[0] = std::uniform_int_distribution<int>(-1000, 1000)(rng);
        int density = b % 4 == 0 ? 60 : 10;
        for (int k = 1; k < 64; k++)
            if (std::uniform_int_distribution<int>(0, 99)(rng) < density)
                zz[k] = std::uniform_int_distribution<int>(-1023, 1023)(rng) >> (rng() % 10);
        blocks.push_back(zz);
    }
    expectCoefficients(codeBlocks(blocks, kLuminanceDc, kLuminanceAc));
    expectCoefficients(codeBlocks(blocks, kChrominanceDc, kChrominanceAc, 3), 3);
}

TEST(BaselineCoefficients, ScaledVariantStoresOnlyTheFirstCoefficients) {
    std::vector<int> full = block({{0, 40}, {1, 3}, {2, -4}, {3, 5}, {5, 9}, {23, 7}, {24, -8}, {40, 2}, {63, -1}});
    CodedImage image = codeBlocks({full, full, full, full}, kLuminanceDc, kLuminanceAc, 2);
    ReadHandle h(image.stream);
    ASSERT_EQ(h.status, JPG_STATUS_OK);
    int pred = 0;
    for (uint32_t limit : {0u, 4u, 24u, 64u}) {
        int16_t out[64];
        std::memset(out, 0, sizeof out);
        ASSERT_EQ(jpgReadGetScaleCoefficient(h.p, out, &h.p->components[0], limit), JPG_STATUS_OK);
        pred += full[0];  // each block repeats the DC difference of the first
        for (int k = 0; k < 64; k++) {
            int expected = k == 0 ? 2 * 40 : (static_cast<uint32_t>(k) < limit ? 2 * full[k] : 0);
            EXPECT_EQ(out[kiv::kZigzag[k]], expected) << "limit " << limit << " zig-zag " << k;
        }
    }
    (void)pred;
}

// Streams written bit by bit for the edge rules.
std::vector<uint8_t> greyStream(std::vector<uint8_t> data, uint8_t quant = 1) {
    StreamBuilder s;
    s.greyHeader(8, 8, quant).raw(data).eoi();
    return s.bytes;
}

TEST(BaselineCoefficients, EdgeRules) {
    // Run/size 0xF1 four times: k = 16, 32, 48, 64 > 63: the block ends silently.
    {
        EntropyWriter w;
        auto dc = canonicalCodes(kLuminanceDc), ac = canonicalCodes(kLuminanceAc);
        w.symbol(dc, 0);
        for (int i = 0; i < 4; i++) {
            w.symbol(ac, 0xF1);
            w.magnitude(1, 1);
        }
        w.flush();
        ReadHandle h(greyStream(w.out));
        int16_t out[64] = {};
        EXPECT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[0]), JPG_STATUS_OK);
        EXPECT_EQ(out[kiv::kZigzag[16]], 1);
        EXPECT_EQ(out[kiv::kZigzag[48]], 1);
    }
    // DC category 0 keeps the predictor; the product wraps at 16 bits.
    {
        EntropyWriter w;
        auto dc = canonicalCodes(kLuminanceDc), ac = canonicalCodes(kLuminanceAc);
        w.symbol(dc, 0);
        w.symbol(ac, 0x0A);
        w.magnitude(1000, 10);
        w.symbol(ac, 0x00);
        w.flush();
        ReadHandle h(greyStream(w.out, 200));
        h.p->components[0].dcPred = 7;
        int16_t out[64] = {};
        EXPECT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[0]), JPG_STATUS_OK);
        EXPECT_EQ(h.p->components[0].dcPred, 7);
        EXPECT_EQ(out[0], 1400);
        EXPECT_EQ(out[1], static_cast<int16_t>(200000 & 0xFFFF));
    }
    // No code: all-zero bits are a DC code here, but "111111111" is none.
    {
        ReadHandle h(greyStream({0xFF, 0x80, 0x00}));
        int16_t out[64] = {};
        EXPECT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[0]), JPG_STATUS_BAD_DC_CODE);
        ReadHandle ac(greyStream({0x3F, 0xFF, 0xC0}));  // DC "00", then sixteen ones: no AC code
        EXPECT_EQ(jpgReadGetCoefficient(ac.p, out, &ac.p->components[0]), JPG_STATUS_BAD_AC_CODE);
    }
    // Input that ends inside a block feeds one-bits, which form no AC code.
    {
        std::vector<uint8_t> s = greyStream({0x20});
        s.resize(s.size() - 2);  // no EOI either
        ReadHandle h(s, 4);
        int16_t out[64] = {};
        EXPECT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[0]), JPG_STATUS_UNEXPECTED_END);
    }
}

TEST(BaselineCoefficients, McuCountersAndRestartProcessing) {
    std::vector<std::vector<int>> blocks(6, block({{0, 10}, {1, 1}}));
    CodedImage image = codeBlocks(blocks, kLuminanceDc, kLuminanceAc, 1, 2);
    ReadHandle h(image.stream);
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
    const int16_t *samples = h.p->mcuBuffer;
    for (int i = 1; i < 64; i++)
        EXPECT_NEAR(samples[i], samples[0], 2);
}

TEST(BaselineCoefficients, RoutineLookup) {
    EXPECT_EQ(jpgGetReadMCUGenericFunc(0x301), jpgReadDecodeBaselineMcu);
    EXPECT_EQ(jpgGetReadMCUGenericFunc(0x001), jpgReadScaleOutputLevel0MCU);
    EXPECT_EQ(jpgGetReadMCUGenericFunc(0x101), jpgReadScaleOutputLevel1MCU);
    EXPECT_EQ(jpgGetReadMCUGenericFunc(0x201), jpgReadScaleOutputLevel2MCU);
    EXPECT_NE(jpgGetReadMCUGenericFunc(0x302), nullptr);
    for (uint32_t id : {0x303u, 0x10301u, 0x301u | 0x10000u, 0x401u, 0u})
        EXPECT_EQ(jpgGetReadMCUGenericFunc(id), nullptr) << std::hex << id;
}

TEST(BaselineCoefficients, UnboundComponentIsRefused) {
    ReadHandle h(greyStream({0x2B}));
    int16_t out[64] = {};
    EXPECT_EQ(jpgReadGetCoefficient(h.p, out, &h.p->components[2]), JPG_STATUS_FAILED);
}

}  // namespace
