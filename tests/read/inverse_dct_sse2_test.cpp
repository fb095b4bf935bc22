// The inverse DCT that jpgReadInverseDCT runs (SSE2 on x86-64, portable on
// 32-bit x86) and the portable transform, against a plain reference of the
// same integer arithmetic, on random blocks of every kind: sparse and dense,
// small and full 16-bit range; and, on x86-64, the SSE2 transform against the
// portable one bit for bit on every block shape its zero tests distinguish.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

#include "kivjpeg.h"
#include "read/inverse_dct.h"
#include "read/inverse_dct_sse2.h"
#include "test_support.h"

namespace {

// The transform written out plainly, one output at a time, in 32-bit
// wrapping arithmetic (columns with 4 extra fraction bits, then rows).
void line(const int64_t *in, int64_t *out) {
    auto w = [](int64_t v) { return int64_t(int32_t(uint32_t(v))); };
    auto sra = [&](int64_t v, int s) { return int64_t(int32_t(uint32_t(v)) >> s); };
    const int64_t C1 = 4017, C2 = 3784, C3 = 3406, C4 = 2896, C5 = 2276, C6 = 1567, C7 = 799;
    int64_t a = w(C1 * in[1] + C7 * in[7]), b = w(C7 * in[1] - C1 * in[7]);
    int64_t c = w(C5 * in[5] + C3 * in[3]), d = w(C3 * in[5] - C5 * in[3]);
    int64_t p = w(a - c), q = w(b - d);
    int64_t o[4] = {w(a + c), w(C4 * sra(p + q + 2048, 12)), w(C4 * sra(p - q + 2048, 12)),
                    w(b + d)};
    int64_t e0 = w(C4 * (in[0] + in[4])), e1 = w(C4 * (in[0] - in[4]));
    int64_t f = w(C2 * in[2] + C6 * in[6]), g = w(C6 * in[2] - C2 * in[6]);
    int64_t E[4] = {w(e0 + f), w(e1 + g), w(e1 - g), w(e0 - f)};
    for (int i = 0; i < 4; i++) {
        out[i] = w(E[i] + o[i]);
        out[7 - i] = w(E[i] - o[i]);
    }
}

void referenceIdct(int16_t *block) {
    int64_t work[64], in[8], out[8];
    for (int c = 0; c < 8; c++) {
        for (int i = 0; i < 8; i++) in[i] = block[8 * i + c];
        line(in, out);
        for (int i = 0; i < 8; i++) work[8 * i + c] = int32_t(uint32_t(out[i] + 256)) >> 9;
    }
    for (int r = 0; r < 8; r++) {
        line(work + 8 * r, out);
        for (int i = 0; i < 8; i++)
            block[8 * r + i] = int16_t(PixClipTable[(int32_t(uint32_t(out[i] + 0x10000)) >> 17) & 0x3FF]);
    }
}

struct Kind {
    const char *name;
    int nonZero;    // coefficients set per block (64: all)
    int magnitude;  // largest |coefficient|
};

void exported(int16_t *block) { jpgReadInverseDCT(block); }

struct Transform {
    const char *name;
    void (*run)(int16_t *);
};

TEST(InverseDctFast, MatchesPlainReferenceOnRandomBlocks) {
    const Kind kinds[] = {{"dc only", 1, 2047}, {"sparse", 6, 1023},  {"typical", 20, 255},
                          {"dense", 64, 2047},  {"wide", 64, 32767}, {"extreme", 64, 32768}};
    const Transform transforms[] = {{"exported", exported}, {"portable", kiv::inverseDctPortable}};
    std::mt19937 random(20261122);
    for (const Transform &transform : transforms) {
        for (const Kind &kind : kinds) {
            for (int n = 0; n < 20000; n++) {
                int16_t block[64] = {}, expected[64];
                std::uniform_int_distribution<int> value(-kind.magnitude, kind.magnitude - 1);
                std::uniform_int_distribution<int> spot(0, kind.nonZero == 1 ? 0 : 63);
                for (int i = 0; i < kind.nonZero; i++) block[spot(random)] = int16_t(value(random));
                std::copy(block, block + 64, expected);
                referenceIdct(expected);
                transform.run(block);
                for (int i = 0; i < 64; i++)
                    ASSERT_EQ(block[i], expected[i])
                        << transform.name << " " << kind.name << " block " << n << " index " << i;
            }
        }
    }
}

// A random block whose non-zero coefficients lie in the first `rows` rows
// and `cols` columns, each kept with the given probability (percent).
void sparseBlock(std::mt19937 &random, int rows, int cols, int percent, int magnitude, int16_t *block) {
    std::uniform_int_distribution<int> value(-magnitude, magnitude - 1), chance(0, 99);
    std::fill(block, block + 64, int16_t{0});
    for (int r = 0; r < rows; r++)
        for (int c = 0; c < cols; c++)
            if (chance(random) < percent) block[8 * r + c] = int16_t(value(random));
}

void expectSameAsPlain(const int16_t *input, void (*run)(int16_t *), const char *what) {
    int16_t block[64], expected[64];
    std::copy(input, input + 64, block);
    std::copy(input, input + 64, expected);
    referenceIdct(expected);
    run(block);
    for (int i = 0; i < 64; i++) ASSERT_EQ(block[i], expected[i]) << what << " index " << i;
}

// Every rectangle of possibly non-zero coefficients, at every density and size.
TEST(InverseDctFast, SparseBlocksOfEveryShape) {
    std::mt19937 random(4242);
    for (int rows = 1; rows <= 8; rows++)
        for (int cols = 1; cols <= 8; cols++)
            for (int magnitude : {1, 16, 1024, 8192, 32768})
                for (int percent : {10, 50, 100})
                    for (int n = 0; n < 60; n++) {
                        int16_t block[64];
                        sparseBlock(random, rows, cols, percent, magnitude, block);
                        std::string what = std::to_string(rows) + "x" + std::to_string(cols) + " magnitude " +
                                           std::to_string(magnitude) + " percent " + std::to_string(percent);
                        expectSameAsPlain(block, kiv::inverseDctPortable, (what + " portable").c_str());
                        expectSameAsPlain(block, exported, (what + " exported").c_str());
                    }
}

// Column-pass values around the 16-bit limit (a DC column reaches 32767 at
// a DC of about 5793), where the fast row pass hands over to the exact one,
// and the extremes of every quarter, whose row pass wraps around.
TEST(InverseDctFast, SixteenBitLimitAndExtremes) {
    for (int dc = 5770; dc <= 5820; dc++)
        for (int sign : {1, -1})
            for (int spot : {1, 8, 9, 12, 33, 63}) {
                int16_t block[64] = {};
                block[0] = int16_t(sign * dc);
                block[spot] = int16_t(sign * (spot % 3 + 1));
                expectSameAsPlain(block, kiv::inverseDctPortable, "limit, portable");
                expectSameAsPlain(block, exported, "limit, exported");
            }
    // Columns 0 and 4 near the limit with opposite signs: the even outputs
    // depend on their small sum, so a saturated value would show.
    for (int dc = 5780; dc <= 5810; dc++)
        for (int sign : {1, -1})
            for (int d = 0; d < 60; d++) {
                int16_t block[64] = {};
                block[0] = int16_t(sign * dc);
                block[4] = int16_t(-sign * (dc - d));
                expectSameAsPlain(block, kiv::inverseDctPortable, "limit pair, portable");
                expectSameAsPlain(block, exported, "limit pair, exported");
            }
    const int16_t extremes[] = {-32768, 32767, -32767, 1, -1};
    for (int16_t a : extremes)
        for (int16_t b : extremes)
            for (int quarter = 0; quarter < 16; quarter++) {  // which quarters hold a and b
                int16_t block[64];
                for (int i = 0; i < 64; i++) {
                    int q = (i >= 32 ? 2 : 0) + ((i & 7) >= 4 ? 1 : 0);
                    bool on = (quarter >> q & 1) != 0 || i == 0;
                    block[i] = on ? ((i * 7 + i / 8) % 3 == 0 ? a : b) : int16_t{0};
                }
                expectSameAsPlain(block, kiv::inverseDctPortable, "extremes, portable");
                expectSameAsPlain(block, exported, "extremes, exported");
            }
}

// The transform of every processor level this machine runs against the
// portable one on random blocks of random shape, bit for bit.
TEST(InverseDctSse2, EveryLevelMatchesPortableBitForBit) {
    std::mt19937 random(777);
    std::uniform_int_distribution<int> side(1, 8), density(1, 100), size(0, 15);
    for (uint32_t flag : kivtest::processorFlags()) {
        kiv::InverseDct transform = kiv::inverseDctFor(flag);
        ASSERT_EQ(transform == kiv::inverseDctPortable, flag == 0);
        for (int n = 0; n < 200000; n++) {
            int16_t block[64], portable[64];
            sparseBlock(random, side(random), side(random), density(random), 1 << size(random), block);
            if (n % 7 == 0) block[0] = int16_t(random());
            std::copy(block, block + 64, portable);
            kiv::inverseDctPortable(portable);
            transform(block);
            for (int i = 0; i < 64; i++)
                ASSERT_EQ(block[i], portable[i]) << kivtest::processorName(flag) << " block " << n << " index " << i;
        }
    }
}

}  // namespace
