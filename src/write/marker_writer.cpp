// Marker writer: marker segments (code, two-byte length, a body that may
// arrive in pieces), the frame, scan and restart-interval headers, and the
// end of the output: DNL when no height was known, EOI, the last flush and
// the hand-over of a memory stream (ISO/IEC 10918-1 Annex B.2 to B.3).
// The open segment is tracked by param->segmentLength / segmentConsumed.
#include "core/api_checks.h"
#include "write/encoder.h"

namespace {

constexpr uint32_t kMaxSegmentBody = 0xFFFF - 2;

void putBigEndian16(uint8_t *p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

// Writes one whole segment whose body is ready in memory.
JpgStatus writeSegment(JpgParam *param, int32_t code, const uint8_t *body, uint32_t length) {
    JpgStatus status = jpgWriteWriteMarkerCode(param, code, length);
    if (status == JPG_STATUS_OK)
        status = jpgWriteWriteMarkerData(param, body, length, nullptr);
    return status;
}

// DNL (when no height was ever known) and EOI, then the last flush; a
// stream already in error gets nothing more.
JpgStatus finishStream(JpgParam *param) {
    if (param->bs.state != 0)
        return JPG_STATUS_OK;
    if (param->height == 0) {
        uint8_t body[2];
        putBigEndian16(body, param->enc.rowsEncoded);
        JpgStatus status = writeSegment(param, 0xFFDC, body, 2);
        if (status != JPG_STATUS_OK)
            return status;
    }
    JpgStatus status = jpgWritePutMarkerCode(&param->bs, 0xFFD9);
    if (status == JPG_STATUS_OK)
        status = jpgWriteFlushBits(&param->bs);
    return status;
}

}  // namespace

extern "C" {

JpgStatus jpgWriteWriteMarkerCode(JpgParam *param, int32_t code, uint32_t length) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    // The length field holds body + 2 in 16 bits.
    if (code < 0xFFC0 || code > 0xFFFE || length == 0 || length > kMaxSegmentBody)
        return JPG_STATUS_INVALID_PARAMETER;
    param->segmentLength = length;
    param->segmentConsumed = 0;
    JpgStatus status = jpgWritePutMarkerCode(&param->bs, code);
    if (status != JPG_STATUS_OK)
        return status;
    uint8_t field[2];
    putBigEndian16(field, length + 2);
    return jpgWritePutBytes(&param->bs, field, 2);
}

JpgStatus jpgWriteWriteMarkerData(JpgParam *param, const uint8_t *data, uint32_t count,
                                  uint32_t *written) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (data == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (count == 0)
        return JPG_STATUS_INVALID_PARAMETER;
    uint32_t room = param->segmentLength > param->segmentConsumed
                        ? param->segmentLength - param->segmentConsumed
                        : 0;
    if (count > room)
        count = room;
    if (count == 0)
        return JPG_STATUS_ERROR;
    JpgStatus status = jpgWritePutBytes(&param->bs, data, count);
    if (status != JPG_STATUS_OK)
        return status;
    param->segmentConsumed += count;
    if (written != nullptr)
        *written = count;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteWriteMarkerSegment(JpgParam *param, int32_t code, const uint8_t *data,
                                     int32_t length) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (data == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (length <= 0)
        return JPG_STATUS_INVALID_PARAMETER;
    return writeSegment(param, code, data, static_cast<uint32_t>(length));
}

JpgStatus jpgWriteWriteSOF(JpgParam *param, int32_t code, const uint8_t *body) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (body == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    uint32_t components = body[5];
    if (components < 1 || components > 4)
        return JPG_STATUS_INVALID_PARAMETER;
    return writeSegment(param, code, body, 6 + 3 * components);
}

JpgStatus jpgWriteWriteSOS(JpgParam *param, const uint8_t *body) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (body == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    uint32_t components = body[0];
    if (components < 1 || components > 4)
        return JPG_STATUS_INVALID_PARAMETER;
    return writeSegment(param, 0xFFDA, body, 4 + 2 * components);
}

JpgStatus jpgWriteWriteDRI(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    uint8_t body[2];
    putBigEndian16(body, param->restartInterval);
    return writeSegment(param, 0xFFDD, body, 2);
}

JpgStatus jpgWriteEpilogToMemory(JpgParam *param, uint8_t **buffer, uint32_t *size) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (buffer == nullptr || size == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    JpgStatus status = finishStream(param);
    jpgWriteColorConvertTableClear();
    *buffer = param->bs.memCursor;
    *size = param->bs.memCursor != nullptr ? param->bs.memLength : 0;
    param->bs.memCursor = nullptr;
    JpgStatus released = jpgEpilog(param);
    return status != JPG_STATUS_OK ? status : released;
}

JpgStatus jpgWriteEpilogToFile(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    JpgStatus status = finishStream(param);
    jpgWriteColorConvertTableClear();
    // A memory stream ended this way has no one to hand its block to.
    if (param->bs.flags & COMPLIB_BS_MEMORY) {
        complibMemFree(param->bs.memCursor);
        param->bs.memCursor = nullptr;
    }
    JpgStatus released = jpgEpilog(param);
    return status != JPG_STATUS_OK ? status : released;
}

JpgStatus jpgWriteGetPartialBitstream(JpgParam *param, uint8_t **buffer, uint32_t *size) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (buffer == nullptr || size == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    if (!(param->mode & kModeMemory) || !(param->mode & kModePartial))
        return JPG_STATUS_BLOCK_UNAVAILABLE;
    // Headers once: not after baseline rows or a lossless frame's headers.
    if (param->enc.rowsEncoded == 0 && !(param->mode & kModeHeadersWritten) &&
        param->frameMarker != 0xFFC3) {
        SetColorIngredient(param);
        JpgStatus status = jpgWriteCreateTables(param);
        if (status != JPG_STATUS_OK)
            return status;
        param->mode |= kModeHeadersWritten;
    }
    if (param->bs.state != 0)
        return JPG_STATUS_FAILED;
    JpgStatus status = jpgWritePutMarkerCode(&param->bs, 0xFFD9);
    if (status == JPG_STATUS_OK)
        status = jpgWriteFlushBits(&param->bs);
    if (status != JPG_STATUS_OK)
        return status;
    *buffer = param->bs.memCursor;
    *size = param->bs.memCursor != nullptr ? param->bs.memLength : 0;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
    param->bs.memCursor = nullptr;
    param->bs.memLength = 0;
    param->bs.memCapacity = 0;
    param->bs.accumulator = 0;
    param->bs.bitCount = 32;
    param->bs.fill = 0;
    param->bs.state = 0;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteFreeBitstream(uint8_t *buffer) {
    if (buffer == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    return complibMemFree(buffer);
}

}  // extern "C"
