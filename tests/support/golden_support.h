// Helpers of the golden-checksum test (tests/api/golden_test.cpp): the
// manifest format, a hash that is the same on every target, decoding and
// encoding through the public API by the options of a manifest line, and
// the oracle checks (djpeg, cjpeg, jpegtran invariants, exact round trips).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kivjpeg.h"
#include "test_support.h"

namespace kivtest::golden {

using Bytes = std::vector<uint8_t>;

// One manifest line: file (under the corpus), options, size, hash.
// Options: a mode (decode, progressive, lossless-decode, encode,
// lossless-encode) followed by comma-separated settings: scale=0..2 (1/8,
// 1/4, 1/2), incremental, q=quality, s=420|422|444, ri=restart interval,
// hq (averaging down-sampler), p=predictor.
struct Entry {
    std::string file, options, size, hash;
    std::string mode;
    std::map<std::string, std::string> settings;
    uint32_t processorFlag = 0xFFFFFFFF;  // the routines' level for every handle

    bool has(const std::string &key) const { return settings.count(key) != 0; }
    int value(const std::string &key, int otherwise) const {
        auto it = settings.find(key);
        return it == settings.end() ? otherwise : std::stoi(it->second);
    }
};

// Interleaved pixels: 8-bit BGR / grey / four components, or 16-bit samples
// in host order.
struct Image {
    int width = 0, height = 0, channels = 0, bits = 8;
    Bytes pixels;

    int bytesPerSample() const { return bits > 8 ? 2 : 1; }
    int stride() const { return width * channels * bytesPerSample(); }
    void shape(int w, int h, int c, int b) {
        width = w, height = h, channels = c, bits = b;
        pixels.assign(size_t(stride()) * h, 0);
    }
    std::string sizeText() const {
        return std::to_string(width) + "x" + std::to_string(height) + "x" +
               std::to_string(channels) + (bits > 8 ? "x16" : "");
    }
    int sample(int x, int y, int c) const {
        size_t i = (size_t(y) * width + x) * channels + c;
        if (bits <= 8) return pixels[i];
        uint16_t v;
        std::memcpy(&v, &pixels[i * 2], 2);
        return v;
    }
};

inline std::string hex(uint32_t status) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", unsigned(status));
    return text;
}

// FNV-1a, 64 bits: the same value on every target for the same bytes.
inline std::string hashText(const uint8_t *data, size_t size) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < size; ++i) h = (h ^ data[i]) * 0x100000001b3ull;
    char text[24];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
}

inline Entry parseEntry(const std::string &file, const std::string &options) {
    Entry e;
    e.file = file;
    e.options = options;
    std::stringstream parts(options);
    std::string part;
    std::getline(parts, e.mode, ',');
    while (std::getline(parts, part, ',')) {
        size_t eq = part.find('=');
        e.settings[part.substr(0, eq)] = eq == std::string::npos ? "" : part.substr(eq + 1);
    }
    return e;
}

inline std::vector<Entry> readManifest(const std::string &path) {
    std::vector<Entry> list;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::stringstream fields(line);
        std::string file, options, size, hash;
        if (!(fields >> file >> options >> size >> hash)) continue;
        Entry e = parseEntry(file, options);
        e.size = size;
        e.hash = hash;
        list.push_back(e);
    }
    return list;
}

// Rewrites the data lines with new sizes and hashes, keeping the comments.
inline void writeManifest(const std::string &path, const std::vector<Entry> &list) {
    std::ifstream in(path);
    std::stringstream out;
    std::string line;
    size_t next = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#' || next >= list.size()) {
            out << line << "\n";
            continue;
        }
        const Entry &e = list[next++];
        char text[256];
        std::snprintf(text, sizeof text, "%-26s %-32s %-12s %s", e.file.c_str(),
                      e.options.c_str(), e.size.c_str(), e.hash.c_str());
        out << text << "\n";
    }
    std::ofstream(path) << out.str();
}

inline bool producesStream(const Entry &e) {
    return e.mode == "encode" || e.mode == "lossless-encode";
}

// ---------------------------------------------------------------- sources

inline bool readPnm(const Bytes &bytes, Image *out) {
    std::string head(bytes.begin(), bytes.begin() + std::min<size_t>(bytes.size(), 64));
    std::stringstream in(head);
    std::string magic;
    int width = 0, height = 0, maxval = 0;
    if (!(in >> magic >> width >> height >> maxval) || (magic != "P5" && magic != "P6"))
        return false;
    size_t offset = size_t(in.tellg()) + 1;
    int channels = magic == "P6" ? 3 : 1, bits = maxval > 255 ? 16 : 8;
    out->shape(width, height, channels, bits);
    if (bytes.size() < offset + out->pixels.size()) return false;
    for (size_t i = 0; i < size_t(width) * height; ++i)
        for (int c = 0; c < channels; ++c) {
            size_t from = (i * channels + (channels - 1 - c)) * out->bytesPerSample() + offset;
            size_t to = (i * channels + c) * out->bytesPerSample();
            if (bits == 8) {
                out->pixels[to] = bytes[from];  // RGB to BGR
            } else {
                uint16_t v = uint16_t(bytes[from] << 8 | bytes[from + 1]);  // big-endian file
                std::memcpy(&out->pixels[to], &v, 2);
            }
        }
    return true;
}

// 24-bit uncompressed BMP, rows stored bottom-up as B, G, R.
inline bool readBmp(const Bytes &bytes, Image *out) {
    auto u32 = [&](size_t at) {
        return uint32_t(bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 | bytes[at + 3] << 24);
    };
    if (bytes.size() < 54 || bytes[0] != 'B' || bytes[1] != 'M' || bytes[28] != 24) return false;
    int width = int(u32(18)), height = int(u32(22));
    size_t offset = u32(10), row = (size_t(width) * 3 + 3) & ~size_t(3);
    if (width <= 0 || height <= 0 || bytes.size() < offset + row * height) return false;
    out->shape(width, height, 3, 8);
    for (int y = 0; y < height; ++y)
        std::memcpy(&out->pixels[size_t(y) * out->stride()],
                    &bytes[offset + row * size_t(height - 1 - y)], size_t(out->stride()));
    return true;
}

inline bool readSource(const std::string &path, Image *out) {
    Bytes bytes = readFile(path);
    return path.size() > 4 && path.substr(path.size() - 4) == ".bmp" ? readBmp(bytes, out)
                                                                      : readPnm(bytes, out);
}

// ---------------------------------------------------------------- library

inline ComplibRect rectOf(Image *image) {
    ComplibRect rect{};
    rect.width = image->width;
    rect.height = image->height;
    rect.stride = image->stride();
    rect.channels = image->channels;
    rect.sampleBits = image->bits;
    rect.pixelBits = image->channels * image->bytesPerSample() * 8;
    rect.pixels = image->pixels.data();
    rect.allocSize = uint32_t(image->pixels.size());
    return rect;
}

inline JpgStatus encodeImage(const Image &source, const Entry &e, Bytes *out);

// Runs the output driver of the entry's mode on an open read handle.
inline JpgStatus readPixels(JpgParam *param, const Entry &e, Image *out) {
    uint32_t width = 0, height = 0, channels = 0, precision = 0;
    jpgReadGetImageSize(param, &width, &height);
    jpgReadGetNumberOfChannels(param, &channels);
    jpgReadGetSamplePrecision(param, &precision);
    int bits = precision > 8 ? 16 : 8;
    if ((e.mode == "decode" || e.mode == "progressive") && e.has("scale")) {
        uint32_t level = uint32_t(e.value("scale", 3));
        JpgStatus status = jpgReadScaleOutputGetImageSize(param, &width, &height, level);
        if (status != 0) return status;
        out->shape(int(width), int(height), int(channels), bits);
        ComplibRect rect = rectOf(out);
        return jpgReadScaleOutputToRect(param, &rect, height, level);
    }
    out->shape(int(width), int(height), int(channels), bits);
    ComplibRect rect = rectOf(out);
    if (e.mode == "lossless-decode") return jpgReadSpatialToRect(param, &rect, height);
    if (e.mode != "progressive") return jpgReadToRect(param, &rect, height);
    if (!e.has("incremental")) return jpgReadProgressiveToRect(param, &rect, height, 0);
    // One pass per scan until the pass after the last scan refuses.
    JpgStatus status = 0;
    int passes = 0;
    while ((status = jpgReadProgressiveToRect(param, &rect, height, 1)) == 0 && passes < 200)
        ++passes;
    return status == JPG_STATUS_ERROR && passes > 0 ? 0 : status;
}

inline JpgStatus decodeBytes(const Bytes &jpeg, const Entry &e, Image *out) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgReadPrologFromMemory(jpeg.data(), int32_t(jpeg.size()), 0, &param);
    if (status != 0) return status;
    status = jpgSetProcessorArchitectureFlag(param, e.processorFlag);
    if (status == 0) status = readPixels(param, e, out);
    jpgReadEpilog(param);
    return status;
}

// A lossless-decode entry decodes the stream that this library's lossless
// encoder makes of the source file with the same predictor.
inline JpgStatus decodeFile(const std::string &path, const Entry &e, Image *out) {
    if (e.mode != "lossless-decode") return decodeBytes(readFile(path), e, out);
    Image source;
    Bytes stream;
    if (!readSource(path, &source)) return JPG_STATUS_FAILED;
    Entry encoding = parseEntry(e.file, "lossless-encode" + e.options.substr(15));
    encoding.processorFlag = e.processorFlag;
    JpgStatus status = encodeImage(source, encoding, &stream);
    return status != 0 ? status : decodeBytes(stream, e, out);
}

inline JpgStatus finishEncode(JpgParam *param, JpgStatus status, Bytes *out) {
    uint8_t *buffer = nullptr;
    uint32_t size = 0;
    JpgStatus end = jpgWriteEpilogToMemory(param, &buffer, &size);
    if (buffer != nullptr) {
        out->assign(buffer, buffer + size);
        jpgWriteFreeBitstream(buffer);
    }
    return status != 0 ? status : end;
}

inline JpgStatus encodeImage(const Image &source, const Entry &e, Bytes *out) {
    JpgParam *param = nullptr;
    JpgStatus status = jpgWritePrologToMemory(0, &param);
    if (status != 0) return status;
    status = jpgSetProcessorArchitectureFlag(param, e.processorFlag);
    Image copy = source;
    ComplibRect rect = rectOf(&copy);
    if (e.has("ri")) status = jpgWriteSetRestartInterval(param, uint16_t(e.value("ri", 0)));
    if (e.mode == "lossless-encode") {
        if (status == 0) status = jpgWriteSetSpatialPredictor(param, e.value("p", 1));
        if (status == 0) status = jpgWriteSpatialFromRect(param, &rect, copy.height);
        return finishEncode(param, status, out);
    }
    int s = e.value("s", 420);
    uint32_t factor = s == 444 ? 0x111111u : s == 422 ? 0x211111u : 0x221111u;
    if (status == 0) status = jpgWriteSetImageSize(param, uint32_t(copy.width), uint32_t(copy.height));
    if (status == 0) status = jpgWriteSetSubsamplingFactor(param, factor);
    if (status == 0) status = jpgWriteSetQuantizationFactor(param, uint32_t(e.value("q", 90)));
    if (status == 0 && e.has("hq")) status = jpgWriteSetSubsamplingMethod(param, 1);
    if (status == 0) status = jpgWriteFromRect(param, &rect, uint32_t(copy.height));
    return finishEncode(param, status, out);
}

// ---------------------------------------------------------------- oracles

// Peak signal-to-noise ratio over the common area of two 8-bit images with
// the same channel count; `where` names the largest difference.
inline double psnr(const Image &a, const Image &b, std::string *where) {
    int w = std::min(a.width, b.width), h = std::min(a.height, b.height);
    double sum = 0;
    int worst = -1;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < a.channels; ++c) {
                int d = std::abs(a.sample(x, y, c) - b.sample(x, y, c));
                sum += double(d) * d;
                if (d > worst) {
                    worst = d;
                    *where = "largest difference " + std::to_string(d) + " at x=" +
                             std::to_string(x) + " y=" + std::to_string(y) + " channel " +
                             std::to_string(c);
                }
            }
    double mse = sum / (double(w) * h * a.channels);
    return mse == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / mse);
}

// Decodes a file with djpeg into BGR (or grey) pixels; scale 1, 2, 4 or 8.
inline bool djpeg(const std::string &path, int scale, Image *out) {
    std::string pnm = tempPath("golden-djpeg.pnm");
    std::string command = "djpeg -dct int -pnm -scale 1/" + std::to_string(scale) +
                          " -outfile " + pnm + " " + path + " 2>/dev/null";
    return run(command) == 0 && readPnm(readFile(pnm), out);
}

// Luma of 8-bit BGR pixels (ITU-R BT.601 weights, rounded).
inline Image luma(const Image &bgr) {
    Image y;
    y.shape(bgr.width, bgr.height, 1, 8);
    for (size_t i = 0; i < size_t(bgr.width) * bgr.height; ++i) {
        const uint8_t *p = &bgr.pixels[i * 3];
        y.pixels[i] = uint8_t((117 * p[0] + 601 * p[1] + 306 * p[2] + 512) >> 10);
    }
    return y;
}

inline std::string compareWith(const char *oracle, const Image &ours, const Image &theirs,
                               double minimum) {
    if (ours.channels != theirs.channels)
        return std::string(oracle) + " gives " + std::to_string(theirs.channels) + " channels";
    std::string where;
    double value = psnr(ours, theirs, &where);
    if (value >= minimum) return "";
    char text[96];
    std::snprintf(text, sizeof text, "PSNR vs %s %.2f dB, below %.1f dB; ", oracle, value,
                  minimum);
    return text + where;
}

inline std::string toleranceForDecode(const std::string &path, const Entry &e,
                                      const Image &ours) {
    if (e.mode == "lossless-decode") {
        Image source;
        readSource(path, &source);
        return source.pixels == ours.pixels ? "" : "lossless round trip differs";
    }
    if (ours.channels == 4) {
        // djpeg has no four-component output; the same coefficients with
        // re-optimised Huffman tables must decode to the same pixels.
        std::string copy = tempPath("golden-optimised.jpg");
        if (run("jpegtran -optimize -outfile " + copy + " " + path) != 0) return "jpegtran failed";
        Image again;
        JpgStatus status = decodeBytes(readFile(copy), e, &again);
        if (status != 0) return "the jpegtran copy fails with " + hex(status);
        return again.pixels == ours.pixels ? "" : "the jpegtran copy decodes differently";
    }
    int level = e.value("scale", 3);
    Image reference;
    if (!djpeg(path, 8 >> level, &reference)) return "djpeg failed";
    std::string problem = compareWith("djpeg", ours, reference, level == 3 ? 30.0 : 24.0);
    if (!problem.empty() || e.mode != "progressive") return problem;
    // A progressive stream holds the same coefficients as its sequential
    // transcode: the final pixels must be identical.
    std::string sequential = tempPath("golden-sequential.jpg");
    if (run("jpegtran -outfile " + sequential + " " + path) != 0) return "jpegtran failed";
    Image baseline;
    std::string scale = e.has("scale") ? ",scale=" + std::to_string(level) : "";
    JpgStatus status = decodeBytes(readFile(sequential), parseEntry(e.file, "decode" + scale), &baseline);
    if (status != 0) return "the sequential transcode fails with " + hex(status);
    std::string where;
    double value = psnr(ours, baseline, &where);
    return value >= 99.0 ? "" : "differs from the sequential transcode: " + where;
}

inline std::string toleranceForEncode(const Image &source, const Entry &e, const Bytes &stream) {
    if (e.mode == "lossless-encode") {
        Image decoded;
        JpgStatus status = decodeBytes(stream, parseEntry(e.file, "lossless-decode"), &decoded);
        if (status != 0) return "our lossless decoder refuses the stream: " + hex(status);
        return decoded.pixels == source.pixels ? "" : "lossless round trip differs";
    }
    std::string ours = tempPath("golden-ours.jpg"), theirs = tempPath("golden-cjpeg.jpg");
    writeFile(ours, stream);
    Image decoded, reference, cjpegDecoded;
    if (!djpeg(ours, 1, &decoded)) return "djpeg refuses the encoded stream";
    // cjpeg at the same quality and sampling sets the bars (below).
    int s = e.value("s", 420);
    std::string sample = s == 444 ? "1x1" : s == 422 ? "2x1" : "2x2";
    std::string pnm = tempPath("golden-source.ppm");
    Image flipped = source;  // BGR to RGB for the PPM that cjpeg reads
    std::string header = "P6\n" + std::to_string(source.width) + " " +
                         std::to_string(source.height) + "\n255\n";
    Bytes file(header.begin(), header.end());
    for (size_t i = 0; i < flipped.pixels.size(); i += 3)
        file.insert(file.end(), {flipped.pixels[i + 2], flipped.pixels[i + 1], flipped.pixels[i]});
    writeFile(pnm, file);
    if (run("cjpeg -dct int -quality " + std::to_string(e.value("q", 90)) + " -sample " +
            sample + " -outfile " + theirs + " " + pnm) != 0 ||
        !djpeg(theirs, 1, &cjpegDecoded))
        return "cjpeg failed";
    // Luma must be as good as cjpeg's less 1 dB. Colour is held to cjpeg's
    // bar less 1.5 dB at 4:4:4; when chroma is down-sampled, this encoder
    // keeps one sample per group (or a rounded mean) where cjpeg smooths,
    // so the bar there is 8 dB lower.
    std::string where;
    Image lumaOurs = luma(decoded), lumaSource = luma(source), lumaCjpeg = luma(cjpegDecoded);
    std::string problem = compareWith("the source luma (after djpeg)", lumaOurs, lumaSource,
                                      psnr(lumaSource, lumaCjpeg, &where) - 1.0);
    if (!problem.empty()) return problem;
    double bar = psnr(source, cjpegDecoded, &where) - (s == 444 ? 1.5 : 8.0);
    return compareWith("the source (after djpeg)", decoded, source, bar);
}

}  // namespace kivtest::golden
