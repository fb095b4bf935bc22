// Inverse DCT: turns one 8x8 block of dequantized coefficients (natural order)
// into 64 samples in place (ISO/IEC 10918-1 A.3.3), as a separable integer
// transform with 12-bit constants: columns first (4 extra fraction bits kept),
// then rows, with the +128 level shift and clamp done by one PixClipTable
// lookup of the low ten bits. All arithmetic wraps like 32-bit registers;
// zero coefficients (a DC-only block, empty bottom rows or right columns) are
// skipped without changing a bit of the result.
#include "read/inverse_dct.h"

#include <string.h>

#include "core/codec.h"
#include "core/simd.h"
#include "read/inverse_dct_sse2.h"

namespace kiv {
namespace {

// cos(k pi / 16) scaled by 4096.
constexpr uint32_t kC1 = 4017, kC2 = 3784, kC3 = 3406, kC4 = 2896;
constexpr uint32_t kC5 = 2276, kC6 = 1567, kC7 = 799;

// Arithmetic right shift of a 32-bit register value.
constexpr int32_t sra(uint32_t v, int s) { return static_cast<int32_t>(v) >> s; }

// One 8-point transform of x[0..7]; y receives 4096 times the sums of A.3.3
// (without the factor 1/2) plus the rounding bias, modulo 2^32. With
// kInputs == 4, x[4..7] are zero and not read, and their products drop out.
template <int kInputs>
inline void transform8(const uint32_t *x, uint32_t bias, uint32_t *y) {
    auto in = [x](int i) { return i < kInputs ? x[i] : 0u; };
    uint32_t a = kC1 * in(1) + kC7 * in(7), b = kC7 * in(1) - kC1 * in(7);
    uint32_t c = kC5 * in(5) + kC3 * in(3), d = kC3 * in(5) - kC5 * in(3);
    uint32_t o0 = a + c, o3 = b + d, p = a - c, q = b - d;
    // The rotation by 1/sqrt(2) follows a rounding back to the input scale.
    uint32_t o1 = kC4 * static_cast<uint32_t>(sra(p + q + 2048, 12));
    uint32_t o2 = kC4 * static_cast<uint32_t>(sra(p - q + 2048, 12));

    uint32_t e0 = kC4 * (in(0) + in(4)) + bias, e1 = kC4 * (in(0) - in(4)) + bias;
    uint32_t f = kC2 * in(2) + kC6 * in(6), g = kC6 * in(2) - kC2 * in(6);
    uint32_t E0 = e0 + f, E3 = e0 - f, E1 = e1 + g, E2 = e1 - g;
    y[0] = E0 + o0;
    y[7] = E0 - o0;
    y[1] = E1 + o1;
    y[6] = E1 - o1;
    y[2] = E2 + o2;
    y[5] = E2 - o2;
    y[3] = E3 + o3;
    y[4] = E3 - o3;
}

// Column pass over the first kCols columns (the others are zero and their
// work values are never read): work = (y + 256) >> 9. Only the first kRows
// rows can be non-zero; a column with only its DC costs one multiply.
template <int kRows, int kCols>
inline void columnPass(const int16_t *block, uint32_t *work) {
    for (int c = 0; c < kCols; c++) {
        uint32_t x[8];
        uint32_t ac = 0;
        for (int i = 0; i < kRows; i++) {
            x[i] = static_cast<uint32_t>(static_cast<int32_t>(block[8 * i + c]));
            ac |= i == 0 ? 0 : x[i];
        }
        if (ac == 0) {
            uint32_t dc = static_cast<uint32_t>(sra(kC4 * x[0] + 256, 9));
            for (int i = 0; i < 8; i++)
                work[8 * i + c] = dc;
            continue;
        }
        uint32_t y[8];
        transform8<kRows>(x, 256, y);
        for (int i = 0; i < 8; i++)
            work[8 * i + c] = static_cast<uint32_t>(sra(y[i], 9));
    }
}

// Row pass: total scale 2^17, rounded halves up, then level shift and clamp.
template <int kCols>
inline void rowPass(const uint32_t *work, int16_t *block) {
    for (int r = 0; r < 8; r++) {
        uint32_t y[8];
        transform8<kCols>(work + 8 * r, 0x10000, y);
        for (int i = 0; i < 8; i++)
            block[8 * r + i] = static_cast<int16_t>(PixClipTable[sra(y[i], 17) & 0x3FF]);
    }
}

template <int kRows, int kCols>
void inverseShape(int16_t *block) {
    uint32_t work[64];
    columnPass<kRows, kCols>(block, work);
    rowPass<kCols>(work, block);
}

// Two coefficients at once (any byte order: only zero tests follow).
inline uint32_t pairAt(const int16_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

void inverseDctPortable(int16_t *block) {
    // OR of the coefficients of each quarter; the DC and its neighbour are apart.
    uint32_t topLeft = static_cast<uint16_t>(block[1]) | pairAt(block + 2), topRight = 0;
    uint32_t bottomLeft = 0, bottomRight = 0;
    for (int r = 0; r < 4; r++) {
        if (r > 0)
            topLeft |= pairAt(block + 8 * r) | pairAt(block + 8 * r + 2);
        topRight |= pairAt(block + 8 * r + 4) | pairAt(block + 8 * r + 6);
        bottomLeft |= pairAt(block + 8 * r + 32) | pairAt(block + 8 * r + 34);
        bottomRight |= pairAt(block + 8 * r + 36) | pairAt(block + 8 * r + 38);
    }
    if ((topLeft | topRight | bottomLeft | bottomRight) == 0) {
        uint32_t pair = static_cast<uint32_t>(dcOnlySample(block[0])) * 0x10001u;
        for (int r = 0; r < 64; r += 8)
            for (int i = 0; i < 8; i += 2)
                memcpy(block + r + i, &pair, sizeof pair);
        return;
    }
    bool bottomZero = (bottomLeft | bottomRight) == 0, rightZero = (topRight | bottomRight) == 0;
    if (rightZero)
        bottomZero ? inverseShape<4, 4>(block) : inverseShape<8, 4>(block);
    else
        bottomZero ? inverseShape<4, 8>(block) : inverseShape<8, 8>(block);
}

template <void (*kTransform)(int16_t *)>
void eachBlock(int16_t *blocks, uint32_t count) {
    for (uint32_t b = 0; b < count; b++)
        kTransform(blocks + 64 * b);
}

InverseDctBlocks inverseDctBlocksFor(uint32_t flag) {
#if KIV_SIMD_X86
    if (simdLevelOf(flag) == SimdLevel::Avx2)
        return inverseDctBlocksAvx2;
    if (simdLevelOf(flag) == SimdLevel::Sse2)
        return eachBlock<inverseDctSse2>;
#endif
    return eachBlock<inverseDctPortable>;
}

}  // namespace kiv

extern "C" {

JpgStatus jpgReadInverseDCT(int16_t *block) {
#if KIV_HAVE_SSE2_IDCT
    kiv::inverseDctSse2(block);
#else
    kiv::inverseDctPortable(block);
#endif
    return JPG_STATUS_OK;
}

}  // extern "C"
