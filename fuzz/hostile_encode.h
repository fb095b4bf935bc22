// Drives the encoder of the public interface with parameters and pixels
// taken from arbitrary bytes: baseline or lossless, memory or file output,
// every setter with raw (possibly out-of-range) values, strips of any height.
// The stream produced is decoded again; a lossless stream must give back
// the samples exactly. Shared by the fuzz target and the concurrency test.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include "kivjpeg.h"

namespace kivtest {

struct EncodePlan {
    uint8_t mode = 0;        // bit 0 lossless; 1 file output; 2 no colour conversion;
                             // 3 internal colour space 1; 4 subsampling method 1;
                             // 5 set the image size first; 6 add an APP segment;
                             // 7 rows in strips
    uint32_t width = 16, height = 16;
    uint32_t channels = 3;   // 1..4 as stored in the rectangle
    uint32_t quality = 90;   // passed as is (0 and >100 must be refused)
    uint32_t sampling = 0x221111;
    uint16_t restart = 0;
    int32_t predictor = 1;
    uint32_t strip = 0;      // rows per jpgWrite*FromRect call, 0 = all
    uint32_t precision = 8;  // lossless sample precision 2..16
    uint8_t selectors = 0;   // bits 0-1 table, 2-4 component, 5 DC, 6 AC, 7 quant
    std::vector<uint8_t> segment;  // payload of an APP segment, when mode bit 6
    std::string tempDir = "/tmp";
};

struct EncodeOutcome {
    JpgStatus status = JPG_STATUS_OK;   // first failure of the encode calls
    JpgStatus decode = JPG_STATUS_ERROR;
    std::vector<uint8_t> stream;
    std::vector<uint8_t> samples;       // the encoder's input, as the decoder should return it
    std::vector<uint8_t> decoded;       // what the decoder gave back
    bool roundTripChecked = false;
    bool roundTripExact = false;
};

constexpr size_t kEncodePlanBytes = 12;

inline size_t ReadEncodePlan(const uint8_t *data, size_t size, EncodePlan *plan) {
    static constexpr uint32_t kSampling[] = {0x221111, 0x211111, 0x121111, 0x111111,
                                             0x1111,   0x2111,   0x11,     0x22111111,
                                             0x321111, 0x41111111, 0x441111, 0x22221111};
    if (size < kEncodePlanBytes)
        return 0;
    plan->mode = data[0];
    plan->width = data[1] % 96 + 1;
    plan->height = data[2] % 96 + 1;
    plan->channels = data[3] % 4 + 1;
    plan->quality = data[4] < 240 ? data[4] % 100 + 1 : data[4] - 139;
    plan->sampling = kSampling[data[5] % (sizeof kSampling / sizeof kSampling[0])];
    plan->restart = data[6] < 200 ? 0 : uint16_t(data[6] - 199);
    plan->predictor = data[7] % 9;
    plan->strip = data[8] % 24;
    plan->precision = data[9] % 15 + 2;
    plan->selectors = data[10];
    size_t segment = data[11] % 32;
    if (segment > size - kEncodePlanBytes)
        segment = size - kEncodePlanBytes;
    plan->segment.assign(data + kEncodePlanBytes, data + kEncodePlanBytes + segment);
    return kEncodePlanBytes + segment;
}

namespace detail {

// Every setter gets the plan's raw value; a refused value leaves the default.
inline void Setup(JpgParam *param, const EncodePlan &plan) {
    if (plan.mode & 4)
        jpgWriteSetNoColorConversion(param);
    jpgWriteSetInternalColorSpace(param, (plan.mode & 8) ? 1 : 0);
    jpgWriteSetSubsamplingMethod(param, (plan.mode >> 4) & 1);
    if (plan.mode & 32)
        jpgWriteSetImageSize(param, plan.width, plan.height);
    jpgWriteSetNumberOfChannels(param, plan.channels);
    jpgWriteSetQuantizationFactor(param, plan.quality);
    jpgWriteSetSubsamplingFactor(param, plan.sampling);
    jpgWriteSetRestartInterval(param, plan.restart);
    jpgWriteSetSpatialPredictor(param, plan.predictor);
    uint32_t table = plan.selectors & 3, component = (plan.selectors >> 2) & 7;
    if (plan.selectors & 0x20)
        jpgWriteSetDCEntropyTableSelector(param, component, table);
    if (plan.selectors & 0x40)
        jpgWriteSetACEntropyTableSelector(param, component, table);
    if (plan.selectors & 0x80)
        jpgWriteSetQuantizationTableSelector(param, component, table);
    uint32_t method = 9;
    jpgWriteGetSubsamplingMethod(param, &method);
    if (plan.mode & 64)
        jpgWriteWriteMarkerSegment(param, 0xFFE5, plan.segment.data(),
                                        int32_t(plan.segment.size()));
}

// Fills the encoder's input: 8-bit interleaved pixels, or lossless samples
// of the plan's precision (one byte up to 8 bits, else two), from the bytes.
inline std::vector<uint8_t> Samples(const EncodePlan &plan, const uint8_t *data, size_t size,
                                    uint32_t bytes) {
    std::vector<uint8_t> out(size_t(plan.width) * plan.height * plan.channels * bytes);
    uint32_t precision = (plan.mode & 1) ? plan.precision : 8;
    uint32_t mask = precision >= 16 ? 0xFFFF : (1u << precision) - 1;
    for (size_t i = 0; i < out.size() / bytes; i++) {
        uint32_t v = size == 0 ? uint32_t(i * 37) : data[i % size] * 257u + uint32_t(i / size);
        v &= mask;
        if (bytes == 1)
            out[i] = uint8_t(v);
        else
            std::memcpy(&out[2 * i], &v, 2);  // host order, as the rectangle holds it
    }
    return out;
}

}  // namespace detail

// Decodes a lossless stream back into samples (host-order u16 above 8 bits).
inline JpgStatus DecodeLossless(const std::vector<uint8_t> &stream, uint32_t channels,
                                uint32_t bytes, std::vector<uint8_t> *out) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgReadPrologFromMemory(stream.data(), int32_t(stream.size()), 0, &param);
    if (status != JPG_STATUS_OK)
        return status;
    uint32_t w = 0, h = 0;
    jpgReadGetImageSize(param, &w, &h);
    ComplibRect rect{};
    out->assign(size_t(w) * h * channels * bytes, 0);
    rect.width = int32_t(w);
    rect.height = int32_t(h);
    rect.stride = int32_t(w * channels * bytes);
    rect.pixelBits = int32_t(channels * bytes * 8);
    rect.channels = int32_t(channels);
    rect.sampleBits = int32_t(bytes * 8);
    rect.pixels = out->data();
    rect.allocSize = uint32_t(out->size());
    status = jpgReadSpatialToRect(param, &rect, h);
    jpgReadEpilog(param);
    return status;
}

// Decodes a sequential stream into 8-bit pixels of the given channel count.
inline JpgStatus DecodeSequential(const std::vector<uint8_t> &stream, uint32_t channels,
                                  std::vector<uint8_t> *out, uint32_t *w, uint32_t *h) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgReadPrologFromMemory(stream.data(), int32_t(stream.size()), 0, &param);
    if (status != JPG_STATUS_OK)
        return status;
    jpgReadGetImageSize(param, w, h);
    uint32_t components = 0;
    jpgReadGetNumberOfChannels(param, &components);
    if (components > channels)
        channels = components;
    ComplibRect rect{};
    out->assign(size_t(*w) * *h * channels, 0);
    rect.width = int32_t(*w);
    rect.height = int32_t(*h);
    rect.stride = int32_t(*w * channels);
    rect.pixelBits = int32_t(channels * 8);
    rect.channels = int32_t(channels);
    rect.sampleBits = 8;
    rect.pixels = out->data();
    rect.allocSize = uint32_t(out->size());
    status = jpgReadToRect(param, &rect, *h);
    jpgReadEpilog(param);
    return status;
}

// Encodes the pixels the plan describes and decodes the result again.
inline EncodeOutcome EncodeWithPlan(const EncodePlan &plan, const uint8_t *data, size_t size) {
    EncodeOutcome out;
    bool lossless = plan.mode & 1;
    uint32_t bytes = lossless && plan.precision > 8 ? 2 : 1;
    out.samples = detail::Samples(plan, data, size, bytes);
    std::string path = plan.tempDir + "/kivfuzz-enc-" + std::to_string(syscall(SYS_gettid)) + ".jpg";
    JpgParam *param = nullptr;
    out.status = (plan.mode & 2) ? jpgWritePrologToFile(path.c_str(), 0, &param)
                                 : jpgWritePrologToMemory(0, &param);
    if (out.status != JPG_STATUS_OK || param == nullptr)
        return out;
    detail::Setup(param, plan);
    ComplibRect rect{};
    rect.width = int32_t(plan.width);
    rect.height = int32_t(plan.height);
    rect.stride = int32_t(plan.width * plan.channels * bytes);
    rect.pixelBits = int32_t(plan.channels * bytes * 8);
    rect.channels = int32_t(plan.channels);
    rect.sampleBits = int32_t(lossless ? plan.precision : 8);
    rect.allocSize = uint32_t(out.samples.size());
    uint32_t strip = (plan.mode & 128) && plan.strip != 0 ? plan.strip : plan.height;
    for (uint32_t y = 0; y < plan.height && out.status == JPG_STATUS_OK; y += strip) {
        uint32_t rows = plan.height - y < strip ? plan.height - y : strip;
        rect.pixels = out.samples.data() + size_t(y) * uint32_t(rect.stride);
        out.status = lossless ? jpgWriteSpatialFromRect(param, &rect, int32_t(rows))
                              : jpgWriteFromRect(param, &rect, rows);
    }
    if (plan.mode & 2) {
        JpgStatus end = jpgWriteEpilogToFile(param);
        FILE *file = std::fopen(path.c_str(), "rb");
        if (file != nullptr) {
            uint8_t buffer[4096];
            size_t n;
            while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0)
                out.stream.insert(out.stream.end(), buffer, buffer + n);
            std::fclose(file);
        }
        unlink(path.c_str());
        if (out.status == JPG_STATUS_OK)
            out.status = end;
    } else {
        uint8_t *buffer = nullptr;
        uint32_t length = 0;
        JpgStatus end = jpgWriteEpilogToMemory(param, &buffer, &length);
        if (end == JPG_STATUS_OK && buffer != nullptr)
            out.stream.assign(buffer, buffer + length);
        if (buffer != nullptr)
            jpgWriteFreeBitstream(buffer);
        if (out.status == JPG_STATUS_OK)
            out.status = end;
    }
    if (out.status != JPG_STATUS_OK || out.stream.empty())
        return out;
    if (lossless) {
        out.decode = DecodeLossless(out.stream, plan.channels, bytes, &out.decoded);
        if (out.decode == JPG_STATUS_OK && plan.predictor >= 1 && plan.predictor <= 7) {
            out.roundTripChecked = true;
            out.roundTripExact = out.decoded == out.samples;
        }
    } else {
        uint32_t w = 0, h = 0;
        out.decode = DecodeSequential(out.stream, plan.channels, &out.decoded, &w, &h);
        out.roundTripChecked = out.decode == JPG_STATUS_OK;
        out.roundTripExact = w == plan.width && h == plan.height;
    }
    return out;
}

}  // namespace kivtest
