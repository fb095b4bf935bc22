// Processor flags, the DCT-method flag and routine dispatch: the routines of
// the inner loops are chosen once per handle from numeric identifiers and
// stored in the handle's slots, so per-MCU loops make no format decisions.
// The capabilities are those the C library's dynamic loader found when the
// program started (glibc's feature table: no CPUID instruction, which traps
// under a hypervisor, per handle), or from CPUID where the C library offers
// no such table; the library itself caches nothing. The routine getters
// hand out the widest variant the flag allows, the portable one for flag 0.
#if defined(__i386__) || defined(__x86_64__)
#if __has_include(<sys/platform/x86.h>)
#include <sys/platform/x86.h>
#define KIV_LOADER_CPU_FEATURES 1
#else
#include <cpuid.h>
#endif
#endif

#include "core/api_checks.h"
#include "core/codec.h"
#include "core/simd.h"
#include "read/output_color.h"
#include "read/upsampling_sse2.h"
#include "write/encoder.h"

namespace kiv {

void selectReadRoutines(JpgParam *param) {
    JpgRoutines &r = param->routines;
    uint32_t flag = param->processorFlag;
    int32_t level = param->scaleLevel < 0 ? 0 : param->scaleLevel > 2 ? 2 : param->scaleLevel;

    uint32_t upsampling = (param->hmax << 16) | (param->vmax << 8);
    r.upsample = slotUpsampler(jpgGetUpSamplingFunc(upsampling, flag));
    r.upsampleScaled = slotUpsampler(jpgGetUpSamplingFunc(upsampling | 0x80000000u, flag));

    uint32_t channels = param->numComponents < 1 ? 1 : param->numComponents > 255 ? 255
                                                                                : param->numComponents;
    // Conversion kind: 1 reversed copy (RGB), 2 YCbCr to B, G, R, 3 YCCK to
    // C, M, Y, K (four components with Adobe transform 2); 0 plain copy, also
    // for CMYK (transform 0 or no Adobe segment) and whenever conversion is off.
    uint32_t kind = 0;
    if (!(param->mode & kModeNoColorConversion)) {
        if (channels == 3)
            kind = (param->mode & kModeYCbCr) ? 2 : 1;
        else if (channels == 4 && (param->mode & kModeAdobe) && param->adobeTransform == 2)
            kind = 3;
    }
    uint32_t id = (static_cast<uint32_t>(param->precision != 8) << 29) | (kind << 24) | channels;
    r.convert = slotConverter(jpgGetReadColorConvertFunc(id | 0x20200, flag));
    r.convertScaled = slotConverter(jpgGetReadColorConvertFunc(id | 0x40020200, flag));

    uint32_t scaled = static_cast<uint32_t>(level) << 8;
    if (param->precision == 8) {
        r.mcu = jpgGetReadMCUFunc(0x301, flag);
        r.mcuProgressive = jpgGetReadMCUFunc(0x302, flag);
        r.mcu303 = jpgGetReadMCUFunc(0x303, flag);
        r.mcuScaled = jpgGetReadMCUFunc(scaled | (usesCoefficientStore(param) ? 2 : 1), flag);
    } else {
        r.mcu = jpgGetReadMCUFunc(0x10301, flag);
        r.mcuProgressive = nullptr;
        r.mcu303 = nullptr;
        r.mcuScaled = jpgGetReadMCUFunc(scaled | 0x10001, flag);
    }
}

}  // namespace kiv

namespace {

#if KIV_SIMD_X86 && defined(KIV_LOADER_CPU_FEATURES)
// "Active" features are those the processor has and the operating system
// supports (for AVX2, one that saves the 256-bit registers).
uint32_t processorCapabilities() {
    if (!CPU_FEATURE_ACTIVE(SSE2))
        return 0;
    return JPG_PROCESSOR_SSE2 | (CPU_FEATURE_ACTIVE(AVX2) ? JPG_PROCESSOR_AVX2 : 0);
}
#elif KIV_SIMD_X86
// XCR0 (XGETBV with ECX = 0): which register states the operating system
// saves on a context switch; bits 1 and 2 are the SSE and AVX halves.
uint64_t enabledRegisterStates() {
    uint32_t lo, hi;
    __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
    return (static_cast<uint64_t>(hi) << 32) | lo;
}

// Three CPUID instructions (leaves 0, 1 and 7), no more than needed.
uint32_t processorCapabilities() {
    unsigned maxLeaf = __get_cpuid_max(0, nullptr);
    if (maxLeaf < 1)
        return 0;  // no CPUID (before the late 486): portable routines only
    unsigned a, b, c, d;
    __cpuid(1, a, b, c, d);
    uint32_t caps = (d & bit_SSE2) ? JPG_PROCESSOR_SSE2 : 0;
    // AVX2 needs the instructions (leaf 7), AVX, and an operating system
    // that saves the 256-bit registers (OSXSAVE, then XCR0).
    bool avxUsable = (c & bit_OSXSAVE) && (c & bit_AVX) && (enabledRegisterStates() & 6) == 6;
    if (avxUsable && (caps & JPG_PROCESSOR_SSE2) && maxLeaf >= 7) {
        __cpuid_count(7, 0, a, b, c, d);
        if (b & bit_AVX2)
            caps |= JPG_PROCESSOR_AVX2;
    }
    return caps;
}
#else
uint32_t processorCapabilities() { return 0; }
#endif

}  // namespace

extern "C" {

uint32_t jpgGetProcessorArchitecture(void) { return processorCapabilities(); }

JpgStatus jpgGetProcessorArchitectureFlagCaps(JpgParam *, uint32_t *caps) {
    if (caps == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *caps = jpgGetProcessorArchitecture();
    return JPG_STATUS_OK;
}

JpgStatus jpgGetProcessorArchitectureFlag(JpgParam *param, uint32_t *flag) {
    if (jpgCheckParam(param) == nullptr || flag == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *flag = param->processorFlag;
    return JPG_STATUS_OK;
}

JpgStatus jpgSetProcessorArchitectureFlag(JpgParam *param, uint32_t flag) {
    if (jpgCheckParam(param) == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->mode & kModeWrite)
        return jpgWriteSetProcessorArchitectureFlag(param, flag);
    if (param->mode & kModeRead)
        return jpgReadSetProcessorArchitectureFlag(param, flag);
    return JPG_STATUS_WRONG_MODE;
}

JpgStatus jpgReadSetProcessorArchitectureFlag(JpgParam *param, uint32_t flag) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    param->processorFlag = flag & jpgGetProcessorArchitecture();
    kiv::selectReadRoutines(param);
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetProcessorArchitectureFlag(JpgParam *param, uint32_t flag) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    param->processorFlag = jpgGetProcessorArchitecture() & flag;
    param->routines.writeMcu = jpgGetWriteMCUFunc(0x301, param->processorFlag);
    param->routines.writeMcu303 = jpgGetWriteMCUFunc(0x303, param->processorFlag);
    return JPG_STATUS_OK;
}

JpgStatus jpgGetDCTMethodFlag(JpgParam *param, uint32_t *method) {
    if (jpgCheckParam(param) == nullptr || method == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *method = (param->mode & kModeDctMask) >> kModeDctShift;
    return JPG_STATUS_OK;
}

JpgStatus jpgSetDCTMethodFlag(JpgParam *param, uint32_t method) {
    if (jpgCheckParam(param) == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (method > 3 || (method == 2 && (param->mode & kModeWrite)))
        return JPG_STATUS_INVALID_PARAMETER;
    param->mode = (param->mode & ~kModeDctMask) | (method << kModeDctShift);
    return jpgSetProcessorArchitectureFlag(param, param->processorFlag);
}

// The single place where processor-specific lookups are inserted: each
// getter falls back from the flag's widest level to the portable routine.
JpgReadColorConvertFunc jpgGetReadColorConvertFunc(uint32_t id, uint32_t flag) {
    JpgReadColorConvertFunc routine = kiv::readColorConvertFor(id, kiv::simdLevelOf(flag));
    return routine != nullptr ? routine : jpgGetReadColorConvertGenericFunc(id);
}
JpgMcuFunc jpgGetReadMCUFunc(uint32_t id, uint32_t) { return jpgGetReadMCUGenericFunc(id); }
JpgUpSamplingFunc jpgGetUpSamplingFunc(uint32_t id, uint32_t flag) {
    JpgUpSamplingFunc routine = kiv::upSamplingFor(id, kiv::simdLevelOf(flag));
    return routine != nullptr ? routine : jpgGetUpSamplingGenericFunc(id);
}
JpgWriteColorConvertFunc jpgGetWriteColorConvertFunc(uint32_t id, uint32_t flag) {
    JpgWriteColorConvertFunc routine = kiv::writeColorConvertFor(id, kiv::simdLevelOf(flag));
    return routine != nullptr ? routine : jpgGetWriteColorConvertGenericFunc(id);
}
JpgMcuFunc jpgGetWriteMCUFunc(uint32_t id, uint32_t flag) {
    return kiv::writeMcuFor(id, kiv::simdLevelOf(flag));
}

// The conversion tables are constant data: nothing to prepare or release.
int32_t jpgReadColorConvertTableInit(void) { return 0; }
void jpgReadColorConvertTableClear(void) {}
int32_t jpgWriteColorConvertTableInit(void) { return 0; }
void jpgWriteColorConvertTableClear(void) {}

}  // extern "C"
