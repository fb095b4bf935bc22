// The 4x4 reduced transform of scaled output (portable, and SSE2 on x86-64)
// against a plain reference of the same 32-bit wrapping arithmetic, bit for
// bit, on random, sparse, DC-only and extreme blocks; the other slots of the
// block must keep their values.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "kivjpeg.h"
#include "read/inverse_dct_sse2.h"
#include "read/scaled_transforms.h"

namespace {

// butterfly4 written out: outputs (e0 + o0), (e1 - o1), (e1 + o1), (e0 - o0).
void butterfly(const int64_t *x, int64_t *y) {
    auto w = [](int64_t v) { return int64_t(int32_t(uint32_t(v))); };
    int64_t e0 = w((x[0] + x[2]) * 4096), e1 = w((x[0] - x[2]) * 4096);
    int64_t o0 = w(5352 * x[1] + 2217 * x[3]), o1 = w(5352 * x[3] - 2217 * x[1]);
    y[0] = w(e0 + o0);
    y[1] = w(e1 - o1);
    y[2] = w(e1 + o1);
    y[3] = w(e0 - o0);
}

void reference4x4(int16_t *block) {
    auto sra = [](int64_t v, int s) { return int64_t(int32_t(uint32_t(v)) >> s); };
    int64_t work[16], in[4], out[4];
    for (int c = 0; c < 4; c++) {
        for (int i = 0; i < 4; i++) in[i] = block[8 * i + c];
        butterfly(in, out);
        for (int i = 0; i < 4; i++) work[4 * i + c] = sra(out[i] + 2048, 12);
    }
    for (int r = 0; r < 4; r++) {
        butterfly(work + 4 * r, out);
        for (int i = 0; i < 4; i++) block[8 * r + i] = int16_t(PixClipTable[sra(out[i] + 16384, 15) & 0x3FF]);
    }
}

struct Reduction {
    const char *name;
    void (*run)(int16_t *);
};

void expectSameAsPlain(const int16_t *input, const Reduction &reduction, int n) {
    int16_t block[64], expected[64];
    std::copy(input, input + 64, block);
    std::copy(input, input + 64, expected);
    reference4x4(expected);
    reduction.run(block);
    for (int i = 0; i < 64; i++) ASSERT_EQ(block[i], expected[i]) << reduction.name << " block " << n << " index " << i;
}

std::vector<Reduction> reductions() {
    std::vector<Reduction> all = {{"portable", kiv::reduceTo4x4Portable},
                                  {"for flag 0", kiv::reduceTo4x4For(0)}};
    if (jpgGetProcessorArchitecture() & JPG_PROCESSOR_SSE2)
        all.push_back({"for the processor", kiv::reduceTo4x4For(jpgGetProcessorArchitecture())});
    return all;
}

TEST(ReduceTo4x4, MatchesPlainReferenceOnRandomBlocks) {
    std::mt19937 random(99);
    std::uniform_int_distribution<int> size(0, 15), density(0, 100), chance(0, 99), any(-32768, 32767);
    for (int n = 0; n < 200000; n++) {
        int16_t block[64];
        int magnitude = 1 << size(random), percent = density(random);
        std::uniform_int_distribution<int> value(-magnitude, magnitude - 1);
        for (int i = 0; i < 64; i++) {
            bool inside = i < 32 && (i & 7) < 4;
            block[i] = int16_t(inside ? (chance(random) < percent ? value(random) : 0) : any(random));
        }
        if (n % 5 == 0) block[0] = int16_t(any(random));
        for (const Reduction &reduction : reductions()) expectSameAsPlain(block, reduction, n);
    }
}

TEST(ReduceTo4x4, DcOnlyAndExtremeBlocks) {
    int n = 0;
    for (int dc = -32768; dc <= 32767; dc += 7) {
        int16_t block[64] = {};
        block[0] = int16_t(dc);
        block[4] = 5;  // outside the 4x4 corner: neither read nor written
        block[40] = -3;
        for (const Reduction &reduction : reductions()) expectSameAsPlain(block, reduction, n);
        n++;
    }
    const int16_t extremes[] = {-32768, 32767, -32767, -1, 0};
    for (int16_t a : extremes)
        for (int16_t b : extremes)
            for (int pattern = 0; pattern < 64; pattern++) {
                int16_t block[64] = {};
                for (int r = 0; r < 4; r++)
                    for (int c = 0; c < 4; c++) block[8 * r + c] = (pattern >> ((r * 4 + c) % 6) & 1) ? a : b;
                for (const Reduction &reduction : reductions()) expectSameAsPlain(block, reduction, n);
                n++;
            }
}

}  // namespace
