// Dequantization of stored blocks for output: each coefficient times its
// quantization value, both in natural order, kept modulo 2^16 as the
// sequential decoder keeps it (ISO/IEC 10918-1 A.3.4).
#pragma once

#include <stdint.h>

namespace kiv {

using Dequantize = void (*)(const int16_t *coefficients, const int16_t *quant, int16_t *block);

// The routine a processor flag allows; all give the same results.
Dequantize dequantizeFor(uint32_t flag);

void dequantizePortable(const int16_t *coefficients, const int16_t *quant, int16_t *block);
void dequantizeSse2(const int16_t *coefficients, const int16_t *quant, int16_t *block);

}  // namespace kiv
