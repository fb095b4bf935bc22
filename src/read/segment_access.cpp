// Marker segment access: the caller walks the marker segments of the input
// (ISO/IEC 10918-1 B.1.1.2 to B.1.1.4: fill bytes, stuffed zeros and the
// segments without a length) and reads their payloads. Any use marks the
// handle so that the next decode first rewinds to the first scan.
#include "core/api_checks.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

JpgStatus endStatus(const JpgParam *param) {
    return param->bs.state == 1 ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_END_OF_STREAM;
}

// The byte after 0xFF and its fill bytes, skipping stuffed zeros; 0 at the end.
JpgStatus scanToMarker(JpgParam *param, uint32_t *code) {
    jpgReadFlushBits(param);
    for (;;) {
        uint32_t byte = jpgReadGetBytes(param, 8);
        if (param->bs.state != 0)
            return endStatus(param);
        if (byte != 0xFF)
            continue;
        do {
            byte = jpgReadGetBytes(param, 8);
            if (param->bs.state != 0)
                return endStatus(param);
        } while (byte == 0xFF);
        if (byte != 0x00) {
            *code = 0xFF00 | byte;
            return JPG_STATUS_OK;
        }
    }
}

}  // namespace

namespace kiv {

void skipInputBytes(JpgParam *param, uint32_t n) {
    ComplibBitstream &bs = param->bs;
    while (n > 0) {
        if (bs.bitCount < 8 && bs.readPos < bs.fill) {
            uint32_t take = bs.fill - bs.readPos < n ? bs.fill - bs.readPos : n;
            bs.readPos += take;
            n -= take;
            continue;
        }
        jpgReadGetBytes(param, 8);
        n--;
        if (bs.state == 1)  // past the end: nothing more to skip
            return;
    }
}

JpgStatus findMarkerSegment(JpgParam *param, int32_t origin, uint16_t *marker, uint32_t *length) {
    if (origin == 0) {
        JpgStatus status = jpgReadRewindJPEGFile(param, 0, 0);
        if (status != JPG_STATUS_OK)
            return status;
    } else if (origin == 1) {
        if (param->segmentLength > param->segmentConsumed)
            skipInputBytes(param, param->segmentLength - param->segmentConsumed);
    } else {
        return JPG_STATUS_INVALID_PARAMETER;
    }
    uint32_t code = 0;
    JpgStatus status = scanToMarker(param, &code);
    uint32_t payload = 0;
    if (status == JPG_STATUS_OK && code < 0xFFC0) {  // reserved codes 0xFF01..0xFFBF
        code = 0;
        status = JPG_STATUS_ERROR;
    } else if (status == JPG_STATUS_OK && (code < 0xFFD0 || code > 0xFFD9)) {
        uint32_t field = jpgReadGetBytes(param, 16);
        if (param->bs.state != 0)
            status = JPG_STATUS_UNEXPECTED_END;
        else if (field < 2)  // a length counts its own two bytes
            status = JPG_STATUS_BAD_DATA;
        else
            payload = field - 2;
    }
    *marker = static_cast<uint16_t>(code);
    *length = payload;
    param->segmentLength = payload;
    param->segmentConsumed = 0;
    return status;
}

}  // namespace kiv

extern "C" {

JpgStatus jpgReadSeekMarkerSegment(JpgParam *param, int32_t origin, uint16_t *marker,
                                   uint32_t *length) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (marker == nullptr || length == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    param->mode |= kModeRewind;
    return kiv::findMarkerSegment(param, origin, marker, length);
}

JpgStatus jpgReadReadMarkerData(JpgParam *param, uint8_t *buffer, uint32_t size,
                                uint32_t *count) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    if (buffer == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    param->mode |= kModeRewind;
    uint32_t left = param->segmentLength > param->segmentConsumed
                        ? param->segmentLength - param->segmentConsumed
                        : 0;
    uint32_t n = size < left ? size : left;
    if (n == 0)
        return JPG_STATUS_INVALID_PARAMETER;
    for (uint32_t i = 0; i < n; i++)
        buffer[i] = static_cast<uint8_t>(jpgReadGetBytes(param, 8));
    param->segmentConsumed += n;
    if (count != nullptr)
        *count = n;
    return JPG_STATUS_OK;
}

// Repositioning inside a segment is not offered.
JpgStatus jpgReadSeekMarkerData(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    param->mode |= kModeRewind;
    return JPG_STATUS_NOT_SUPPORTED;
}

}  // extern "C"
