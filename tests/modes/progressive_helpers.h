// Test helpers for the progressive decoder: whole-image decodes through the
// sequential and progressive drivers, incremental passes, PNM reading for
// the djpeg oracle, PSNR, jpegtran transcodes, and a small writer of
// hand-made progressive streams (one table set whose codes are all 4 bits
// long, so that a symbol's code is its index in the table).
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/handle.h"
#include "test_support.h"

namespace progtest {

using Bytes = std::vector<uint8_t>;

struct Image {
    int width = 0, height = 0, channels = 0;
    Bytes pixels;  // B, G, R (or one grey byte) per pixel, rows packed
    uint8_t at(int x, int y, int c) const { return pixels[(size_t(y) * width + x) * channels + c]; }
};

inline ComplibRect rectFor(Image &image) {
    ComplibRect rect{};
    rect.width = image.width;
    rect.height = image.height;
    rect.channels = image.channels;
    rect.stride = image.width * image.channels;
    rect.pixelBits = 8 * image.channels;
    rect.sampleBits = 8;
    rect.pixels = image.pixels.data();
    rect.allocSize = static_cast<uint32_t>(image.pixels.size());
    return rect;
}

// Opens a stream and sizes an image for it (one byte per component).
inline JpgStatus open(const Bytes &data, JpgParam **param, Image *image, int32_t flags = 0) {
    JpgStatus status = jpgReadPrologFromMemory(data.data(), static_cast<int32_t>(data.size()), flags, param);
    if (status != JPG_STATUS_OK)
        return status;
    uint32_t w = 0, h = 0, n = 0;
    jpgReadGetImageSize(*param, &w, &h);
    jpgReadGetNumberOfChannels(*param, &n);
    image->width = static_cast<int>(w);
    image->height = static_cast<int>(h);
    image->channels = static_cast<int>(n);
    image->pixels.assign(size_t(w) * h * n + 16, 0);  // 16 guard bytes, checked below
    return JPG_STATUS_OK;
}

inline bool guardIntact(const Image &image) {
    for (size_t i = size_t(image.width) * image.height * image.channels; i < image.pixels.size(); i++)
        if (image.pixels[i] != 0)
            return false;
    return true;
}

inline JpgStatus decodeSequential(const Bytes &data, Image *image) {
    JpgParam *param = nullptr;
    JpgStatus status = open(data, &param, image);
    if (status != JPG_STATUS_OK)
        return status;
    ComplibRect rect = rectFor(*image);
    status = jpgReadToRect(param, &rect, static_cast<uint32_t>(image->height));
    jpgReadEpilog(param);
    return status;
}

// Progressive decode, requesting `batch` rows per call (0: all at once).
inline JpgStatus decodeProgressive(const Bytes &data, Image *image, uint32_t batch = 0) {
    JpgParam *param = nullptr;
    JpgStatus status = open(data, &param, image);
    if (status != JPG_STATUS_OK)
        return status;
    uint32_t rows = batch == 0 ? static_cast<uint32_t>(image->height) : batch;
    for (uint32_t y = 0; y < uint32_t(image->height) && status == JPG_STATUS_OK; y += rows) {
        ComplibRect rect = rectFor(*image);
        rect.pixels += size_t(y) * rect.stride;
        rect.height -= static_cast<int32_t>(y);
        status = jpgReadProgressiveToRect(param, &rect, rows, 0);
    }
    jpgReadEpilog(param);
    return status;
}

// Incremental decode: one image per pass until the decoder reports that no
// scan is left; the status that ended the passes is returned.
inline JpgStatus decodePasses(const Bytes &data, std::vector<Image> *passes, uint32_t batch = 0) {
    JpgParam *param = nullptr;
    Image image;
    JpgStatus status = open(data, &param, &image);
    if (status != JPG_STATUS_OK)
        return status;
    uint32_t rows = batch == 0 ? static_cast<uint32_t>(image.height) : batch;
    for (int pass = 0; pass < 200; pass++) {
        for (uint32_t y = 0; y < uint32_t(image.height); y += rows) {
            ComplibRect rect = rectFor(image);
            rect.pixels += size_t(y) * rect.stride;
            rect.height -= static_cast<int32_t>(y);
            status = jpgReadProgressiveToRect(param, &rect, rows, JPG_PROGRESSIVE_INCREMENTAL);
            if (status != JPG_STATUS_OK)
                break;
        }
        if (status != JPG_STATUS_OK)
            break;
        passes->push_back(image);
    }
    jpgReadEpilog(param);
    return status;
}

// A binary PPM (P6, to B, G, R) or PGM (P5).
inline Image readPnm(const Bytes &file) {
    Image image;
    size_t pos = 0;
    auto token = [&]() {
        std::string t;
        while (pos < file.size() && (isspace(file[pos]) || file[pos] == '#')) {
            if (file[pos] == '#')
                while (pos < file.size() && file[pos] != '\n')
                    pos++;
            else
                pos++;
        }
        while (pos < file.size() && !isspace(file[pos]))
            t += static_cast<char>(file[pos++]);
        return t;
    };
    std::string magic = token();
    image.channels = magic == "P6" ? 3 : 1;
    image.width = std::stoi(token());
    image.height = std::stoi(token());
    token();
    pos++;
    image.pixels.assign(file.begin() + static_cast<long>(pos), file.end());
    image.pixels.resize(size_t(image.width) * image.height * image.channels);
    if (image.channels == 3)
        for (size_t i = 0; i < image.pixels.size(); i += 3)
            std::swap(image.pixels[i], image.pixels[i + 2]);
    return image;
}

inline double psnr(const Image &a, const Image &b) {
    double sum = 0;
    size_t n = size_t(a.width) * a.height * a.channels;
    for (size_t i = 0; i < n; i++) {
        double d = double(a.pixels[i]) - double(b.pixels[i]);
        sum += d * d;
    }
    if (sum == 0)
        return 99.0;
    return 10 * std::log10(255.0 * 255.0 * double(n) / sum);
}

// Pixels that differ between two decodes of the same size.
inline size_t differences(const Image &a, const Image &b) {
    size_t count = 0;
    for (size_t i = 0; i < size_t(a.width) * a.height * a.channels; i++)
        count += a.pixels[i] != b.pixels[i];
    return count;
}

// Runs jpegtran (or another tool) on a file and returns its output file.
inline Bytes transcode(const std::string &input, const std::string &options, const std::string &name) {
    std::string out = kivtest::tempPath(name);
    std::string command = "jpegtran " + options + " -outfile '" + out + "' '" + input + "'";
    EXPECT_EQ(kivtest::run(command), 0) << command;
    return kivtest::readFile(out);
}

inline std::string writeTemp(const std::string &name, const std::string &text) {
    std::string path = kivtest::tempPath(name);
    FILE *f = fopen(path.c_str(), "w");
    fputs(text.c_str(), f);
    fclose(f);
    return path;
}

// ---------------------------------------------------------------------------
// Hand-made progressive streams.

// AC symbols of the test table, a symbol's 4-bit code being its index.
constexpr uint8_t kAcSymbols[] = {0x00, 0x01, 0x02, 0x10, 0x11, 0xF0, 0x20, 0x21,
                                  0xE0, 0x30, 0x31, 0x41, 0x03, 0x13, 0x22};

inline int acCode(uint8_t symbol) {
    for (int i = 0; i < 15; i++)
        if (kAcSymbols[i] == symbol)
            return i;
    return -1;
}

// MSB-first bit writer with byte stuffing; padding bits are ones.
struct BitWriter {
    Bytes bytes;
    uint32_t acc = 0;
    int count = 0;
    void put(uint32_t value, int n) {
        for (int i = n - 1; i >= 0; i--) {
            acc = (acc << 1) | ((value >> i) & 1);
            if (++count == 8) {
                bytes.push_back(static_cast<uint8_t>(acc));
                if (acc == 0xFF)
                    bytes.push_back(0);
                acc = 0;
                count = 0;
            }
        }
    }
    void dc(int size, uint32_t bits) {  // DC difference: category, then magnitude bits
        put(static_cast<uint32_t>(size), 4);
        put(bits, size);
    }
    void ac(uint8_t symbol, uint32_t bits = 0) {  // run/size symbol, then size bits
        put(static_cast<uint32_t>(acCode(symbol)), 4);
        put(bits, symbol & 15);
    }
    Bytes finish() {
        if (count > 0)
            put(0xFF, 8 - count);
        return bytes;
    }
};

struct Scan {
    std::vector<uint8_t> components;  // component identifiers
    uint8_t ss, se, ah, al;
    Bytes data;
};

inline void segment(Bytes &out, uint8_t marker, const Bytes &body) {
    out.push_back(0xFF);
    out.push_back(marker);
    out.push_back(static_cast<uint8_t>((body.size() + 2) >> 8));
    out.push_back(static_cast<uint8_t>(body.size() + 2));
    out.insert(out.end(), body.begin(), body.end());
}

// A progressive stream: identity quantization, the 4-bit tables, the given
// components (identifier = index + 1) and scans, then EOI.
inline Bytes progressiveStream(int width, int height, const std::vector<uint8_t> &sampling,
                               const std::vector<Scan> &scans, uint16_t restart = 0) {
    Bytes out = {0xFF, 0xD8};
    Bytes dqt = {0x00};
    dqt.insert(dqt.end(), 64, 1);
    segment(out, 0xDB, dqt);
    Bytes sof = {8, uint8_t(height >> 8), uint8_t(height), uint8_t(width >> 8), uint8_t(width),
                 uint8_t(sampling.size())};
    for (size_t i = 0; i < sampling.size(); i++)
        sof.insert(sof.end(), {uint8_t(i + 1), sampling[i], 0});
    segment(out, 0xC2, sof);
    Bytes dht = {0x00};
    for (int i = 0; i < 16; i++)
        dht.push_back(i == 3 ? 12 : 0);
    for (int i = 0; i < 12; i++)
        dht.push_back(static_cast<uint8_t>(i));
    dht.push_back(0x10);
    for (int i = 0; i < 16; i++)
        dht.push_back(i == 3 ? 15 : 0);
    dht.insert(dht.end(), std::begin(kAcSymbols), std::end(kAcSymbols));
    segment(out, 0xC4, dht);
    if (restart != 0)
        segment(out, 0xDD, {uint8_t(restart >> 8), uint8_t(restart)});
    for (const Scan &scan : scans) {
        Bytes sos = {uint8_t(scan.components.size())};
        for (uint8_t id : scan.components)
            sos.insert(sos.end(), {id, 0x00});
        sos.insert(sos.end(), {scan.ss, scan.se, uint8_t(scan.ah << 4 | scan.al)});
        segment(out, 0xDA, sos);
        out.insert(out.end(), scan.data.begin(), scan.data.end());
    }
    out.insert(out.end(), {0xFF, 0xD9});
    return out;
}

}  // namespace progtest
