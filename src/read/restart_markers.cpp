// Restart and end-of-scan processing: what follows the entropy-coded data of
// a restart interval or a scan (ISO/IEC 10918-1 B.2.5, B.2.6, E.2.4): RSTn
// resets the prediction state, DNL supplies a missing height, EOI is
// recorded, anything else starts the next scan header.
// Every loop here consumes input on each turn or ends.
#include "core/api_checks.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

bool isRestart(uint32_t code) { return code >= 0xFFD0 && code <= 0xFFD7; }

// Entropy-coded data (no marker) follows.
bool dataFollows(uint32_t code) { return code < 0xFFC0 && code != 0xFF00; }

void resetPrediction(JpgParam *param) {
    param->mcuAddress = 0;
    param->eobRun = 0;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
}

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

extern "C" {

JpgStatus jpgReadEpilogEntropyCodedSegment(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    uint32_t code = jpgReadShowMarkerCode(param);
    while (!dataFollows(code) && param->bs.state == 0) {
        if (isRestart(code)) {
            jpgReadFlushMarkerCode(param);
            resetPrediction(param);
        } else if (code == 0xFFD9) {
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
        } else if (code == 0xFFD9) {
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
