// libFuzzer target for the decoder: the first four input bytes choose the
// decode plan (prolog, output driver, batch size, seeks, partial input,
// segment walk), the rest is the JPEG stream. Every path must end with a
// status: no sanitizer finding, no leak, no hang.
#include <cstddef>
#include <cstdint>

#include "hostile_decode.h"

namespace {

// Samples (width x height x components) of the largest frame header in the
// stream. Progressive frames get their whole coefficient memory at the
// prolog; beyond a few tens of megabytes that is a legitimate allocation the
// fuzzer would report as out-of-memory (AddressSanitizer keeps shadow memory
// for it), so such inputs are skipped here. The bomb tests cover them.
uint64_t largestFrame(const uint8_t *data, size_t size) {
    uint64_t largest = 0;
    for (size_t i = 0; i + 10 <= size; i++) {
        uint8_t m = data[i + 1];
        if (data[i] != 0xFF || m < 0xC0 || m > 0xCF || m == 0xC4 || m == 0xC8 || m == 0xCC)
            continue;
        uint64_t height = uint64_t(data[i + 5]) << 8 | data[i + 6];
        uint64_t width = uint64_t(data[i + 7]) << 8 | data[i + 8];
        uint64_t samples = height * width * (data[i + 9] == 0 ? 1 : data[i + 9]);
        largest = samples > largest ? samples : largest;
    }
    return largest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kivtest::DecodePlan plan;
    size_t used = kivtest::ReadPlan(data, size, &plan);
    if (used == 0 || largestFrame(data + used, size - used) > (uint64_t(1) << 26))
        return 0;
    // Frames above 2^18 samples (a 300 x 290 colour image) are opened
    // (header, allocations) but not decoded, so that each execution stays short.
    plan.pixelCap = uint64_t(1) << 18;
    plan.maxCalls = 2048;
    plan.hashPixels = false;  // nothing compares the pixels here
    kivtest::DecodeWithPlan(data + used, size - used, plan);
    return 0;
}
