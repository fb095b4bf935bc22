// Quantizer of the baseline encoder (ISO/IEC 10918-1 A.3.4): divides the 64
// DCT outputs of a block by their divisors, rounding half away from zero,
// and finds the non-zero AC values in zig-zag order. The division is a multiply by a
// precomputed reciprocal (Granlund and Montgomery, "Division by invariant
// integers using multiplication", 1994, Figure 4.1), exact for every
// dividend 0..65535 and divisor 3..65535; the vector routines of
// forward_dct_sse2.cpp and forward_dct_avx2.cpp give the same bits.
// Divisors outside that range fall back to division. The entropy coder then
// walks the non-zero values in zig-zag order.
#pragma once

#include <stdint.h>

namespace kiv {

constexpr uint32_t kMinReciprocalDivisor = 3;
constexpr uint32_t kMaxReciprocalDivisor = 0xFFFF;

// One divisor d as the pair of 16-bit multipliers of the reciprocal method:
// with l = ceil(log2 d), mult = floor(2^16 (2^l - d) / d) + 1 and
// post = 2^(17 - l) (the final shift right by l - 1 done as a high product).
struct Reciprocal {
    uint16_t mult;
    uint16_t post;
};

constexpr Reciprocal reciprocalOf(uint32_t d) {
    uint32_t l = 0;
    while ((1u << l) < d)
        l++;
    uint64_t mult = ((uint64_t{1} << 16) * ((uint64_t{1} << l) - d)) / d + 1;
    return {static_cast<uint16_t>(mult), static_cast<uint16_t>(1u << (17 - l))};
}

// floor(n / d) for n in 0..65535, with r = reciprocalOf(d), d in 3..65535.
constexpr uint32_t divideByReciprocal(uint32_t n, Reciprocal r) {
    uint32_t t = (n * r.mult) >> 16;
    uint32_t x = t + ((n - t) >> 1);
    return (x * r.post) >> 16;
}

static_assert(divideByReciprocal(65535, reciprocalOf(3)) == 21845);
static_assert(divideByReciprocal(65535, reciprocalOf(65535)) == 1);
static_assert(divideByReciprocal(65534, reciprocalOf(65535)) == 0);
static_assert(divideByReciprocal(1023, reciprocalOf(8)) == 127);

// The reciprocals of a table's 64 divisors and half of each divisor (the
// rounding bias), in one order.
struct StepTable {
    uint16_t mult[64];
    uint16_t post[64];
    uint16_t half[64];
};

// The divisors of one quantization table: the steps in natural and in
// zig-zag order, and the divisors themselves in natural order. When `exact`
// is false some divisor is outside 3..65535 and `divisor` is used with real
// division.
struct QuantSteps {
    StepTable natural;
    StepTable zigzag;
    uint32_t divisor[64];
    bool exact;
};

// Prepares the steps of a table of 64 divisors held in zig-zag order.
void makeQuantSteps(const uint32_t *zigzagDivisors, QuantSteps *steps);

// Quantizes a block into out[0..63], both in natural order:
// out[i] = sign(c) * ((|c| + d/2) / d) for the coefficient c and divisor d
// at i; AC values are limited to +-1023 (the largest a baseline AC table
// codes). Returns the DC value, not limited.
int32_t quantizeBlock(const int16_t *block, const QuantSteps &steps, int16_t *out);

// Of a quantized block in natural order: bit k set for every zig-zag
// position k in 1..63 whose value is non-zero.
uint64_t acNonZeroMask(const int16_t *natural);

// The natural-to-zig-zag permutation of a 64-bit mask, one row (byte) at a
// time: bits[r][m] has bit kNaturalToZigzag[8 r + j] set for every bit j of m.
struct ZigzagRowBits {
    uint64_t bits[8][256];
};
extern const ZigzagRowBits kZigzagRowBits;

// The order in which a block kernel writes a block's values.
enum class ValueOrder { Natural, Zigzag };

// One block after the forward DCT and quantization, as the entropy coder
// takes it: the values of quantizeBlock in the kernel's order, its DC value
// and the mask of acNonZeroMask.
struct QuantizedBlock {
    alignas(16) int16_t values[64];
    uint64_t acMask;
    int32_t dc;
};

// Reorders a block's 64 values from natural to zig-zag order, in place.
void naturalToZigzag(int16_t *values);

// Transforms `count` consecutive blocks of level-shifted samples (within
// +-kFdctSampleLimit; the blocks hold unspecified values afterwards) and
// quantizes block b with *steps[b] into out[b]. The portable kernel is the
// reference; the others give the same bits.
using BlockKernel = void (*)(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                             QuantizedBlock *out);
void transformQuantizePortable(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                               QuantizedBlock *out);
void transformQuantizeSse2(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                           QuantizedBlock *out);
void transformQuantizeAvx2(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                           QuantizedBlock *out);

// The value order of each kernel: the AVX2 kernel's byte shuffles write
// zig-zag order, so that the entropy coder reads its values in sequence.
constexpr ValueOrder kPortableOrder = ValueOrder::Natural;
constexpr ValueOrder kSse2Order = ValueOrder::Natural;
constexpr ValueOrder kAvx2Order = ValueOrder::Zigzag;

}  // namespace kiv
