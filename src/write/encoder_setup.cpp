// Encoder set-up: opens a write handle on memory or a file, writes SOI,
// stores the defaults, and offers the setters by which a client chooses the
// stream's parameters; also turns those parameters into component
// identifiers, validated sampling factors (ISO/IEC 10918-1 A.1.1, B.2.2) and
// the identifier of the input colour conversion.
#include "core/api_checks.h"
#include "write/encoder.h"

namespace {

constexpr uint32_t kDefaultFlags = kModeWrite | kModeYCbCr;  // 0x8200000
constexpr uint32_t kDefaultSampling = 0x221111;

// One unsigned comparison: a value below `low` wraps and is refused too.
constexpr bool inRange(uint32_t v, uint32_t low, uint32_t high) { return v - low <= high - low; }

uint32_t highNibble(uint32_t byte) { return (byte >> 4) & 0xF; }
uint32_t lowNibble(uint32_t byte) { return byte & 0xF; }

void setDefaults(JpgParam *param) {
    param->enc.quality = 90;
    param->restartInterval = 0;
    param->samplingFactors = kDefaultSampling;
    param->scanSs = 1;
    param->enc.subsamplingMethod = 0;
    param->numComponents = 0;
    param->mode = kDefaultFlags;
    param->enc.restartNumber = 0;
    param->enc.rowsEncoded = 0;
    param->frameMarker = 0xFFC0;
    param->precision = 8;
    param->height = 0;
    param->width = 0;
    param->mcuAddress = 0;
    param->enc.mcuBlocks = nullptr;
    for (int i = 0; i < 4; i++) {
        JpgComponent &c = param->components[i];
        if (i < 3)
            c.id = static_cast<uint8_t>(i + 1);
        uint8_t table = i == 0 ? 0 : 1;
        c.quantSelector = c.dcSelector = c.acSelector = table;
        c.dcPred = 0;
    }
}

// The three table-selector setters share their checks: component 4 passes
// the range test of the interface but has no record, so it is refused.
JpgStatus setSelector(JpgParam *param, uint32_t component, uint32_t table,
                      uint8_t JpgComponent::*field) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (!inRange(component, 0, 4) || !inRange(table, 0, 3) || component >= 4)
        return JPG_STATUS_INVALID_PARAMETER;
    param->components[component].*field = static_cast<uint8_t>(table);
    return JPG_STATUS_OK;
}

}  // namespace

extern "C" {

JpgStatus jpgWritePrologToFile(const char *name, uint32_t, JpgParam **out) {
    if (name == nullptr || out == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *out = nullptr;
    if (complibLibCstrlen(name) >= sizeof(ComplibBitstream::path))  // the handle could not hold it
        return JPG_STATUS_INVALID_PARAMETER;
    JpgParam *param = jpgProlog(name);
    if (param == nullptr)
        return JPG_STATUS_NO_MEMORY;
    JpgStatus status = jpgWriteProlog(param);
    if (status != JPG_STATUS_OK) {
        jpgWriteEpilogToFile(param);
        return status;
    }
    *out = param;
    return JPG_STATUS_OK;
}

JpgStatus jpgWritePrologToMemory(uint32_t options, JpgParam **out) {
    if (out == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *out = nullptr;
    JpgParam *param = jpgProlog(nullptr);
    if (param == nullptr)
        return JPG_STATUS_NO_MEMORY;
    param->bs.flags = COMPLIB_BS_MEMORY;
    param->bs.memLength = 0;
    JpgStatus status = jpgWriteProlog(param);
    if (status != JPG_STATUS_OK) {
        jpgWriteEpilogToFile(param);
        return status;
    }
    param->mode |= kModeMemory | (options & kModePartial);
    *out = param;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteProlog(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    param->routines.writeMcu = jpgGetWriteMCUFunc(0x301, param->processorFlag);
    param->routines.writeMcu303 = jpgGetWriteMCUFunc(0x303, param->processorFlag);
    // The staging buffer of the bit writer is the handle's 64 KiB input area.
    param->bs.putStart = param->input;
    param->bs.putPtr = param->input;
    param->bs.putEnd = param->input + kiv::kStagingSize;
    param->bs.fill = 0;
    JpgStatus status = complibCreateBitstreamFile(&param->bs);
    if (status != JPG_STATUS_OK)
        return status;
    status = jpgWritePutMarkerCode(&param->bs, 0xFFD8);
    if (status != JPG_STATUS_OK)
        return status;
    setDefaults(param);
    jpgSetProcessorArchitectureFlag(param, 0xFFFFFFFFu);
    kiv::loadDefaultQuantTables(param);
    return status;
}

JpgStatus jpgWriteSetImageSize(JpgParam *param, uint32_t width, uint32_t height) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    // Once the frame is fixed its size sizes the encoder's buffers.
    if (width == 0 || height == 0 || kiv::encoderFrameFixed(param))
        return JPG_STATUS_INVALID_PARAMETER;
    param->width = width;
    param->height = height;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetInternalColorSpace(JpgParam *param, int32_t space) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (space == 0)
        param->mode |= kModeYCbCr;
    else if (space == 1)
        param->mode &= ~kModeYCbCr;
    else
        return JPG_STATUS_INVALID_PARAMETER;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetNoColorConversion(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    param->mode |= kModeNoColorConversion;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetSubsamplingFactor(JpgParam *param, uint32_t factor) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    uint32_t sum = 0, hmax = 1, vmax = 1;
    for (int i = 0; i < 4; i++) {
        uint32_t byte = (factor >> (8 * i)) & 0xFF;
        sum += highNibble(byte) * lowNibble(byte);
        hmax = highNibble(byte) > hmax ? highNibble(byte) : hmax;
        vmax = lowNibble(byte) > vmax ? lowNibble(byte) : vmax;
    }
    if (sum > kiv::kMaxBlocksPerMcu)
        return JPG_STATUS_INVALID_PARAMETER;
    for (int i = 0; i < 4; i++) {
        uint32_t h = highNibble(factor >> (8 * i)), v = lowNibble(factor >> (8 * i));
        if ((h != 0 && hmax % h != 0) || (v != 0 && vmax % v != 0))
            return JPG_STATUS_INVALID_PARAMETER;
    }
    param->samplingFactors = factor;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetSubsamplingMethod(JpgParam *param, uint32_t method) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (!inRange(method, 0, 1))
        return JPG_STATUS_INVALID_PARAMETER;
    param->enc.subsamplingMethod = method;
    return JPG_STATUS_OK;
}

// A null output is reported as an invalid handle, like every null output.
JpgStatus jpgWriteGetSubsamplingMethod(JpgParam *param, uint32_t *method) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (method == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    *method = param->enc.subsamplingMethod;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetNumberOfChannels(JpgParam *param, uint32_t channels) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (!inRange(channels, 1, 4) || kiv::encoderFrameFixed(param))
        return JPG_STATUS_INVALID_PARAMETER;
    param->numComponents = channels;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetQuantizationFactor(JpgParam *param, uint32_t factor) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (!inRange(factor, 1, 100))
        return JPG_STATUS_INVALID_PARAMETER;
    param->enc.quality = factor;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetQuantizationTableSelector(JpgParam *param, uint32_t component,
                                               uint32_t table) {
    return setSelector(param, component, table, &JpgComponent::quantSelector);
}

JpgStatus jpgWriteSetDCEntropyTableSelector(JpgParam *param, uint32_t component, uint32_t table) {
    return setSelector(param, component, table, &JpgComponent::dcSelector);
}

JpgStatus jpgWriteSetACEntropyTableSelector(JpgParam *param, uint32_t component, uint32_t table) {
    return setSelector(param, component, table, &JpgComponent::acSelector);
}

JpgStatus jpgWriteSetRestartInterval(JpgParam *param, uint16_t interval) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    param->restartInterval = interval;
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSetSpatialPredictor(JpgParam *param, int32_t predictor) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (!inRange(static_cast<uint32_t>(predictor), 1, 7))
        return JPG_STATUS_INVALID_PARAMETER;
    param->scanSs = static_cast<uint8_t>(predictor);
    return JPG_STATUS_OK;
}

// Component identifiers: "R", "G", "B" mark a stream kept in RGB (no
// conversion, internal colour space 1); otherwise 1, 2, 3 (and 4).
JpgStatus SetColorIngredient(JpgParam *param) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    JpgComponent *c = param->components;
    switch (param->numComponents) {
    case 1:
        c[0].id = 1;
        break;
    case 3:
        if ((param->mode & kModeNoColorConversion) && !(param->mode & kModeYCbCr)) {
            c[0].id = 'R';
            c[1].id = 'G';
            c[2].id = 'B';
        } else {
            c[0].id = 1;
            c[1].id = 2;
            c[2].id = 3;
        }
        break;
    case 4:
        for (int i = 0; i < 4; i++)
            c[i].id = static_cast<uint8_t>(i + 1);
        break;
    default:
        break;
    }
    return JPG_STATUS_OK;
}

JpgStatus jpgWriteSSSetting(JpgParam *param, uint32_t *factors) {
    if (JpgStatus s = kiv::guardWrite(param))
        return s;
    if (factors == nullptr)
        return JPG_STATUS_INVALID_HANDLE;
    uint32_t n = param->numComponents;
    if (n > 4)
        return JPG_STATUS_INVALID_PARAMETER;
    uint32_t hmax = 1, vmax = 1;
    for (uint32_t i = 0; i < n; i++) {
        uint32_t h = highNibble(param->components[i].sampling);
        uint32_t v = lowNibble(param->components[i].sampling);
        factors[2 * i] = h;
        factors[2 * i + 1] = v;
        if (h == 0 || v == 0)
            return JPG_STATUS_NOT_SUPPORTED;
        hmax = h > hmax ? h : hmax;
        vmax = v > vmax ? v : vmax;
    }
    for (uint32_t i = 0; i < n; i++) {
        if (hmax % factors[2 * i] != 0 || vmax % factors[2 * i + 1] != 0)
            return JPG_STATUS_NOT_SUPPORTED;
    }
    return JPG_STATUS_OK;
}

uint32_t jpgWriteMakeClrCvtID(JpgParam *param) {
    if (!kiv::mayWrite(param))
        return 0;
    uint32_t kind = 0;
    if (param->numComponents == 3)
        kind = (param->mode & kModeNoColorConversion) ? 1 : 2;
    return (param->numComponents & 0xFF) | ((param->mcuHeight / 8) & 0xFF) << 8 |
           ((param->mcuWidth / 8) & 0xFF) << 16 | kind << 24 |
           static_cast<uint32_t>(param->precision != 8) << 29 |
           (param->enc.subsamplingMethod & 1) << 31;
}

}  // extern "C"
