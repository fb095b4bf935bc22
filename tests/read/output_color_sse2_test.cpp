// The SSE2 YCbCr-to-BGR row (x86-64) against the plain conversion formulas
// for every Cb, Cr pair with every luma value, and against the exported
// single-pixel converter; plus out-of-range samples, whose low byte counts.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>

#include "kivjpeg.h"
#include "read/output_color_sse2.h"

namespace {

#if KIV_HAVE_SSE2_COLOR

int clamp(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }
int term(int factor, int c) { return int((int64_t(factor) * (c - 128) + 32768) >> 16); }

// B, G, R of one pixel by the formulas, with 16-bit fixed-point terms.
void plainBgr(int y, int cb, int cr, uint8_t *out) {
    y &= 0xFF, cb &= 0xFF, cr &= 0xFF;
    out[0] = uint8_t(clamp(y + term(116130, cb)));
    out[1] = uint8_t(clamp(y + term(-22554, cb) + term(-46802, cr)));
    out[2] = uint8_t(clamp(y + term(91881, cr)));
}

TEST(OutputColorFast, MatchesPlainFormulasForAllInputs) {
    for (int cb = 0; cb < 256; cb++)
        for (int cr = 0; cr < 256; cr++)
            for (int y0 = 0; y0 < 256; y0 += 8) {
                int16_t y[8], b[8], r[8];
                uint8_t fast[24], plain[24];
                for (int i = 0; i < 8; i++) y[i] = int16_t(y0 + i), b[i] = int16_t(cb), r[i] = int16_t(cr);
                kiv::yccRowToBgrSse2(y, b, r, fast);
                for (int i = 0; i < 8; i++) plainBgr(y[i], cb, cr, plain + 3 * i);
                ASSERT_EQ(0, memcmp(fast, plain, 24)) << "y " << y0 << " cb " << cb << " cr " << cr;
            }
}

TEST(OutputColorFast, MatchesExportedConverterOnRandomAndOutOfRangeSamples) {
    std::mt19937 random(7);
    std::uniform_int_distribution<int> any(-32768, 32767);
    for (int n = 0; n < 100000; n++) {
        int16_t y[8], b[8], r[8];
        for (int i = 0; i < 8; i++) {
            bool wild = n % 4 == 0;
            y[i] = int16_t(wild ? any(random) : any(random) & 0xFF);
            b[i] = int16_t(wild ? any(random) : any(random) & 0xFF);
            r[i] = int16_t(wild ? any(random) : any(random) & 0xFF);
        }
        uint8_t fast[24], plain[24];
        kiv::yccRowToBgrSse2(y, b, r, fast);
        for (int i = 0; i < 8; i++) {
            plainBgr(y[i], b[i], r[i], plain + 3 * i);
            int32_t R, G, B;
            jpgReadYuv2RGB(&R, &G, &B, y[i] & 0xFF, b[i] & 0xFF, r[i] & 0xFF);
            ASSERT_EQ(B, plain[3 * i]);
            ASSERT_EQ(G, plain[3 * i + 1]);
            ASSERT_EQ(R, plain[3 * i + 2]);
        }
        ASSERT_EQ(0, memcmp(fast, plain, 24)) << "case " << n;
    }
}

#endif

}  // namespace
