// Quantization and Huffman table creation of the baseline encoder: scales
// the base quantization tables (ISO/IEC 10918-1 Annex K.1, K.2) by the
// quality factor and writes them as one DQT segment, builds the four Huffman
// tables of Annex K.3 to K.6 as one DHT segment and as the direct lookups of
// the MCU encoder, fixes the frame geometry and writes SOF0, DRI and SOS.
#include <string.h>

#include "core/api_checks.h"
#include "core/tables.h"
#include "write/encoder.h"

namespace {

// Annex K, Table K.1 (luminance) and Table K.2 (chrominance), row-major.
constexpr uint8_t kBaseQuant[2][64] = {
    {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
     14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
     18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
     49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99},
    {17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
     24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
     99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
     99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99}};

using kiv::bitsSum;
using kiv::kAnnexKHuffman;

// The base tables in the zig-zag order in which they are kept and written.
constexpr kiv::Table<uint8_t, 128> makeZigzagQuant() {
    kiv::Table<uint8_t, 128> t{};
    for (int table = 0; table < 2; table++)
        for (int k = 0; k < 64; k++)
            t.v[64 * table + k] = kBaseQuant[table][kiv::kZigzag[k]];
    return t;
}
constexpr auto kZigzagQuant = makeZigzagQuant();
static_assert(kZigzagQuant[0] == 16 && kZigzagQuant[2] == 12 && kZigzagQuant[64] == 17);

// The fixed fine table pair (encoder flag bit 0), zig-zag order.
constexpr kiv::Table<uint8_t, 128> makeFineQuant() {
    constexpr uint8_t kTail0[30] = {2, 2, 2, 2, 2, 2, 2, 2, 1, 1, 2, 3, 2, 2, 2,
                                    3, 3, 3, 3, 1, 2, 3, 3, 3, 3, 3, 2, 3, 3, 3};
    kiv::Table<uint8_t, 128> t{};
    t.v[0] = 4;
    for (int k = 1; k < 34; k++)
        t.v[k] = 1;
    for (int k = 0; k < 30; k++)
        t.v[34 + k] = kTail0[k];
    constexpr uint8_t kHead1[4] = {3, 2, 1, 2};
    t.v[64] = 4;
    for (int k = 1; k < 10; k++)
        t.v[64 + k] = 1;
    for (int k = 0; k < 4; k++)
        t.v[74 + k] = kHead1[k];
    for (int k = 78; k < 128; k++)
        t.v[k] = 3;
    return t;
}
constexpr auto kFineQuant = makeFineQuant();

constexpr uint32_t kDqtBody = 2 * 65;

// Quality scaling: S = 5000 / F below 50, else 200 - 2F; q = (S b + 50) / 100
// held to 1..255 (the 8-bit precision of the tables written).
uint32_t scaledQuant(uint32_t base, int32_t scale) {
    int32_t q = (scale * static_cast<int32_t>(base) + 50) / 100;
    return q <= 0 ? 1 : q >= 256 ? 255 : static_cast<uint32_t>(q);
}

// Tables 2 and 3 are never defined: a component that selects them is refused.
bool selectorsDefined(const JpgParam *param) {
    for (uint32_t i = 0; i < param->numComponents && i < 4; i++) {
        const JpgComponent &c = param->components[i];
        if (c.quantSelector > 1 || c.dcSelector > 1 || c.acSelector > 1)
            return false;
    }
    return true;
}

JpgStatus writeDHT(JpgParam *param) {
    uint32_t payload = 0;
    for (const auto &record : param->enc.huffDefinitions)
        payload += bitsSum(record) > 0 ? 17 + bitsSum(record) : 0;
    JpgStatus status = jpgWriteWriteMarkerCode(param, 0xFFC4, payload);
    for (const auto &record : param->enc.huffDefinitions) {
        uint32_t count = bitsSum(record);
        if (status != JPG_STATUS_OK || count == 0)
            continue;
        status = jpgWriteWriteMarkerData(param, &record[272], 1, nullptr);
        if (status == JPG_STATUS_OK)
            status = jpgWriteWriteMarkerData(param, record, 16, nullptr);
        if (status == JPG_STATUS_OK)
            status = jpgWriteWriteMarkerData(param, record + 16, count, nullptr);
    }
    return status;
}

// The pre-shifted AC symbol table of an AC set whose code list is indexed
// by symbol: code << size, length + size.
JpgStatus buildAcSymbolTable(JpgParam *param, JpgHuffmanTable *table) {
    jpgMemFree(param, table->encoderTable);
    auto *symbols = static_cast<JpgAcSymbol *>(jpgMemAlloc(param, 256 * sizeof(JpgAcSymbol)));
    table->encoderTable = symbols;
    if (symbols == nullptr)
        return JPG_STATUS_NO_MEMORY;
    for (int rs = 0; rs < 256; rs++) {
        const JpgHuffmanCode &c = table->codes[rs];
        uint32_t size = c.symbol & 0xF;
        symbols[rs].symbol = c.symbol;
        symbols[rs].code = c.length != 0 ? c.code << size : 0;
        symbols[rs].length = static_cast<uint16_t>(c.length != 0 ? c.length + size : 0);
    }
    return JPG_STATUS_OK;
}

// Component i takes byte n-1-i of the packed factor; a zero H or V is refused.
JpgStatus setGeometry(JpgParam *param) {
    uint32_t n = param->numComponents;
    if (n == 1)
        param->samplingFactors = 0x11;
    uint32_t hmax = 1, vmax = 1, sum = 0;
    for (uint32_t i = 0; i < n; i++) {
        uint8_t sampling = static_cast<uint8_t>(param->samplingFactors >> (8 * (n - 1 - i)));
        JpgComponent &c = param->components[i];
        c.sampling = sampling;
        if (sampling <= 0xF || (sampling & 0xF) == 0)
            return JPG_STATUS_BAD_SAMPLING;
        uint32_t h = sampling >> 4, v = sampling & 0xF;
        hmax = h > hmax ? h : hmax;
        vmax = v > vmax ? v : vmax;
        c.blocks = h * v;
        sum += c.blocks;
    }
    param->hmax = hmax;
    param->vmax = vmax;
    param->hv = hmax * vmax;
    param->blocksPerMcu = sum;
    param->mcuWidth = 8 * hmax;
    param->mcuHeight = 8 * vmax;
    param->mcuRows = (param->height + param->mcuHeight - 1) / param->mcuHeight;
    param->mcusPerRow = (param->width + param->mcuWidth - 1) / param->mcuWidth;
    param->totalMcus = param->mcuRows * param->mcusPerRow;
    if (param->bs.flags & COMPLIB_BS_MEMORY) {
        // A first estimate of the stream size; the output block grows from it.
        uint64_t x = (static_cast<uint64_t>(param->height) * param->width >> 10) *
                     param->enc.quality / (hmax * vmax) * sum;
        x = (x + 0xFFFF) & ~static_cast<uint64_t>(0xFFFF);
        const uint64_t kCap = 0x1000000;  // 16 MiB
        param->enc.memInitialSize = static_cast<uint32_t>(x == 0 ? 0x10000 : x > kCap ? kCap : x);
        param->bs.memOffset = param->enc.memInitialSize;
    }
    return JPG_STATUS_OK;
}

JpgStatus writeFrameAndScan(JpgParam *param) {
    uint32_t n = param->numComponents;
    uint8_t sof[6 + 3 * 4] = {static_cast<uint8_t>(param->precision),
                              static_cast<uint8_t>(param->height >> 8),
                              static_cast<uint8_t>(param->height),
                              static_cast<uint8_t>(param->width >> 8),
                              static_cast<uint8_t>(param->width), static_cast<uint8_t>(n)};
    uint8_t sos[4 + 2 * 4] = {static_cast<uint8_t>(n)};
    for (uint32_t i = 0; i < n; i++) {
        const JpgComponent &c = param->components[i];
        sof[6 + 3 * i] = c.id;
        sof[7 + 3 * i] = c.sampling;
        sof[8 + 3 * i] = c.quantSelector;
        sos[1 + 2 * i] = c.id;
        sos[2 + 2 * i] = static_cast<uint8_t>(c.dcSelector << 4 | c.acSelector);
    }
    sos[1 + 2 * n] = 0;   // Ss
    sos[2 + 2 * n] = 63;  // Se
    sos[3 + 2 * n] = 0;   // Ah, Al
    JpgStatus status = jpgWriteWriteSOF(param, static_cast<int32_t>(param->frameMarker), sof);
    if (status == JPG_STATUS_OK && param->restartInterval != 0)
        status = jpgWriteWriteDRI(param);
    if (status == JPG_STATUS_OK)
        status = jpgWriteWriteSOS(param, sos);
    return status;
}

}  // namespace

namespace kiv {

void loadDefaultQuantTables(JpgParam *param) {
    for (int k = 0; k < 128; k++)
        param->quant[k / 64][k % 64] = kZigzagQuant[k];
}

JpgStatus buildDcDiffTable(JpgParam *param, JpgHuffmanTable *table) {
    const JpgHuffmanCode *codes = table->codes;
    if (codes == nullptr || table->numCodes < 12)
        return JPG_STATUS_BAD_DATA;
    for (int n = 0; n < 12; n++)
        if (codes[n].symbol != n || codes[n].length == 0)
            return JPG_STATUS_BAD_DATA;
    jpgMemFree(param, table->encoderTable);
    auto *diff = static_cast<JpgDcDiff *>(jpgMemAlloc(param, (2 * kMaxMagnitude + 1) * sizeof(JpgDcDiff)));
    table->encoderTable = diff;
    if (diff == nullptr)
        return JPG_STATUS_NO_MEMORY;
    // Category n holds the differences of magnitude 2^(n-1) .. 2^n - 1 (and
    // 0 for n = 0); a negative one's extra bits are d + 2^n - 1. The
    // categories end at kMaxMagnitude = 2^11 - 1.
    static_assert(kMaxMagnitude == (1 << 11) - 1);
    // Both halves ascend, so that the compiler vectorizes the loops.
    for (uint32_t n = 0; n < 12; n++) {
        uint32_t length = codes[n].length + n, prefix = codes[n].code << n;
        uint32_t low = (1u << n) >> 1, top = (1u << n) - 1;
        JpgDcDiff *positive = diff + kMaxMagnitude + low, *negative = diff + kMaxMagnitude - top;
        for (uint32_t v = 0; v <= top - low; v++) {
            positive[v] = {length, prefix | (low + v)};
            negative[v] = {length, prefix | v};  // d = v - top
        }
    }
    return JPG_STATUS_OK;
}

}  // namespace kiv

extern "C" {

JpgStatus jpgWriteSetDefaultQuantizationTable(JpgParam *param, uint32_t which,
                                              const uint16_t *table) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (table == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (which > 1)
        return JPG_STATUS_INVALID_PARAMETER;
    for (int i = 0; i < 64; i++)
        if (table[i] < 1 || table[i] > 255)
            return JPG_STATUS_INVALID_PARAMETER;
    for (int k = 0; k < 64; k++)
        param->quant[which][k] = table[kiv::kZigzag[k]];
    return JPG_STATUS_OK;
}

JpgStatus createDQT(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (!selectorsDefined(param))
        return JPG_STATUS_NOT_SUPPORTED;
    uint32_t f = param->enc.quality < 1 ? 1 : param->enc.quality > 100 ? 100 : param->enc.quality;
    int32_t scale = f < 50 ? static_cast<int32_t>(5000 / f) : static_cast<int32_t>(200 - 2 * f);
    for (int k = 0; k < 128; k++) {
        uint32_t &q = param->quant[k / 64][k % 64];
        q = (param->mode & kModeFineQuant) ? kFineQuant[k] : scaledQuant(q, scale);
    }
    param->enc.quantTableCount = 2;
    param->enc.quantPrecision = 0;
    JpgStatus status = jpgWriteWriteMarkerCode(param, 0xFFDB, kDqtBody);
    for (uint32_t t = 0; t < 2 && status == JPG_STATUS_OK; t++) {
        uint8_t body[65] = {static_cast<uint8_t>(param->enc.quantPrecision << 4 | t)};
        for (int k = 0; k < 64; k++)
            body[1 + k] = static_cast<uint8_t>(param->quant[t][k]);
        status = jpgWriteWriteMarkerData(param, body, sizeof body, nullptr);
    }
    for (uint32_t i = 0; i < param->numComponents && i < 4; i++)
        param->components[i].quant = param->quant[param->components[i].quantSelector];
    // The quantizer divides the DCT output, which carries a factor of 8.
    for (int k = 0; k < 128; k++)
        param->quant[k / 64][k % 64] *= 8;
    return status;
}

// `source` holds for DC 0, DC 1, AC 0, AC 1 in turn the 16 BITS counts and
// the HUFFVAL values; null selects the tables of Annex K.
JpgStatus createDHT(JpgParam *param, const uint8_t *source) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (source == nullptr)
        source = kAnnexKHuffman;
    for (int record = 0; record < 4; record++) {
        uint8_t *tableRecord = param->enc.huffDefinitions[record];
        uint32_t count = bitsSum(source);
        if (count > 256)
            return JPG_STATUS_BAD_DATA;
        memset(tableRecord, 0, 273);
        memcpy(tableRecord, source, 16 + count);
        tableRecord[272] = static_cast<uint8_t>((record / 2) << 4 | (record % 2));
        source += 16 + count;
        if (count > 0) {
            JpgStatus status = jpgGenerateHuffmanTable(param, tableRecord, count);
            if (status != JPG_STATUS_OK)
                return status;
        }
    }
    JpgStatus status = jpgWriteSortHuffmanTable(param);
    for (int t = 0; t < 2 && status == JPG_STATUS_OK; t++)
        if (param->acTables[t].codes != nullptr)
            status = buildAcSymbolTable(param, &param->acTables[t]);
    for (int t = 0; t < 2 && status == JPG_STATUS_OK; t++)
        if (param->dcTables[t].codes != nullptr)
            status = kiv::buildDcDiffTable(param, &param->dcTables[t]);
    if (status == JPG_STATUS_OK)
        status = writeDHT(param);
    return status;
}

JpgStatus jpgWriteSortHuffmanTable(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    for (int t = 0; t < 2; t++) {
        JpgHuffmanTable &dc = param->dcTables[t];
        for (uint32_t i = 0; dc.codes != nullptr && i + 1 < dc.numCodes; i++)
            for (uint32_t j = i + 1; j < dc.numCodes; j++)
                if (static_cast<int16_t>(dc.codes[j].symbol) < static_cast<int16_t>(dc.codes[i].symbol)) {
                    JpgHuffmanCode swap = dc.codes[i];
                    dc.codes[i] = dc.codes[j];
                    dc.codes[j] = swap;
                }
    }
    for (int t = 0; t < 2; t++) {
        JpgHuffmanTable &ac = param->acTables[t];
        if (ac.codes == nullptr)
            continue;
        auto *indexed = static_cast<JpgHuffmanCode *>(jpgMemAlloc(param, 256 * sizeof(JpgHuffmanCode)));
        if (indexed == nullptr)
            return JPG_STATUS_NO_MEMORY;
        memset(indexed, 0, 256 * sizeof(JpgHuffmanCode));  // no code: length 0
        for (uint32_t i = 0; i < ac.numCodes; i++)
            indexed[ac.codes[i].symbol & 0xFF] = ac.codes[i];
        jpgMemFree(param, ac.codes);
        ac.codes = indexed;
    }
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteCreateTables(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (param->numComponents < 1 || param->numComponents > 4 || param->width == 0 ||
        param->width > 0xFFFF || param->height > 0xFFFF)
        return JPG_STATUS_INVALID_PARAMETER;
    if (!selectorsDefined(param))
        return JPG_STATUS_NOT_SUPPORTED;
    JpgStatus status = createDQT(param);
    if (status == JPG_STATUS_OK)
        status = createDHT(param, nullptr);
    if (status != JPG_STATUS_OK)
        return status;
    if (param->precision == 8) {
        for (int t = 0; t < 8; t++) {
            JpgHuffmanTable &set = t < 4 ? param->dcTables[t] : param->acTables[t - 4];
            jpgMemFree(param, set.codes);
            jpgMemFree(param, set.symbolIndex);
            set.codes = nullptr;
            set.symbolIndex = nullptr;
        }
    }
    status = setGeometry(param);
    if (status == JPG_STATUS_OK)
        status = writeFrameAndScan(param);
    for (int i = static_cast<int>(param->numComponents) - 1; i >= 0; i--) {
        JpgComponent &c = param->components[i];
        c.acSymbols = static_cast<const JpgAcSymbol *>(param->acTables[c.acSelector].encoderTable);
        auto *diff = static_cast<const JpgDcDiff *>(param->dcTables[c.dcSelector].encoderTable);
        c.dcDiff = diff != nullptr ? diff + kiv::kMaxMagnitude : nullptr;
    }
    return status;
}

}  // extern "C"
