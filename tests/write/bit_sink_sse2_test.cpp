// The bit sink of the block coder's SSE2 and AVX2 levels: this file is
// compiled for SSE2, as the coder's is, which on 32-bit x86 puts the sink's
// accumulator in an SSE2 register. (64-bit targets have one sink.)
#include "bit_sink_check.h"

TEST(EncoderSimd, Sse2BitSinkWritesWhatPutBitsWrites) {
    if (sizeof(void *) == 8)
        GTEST_SKIP() << "the 64-bit sink is the one of every level";
    if ((jpgGetProcessorArchitecture() & JPG_PROCESSOR_SSE2) == 0)
        GTEST_SKIP() << "no SSE2 on this processor";
    expectSinkWritesWhatPutBitsWrites();
}
