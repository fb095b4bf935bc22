// Random access and piecewise input: skipping whole restart intervals
// (ISO/IEC 10918-1 B.2.1, E.2.4: each interval starts byte-aligned after an
// RSTn marker with reset predictors) or single MCUs, replacing the input with
// a new memory piece, and the accessors of the counters these move.
// A piece of partial input must begin at a byte boundary of the entropy data.
// Frames decoded scan by scan have no MCU-level access: their MCUs are
// complete only after the last scan.
#include "core/api_checks.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

bool isRestart(uint32_t code) { return code >= 0xFFD0 && code <= 0xFFD7; }

JpgStatus startFrom(JpgParam *param, int32_t origin) {
    if (origin == 0)
        return jpgReadRewindJPEGFile(param, param->firstScanOffset, 1);
    if (origin != 1)
        return JPG_STATUS_INVALID_PARAMETER;
    jpgReadFlushBits(param);
    return JPG_STATUS_OK;
}

}  // namespace

extern "C" {

JpgStatus jpgReadSeekRestartMarker(JpgParam *param, int32_t count, int32_t origin) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (kiv::usesCoefficientStore(param))
        return JPG_STATUS_NOT_SUPPORTED;
    if (param->restartInterval == 0)
        return JPG_STATUS_ERROR;
    JpgStatus status = startFrom(param, origin);
    if (status != JPG_STATUS_OK)
        return status;
    for (int32_t i = 0; i < count; i++) {
        kiv::skipToMarker(param);
        uint32_t code = jpgReadShowMarkerCode(param);
        if (code == 0xFFD9) {
            param->currentMarker = code;
            break;
        }
        if (!isRestart(code) || param->bs.state != 0)
            return JPG_STATUS_ERROR;
        // The skipped MCUs of this interval no longer belong to the scan's rest.
        uint32_t done = param->mcuAddress < param->restartInterval ? param->mcuAddress : 0;
        uint32_t skipped = param->restartInterval - done;
        kiv::startNextInterval(param);
        param->mcusLeft = param->mcusLeft > skipped ? param->mcusLeft - skipped : 1;
    }
    param->mode |= kModeFirstRow;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadSeekMcu(JpgParam *param, uint32_t count, int32_t origin) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (origin != 0 && origin != 1)
        return JPG_STATUS_INVALID_PARAMETER;
    JpgMcuFunc skip = jpgGetReadMCUFunc(1, param->processorFlag);
    JpgStatus status = kiv::checkSequentialScan(param);
    if (status != JPG_STATUS_OK || param->frameMarker > 0xFFC1 || param->precision != 8 ||
        skip == nullptr)
        return status != JPG_STATUS_OK ? status : JPG_STATUS_NOT_SUPPORTED;
    if (origin == 0 && (status = startFrom(param, 0)) != JPG_STATUS_OK)
        return status;
    // The end of the scan shows in the expected marker; peeking at raw bytes
    // here would break the byte stuffing of the data that follows.
    for (uint32_t i = 0; i < count && param->currentMarker != 0xFFD9; i++) {
        status = skip(param);
        if (status != JPG_STATUS_OK)
            return status;
    }
    return JPG_STATUS_OK;
}

JpgStatus jpgReadSetPartialBitstream(JpgParam *param, const uint8_t *buffer, uint32_t size) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (buffer == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (size == 0)
        return JPG_STATUS_INVALID_PARAMETER;
    if (kiv::usesCoefficientStore(param))
        return JPG_STATUS_NOT_SUPPORTED;
    if (!(param->mode & kModeMemory) || !(param->mode & kModePartial))
        return JPG_STATUS_ERROR;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
    param->mode |= kModeFirstRow;
    ComplibBitstream &bs = param->bs;
    bs.memBase = bs.memCursor = const_cast<uint8_t *>(buffer);
    bs.memLength = size;
    bs.memOffset = 0;
    bs.bytesLoaded = 0;
    bs.fill = 0;
    bs.bitCount = 0;
    bs.readPos = 0;
    bs.state = 0;
    bs.accumulator = 0;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetProcessedLine(JpgParam *param, uint32_t *line) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (line == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *line = param->processedLines;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadSetProcessedLine(JpgParam *param, uint32_t line) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    param->processedLines = line;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadGetMcuAddress(JpgParam *param, uint32_t *address) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (address == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *address = param->mcuAddress;
    return JPG_STATUS_OK;
}

JpgStatus jpgReadSetMcuAddress(JpgParam *param, uint32_t address) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    param->mcuAddress = address;
    return JPG_STATUS_OK;
}

}  // extern "C"
