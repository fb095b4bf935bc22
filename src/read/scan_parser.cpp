// Scan header parser: reads the segments in front of a scan, builds the
// lookups of newly defined Huffman tables and reads the SOS header
// (ISO/IEC 10918-1 B.2.3), binding scan component i to record i. Only tables
// that hold codes are ever bound, so the entropy decoders never meet an
// undefined table; the DC predictors start at zero in every scan (F.2.1.3.1).
#include "core/api_checks.h"
#include "read/bit_reader.h"
#include "read/front_end.h"

namespace {

struct ScanHeader {
    uint32_t ns = 0;
    uint8_t cs[4] = {};
    uint8_t tdTa[4] = {};
};

JpgStatus dcRefinement(JpgParam *param, int16_t *block, JpgComponent *) {
    return jpgReadGetProgressiveDCDiffCoefficient(param, block);
}

JpgStatus readSos(JpgParam *param, ScanHeader *scan) {
    scan->ns = jpgReadGetBytes(param, 8);
    param->scanNs = static_cast<uint8_t>(scan->ns);
    if (scan->ns > 4 || scan->ns == 0 || param->segmentLength != 4 + 2 * scan->ns)
        return param->bs.state != 0 ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_BAD_DATA;
    for (uint32_t i = 0; i < scan->ns; i++) {
        scan->cs[i] = static_cast<uint8_t>(jpgReadGetBytes(param, 8));
        scan->tdTa[i] = static_cast<uint8_t>(jpgReadGetBytes(param, 8));
    }
    param->scanCs = scan->cs[0];
    param->scanSs = static_cast<uint8_t>(jpgReadGetBytes(param, 8));
    param->scanSe = static_cast<uint8_t>(jpgReadGetBytes(param, 8));
    uint32_t ahAl = jpgReadGetBytes(param, 8);
    param->scanAh = static_cast<uint8_t>(ahAl >> 4);
    param->scanAl = static_cast<uint8_t>(ahAl & 15);
    param->segmentConsumed = param->segmentLength;
    return param->bs.state != 0 ? JPG_STATUS_UNEXPECTED_END : JPG_STATUS_OK;
}

// The code lists and symbol indexes are needed only while lookups are derived.
void releaseDerivedArrays(JpgParam *param) {
    auto release = [param](JpgHuffmanTable &t) {
        jpgMemFree(param, t.codes);
        jpgMemFree(param, t.symbolIndex);
        t.codes = nullptr;
        t.symbolIndex = nullptr;
    };
    for (int id = 0; id < 4; id++) {
        release(param->dcTables[id]);
        release(param->acTables[id]);
    }
}

// Which tables the frame's process reads in this scan.
void tablesUsed(const JpgParam *param, bool *dc, bool *ac) {
    uint32_t frame = param->frameMarker;
    *dc = true;  // progressive scans check the DC slot always, deliberately
    *ac = frame == 0xFFC0 || frame == 0xFFC1 || (frame == 0xFFC2 && param->scanSs != 0);
}

// Scan components must name frame components, each once, in frame order (B.2.3).
JpgStatus bindComponents(JpgParam *param, const ScanHeader &scan) {
    bool needDc, needAc;
    tablesUsed(param, &needDc, &needAc);
    int32_t previous = -1;
    for (uint32_t i = 0; i < scan.ns; i++) {
        int32_t match = -1;
        for (uint32_t c = 0; c < param->numComponents && c < 4 && match < 0; c++)
            match = param->components[c].id == scan.cs[i] ? static_cast<int32_t>(c) : -1;
        uint32_t td = scan.tdTa[i] >> 4, ta = scan.tdTa[i] & 15;
        if (match <= previous || td > 3 || ta > 3)
            return JPG_STATUS_BAD_DATA;
        JpgHuffmanTable &dc = param->dcTables[td];
        JpgHuffmanTable &ac = param->acTables[ta];
        if ((needDc && !kiv::hasDecodeLookup(dc)) || (needAc && !kiv::hasDecodeLookup(ac)))
            return JPG_STATUS_BAD_DATA;
        previous = match;
        param->dec.scanComponents[i] = static_cast<uint8_t>(match);
        JpgComponent &record = param->components[i];
        record.acLookup = ac.level;
        record.dcLookup = dc.level;
        record.acTable = &ac;
        record.dcTable = &dc;
        record.dcFastLimit = dc.level[0].limit;
        record.acFastLimit = ac.level[0].limit;
        uint8_t sampling = param->components[match].sampling;
        record.blocks = (sampling >> 4) * (sampling & 15u);
    }
    return JPG_STATUS_OK;
}

uint32_t firstComponentOffset(const JpgParam *param) {
    uint32_t offset = 0;
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++) {
        if (param->components[c].id == param->scanCs)
            break;
        offset += (param->components[c].sampling >> 4) * (param->components[c].sampling & 15u);
    }
    return offset;
}

void chooseProgressiveRoutine(JpgParam *param) {
    bool dcScan = param->scanSs == 0 && param->scanSe == 0;
    if (dcScan)
        param->routines.coefficient =
            param->scanAh == 0 ? jpgReadGetProgressiveDCBaseCoefficient : dcRefinement;
    else
        param->routines.coefficient = param->scanAh == 0 ? jpgReadGetProgressiveACBaseCoefficient
                                                         : jpgReadGetProgressiveACDiffCoefficient;
}

}  // namespace

extern "C" {

JpgStatus jpgReadParseScanLevel(JpgParam *param) {
    if (JpgStatus s = kiv::guardRead(param))
        return s;
    uint32_t marker = 0;
    JpgStatus status = kiv::parseTableSegments(param, &marker);
    if (status != JPG_STATUS_OK)
        return status;
    if (param->dhtCount != 0) {
        status = jpgReadInitializeDecVLCTable(param);
        if (status != JPG_STATUS_OK)
            return status;
        param->dhtCount = 0;
        param->dhtList[0] = -1;
    }
    ScanHeader scan;
    param->scanNs = 0;
    if (marker == 0xFFDA && (status = readSos(param, &scan)) != JPG_STATUS_OK) {
        param->scanNs = 0;  // nothing is bound: no decoder may run
        return status;
    }
    releaseDerivedArrays(param);
    status = bindComponents(param, scan);
    if (status != JPG_STATUS_OK) {
        param->scanNs = 0;
        return status;
    }
    param->dec.scanBlockOffset = firstComponentOffset(param);
    if (param->frameMarker == 0xFFC2)
        chooseProgressiveRoutine(param);
    if (param->mcuBuffer != nullptr && param->dec.coefBase != nullptr)
        param->dec.coefCursor = param->dec.coefBase;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
    param->eobRun = 0;
    param->mcuAddress = 0;
    return JPG_STATUS_OK;
}

}  // extern "C"
