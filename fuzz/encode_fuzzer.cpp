// libFuzzer target for the encoder: the first bytes choose mode (baseline
// or lossless), output (memory or file), size, channels, quality, sampling,
// restart interval, predictor, precision, table selectors, strip height and
// an application segment; the rest are the pixels. The stream written is
// decoded again: it must decode, and a lossless one to the same samples.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "hostile_encode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kivtest::EncodePlan plan;
    size_t used = kivtest::ReadEncodePlan(data, size, &plan);
    if (used == 0)
        return 0;
    kivtest::EncodeOutcome out = kivtest::EncodeWithPlan(plan, data + used, size - used);
    if (out.status != JPG_STATUS_OK || out.stream.empty())
        return 0;
    // A stream the encoder accepted must be readable by the decoder; only a
    // decoder that does not handle the frame yet may refuse it.
    if (out.decode != JPG_STATUS_OK && out.decode != JPG_STATUS_NOT_SUPPORTED) {
        std::fprintf(stderr, "encoded stream does not decode: status 0x%08X\n", out.decode);
        std::abort();
    }
    if (out.roundTripChecked && !out.roundTripExact) {
        std::fprintf(stderr, "round trip differs (%s)\n", (plan.mode & 1) ? "lossless" : "size");
        std::abort();
    }
    return 0;
}
