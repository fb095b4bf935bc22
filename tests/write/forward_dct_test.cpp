// Forward DCT: the output is 8 x the two-dimensional DCT (compared with a
// double-precision transform on random blocks); a constant block has only a
// DC coefficient. The golden encodes pin the exact values.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "kivjpeg.h"

namespace {

// 8 x F(u, v), the two-dimensional DCT of the block, in double precision.
void referenceDct(const int16_t *in, double *out) {
    for (int v = 0; v < 8; v++)
        for (int u = 0; u < 8; u++) {
            double sum = 0;
            for (int y = 0; y < 8; y++)
                for (int x = 0; x < 8; x++)
                    sum += in[8 * y + x] * std::cos((2 * x + 1) * u * M_PI / 16) *
                           std::cos((2 * y + 1) * v * M_PI / 16);
            double cu = u == 0 ? M_SQRT1_2 : 1, cv = v == 0 ? M_SQRT1_2 : 1;
            out[8 * v + u] = 8 * 0.25 * cu * cv * sum;
        }
}

}  // namespace

TEST(ForwardDct, MatchesTheDoublePrecisionTransform) {
    std::mt19937 rng(42);
    int worst = 0;
    double total = 0;
    for (int trial = 0; trial < 2000; trial++) {
        int16_t block[64];
        int range = trial % 3 == 0 ? 256 : trial % 3 == 1 ? 16 : 2;
        for (auto &s : block)
            s = static_cast<int16_t>(static_cast<int>(rng() % range) - range / 2);
        if (trial == 0)
            for (int i = 0; i < 64; i++)
                block[i] = (i + i / 8) % 2 ? 127 : -128;  // checkerboard: extreme AC
        double expected[64];
        referenceDct(block, expected);
        complibIntFDCT8x8(block);
        for (int i = 0; i < 64; i++) {
            int error = static_cast<int>(std::lround(std::fabs(block[i] - expected[i])));
            worst = std::max(worst, error);
            total += std::fabs(block[i] - expected[i]);
            // Output units are 1/8 of a coefficient; the 1/sqrt(2) products
            // rounded to whole samples in the column pass dominate the error.
            ASSERT_LE(std::fabs(block[i] - expected[i]), 8.0) << "trial " << trial << " index " << i;
        }
    }
    EXPECT_LE(worst, 8);
    EXPECT_LT(total / (2000 * 64), 0.75) << "mean absolute error";
    std::printf("worst error %d, mean %.3f (units of 1/8 coefficient)\n", worst, total / (2000 * 64));
}

TEST(ForwardDct, ConstantBlockHasOnlyDc) {
    for (int v : {-128, -1, 0, 5, 127}) {
        int16_t block[64];
        std::fill(block, block + 64, static_cast<int16_t>(v));
        complibIntFDCT8x8(block);
        EXPECT_EQ(block[0], 64 * v);
        for (int i = 1; i < 64; i++)
            EXPECT_EQ(block[i], 0) << i;
    }
}
