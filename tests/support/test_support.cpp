#include "test_support.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace kivtest {

// ---------------------------------------------------------------- files, tools

std::string corpus(const std::string &relative) { return std::string(KIV_CORPUS_DIR) + "/" + relative; }

Bytes readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string &path, const Bytes &bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
}

std::string tempDir() {
    static std::string dir = [] {
        std::string d = std::filesystem::temp_directory_path().string() + "/kivjpeg-test-" + std::to_string(getpid());
        std::filesystem::create_directories(d);
        return d;
    }();
    return dir;
}

std::string tempPath(const std::string &name) { return tempDir() + "/" + name; }

int run(const std::string &command, std::string *output) {
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return -1;
    std::string text;
    char buffer[4096];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        text.append(buffer, n);
    int status = pclose(pipe);
    if (output != nullptr)
        *output = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string &name) { return run("command -v " + name + " >/dev/null 2>&1") == 0; }

std::string hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", unsigned(value));
    return text;
}

std::vector<uint32_t> processorFlags() {
    uint32_t caps = jpgGetProcessorArchitecture();
    std::vector<uint32_t> flags{0};
    if (caps & JPG_PROCESSOR_SSE2)
        flags.push_back(JPG_PROCESSOR_SSE2);
    if ((caps & JPG_PROCESSOR_SSE2) && (caps & JPG_PROCESSOR_AVX2))
        flags.push_back(JPG_PROCESSOR_SSE2 | JPG_PROCESSOR_AVX2);
    return flags;
}

std::string processorName(uint32_t flag) {
    return (flag & JPG_PROCESSOR_AVX2) ? "avx2" : (flag & JPG_PROCESSOR_SSE2) ? "sse2" : "portable";
}

std::vector<std::string> photographs() {
    std::vector<std::string> files;
    std::error_code ec;
    for (const char *root : {"/usr/share/backgrounds/mate", "/usr/share/backgrounds/ukui", "/usr/share/backgrounds"}) {
        if (!std::filesystem::is_directory(root, ec))
            continue;
        for (auto &entry : std::filesystem::recursive_directory_iterator(root, ec)) {
            auto ext = entry.path().extension().string();
            if (entry.is_regular_file() && (ext == ".jpg" || ext == ".jpeg" || ext == ".JPG"))
                files.push_back(entry.path().string());
        }
        if (!files.empty())
            break;
    }
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    return files;
}

std::vector<std::string> photographsBySize() {
    std::vector<std::string> files = photographs();
    std::stable_sort(files.begin(), files.end(), [](const std::string &a, const std::string &b) {
        return std::filesystem::file_size(a) < std::filesystem::file_size(b);
    });
    return files;
}

// ---------------------------------------------------------------- images

Image::Image(int w, int h, int c, int sampleBits, uint8_t fill)
    : width(w), height(h), channels(c), bits(sampleBits) {
    pixels.assign(size_t(stride()) * h, fill);
}

uint32_t Image::get(size_t i) const {
    if (bits <= 8)
        return pixels[i];
    uint16_t v;
    std::memcpy(&v, &pixels[2 * i], 2);
    return v;
}

void Image::set(size_t i, uint32_t value) {
    if (bits <= 8) {
        pixels[i] = uint8_t(value);
        return;
    }
    uint16_t v = uint16_t(value);
    std::memcpy(&pixels[2 * i], &v, 2);
}

ComplibRect Image::rect() {
    ComplibRect r{};
    r.width = width;
    r.height = height;
    r.stride = stride();
    r.pixelBits = 8 * channels * bytesPerSample();
    r.channels = channels;
    r.sampleBits = bits;
    r.pixels = pixels.data();
    r.allocSize = uint32_t(pixels.size());
    return r;
}

Image randomImage(int w, int h, int channels, int bits, uint32_t seed) {
    Image image(w, h, channels, bits);
    std::mt19937 rng(seed);
    for (size_t i = 0; i < image.samples(); i++)
        image.set(i, rng() & ((1u << bits) - 1));
    return image;
}

Image gradientImage(int w, int h, int channels, int bits, uint32_t seed) {
    Image image(w, h, channels, bits);
    std::mt19937 rng(seed);
    int64_t max = (1 << bits) - 1;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            for (int c = 0; c < channels; c++) {
                int64_t ramp = (int64_t(x) * (c + 1) + y * 2) * max / (w * (c + 1) + 2 * h + 1);
                int64_t v = ramp + int64_t(rng() % 5) - 2;
                image.set((size_t(y) * w + x) * channels + c, uint32_t(std::clamp<int64_t>(v, 0, max)));
            }
    return image;
}

Image picture(int w, int h, int channels, int noise, uint32_t seed) {
    Image image(w, h, channels);
    std::mt19937 rng(seed);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++)
            for (int c = 0; c < channels; c++) {
                double v = 128 + 90 * std::sin((x + 7 * c) / 11.0 + y / 7.0);
                if ((x / 24 + y / 24) % 3 == 0)
                    v = ((x ^ y) & 16) ? 230 : 20;
                v += noise ? int(rng() % (2 * noise + 1)) - noise : 0;
                image.pixels[(size_t(y) * w + x) * channels + c] = uint8_t(std::clamp(v, 0.0, 255.0));
            }
    return image;
}

Image parsePnm(const Bytes &file, bool fileOrder) {
    std::string head(file.begin(), file.begin() + long(std::min<size_t>(file.size(), 256)));
    std::istringstream in(head);
    std::string magic;
    int width = 0, height = 0, channels = 0, maxval = 0;
    in >> magic;
    if (magic == "P7") {
        for (std::string key; in >> key && key != "ENDHDR";)
            if (key == "WIDTH")
                in >> width;
            else if (key == "HEIGHT")
                in >> height;
            else if (key == "DEPTH")
                in >> channels;
            else if (key == "MAXVAL")
                in >> maxval;
            else
                in >> key;  // TUPLTYPE's value
    } else if (magic == "P5" || magic == "P6") {
        in >> width >> height >> maxval;
        channels = magic == "P6" ? 3 : 1;
    }
    if (channels == 0 || maxval <= 0 || !in)
        return {};
    int bits = 1;
    while ((1 << bits) - 1 < maxval)
        bits++;
    Image image(width, height, channels, bits);
    size_t offset = size_t(in.tellg()) + 1, n = image.samples();
    if (file.size() < offset + n * image.bytesPerSample())
        return {};
    for (size_t i = 0; i < n; i++) {
        size_t from = fileOrder || channels != 3 ? i : i - i % 3 + 2 - i % 3;  // R, G, B to B, G, R
        const uint8_t *p = &file[offset + from * image.bytesPerSample()];
        image.set(i, bits > 8 ? uint32_t(p[0] << 8 | p[1]) : p[0]);
    }
    return image;
}

Image readPnm(const std::string &path, bool fileOrder) { return parsePnm(readFile(path), fileOrder); }

void writePnm(const std::string &path, const Image &image) {
    std::string header = (image.channels == 3 ? "P6\n" : "P5\n") + std::to_string(image.width) + " " +
                         std::to_string(image.height) + "\n" + std::to_string((1 << image.bits) - 1) + "\n";
    Bytes out(header.begin(), header.end());
    for (size_t i = 0; i < image.samples(); i++) {
        uint32_t v = image.get(image.channels == 3 ? i - i % 3 + 2 - i % 3 : i);
        if (image.bits > 8)
            out.push_back(uint8_t(v >> 8));
        out.push_back(uint8_t(v));
    }
    writeFile(path, out);
}

Image readBmp(const std::string &path) {
    Bytes b = readFile(path);
    auto u32 = [&](size_t o) { return uint32_t(b[o] | b[o + 1] << 8 | b[o + 2] << 16 | uint32_t(b[o + 3]) << 24); };
    if (b.size() < 54 || b[0] != 'B' || b[1] != 'M' || (b[28] | b[29] << 8) != 24)
        return {};
    int32_t h = int32_t(u32(22));
    Image image(int(u32(18)), h < 0 ? -h : h, 3);
    size_t row = (size_t(image.width) * 3 + 3) & ~size_t(3), offset = u32(10);
    if (b.size() < offset + row * image.height)
        return {};
    for (int y = 0; y < image.height; y++)
        std::memcpy(image.row(y), &b[offset + row * size_t(h < 0 ? y : image.height - 1 - y)], size_t(image.stride()));
    return image;
}

Difference compare(const Image &a, const Image &b, int columnStep) {
    Difference d;
    if (a.channels != b.channels || a.empty() || b.empty())
        return d;
    int w = std::min(a.width, b.width), h = std::min(a.height, b.height);
    double sum = 0;
    size_t n = 0;
    d.maxDiff = -1;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x += columnStep)
            for (int c = 0; c < a.channels; c++) {
                int e = std::abs(int(a.at(x, y, c)) - int(b.at(x, y, c)));
                sum += double(e) * e;
                n++;
                if (e > d.maxDiff) {
                    d.maxDiff = e;
                    d.where = "largest difference " + std::to_string(e) + " at x=" + std::to_string(x) +
                              " y=" + std::to_string(y) + " channel " + std::to_string(c);
                }
            }
    double mse = n ? sum / double(n) : 0;
    d.psnr = mse == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 / mse);
    return d;
}

size_t differences(const Image &a, const Image &b) {
    if (a.width != b.width || a.height != b.height || a.channels != b.channels)
        return size_t(-1);
    size_t count = 0;
    for (size_t i = 0; i < a.samples(); i++)
        count += a.get(i) != b.get(i);
    return count;
}

// ---------------------------------------------------------------- decoding

ReadHandle::ReadHandle(Bytes data, int32_t flags) : bytes(std::move(data)) {
    status = jpgReadPrologFromMemory(bytes.data(), int32_t(bytes.size()), flags, &p);
}

ReadHandle::~ReadHandle() {
    if (p != nullptr)
        jpgReadEpilog(p);
}

namespace {

constexpr size_t kGuard = 16;
constexpr uint8_t kGuardByte = 0xA5;

// Lines [first, first + count) of `image` as a rectangle reaching its end.
ComplibRect linesOf(Image &image, uint32_t first) {
    ComplibRect r = image.rect();
    r.pixels += size_t(first) * r.stride;
    r.height -= int32_t(first);
    r.allocSize = uint32_t(size_t(r.height) * r.stride);
    return r;
}

JpgStatus lineCall(JpgParam *p, Driver driver, int level, ComplibRect *r, uint32_t n, uint32_t flags) {
    switch (driver) {
    case Driver::Progressive: return jpgReadProgressiveToRect(p, r, n, flags);
    case Driver::Scaled: return jpgReadScaleOutputToRect(p, r, n, uint32_t(level));
    case Driver::Spatial: return jpgReadSpatialToRect(p, r, n);
    default: return jpgReadToRect(p, r, n);
    }
}

}  // namespace

Decoded decodeOpen(JpgParam *p, const DecodeOptions &o) {
    Decoded d;
    if (o.processor != kAllLevels && (d.status = jpgSetProcessorArchitectureFlag(p, o.processor)) != JPG_STATUS_OK)
        return d;
    if (o.noConversion && (d.status = jpgReadSetNoColorConversion(p)) != JPG_STATUS_OK)
        return d;
    uint32_t w = 0, h = 0, n = 0, precision = 0, process = 0, mcuW = 8, mcuH = 8;
    jpgReadGetImageSize(p, &w, &h);
    jpgReadGetNumberOfChannels(p, &n);
    jpgReadGetSamplePrecision(p, &precision);
    jpgReadGetCodingProcess(p, &process);
    jpgReadGetMcuSize(p, &mcuW, &mcuH);
    Driver driver = o.driver;
    if (driver == Driver::Auto)
        driver = process == JPG_PROCESS_LOSSLESS ? Driver::Spatial
                 : o.level < 3                   ? Driver::Scaled
                 : process == JPG_PROCESS_PROGRESSIVE ? Driver::Progressive
                                                      : Driver::Rows;
    if (o.level < 3 && (d.status = jpgReadScaleOutputGetImageSize(p, &w, &h, uint32_t(o.level))) != JPG_STATUS_OK)
        return d;
    int bits = driver == Driver::Spatial ? int(precision) : 8;
    d.image = Image(int(w), int(h), o.channels ? o.channels : int(n), bits, o.fill);
    Image &image = d.image;
    size_t size = image.pixels.size();
    image.pixels.resize(size + kGuard, kGuardByte);
    d.status = JPG_STATUS_OK;
    if (driver == Driver::Mcus) {
        // Into a scratch image as wide as the MCUs, which cover the frame's
        // width even where the scaled width drops a partial MCU.
        int shift = 3 - o.level;
        uint32_t frameWidth = 0, frameHeight = 0;
        jpgReadGetImageSize(p, &frameWidth, &frameHeight);
        uint32_t sw = mcuW >> shift, sh = mcuH >> shift, perRow = (frameWidth + mcuW - 1) / mcuW;
        uint32_t perCall = o.batch ? o.batch : perRow;
        Image scratch(int(perRow * sw), int(h), image.channels, bits, o.fill);
        for (uint32_t y = 0; y < h && d.status == JPG_STATUS_OK; y += sh) {
            for (uint32_t m = 0; m < perRow && d.status == JPG_STATUS_OK; m += perCall) {
                ComplibRect r = linesOf(scratch, y);
                r.pixels += size_t(m) * sw * r.pixelBits / 8;
                r.width -= int32_t(m * sw);
                r.height = int32_t(std::min(h - y, sh));
                uint32_t count = std::min(perCall, perRow - m);
                d.status = o.level < 3 ? jpgReadScaleOutputMcuToRect(p, &r, count, uint32_t(o.level))
                                       : jpgReadMcuToRect(p, &r, count);
            }
            if (d.status == JPG_STATUS_OK)
                d.rows = std::min(h, y + sh);
        }
        for (uint32_t y = 0; y < h; y++)
            std::memcpy(image.row(int(y)), scratch.row(int(y)), size_t(image.stride()));
    } else {
        uint32_t step = o.batch ? o.batch : std::max(h, 1u);
        for (int pass = 0; pass < (o.incremental ? 200 : 1) && d.status == JPG_STATUS_OK; pass++) {
            for (uint32_t y = 0; y < h && d.status == JPG_STATUS_OK; y += step) {
                ComplibRect r = linesOf(image, y);
                uint32_t count = std::min(step, h - y);
                d.status = lineCall(p, driver, o.level, &r, count, o.incremental ? JPG_PROGRESSIVE_INCREMENTAL : 0);
                if (d.status == JPG_STATUS_OK)
                    d.rows = y + count;
            }
            if (o.incremental && d.status == JPG_STATUS_OK) {
                d.passes.push_back(image);
                d.passes.back().pixels.resize(size);
            }
        }
    }
    d.guardIntact = std::all_of(image.pixels.begin() + long(size), image.pixels.end(),
                                [](uint8_t b) { return b == kGuardByte; });
    image.pixels.resize(size);
    return d;
}

Decoded decode(const Bytes &jpeg, const DecodeOptions &o) {
    ReadHandle h(jpeg, o.flags);
    if (h.status != JPG_STATUS_OK) {
        Decoded d;
        d.status = h.status;
        return d;
    }
    return decodeOpen(h.p, o);
}

// ---------------------------------------------------------------- encoding

Bytes finishToMemory(JpgParam *p, JpgStatus *status) {
    uint8_t *data = nullptr;
    uint32_t size = 0;
    JpgStatus s = jpgWriteEpilogToMemory(p, &data, &size);
    if (status != nullptr)
        *status = s;
    Bytes out;
    if (data != nullptr) {
        out.assign(data, data + size);
        jpgWriteFreeBitstream(data);
    }
    return out;
}

Bytes encode(const Image &source, const EncodeOptions &o, JpgStatus *status) {
    Image image = source;
    JpgParam *h = nullptr;
    JpgStatus s = jpgWritePrologToMemory(0, &h), end = JPG_STATUS_OK;
    auto check = [&](JpgStatus result) { return s == JPG_STATUS_OK ? (s = result) : s; };
    if (s == JPG_STATUS_OK) {
        if (o.processor != kAllLevels)
            check(jpgSetProcessorArchitectureFlag(h, o.processor));
        if (o.lossless) {
            check(jpgWriteSetSpatialPredictor(h, o.predictor));
            if (o.restart)
                check(jpgWriteSetRestartInterval(h, uint16_t(o.restart * image.width)));
        } else {
            check(jpgWriteSetQuantizationFactor(h, o.quality));
            if (o.sampling)
                check(jpgWriteSetSubsamplingFactor(h, o.sampling));
            jpgWriteSetSubsamplingMethod(h, o.method);
            if (o.noConversion)
                jpgWriteSetNoColorConversion(h);
            jpgWriteSetInternalColorSpace(h, o.colorSpace);
            jpgWriteSetRestartInterval(h, o.restart);
            if (o.setSize || o.strip)
                check(jpgWriteSetImageSize(h, uint32_t(image.width), uint32_t(image.height)));
        }
        for (size_t i = 0; i < o.segments.size(); i++)
            check(jpgWriteWriteMarkerSegment(h, int32_t(0xFFE0 + i), o.segments[i].data(),
                                             int32_t(o.segments[i].size())));
        uint32_t strip = o.strip ? o.strip : uint32_t(image.height);
        for (uint32_t y = 0; s == JPG_STATUS_OK && y < uint32_t(image.height); y += strip) {
            uint32_t rows = std::min<uint32_t>(strip, image.height - y);
            ComplibRect r = linesOf(image, y);
            if (o.lossless) {
                if (y == 0)
                    r.height = image.height;  // the first rectangle gives the image height
                check(jpgWriteSpatialFromRect(h, &r, int32_t(rows)));
            } else {
                r.height = int32_t(rows);
                check(jpgWriteFromRect(h, &r, rows));
            }
        }
    }
    Bytes out = h != nullptr ? finishToMemory(h, &end) : Bytes{};
    if (s == JPG_STATUS_OK)
        s = end;
    if (status != nullptr)
        *status = s;
    return s == JPG_STATUS_OK ? out : Bytes{};
}

// ---------------------------------------------------------------- oracles

namespace {

std::string uniquePath(const std::string &stem, const std::string &extension) {
    static int counter = 0;
    return tempPath(stem + "-" + std::to_string(counter++) + extension);
}

}  // namespace

bool djpeg(const std::string &path, Image *out, const std::string &options) {
    std::string pnm = uniquePath("djpeg", ".pnm");
    if (run("djpeg " + options + " -pnm -outfile " + pnm + " '" + path + "' 2>/dev/null") != 0)
        return false;
    *out = readPnm(pnm);
    std::remove(pnm.c_str());
    return !out->empty();
}

Image djpegStrict(const Bytes &jpeg, std::string *errors) {
    std::string in = uniquePath("strict", ".jpg"), out = in + ".pnm", err = in + ".err";
    writeFile(in, jpeg);
    int rc = run("djpeg -strict -pnm " + in + " > " + out + " 2> " + err);
    Bytes e = readFile(err);
    if (errors != nullptr)
        errors->assign(e.begin(), e.end());
    Image image = rc == 0 && e.empty() ? readPnm(out) : Image{};
    for (const std::string &f : {in, out, err})
        std::remove(f.c_str());
    return image;
}

bool jpegtranAccepts(const Bytes &jpeg, std::string *errors) {
    std::string in = uniquePath("accepts", ".jpg"), err = in + ".err";
    writeFile(in, jpeg);
    int rc = run("jpegtran -strict -copy none " + in + " > /dev/null 2> " + err);
    Bytes e = readFile(err);
    if (errors != nullptr)
        errors->assign(e.begin(), e.end());
    std::remove(in.c_str());
    std::remove(err.c_str());
    return rc == 0 && e.empty();
}

Bytes jpegtran(const Bytes &jpeg, const std::string &options) {
    std::string in = uniquePath("jpegtran", ".jpg"), out = in + ".out.jpg";
    writeFile(in, jpeg);
    int rc = run("jpegtran " + options + " -outfile " + out + " " + in + " 2>/dev/null");
    Bytes result = rc == 0 || rc == 2 ? readFile(out) : Bytes{};  // 2: libjpeg warned
    std::remove(in.c_str());
    std::remove(out.c_str());
    return result;
}

Bytes cjpeg(const Image &image, const std::string &options) {
    std::string in = uniquePath("cjpeg", ".pnm"), out = in + ".jpg";
    writePnm(in, image);
    run("cjpeg " + options + " -outfile " + out + " " + in + " 2>/dev/null");
    Bytes bytes = readFile(out);
    std::remove(in.c_str());
    std::remove(out.c_str());
    return bytes;
}

std::string sampleArgument(uint32_t factor, int components) {
    std::string arg;
    for (int i = 0; i < components; i++) {
        uint32_t byte = factor >> (8 * (components - 1 - i)) & 0xFF;
        arg += (i ? "," : "") + std::to_string(byte >> 4) + "x" + std::to_string(byte & 15);
    }
    return arg;
}

std::string writeTemp(const std::string &name, const std::string &text) {
    std::string path = tempPath(name);
    std::ofstream(path) << text;
    return path;
}

std::string libjpegCmyk() { return KIV_LIBJPEG_CMYK; }

Image photographAsCmyk() {
    std::vector<std::string> photos = photographsBySize();
    Image rgb, cmyk;
    if (photos.empty() || !djpeg(photos.front(), &rgb, "-scale 1/4"))
        return cmyk;
    cmyk = Image(std::min(rgb.width, 400), std::min(rgb.height, 300), 4);
    for (int y = 0; y < cmyk.height; y++)
        for (int x = 0; x < cmyk.width; x++) {
            const uint8_t *bgr = rgb.row(y) + 3 * x;
            uint8_t *out = cmyk.row(y) + 4 * x;
            int top = std::max({bgr[0], bgr[1], bgr[2]});
            for (int c : {0, 1, 2})  // C from R, M from G, Y from B
                out[c] = uint8_t(top == 0 ? 255 : 255 - (top - bgr[2 - c]) * 255 / top);
            out[3] = uint8_t(top);
        }
    return cmyk;
}

Image cmykEdges(int width, int height) {
    Image image(width, height, 4);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            int tile = (y / 8) * ((width + 7) / 8) + x / 8;
            for (int c = 0; c < 4; c++)
                image.row(y)[4 * x + c] = (y / 8) % 4 == 3 ? uint8_t(c == tile % 4 ? x * 255 / width : 255)
                                                           : uint8_t((tile >> c) & 1 ? 255 : 0);
        }
    return image;
}

bool writeCmykJpeg(const Image &cmyk, const std::string &path, const std::string &kind, int quality,
                   const std::string &sampling) {
    std::string raw = tempPath("oracle-in.cmyk");
    writeFile(raw, cmyk.pixels);
    return run(libjpegCmyk() + " encode " + kind + " " + std::to_string(cmyk.width) + " " +
               std::to_string(cmyk.height) + " " + std::to_string(quality) + " " + sampling + " " + raw + " " +
               path) == 0;
}

bool libjpegDecodeCmyk(const std::string &jpeg, Image *image, bool raw) {
    std::string out = tempPath("oracle-out.cmyk"), size;
    if (run(libjpegCmyk() + (raw ? " decode raw '" : " decode cmyk '") + jpeg + "' " + out, &size) != 0)
        return false;
    int w = 0, h = 0;
    std::istringstream(size) >> w >> h;
    *image = Image(w, h, 4);
    Bytes bytes = readFile(out);
    if (bytes.size() != image->pixels.size())
        return false;
    image->pixels = bytes;
    return true;
}

// ---------------------------------------------------------------- streams

std::vector<Segment> headerSegments(const Bytes &jpeg) {
    std::vector<Segment> out;
    for (Segment &s : allSegments(jpeg))
        if ((s.marker < 0xFFD0 || s.marker > 0xFFD9) && (out.empty() || out.back().marker != 0xFFDA))
            out.push_back(std::move(s));
    return out;
}

std::vector<Segment> allSegments(const Bytes &b) {
    std::vector<Segment> out;
    for (size_t i = 0; i + 1 < b.size();) {
        if (b[i] != 0xFF || b[i + 1] == 0x00 || b[i + 1] == 0xFF) {
            i++;
            continue;
        }
        Segment s{uint16_t(0xFF00 | b[i + 1]), i, {}};
        i += 2;
        if (s.marker < 0xFFD0 || s.marker > 0xFFD9) {
            size_t length = i + 1 < b.size() ? size_t(b[i]) << 8 | b[i + 1] : 2;
            s.body.assign(b.begin() + long(std::min(b.size(), i + 2)), b.begin() + long(std::min(b.size(), i + length)));
            i += length;
        }
        out.push_back(s);
        if (s.marker == 0xFFD9)
            break;
    }
    return out;
}

size_t findMarker(const Bytes &b, uint8_t code, size_t from) {
    for (size_t i = from; i + 1 < b.size(); i++)
        if (b[i] == 0xFF && b[i + 1] == code)
            return i;
    return std::string::npos;
}

size_t scanData(const Bytes &b, int scan) {
    for (size_t at = findMarker(b, 0xDA); at != std::string::npos; at = findMarker(b, 0xDA, at + 2))
        if (scan-- == 0)
            return at + 2 + (size_t(b[at + 2]) << 8 | b[at + 3]);
    return 0;
}

MemoryWriter::MemoryWriter(uint32_t fill) {
    bs.flags = COMPLIB_BS_MEMORY;
    complibCreateBitstreamFile(&bs);
    bs.putStart = staging.data();
    bs.fill = fill;
}

MemoryWriter::~MemoryWriter() { complibMemFree(bs.memCursor); }

Bytes MemoryWriter::output() const {
    Bytes all = bs.memCursor != nullptr ? Bytes(bs.memCursor, bs.memCursor + bs.memLength) : Bytes{};
    all.insert(all.end(), staging.begin(), staging.begin() + bs.fill);
    return all;
}

RawReader::RawReader(Bytes bytes) : data(std::move(bytes)) {
    p = jpgProlog(nullptr);
    p->mode = kModeRead;
    p->bs.flags = COMPLIB_BS_MEMORY;
    p->bs.memBase = p->bs.memCursor = data.data();
    p->bs.memLength = uint32_t(data.size());
    complibOpenBitstreamFile(&p->bs);
}

RawReader::~RawReader() { jpgEpilog(p); }

}  // namespace kivtest
