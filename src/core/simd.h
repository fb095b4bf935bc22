// Processor-specific routines: the levels a handle's processor flag selects
// and the rules that keep code built for a wider instruction set from
// reaching a processor without it.
//
// A file named *_sse2.cpp is compiled with -msse2 and a file named
// *_avx2.cpp with -mavx2 (on 32-bit x86 the rest of the library assumes no
// SSE at all). Such a file must keep everything it defines file-local: its
// code lives in an anonymous namespace, and only plain functions with
// external linkage (no inline functions, no templates) leave it. Otherwise
// an inline function or template instantiated there could be the one copy
// the linker keeps for the whole library, and portable code would run AVX2
// instructions. Headers meant for such files (simd_vectors.h) put their
// helpers in an anonymous namespace for the same reason. The build checks
// the rule: an object of a *_sse2.cpp or *_avx2.cpp file that defines a weak
// (inline or template) function fails the build (cmake/SimdObjectCheck.cmake).
#pragma once

#include <stdint.h>

#include "kivjpeg.h"

// Processor-specific routines exist only for x86 (both targets).
#if defined(__i386__) || defined(__x86_64__)
#define KIV_SIMD_X86 1
#else
#define KIV_SIMD_X86 0
#endif

// For the helpers of the vector routines, which must be inlined into their
// callers for the rows of a block to stay in registers.
#define KIV_SIMD_INLINE __attribute__((always_inline)) inline

namespace kiv {

enum class SimdLevel { Portable, Sse2, Avx2 };

// The widest level a processor flag allows (AVX2 implies SSE2).
constexpr SimdLevel simdLevelOf(uint32_t flag) {
    if (!KIV_SIMD_X86)
        return SimdLevel::Portable;
    if (flag & JPG_PROCESSOR_AVX2)
        return SimdLevel::Avx2;
    if (flag & JPG_PROCESSOR_SSE2)
        return SimdLevel::Sse2;
    return SimdLevel::Portable;
}

}  // namespace kiv
