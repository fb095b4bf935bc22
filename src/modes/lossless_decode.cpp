// Lossless decoding (ISO/IEC 10918-1 Annex H): turns the entropy-coded rows of
// an SOF3 scan into interleaved samples (sample x of component c at x * Nc + c)
// of P - Pt bits, one byte a sample up to 8 bits and two above. A sample is
// its prediction (Table H.1) plus a Huffman-coded difference (H.1.2.2); the
// first row of the image and of every restart interval is predicted from the
// left only. Invariant: the rectangle is checked to hold every row before the
// first sample is written, and a row never holds more than width x Nc samples.
#include <string.h>

#include "core/api_checks.h"
#include "core/codec.h"
#include "core/tables.h"
#include "modes/lossless_predictors.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace kiv {
namespace {

constexpr uint32_t kSof3 = 0xFFC3;
constexpr uint32_t kNoCode = 0xFFFF0000;  // lookup entry of a window that is no code
constexpr uint32_t kEoi = 0xFFD9;

// The lookup entry for the 16-bit window: the first level when the window's
// code is short enough for it, the second otherwise; kNoCode when neither
// holds the window.
inline uint32_t lookupEntry(const JpgHuffmanTable &table, uint32_t window) {
    const JpgHuffLevel &first = table.level[0];
    uint32_t index = (window & first.mask) >> first.shift;
    if (index < first.limit)
        return index < first.count ? first.entries[index] : kNoCode;
    const JpgHuffLevel &second = table.level[1];
    index = (window & second.mask) >> second.shift;
    return second.entries != nullptr && index < second.count ? second.entries[index] : kNoCode;
}

// One difference (H.1.2.2): category SSSS by Huffman code, then SSSS extra
// bits extended to a signed value (F.2.2.1). A first-level entry may carry the
// extended value itself. SSSS = 16 is the difference 32768 with no extra bits.
inline JpgStatus decodeDifference(BitState &bits, const JpgHuffmanTable &table, int32_t *diff) {
    bits.need(16);
    uint32_t entry = lookupEntry(table, bits.peek(16));
    uint32_t length = entry & 0xFF;
    if (entry == kNoCode || length == 0 || length > 16)
        return JPG_STATUS_FAILED;
    bits.skip(static_cast<int32_t>(length));
    int32_t value = static_cast<int32_t>(entry) >> 16;
    if (value == 0) {
        uint32_t category = (entry >> 8) & 0xFF;
        int size = static_cast<int>(category & 0xF);
        if (size != 0)
            value = extend(static_cast<int32_t>(bits.receive(size)), size);
        else if (category != 0)
            value = 32768;
    }
    *diff = value;
    return JPG_STATUS_OK;
}

// Per-row context: the difference table of every component and the mask
// of the P - Pt bits a sample keeps.
struct RowContext {
    JpgParam *param;
    const JpgHuffmanTable *tables[4];
    uint32_t components;
    uint32_t width;
    int32_t mask;
};

// A reconstructed sample: prediction plus difference, kept to P - Pt bits.
// Valid streams never leave that range; keeping to it also decodes streams
// whose encoders take differences modulo 2^P, as some do.
template <typename Sample>
inline Sample reconstruct(const RowContext &ctx, int32_t prediction, int32_t diff) {
    return static_cast<Sample>((prediction + diff) & ctx.mask);
}

// Row routines for one sample width; Loop<P>::run codes columns 1 to
// width - 1 of a row with predictor P from the row above (prev).
template <typename Sample>
struct Rows {
    template <int Predictor>
    struct Loop {
        static JpgStatus run(const RowContext &ctx, Sample *row, const Sample *prev) {
            BitState bits(ctx.param);
            JpgStatus status = columns(ctx, bits, row, prev);
            bits.store();
            return status;
        }
        static JpgStatus columns(const RowContext &ctx, BitState &bits, Sample *row, const Sample *prev) {
            const uint32_t nc = ctx.components;
            Sample *out = row + nc;
            const Sample *above = prev + nc;
            for (uint32_t x = 1; x < ctx.width; x++) {
                for (uint32_t c = 0; c < nc; c++, out++, above++) {
                    int32_t diff;
                    JpgStatus status = decodeDifference(bits, *ctx.tables[c], &diff);
                    if (status != JPG_STATUS_OK)
                        return status;
                    int32_t ra = out[-static_cast<int32_t>(nc)];
                    int32_t rb = 0, rc = 0;
                    if constexpr (Predictor != 1) {
                        rb = above[0];
                        rc = above[-static_cast<int32_t>(nc)];
                    }
                    *out = reconstruct<Sample>(ctx, predict<Predictor>(ra, rb, rc), diff);
                }
            }
            return JPG_STATUS_OK;
        }
    };
    using LoopFn = JpgStatus (*)(const RowContext &, Sample *, const Sample *);

    // First column: each component's sample from base[c] + difference.
    static JpgStatus firstColumn(const RowContext &ctx, Sample *row, const int32_t *base) {
        BitState bits(ctx.param);
        JpgStatus status = JPG_STATUS_OK;
        for (uint32_t c = 0; c < ctx.components && status == JPG_STATUS_OK; c++) {
            int32_t diff;
            status = decodeDifference(bits, *ctx.tables[c], &diff);
            if (status == JPG_STATUS_OK)
                row[c] = reconstruct<Sample>(ctx, base[c], diff);
        }
        bits.store();
        return status;
    }

    // First row of the image or of a restart interval (H.1.2.1): the first
    // sample is predicted by 2^(P - Pt - 1), every later one by its left
    // neighbour.
    static JpgStatus firstRow(const RowContext &ctx, Sample *row) {
        const JpgParam *param = ctx.param;
        int32_t initial = 1 << (param->precision - param->scanAl - 1);
        int32_t base[4] = {initial, initial, initial, initial};
        JpgStatus status = firstColumn(ctx, row, base);
        return status != JPG_STATUS_OK ? status : Loop<1>::run(ctx, row, row);
    }

    // Any other row: the first column is predicted from above, the rest
    // with the scan's predictor, checked once the first column is written.
    static JpgStatus predictedRow(const RowContext &ctx, Sample *row, const Sample *prev) {
        int32_t base[4];
        for (uint32_t c = 0; c < ctx.components; c++)
            base[c] = prev[c];
        JpgStatus status = firstColumn(ctx, row, base);
        if (status != JPG_STATUS_OK)
            return status;
        uint32_t predictor = ctx.param->scanSs;
        if (predictor < kFirstPredictor || predictor > kLastPredictor)
            return JPG_STATUS_INVALID_PARAMETER;
        return kPredictorLoops<Loop, LoopFn>[predictor](ctx, row, prev);
    }
};

// After each row: count its samples towards the restart interval; at the
// end of an interval the next row starts afresh behind its RSTn marker
// (the restart mechanism of every scan kind), or the scan ends at EOI. The
// count is compared for equality, so an interval that is not whole rows
// never fires (the standard requires lossless intervals to be whole rows).
void finishRow(JpgParam *param) {
    param->mcuAddress += param->width;
    if (param->restartInterval == 0 || param->mcuAddress != param->restartInterval)
        return;
    param->mode |= kModeFirstRow;
    if (!startNextInterval(param) && jpgReadShowMarkerCode(param) == kEoi)
        param->currentMarker = kEoi;
}

template <typename Sample>
JpgStatus decodeRows(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    RowContext ctx{param, {}, param->numComponents, param->width,
                   static_cast<int32_t>((1u << (param->precision - param->scanAl)) - 1)};
    for (uint32_t c = 0; c < ctx.components; c++)
        ctx.tables[c] = param->components[c].dcTable;
    uint8_t *out = rect->pixels;
    const Sample *prev = reinterpret_cast<const Sample *>(param->losslessLine);
    for (uint32_t r = 0; r < rows; r++) {
        Sample *row = reinterpret_cast<Sample *>(out);
        JpgStatus status;
        if (param->mode & kModeFirstRow) {
            param->mode &= ~kModeFirstRow;
            status = Rows<Sample>::firstRow(ctx, row);
        } else {
            status = Rows<Sample>::predictedRow(ctx, row, prev);
        }
        if (status != JPG_STATUS_OK)
            return status;
        finishRow(param);
        param->processedLines++;
        prev = row;
        out += rect->stride;
    }
    if (rows > 0)
        memcpy(param->losslessLine, prev, sizeof(Sample) * ctx.width * ctx.components);
    return JPG_STATUS_OK;
}

// The frame and scan must fit the row layout: 1 to 4 components, every one
// sampled 1x1 when there are several, all of them in this scan in frame
// order, each with a defined difference table, and a point transform below
// the precision.
JpgStatus checkFrame(const JpgParam *param) {
    uint32_t nc = param->numComponents;
    if (nc < 1 || nc > 4 || param->width == 0 || param->scanAl >= param->precision)
        return JPG_STATUS_BAD_DATA;
    if (param->scanNs != nc)
        return JPG_STATUS_NOT_SUPPORTED;
    for (uint32_t i = 0; i < nc; i++)  // rows interleave the samples in frame order
        if (param->dec.scanComponents[i] != i)
            return JPG_STATUS_NOT_SUPPORTED;
    for (uint32_t c = 0; c < nc; c++) {
        const JpgComponent &comp = param->components[c];
        if (nc > 1 && comp.sampling != 0x11)
            return JPG_STATUS_NOT_SUPPORTED;
        if (comp.dcTable == nullptr || comp.dcTable->level[0].entries == nullptr)
            return JPG_STATUS_BAD_DATA;
    }
    return JPG_STATUS_OK;
}

// The rectangle must take `rows` rows of width x Nc samples of the output
// sample size, with every row inside its allocation when that is known.
JpgStatus checkRect(const JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    uint32_t sampleBytes = param->precision > 8 ? 2 : 1;
    if (rect->channels < static_cast<int32_t>(param->numComponents) ||
        static_cast<uint32_t>((rect->sampleBits + 7) / 8) != sampleBytes)
        return JPG_STATUS_NOT_SUPPORTED;
    int64_t span = static_cast<int64_t>(param->width) * param->numComponents * sampleBytes;
    int64_t stride = rect->stride;
    int64_t reach = stride < 0 ? -stride : stride;
    if (rect->width < 0 || static_cast<uint32_t>(rect->width) < param->width || reach < span ||
        rect->height < 0 || static_cast<uint32_t>(rect->height) < rows)
        return JPG_STATUS_INVALID_PARAMETER;
    if (sampleBytes == 2 && ((stride & 1) != 0 || (reinterpret_cast<uintptr_t>(rect->pixels) & 1) != 0))
        return JPG_STATUS_INVALID_PARAMETER;
    if (rows > 0 && rect->allocSize != 0 && stride > 0 &&
        (static_cast<int64_t>(rows) - 1) * stride + span > rect->allocSize)
        return JPG_STATUS_INVALID_PARAMETER;
    return JPG_STATUS_OK;
}

// The previous-row buffer normally comes from the header parser; a handle
// without one gets it here (owned by the handle, freed by its epilog).
JpgStatus ensurePreviousRow(JpgParam *param) {
    if (param->losslessLine != nullptr)
        return JPG_STATUS_OK;
    uint64_t bytes = (static_cast<uint64_t>(param->width) * param->numComponents * 2 + 3) & ~3ull;
    if (bytes > 0xFFFFFFFFu)
        return JPG_STATUS_NO_MEMORY;
    param->losslessLine = static_cast<uint8_t *>(jpgMemAlloc(param, static_cast<uint32_t>(bytes)));
    return param->losslessLine != nullptr ? JPG_STATUS_OK : JPG_STATUS_NO_MEMORY;
}

}  // namespace
}  // namespace kiv

using namespace kiv;

extern "C" {

JpgStatus jpgReadSpatialToRect(JpgParam *param, ComplibRect *rect, uint32_t rows) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (JpgStatus s = kiv::checkDecodeRect(param, rect, rows))
        return s;
    if ((param->mode & kModeRead) == 0)
        return JPG_STATUS_INVALID_HANDLE;
    if (param->frameMarker != kSof3)
        return JPG_STATUS_NOT_SUPPORTED;
    if (param->height != 0) {
        if (param->processedLines >= param->height)
            return JPG_STATUS_FAILED;
        uint32_t left = param->height - param->processedLines;
        rows = rows < left ? rows : left;
    }
    if (param->precision < 2 || param->precision > 16)
        return JPG_STATUS_BAD_DATA;
    JpgStatus status = checkFrame(param);
    if (status == JPG_STATUS_OK)
        status = checkRect(param, rect, rows);
    if (status == JPG_STATUS_OK)
        status = ensurePreviousRow(param);
    if (status != JPG_STATUS_OK)
        return status;
    return param->precision > 8 ? decodeRows<uint16_t>(param, rect, rows)
                                : decodeRows<uint8_t>(param, rect, rows);
}

JpgStatus jpgReadGetSpatialDifference(JpgParam *param, JpgComponent *comp, int32_t *difference) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (comp == nullptr || difference == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    const JpgHuffmanTable *table = comp->dcTable;
    if (table == nullptr || table->level[0].entries == nullptr)
        return JPG_STATUS_FAILED;
    BitState bits(param);
    JpgStatus status = decodeDifference(bits, *table, difference);
    bits.store();
    return status;
}

// The index names one of the four component records; others are refused
// rather than read outside the records.
JpgStatus jpgReadGetSpatialDifferenceAtIndex(JpgParam *param, int32_t *difference, uint32_t index) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (difference == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (index >= 4)
        return JPG_STATUS_INVALID_PARAMETER;
    return jpgReadGetSpatialDifference(param, &param->components[index], difference);
}

JpgStatus jpgReadGetPointTransform(JpgParam *param, uint32_t *pt) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (pt == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *pt = param->scanAl;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetSpatialPrevLine(JpgParam *param, void **line) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (line == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *line = param->losslessLine;
    return JPG_STATUS_OK;
}

// The flag as stored: kModeFirstRow (0x4000000) or 0.
JpgStatus jpgReadGetSpatialFirstLine(JpgParam *param, uint32_t *flag) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (flag == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *flag = param->mode & kModeFirstRow;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadSetSpatialFirstLine(JpgParam *param, uint32_t flag) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (flag != 0)
        param->mode |= kModeFirstRow;
    else
        param->mode &= ~kModeFirstRow;
    return JPG_STATUS_OK;
}

}  // extern "C"
