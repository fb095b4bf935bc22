// Scan header parser: reads the segments in front of a scan, builds the
// lookups of newly defined Huffman tables and reads the SOS header
// (ISO/IEC 10918-1 B.2.3). A scan names any subset of the frame's components
// in any order, each once; its table bindings go into the record of the
// component it names, and the scan's own order is kept apart in the decode
// state (frame index and first block inside an MCU per scan position).
// Only tables that hold codes are ever bound, so the entropy decoders never
// meet an undefined table; sequential frames fall back on the tables of
// Annex K.3 where no DHT defined one (Motion-JPEG). The DC predictors start
// at zero in every scan (F.2.1.3.1).
#include "core/api_checks.h"
#include "core/tables.h"
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

bool isSequential(const JpgParam *param) {
    return param->frameMarker == 0xFFC0 || param->frameMarker == 0xFFC1;
}

// Which tables the frame's process reads in this scan.
void tablesUsed(const JpgParam *param, bool *dc, bool *ac) {
    *dc = true;  // progressive scans check the DC slot always, deliberately
    *ac = isSequential(param) || (param->frameMarker == 0xFFC2 && param->scanSs != 0);
}

// A sequential scan that selects a table no DHT defined gets the Annex K.3
// table of its class (luminance for even identifiers, chrominance for odd
// ones), as Motion-JPEG frames expect; a table a DHT defined is kept.
JpgStatus defaultTable(JpgParam *param, JpgHuffmanTable &table, bool ac, uint32_t id) {
    if (!isSequential(param) || table.origin == kTableFromDht || kiv::hasDecodeLookup(table))
        return JPG_STATUS_OK;
    const uint8_t *source = kiv::kAnnexKHuffman + kiv::kAnnexKStart[(ac ? 2 : 0) + (id & 1)];
    uint8_t definition[273] = {};
    uint32_t count = kiv::bitsSum(source);
    for (uint32_t i = 0; i < 16 + count; i++)
        definition[i] = source[i];
    definition[272] = static_cast<uint8_t>((ac ? 0x10 : 0) | id);
    JpgStatus status = jpgGenerateHuffmanTable(param, definition, count);
    if (status == JPG_STATUS_OK)
        table.origin = kTableDefault;
    return status;
}

uint32_t samplingBlocks(uint8_t sampling) { return (sampling >> 4) * (sampling & 15u); }

int32_t findFrameComponent(const JpgParam *param, uint8_t id) {
    for (uint32_t c = 0; c < param->numComponents && c < 4; c++)
        if (param->components[c].id == id)
            return static_cast<int32_t>(c);
    return -1;
}

// Scan component i names a frame component (B.2.3) not named before in the
// scan; its record receives the tables, the scan order its frame index and
// the first of its blocks inside an MCU (frame components lie in frame order).
JpgStatus bindComponents(JpgParam *param, const ScanHeader &scan) {
    bool needDc, needAc;
    tablesUsed(param, &needDc, &needAc);
    uint32_t named = 0;
    param->dec.scanInFrameOrder = 1;
    for (uint32_t i = 0; i < scan.ns; i++) {
        int32_t match = findFrameComponent(param, scan.cs[i]);
        uint32_t td = scan.tdTa[i] >> 4, ta = scan.tdTa[i] & 15;
        if (match < 0 || (named & (1u << match)) != 0 || td > 3 || ta > 3)
            return JPG_STATUS_BAD_DATA;
        named |= 1u << match;
        JpgHuffmanTable &dc = param->dcTables[td];
        JpgHuffmanTable &ac = param->acTables[ta];
        JpgStatus status = needDc ? defaultTable(param, dc, false, td) : JPG_STATUS_OK;
        if (status == JPG_STATUS_OK && needAc)
            status = defaultTable(param, ac, true, ta);
        if (status != JPG_STATUS_OK)
            return status;
        if ((needDc && !kiv::hasDecodeLookup(dc)) || (needAc && !kiv::hasDecodeLookup(ac)))
            return JPG_STATUS_BAD_DATA;
        JpgComponent &record = param->components[match];
        record.acLookup = ac.level;
        record.dcLookup = dc.level;
        record.acTable = &ac;
        record.dcTable = &dc;
        record.dcFastLimit = dc.level[0].limit;
        record.acFastLimit = ac.level[0].limit;
        record.blocks = samplingBlocks(record.sampling);
        uint32_t start = 0;
        for (int32_t c = 0; c < match; c++)
            start += samplingBlocks(param->components[c].sampling);
        param->dec.scanComponents[i] = static_cast<uint8_t>(match);
        param->dec.scanInFrameOrder &= static_cast<uint32_t>(match) == i;
        param->dec.scanBlockStart[i] = static_cast<uint8_t>(start);
    }
    return JPG_STATUS_OK;
}

// Progressive scans take one of the four routines of Annex G.1.2; blocks of
// sequential scans decoded into the coefficient store take the store's.
void chooseCoefficientRoutine(JpgParam *param) {
    if (param->frameMarker != 0xFFC2) {
        param->routines.coefficient = isSequential(param) ? kiv::decodeBlockToStore : nullptr;
        return;
    }
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
    // Every decoder reads the multi-level lookups that each DHT segment built
    // already; the symbol-index lookups of jpgReadInitializeDecVLCTable (64 KiB
    // to clear for a 16-bit table) would only be released again below.
    if (param->dhtCount != 0) {
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
    chooseCoefficientRoutine(param);
    if (param->mcuBuffer != nullptr && param->dec.coefBase != nullptr)
        param->dec.coefCursor = param->dec.coefBase;
    for (JpgComponent &c : param->components)
        c.dcPred = 0;
    param->eobRun = 0;
    param->mcuAddress = 0;
    return JPG_STATUS_OK;
}

}  // extern "C"
