// The inverse DCT that jpgReadInverseDCT runs (SSE2 on x86-64, portable on
// 32-bit x86) against a plain reference of the same integer arithmetic, on
// random blocks of every kind: sparse and dense, small and full 16-bit range.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "kivjpeg.h"

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

TEST(InverseDctFast, MatchesPlainReferenceOnRandomBlocks) {
    const Kind kinds[] = {{"dc only", 1, 2047}, {"sparse", 6, 1023},  {"typical", 20, 255},
                          {"dense", 64, 2047},  {"wide", 64, 32767}, {"extreme", 64, 32768}};
    std::mt19937 random(20261122);
    for (const Kind &kind : kinds) {
        for (int n = 0; n < 20000; n++) {
            int16_t block[64] = {}, expected[64];
            std::uniform_int_distribution<int> value(-kind.magnitude, kind.magnitude - 1);
            std::uniform_int_distribution<int> spot(0, kind.nonZero == 1 ? 0 : 63);
            for (int i = 0; i < kind.nonZero; i++) block[spot(random)] = int16_t(value(random));
            std::copy(block, block + 64, expected);
            referenceIdct(expected);
            jpgReadInverseDCT(block);
            for (int i = 0; i < 64; i++)
                ASSERT_EQ(block[i], expected[i]) << kind.name << " block " << n << " index " << i;
        }
    }
}

}  // namespace
