// The encoder's fast routines against their plain twins, bit for bit: the
// reciprocal division against real division over every dividend, the
// forward DCT and the transform-and-quantize kernels of every processor
// level this machine runs against the portable ones, the bit sink of this
// file's instruction set against jpgWritePutBits (bit_sink_sse2_test.cpp:
// the SSE2 one), and the direct block conversion of full MCUs
// against conversion into planes plus plain down-sampling. (Whole encodes at
// every level: the golden manifest.)
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "core/tables.h"
#include "bit_sink_check.h"
#include "test_support.h"
#include "write/encoder.h"
#include "write/forward_dct.h"
#include "write/quantizer.h"

namespace {

using kiv::divideByReciprocal;
using kiv::reciprocalOf;

void expectExactForAllDividends(uint32_t d) {
    kiv::Reciprocal r = reciprocalOf(d);
    for (uint32_t n = 0; n <= 0xFFFF; n++)
        if (divideByReciprocal(n, r) != n / d)
            FAIL() << n << " / " << d << " gave " << divideByReciprocal(n, r);
}

// Rounds c / d half away from zero, limited as the AC coder needs.
int16_t referenceQuantize(int32_t c, uint32_t d, bool isDc) {
    int64_t m = (c < 0 ? -int64_t{c} : c) + (d >> 1);
    int64_t v = m / d;
    v = c < 0 ? -v : v;
    if (!isDc)
        v = v < -1023 ? -1023 : v > 1023 ? 1023 : v;
    return static_cast<int16_t>(v);
}

std::vector<uint32_t> randomDivisors(std::mt19937 &rng, uint32_t lo, uint32_t hi) {
    std::uniform_int_distribution<uint32_t> dist(lo, hi);
    std::vector<uint32_t> table(64);
    for (uint32_t &d : table)
        d = dist(rng);
    return table;
}

// Coefficients that probe the rounding: exact multiples of d and d/2 either
// side, the int16 extremes, zero and random values.
void fillProbingBlock(std::mt19937 &rng, const std::vector<uint32_t> &zigzagDivisors, int16_t *block) {
    std::uniform_int_distribution<int32_t> any(-32768, 32767);
    std::uniform_int_distribution<int32_t> pick(0, 9);
    for (int k = 0; k < 64; k++) {
        int32_t d = static_cast<int32_t>(zigzagDivisors[k]);
        int32_t mult = std::uniform_int_distribution<int32_t>(0, 32768 / d)(rng);
        int32_t c = 0;
        switch (pick(rng)) {
        case 0: c = -32768; break;
        case 1: c = 32767; break;
        case 2: c = 0; break;
        case 3: c = mult * d + d / 2; break;
        case 4: c = mult * d + d / 2 - 1; break;
        case 5: c = -(mult * d + d / 2); break;
        case 6: c = -(mult * d + d / 2 - 1); break;
        default: c = any(rng); break;
        }
        block[kiv::kZigzag[k]] = static_cast<int16_t>(c < -32768 ? -32768 : c > 32767 ? 32767 : c);
    }
}

void expectQuantizersAgree(const std::vector<uint32_t> &divisors, const int16_t *block) {
    kiv::QuantSteps steps;
    kiv::makeQuantSteps(divisors.data(), &steps);
    int16_t portable[64];
    int32_t dcPortable = kiv::quantizeBlock(block, steps, portable);
    ASSERT_EQ(dcPortable, referenceQuantize(block[0], divisors[0], true));
    for (int k = 0; k < 64; k++) {
        uint32_t i = kiv::kZigzag[k];
        int16_t want = referenceQuantize(block[i], divisors[k], false);
        ASSERT_EQ(portable[i], want) << "position " << k << " divisor " << divisors[k];
    }
}

}  // namespace

// Every dividend for every small divisor and a spread of large ones.
TEST(EncoderSimd, ReciprocalIsExactForEveryDividend) {
    for (uint32_t d = kiv::kMinReciprocalDivisor; d <= 2048; d++)
        expectExactForAllDividends(d);
    for (uint32_t d = 2049; d <= 0xFFFF; d += 61)
        expectExactForAllDividends(d);
    for (uint32_t l = 12; l <= 16; l++)
        for (uint32_t d : {(1u << l) - 1, 1u << l, (1u << l) + 1})
            if (d <= 0xFFFF)
                expectExactForAllDividends(d);
}

// The divisors the encoder makes (8 x Q), and any divisors: 1 and 2 take
// the division fallback, the rest reciprocals.
TEST(EncoderSimd, QuantizerMatchesDivision) {
    std::mt19937 rng(1);
    alignas(16) int16_t block[64];
    for (int round = 0; round < 3000; round++) {
        std::vector<uint32_t> divisors =
            round % 2 ? randomDivisors(rng, 1, 255) : randomDivisors(rng, round % 3 == 0 ? 1 : 3, round % 4 ? 0xFFFF : 64);
        if (round % 2)
            for (uint32_t &d : divisors)
                d *= 8;
        fillProbingBlock(rng, divisors, block);
        expectQuantizersAgree(divisors, block);
    }
}

namespace {

using ForwardDct = void (*)(int16_t *, uint32_t);

// The vector transforms of the processor levels this machine runs.
std::vector<std::pair<uint32_t, ForwardDct>> vectorDcts() {
    std::vector<std::pair<uint32_t, ForwardDct>> list;
    for (uint32_t flag : kivtest::processorFlags()) {
        if (flag & JPG_PROCESSOR_AVX2)
            list.push_back({flag, kiv::forwardDctAvx2});
        else if (flag & JPG_PROCESSOR_SSE2)
            list.push_back({flag, kiv::forwardDctSse2});
    }
    return list;
}

// Three blocks at once: the two-block transform also meets a lone one.
void expectDctsAgree(const int16_t *input) {
    alignas(16) int16_t portable[3 * 64], fast[3 * 64];
    for (int b = 0; b < 3; b++)
        for (int i = 0; i < 64; i++)
            portable[64 * b + i] = input[(i + 17 * b) % 64];
    for (int b = 0; b < 3; b++)
        complibIntFDCT8x8(portable + 64 * b);
    for (auto [flag, dct] : vectorDcts()) {
        for (int b = 0; b < 3; b++)
            for (int i = 0; i < 64; i++)
                fast[64 * b + i] = input[(i + 17 * b) % 64];
        dct(fast, 3);
        for (int i = 0; i < 3 * 64; i++)
            ASSERT_EQ(fast[i], portable[i]) << kivtest::processorName(flag) << " block " << i / 64
                                            << " coefficient " << i % 64;
    }
}

}  // namespace

// Random blocks of small to full range, every sign pattern of rows and
// columns at full magnitude (each coefficient is largest for one of them),
// and random blocks of the extreme levels.
TEST(EncoderSimd, ForwardDctMatchesPortable) {
    if (vectorDcts().empty())
        GTEST_SKIP() << "no vector level on this processor";
    std::mt19937 rng(4);
    int16_t block[64];
    for (int32_t limit : {4, 128, kiv::kFdctSampleLimit}) {
        std::uniform_int_distribution<int32_t> dist(-limit, limit);
        for (int round = 0; round < 6000; round++) {
            for (int16_t &v : block)
                v = static_cast<int16_t>(dist(rng));
            expectDctsAgree(block);
        }
    }
    const int32_t limit = kiv::kFdctSampleLimit;
    for (uint32_t rows = 0; rows < 256; rows++)
        for (uint32_t cols = 0; cols < 256; cols += 7) {
            for (int i = 0; i < 64; i++)
                block[i] = static_cast<int16_t>((((rows >> (i / 8)) ^ (cols >> (i % 8))) & 1) ? -limit : limit);
            expectDctsAgree(block);
        }
    for (int round = 0; round < 6000; round++) {
        for (int16_t &v : block)
            v = static_cast<int16_t>(rng() & 1 ? -128 : (rng() & 1 ? 128 : 127));
        expectDctsAgree(block);
    }
}

// The MCU encoders' kernels: batches of one to eight blocks, each with one of
// three tables (encoder-like 8 x Q, any reciprocal divisor, or divisors 1
// and 2 that take the division fallback), at sparse and dense contents.
TEST(EncoderSimd, TransformQuantizeKernelsMatchPortable) {
    std::mt19937 rng(8);
    struct Kernel {
        uint32_t flag;
        kiv::BlockKernel run;
        kiv::ValueOrder order;
    };
    std::vector<Kernel> kernels;
    for (uint32_t flag : kivtest::processorFlags())
        if (flag & JPG_PROCESSOR_AVX2)
            kernels.push_back({flag, kiv::transformQuantizeAvx2, kiv::kAvx2Order});
        else if (flag != 0)
            kernels.push_back({flag, kiv::transformQuantizeSse2, kiv::kSse2Order});
    if (kernels.empty())
        GTEST_SKIP() << "no vector level on this processor";
    alignas(16) int16_t input[8 * 64], portableIn[8 * 64], fastIn[8 * 64];
    kiv::QuantizedBlock portable[8], fast[8];
    kiv::QuantSteps tables[3];
    for (int round = 0; round < 2000; round++) {
        for (int t = 0; t < 3; t++) {
            int kind = (round + t) % 4;
            std::vector<uint32_t> divisors = kind == 0   ? randomDivisors(rng, 1, 255)
                                             : kind == 1 ? randomDivisors(rng, 1, 12)
                                             : kind == 2 ? randomDivisors(rng, 3, 0xFFFF)
                                                         : randomDivisors(rng, 1, 64);
            if (kind <= 1)
                for (uint32_t &d : divisors)
                    d *= 8;
            kiv::makeQuantSteps(divisors.data(), &tables[t]);
        }
        uint32_t count = 1 + round % 8;
        const kiv::QuantSteps *steps[8];
        int32_t limit = round % 3 == 0 ? kiv::kFdctSampleLimit : round % 3 == 1 ? 128 : 6;
        std::uniform_int_distribution<int32_t> sample(-limit, limit);
        for (uint32_t b = 0; b < count; b++) {
            steps[b] = &tables[rng() % 3];
            for (int i = 0; i < 64; i++)
                input[64 * b + i] = static_cast<int16_t>(sample(rng));
        }
        std::copy(input, input + 64 * count, portableIn);
        kiv::transformQuantizePortable(portableIn, steps, count, portable);
        for (const Kernel &kernel : kernels) {
            std::copy(input, input + 64 * count, fastIn);
            kernel.run(fastIn, steps, count, fast);
            for (uint32_t b = 0; b < count; b++) {
                SCOPED_TRACE(kivtest::processorName(kernel.flag) + " block " + std::to_string(b));
                ASSERT_EQ(fast[b].dc, portable[b].dc);
                ASSERT_EQ(fast[b].acMask, portable[b].acMask);
                for (int k = 0; k < 64; k++)  // the portable kernel writes natural order
                    ASSERT_EQ(fast[b].values[kernel.order == kiv::ValueOrder::Zigzag ? k : kiv::kZigzag[k]],
                              portable[b].values[kiv::kZigzag[k]]) << "zig-zag position " << k;
            }
        }
    }
}

TEST(EncoderSimd, BitSinkWritesWhatPutBitsWrites) { expectSinkWritesWhatPutBitsWrites(); }

namespace {

// A context over random pixels covering `mcus` MCUs side by side.
struct FullMcus {
    std::vector<uint8_t> pixels;
    std::vector<int16_t> planes, blocksDirect, blocksPlanes;
    JpgWriteConvertContext ctx{};
    FullMcus(std::mt19937 &rng, uint32_t channels, uint32_t hmax, uint32_t vmax,
             const std::vector<std::pair<int, int>> &factors) {
        ctx.mcuWidth = 8 * hmax;
        ctx.mcuHeight = 8 * vmax;
        ctx.width = 3 * ctx.mcuWidth;
        ctx.rows = ctx.mcuHeight;
        ctx.bytesPerPixel = channels;
        ctx.stride = static_cast<int32_t>(ctx.width * channels + 5);
        pixels.resize(static_cast<size_t>(ctx.stride) * ctx.rows);
        for (uint8_t &p : pixels)
            p = static_cast<uint8_t>(rng() % 5 == 0 ? (rng() & 1) * 255 : rng());
        size_t blocks = 0;
        for (size_t c = 0; c < factors.size(); c++) {
            ctx.factors[c][0] = factors[c].first;
            ctx.factors[c][1] = factors[c].second;
            blocks += static_cast<size_t>(factors[c].first * factors[c].second);
        }
        planes.assign(ctx.mcuWidth * ctx.mcuHeight * channels, 0);
        blocksDirect.assign(blocks * 64, 0);
        blocksPlanes.assign(blocks * 64, 0);
        ctx.pixels = pixels.data();
        ctx.planes = planes.data();
    }
};

}  // namespace

// Full MCUs straight into blocks, at every processor level (the write
// ColorConvertID of a three-channel YCbCr frame with the plain down-sampler).
TEST(EncoderSimd, DirectYCbCrBlocksMatchPlanesAndDownSampling) {
    std::mt19937 rng(7);
    struct Sampling {
        uint32_t hmax, vmax;
        std::vector<std::pair<int, int>> factors;
    };
    for (const Sampling &s : {Sampling{1, 1, {{1, 1}, {1, 1}, {1, 1}}}, Sampling{2, 2, {{2, 2}, {1, 1}, {1, 1}}},
                              Sampling{2, 1, {{2, 1}, {1, 1}, {1, 1}}}, Sampling{4, 1, {{4, 1}, {1, 1}, {1, 1}}},
                              Sampling{2, 2, {{1, 2}, {2, 1}, {1, 1}}}, Sampling{4, 2, {{4, 2}, {2, 1}, {1, 2}}},
                              Sampling{4, 2, {{1, 2}, {4, 1}, {2, 2}}}}) {
        FullMcus m(rng, 3, s.hmax, s.vmax, s.factors);
        uint32_t id = 0x02000003u | s.hmax << 16 | s.vmax << 8;
        for (uint32_t flag : kivtest::processorFlags()) {
            JpgWriteColorConvertFunc convert = jpgGetWriteColorConvertFunc(id, flag);
            ASSERT_NE(convert, nullptr);
            for (int32_t x = 0; x < static_cast<int32_t>(m.ctx.width); x += static_cast<int32_t>(m.ctx.mcuWidth)) {
                m.ctx.blocks = m.blocksDirect.data();
                ASSERT_EQ(convert(&m.ctx, x, 0), JPG_STATUS_OK);
                m.ctx.blocks = m.blocksPlanes.data();
                ASSERT_EQ(GenericYUVConvert8bit(&m.ctx, x, 0, static_cast<int32_t>(m.ctx.mcuWidth),
                                                static_cast<int32_t>(m.ctx.mcuHeight)),
                          JPG_STATUS_OK);
                ASSERT_EQ(GenericSubSamplingAndBlockDivision(&m.ctx), JPG_STATUS_OK);
                ASSERT_EQ(m.blocksDirect, m.blocksPlanes) << kivtest::processorName(flag) << " MCU at " << x;
            }
        }
    }
    // The geometry a conversion remembers follows the context: a factor
    // changed to one that does not divide the MCU's is refused.
    FullMcus m(rng, 3, 2, 2, {{2, 2}, {1, 1}, {1, 1}});
    m.ctx.blocks = m.blocksDirect.data();
    for (uint32_t flag : kivtest::processorFlags()) {
        JpgWriteColorConvertFunc convert = jpgGetWriteColorConvertFunc(0x02020203u, flag);
        EXPECT_EQ(convert(&m.ctx, 0, 0), JPG_STATUS_OK);
        m.ctx.factors[1][0] = 3;
        EXPECT_EQ(convert(&m.ctx, 16, 0), JPG_STATUS_INVALID_PARAMETER) << kivtest::processorName(flag);
        m.ctx.factors[1][0] = 1;
        EXPECT_EQ(convert(&m.ctx, 16, 0), JPG_STATUS_OK);
    }
}
