// The inverse DCT and the reduced transforms of scaled output. A plain
// reference of the same integer arithmetic (32-bit wrapping, written one
// output at a time) must be reproduced bit for bit by the exported
// transform, the portable one and that of every processor level, on blocks
// of every shape and range (its accuracy against the true transform shows in
// the decodes against djpeg). Levels 0 and 1 of the reduced
// transforms follow their formulas; level 2 (4x4) matches its own plain
// reference at every processor level.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "kivjpeg.h"
#include "read/inverse_dct.h"
#include "read/scaled_transforms.h"
#include "test_support.h"

namespace {

using Block = std::array<int16_t, 64>;

int64_t wrap(int64_t v) { return int64_t(int32_t(uint32_t(v))); }
int64_t sra(int64_t v, int s) { return int64_t(int32_t(uint32_t(v)) >> s); }
int16_t clip(int64_t v) { return int16_t(PixClipTable[v & 0x3FF]); }

// One 8-point line: columns with 4 extra fraction bits, then rows.
void line(const int64_t *in, int64_t *out) {
    const int64_t C1 = 4017, C2 = 3784, C3 = 3406, C4 = 2896, C5 = 2276, C6 = 1567, C7 = 799;
    int64_t a = wrap(C1 * in[1] + C7 * in[7]), b = wrap(C7 * in[1] - C1 * in[7]);
    int64_t c = wrap(C5 * in[5] + C3 * in[3]), d = wrap(C3 * in[5] - C5 * in[3]);
    int64_t p = wrap(a - c), q = wrap(b - d);
    int64_t o[4] = {wrap(a + c), wrap(C4 * sra(p + q + 2048, 12)), wrap(C4 * sra(p - q + 2048, 12)), wrap(b + d)};
    int64_t e0 = wrap(C4 * (in[0] + in[4])), e1 = wrap(C4 * (in[0] - in[4]));
    int64_t f = wrap(C2 * in[2] + C6 * in[6]), g = wrap(C6 * in[2] - C2 * in[6]);
    int64_t E[4] = {wrap(e0 + f), wrap(e1 + g), wrap(e1 - g), wrap(e0 - f)};
    for (int i = 0; i < 4; i++) {
        out[i] = wrap(E[i] + o[i]);
        out[7 - i] = wrap(E[i] - o[i]);
    }
}

Block plainIdct(Block block) {
    int64_t work[64], in[8], out[8];
    for (int c = 0; c < 8; c++) {
        for (int i = 0; i < 8; i++)
            in[i] = block[8 * i + c];
        line(in, out);
        for (int i = 0; i < 8; i++)
            work[8 * i + c] = sra(out[i] + 256, 9);
    }
    for (int r = 0; r < 8; r++) {
        line(work + 8 * r, out);
        for (int i = 0; i < 8; i++)
            block[8 * r + i] = clip(sra(out[i] + 0x10000, 17));
    }
    return block;
}

// 4-point butterflies of level 2: (e0 + o0), (e1 - o1), (e1 + o1), (e0 - o0).
void butterfly(const int64_t *x, int64_t *y) {
    int64_t e0 = wrap((x[0] + x[2]) * 4096), e1 = wrap((x[0] - x[2]) * 4096);
    int64_t o0 = wrap(5352 * x[1] + 2217 * x[3]), o1 = wrap(5352 * x[3] - 2217 * x[1]);
    y[0] = wrap(e0 + o0), y[1] = wrap(e1 - o1), y[2] = wrap(e1 + o1), y[3] = wrap(e0 - o0);
}

Block plain4x4(Block block) {
    int64_t work[16], in[4], out[4];
    for (int c = 0; c < 4; c++) {
        for (int i = 0; i < 4; i++)
            in[i] = block[8 * i + c];
        butterfly(in, out);
        for (int i = 0; i < 4; i++)
            work[4 * i + c] = sra(out[i] + 2048, 12);
    }
    for (int r = 0; r < 4; r++) {
        butterfly(work + 4 * r, out);
        for (int i = 0; i < 4; i++)
            block[8 * r + i] = clip(sra(out[i] + 16384, 15));
    }
    return block;
}

using Transform = std::function<void(int16_t *)>;

using Named = std::pair<std::string, Transform>;  // a transform and its name

// The portable transform and that of every processor level.
template <typename ForLevel>
std::vector<Named> variants(Transform portable, ForLevel forLevel) {
    std::vector<Named> all = {{"portable", portable}};
    for (uint32_t flag : kivtest::processorFlags())
        all.push_back({kivtest::processorName(flag), forLevel(flag)});
    return all;
}

// The transform of every level, on a run of three blocks with the tested
// block at `slot` of them: beside a flat block (its own shape decides),
// beside a full one of extremes (the pair takes the full shape, and the
// exact row pass), or left over alone. The other blocks must come out as
// their own transforms.
Transform inThree(uint32_t flag, int slot) {
    return [run = kiv::inverseDctBlocksFor(flag), slot](int16_t *block) {
        Block flat{}, full;
        flat[0] = -300;
        for (int i = 0; i < 64; i++)
            full[i] = int16_t(i % 3 == 0 ? 32767 : -32768 + i);
        Block three[3] = {slot == 1 ? full : flat, flat, flat};
        std::memcpy(three[slot].data(), block, sizeof(Block));
        run(three[0].data(), 3);
        for (int k = 0; k < 3; k++)
            if (k != slot && three[k] != plainIdct(k == 0 && slot == 1 ? full : flat))
                ADD_FAILURE() << "the block beside, at " << k;
        std::memcpy(block, three[slot].data(), sizeof(Block));
    };
}

std::vector<Named> inverseDcts() {
    std::vector<Named> all = {{"portable", kiv::inverseDctPortable},
                              {"exported", [](int16_t *block) { jpgReadInverseDCT(block); }}};
    for (uint32_t flag : kivtest::processorFlags())
        for (int slot = 0; slot < 3; slot++)
            all.push_back({kivtest::processorName(flag) + " in three, at " + std::to_string(slot), inThree(flag, slot)});
    return all;
}

void expectAll(const std::vector<Named> &transforms, Block (*reference)(Block), const Block &input,
               const std::string &what) {
    Block expected = reference(input);
    for (const Named &t : transforms) {
        Block block = input;
        t.second(block.data());
        ASSERT_EQ(block, expected) << t.first << " " << what;
    }
}

// A random block whose non-zero coefficients lie in the first `rows` rows
// and `cols` columns, each kept with the given probability (percent).
Block sparseBlock(std::mt19937 &random, int rows, int cols, int percent, int magnitude) {
    std::uniform_int_distribution<int> value(-magnitude, magnitude - 1), chance(0, 99);
    Block block{};
    for (int r = 0; r < rows; r++)
        for (int c = 0; c < cols; c++)
            if (chance(random) < percent)
                block[8 * r + c] = int16_t(value(random));
    return block;
}

TEST(InverseDct, EveryTransformReproducesThePlainArithmetic) {
    const auto transforms = inverseDcts();
    std::mt19937 random(20261122);
    std::uniform_int_distribution<int> side(1, 8), density(1, 100), size(0, 15);
    for (int n = 0; n < 30000; n++) {
        Block block = sparseBlock(random, side(random), side(random), density(random), 1 << size(random));
        if (n % 7 == 0)
            block[0] = int16_t(random());
        expectAll(transforms, plainIdct, block, "random block " + std::to_string(n));
    }
    // Every rectangle of possibly non-zero coefficients.
    for (int rows = 1; rows <= 8; rows++)
        for (int cols = 1; cols <= 8; cols++)
            for (int magnitude : {1, 1024, 32768})
                for (int n = 0; n < 6; n++)
                    expectAll(transforms, plainIdct, sparseBlock(random, rows, cols, 60, magnitude),
                              std::to_string(rows) + "x" + std::to_string(cols));
}

// Column-pass values around the 16-bit limit (a DC column reaches 32767 at a
// DC of about 5793), where the fast row pass hands over to the exact one,
// and the extremes of every quarter, whose row pass wraps around.
TEST(InverseDct, SixteenBitLimitAndExtremes) {
    const auto transforms = inverseDcts();
    for (int dc = 5770; dc <= 5820; dc++)
        for (int sign : {1, -1}) {
            for (int spot : {1, 8, 9, 33, 63}) {
                Block block{};
                block[0] = int16_t(sign * dc);
                block[spot] = int16_t(sign * (spot % 3 + 1));
                expectAll(transforms, plainIdct, block, "limit");
            }
            for (int d = 0; d < 60; d += 3) {  // columns 0 and 4 with opposite signs
                Block block{};
                block[0] = int16_t(sign * dc);
                block[4] = int16_t(-sign * (dc - d));
                expectAll(transforms, plainIdct, block, "limit pair");
            }
        }
    const int16_t extremes[] = {-32768, 32767, -32767, 1, -1};
    for (int16_t a : extremes)
        for (int16_t b : extremes)
            for (int quarter = 0; quarter < 16; quarter++) {
                Block block;
                for (int i = 0; i < 64; i++) {
                    int q = (i >= 32 ? 2 : 0) + ((i & 7) >= 4 ? 1 : 0);
                    bool on = (quarter >> q & 1) != 0 || i == 0;
                    block[i] = on ? ((i * 7 + i / 8) % 3 == 0 ? a : b) : int16_t{0};
                }
                expectAll(transforms, plainIdct, block, "extremes");
            }
}

Block reduce(Block b, int level) {
    Transform fn[3] = {kiv::reduceTo1x1, kiv::reduceTo2x2, kiv::reduceTo4x4Portable};
    fn[level](b.data());
    return b;
}

// Level 0 rounds the DC over eight and reads nothing else; level 1 follows
// the two-point formula on the 2x2 corner. The slots beyond stay.
TEST(ReducedTransforms, LevelsZeroAndOneFollowTheirFormulas) {
    for (int dc : {-1100, -1028, -1027, -5, -4, -3, 0, 3, 4, 11, 12, 1012, 1016, 1020, 4092, 8188}) {
        Block b{};
        b[0] = int16_t(dc);
        b[1] = 99;
        Block out = reduce(b, 0);
        EXPECT_EQ((std::array<int, 2>{out[0], out[1]}), (std::array<int, 2>{clip((dc + 4) >> 3), 99})) << dc;
    }
    const struct {
        int f00, f01, f10, f11, s00, s01, s10, s11;
    } cases[] = {
        {0, 0, 0, 0, 128, 128, 128, 128},    {80, 0, 0, 0, 138, 138, 138, 138},
        {80, 40, 0, 0, 143, 133, 143, 133},  // horizontal gradient
        {80, 0, -40, 0, 133, 133, 143, 143}, // vertical gradient
        {0, 0, 0, 16, 130, 126, 126, 130},   // checkerboard
        {-1024, 0, 0, 0, 0, 0, 0, 0},        {2040, 500, 500, 0, 255, 255, 255, 255},  // clamped
        {4096, 0, 0, 0, 0, 0, 0, 0},         // 512 wraps to 0
    };
    for (const auto &c : cases) {
        Block b{};
        b[0] = int16_t(c.f00), b[1] = int16_t(c.f01), b[8] = int16_t(c.f10), b[9] = int16_t(c.f11), b[2] = 77;
        Block out = reduce(b, 1);
        EXPECT_EQ((std::array<int, 5>{out[0], out[1], out[8], out[9], out[2]}),
                  (std::array<int, 5>{c.s00, c.s01, c.s10, c.s11, 77}))
            << c.f00 << "," << c.f01 << "," << c.f10 << "," << c.f11;
    }
}

// Level 2 at every processor level against its plain reference; the slots
// outside the 4x4 corner keep their values.
TEST(ReducedTransforms, LevelTwoReproducesThePlainArithmetic) {
    const auto transforms = variants(kiv::reduceTo4x4Portable, kiv::reduceTo4x4For);
    std::mt19937 random(99);
    std::uniform_int_distribution<int> size(0, 15), density(0, 100), chance(0, 99), any(-32768, 32767);
    for (int n = 0; n < 30000; n++) {
        Block block;
        int magnitude = 1 << size(random), percent = density(random);
        std::uniform_int_distribution<int> value(-magnitude, magnitude - 1);
        for (int i = 0; i < 64; i++) {
            bool inside = i < 32 && (i & 7) < 4;
            block[i] = int16_t(inside ? (chance(random) < percent ? value(random) : 0) : any(random));
        }
        if (n % 5 == 0)
            block[0] = int16_t(any(random));
        expectAll(transforms, plain4x4, block, "random " + std::to_string(n));
    }
    const int16_t extremes[] = {-32768, 32767, -32767, -1, 0};
    for (int16_t a : extremes)
        for (int16_t b : extremes)
            for (int pattern = 0; pattern < 64; pattern++) {
                Block block{};
                for (int r = 0; r < 4; r++)
                    for (int c = 0; c < 4; c++)
                        block[8 * r + c] = (pattern >> ((r * 4 + c) % 6) & 1) ? a : b;
                expectAll(transforms, plain4x4, block, "extremes");
            }
}

}  // namespace
