// Restart and end-of-scan processing, the one mechanism every scan kind
// uses (ISO/IEC 10918-1 B.2.1, B.2.5, B.2.6, E.2.4, F.1.2.3): a restart
// interval counts units (MCUs; in a scan of one component its blocks), and
// at its end the RSTn marker is consumed and the DC predictions, the EOB run
// and the count start afresh. A stream whose interval does not end where the
// count says is resynchronised at the next marker. DNL supplies a missing
// height, EOI is recorded, anything else starts the next scan header.
// Every loop here consumes input on each turn or ends.
#include "core/api_checks.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

constexpr uint32_t kLowestMarker = 0xFFC0;  // below it, entropy-coded data follows
constexpr uint32_t kFill = 0xFFFF;          // fill bytes may precede any marker (B.1.1.2)
constexpr uint32_t kEoi = 0xFFD9;

bool isRestart(uint32_t code) { return code >= 0xFFD0 && code <= 0xFFD7; }

// Entropy-coded data (no marker) follows.
bool dataFollows(uint32_t code) { return code < kLowestMarker && code != 0xFF00; }

// DNL (B.2.5): a length of 4 carries the number of lines.
void readNumberOfLines(JpgParam *param) {
    jpgReadFlushMarkerCode(param);
    if (jpgReadGetBytes(param, 16) != 4)
        return;
    uint32_t lines = jpgReadGetBytes(param, 16);
    if (param->height == 0)
        param->height = lines;
}

}  // namespace

namespace kiv {

void resetPrediction(JpgParam *param) {
    param->mcuAddress = 0;
    param->eobRun = 0;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
}

void skipToMarker(JpgParam *param) {
    jpgReadFlushBits(param);
    for (;;) {
        uint32_t next = jpgReadShowRawBits(param, 16);
        if (param->bs.state != 0 || (next >= kLowestMarker && next != kFill))
            return;
        jpgReadGetBytes(param, 8);
    }
}

// The padding bits of the interval's last byte are dropped; the marker
// stands at the next byte. Exactly one marker is consumed: looking past it
// would load the next interval's first bytes raw, and a stuffed 0xFF 0x00
// among them would then count as data.
bool startNextInterval(JpgParam *param) {
    jpgReadFlushBits(param);
    uint32_t code = jpgReadShowMarkerCode(param);
    if (code < kLowestMarker || code == kFill) {
        skipToMarker(param);
        code = jpgReadShowMarkerCode(param);
    }
    if (param->bs.state != 0 || !isRestart(code))
        return false;
    jpgReadFlushMarkerCode(param);
    resetPrediction(param);
    return true;
}

uint32_t markerAfterScan(JpgParam *param) {
    uint32_t code = jpgReadShowMarkerCode(param);
    while (param->bs.state == 0 && (isRestart(code) || code == 0xFFDC || code == kFill)) {
        if (code == 0xFFDC) {
            readNumberOfLines(param);
        } else if (code == kFill) {
            jpgReadFlushBits(param);
            jpgReadGetBytes(param, 8);
        } else {
            jpgReadFlushMarkerCode(param);
        }
        code = jpgReadShowMarkerCode(param);
    }
    return code;
}

}  // namespace kiv

extern "C" {

JpgStatus jpgReadEpilogEntropyCodedSegment(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    uint32_t code = jpgReadShowMarkerCode(param);
    while (!dataFollows(code) && param->bs.state == 0) {
        if (isRestart(code)) {
            jpgReadFlushMarkerCode(param);
            kiv::resetPrediction(param);
        } else if (code == kEoi) {
            param->currentMarker = code;
            return JPG_STATUS_OK;
        } else if (code == 0xFFDC) {
            readNumberOfLines(param);
        } else if (code == 0xFF00) {
            jpgReadDeleteByteStuffingCode(param);
            return JPG_STATUS_OK;
        } else {
            jpgReadParseScanLevel(param);  // consumes at least the marker
        }
        code = jpgReadShowMarkerCode(param);
    }
    return JPG_STATUS_OK;
}

// Consumes restart markers, resetting only the MCU address: callers keep
// their own prediction state. A marker it does not handle ends the call with
// JPG_STATUS_BAD_DATA instead of looking at it forever.
JpgStatus jpgReadReadRestartMarker(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    for (;;) {
        uint32_t code = jpgReadShowMarkerCode(param);
        if (dataFollows(code))
            return JPG_STATUS_OK;
        if (param->bs.state != 0)
            return JPG_STATUS_UNEXPECTED_END;
        if (isRestart(code)) {
            jpgReadFlushMarkerCode(param);
            param->mcuAddress = 0;
        } else if (code == kEoi) {
            param->currentMarker = code;
            return JPG_STATUS_OK;
        } else if (code == 0xFF00) {
            jpgReadDeleteByteStuffingCode(param);
            return JPG_STATUS_OK;
        } else {
            return JPG_STATUS_BAD_DATA;
        }
    }
}

}  // extern "C"
