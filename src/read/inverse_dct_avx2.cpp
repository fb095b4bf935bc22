// AVX2 inverse DCT: the transform of inverse_dct_simd.h at 256 bits, two
// blocks side by side, and a block left over alone in 128-bit registers.
// Compiled with -mavx2; only the function below leaves this file.
#include "read/inverse_dct_simd.h"
#include "read/inverse_dct_sse2.h"

namespace kiv {

void inverseDctBlocksAvx2(int16_t *blocks, uint32_t count) {
    uint32_t b = 0;
    for (; b + 2 <= count; b += 2) {
        int16_t *pair[2] = {blocks + 64 * b, blocks + 64 * (b + 1)};
        inverseBlocks<Avx2>(pair);
    }
    if (b < count) {
        int16_t *last = blocks + 64 * b;
        inverseBlocks<Sse2>(&last);
    }
}

}  // namespace kiv
