// Marker parser: opens a JPEG stream from memory or a file, reads the table
// and application segments and the frame header (ISO/IEC 10918-1 Annex B.2
// and B.2.4), derives the MCU geometry (A.2), allocates the decode buffers
// and hands the first SOS to the scan header parser. Every size that comes
// from the stream is checked before it sizes a buffer (64-bit arithmetic).
#include <string.h>

#include "core/api_checks.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

constexpr uint32_t kBlockBytes = 128;  // 64 samples of 16 bits

JpgStatus truncatedOr(const JpgParam *param, JpgStatus status) {
    return param->bs.state != 0 ? JPG_STATUS_UNEXPECTED_END : status;
}

uint32_t readByte(JpgParam *param) { return jpgReadGetBytes(param, 8); }

void terminateDhtList(JpgParam *param) {
    int32_t n = param->dhtCount;
    if (n >= 0 && n < 8)
        param->dhtList[n] = -1;
    else
        param->dhtCount = -1;  // eight tables: the terminator lands on the count
}

// One table of a DHT segment (B.2.4.2); *remaining is the segment's rest.
JpgStatus parseOneHuffmanTable(JpgParam *param, int32_t *remaining) {
    uint8_t tableDefinition[273];
    uint32_t classId = readByte(param);
    int32_t n = param->dhtCount < 0 ? 8 : param->dhtCount;
    if ((classId >> 4) > 1 || (classId & 15) > 3 || n >= 8)
        return truncatedOr(param, JPG_STATUS_BAD_DATA);
    param->dhtList[n] = static_cast<int32_t>(classId);
    param->dhtCount = n + 1;
    uint32_t sum = 0;
    for (int i = 0; i < 16; i++) {
        tableDefinition[i] = static_cast<uint8_t>(readByte(param));
        sum += tableDefinition[i];
    }
    *remaining -= static_cast<int32_t>(sum) + 17;
    if (*remaining < 0)
        return truncatedOr(param, JPG_STATUS_SEGMENT_LENGTH);
    if (sum > 255)
        return truncatedOr(param, JPG_STATUS_BAD_DATA);
    for (uint32_t i = 0; i < sum; i++)
        tableDefinition[16 + i] = static_cast<uint8_t>(readByte(param));
    tableDefinition[272] = static_cast<uint8_t>(classId);
    if (param->bs.state != 0)
        return JPG_STATUS_UNEXPECTED_END;
    JpgStatus status = jpgGenerateHuffmanTable(param, tableDefinition, sum);
    JpgHuffmanTable &table = classId >> 4 ? param->acTables[classId & 15] : param->dcTables[classId & 15];
    table.origin = kTableFromDht;
    return status;
}

JpgStatus parseDht(JpgParam *param) {
    int32_t remaining = static_cast<int32_t>(param->segmentLength);
    while (remaining > 0) {
        JpgStatus status = parseOneHuffmanTable(param, &remaining);
        if (status != JPG_STATUS_OK)
            return status;
    }
    if (remaining < 0)
        return JPG_STATUS_FAILED;
    terminateDhtList(param);
    return JPG_STATUS_OK;
}

// DQT (B.2.4.1): tables of 64 values of 8 or 16 bits, kept in zig-zag order.
JpgStatus parseDqt(JpgParam *param) {
    int32_t remaining = static_cast<int32_t>(param->segmentLength);
    while (remaining > 0) {
        uint32_t pqTq = readByte(param);
        bool wide = (pqTq >> 4) == 1;
        remaining -= 1 + 64 * (wide ? 2 : 1);
        if (remaining < 0)
            return truncatedOr(param, JPG_STATUS_SEGMENT_LENGTH);
        if ((pqTq & 15) > 3)
            return truncatedOr(param, JPG_STATUS_BAD_DATA);
        uint32_t *table = param->quant[pqTq & 15];
        for (int k = 0; k < 64; k++)
            table[k] = jpgReadGetBytes(param, wide ? 16 : 8);
        if (param->bs.state != 0)
            return JPG_STATUS_UNEXPECTED_END;
    }
    return JPG_STATUS_OK;
}

JpgStatus parseDri(JpgParam *param) {
    if (param->segmentLength != 2)
        return JPG_STATUS_SEGMENT_LENGTH;
    param->restartInterval = jpgReadGetBytes(param, 16);
    return truncatedOr(param, JPG_STATUS_OK);
}

// APP0 "JFIF" (density) and APP14 "Adobe" (colour transform) identification.
void parseApplication(JpgParam *param, uint32_t marker) {
    uint32_t need = marker == 0xFFE0 ? 14 : 12;
    if (param->segmentLength < need)
        return;
    for (uint32_t i = 0; i < need; i++)
        param->scratch[i] = static_cast<uint8_t>(readByte(param));
    param->segmentConsumed = need;
    if (marker == 0xFFE0 && memcmp(param->scratch, "JFIF", 5) == 0) {
        param->mode |= kModeJfif;
        param->densityUnits = param->scratch[7];
        param->xDensity = static_cast<uint16_t>(param->scratch[8] << 8 | param->scratch[9]);
        param->yDensity = static_cast<uint16_t>(param->scratch[10] << 8 | param->scratch[11]);
    } else if (marker == 0xFFEE && memcmp(param->scratch, "Adobe", 5) == 0) {
        param->mode |= kModeAdobe;
        param->adobeTransform = param->scratch[11];
    }
}

bool stopsSegmentParser(uint32_t marker) {
    return (marker < 0xFFC7 && marker != 0xFFC4) || (marker >= 0xFFC9 && marker <= 0xFFCF) ||
           marker == 0xFFDA;
}

}  // namespace

namespace kiv {

JpgStatus parseTableSegments(JpgParam *param, uint32_t *marker) {
    for (;;) {
        uint16_t code = 0;
        uint32_t length = 0;
        JpgStatus status = findMarkerSegment(param, 1, &code, &length);
        if (status != JPG_STATUS_OK)
            return status;
        if (stopsSegmentParser(code)) {
            *marker = code;
            return JPG_STATUS_OK;
        }
        if (code == 0xFFC4)
            status = parseDht(param);
        else if (code == 0xFFDB)
            status = parseDqt(param);
        else if (code == 0xFFDD)
            status = parseDri(param);
        else if (code == 0xFFE0 || code == 0xFFEE)
            parseApplication(param, code);
        else
            continue;
        if (status != JPG_STATUS_OK)
            return status;
        if (code == 0xFFC4 || code == 0xFFDB || code == 0xFFDD)
            param->segmentConsumed = param->segmentLength;
    }
}

}  // namespace kiv

namespace {

// Blocks and factor maxima of one sampling byte (H high nibble, V low nibble).
void addSampling(JpgParam *param, uint32_t sampling) {
    uint32_t h = sampling >> 4, v = sampling & 15;
    param->blocksPerMcu += h * v;
    param->hmax = h > param->hmax ? h : param->hmax;
    param->vmax = v > param->vmax ? v : param->vmax;
}

JpgStatus readFrameComponents(JpgParam *param) {
    uint32_t packed = 0;
    for (uint32_t c = 0; c < param->numComponents; c++) {
        JpgComponent &comp = param->components[c];
        comp.id = static_cast<uint8_t>(readByte(param));
        comp.sampling = static_cast<uint8_t>(readByte(param));
        comp.quantSelector = static_cast<uint8_t>(readByte(param));
        comp.dcPred = 0;
        uint32_t h = comp.sampling >> 4, v = comp.sampling & 15;
        if (h == 0 || v == 0 || h > 4 || v > 4)  // factors are 1 to 4 (B.2.2)
            return truncatedOr(param, JPG_STATUS_BAD_DATA);
        addSampling(param, comp.sampling);
        packed = packed << 8 | comp.sampling;
    }
    if (param->numComponents == 1) {  // non-interleaved order: one block per MCU (A.2.2)
        param->components[0].sampling = 0x11;
        param->blocksPerMcu = 1;
        param->hmax = param->vmax = 1;
        packed = 0x11;
    }
    param->samplingFactors = packed << (4 - param->numComponents) * 8;
    return truncatedOr(param, JPG_STATUS_OK);
}

void deriveGeometry(JpgParam *param) {
    param->hv = param->hmax * param->vmax;
    param->componentsHV = param->numComponents * param->hv;
    param->upsampleBlocks = 4 * param->hv;
    param->mcuWidth = 8 * param->hmax;
    param->mcuHeight = 8 * param->vmax;
    param->mcusPerRow = (param->width + param->mcuWidth - 1) / param->mcuWidth;
    param->mcuRows = (param->height + param->mcuHeight - 1) / param->mcuHeight;
    param->totalMcus = param->mcusPerRow * param->mcuRows;  // at most 8192 x 8192
    param->mcusLeft = param->totalMcus;
}

// Frame header (B.2.2): P, Y, X, Nf and Nf sets of component parameters.
JpgStatus readFrameHeader(JpgParam *param) {
    param->precision = readByte(param);
    param->height = jpgReadGetBytes(param, 16);
    param->width = jpgReadGetBytes(param, 16);
    param->numComponents = readByte(param);
    if (param->bs.state != 0)
        return JPG_STATUS_UNEXPECTED_END;
    // DCT frames of 12-bit samples are valid (B.2.2) but not decoded here;
    // other precisions are no JPEG at all.
    if (param->frameMarker == 0xFFC3) {
        if (param->precision < 2 || param->precision > 16)
            return JPG_STATUS_BAD_DATA;
    } else if (param->precision == 12) {
        return JPG_STATUS_NOT_SUPPORTED;
    } else if (param->precision != 8) {
        return JPG_STATUS_BAD_DATA;
    }
    if (param->numComponents > 4 || param->numComponents == 0 || param->width == 0 ||
        param->segmentLength != 6 + 3 * param->numComponents)
        return JPG_STATUS_BAD_DATA;
    param->hmax = param->vmax = param->blocksPerMcu = 0;
    JpgStatus status = readFrameComponents(param);
    if (status != JPG_STATUS_OK)
        return status;
    param->segmentConsumed = param->segmentLength;
    deriveGeometry(param);
    return JPG_STATUS_OK;
}

void *allocate(JpgParam *param, uint64_t bytes) {
    if (bytes == 0 || bytes > 0xFFFFFFFFu)
        return nullptr;
    return jpgMemAlloc(param, static_cast<uint32_t>(bytes));
}

// A header parsed again on the same handle replaces the buffers of the last.
void releaseBuffers(JpgParam *param) {
    auto release = [param](auto *&owned) {
        if (owned != nullptr)
            jpgMemFree(param, owned);
        owned = nullptr;
    };
    if (param->mcuBuffer != nullptr && param->dec.mcuNext != nullptr &&
        param->dec.mcuNext < param->mcuBuffer)
        param->mcuBuffer = param->dec.mcuNext;
    release(param->mcuBuffer);
    release(param->blockPointers);
    release(param->blockMap);
    release(param->losslessLine);
    param->dec.mcuNext = param->dec.upsampleBuffer = nullptr;
    param->dec.coefBase = param->dec.coefCursor = nullptr;
    param->dec.rowsCleared = nullptr;
    param->dec.storeState = kStoreEmpty;
    param->dec.storeStatus = JPG_STATUS_OK;
}

// The previous-row buffer of lossless frames: width x sum of H x 2 bytes.
JpgStatus allocateLosslessLine(JpgParam *param) {
    uint64_t factors = 0;
    for (uint32_t c = 0; c < param->numComponents; c++)
        factors += param->components[c].sampling >> 4;
    uint64_t bytes = (static_cast<uint64_t>(param->width) * factors * 2 + 3) & ~uint64_t{3};
    param->losslessLine = static_cast<uint8_t *>(allocate(param, bytes));
    return param->losslessLine != nullptr ? JPG_STATUS_OK : JPG_STATUS_NO_MEMORY;
}

// One block of N x 128 bytes: current MCU, next MCU, upsampling buffer
// (4 x Hmax x Vmax blocks) and, for frames decoded scan by scan, the
// coefficient store followed by one flag byte per MCU row; then the block
// pointer table and the block map. The store is left untouched here: a row
// is cleared when a scan first stores into it, so a huge declared frame
// costs address space, not pages. Progressive frames and sequential frames
// whose first scan does not hold every component use the store.
JpgStatus allocateBlockBuffers(JpgParam *param) {
    for (uint32_t c = 0; c < param->numComponents; c++) {
        if (param->components[c].quantSelector > 3)
            return JPG_STATUS_BAD_DATA;
        param->components[c].quant = param->quant[param->components[c].quantSelector];
    }
    uint64_t perMcu = param->blocksPerMcu, hv = param->hv;
    bool store = param->frameMarker == 0xFFC2 || param->scanNs != param->numComponents;
    uint64_t blocks = 2 * perMcu + 4 * hv + (store ? perMcu * param->totalMcus : perMcu);
    uint64_t rowFlags = store ? param->mcuRows : 0;
    param->mcuBuffer = static_cast<int16_t *>(allocate(param, blocks * kBlockBytes + rowFlags));
    if (param->mcuBuffer == nullptr)
        return JPG_STATUS_NO_MEMORY;
    param->dec.mcuNext = param->mcuBuffer + perMcu * 64;
    param->dec.upsampleBuffer = param->dec.mcuNext + perMcu * 64;
    param->dec.coefBase = store ? param->dec.upsampleBuffer + 4 * hv * 64 : nullptr;
    param->dec.coefCursor = param->dec.coefBase;
    param->dec.rowsCleared = nullptr;
    if (store) {
        param->dec.rowsCleared = reinterpret_cast<uint8_t *>(param->mcuBuffer) + blocks * kBlockBytes;
        memset(param->dec.rowsCleared, 0, static_cast<size_t>(rowFlags));
    }
    param->blockPointers = static_cast<int16_t **>(allocate(param, 4 * hv * sizeof(int16_t *)));
    param->blockMap = static_cast<uint32_t *>(allocate(param, 4 * hv * sizeof(uint32_t)));
    if (param->blockPointers == nullptr || param->blockMap == nullptr)
        return JPG_STATUS_NO_MEMORY;
    for (uint32_t p = 0; p < hv; p++) {
        for (uint32_t c = 0; c < 4; c++)
            param->blockMap[4 * p + c] = c * static_cast<uint32_t>(hv) + p;
    }
    return JPG_STATUS_OK;
}

// Internal colour space of three-component frames (mode bit 21).
void chooseColorSpace(JpgParam *param) {
    param->mode &= ~(kModeRewind | kModeYCbCr);
    if (param->numComponents != 3)
        return;
    bool ycc;
    if (param->mode & kModeJfif)
        ycc = true;
    else if (param->mode & kModeAdobe)
        ycc = param->adobeTransform != 0;
    else
        ycc = !(param->components[0].id == 'R' && param->components[1].id == 'G' &&
                param->components[2].id == 'B');
    if (ycc)
        param->mode |= kModeYCbCr;
}

void resetForHeader(JpgParam *param) {
    param->mode |= kModeRead | kModeFirstRow;
    param->processedLines = 0;
    param->width = param->height = 0;
    param->restartInterval = 0;
    param->segmentLength = param->segmentConsumed = 0;
    param->densityUnits = 0;
    param->scaleLevel = -1;
    jpgSetProcessorArchitectureFlag(param, 0xFFFFFFFFu);
    param->dhtCount = 0;
    param->dhtList[0] = -1;
    for (auto &table : param->quant)
        table[0] = 0;
}

// Reads exactly n bytes at offset `at` of the stream into dst.
bool readAt(ComplibBitstream *bs, uint32_t at, uint8_t *dst, uint32_t n) {
    if (complibSeekBitstreamFile(bs, static_cast<int32_t>(at), 0) == -1)
        return false;
    for (uint32_t got = 0; got < n;) {
        int32_t r = complibReadBitstreamFile(bs, dst + got, n - got);
        if (r < 1)
            return false;
        got += static_cast<uint32_t>(r);
    }
    return true;
}

// Backward search for EOI (0xFF 0xD9) starting at offset 1 or later, from
// the end: the stream is read into the handle's input buffer a block at a
// time, from its end, blocks overlapping by one byte so that no pair is
// missed (one seek and one read per 64 KiB, where a file once took two
// system calls per byte). The buffer is free: the header is read later.
bool findEndOfImage(JpgParam *param, uint32_t size) {
    uint8_t *block = param->input;
    for (uint32_t end = size; end >= 3;) {
        uint32_t start = end - 1 > kInputBufferSize ? end - kInputBufferSize : 1;
        if (!readAt(&param->bs, start, block, end - start))
            return false;
        for (uint32_t i = end - start - 1; i-- > 0;)
            if (block[i] == 0xFF && block[i + 1] == 0xD9)
                return true;
        end = start + 1;
    }
    return false;
}

bool startsWithSoi(ComplibBitstream *bs) {
    uint8_t soi[2] = {0, 0};
    return complibReadBitstreamFile(bs, soi, 2) == 2 && soi[0] == 0xFF && soi[1] == 0xD8;
}

// Steps shared by the two prologs once the bitstream is open: SOI, optional
// EOI search, header. The handle is ended on failure.
JpgStatus openStream(JpgParam *param, bool searchEnd, uint32_t size) {
    JpgStatus status = JPG_STATUS_OK;
    if (!startsWithSoi(&param->bs))
        status = JPG_STATUS_BAD_DATA;
    else if (searchEnd && !findEndOfImage(param, size))
        status = JPG_STATUS_BAD_DATA;
    else if (complibSeekBitstreamFile(&param->bs, 2, 0) == -1)
        status = JPG_STATUS_SEEK_FAILED;
    else
        status = jpgReadProlog(param);
    if (status != JPG_STATUS_OK)
        jpgReadEpilog(param);
    return status;
}

}  // namespace

extern "C" {

JpgStatus jpgReadPrologFromMemory(const uint8_t *data, int32_t size, int32_t flags,
                                  JpgParam **out) {
    if (data == nullptr || out == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (size < 1)
        return JPG_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    JpgParam *param = jpgProlog(nullptr);
    if (param == nullptr)
        return JPG_STATUS_NO_MEMORY;
    param->mode = 0;
    ComplibBitstream &bs = param->bs;
    bs.flags = COMPLIB_BS_MEMORY;
    bs.memBase = bs.memCursor = const_cast<uint8_t *>(data);
    bs.memLength = static_cast<uint32_t>(size);
    bs.memOffset = 0;
    JpgStatus status = complibOpenBitstreamFile(&bs);
    if (status != JPG_STATUS_OK) {
        jpgReadEpilog(param);
        return status;
    }
    status = openStream(param, !(flags & 0x6), static_cast<uint32_t>(size));
    if (status != JPG_STATUS_OK)
        return status;
    param->mode |= kModeMemory | (static_cast<uint32_t>(flags) & kModePartial);
    *out = param;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadPrologFromFile(const char *path, int32_t offset, int32_t length, uint8_t flags,
                                JpgParam **out) {
    if (path == nullptr || out == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (offset < 0 || length < 0)
        return JPG_STATUS_INVALID_PARAMETER;
    *out = nullptr;
    if (complibLibCstrlen(path) >= sizeof(ComplibBitstream::path))  // the handle could not hold it
        return JPG_STATUS_INVALID_PARAMETER;
    JpgParam *param = jpgProlog(path);
    if (param == nullptr)
        return JPG_STATUS_NO_MEMORY;
    param->mode = 0;
    param->bs.fileBase = static_cast<uint32_t>(offset);
    JpgStatus status = complibOpenBitstreamFile(&param->bs);
    if (status != JPG_STATUS_OK) {
        jpgReadEpilog(param);
        return status;
    }
    if (param->bs.fileSize < static_cast<uint32_t>(length)) {
        jpgReadEpilog(param);
        return JPG_STATUS_INVALID_PARAMETER;
    }
    if (length != 0)
        param->bs.fileSize = static_cast<uint32_t>(offset) + static_cast<uint32_t>(length);
    uint32_t size = param->bs.fileSize > static_cast<uint32_t>(offset)
                        ? param->bs.fileSize - static_cast<uint32_t>(offset)
                        : 0;
    status = openStream(param, !(flags & 0x4), size);
    if (status == JPG_STATUS_OK)
        *out = param;
    return status;
}

JpgStatus jpgReadProlog(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (!(param->bs.flags & COMPLIB_BS_READ))  // no input opened: nothing to read from
        return JPG_STATUS_WRONG_MODE;
    resetForHeader(param);
    uint32_t marker = 0;
    JpgStatus status = kiv::parseTableSegments(param, &marker);
    if (status != JPG_STATUS_OK)
        return status;
    if (marker < 0xFFC0 || marker > 0xFFC3)
        return JPG_STATUS_NOT_SUPPORTED;
    param->frameMarker = marker;
    status = readFrameHeader(param);
    if (status == JPG_STATUS_OK)
        status = jpgReadParseScanLevel(param);
    if (status != JPG_STATUS_OK)
        return status;
    param->firstScanOffset = jpgReadGetJPEGFileOffset(&param->bs);
    releaseBuffers(param);
    status = marker == 0xFFC3 ? allocateLosslessLine(param) : allocateBlockBuffers(param);
    if (status != JPG_STATUS_OK)
        return status;
    chooseColorSpace(param);
    kiv::selectReadRoutines(param);
    jpgReadColorConvertTableInit();
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetCodingProcess(JpgParam *param, uint32_t *process) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (process == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    switch (param->frameMarker) {
    case 0xFFC0: *process = 0x8000; return JPG_STATUS_OK;
    case 0xFFC1: *process = 0x4000; return JPG_STATUS_OK;
    case 0xFFC2: *process = 0x2000; return JPG_STATUS_OK;
    case 0xFFC3: *process = 0x1000; return JPG_STATUS_OK;
    default: return JPG_STATUS_NOT_SUPPORTED;
    }
}

JpgStatus jpgReadGetImageSize(JpgParam *param, uint32_t *width, uint32_t *height) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (width == nullptr || height == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *width = param->width;
    *height = param->height;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetNumberOfChannels(JpgParam *param, uint32_t *channels) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (channels == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *channels = param->numComponents;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetSamplePrecision(JpgParam *param, uint32_t *precision) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (precision == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *precision = param->precision;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetSubsamplingFactor(JpgParam *param, uint32_t *factor) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (factor == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    uint32_t n = param->numComponents >= 1 && param->numComponents <= 4 ? param->numComponents : 4;
    *factor = param->samplingFactors >> (4 - n) * 8;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetMcuSize(JpgParam *param, uint32_t *width, uint32_t *height) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (width == nullptr || height == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *width = param->mcuWidth;
    *height = param->mcuHeight;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetRestartInterval(JpgParam *param, uint32_t *interval) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (interval == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *interval = param->restartInterval;
    return JPG_STATUS_OK;
}

// The identifier byte of each frame component (the byte this getter returns).
JpgStatus jpgReadGetQuantizationTableSelector(JpgParam *param, uint32_t *selectors) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (selectors == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    uint32_t n = param->numComponents <= 4 ? param->numComponents : 4;
    for (uint32_t c = 0; c < n; c++)
        selectors[c] = param->components[c].id;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetQuantizationTable(JpgParam *param, uint32_t component, uint32_t *table) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (table == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (component > 3)
        return JPG_STATUS_FAILED;
    memcpy(table, param->quant[param->components[component].quantSelector & 3], 256);
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetQuantizationTableNR(JpgParam *param, uint32_t *value0, uint32_t *value1) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (value0 == nullptr || value1 == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    const JpgComponent *c = param->components;
    if (c[0].id != 1 || c[1].id != 2 || c[2].id != 3)
        return JPG_STATUS_ERROR;
    *value0 = param->quant[c[0].quantSelector & 3][63];
    *value1 = param->quant[c[1].quantSelector & 3][63];
    return JPG_STATUS_OK;
}

}  // extern "C"
