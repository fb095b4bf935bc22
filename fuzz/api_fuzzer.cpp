// libFuzzer target for the API as a whole: the input is a program of calls
// on one or two handles (see fuzz/api_program.h) followed by a JPEG
// stream for the decoders. Wrong-family calls must get JPG_STATUS_WRONG_MODE,
// no output call may write outside the caller's rectangle, and AddressSanitizer,
// UBSan and the leak checker watch everything else.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "api_program.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    kivtest::ApiOutcome out = kivtest::RunApiProgram(data, size);
    if (!out.violation.empty()) {
        std::fprintf(stderr, "contract violated: %s\n", out.violation.c_str());
        std::abort();
    }
    return 0;
}
