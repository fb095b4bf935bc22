// Progressive (SOF2) driver: decodes the scans of a progressive frame into
// the whole-image coefficient memory (ISO/IEC 10918-1 Annex G; block order
// of interleaved and non-interleaved scans from A.2.2 and A.2.3) and turns
// the stored coefficients into pixel rows on request through the inverse
// DCT, upsampler and colour converter of the sequential pipeline.
// Invariants: every block a scan or the output touches lies inside the
// coefficient memory; an MCU row whose flag is clear holds only zero
// coefficients, whatever its memory contains (see decodeBlock); and between
// calls the current MCU buffer is the lower of the two MCU buffer addresses.
#include <string.h>

#include "core/api_checks.h"
#include "core/tables.h"
#include "modes/progressive.h"
#include "read/output_color.h"

namespace kiv {
namespace {

constexpr uint32_t kProgressiveFrame = 0xFFC2;
constexpr uint32_t kMarkerEoi = 0xFFD9;
constexpr uint32_t kLowestMarker = 0xFFC0;  // below it, entropy-coded data follows
constexpr size_t kBlock = 64;               // coefficients per block

uint32_t samplingBlocks(uint8_t sampling) { return (sampling >> 4) * (sampling & 0x0Fu); }

// The frame geometry that scans and output index the coefficient memory by.
bool geometryUsable(const JpgParam *param) {
    if (param->mcuBuffer == nullptr || param->dec.mcuNext == nullptr || param->dec.coefBase == nullptr ||
        param->dec.rowsCleared == nullptr)
        return false;
    if (param->numComponents < 1 || param->numComponents > 4 || param->mcuWidth == 0 ||
        param->mcuHeight == 0 || param->mcusPerRow == 0 || param->mcuRows == 0 ||
        static_cast<uint64_t>(param->mcusPerRow) * param->mcuRows != param->totalMcus)
        return false;
    uint32_t blocks = 0;
    for (uint32_t c = 0; c < param->numComponents; c++) {
        uint8_t sampling = param->components[c].sampling;
        if ((sampling >> 4) == 0 || (sampling & 0x0F) == 0)
            return false;
        blocks += samplingBlocks(sampling);
    }
    return blocks == param->blocksPerMcu;
}

size_t coefficientsPerMcu(const JpgParam *param) { return static_cast<size_t>(param->blocksPerMcu) * kBlock; }

int16_t *mcuCoefficients(const JpgParam *param, size_t mcu) {
    return param->dec.coefBase + mcu * coefficientsPerMcu(param);
}

// The coefficient memory is cleared lazily, one MCU row at a time, so that
// a short stream declaring a huge frame touches only the rows its scans
// store something into. A row is cleared when the first non-zero
// coefficient is stored into it; until then it reads as all zeros.
void clearRow(JpgParam *param, uint32_t row) {
    const size_t perRow = static_cast<size_t>(param->mcusPerRow) * coefficientsPerMcu(param);
    memset(param->dec.coefBase + row * perRow, 0, perRow * sizeof(int16_t));
    param->dec.rowsCleared[row] = 1;
}

// Every row reads as zeros again (a decode from the first scan).
void forgetRows(JpgParam *param) { memset(param->dec.rowsCleared, 0, param->mcuRows); }

bool blockIsZero(const int16_t *block) {
    int16_t any = 0;
    for (size_t n = 0; n < kBlock; n++)
        any |= block[n];
    return any == 0;
}

// A scan's stand-in for the blocks of rows not yet cleared: all zeros
// between calls, as those blocks read.
struct EmptyBlock {
    int16_t values[kBlock] = {};
};

// Runs the scan's routine on one block of MCU row `row`. In a row not yet
// cleared the routine works on the empty stand-in instead, which holds what
// the stored block reads as; only a result with a non-zero coefficient
// clears the row and is stored, whatever status the routine returned (the
// values stored so far stay, as with a block of a cleared row).
JpgStatus decodeBlock(JpgParam *param, JpgCoefficientFunc routine, uint32_t row, int16_t *block,
                      JpgComponent *comp, EmptyBlock *empty) {
    if (param->dec.rowsCleared[row] != 0)
        return routine(param, block, comp);
    JpgStatus status = routine(param, empty->values, comp);
    if (!blockIsZero(empty->values)) {
        clearRow(param, row);
        memcpy(block, empty->values, sizeof empty->values);
        memset(empty->values, 0, sizeof empty->values);
    }
    return status;
}

int findFrameComponent(const JpgParam *param, uint8_t id) {
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++)
        if (param->components[c].id == id)
            return static_cast<int>(c);
    return -1;
}

// Blocks of the frame components before component c inside an MCU.
uint32_t blockOffset(const JpgParam *param, int c) {
    uint32_t offset = 0;
    for (int i = 0; i < c; i++)
        offset += samplingBlocks(param->components[i].sampling);
    return offset;
}

// Where each scan component's blocks lie inside an MCU. The scan parser
// records the frame component of every scan component; without that record
// the components are taken to follow one another in frame order from the
// first one.
bool scanLayout(const JpgParam *param, uint32_t offsets[4], uint32_t blocks[4]) {
    int first = findFrameComponent(param, param->scanCs);
    if (first < 0 || param->scanNs > 4)
        return false;
    const uint8_t *frameIndex = param->dec.scanComponents;
    bool recorded = param->scanNs > 0 && frameIndex[0] == first;
    for (uint32_t i = 1; i < param->scanNs && recorded; i++)
        recorded = frameIndex[i] > frameIndex[i - 1] && frameIndex[i] < param->numComponents;
    uint32_t next = blockOffset(param, first);
    for (uint32_t i = 0; i < param->scanNs; i++) {
        offsets[i] = recorded ? blockOffset(param, frameIndex[i]) : next;
        blocks[i] = recorded ? samplingBlocks(param->components[frameIndex[i]].sampling)
                             : param->components[i].blocks;
        next = offsets[i] + blocks[i];
        if (next > param->blocksPerMcu)
            return false;
    }
    return true;
}

// Interleaved scan (A.2.3): MCU after MCU, each scan component's H x V
// blocks in turn. Restart processing after every complete interval except
// the last, which the scan's end closes instead.
JpgStatus decodeInterleaved(JpgParam *param, JpgCoefficientFunc routine) {
    uint32_t offsets[4], blocks[4];
    if (!scanLayout(param, offsets, blocks))
        return JPG_STATUS_BAD_DATA;
    const uint32_t ns = param->scanNs;
    const uint32_t total = param->totalMcus;
    EmptyBlock empty;
    for (uint32_t mcu = 0, row = 0, column = 0; mcu < total; mcu++) {
        int16_t *base = mcuCoefficients(param, mcu);
        for (uint32_t i = 0; i < ns; i++) {
            int16_t *block = base + offsets[i] * kBlock;
            for (uint32_t b = 0; b < blocks[i]; b++, block += kBlock) {
                JpgStatus status = decodeBlock(param, routine, row, block, &param->components[i], &empty);
                if (status != JPG_STATUS_OK)
                    return status;
            }
        }
        param->mcuAddress++;
        if (param->restartInterval != 0 && param->mcuAddress == param->restartInterval && mcu + 1 < total)
            jpgReadEpilogEntropyCodedSegment(param);
        if (++column == param->mcusPerRow) {
            column = 0;
            row++;
        }
    }
    return JPG_STATUS_OK;
}

// Non-interleaved scan (A.2.2): the component's blocks in raster order over
// its own area, ceil(ceil(X * H / Hmax) / 8) blocks wide and likewise high,
// each stored at its place inside the MCU that covers it. The scan's
// bindings sit in component record 0.
JpgStatus decodeSingleComponent(JpgParam *param, JpgCoefficientFunc routine) {
    int c = findFrameComponent(param, param->scanCs);
    if (c < 0)
        return JPG_STATUS_BAD_DATA;
    const uint8_t sampling = param->components[c].sampling;
    const uint32_t h = sampling >> 4, v = sampling & 0x0F;
    const uint32_t offset = blockOffset(param, c);
    const uint64_t wide = ((static_cast<uint64_t>(param->width) * h + param->hmax - 1) / param->hmax + 7) / 8;
    const uint64_t high = ((static_cast<uint64_t>(param->height) * v + param->vmax - 1) / param->vmax + 7) / 8;
    if (wide > static_cast<uint64_t>(param->mcusPerRow) * h || high > static_cast<uint64_t>(param->mcuRows) * v)
        return JPG_STATUS_BAD_DATA;
    EmptyBlock empty;
    for (uint32_t by = 0; by < high; by++) {
        for (uint32_t bx = 0; bx < wide; bx++) {
            size_t mcu = static_cast<size_t>(by / v) * param->mcusPerRow + bx / h;
            int16_t *block = mcuCoefficients(param, mcu) + (offset + (by % v) * h + bx % h) * kBlock;
            JpgStatus status = decodeBlock(param, routine, by / v, block, &param->components[0], &empty);
            if (status != JPG_STATUS_OK)
                return status;
        }
    }
    return JPG_STATUS_OK;
}

// Decodes the scan whose header was read last. Every scan starts with DC
// predictions of zero and no end-of-band run (G.1.2.1, G.1.2.2).
JpgStatus decodeScan(JpgParam *param) {
    if (param->scanSe > kLastZigzag || param->hmax == 0 || param->vmax == 0)
        return JPG_STATUS_BAD_DATA;
    JpgCoefficientFunc routine = param->routines.coefficient;
    if (routine == nullptr)
        routine = progressiveCoefficientRoutine(param->scanSs, param->scanSe, param->scanAh);
    param->eobRun = 0;
    param->mcuAddress = 0;
    for (JpgComponent &comp : param->components)
        comp.dcPred = 0;
    return param->scanNs == 1 ? decodeSingleComponent(param, routine) : decodeInterleaved(param, routine);
}

// Decodes the current scan and then, unless one scan per call was asked
// for, every following scan up to EOI. A decode from the start empties the
// coefficient memory first, so that a scan out of order reads defined values.
JpgStatus decodeScans(JpgParam *param, bool oneScan, bool fromStart) {
    param->processedLines = 0;
    if (param->currentMarker == kMarkerEoi)
        return JPG_STATUS_ERROR;
    if (fromStart)
        forgetRows(param);
    for (;;) {
        JpgStatus status = decodeScan(param);
        if (status != JPG_STATUS_OK)
            return status;
        uint32_t marker = jpgReadShowMarkerCode(param);
        param->currentMarker = marker;
        if (marker < kLowestMarker)
            return JPG_STATUS_ERROR;
        if (marker == kMarkerEoi)
            return JPG_STATUS_OK;
        status = jpgReadParseScanLevel(param);
        if (status != JPG_STATUS_OK || oneScan)
            return status;
    }
}

void convertMcu(JpgParam *param, ComplibRect *strip, int32_t x) {
    param->routines.upsample(param);
    int32_t width = strip->width - x;
    if (width > static_cast<int32_t>(param->mcuWidth))
        width = static_cast<int32_t>(param->mcuWidth);
    if (width > 0)  // an MCU right of the rectangle writes nothing
        kiv::mcuRowConverter(param)(param, strip, x, width);
}

// Reconstructs MCU number index of the image into the buffer given; false
// when the image has no such MCU.
bool reconstruct(JpgParam *param, int16_t *buffer, size_t index) {
    if (index >= param->totalMcus)
        return false;
    param->mcuBuffer = buffer;
    param->dec.coefCursor = mcuCoefficients(param, index);
    param->routines.mcuProgressive(param);
    return true;
}

// One MCU row into the strip, one MCU ahead so that the upsampler sees the
// right-hand neighbour. The look-ahead runs at least once: in a row of one
// MCU it reconstructs the MCU that follows in memory (the next row's first),
// which then serves as the neighbour; the row itself starts at its own MCU.
void outputMcuRow(JpgParam *param, ComplibRect *strip, uint32_t row, int16_t *lower, int16_t *upper) {
    const size_t first = static_cast<size_t>(row) * param->mcusPerRow;
    int16_t *held = lower, *spare = upper;
    reconstruct(param, held, first);
    int32_t x = 0;
    for (uint32_t j = 1; j < param->mcusPerRow || j == 1; j++) {
        bool more = reconstruct(param, spare, first + j);
        param->mcuBuffer = held;
        param->dec.mcuNext = more ? spare : nullptr;
        convertMcu(param, strip, x);
        x += static_cast<int32_t>(param->mcuWidth);
        if (!more) {
            held = nullptr;
            break;
        }
        int16_t *t = held;
        held = spare;
        spare = t;
    }
    if (held != nullptr) {
        param->mcuBuffer = held;
        param->dec.mcuNext = nullptr;
        convertMcu(param, strip, x);
    }
    param->mcuBuffer = lower;
    param->dec.mcuNext = upper;
}

// The converter writes one byte per component and pixel (with colour
// conversion off the rectangle must have exactly that many channels).
bool outputPossible(const JpgParam *param, const ComplibRect *rect) {
    const int32_t channels = static_cast<int32_t>(param->numComponents);
    if (((param->mode & kModeNoColorConversion) && rect->channels != channels) || rect->channels < channels)
        return false;
    return param->routines.mcuProgressive != nullptr && param->routines.upsample != nullptr &&
           param->routines.convert != nullptr;
}

// Delivers rows from the stored coefficients, starting at the MCU row of
// the processed-line counter, into the rectangle from its top row.
JpgStatus outputRows(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    int16_t *lower = param->mcuBuffer < param->dec.mcuNext ? param->mcuBuffer : param->dec.mcuNext;
    int16_t *upper = param->mcuBuffer < param->dec.mcuNext ? param->dec.mcuNext : param->mcuBuffer;
    ComplibRect strip = *rect;
    const uint32_t mcuHeight = param->mcuHeight;
    uint32_t done = 0;
    for (uint32_t row = param->processedLines / mcuHeight; done < rows && row < param->mcuRows; row++) {
        uint32_t lines = rows - done < mcuHeight ? rows - done : mcuHeight;
        int64_t room = static_cast<int64_t>(rect->height) - done;
        if (room <= 0)
            break;
        strip.height = static_cast<int32_t>(lines < room ? lines : room);
        strip.pixels = rect->pixels + static_cast<ptrdiff_t>(rect->stride) * done;
        outputMcuRow(param, &strip, row, lower, upper);
        done += lines;
    }
    param->dec.coefCursor = param->dec.coefBase;
    param->processedLines += rows;
    return JPG_STATUS_OK;
}

}  // namespace

// MCU routine 0x302: dequantizes the MCU at the coefficient cursor into the
// current MCU buffer (natural-order coefficient n times the quantization
// value at zig-zag index n, kept as 16 bits), runs the inverse DCT on every
// block and moves the cursor to the next MCU. An MCU of a row never cleared
// is all zeros and is not read.
JpgStatus readProgressiveMCU(JpgParam *param) {
    const int16_t *source = param->dec.coefCursor;
    const size_t perMcu = coefficientsPerMcu(param);
    if (source == nullptr || param->dec.coefBase == nullptr || param->dec.rowsCleared == nullptr ||
        source < param->dec.coefBase || perMcu == 0 || param->mcusPerRow == 0 ||
        static_cast<size_t>(source - param->dec.coefBase) / perMcu >= param->totalMcus)
        return JPG_STATUS_BAD_DATA;
    const size_t mcu = static_cast<size_t>(source - param->dec.coefBase) / perMcu;
    const bool stored = param->dec.rowsCleared[mcu / param->mcusPerRow] != 0;
    int16_t *target = param->mcuBuffer;
    JpgStatus status = JPG_STATUS_OK;
    uint32_t blocks = 0;
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++) {
        const uint32_t *quant = param->components[c].quant;
        uint32_t count = samplingBlocks(param->components[c].sampling);
        if (quant == nullptr || blocks + count > param->blocksPerMcu)
            return JPG_STATUS_BAD_DATA;
        for (uint32_t b = 0; b < count; b++, blocks++, source += kBlock, target += kBlock) {
            if (stored) {
                for (int n = 0; n < 64; n++)
                    target[n] = static_cast<int16_t>(static_cast<uint32_t>(source[n]) * quant[kNaturalToZigzag[n]]);
            } else {
                memset(target, 0, kBlock * sizeof(int16_t));
            }
            status = jpgReadInverseDCT(target);
        }
    }
    param->dec.coefCursor += perMcu;
    return status;
}

}  // namespace kiv

using namespace kiv;

extern "C" {

JpgStatus jpgReadProgressiveToRect(JpgParam *param, ComplibRect *rect, uint32_t rows, uint32_t flags) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, rows))
        return s;
    if (param->frameMarker != kProgressiveFrame)
        return JPG_STATUS_NOT_SUPPORTED;
    const bool incremental = (flags & JPG_PROGRESSIVE_INCREMENTAL) != 0;
    uint32_t left;
    // The first call of a normal decode or of the first incremental pass.
    const bool fromStart = param->processedLines == 0 && !(param->mode & kModeIncremental);
    if (param->processedLines == 0) {
        if (param->mode & kModeRewind) {
            param->mode &= ~kModeRewind;
            JpgStatus status = jpgReadRewindJPEGFile(param, param->firstScanOffset, 1);
            if (status != JPG_STATUS_OK)
                return status;
        }
        if (incremental)
            param->mode |= kModeIncremental;
        left = param->height;
    } else {
        left = param->height > param->processedLines ? param->height - param->processedLines : 0;
        if (left == 0) {
            // Every row of this pass is out: in incremental mode a new pass begins.
            if (!(param->mode & kModeIncremental))
                return JPG_STATUS_FAILED;
            if (!incremental)
                param->mode &= ~kModeIncremental;
            param->processedLines = 0;
            left = param->height;
        }
    }
    if (left < 1)
        return JPG_STATUS_FAILED;
    if (!geometryUsable(param))
        return JPG_STATUS_BAD_DATA;
    // Checked before any scan is decoded, so that a refused call changes nothing.
    if (!outputPossible(param, rect))
        return JPG_STATUS_NOT_SUPPORTED;
    const uint32_t deliver = rows < left ? rows : left;
    if (param->processedLines == 0) {
        JpgStatus status = decodeScans(param, incremental, fromStart);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return outputRows(param, rect, deliver);
}

// The input is complete once the driver has met EOI after the last scan.
JpgStatus jpgReadProgressiveIsCompleted(JpgParam *param, uint32_t *completed) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (completed == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->frameMarker != kProgressiveFrame)
        return JPG_STATUS_NOT_SUPPORTED;
    *completed = param->currentMarker == kMarkerEoi ? 1 : 0;
    return JPG_STATUS_OK;
}

}  // extern "C"
