// Helpers of the encoder tests: source images (PPM, PGM, 24-bit BMP),
// encoding through the public API with a set of options, the external
// oracles (djpeg, jpegtran, cjpeg) and marker-segment extraction.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "kivjpeg.h"
#include "test_support.h"

namespace kivtest {

// Interleaved 8-bit pixels; three-channel images are stored B, G, R.
struct Image {
    int width = 0, height = 0, channels = 0;
    std::vector<uint8_t> pixels;
    uint8_t *at(int x, int y) { return pixels.data() + (static_cast<size_t>(y) * width + x) * channels; }
};

// Binary PPM (P6, turned into B, G, R) or PGM (P5).
inline Image parsePnm(const std::vector<uint8_t> &bytes) {
    Image img;
    std::string header(bytes.begin(), bytes.begin() + std::min<size_t>(bytes.size(), 64));
    std::istringstream in(header);
    std::string magic;
    int maxval = 0;
    in >> magic >> img.width >> img.height >> maxval;
    if ((magic != "P6" && magic != "P5") || maxval != 255)
        return {};
    img.channels = magic == "P6" ? 3 : 1;
    size_t offset = static_cast<size_t>(in.tellg()) + 1;
    size_t size = static_cast<size_t>(img.width) * img.height * img.channels;
    if (bytes.size() < offset + size)
        return {};
    img.pixels.assign(bytes.begin() + offset, bytes.begin() + offset + size);
    if (img.channels == 3)
        for (size_t i = 0; i < size; i += 3)
            std::swap(img.pixels[i], img.pixels[i + 2]);
    return img;
}

inline Image readPnm(const std::string &path) { return parsePnm(readFile(path)); }

// Uncompressed 24-bit BMP (bottom-up rows padded to 4 bytes, B, G, R).
inline Image readBmp24(const std::string &path) {
    auto b = readFile(path);
    auto u32 = [&](size_t o) { return b[o] | b[o + 1] << 8 | b[o + 2] << 16 | uint32_t(b[o + 3]) << 24; };
    Image img;
    if (b.size() < 54 || b[0] != 'B' || b[1] != 'M' || (b[28] | b[29] << 8) != 24)
        return img;
    uint32_t offset = u32(10);
    img.width = static_cast<int>(u32(18));
    int32_t h = static_cast<int32_t>(u32(22));
    img.height = h < 0 ? -h : h;
    img.channels = 3;
    size_t stride = (static_cast<size_t>(img.width) * 3 + 3) & ~size_t(3);
    img.pixels.resize(static_cast<size_t>(img.width) * img.height * 3);
    for (int y = 0; y < img.height; y++) {
        int src = h < 0 ? y : img.height - 1 - y;
        std::memcpy(img.at(0, y), b.data() + offset + stride * src, static_cast<size_t>(img.width) * 3);
    }
    return img;
}

struct EncodeOptions {
    uint32_t quality = 90;
    uint32_t sampling = 0;        // 0: leave the default
    uint32_t method = 0;
    bool noConversion = false;
    int colorSpace = 0;
    uint16_t restart = 0;
    uint32_t strip = 0;           // rows per call; 0: all at once
    bool setSize = false;
    std::vector<std::vector<uint8_t>> segments;  // APPn bodies (marker 0xFFE0 + index)
    uint32_t processorFlag = 0xFFFFFFFF;  // the routines' level (masked by the processor)
};

inline ComplibRect rectOf(Image &img) {
    ComplibRect r{};
    r.width = img.width;
    r.height = img.height;
    r.stride = img.width * img.channels;
    r.pixelBits = 8 * img.channels;
    r.channels = img.channels;
    r.sampleBits = 8;
    r.pixels = img.pixels.data();
    r.allocSize = static_cast<uint32_t>(img.pixels.size());
    return r;
}

// Encodes through the memory prolog; returns the stream (empty on failure,
// with the failing status in *status).
inline std::vector<uint8_t> encode(Image &img, const EncodeOptions &o, JpgStatus *status = nullptr) {
    JpgParam *h = nullptr;
    JpgStatus s = jpgWritePrologToMemory(0, &h);
    auto fail = [&](JpgStatus st) {
        if (status)
            *status = st;
        uint8_t *buf = nullptr;
        uint32_t size = 0;
        if (h && jpgWriteEpilogToMemory(h, &buf, &size) == JPG_STATUS_OK && buf)
            jpgWriteFreeBitstream(buf);
        else if (buf)
            jpgWriteFreeBitstream(buf);
        return std::vector<uint8_t>{};
    };
    if (s != JPG_STATUS_OK)
        return fail(s);
    if ((s = jpgWriteSetQuantizationFactor(h, o.quality)) != JPG_STATUS_OK)
        return fail(s);
    if ((s = jpgSetProcessorArchitectureFlag(h, o.processorFlag)) != JPG_STATUS_OK)
        return fail(s);
    if (o.sampling && (s = jpgWriteSetSubsamplingFactor(h, o.sampling)) != JPG_STATUS_OK)
        return fail(s);
    jpgWriteSetSubsamplingMethod(h, o.method);
    if (o.noConversion)
        jpgWriteSetNoColorConversion(h);
    jpgWriteSetInternalColorSpace(h, o.colorSpace);
    jpgWriteSetRestartInterval(h, o.restart);
    if (o.setSize || o.strip)
        jpgWriteSetImageSize(h, static_cast<uint32_t>(img.width), static_cast<uint32_t>(img.height));
    for (size_t i = 0; i < o.segments.size(); i++)
        if ((s = jpgWriteWriteMarkerSegment(h, static_cast<int32_t>(0xFFE0 + i), o.segments[i].data(),
                                            static_cast<int32_t>(o.segments[i].size()))) != JPG_STATUS_OK)
            return fail(s);
    uint32_t strip = o.strip ? o.strip : static_cast<uint32_t>(img.height);
    for (int y = 0; y < img.height; y += static_cast<int>(strip)) {
        ComplibRect r = rectOf(img);
        r.pixels = img.at(0, y);
        r.height = std::min<int>(static_cast<int>(strip), img.height - y);
        if ((s = jpgWriteFromRect(h, &r, static_cast<uint32_t>(r.height))) != JPG_STATUS_OK)
            return fail(s);
    }
    uint8_t *buf = nullptr;
    uint32_t size = 0;
    s = jpgWriteEpilogToMemory(h, &buf, &size);
    if (status)
        *status = s;
    std::vector<uint8_t> out(buf, buf + size);
    jpgWriteFreeBitstream(buf);
    return s == JPG_STATUS_OK ? out : std::vector<uint8_t>{};
}

// Runs a tool on a stream; returns its exit status and its standard error.
inline int runOnStream(const std::string &command, const std::vector<uint8_t> &jpeg,
                       const std::string &outPath, std::string *errors) {
    static int counter = 0;
    std::string in = tempPath("enc" + std::to_string(counter++) + ".jpg");
    std::string err = in + ".err";
    writeFile(in, jpeg);
    int rc = run(command + " " + in + " > " + outPath + " 2> " + err);
    auto e = readFile(err);
    if (errors)
        errors->assign(e.begin(), e.end());
    std::remove(in.c_str());
    std::remove(err.c_str());
    return rc;
}

// jpegtran -strict reads every entropy-coded bit; true when it neither
// fails nor warns.
inline bool jpegtranAccepts(const std::vector<uint8_t> &jpeg, std::string *errors = nullptr) {
    std::string e;
    int rc = runOnStream("jpegtran -strict -copy none", jpeg, "/dev/null", &e);
    if (errors)
        *errors = e;
    return rc == 0 && e.empty();
}

// Decodes with djpeg -strict (PPM or PGM); an empty image on any complaint.
inline Image djpeg(const std::vector<uint8_t> &jpeg, std::string *errors = nullptr) {
    static int counter = 0;
    std::string out = tempPath("dec" + std::to_string(counter++) + ".pnm");
    std::string e;
    int rc = runOnStream("djpeg -strict -pnm", jpeg, out, &e);
    if (errors)
        *errors = e;
    Image img = rc == 0 && e.empty() ? readPnm(out) : Image{};
    std::remove(out.c_str());
    return img;
}

// Writes a PPM (from B, G, R) or PGM.
inline void writePnm(const std::string &path, const Image &img) {
    std::string header = (img.channels == 3 ? "P6\n" : "P5\n") + std::to_string(img.width) + " " +
                         std::to_string(img.height) + "\n255\n";
    std::vector<uint8_t> bytes(header.begin(), header.end());
    size_t start = bytes.size();
    bytes.insert(bytes.end(), img.pixels.begin(), img.pixels.end());
    if (img.channels == 3)
        for (size_t i = start; i < bytes.size(); i += 3)
            std::swap(bytes[i], bytes[i + 2]);
    writeFile(path, bytes);
}

// The reference encoder's stream for the same pixels.
inline std::vector<uint8_t> cjpeg(const Image &img, const std::string &arguments) {
    static int counter = 0;
    std::string in = tempPath("ref" + std::to_string(counter++) + ".pnm");
    std::string out = in + ".jpg";
    writePnm(in, img);
    run("cjpeg " + arguments + " -outfile " + out + " " + in + " 2>/dev/null");
    auto bytes = readFile(out);
    std::remove(in.c_str());
    std::remove(out.c_str());
    return bytes;
}

// cjpeg's -sample argument for a packed factor of n components.
inline std::string sampleArgument(uint32_t factor, int n) {
    std::string arg;
    for (int i = 0; i < n; i++) {
        uint32_t byte = factor >> (8 * (n - 1 - i)) & 0xFF;
        arg += (i ? "," : "") + std::to_string(byte >> 4) + "x" + std::to_string(byte & 15);
    }
    return arg;
}

inline double psnr(const Image &a, const Image &b) {
    if (a.pixels.size() != b.pixels.size() || a.pixels.empty())
        return 0;
    double se = 0;
    for (size_t i = 0; i < a.pixels.size(); i++) {
        double d = double(a.pixels[i]) - double(b.pixels[i]);
        se += d * d;
    }
    double mse = se / double(a.pixels.size());
    return mse == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / mse);
}

// The segments of a stream up to SOS: (marker, body without its length).
struct Segment {
    uint16_t marker;
    std::vector<uint8_t> body;
};

inline std::vector<Segment> headerSegments(const std::vector<uint8_t> &jpeg) {
    std::vector<Segment> segments;
    size_t p = 2;
    while (p + 4 <= jpeg.size() && jpeg[p] == 0xFF) {
        uint16_t marker = static_cast<uint16_t>(jpeg[p] << 8 | jpeg[p + 1]);
        size_t length = static_cast<size_t>(jpeg[p + 2] << 8 | jpeg[p + 3]);
        if (p + 2 + length > jpeg.size())
            break;
        segments.push_back({marker, std::vector<uint8_t>(jpeg.begin() + p + 4, jpeg.begin() + p + 2 + length)});
        p += 2 + length;
        if (marker == 0xFFDA)
            break;
    }
    return segments;
}

}  // namespace kivtest
