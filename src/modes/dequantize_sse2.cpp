// SSE2 dequantization (both x86 targets, compiled with -msse2): eight
// coefficients per multiply, low 16 bits of each product.
#include "modes/dequantize.h"

#if defined(__SSE2__)

#include <emmintrin.h>

namespace kiv {

void dequantizeSse2(const int16_t *coefficients, const int16_t *quant, int16_t *block) {
    for (int i = 0; i < 64; i += 8) {
        __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i *>(coefficients + i));
        __m128i q = _mm_loadu_si128(reinterpret_cast<const __m128i *>(quant + i));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(block + i), _mm_mullo_epi16(c, q));
    }
}

}  // namespace kiv

#endif  // __SSE2__
