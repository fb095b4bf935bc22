// Helpers for the lossless tests: an image of interleaved samples, encoding
// it with jpgWriteSpatialFromRect and decoding with jpgReadSpatialToRect,
// each with rows handed over in batches of a chosen size.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/handle.h"
#include "test_support.h"

namespace kivtest {

struct Samples {
    uint32_t width = 0, height = 0, components = 0, precision = 0;
    std::vector<uint16_t> v;  // sample x of component c in row y at (y * width + x) * components + c

    uint32_t bytes() const { return precision > 8 ? 2 : 1; }
    uint32_t rowSamples() const { return width * components; }
    bool operator==(const Samples &o) const {
        return width == o.width && height == o.height && components == o.components && v == o.v;
    }
};

inline Samples randomSamples(uint32_t w, uint32_t h, uint32_t nc, uint32_t p, uint32_t seed) {
    Samples s{w, h, nc, p, std::vector<uint16_t>(size_t(w) * h * nc)};
    std::mt19937 rng(seed);
    for (auto &x : s.v)
        x = static_cast<uint16_t>(rng() & ((1u << p) - 1));
    return s;
}

// Smooth ramps with a little noise: most differences are small.
inline Samples gradientSamples(uint32_t w, uint32_t h, uint32_t nc, uint32_t p, uint32_t seed) {
    Samples s{w, h, nc, p, std::vector<uint16_t>(size_t(w) * h * nc)};
    std::mt19937 rng(seed);
    uint32_t max = (1u << p) - 1;
    for (uint32_t y = 0; y < h; y++)
        for (uint32_t x = 0; x < w; x++)
            for (uint32_t c = 0; c < nc; c++) {
                uint64_t ramp = (uint64_t(x) * (c + 1) + y * 2) * max / (w * (c + 1) + 2 * h + 1);
                int64_t v = int64_t(ramp) + int64_t(rng() % 5) - 2;
                s.v[(size_t(y) * w + x) * nc + c] = uint16_t(v < 0 ? 0 : v > max ? max : v);
            }
    return s;
}

// A rectangle over rows [y, y + rows) of a buffer of rows of `stride` bytes.
inline ComplibRect rectOver(std::vector<uint8_t> &buf, const Samples &s, uint32_t stride, uint32_t y,
                            uint32_t rows) {
    ComplibRect r{};
    r.width = int32_t(s.width);
    r.height = int32_t(rows);
    r.stride = int32_t(stride);
    r.channels = int32_t(s.components);
    r.sampleBits = int32_t(s.precision);
    r.pixelBits = int32_t(s.bytes() * 8 * s.components);
    r.pixels = buf.data() + size_t(y) * stride;
    r.allocSize = uint32_t(buf.size() - size_t(y) * stride);
    return r;
}

// The samples as rows of `stride` bytes (native-endian 16-bit above 8 bits).
inline std::vector<uint8_t> packRows(const Samples &s, uint32_t stride) {
    std::vector<uint8_t> buf(size_t(stride) * s.height, 0xEE);
    for (uint32_t y = 0; y < s.height; y++)
        for (uint32_t i = 0; i < s.rowSamples(); i++) {
            uint16_t v = s.v[size_t(y) * s.rowSamples() + i];
            if (s.bytes() == 1)
                buf[size_t(y) * stride + i] = uint8_t(v);
            else
                std::memcpy(&buf[size_t(y) * stride + 2 * i], &v, 2);
        }
    return buf;
}

inline Samples unpackRows(const std::vector<uint8_t> &buf, Samples shape, uint32_t stride) {
    shape.v.assign(size_t(shape.width) * shape.height * shape.components, 0);
    for (uint32_t y = 0; y < shape.height; y++)
        for (uint32_t i = 0; i < shape.rowSamples(); i++) {
            uint16_t v;
            if (shape.bytes() == 1)
                v = buf[size_t(y) * stride + i];
            else
                std::memcpy(&v, &buf[size_t(y) * stride + 2 * i], 2);
            shape.v[size_t(y) * shape.rowSamples() + i] = v;
        }
    return shape;
}

struct EncodeOptions {
    int predictor = 1;
    uint32_t restartRows = 0;  // restart interval in whole rows; 0 = none
    uint32_t batch = 0;        // rows per call; 0 = all at once
};

// Encodes to memory; returns the stream, or an empty vector with *status set.
inline std::vector<uint8_t> encodeLossless(const Samples &s, const EncodeOptions &o,
                                           JpgStatus *status = nullptr) {
    JpgStatus st = JPG_STATUS_OK, dummy;
    JpgStatus &out = status ? *status : dummy;
    JpgParam *h = nullptr;
    out = jpgWritePrologToMemory(0, &h);
    if (out != JPG_STATUS_OK)
        return {};
    st = jpgWriteSetSpatialPredictor(h, o.predictor);
    if (st == JPG_STATUS_OK && o.restartRows)
        st = jpgWriteSetRestartInterval(h, uint16_t(o.restartRows * s.width));
    uint32_t stride = s.rowSamples() * s.bytes();
    std::vector<uint8_t> buf = packRows(s, stride);
    uint32_t batch = o.batch ? o.batch : s.height;
    for (uint32_t y = 0; st == JPG_STATUS_OK && y < s.height; y += batch) {
        uint32_t n = std::min(batch, s.height - y);
        ComplibRect r = rectOver(buf, s, stride, y, n);
        if (y == 0)
            r.height = int32_t(s.height);  // the first rectangle gives the image height
        st = jpgWriteSpatialFromRect(h, &r, int32_t(n));
    }
    uint8_t *data = nullptr;
    uint32_t size = 0;
    JpgStatus end = jpgWriteEpilogToMemory(h, &data, &size);
    out = st != JPG_STATUS_OK ? st : end;
    std::vector<uint8_t> bytes;
    if (out == JPG_STATUS_OK && data)
        bytes.assign(data, data + size);
    if (data)
        jpgWriteFreeBitstream(data);
    return bytes;
}

struct Decoded {
    JpgStatus status = JPG_STATUS_OK;  // prolog status, else the first failing decode call
    Samples samples;
    uint32_t rowsDone = 0;
};

// Decodes a whole stream with rows requested in batches.
inline Decoded decodeLossless(const std::vector<uint8_t> &bytes, uint32_t batch = 0) {
    Decoded d;
    JpgParam *h = nullptr;
    d.status = jpgReadPrologFromMemory(bytes.data(), int32_t(bytes.size()), 0, &h);
    if (d.status != JPG_STATUS_OK)
        return d;
    Samples &s = d.samples;
    jpgReadGetImageSize(h, &s.width, &s.height);
    jpgReadGetNumberOfChannels(h, &s.components);
    jpgReadGetSamplePrecision(h, &s.precision);
    uint32_t stride = s.rowSamples() * s.bytes();
    std::vector<uint8_t> buf(size_t(stride) * s.height + 4, 0xEE);
    batch = batch ? batch : s.height;
    for (uint32_t y = 0; y < s.height; y += batch) {
        uint32_t n = std::min(batch, s.height - y);
        ComplibRect r = rectOver(buf, s, stride, y, n);
        d.status = jpgReadSpatialToRect(h, &r, n);
        if (d.status != JPG_STATUS_OK)
            break;
        d.rowsDone = y + n;
    }
    s = unpackRows(buf, s, stride);
    jpgReadEpilog(h);
    return d;
}

// Offset of the first occurrence of marker 0xFF `code` (after SOI).
inline size_t findMarker(const std::vector<uint8_t> &b, uint8_t code, size_t from = 2) {
    for (size_t i = from; i + 1 < b.size(); i++)
        if (b[i] == 0xFF && b[i + 1] == code)
            return i;
    return std::string::npos;
}

}  // namespace kivtest
