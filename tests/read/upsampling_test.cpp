// Upsampling on hand-built MCUs of random samples: the fixed and the general
// routine against a plain evaluation of the co-sited rule (midpoints round
// halves up, right neighbour from the next MCU or the last sample repeated,
// rows replicated) on every layout, and replication-only scaled upsampling.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kivjpeg.h"
#include "synthetic_mcu.h"

namespace {

using kivtest::SyntheticFrame;
using Layout = std::vector<uint8_t>;

void fillRandom(SyntheticFrame &f, uint32_t seed) {
    std::mt19937 rng(seed);
    for (uint32_t c = 0; c < f.p->numComponents; c++)
        for (uint32_t b = 0; b < f.p->components[c].blocks; b++)
            for (int i = 0; i < 64; i++) {
                f.block(c, b)[i] = int16_t(rng() % 256);
                f.block(c, b, true)[i] = int16_t(rng() % 256);
            }
}

std::string name(const Layout &s) {
    std::string out;
    for (uint8_t b : s)
        out += (out.empty() ? "" : "-") + std::to_string(b >> 4) + "x" + std::to_string(b & 15);
    return out;
}

// The full-size rule: rows replicate over rv, columns interpolate over rh
// with (L (rh - m) + R m + rh / 2) / rh; the sample right of the component
// comes from the next MCU, or repeats the last one.
int expectedFull(const SyntheticFrame &f, uint32_t c, uint32_t y, uint32_t x, bool next) {
    uint32_t h = f.p->components[c].sampling >> 4, v = f.p->components[c].sampling & 15;
    uint32_t rh = f.p->hmax / h, rv = f.p->vmax / v, sy = y / rv, sx = x / rh, m = x % rh;
    int left = f.sample(c, sy, sx);
    if (m == 0)
        return left;
    int right = sx + 1 < 8 * h ? f.sample(c, sy, sx + 1) : next ? f.sample(c, sy, 0, 8, true) : left;
    return int((left * (rh - m) + right * m + rh / 2) / rh);
}

// Every layout, with and without a next MCU: the routine the selector picks
// and the general one both follow the rule (the general one also for
// factors no fixed routine takes, A1's among them).
TEST(Upsampling, FixedAndGeneralRoutinesFollowTheRule) {
    const Layout layouts[] = {{0x11, 0x11, 0x11}, {0x12, 0x11, 0x11}, {0x21, 0x11, 0x11}, {0x22, 0x11, 0x11},
                              {0x22, 0x12, 0x21}, {0x22, 0x21, 0x12, 0x11}, {0x11}, {0x21, 0x21, 0x11},
                              {0x11, 0x12, 0x31, 0x14}, {0x41, 0x11, 0x21}, {0x33, 0x11, 0x13}};
    uint32_t seed = 1;
    for (const Layout &layout : layouts)
        for (bool next : {true, false})
            for (bool general : {false, true}) {
                SyntheticFrame f(layout);
                fillRandom(f, seed++);
                f.setNext(next);
                if (general)
                    jpgReadUpSamplingToNN(f.p);
                else
                    jpgGetUpSamplingGenericFunc((f.p->hmax << 16) | (f.p->vmax << 8))(f.p);
                for (uint32_t c = 0; c < f.p->numComponents; c++)
                    for (uint32_t y = 0; y < 8 * f.p->vmax; y++)
                        for (uint32_t x = 0; x < 8 * f.p->hmax; x++)
                            ASSERT_EQ(f.upsampled(c, y, x), expectedFull(f, c, y, x, next))
                                << name(layout) << (general ? " general" : " fixed") << " next " << next
                                << " component " << c << " y " << y << " x " << x;
            }
}

// Factors that do not divide stay inside the component; a zero factor (as
// if a header had slipped through) gives grey, not a crash.
TEST(Upsampling, BrokenFactorsStayInside) {
    SyntheticFrame f({0x33, 0x22, 0x11});
    fillRandom(f, 5);
    f.setNext(false);
    jpgReadUpSamplingToNN(f.p);
    for (uint32_t y = 0; y < 24; y++)
        for (uint32_t x = 0; x < 24; x++)
            ASSERT_LE(uint32_t(f.upsampled(1, y, x)), 255u) << y << "," << x;
    SyntheticFrame z({0x22, 0x11, 0x11});
    z.p->components[2].sampling = 0x10;
    jpgReadUpSamplingTo22(z.p);
    jpgReadUpSamplingToNN(z.p);
    for (uint32_t y = 0; y < 16; y++)
        EXPECT_EQ(z.upsampled(2, y, y), 128);
    // Without the buffers of a decode, every exported upsampler returns
    // untouched, whichever buffer is missing.
    SyntheticFrame m({0x22, 0x11, 0x11});
    int16_t **pointers = m.p->blockPointers;
    int16_t *buffer = m.p->dec.upsampleBuffer;
    for (int missing = 0; missing < 2; missing++) {
        m.p->blockPointers = missing ? nullptr : pointers;
        m.p->dec.upsampleBuffer = missing ? buffer : nullptr;
        for (void (*up)(JpgParam *) : {jpgReadUpSamplingTo11, jpgReadUpSamplingTo12, jpgReadUpSamplingTo21,
                                       jpgReadUpSamplingTo22, jpgReadUpSamplingToNN})
            up(m.p);
    }
    m.p->blockPointers = pointers;
    m.p->dec.upsampleBuffer = buffer;
}

// Scaled upsampling replicates: output sample (y, x) is source sample
// (y / rv, x / rh) of blocks of n x n samples; level 0 repeats pointers.
TEST(ScaledUpsampling, ReplicatesOnlyAtEveryLevel) {
    const Layout layouts[] = {{0x22, 0x11, 0x11}, {0x22, 0x12, 0x21}, {0x21, 0x11, 0x11}, {0x12, 0x11, 0x11},
                              {0x11, 0x11, 0x11}, {0x11, 0x12, 0x31, 0x14}, {0x41, 0x11, 0x21}};
    uint32_t seed = 200;
    for (const Layout &layout : layouts)
        for (int level = 0; level <= 2; level++) {
            SyntheticFrame f(layout, level);
            fillRandom(f, seed++);
            uint32_t n = 1u << level;
            jpgGetUpSamplingGenericFunc(0x80000000u | (f.p->hmax << 16) | (f.p->vmax << 8))(f.p);
            for (uint32_t c = 0; c < f.p->numComponents; c++) {
                uint32_t rh = f.p->hmax / (f.p->components[c].sampling >> 4);
                uint32_t rv = f.p->vmax / (f.p->components[c].sampling & 15);
                for (uint32_t y = 0; y < n * f.p->vmax; y++)
                    for (uint32_t x = 0; x < n * f.p->hmax; x++)
                        ASSERT_EQ(f.upsampled(c, y, x, n), f.sample(c, y / rv, x / rh, n))
                            << name(layout) << " level " << level << " c " << c << " " << y << "," << x;
            }
        }
}

}  // namespace
