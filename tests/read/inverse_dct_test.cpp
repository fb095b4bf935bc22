// Inverse DCT: the exported clip table, pinned values (all-zero and DC-only
// blocks, the 10-bit wrap of the clip index) and closeness to a
// double-precision evaluation of ISO/IEC 10918-1 A.3.3 on random blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <random>

#include "kivjpeg.h"

namespace {

using Block = std::array<int16_t, 64>;

Block idct(Block b) {
    jpgReadInverseDCT(b.data());
    return b;
}

TEST(PixClipTable, LevelShiftsAndClampsTheLowTenBits) {
    struct Range {
        int first, last;
        int (*entry)(int);
    };
    const Range ranges[] = {
        {0, 127, [](int i) { return i + 128; }},
        {128, 511, [](int) { return 255; }},
        {512, 895, [](int) { return 0; }},
        {896, 1023, [](int i) { return i - 896; }},
    };
    for (const Range &r : ranges)
        for (int i = r.first; i <= r.last; i++)
            ASSERT_EQ(PixClipTable[i], r.entry(i)) << "index " << i;
}

TEST(InverseDct, AllZeroBlockGivesMidGrey) {
    Block zero{};
    for (int16_t s : idct(zero))
        EXPECT_EQ(s, 128);
}

// The flat value of a DC-only block: t = (C4 v + 256) >> 9, then
// ((C4 t + 0x10000) >> 17) before the clip table.
int32_t dcValue(int32_t v) {
    int32_t t = (2896 * v + 256) >> 9;
    return (2896 * t + 0x10000) >> 17;
}

TEST(InverseDct, DcOnlyBlocksAreFlat) {
    for (int32_t v : {-1024, -1023, -9, -8, -5, -4, -3, 0, 3, 4, 5, 7, 8, 12, 100, 1016, 1023, 2047}) {
        Block b{};
        b[0] = static_cast<int16_t>(v);
        int expected = PixClipTable[dcValue(v) & 0x3FF];
        for (int16_t s : idct(b))
            ASSERT_EQ(s, expected) << "DC " << v;
        // Within the clamp range the flat value is DC / 8 + 128, rounded.
        if (v >= -1024 && v <= 1016)
            EXPECT_NEAR(expected, std::clamp(v / 8.0 + 128, 0.0, 255.0), 0.5 + 1e-9) << "DC " << v;
    }
}

TEST(InverseDct, ClipIndexWrapsInsteadOfSaturating) {
    // Results 512, 1024 and -513 (before the table) give 0, 128 and 255.
    const std::pair<int32_t, int> cases[] = {{512, 0}, {1024, 128}, {-513, 255}};
    for (auto [result, sample] : cases) {
        int32_t dc = 0;
        bool found = false;
        for (int32_t v = -32768; v <= 32767 && !found; v++)
            if (dcValue(v) == result) {
                dc = v;
                found = true;
            }
        ASSERT_TRUE(found) << result;
        Block b{};
        b[0] = static_cast<int16_t>(dc);
        EXPECT_EQ(idct(b)[27], sample) << "DC " << dc << " -> " << result;
    }
}

// The integer arithmetic written out plainly in 64 bits (no zero shortcuts):
// the transform must reproduce it bit for bit wherever 32 bits do not overflow.
void plainTransform(const int64_t *x, int64_t *y) {
    const int64_t c1 = 4017, c2 = 3784, c3 = 3406, c4 = 2896, c5 = 2276, c6 = 1567, c7 = 799;
    int64_t a = c1 * x[1] + c7 * x[7], b = c7 * x[1] - c1 * x[7];
    int64_t c = c5 * x[5] + c3 * x[3], d = c3 * x[5] - c5 * x[3];
    int64_t o0 = a + c, o3 = b + d, p = a - c, q = b - d;
    int64_t o1 = c4 * ((p + q + 2048) >> 12), o2 = c4 * ((p - q + 2048) >> 12);
    int64_t e0 = c4 * (x[0] + x[4]), e1 = c4 * (x[0] - x[4]);
    int64_t f = c2 * x[2] + c6 * x[6], g = c6 * x[2] - c2 * x[6];
    int64_t E0 = e0 + f, E3 = e0 - f, E1 = e1 + g, E2 = e1 - g;
    const int64_t out[8] = {E0 + o0, E1 + o1, E2 + o2, E3 + o3, E3 - o3, E2 - o2, E1 - o1, E0 - o0};
    std::copy(out, out + 8, y);
}

Block plainIdct(const Block &f) {
    int64_t work[64], x[8], y[8];
    for (int c = 0; c < 8; c++) {
        for (int i = 0; i < 8; i++)
            x[i] = f[8 * i + c];
        plainTransform(x, y);
        for (int i = 0; i < 8; i++)
            work[8 * i + c] = (y[i] + 256) >> 9;
    }
    Block out{};
    for (int r = 0; r < 8; r++) {
        plainTransform(work + 8 * r, y);
        for (int i = 0; i < 8; i++)
            out[8 * r + i] = static_cast<int16_t>(PixClipTable[((y[i] + 0x10000) >> 17) & 0x3FF]);
    }
    return out;
}

TEST(InverseDct, ReproducesThePlainIntegerArithmeticExactly) {
    std::mt19937 rng(99);
    for (int n = 0; n < 20000; n++) {
        Block f{};
        int density = 1 + n % 8;  // from dense to very sparse
        for (int i = 0; i < 64; i++)
            if (rng() % density == 0)
                f[i] = static_cast<int16_t>(static_cast<int>(rng() % 2001) - 1000);
        ASSERT_EQ(idct(f), plainIdct(f)) << "block " << n;
    }
}

// ISO/IEC 10918-1 A.3.3 in double precision, level-shifted, rounded, clamped.
Block referenceIdct(const Block &f) {
    Block out{};
    const double pi = std::acos(-1.0);
    for (int y = 0; y < 8; y++) {
        for (int x = 0; x < 8; x++) {
            double sum = 0;
            for (int v = 0; v < 8; v++) {
                for (int u = 0; u < 8; u++) {
                    double cu = u == 0 ? std::sqrt(0.5) : 1.0, cv = v == 0 ? std::sqrt(0.5) : 1.0;
                    sum += cu * cv * f[8 * v + u] * std::cos((2 * x + 1) * u * pi / 16) *
                           std::cos((2 * y + 1) * v * pi / 16);
                }
            }
            out[8 * y + x] = static_cast<int16_t>(std::clamp(std::lround(sum / 4 + 128), 0L, 255L));
        }
    }
    return out;
}

TEST(InverseDct, MatchesDoublePrecisionReferenceOnRandomBlocks) {
    std::mt19937 rng(1234);
    int maxError = 0;
    long errors = 0, samples = 0;
    for (int n = 0; n < 4000; n++) {
        Block f{};
        // Coefficient magnitudes fall off with frequency, as in real images;
        // every fourth block is sparse to exercise the zero skips.
        bool sparse = n % 4 == 0;
        for (int i = 0; i < 64; i++) {
            int u = i % 8, v = i / 8;
            int range = i == 0 ? 1000 : std::max(2, 400 / (1 + u + v));
            if (sparse && rng() % 4 != 0)
                continue;
            f[i] = static_cast<int16_t>(static_cast<int>(rng() % (2 * range + 1)) - range);
        }
        Block fast = idct(f), ref = referenceIdct(f);
        for (int i = 0; i < 64; i++) {
            int e = std::abs(fast[i] - ref[i]);
            maxError = std::max(maxError, e);
            errors += e != 0;
            samples++;
        }
    }
    std::printf("IDCT vs double reference: max error %d, %.3f%% of samples differ\n", maxError,
                100.0 * errors / samples);
    EXPECT_LE(maxError, 1);
    EXPECT_LT(errors, samples / 20);
}

}  // namespace
