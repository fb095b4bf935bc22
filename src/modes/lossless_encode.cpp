// Lossless encoding (ISO/IEC 10918-1 Annex H): takes rows of a rectangle
// (interleaved samples of P bits, one byte a sample up to 8 bits, two above)
// and writes an SOF3 stream with one interleaved scan, a fixed Huffman table,
// no point transform and the handle's predictor (Table H.1). Differences are
// taken modulo 2^16 (H.1.2.1) and coded as category and extra bits (H.1.2.2).
// Invariant: the previous row is kept in the handle's spare buffer, so rows
// may be handed over in any batch size and the result is the same stream.
#include <string.h>

#include "core/api_checks.h"
#include "core/codec.h"
#include "modes/lossless_predictors.h"

namespace kiv {
namespace {

constexpr uint32_t kSof3 = 0xFFC3;
constexpr int32_t kDht = 0xFFC4;
constexpr int32_t kDri = 0xFFDD;
constexpr int32_t kSos = 0xFFDA;
constexpr int32_t kRst0 = 0xFFD0;

// Differences -2047..+2047 are coded through a lookup centred on 0.
constexpr int32_t kLookupReach = 2047;
constexpr uint32_t kLookupEntries = 2 * kLookupReach + 1;

// The encoder's own Huffman tables for differences. Up to 8 bits: the Annex
// K.3 luminance DC table (categories 0 to 11); above: the same code lengths
// extended to categories 0 to 16.
struct DefaultTable {
    uint8_t bits[16];
    uint32_t count;
};
constexpr DefaultTable kTable8 = {{0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, 12};
constexpr DefaultTable kTable16 = {{0, 1, 5, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0}, 17};

constexpr uint32_t bitsSum(const DefaultTable &t) {
    uint32_t sum = 0;
    for (uint8_t b : t.bits)
        sum += b;
    return sum;
}
static_assert(bitsSum(kTable8) == kTable8.count && bitsSum(kTable16) == kTable16.count);

// Category SSSS of a difference: the number of significant bits of |d|.
constexpr int category(int32_t d) {
    uint32_t m = d < 0 ? static_cast<uint32_t>(-d) : static_cast<uint32_t>(d);
    int n = 0;
    for (; m != 0; m >>= 1)
        n++;
    return n;
}

// The SSSS extra bits of d: d itself when positive, else the low SSSS bits
// of d - 1 (F.1.2.1, the one's complement of |d|).
constexpr uint32_t extraBits(int32_t d) {
    int n = category(d);
    return d >= 0 ? static_cast<uint32_t>(d) : static_cast<uint32_t>(d + (1 << n) - 1);
}
static_assert(category(0) == 0 && category(-1) == 1 && category(2047) == 11 && category(32768) == 16);
static_assert(extraBits(-1) == 0 && extraBits(1) == 1 && extraBits(-3) == 0 && extraBits(-2) == 1);

// Code and length of the symbol at `position` of a table's value list,
// assigned canonically from BITS (Annex C, Figures C.1 and C.2).
bool codeAt(const uint8_t *bits, uint32_t position, uint32_t *code, uint32_t *length) {
    uint32_t next = 0, index = 0;
    for (uint32_t len = 1; len <= 16; len++, next <<= 1) {
        for (uint32_t k = 0; k < bits[len - 1]; k++, next++, index++) {
            if (index == position) {
                *code = next;
                *length = len;
                return true;
            }
        }
    }
    return false;
}

// --- Bit output ---------------------------------------------------------

// Appends n bits; the bit writer takes over when the accumulator fills.
inline JpgStatus putBits(ComplibBitstream *bs, uint32_t bits, int32_t n) {
    if (n < bs->bitCount) {
        bs->accumulator = (bs->accumulator << n) | bits;
        bs->bitCount -= n;
        return JPG_STATUS_OK;
    }
    return jpgWritePutBits(bs, bits, n);
}

// Code and length of each category 0..16 (length 0 when the table has none).
struct CategoryCodes {
    uint32_t code[17];
    uint32_t length[17];
};

// The categories' codes regenerated from the BITS of a table whose values
// list the categories in order, as the default tables do.
CategoryCodes categoryCodes(const uint8_t *bits) {
    CategoryCodes t{};
    for (uint32_t n = 0; n <= 16; n++)
        if (!codeAt(bits, n, &t.code[n], &t.length[n]))
            t.length[n] = 0;
    return t;
}

struct EncodeContext {
    JpgParam *param;
    ComplibBitstream *bs;
    const JpgDcDiff *diffs[4];  // per component, centred on difference 0
    CategoryCodes large;        // for differences beyond the lookups
    uint32_t components;
    uint32_t width;
};

// Differences beyond the lookup (16-bit samples with large jumps only): the
// code of the category, then the extra bits; category 16 (the difference
// 32768) has none.
[[gnu::noinline]] JpgStatus putLargeDifference(const EncodeContext &ctx, int32_t diff) {
    int n = category(diff);
    uint32_t code = ctx.large.code[n], length = ctx.large.length[n];
    if (length == 0)
        return JPG_STATUS_FAILED;
    if (n == 16)
        return putBits(ctx.bs, code, static_cast<int32_t>(length));
    return putBits(ctx.bs, (code << n) | extraBits(diff), static_cast<int32_t>(length) + n);
}

inline JpgStatus putDifference(const EncodeContext &ctx, uint32_t c, int32_t diff) {
    if (diff < -kLookupReach || diff > kLookupReach)
        return putLargeDifference(ctx, diff);
    const JpgDcDiff &e = ctx.diffs[c][diff];
    return putBits(ctx.bs, e.bits, static_cast<int32_t>(e.length));
}

// A difference reduced modulo 2^16 into -32767..+32768 (H.1.2.1).
constexpr int32_t modulo16(int32_t d) { return ((d + 32767) & 0xFFFF) - 32767; }
static_assert(modulo16(-32768) == 32768 && modulo16(65535) == -1 && modulo16(-65535) == 1);

// --- Row routines ---------------------------------------------------------

template <typename Sample>
struct Rows {
    template <int Predictor>
    struct Loop {
        static JpgStatus run(const EncodeContext &ctx, const Sample *row, const Sample *prev) {
            const uint32_t nc = ctx.components;
            const Sample *in = row + nc;
            const Sample *above = prev + nc;
            for (uint32_t x = 1; x < ctx.width; x++) {
                for (uint32_t c = 0; c < nc; c++, in++, above++) {
                    int32_t ra = in[-static_cast<int32_t>(nc)];
                    int32_t rb = 0, rc = 0;
                    if constexpr (Predictor != 1) {
                        rb = above[0];
                        rc = above[-static_cast<int32_t>(nc)];
                    }
                    int32_t diff = modulo16(static_cast<int32_t>(*in) - predict<Predictor>(ra, rb, rc));
                    JpgStatus status = putDifference(ctx, c, diff);
                    if (status != JPG_STATUS_OK)
                        return status;
                }
            }
            return JPG_STATUS_OK;
        }
    };
    using LoopFn = JpgStatus (*)(const EncodeContext &, const Sample *, const Sample *);

    static JpgStatus firstColumn(const EncodeContext &ctx, const Sample *row, const int32_t *base) {
        for (uint32_t c = 0; c < ctx.components; c++) {
            JpgStatus status = putDifference(ctx, c, modulo16(static_cast<int32_t>(row[c]) - base[c]));
            if (status != JPG_STATUS_OK)
                return status;
        }
        return JPG_STATUS_OK;
    }

    // First row of the image or of a restart interval: 2^(P - 1) predicts
    // the first sample, the left neighbour every later one.
    static JpgStatus firstRow(const EncodeContext &ctx, const Sample *row) {
        int32_t initial = 1 << (ctx.param->precision - 1);
        int32_t base[4] = {initial, initial, initial, initial};
        JpgStatus status = firstColumn(ctx, row, base);
        return status != JPG_STATUS_OK ? status : Loop<1>::run(ctx, row, row);
    }

    // Any other row: the first column from above, the rest with the
    // predictor. With a predictor selection outside 1..7 only the first
    // column is coded and the row still succeeds (a lenient encoder; the
    // decoder refuses such a stream).
    static JpgStatus predictedRow(const EncodeContext &ctx, const Sample *row, const Sample *prev) {
        int32_t base[4];
        for (uint32_t c = 0; c < ctx.components; c++)
            base[c] = prev[c];
        JpgStatus status = firstColumn(ctx, row, base);
        uint32_t predictor = ctx.param->scanSs;
        if (status != JPG_STATUS_OK || predictor < kFirstPredictor || predictor > kLastPredictor)
            return status;
        return kPredictorLoops<Loop, LoopFn>[predictor](ctx, row, prev);
    }
};

// --- Headers --------------------------------------------------------------

JpgStatus writeSegment(JpgParam *param, int32_t code, const uint8_t *body, uint32_t length) {
    JpgStatus status = jpgWriteWriteMarkerCode(param, code, length);
    return status != JPG_STATUS_OK ? status : jpgWriteWriteMarkerData(param, body, length, nullptr);
}

// The difference-code lookup of one DC table set: for each d in
// -2047..+2047 the code of its category followed by its extra bits.
JpgStatus fillDifferenceLookup(JpgParam *param, JpgHuffmanTable &table) {
    if (table.encoderTable == nullptr)
        table.encoderTable = jpgMemAlloc(param, kLookupEntries * sizeof(JpgDcDiff));
    if (table.encoderTable == nullptr)
        return JPG_STATUS_NO_MEMORY;
    JpgHuffmanCode byCategory[17] = {};
    for (const JpgHuffmanCode *e = table.codes; e->length != 0; e++) {
        if (e->symbol < 17)
            byCategory[e->symbol] = *e;
    }
    auto *lookup = static_cast<JpgDcDiff *>(table.encoderTable);
    for (int32_t d = -kLookupReach; d <= kLookupReach; d++) {
        const JpgHuffmanCode &code = byCategory[category(d)];
        int n = category(d);
        lookup[d + kLookupReach] = {code.length + static_cast<uint32_t>(n), (code.code << n) | extraBits(d)};
    }
    return JPG_STATUS_OK;
}

// Builds the four default table sets (DC 0, DC 1, AC 0, AC 1), the
// difference lookups of the DC sets, and writes the one DHT segment the
// stream needs (DC table 0); the intermediate code lists are released.
JpgStatus writeTables(JpgParam *param) {
    const DefaultTable &t = param->precision > 8 ? kTable16 : kTable8;
    for (int k = 0; k < 4; k++) {
        uint8_t *table = param->enc.huffDefinitions[k];
        memcpy(table, t.bits, 16);
        for (uint32_t v = 0; v < t.count; v++)
            table[16 + v] = static_cast<uint8_t>(v);
        table[272] = static_cast<uint8_t>((k / 2) << 4 | (k % 2));
        JpgStatus status = jpgGenerateHuffmanTable(param, table, t.count);
        if (status != JPG_STATUS_OK)
            return status;
    }
    JpgStatus status = jpgWriteSortHuffmanTable(param);
    for (JpgHuffmanTable &table : param->dcTables) {
        if (status == JPG_STATUS_OK && table.codes != nullptr)
            status = fillDifferenceLookup(param, table);
    }
    if (status != JPG_STATUS_OK)
        return status;
    uint8_t body[17 + 17];
    body[0] = 0x00;
    memcpy(body + 1, param->enc.huffDefinitions[0], 16 + t.count);
    status = writeSegment(param, kDht, body, 17 + t.count);
    auto release = [param](JpgHuffmanTable &table) {
        jpgMemFree(param, table.codes);
        table.codes = nullptr;
        jpgMemFree(param, table.symbolIndex);
        table.symbolIndex = nullptr;
    };
    for (int id = 0; id < 4; id++) {
        release(param->dcTables[id]);
        release(param->acTables[id]);
    }
    return status;
}

// SOF3, DRI (with a restart interval) and SOS: component i has identifier
// i, sampling 1x1 and table 0; Ss is the predictor, Se, Ah and Al are 0.
JpgStatus writeFrameAndScan(JpgParam *param) {
    uint32_t nc = param->numComponents;
    uint8_t sof[6 + 3 * 4] = {static_cast<uint8_t>(param->precision),
                              static_cast<uint8_t>(param->height >> 8), static_cast<uint8_t>(param->height),
                              static_cast<uint8_t>(param->width >> 8), static_cast<uint8_t>(param->width),
                              static_cast<uint8_t>(nc)};
    uint8_t sos[4 + 2 * 4] = {static_cast<uint8_t>(nc)};
    for (uint32_t i = 0; i < nc; i++) {
        sof[6 + 3 * i] = static_cast<uint8_t>(i);
        sof[7 + 3 * i] = 0x11;
        sof[8 + 3 * i] = 0;
        sos[1 + 2 * i] = static_cast<uint8_t>(i);
        sos[2 + 2 * i] = 0x00;
    }
    sos[1 + 2 * nc] = param->scanSs;
    sos[2 + 2 * nc] = 0;
    sos[3 + 2 * nc] = 0;
    JpgStatus status = writeSegment(param, static_cast<int32_t>(kSof3), sof, 6 + 3 * nc);
    if (status == JPG_STATUS_OK && param->restartInterval != 0) {
        uint8_t dri[2] = {static_cast<uint8_t>(param->restartInterval >> 8),
                          static_cast<uint8_t>(param->restartInterval)};
        status = writeSegment(param, kDri, dri, 2);
    }
    return status != JPG_STATUS_OK ? status : writeSegment(param, kSos, sos, 4 + 2 * nc);
}

// --- Driver ---------------------------------------------------------------

uint32_t sampleBytes(uint32_t precision) { return precision > 8 ? 2 : 1; }

// The frame a lossless stream takes from its first rectangle.
struct Frame {
    uint32_t width, height, components, precision;
};

// First call: the frame is taken from the rectangle (the height only when
// none was set) and checked against what the stream can express.
JpgStatus frameFromRect(const JpgParam *param, const ComplibRect *rect, Frame *frame) {
    uint32_t height = param->height != 0 ? param->height : static_cast<uint32_t>(rect->height);
    if (rect->sampleBits < 2 || rect->sampleBits > 16 || rect->channels < 1 || rect->channels > 4 ||
        rect->width < 1 || rect->width > 0xFFFF || rect->height < 1 || height > 0xFFFF)
        return JPG_STATUS_INVALID_PARAMETER;
    // Lossless restart intervals must be whole rows (H.1.1).
    if (param->restartInterval % static_cast<uint32_t>(rect->width) != 0)
        return JPG_STATUS_INVALID_PARAMETER;
    *frame = {static_cast<uint32_t>(rect->width), height, static_cast<uint32_t>(rect->channels),
              static_cast<uint32_t>(rect->sampleBits)};
    return JPG_STATUS_OK;
}

// The rectangle can deliver `rows` rows of the frame's layout: the shared
// check with the frame's channels and precision, 16-bit samples aligned.
JpgStatus checkSource(const Frame &frame, const ComplibRect *rect, uint32_t rows) {
    kiv::RectNeeds needs;
    needs.rows = rows;
    needs.minChannels = needs.maxChannels = static_cast<int32_t>(frame.components);
    needs.minSampleBits = needs.maxSampleBits = static_cast<int32_t>(frame.precision);
    needs.bottomUp = true;
    if (JpgStatus status = kiv::checkRect(rect, needs))
        return status;
    if (static_cast<uint32_t>(rect->width) != frame.width)
        return JPG_STATUS_INVALID_PARAMETER;
    if (sampleBytes(frame.precision) == 2 &&
        ((rect->stride & 1) != 0 || (reinterpret_cast<uintptr_t>(rect->pixels) & 1) != 0))
        return JPG_STATUS_INVALID_PARAMETER;
    return JPG_STATUS_OK;
}

JpgStatus writeHeaders(JpgParam *param) {
    param->mode |= kModeFirstRow;
    param->mcuAddress = 0;
    param->processedLines = 0;
    JpgStatus status = writeTables(param);
    if (status == JPG_STATUS_OK)
        status = writeFrameAndScan(param);
    if (status != JPG_STATUS_OK)
        return status;
    auto *lookup = static_cast<const JpgDcDiff *>(param->dcTables[0].encoderTable);
    for (uint32_t i = 0; i < param->numComponents; i++) {
        JpgComponent &comp = param->components[i];
        comp.id = static_cast<uint8_t>(i);
        comp.sampling = 0x11;
        comp.quantSelector = comp.dcSelector = comp.acSelector = 0;
        comp.dcTable = &param->dcTables[0];
        comp.dcDiff = lookup + kLookupReach;
    }
    param->frameMarker = kSof3;
    return JPG_STATUS_OK;
}

// After each row: at the end of a restart interval the next row starts
// afresh and RSTn follows, except behind the last row of the image.
JpgStatus finishRow(JpgParam *param) {
    param->mcuAddress += param->width;
    if (param->restartInterval == 0 || param->mcuAddress != param->restartInterval)
        return JPG_STATUS_OK;
    param->mode |= kModeFirstRow;
    param->mcuAddress = 0;
    if (param->processedLines + 1 >= param->height)
        return JPG_STATUS_OK;
    JpgStatus status = jpgWritePutMarkerCode(&param->bs, kRst0 + static_cast<int32_t>(param->enc.restartNumber));
    param->enc.restartNumber = (param->enc.restartNumber + 1) & 7;
    return status;
}

template <typename Sample>
JpgStatus encodeRows(JpgParam *param, const ComplibRect *rect, uint32_t rows) {
    EncodeContext ctx{param,      &param->bs, {}, categoryCodes(param->enc.huffDefinitions[0]),
                      param->numComponents, param->width};
    for (uint32_t c = 0; c < ctx.components; c++)
        ctx.diffs[c] = param->components[c].dcDiff;
    const uint8_t *in = rect->pixels;
    const Sample *prev = reinterpret_cast<const Sample *>(param->spareBuffer);
    for (uint32_t r = 0; r < rows; r++) {
        const Sample *row = reinterpret_cast<const Sample *>(in);
        JpgStatus status;
        if (param->mode & kModeFirstRow) {
            param->mode &= ~kModeFirstRow;
            status = Rows<Sample>::firstRow(ctx, row);
        } else {
            status = Rows<Sample>::predictedRow(ctx, row, prev);
        }
        if (status == JPG_STATUS_OK)
            status = finishRow(param);
        if (status != JPG_STATUS_OK)
            return status;
        param->processedLines++;
        prev = row;
        in += rect->stride;
    }
    if (param->processedLines >= param->height) {
        jpgMemFree(param, param->spareBuffer);
        param->spareBuffer = nullptr;
    } else {
        memcpy(param->spareBuffer, prev, sizeof(Sample) * ctx.width * ctx.components);
    }
    return JPG_STATUS_OK;
}

}  // namespace
}  // namespace kiv

using namespace kiv;

extern "C" {

JpgStatus jpgWriteSpatialFromRect(JpgParam *param, const ComplibRect *rect, int32_t rows) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (rect == nullptr || rect->pixels == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (rows <= 0)
        return JPG_STATUS_INVALID_PARAMETER;
    bool first = param->frameMarker != kSof3;
    if (first && (param->enc.rowsEncoded != 0 || (param->mode & kModeHeadersWritten)))
        return JPG_STATUS_NOT_SUPPORTED;  // a baseline frame is already under way
    Frame frame{param->width, param->height, param->numComponents, param->precision};
    JpgStatus status = JPG_STATUS_OK;
    if (first)
        status = frameFromRect(param, rect, &frame);
    else if (param->processedLines >= param->height)
        status = JPG_STATUS_INVALID_PARAMETER;
    uint32_t left = frame.height - (first ? 0 : param->processedLines);
    uint32_t count = static_cast<uint32_t>(rows) < left ? static_cast<uint32_t>(rows) : left;
    if (status == JPG_STATUS_OK)
        status = checkSource(frame, rect, count);
    if (status != JPG_STATUS_OK)
        return status;
    if (first) {
        param->width = frame.width;
        param->height = frame.height;
        param->numComponents = frame.components;
        param->precision = frame.precision;
        status = writeHeaders(param);
        if (status != JPG_STATUS_OK)
            return status;
    }
    uint32_t span = param->width * param->numComponents * sampleBytes(param->precision);
    if (param->spareBuffer == nullptr)
        param->spareBuffer = static_cast<uint8_t *>(jpgMemAlloc(param, span));
    if (param->spareBuffer == nullptr)
        return JPG_STATUS_NO_MEMORY;
    return param->precision > 8 ? encodeRows<uint16_t>(param, rect, count)
                                : encodeRows<uint8_t>(param, rect, count);
}

}  // extern "C"
