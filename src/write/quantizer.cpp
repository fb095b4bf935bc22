// Quantizer of the baseline encoder: reciprocal division of the DCT outputs
// (natural order in and out) and the zig-zag mask of non-zero AC values that
// the entropy coder walks; with the forward DCT, the portable block kernel.
#include "write/quantizer.h"

#include <string.h>

#include "core/codec.h"
#include "core/tables.h"

namespace {

// Largest quantized AC magnitude that a baseline AC table codes (size 10).
constexpr int32_t kMaxAc = 1023;

int32_t clampAc(int32_t v) { return v < -kMaxAc ? -kMaxAc : v > kMaxAc ? kMaxAc : v; }

// Rounds c / d half away from zero by real division (any divisor >= 1).
int32_t divideRounded(int32_t c, uint32_t d) {
    int64_t m = (c < 0 ? -static_cast<int64_t>(c) : c) + (d >> 1);
    int32_t v = static_cast<int32_t>(m / d);
    return c < 0 ? -v : v;
}

int32_t quantizeByDivision(const int16_t *block, const kiv::QuantSteps &steps, int16_t *out) {
    for (int i = 1; i < 64; i++)
        out[i] = static_cast<int16_t>(clampAc(divideRounded(block[i], steps.divisor[i])));
    int32_t dc = divideRounded(block[0], steps.divisor[0]);
    out[0] = static_cast<int16_t>(clampAc(dc));
    return dc;
}

constexpr kiv::ZigzagRowBits makeZigzagRowBits() {
    kiv::ZigzagRowBits t{};
    for (int row = 0; row < 8; row++)
        for (int m = 0; m < 256; m++)
            for (int j = 0; j < 8; j++)
                if (m >> j & 1)
                    t.bits[row][m] |= uint64_t{1} << kiv::kNaturalToZigzag[8 * row + j];
    return t;
}

}  // namespace

namespace kiv {

constexpr ZigzagRowBits kZigzagRowBits = makeZigzagRowBits();
static_assert(kZigzagRowBits.bits[0][2] == 2 && kZigzagRowBits.bits[1][1] == 4 && kZigzagRowBits.bits[7][128] == uint64_t{1} << 63);

void makeQuantSteps(const uint32_t *zigzagDivisors, QuantSteps *steps) {
    steps->exact = true;
    for (int k = 0; k < 64; k++) {
        uint32_t d = zigzagDivisors[k];
        uint32_t n = kZigzag[k];
        steps->divisor[n] = d < 1 ? 1 : d;
        if (d < kMinReciprocalDivisor || d > kMaxReciprocalDivisor) {
            steps->exact = false;
            d = kMinReciprocalDivisor;  // keeps the unused reciprocal well defined
        }
        Reciprocal r = reciprocalOf(d);
        steps->natural.mult[n] = steps->zigzag.mult[k] = r.mult;
        steps->natural.post[n] = steps->zigzag.post[k] = r.post;
        steps->natural.half[n] = steps->zigzag.half[k] = static_cast<uint16_t>(d >> 1);
    }
}

void naturalToZigzag(int16_t *values) {
    int16_t natural[64];
    memcpy(natural, values, sizeof natural);
    for (int k = 0; k < 64; k++)
        values[k] = natural[kZigzag[k]];
}

int32_t quantizeBlock(const int16_t *block, const QuantSteps &steps, int16_t *out) {
    if (!steps.exact)
        return quantizeByDivision(block, steps, out);
    int32_t dc = 0;
    for (int i = 0; i < 64; i++) {
        int32_t c = block[i];
        uint32_t n = static_cast<uint32_t>(c < 0 ? -c : c) + steps.natural.half[i];
        int32_t v = static_cast<int32_t>(divideByReciprocal(n, {steps.natural.mult[i], steps.natural.post[i]}));
        v = c < 0 ? -v : v;
        if (i == 0)
            dc = v;
        out[i] = static_cast<int16_t>(clampAc(v));
    }
    return dc;
}

uint64_t acNonZeroMask(const int16_t *natural) {
    uint64_t mask = 0;
    for (int k = 1; k < 64; k++)
        mask |= static_cast<uint64_t>(natural[kZigzag[k]] != 0) << k;
    return mask;
}

void transformQuantizePortable(int16_t *blocks, const QuantSteps *const *steps, uint32_t count,
                               QuantizedBlock *out) {
    for (uint32_t b = 0; b < count; b++, blocks += 64) {
        complibIntFDCT8x8(blocks);
        out[b].dc = quantizeBlock(blocks, *steps[b], out[b].values);
        out[b].acMask = acNonZeroMask(out[b].values);
    }
}

}  // namespace kiv
