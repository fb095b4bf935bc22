// libFuzzer target for the decoder: the first four input bytes choose the
// decode plan (prolog, output driver, batch size, seeks, partial input,
// segment walk), the rest is the JPEG stream. Every path must end with a
// status: no sanitizer finding, no leak, no hang.
#include <cstddef>
#include <cstdint>

#include "../tests/support/hostile_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kivtest::DecodePlan plan;
    size_t used = kivtest::ReadPlan(data, size, &plan);
    if (used == 0)
        return 0;
    // Frames above 2^18 samples (a 300 x 290 colour image) are opened
    // (header, allocations) but not decoded, so that each execution stays short.
    plan.pixelCap = uint64_t(1) << 18;
    plan.maxCalls = 2048;
    plan.hashPixels = false;  // nothing compares the pixels here
    kivtest::DecodeWithPlan(data + used, size - used, plan);
    return 0;
}
