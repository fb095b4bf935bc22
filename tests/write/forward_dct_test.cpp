// Forward DCT: the output is 8 x the two-dimensional DCT (compared with a
// double-precision transform), exactly so for constant blocks. The golden
// encodes pin the exact values.
#include <gtest/gtest.h>

#include <array>
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

// Random blocks of three ranges, a checkerboard (extreme AC) and constant
// blocks, whose transform is exactly 64 times the level at DC and 0 elsewhere.
TEST(ForwardDct, MatchesTheDoublePrecisionTransform) {
    std::mt19937 rng(42);
    double total = 0;
    for (int trial = 0; trial < 2000; trial++) {
        int16_t block[64];
        int range = trial % 3 == 0 ? 256 : trial % 3 == 1 ? 16 : 2;
        for (int i = 0; i < 64; i++)
            block[i] = static_cast<int16_t>(trial == 0  ? ((i + i / 8) % 2 ? 127 : -128)
                                            : trial < 6 ? std::array{-128, -1, 5, 127, 0}[trial - 1]
                                                        : static_cast<int>(rng() % range) - range / 2);
        double expected[64];
        referenceDct(block, expected);
        complibIntFDCT8x8(block);
        for (int i = 0; i < 64; i++) {
            total += std::fabs(block[i] - expected[i]);
            // Output units are 1/8 of a coefficient; the 1/sqrt(2) products
            // rounded to whole samples in the column pass dominate the error.
            ASSERT_LE(std::fabs(block[i] - expected[i]), trial > 0 && trial < 6 ? 1e-6 : 8.0)
                << "trial " << trial << " index " << i;
        }
    }
    EXPECT_LT(total / (2000 * 64), 0.75) << "mean absolute error";
}
