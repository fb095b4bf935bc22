// The codec handle: creation, validation, release and the size of the
// coefficient store; the processor and DCT-method flags.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

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

TEST(Handle, PathIsCopiedOnlyWhenItFits) {
    JpgParam *p = jpgProlog("/tmp/some.jpg");
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->bs.path, "/tmp/some.jpg");
    jpgEpilog(p);
    JpgParam *longest = jpgProlog(std::string(259, 'a').c_str());
    ASSERT_NE(longest, nullptr);
    jpgEpilog(longest);
    EXPECT_EQ(jpgProlog(std::string(260, 'a').c_str()), nullptr);
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

TEST(Flags, ProcessorFlagNeedsAMode) {
    Handle h;
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(h.p, 0xFFFFFFFF), JPG_STATUS_WRONG_MODE);
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(nullptr, 0), JPG_STATUS_INVALID_HANDLE);
    h.p->mode |= kModeRead;
    h.p->precision = 8;
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(h.p, 0xFFFFFFFF), JPG_STATUS_OK);
    uint32_t flag = 7, caps = 7;
    EXPECT_EQ(jpgGetProcessorArchitectureFlagCaps(h.p, &caps), JPG_STATUS_OK);
    EXPECT_EQ(caps, jpgGetProcessorArchitecture());
    EXPECT_EQ(jpgGetProcessorArchitectureFlag(h.p, &flag), JPG_STATUS_OK);
    EXPECT_EQ(flag, caps);  // the request masked by the capabilities
    EXPECT_EQ(jpgGetProcessorArchitectureFlag(h.p, nullptr), JPG_STATUS_INVALID_HANDLE);
}

// CPUID's answer: only the defined bits, AVX2 only with SSE2, and SSE2
// always on x86-64 (part of its baseline).
TEST(Flags, CapabilitiesAreTheDefinedBits) {
    uint32_t caps = jpgGetProcessorArchitecture();
    EXPECT_EQ(caps & ~(JPG_PROCESSOR_SSE2 | JPG_PROCESSOR_AVX2), 0u);
    if (caps & JPG_PROCESSOR_AVX2)
        EXPECT_TRUE(caps & JPG_PROCESSOR_SSE2);
#if defined(__x86_64__)
    EXPECT_TRUE(caps & JPG_PROCESSOR_SSE2);
#endif
    Handle h;
    h.p->mode |= kModeWrite;
    for (uint32_t request : {0u, JPG_PROCESSOR_SSE2, JPG_PROCESSOR_AVX2 | 0x100u, 0xFFFFFFFFu}) {
        uint32_t flag = 7;
        EXPECT_EQ(jpgSetProcessorArchitectureFlag(h.p, request), JPG_STATUS_OK);
        EXPECT_EQ(jpgGetProcessorArchitectureFlag(h.p, &flag), JPG_STATUS_OK);
        EXPECT_EQ(flag, request & caps);
    }
}

// The encoder's getters: the portable routines for flag 0, a routine of
// the level for every level the processor has (the same bits are checked
// in tests/write/encoder_simd_test.cpp), and nothing for unknown IDs.
TEST(Dispatch, WriteGettersHandOutTheLevelsRoutines) {
    const uint32_t ycc420 = 0x02020203u;  // YCbCr 2x2, plain down-sampling
    EXPECT_EQ(jpgGetWriteMCUFunc(0x301, 0), jpgGetWriteMCUGenericFunc(0x301));
    EXPECT_EQ(jpgGetWriteColorConvertFunc(ycc420, 0), jpgGetWriteColorConvertGenericFunc(ycc420));
    std::vector<JpgMcuFunc> seen{jpgGetWriteMCUFunc(0x301, 0)};
    for (uint32_t flag : kivtest::processorFlags()) {
        if (flag == 0)
            continue;
        JpgMcuFunc mcu = jpgGetWriteMCUFunc(0x301, flag);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), mcu), 0) << kivtest::processorName(flag);
        seen.push_back(mcu);
        EXPECT_NE(jpgGetWriteColorConvertFunc(ycc420, flag), jpgGetWriteColorConvertGenericFunc(ycc420));
        // Averaging down-sampling and level shifts stay portable.
        EXPECT_EQ(jpgGetWriteColorConvertFunc(ycc420 | 0x80000000u, flag),
                  jpgGetWriteColorConvertGenericFunc(ycc420 | 0x80000000u));
        EXPECT_EQ(jpgGetWriteColorConvertFunc(0x00010101u, flag), jpgGetWriteColorConvertGenericFunc(0x00010101u));
        EXPECT_EQ(jpgGetWriteMCUFunc(0x303, flag), nullptr);
        EXPECT_EQ(jpgGetWriteColorConvertFunc(0x22020203u, flag), nullptr);  // 12-bit samples
    }
}

// The decoder's getters: upsampling and colour conversion of the level for
// the full-size identifiers, the portable routines for scaled output (and
// for flag 0), nothing for unknown converter IDs.
TEST(Dispatch, ReadGettersHandOutTheLevelsRoutines) {
    for (uint32_t flag : kivtest::processorFlags()) {
        bool simd = flag != 0;
        for (uint32_t id : {0x10200u, 0x20100u, 0x20200u})
            EXPECT_EQ(jpgGetUpSamplingFunc(id, flag) != jpgGetUpSamplingGenericFunc(id), simd) << std::hex << id;
        for (uint32_t id : {0x10100u, 0x80020200u, 0x40400u})
            EXPECT_EQ(jpgGetUpSamplingFunc(id, flag), jpgGetUpSamplingGenericFunc(id)) << std::hex << id;
        for (uint32_t id : {0x20201u, 0x20203u, 0x20204u, 0x1020203u, 0x2020203u})
            EXPECT_EQ(jpgGetReadColorConvertFunc(id, flag) != jpgGetReadColorConvertGenericFunc(id), simd)
                << std::hex << id;
        for (uint32_t id : {0x20202u, 0x42020203u, 0x22020203u, 0x12345678u})
            EXPECT_EQ(jpgGetReadColorConvertFunc(id, flag), jpgGetReadColorConvertGenericFunc(id)) << std::hex << id;
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

TEST(Dispatch, WriteSelectorHasNoSecondEncoder) {
    Handle h;
    h.p->mode |= kModeWrite;
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(h.p, 0xFFFFFFFF), JPG_STATUS_OK);
    EXPECT_EQ(h.p->routines.writeMcu303, nullptr);
    EXPECT_EQ(jpgGetWriteMCUFunc(0x303, 0), nullptr);
    EXPECT_EQ(jpgGetReadColorConvertFunc(0x12345678, 0), nullptr);
    EXPECT_EQ(jpgGetUpSamplingFunc(0x10100, 0), jpgGetUpSamplingGenericFunc(0x10100));
}
