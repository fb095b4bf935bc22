// Upsampling on hand-built MCUs: the routine selector, the co-sited doubling
// rule (midpoints round halves up, right neighbour from the next MCU or the
// last sample repeated), vertical replication, the general routine against a
// plain evaluation of its rule, and replication-only scaled upsampling.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kivjpeg.h"
#include "synthetic_mcu.h"

namespace {

using kivtest::SyntheticFrame;

void fillRandom(SyntheticFrame &f, uint32_t seed) {
    std::mt19937 rng(seed);
    for (uint32_t c = 0; c < f.p->numComponents; c++)
        for (uint32_t b = 0; b < f.p->components[c].blocks; b++)
            for (int i = 0; i < 64; i++) {
                f.block(c, b)[i] = static_cast<int16_t>(rng() % 256);
                f.block(c, b, true)[i] = static_cast<int16_t>(rng() % 256);
            }
}

std::string name(const std::vector<uint8_t> &s) {
    std::string out;
    char buf[8];
    for (uint8_t b : s) {
        std::snprintf(buf, sizeof buf, "%s%02X", out.empty() ? "" : "-", b);
        out += buf;
    }
    return out;
}

// The full-size rule, evaluated directly: rows replicate over rv, columns
// interpolate over rh with (L (rh - m) + R m + rh / 2) / rh; the sample
// right of the component comes from the next MCU, or repeats the last one.
int expectedFull(const SyntheticFrame &f, uint32_t c, uint32_t y, uint32_t x, bool next) {
    uint32_t h = f.p->components[c].sampling >> 4, v = f.p->components[c].sampling & 15;
    uint32_t rh = f.p->hmax / h, rv = f.p->vmax / v;
    uint32_t sy = y / rv, sx = x / rh, m = x % rh;
    int left = f.sample(c, sy, sx);
    if (m == 0)
        return left;
    int right = sx + 1 < 8 * h ? f.sample(c, sy, sx + 1) : next ? f.sample(c, sy, 0, 8, true) : left;
    return static_cast<int>((left * (rh - m) + right * m + rh / 2) / rh);
}

void checkFull(SyntheticFrame &f, bool next, const char *routine) {
    for (uint32_t c = 0; c < f.p->numComponents; c++)
        for (uint32_t y = 0; y < 8 * f.p->vmax; y++)
            for (uint32_t x = 0; x < 8 * f.p->hmax; x++)
                ASSERT_EQ(f.upsampled(c, y, x), expectedFull(f, c, y, x, next))
                    << routine << " component " << c << " y " << y << " x " << x << " next " << next;
}

TEST(Upsampling, SelectorMapsIdentifiers) {
    const std::pair<uint32_t, JpgUpSamplingFunc> table[] = {
        {0x10100, jpgReadUpSamplingTo11},
        {0x10200, jpgReadUpSamplingTo12},
        {0x20100, jpgReadUpSamplingTo21},
        {0x20200, jpgReadUpSamplingTo22},
        {0x30400, jpgReadUpSamplingToNN},
        {0x10300, jpgReadUpSamplingToNN},
        {0x80010100, jpgReadUpSamplingTo11},
        {0x80010200, jpgReadScaleOutputUpSamplingTo12},
        {0x80020100, jpgReadScaleOutputUpSamplingTo21},
        {0x80020200, jpgReadScaleOutputUpSamplingTo22},
        {0x80030400, jpgReadScaleOutputUpSamplingToNN},
    };
    for (auto [id, routine] : table)
        EXPECT_EQ(jpgGetUpSamplingGenericFunc(id), routine) << std::hex << id;
}

TEST(Upsampling, MidpointsRoundHalvesUpAndTakeTheNextMcu) {
    SyntheticFrame f({0x21, 0x11, 0x11});
    int16_t *cb = f.block(1, 0);
    for (int r = 0; r < 8; r++)
        for (int i = 0; i < 8; i++)
            cb[8 * r + i] = static_cast<int16_t>(i + r);  // neighbours differ by 1: halves
    for (int r = 0; r < 8; r++)
        f.block(1, 0, true)[8 * r] = 100;
    f.setNext(true);
    jpgReadUpSamplingTo21(f.p);
    for (int r = 0; r < 8; r++) {
        for (int i = 0; i < 7; i++) {
            EXPECT_EQ(f.upsampled(1, r, 2 * i), i + r);
            EXPECT_EQ(f.upsampled(1, r, 2 * i + 1), i + r + 1) << "(a + b + 1) / 2 rounds up";
        }
        EXPECT_EQ(f.upsampled(1, r, 15), (7 + r + 100 + 1) / 2);
    }
    f.setNext(false);
    jpgReadUpSamplingTo21(f.p);
    for (int r = 0; r < 8; r++)
        EXPECT_EQ(f.upsampled(1, r, 15), 7 + r) << "no next MCU: the last sample repeats";
}

TEST(Upsampling, VerticalDoublingOnlyReplicatesRows) {
    SyntheticFrame f({0x12, 0x11, 0x11});
    for (int r = 0; r < 8; r++)
        for (int i = 0; i < 8; i++)
            f.block(2, 0)[8 * r + i] = static_cast<int16_t>(r % 2 ? 255 : 0);
    jpgReadUpSamplingTo12(f.p);
    for (int y = 0; y < 16; y++)
        for (int x = 0; x < 8; x++)
            ASSERT_EQ(f.upsampled(2, y, x), (y / 2) % 2 ? 255 : 0) << y << "," << x;
}

TEST(Upsampling, FullResolutionComponentsAreNotCopied) {
    SyntheticFrame f({0x22, 0x11, 0x11});
    fillRandom(f, 7);
    jpgReadUpSamplingTo22(f.p);
    for (uint32_t b = 0; b < 4; b++)
        EXPECT_EQ(f.p->blockPointers[b], f.block(0, b));
    for (uint32_t b = 0; b < 4; b++) {  // chroma lands in the upsampling buffer
        EXPECT_GE(f.p->blockPointers[4 + b], f.p->dec.upsampleBuffer);
        EXPECT_LT(f.p->blockPointers[4 + b], f.p->dec.upsampleBuffer + 64 * 4 * f.p->hv);
    }
}

// Every fixed layout, with and without a next MCU, against the rule; the
// general routine must give the same samples on the same layouts.
TEST(Upsampling, FixedAndGeneralRoutinesFollowTheRule) {
    const std::vector<std::vector<uint8_t>> frames = {
        {0x11, 0x11, 0x11}, {0x12, 0x11, 0x11}, {0x21, 0x11, 0x11}, {0x22, 0x11, 0x11},
        {0x22, 0x12, 0x21}, {0x22, 0x21, 0x12, 0x11}, {0x11}, {0x21, 0x21, 0x11},
    };
    uint32_t seed = 1;
    for (const auto &frame : frames) {
        for (bool next : {true, false}) {
            SyntheticFrame f(frame);
            fillRandom(f, seed++);
            f.setNext(next);
            uint32_t id = (f.p->hmax << 16) | (f.p->vmax << 8);
            jpgGetUpSamplingGenericFunc(id)(f.p);
            checkFull(f, next, ("fixed " + name(frame)).c_str());
            jpgReadUpSamplingToNN(f.p);
            checkFull(f, next, ("general " + name(frame)).c_str());
        }
    }
}

TEST(Upsampling, GeneralRoutineHandlesUnusualFactors) {
    // The sampling of the T.83 A1 stream and two other odd layouts.
    const std::vector<std::vector<uint8_t>> frames = {
        {0x11, 0x12, 0x31, 0x14}, {0x41, 0x11, 0x21}, {0x33, 0x11, 0x13}};
    uint32_t seed = 100;
    for (const auto &frame : frames) {
        for (bool next : {true, false}) {
            SyntheticFrame f(frame);
            fillRandom(f, seed++);
            f.setNext(next);
            jpgGetUpSamplingGenericFunc((f.p->hmax << 16) | (f.p->vmax << 8))(f.p);
            checkFull(f, next, name(frame).c_str());
        }
    }
}

TEST(Upsampling, FactorsThatDoNotDivideStayInsideTheComponent) {
    // 2 does not divide 3: the ratio truncates to 1 and reads are clamped.
    SyntheticFrame f({0x33, 0x22, 0x11});
    fillRandom(f, 5);
    f.setNext(false);
    jpgReadUpSamplingToNN(f.p);
    for (uint32_t y = 0; y < 24; y++)
        for (uint32_t x = 0; x < 24; x++) {
            int s = f.upsampled(1, y, x);
            ASSERT_TRUE(s >= 0 && s <= 255) << y << "," << x;
        }
}

TEST(Upsampling, ZeroSamplingFactorGivesGreyNotACrash) {
    SyntheticFrame f({0x22, 0x11, 0x11});
    f.p->components[2].sampling = 0x10;  // as if a header had slipped through
    jpgReadUpSamplingTo22(f.p);
    jpgReadUpSamplingToNN(f.p);
    for (uint32_t y = 0; y < 16; y++)
        EXPECT_EQ(f.upsampled(2, y, y), 128);
}

// Scaled upsampling replicates: output sample (y, x) is source sample
// (y / rv, x / rh) of blocks of n x n samples.
TEST(ScaledUpsampling, ReplicatesOnlyAtEveryLevel) {
    const std::vector<std::vector<uint8_t>> frames = {
        {0x22, 0x11, 0x11}, {0x22, 0x12, 0x21}, {0x21, 0x11, 0x11}, {0x12, 0x11, 0x11},
        {0x11, 0x11, 0x11}, {0x11, 0x12, 0x31, 0x14}, {0x41, 0x11, 0x21}};
    uint32_t seed = 200;
    for (const auto &frame : frames) {
        for (int level = 0; level <= 2; level++) {
            SyntheticFrame f(frame, level);
            fillRandom(f, seed++);
            uint32_t n = 1u << level;
            jpgGetUpSamplingGenericFunc(0x80000000u | (f.p->hmax << 16) | (f.p->vmax << 8))(f.p);
            for (uint32_t c = 0; c < f.p->numComponents; c++) {
                uint32_t h = f.p->components[c].sampling >> 4, v = f.p->components[c].sampling & 15;
                uint32_t rh = f.p->hmax / h, rv = f.p->vmax / v;
                for (uint32_t y = 0; y < n * f.p->vmax; y++)
                    for (uint32_t x = 0; x < n * f.p->hmax; x++)
                        ASSERT_EQ(f.upsampled(c, y, x, n), f.sample(c, y / rv, x / rh, n))
                            << name(frame) << " level " << level << " c " << c << " " << y << "," << x;
            }
        }
    }
}

TEST(ScaledUpsampling, LevelZeroRepeatsBlockPointersInsteadOfCopying) {
    SyntheticFrame f({0x22, 0x12, 0x11}, 0);
    jpgReadScaleOutputUpSamplingTo22(f.p);
    int16_t **cb = f.p->blockPointers + 4;
    EXPECT_EQ(cb[0], f.block(1, 0));
    EXPECT_EQ(cb[1], f.block(1, 0));
    EXPECT_EQ(cb[2], f.block(1, 1));
    EXPECT_EQ(cb[3], f.block(1, 1));

    SyntheticFrame g({0x21, 0x11, 0x11}, 0);
    jpgReadScaleOutputUpSamplingTo21(g.p);
    EXPECT_EQ(g.p->blockPointers[2], g.block(1, 0));
    EXPECT_EQ(g.p->blockPointers[3], g.block(1, 0));
}

}  // namespace
