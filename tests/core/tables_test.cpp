// Tables derived from the standard's data: zig-zag order, EXTEND and the
// clip table, checked by their defining properties and a few pinned values.
#include <gtest/gtest.h>

#include <cstdlib>

#include "core/tables.h"
#include "kivjpeg.h"

TEST(Tables, ZigzagWalksTheAntiDiagonals) {
    bool seen[64] = {};
    for (int k = 0; k < 64; k++) {
        uint32_t n = kiv::kZigzag[k];
        ASSERT_LT(n, 64u);
        EXPECT_FALSE(seen[n]);
        seen[n] = true;
        EXPECT_EQ(kiv::kNaturalToZigzag[n], k);  // inverse composes to identity
        if (k > 0) {
            int r0 = kiv::kZigzag[k - 1] / 8, c0 = kiv::kZigzag[k - 1] % 8;
            int r1 = n / 8, c1 = n % 8;
            EXPECT_LE(std::abs(r1 - r0), 1) << k;
            EXPECT_LE(std::abs(c1 - c0), 1) << k;
            EXPECT_LE((r0 + c0) - (r1 + c1), 0) << k;  // never back to an earlier diagonal
        }
    }
    const uint32_t start[] = {0, 1, 8, 16, 9, 2, 3, 10, 17, 24, 32, 25, 18, 11, 4, 5};
    for (int k = 0; k < 16; k++) {
        EXPECT_EQ(kiv::kZigzag[k], start[k]);
        EXPECT_EQ(kiv::kZigzag[64 + k], start[k]);  // the padded tail
    }
    EXPECT_EQ(kiv::kZigzag[63], 63u);
}

TEST(Tables, ExtendPairs) {
    EXPECT_EQ(tableTestShift[0][0], 0);
    EXPECT_EQ(tableTestShift[0][1], 0);
    for (int s = 1; s <= 16; s++) {
        EXPECT_EQ(tableTestShift[s][0], 1 << (s - 1));
        EXPECT_EQ(tableTestShift[s][1], 1 - (1 << s));
        // EXTEND maps 0 to the most negative value of the category, 2^s-1 to the largest.
        EXPECT_EQ(kiv::extend(0, s), 1 - (1 << s));
        EXPECT_EQ(kiv::extend((1 << s) - 1, s), (1 << s) - 1);
    }
}

TEST(Tables, ClipTableShiftsClampsAndWraps) {
    for (int v = -512; v < 512; v++) {
        int expected = v + 128 < 0 ? 0 : v + 128 > 255 ? 255 : v + 128;
        EXPECT_EQ(PixClipTable[v & 0x3FF], expected) << v;
    }
}
