// Declarations shared by the baseline encoder's stages: the input conversion
// context, the magnitude (category and extra bits) table of ISO/IEC 10918-1
// F.1.2.1 and F.1.2.2, and small helpers of the bit writer.
#pragma once

#include "core/codec.h"
#include "core/simd.h"

// What the input conversion of one image needs per MCU; prepared by the
// encode driver, read by the conversion routines.
struct JpgWriteConvertContext {
    const uint8_t *pixels;     // the client's interleaved 8-bit pixels
    int16_t *blocks;           // output: the MCU's 8x8 blocks, component by component
    int16_t *planes;           // one MCU-sized level-shifted plane per component
    uint32_t rows;             // rows given to this call of the driver
    uint32_t width;            // image width in samples
    int32_t stride;            // bytes from one row to the next
    uint32_t bytesPerPixel;    // number of channels
    uint32_t mcuWidth;
    uint32_t mcuHeight;
    int32_t factors[4][2];     // per component H and V
    // Kept by the processor-specific conversions: the checked geometry
    // (bytesPerPixel to factors, as above) and the grid steps derived from
    // it, so that the MCUs after the first skip the checks. All zero (no
    // geometry) in a fresh context.
    struct {
        uint32_t geometry[3 + 8];
        int32_t sx[4], sy[4];
    } checked;
};

namespace kiv {

// Whether the frame is fixed: headers written or rows encoded (baseline),
// or a lossless frame begun. From then on its size and channels stay.
inline bool encoderFrameFixed(const JpgParam *param) {
    return param->enc.rowsEncoded != 0 || (param->mode & kModeHeadersWritten) != 0 ||
           param->frameMarker == 0xFFC3;
}

constexpr uint32_t kMaxBlocksPerMcu = 10;  // B.2.3: at most ten blocks in an MCU

// The encode driver converts as many MCUs as fit kMaxBatchBlocks blocks
// before each call of the MCU encoder, so that a kernel of two blocks at a
// time pairs the blocks of MCUs with an odd count across MCUs.
constexpr uint32_t kMaxBatchBlocks = 12;
static_assert(kMaxBatchBlocks >= kMaxBlocksPerMcu);
constexpr uint32_t mcusPerBatch(uint32_t blocksPerMcu) {
    uint32_t mcus = blocksPerMcu == 0 ? 1 : kMaxBatchBlocks / blocksPerMcu;
    return mcus == 0 ? 1 : mcus;
}

constexpr uint32_t kStagingSize = 0x10000;  // bytes of the bit writer's staging buffer
constexpr int32_t kMaxMagnitude = 2047;     // largest |value| of the magnitude table

// Category SSSS of a value (number of significant bits of |v|) and the
// extra bits that follow its code: v itself, or v + 2^n - 1 when negative.
// Both in one word, so that the entropy coder reads them with one load.
struct Magnitude {
    uint32_t packed;  // category | bits << 16
    constexpr uint32_t category() const { return packed & 0xFFFF; }
    constexpr uint32_t bits() const { return packed >> 16; }
};

constexpr Magnitude magnitudeOf(int32_t v) {
    int32_t a = v < 0 ? -v : v;
    uint32_t n = 0;
    while (a >> n)
        n++;
    int32_t bits = v >= 0 ? v : v + (1 << n) - 1;
    return {n | static_cast<uint32_t>(bits) << 16};
}

struct MagnitudeTable {
    Magnitude entry[2 * kMaxMagnitude + 1];
    // Indexed directly by the signed value (-2047 to +2047).
    constexpr const Magnitude &operator[](int32_t v) const { return entry[v + kMaxMagnitude]; }
};

constexpr MagnitudeTable makeMagnitudeTable() {
    MagnitudeTable t{};
    for (int32_t v = -kMaxMagnitude; v <= kMaxMagnitude; v++)
        t.entry[v + kMaxMagnitude] = magnitudeOf(v);
    return t;
}
inline constexpr MagnitudeTable kMagnitude = makeMagnitudeTable();

static_assert(kMagnitude[0].category() == 0 && kMagnitude[-1].category() == 1 &&
              kMagnitude[-1].bits() == 0 && kMagnitude[1].bits() == 1 &&
              kMagnitude[-2047].category() == 11 && kMagnitude[-2047].bits() == 0 &&
              kMagnitude[1024].category() == 11 && kMagnitude[1024].bits() == 1024 &&
              kMagnitude[-3].bits() == 0);

// Builds the difference-code table (JpgDcDiff[4095], owned by the table as
// its encoderTable) of a DC table whose code list is sorted by symbol and
// holds the categories 0 to 11 in order; the lossless encoder shares it.
JpgStatus buildDcDiffTable(JpgParam *param, JpgHuffmanTable *table);

// The routines of a processor level: the MCU encoder for an MCU ID (null for
// IDs without one), and the input conversion for a ColorConvertID (null when
// the level has none of its own and the portable routine serves).
JpgMcuFunc writeMcuFor(uint32_t id, SimdLevel level);
JpgWriteColorConvertFunc writeColorConvertFor(uint32_t id, SimdLevel level);

// The MCU encoders of the SSE2 and AVX2 levels (mcu_encoder_sse2.cpp).
JpgStatus encodeMcuSse2(JpgParam *param);
JpgStatus encodeMcuAvx2(JpgParam *param);

// Loads the base quantization tables of Annex K (K.1 luminance into table 0,
// K.2 chrominance into table 1), in zig-zag order.
void loadDefaultQuantTables(JpgParam *param);

}  // namespace kiv
