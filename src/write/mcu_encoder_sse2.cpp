// The MCU encoders of the SSE2 and AVX2 levels: the coder of mcu_encoder.h
// over the vector block kernels. Compiled with -msse2, which on 32-bit x86
// gives the bit sink its 64-bit accumulator in an SSE2 register (the AVX2
// kernel is only called from here); only the two functions below leave
// this file.
#include "write/mcu_encoder.h"

namespace kiv {

JpgStatus encodeMcuSse2(JpgParam *param) { return encodeMcu<transformQuantizeSse2, kSse2Order>(param); }

JpgStatus encodeMcuAvx2(JpgParam *param) { return encodeMcu<transformQuantizeAvx2, kAvx2Order>(param); }

}  // namespace kiv
