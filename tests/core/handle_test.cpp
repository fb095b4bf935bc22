// The codec handle: creation, validation, release and the size of the
// coefficient store; the processor and DCT-method flags.
#include <gtest/gtest.h>

#include <string>

#include "core/codec.h"
#include "core/handle.h"
#include "test_support.h"

namespace {

struct Handle {
    JpgParam *p = jpgProlog(nullptr);
    ~Handle() {
        if (p)
            jpgEpilog(p);
    }
};

}  // namespace

TEST(Handle, CheckRejectsNullWrongMagicAndWrongSize) {
    Handle h;
    EXPECT_EQ(jpgCheckParam(h.p), h.p);
    EXPECT_EQ(jpgCheckParam(nullptr), nullptr);
    h.p->size = 69261;
    EXPECT_EQ(jpgCheckParam(h.p), nullptr);
    h.p->size = sizeof(JpgParam);
    h.p->magic = 0x4A504546;
    EXPECT_EQ(jpgCheckParam(h.p), nullptr);
    h.p->magic = kJpgMagic;
}

TEST(Handle, EpilogReleasesEveryOwnedBuffer) {
    JpgParam *p = jpgProlog(nullptr);
    ASSERT_NE(p, nullptr);
    for (int t = 0; t < 4; t++) {
        for (JpgHuffmanTable *table : {&p->dcTables[t], &p->acTables[t]}) {
            table->codes = static_cast<JpgHuffmanCode *>(jpgMemAlloc(p, 16));
            table->symbolIndex = static_cast<uint8_t *>(jpgMemAlloc(p, 16));
            table->encoderTable = jpgMemAlloc(p, 16);
            table->encoderSpare = jpgMemAlloc(p, 16);
            for (auto &level : table->level)
                level.entries = static_cast<uint32_t *>(jpgMemAlloc(p, 16));
        }
    }
    p->mcuBuffer = static_cast<int16_t *>(jpgMemAlloc(p, 128));
    p->blockPointers = static_cast<int16_t **>(jpgMemAlloc(p, 64));
    p->blockMap = static_cast<uint32_t *>(jpgMemAlloc(p, 64));
    p->spareBuffer = static_cast<uint8_t *>(jpgMemAlloc(p, 64));
    EXPECT_EQ(jpgEpilog(p), JPG_STATUS_OK);  // LeakSanitizer checks the rest
}

TEST(Handle, BlockMemorySizeCountsTheFourStoredLayouts) {
    Handle h;
    h.p->numComponents = 3;
    h.p->components[0].sampling = 0x22;
    h.p->components[1].sampling = 0x11;
    h.p->components[2].sampling = 0x11;
    h.p->mcuHeight = 16;
    h.p->mcusPerRow = 40;
    EXPECT_EQ(jpgGetJPEGBlockMemorySize(h.p, 17), 30720u);  // 2 x 40 x 6 blocks
    h.p->components[1].sampling = 0x13;                     // adds nothing
    EXPECT_EQ(jpgGetJPEGBlockMemorySize(h.p, 17), 2u * 40 * 5 * 64);
    h.p->components[1].sampling = 0x21;
    EXPECT_EQ(jpgGetJPEGBlockMemorySize(h.p, 16), 1u * 40 * 7 * 64);
    h.p->mcusPerRow = 0x10000;
    EXPECT_EQ(jpgGetJPEGBlockMemorySize(h.p, 0xFFFFFFFF), 0xFFFFFFFFu);  // saturates
    h.p->mcuHeight = 0;
    EXPECT_EQ(jpgGetJPEGBlockMemorySize(h.p, 16), 0u);
    h.p->numComponents = 0;
    EXPECT_EQ(jpgGetJPEGBlockMemorySize(h.p, 16), 0u);
}

// The processor flag needs a mode and is the request masked by CPUID's
// answer: only the defined bits, AVX2 only with SSE2, and SSE2 always on
// x86-64 (part of its baseline).
TEST(Flags, ProcessorFlagIsTheRequestMaskedByTheCapabilities) {
    Handle h;
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(h.p, 0xFFFFFFFF), JPG_STATUS_WRONG_MODE);
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(nullptr, 0), JPG_STATUS_INVALID_HANDLE);
    uint32_t caps = jpgGetProcessorArchitecture(), flag = 7;
    EXPECT_EQ(caps & ~(JPG_PROCESSOR_SSE2 | JPG_PROCESSOR_AVX2), 0u);
    if (caps & JPG_PROCESSOR_AVX2)
        EXPECT_TRUE(caps & JPG_PROCESSOR_SSE2);
#if defined(__x86_64__)
    EXPECT_TRUE(caps & JPG_PROCESSOR_SSE2);
#endif
    EXPECT_EQ(jpgGetProcessorArchitectureFlagCaps(h.p, &flag), JPG_STATUS_OK);
    EXPECT_EQ(flag, caps);
    EXPECT_EQ(jpgGetProcessorArchitectureFlag(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
    for (uint32_t mode : {kModeRead, kModeWrite}) {
        h.p->mode = (h.p->mode & ~(kModeRead | kModeWrite)) | mode;
        h.p->precision = 8;
        for (uint32_t request : {0u, JPG_PROCESSOR_SSE2, JPG_PROCESSOR_AVX2 | 0x100u, 0xFFFFFFFFu}) {
            EXPECT_EQ(jpgSetProcessorArchitectureFlag(h.p, request), JPG_STATUS_OK);
            EXPECT_EQ(jpgGetProcessorArchitectureFlag(h.p, &flag), JPG_STATUS_OK);
            EXPECT_EQ(flag, request & caps) << mode << " " << request;
        }
    }
}

// Identifiers no routine serves get none at any level; the generic MCU
// encoder is the portable one.
TEST(Dispatch, UnknownIdentifiersHaveNoRoutine) {
    EXPECT_EQ(jpgGetWriteMCUGenericFunc(0x301), jpgGetWriteMCUFunc(0x301, 0));
    EXPECT_EQ(jpgGetWriteMCUGenericFunc(0x303), nullptr);
    for (uint32_t flag : kivtest::processorFlags()) {
        EXPECT_EQ(jpgGetWriteMCUFunc(0x303, flag), nullptr);
        EXPECT_EQ(jpgGetWriteColorConvertFunc(0x22020203u, flag), nullptr);  // 12-bit samples
        EXPECT_EQ(jpgGetReadColorConvertFunc(0x12345678u, flag), nullptr);
    }
}

TEST(Flags, DctMethodRange) {
    Handle h;
    h.p->mode |= kModeRead;
    h.p->precision = 8;
    uint32_t method = 9;
    EXPECT_EQ(jpgSetDCTMethodFlag(h.p, 4), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgSetDCTMethodFlag(h.p, 2), JPG_STATUS_OK);
    EXPECT_EQ(jpgGetDCTMethodFlag(h.p, &method), JPG_STATUS_OK);
    EXPECT_EQ(method, 2u);
    h.p->mode = (h.p->mode & ~kModeRead) | kModeWrite;
    EXPECT_EQ(jpgSetDCTMethodFlag(h.p, 2), JPG_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(jpgSetDCTMethodFlag(h.p, 3), JPG_STATUS_OK);
    EXPECT_EQ(jpgGetDCTMethodFlag(h.p, &method), JPG_STATUS_OK);
    EXPECT_EQ(method, 3u);
}

TEST(Dispatch, TwelveBitFramesHaveNoProgressiveRoutines) {
    Handle h;
    h.p->mode |= kModeRead;
    h.p->precision = 12;
    h.p->numComponents = 3;
    h.p->routines.mcuProgressive = reinterpret_cast<JpgMcuFunc>(&jpgEpilog);
    h.p->routines.mcu303 = reinterpret_cast<JpgMcuFunc>(&jpgEpilog);
    EXPECT_EQ(jpgReadSetProcessorArchitectureFlag(h.p, 0), JPG_STATUS_OK);
    EXPECT_EQ(h.p->routines.mcuProgressive, nullptr);
    EXPECT_EQ(h.p->routines.mcu303, nullptr);
}
