// The coefficient store: scans of progressive frames (ISO/IEC 10918-1
// Annex G) and non-interleaved sequential scans (A.2.2) decode into one
// whole-image memory of quantized coefficients, MCU after MCU in raster
// order, inside an MCU the frame components in frame order with their H x V
// blocks row by row. Output dequantizes and transforms MCUs from it at full
// size or reduced, through the frame's upsampler and converter.
// Invariants: every block a scan or the output touches lies inside the
// store; an MCU row whose flag is clear holds only zero coefficients,
// whatever its memory contains (rows are cleared on their first non-zero
// store); and between calls the current MCU buffer is the lower of the two
// MCU buffer addresses.
#include "modes/coefficient_store.h"

#include <string.h>

#include "core/api_checks.h"
#include "core/simd.h"
#include "core/tables.h"
#include "modes/dequantize.h"
#include "modes/progressive.h"
#include "modes/store_scans.h"
#include "read/front_end.h"
#include "read/inverse_dct.h"
#include "read/output_color.h"
#include "read/scaled_transforms.h"

namespace kiv {
namespace {

constexpr uint32_t kMarkerEoi = 0xFFD9;
constexpr uint32_t kLowestMarker = 0xFFC0;  // below it, entropy-coded data follows
constexpr size_t kBlock = kStoreBlock;
constexpr uint32_t kMaxMcuSide = 32;        // sampling factors are at most 4

uint32_t samplingBlocks(uint8_t sampling) { return (sampling >> 4) * (sampling & 0x0Fu); }

// Decodes the scan whose header was read last. Every scan starts with DC
// predictions of zero and no end-of-band run (G.1.2.1, G.1.2.2).
JpgStatus decodeScan(JpgParam *param) {
    const bool progressive = param->frameMarker == 0xFFC2;
    if ((progressive && param->scanSe > kLastZigzag) || param->scanNs == 0)
        return JPG_STATUS_BAD_DATA;
    resetPrediction(param);
    for (uint32_t i = 0; i < param->scanNs; i++)
        param->dec.componentsScanned |= 1u << param->dec.scanComponents[i];
    return progressive ? decodeProgressiveScan(param) : decodeSequentialScan(param);
}

// A fill that stops: a stream that ended early or a scan that stopped with
// a warning still completes the store with what was received; any other
// failure leaves it to be refilled from the first scan.
JpgStatus stopFilling(JpgParam *param, JpgStatus status) {
    bool truncated = param->bs.state != 0 || status == JPG_STATUS_END_OF_STREAM;
    if (truncated || (status & 0xF0000000u) == 0x80000000u) {
        param->dec.storeState = kStoreComplete;
        param->dec.storeStatus = truncated ? JPG_STATUS_UNEXPECTED_END : status;
        return JPG_STATUS_OK;
    }
    param->dec.storeState = kStoreRestart;
    return status;
}

// Reads the headers again from the start of the stream up to the first
// scan, so that its bindings and the tables it uses are those of the first
// scan, whatever later segments redefined.
JpgStatus restartFromFirstScan(JpgParam *param) {
    JpgStatus status = jpgReadRewindJPEGFile(param, 2, 1);  // just behind SOI
    param->dhtCount = 0;
    param->dhtList[0] = -1;
    uint32_t marker = 0;
    if (status == JPG_STATUS_OK)
        status = parseTableSegments(param, &marker);
    if (status == JPG_STATUS_OK && marker != param->frameMarker)
        status = JPG_STATUS_BAD_DATA;
    if (status == JPG_STATUS_OK)
        status = jpgReadParseScanLevel(param);  // passes over the frame header
    param->dec.storeState = status == JPG_STATUS_OK ? kStoreEmpty : kStoreRestart;
    return status;
}

}  // namespace

void clearStoreRow(JpgParam *param, uint32_t row) {
    const size_t perRow = static_cast<size_t>(param->mcusPerRow) * storeCoefficientsPerMcu(param);
    memset(param->dec.coefBase + row * perRow, 0, perRow * sizeof(int16_t));
    param->dec.rowsCleared[row] = 1;
}

bool storeGeometryUsable(const JpgParam *param) {
    if (param->mcuBuffer == nullptr || param->dec.mcuNext == nullptr || param->dec.coefBase == nullptr ||
        param->dec.rowsCleared == nullptr)
        return false;
    if (param->numComponents < 1 || param->numComponents > 4 || param->mcuWidth == 0 ||
        param->mcuHeight == 0 || param->mcusPerRow == 0 || param->mcuRows == 0 ||
        param->mcuWidth > kMaxMcuSide || param->mcuHeight > kMaxMcuSide ||
        static_cast<uint64_t>(param->mcusPerRow) * param->mcuRows != param->totalMcus)
        return false;
    uint32_t blocks = 0;
    for (uint32_t c = 0; c < param->numComponents; c++) {
        uint8_t sampling = param->components[c].sampling;
        if ((sampling >> 4) == 0 || (sampling & 0x0F) == 0 || param->components[c].quant == nullptr)
            return false;
        blocks += samplingBlocks(sampling);
    }
    return blocks == param->blocksPerMcu;
}

JpgStatus prepareStore(JpgParam *param) {
    const bool moved = (param->mode & kModeRewind) != 0;
    param->mode &= ~kModeRewind;
    switch (param->dec.storeState) {
    case kStoreComplete:
        return JPG_STATUS_OK;
    case kStoreEmpty:
        return moved ? jpgReadRewindJPEGFile(param, param->firstScanOffset, 1) : JPG_STATUS_OK;
    case kStoreFilling:
        if (!moved)
            return JPG_STATUS_OK;
        [[fallthrough]];
    default:
        return restartFromFirstScan(param);
    }
}

JpgStatus fillStore(JpgParam *param, bool oneScan) {
    if (param->dec.storeState == kStoreComplete)
        return oneScan ? JPG_STATUS_ERROR : JPG_STATUS_OK;
    if (param->dec.storeState != kStoreFilling) {
        memset(param->dec.rowsCleared, 0, param->mcuRows);
        param->dec.storeStatus = JPG_STATUS_OK;
        param->dec.componentsScanned = 0;
        param->dec.storeState = kStoreFilling;
    }
    for (;;) {
        JpgStatus status = decodeScan(param);
        if (status != JPG_STATUS_OK)
            return stopFilling(param, status);
        uint32_t marker = markerAfterScan(param);
        if (param->bs.state != 0)
            return stopFilling(param, JPG_STATUS_UNEXPECTED_END);
        param->currentMarker = marker;
        if (marker < kLowestMarker)
            return stopFilling(param, JPG_STATUS_ERROR);
        if (marker == kMarkerEoi) {
            // A component no scan carried is missing from the image.
            param->dec.storeState = kStoreComplete;
            if (param->dec.componentsScanned != (1u << param->numComponents) - 1)
                param->dec.storeStatus = JPG_STATUS_UNEXPECTED_END;
            return JPG_STATUS_OK;
        }
        status = jpgReadParseScanLevel(param);
        if (status != JPG_STATUS_OK)
            return stopFilling(param, status);
        if (oneScan)
            return JPG_STATUS_OK;
    }
}

namespace {

// Dequantizes the given natural-order positions of the block at the
// store's cursor (coefficient n times the quantization value for n, kept as
// 16 bits), or zeroes them for a row never cleared.
template <int kCount>
inline void dequantize(const int16_t *source, const int16_t *quant, bool stored, const uint8_t (&at)[kCount],
                       int16_t *target) {
    for (int i = 0; i < kCount; i++) {
        int n = at[i];
        target[n] = stored ? static_cast<int16_t>(static_cast<uint16_t>(source[n]) * static_cast<uint32_t>(static_cast<uint16_t>(quant[n]))) : 0;
    }
}

constexpr uint8_t kCorner1[1] = {0};
constexpr uint8_t kCorner2[4] = {0, 1, 8, 9};
constexpr uint8_t kCorner4[16] = {0, 1, 2, 3, 8, 9, 10, 11, 16, 17, 18, 19, 24, 25, 26, 27};

// Reconstructs the MCU at the cursor into the current MCU buffer at scale
// level kLevel (3: full size) and moves the cursor to the next MCU. The
// reduced transforms read exactly the corner dequantized here, which is
// what a sequential scaled decode keeps of every block.
template <int kLevel>
JpgStatus reconstructMcu(JpgParam *param) {
    if (!mayRead(param)) [[unlikely]]  // the routine getters hand these out to anyone
        return refuseRead(param);
    const int16_t *source = param->dec.coefCursor;
    const size_t perMcu = storeCoefficientsPerMcu(param);
    if (source == nullptr || param->dec.coefBase == nullptr || param->dec.rowsCleared == nullptr ||
        source < param->dec.coefBase || perMcu == 0 || param->mcusPerRow == 0 ||
        static_cast<size_t>(source - param->dec.coefBase) / perMcu >= param->totalMcus)
        return JPG_STATUS_BAD_DATA;
    const size_t mcu = static_cast<size_t>(source - param->dec.coefBase) / perMcu;
    const bool stored = param->dec.rowsCleared[mcu / param->mcusPerRow] != 0;
    const Dequantize dequantizeBlock = dequantizeFor(param->processorFlag);
    const Reduction reduce4x4 = reduceTo4x4For(param->processorFlag);
    int16_t *target = param->mcuBuffer;
    JpgStatus status = JPG_STATUS_OK;
    uint32_t blocks = 0;
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++) {
        const int16_t *quant = param->dec.naturalQuant[c];
        uint32_t count = samplingBlocks(param->components[c].sampling);
        if (blocks + count > param->blocksPerMcu)
            return JPG_STATUS_BAD_DATA;
        for (uint32_t b = 0; b < count; b++, blocks++, source += kBlock, target += kBlock) {
            if constexpr (kLevel == 3) {
                if (stored)
                    dequantizeBlock(source, quant, target);
                else
                    memset(target, 0, kBlock * sizeof(int16_t));
            } else if constexpr (kLevel == 2) {
                dequantize(source, quant, stored, kCorner4, target);
                reduce4x4(target);
            } else if constexpr (kLevel == 1) {
                dequantize(source, quant, stored, kCorner2, target);
                reduceTo2x2(target);
            } else {
                dequantize(source, quant, stored, kCorner1, target);
                reduceTo1x1(target);
            }
        }
    }
    if constexpr (kLevel == 3)  // the MCU's blocks together, once all are dequantized
        inverseDctBlocksFor(param->processorFlag)(param->mcuBuffer, blocks);
    param->dec.coefCursor += perMcu;
    return status;
}

// What one output pass uses: the MCU routine reading the store, the
// upsampler, the converter and the MCU size at the output scale.
struct OutputPath {
    JpgMcuFunc reconstruct;
    JpgUpSamplingFunc upsample;
    JpgReadColorConvertFunc convert;
    uint32_t mcuWidth, mcuHeight;
};

// Upsamples (unless the converter does) and converts the MCU in the buffers
// into lines firstLine .. firstLine + strip height - 1 of the MCU at column
// x of the strip. Lines
// from inside the MCU go through an MCU-sized scratch strip first, since
// converters write from an MCU's top line.
void convertHeldMcu(JpgParam *param, const OutputPath &path, const ComplibRect *strip, int32_t x,
                    uint32_t firstLine) {
    if (path.upsample != nullptr)
        path.upsample(param);
    int64_t width = static_cast<int64_t>(strip->width) - x;
    if (width > path.mcuWidth)
        width = path.mcuWidth;
    if (width <= 0)  // an MCU right of the rectangle writes nothing
        return;
    ComplibRect target = *strip;
    if (firstLine == 0) {
        path.convert(param, &target, x, static_cast<int32_t>(width));
        return;
    }
    uint8_t scratch[kMaxMcuSide * kMaxMcuSide * 4];
    const size_t pixelBytes = static_cast<size_t>(strip->channels);
    ComplibRect whole = *strip;
    whole.pixels = scratch;
    whole.width = static_cast<int32_t>(width);
    whole.stride = static_cast<int32_t>(path.mcuWidth * pixelBytes);
    whole.height = static_cast<int32_t>(firstLine) + strip->height;
    whole.allocSize = sizeof scratch;
    path.convert(param, &whole, 0, static_cast<int32_t>(width));
    for (int32_t r = 0; r < strip->height; r++)
        memcpy(strip->pixels + static_cast<ptrdiff_t>(r) * strip->stride + x * pixelBytes,
               scratch + (firstLine + r) * static_cast<size_t>(whole.stride), static_cast<size_t>(width) * pixelBytes);
}

// Reconstructs MCU `index` of the image into the buffer given.
void reconstructAt(JpgParam *param, const OutputPath &path, int16_t *buffer, size_t index) {
    param->mcuBuffer = buffer;
    param->dec.coefCursor = storeMcu(param, index);
    path.reconstruct(param);
}

// One MCU row into the strip, only as many MCUs as the strip shows. At full
// size one MCU is reconstructed ahead, so that the upsampler sees the
// right-hand neighbour (none for the row's last MCU); scaled output
// replicates and needs none.
void outputMcuRow(JpgParam *param, const OutputPath &path, const ComplibRect *strip, uint32_t row,
                  uint32_t firstLine, bool lookAhead, int16_t *lower, int16_t *upper) {
    const size_t first = static_cast<size_t>(row) * param->mcusPerRow;
    const uint64_t shown = (static_cast<uint64_t>(strip->width) + path.mcuWidth - 1) / path.mcuWidth;
    const uint32_t visible = shown < param->mcusPerRow ? static_cast<uint32_t>(shown) : param->mcusPerRow;
    int16_t *held = lower, *spare = upper;
    if (visible > 0)
        reconstructAt(param, path, held, first);
    for (uint32_t j = 0; j < visible; j++) {
        const bool next = lookAhead && j + 1 < param->mcusPerRow;
        if (next)
            reconstructAt(param, path, spare, first + j + 1);
        param->mcuBuffer = held;
        param->dec.mcuNext = next ? spare : nullptr;
        convertHeldMcu(param, path, strip, static_cast<int32_t>(j * path.mcuWidth), firstLine);
        if (j + 1 == visible)
            break;
        if (next) {
            int16_t *t = held;
            held = spare;
            spare = t;
        } else {
            reconstructAt(param, path, held, first + j + 1);
        }
    }
    param->mcuBuffer = lower;
    param->dec.mcuNext = upper;
}

// Delivers rows from the stored coefficients, starting at the processed-line
// counter (which may stand inside an MCU row), into the rectangle from its
// top row. The quantization tables are taken as they stand now.
JpgStatus outputRows(JpgParam *param, const OutputPath &path, const ComplibRect *rect, uint32_t rows,
                     bool lookAhead) {
    if (path.reconstruct == nullptr || path.convert == nullptr ||
        path.mcuWidth == 0 || path.mcuHeight == 0 || rect->channels < 1 || rect->channels > 4)
        return JPG_STATUS_NOT_SUPPORTED;
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++)
        for (int n = 0; n < 64; n++)
            param->dec.naturalQuant[c][n] = static_cast<int16_t>(param->components[c].quant[kNaturalToZigzag[n]]);
    int16_t *lower = param->mcuBuffer < param->dec.mcuNext ? param->mcuBuffer : param->dec.mcuNext;
    int16_t *upper = param->mcuBuffer < param->dec.mcuNext ? param->dec.mcuNext : param->mcuBuffer;
    ComplibRect strip = *rect;
    uint32_t done = 0;
    uint32_t line = param->processedLines;
    for (uint32_t row = line / path.mcuHeight; done < rows && row < param->mcuRows; row++) {
        const uint32_t firstLine = line % path.mcuHeight;
        uint32_t lines = path.mcuHeight - firstLine;
        lines = rows - done < lines ? rows - done : lines;
        const int64_t room = static_cast<int64_t>(rect->height) - done;
        if (room <= 0)
            break;
        strip.height = static_cast<int32_t>(lines < room ? lines : room);
        strip.pixels = rect->pixels + static_cast<ptrdiff_t>(rect->stride) * done;
        outputMcuRow(param, path, &strip, row, firstLine, lookAhead, lower, upper);
        done += lines;
        line += lines;
    }
    param->dec.coefCursor = param->dec.coefBase;
    param->processedLines += rows;
    return param->dec.storeStatus;
}

}  // namespace

JpgStatus outputStoredRows(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    OutputPath path{param->routines.mcuProgressive, param->routines.upsample, mcuRowConverter(param),
                    param->mcuWidth, param->mcuHeight};
    if (path.upsample == nullptr)
        return JPG_STATUS_NOT_SUPPORTED;
    return outputRows(param, path, rect, rows, true);
}

JpgStatus outputStoredScaledRows(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    int32_t level = param->scaleLevel;
    if (level < 0 || level > 2)
        return JPG_STATUS_INVALID_PARAMETER;
    const JpgReadColorConvertFunc fused = fusedScaledConverter(param);
    OutputPath path{param->routines.mcuScaled, fused != nullptr ? nullptr : param->routines.upsampleScaled,
                    fused != nullptr ? fused : param->routines.convertScaled, param->mcuWidth >> (3 - level),
                    param->mcuHeight >> (3 - level)};
    if (fused == nullptr && path.upsample == nullptr)
        return JPG_STATUS_NOT_SUPPORTED;
    return outputRows(param, path, rect, rows, false);
}

void dequantizePortable(const int16_t *coefficients, const int16_t *quant, int16_t *block) {
    for (size_t n = 0; n < kBlock; n++)
        block[n] = static_cast<int16_t>(static_cast<uint16_t>(coefficients[n]) *
                                        static_cast<uint32_t>(static_cast<uint16_t>(quant[n])));
}

Dequantize dequantizeFor(uint32_t flag) {
#if KIV_SIMD_X86
    if (simdLevelOf(flag) != SimdLevel::Portable)
        return dequantizeSse2;
#endif
    return dequantizePortable;
}

// MCU routine 0x302: the MCU at the cursor at full size.
JpgStatus readProgressiveMCU(JpgParam *param) { return reconstructMcu<3>(param); }

JpgStatus readStoredMcuLevel0(JpgParam *param) { return reconstructMcu<0>(param); }
JpgStatus readStoredMcuLevel1(JpgParam *param) { return reconstructMcu<1>(param); }
JpgStatus readStoredMcuLevel2(JpgParam *param) { return reconstructMcu<2>(param); }

}  // namespace kiv
