// Shared helpers of the kivjpeg tool: argument parsing, error and progress
// output, whole-image decoding into RGB order with a fallback reduction for
// frames the library cannot scale, Adobe CMYK as ink or RGB, a marker walk of
// its own (ISO/IEC 10918-1 B.1.1) that names refused coding processes, and
// image comparison (PSNR).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <unistd.h>

#include "tool.h"

namespace kivtool {

using kivjpeg::Decoder;
using kivjpeg::Image;
using kivjpeg::PixelOrder;
using kivjpeg::Process;
using kivjpeg::Scale;
using kivjpeg::Status;

Args::Args(int argc, char **argv, const std::vector<std::string> &valued) {
    for (int i = 0; i < argc; i++) {
        std::string a = argv[i];
        if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            std::string name = a.substr(2), value;
            auto eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name = name.substr(0, eq);
            } else {
                for (auto &v : valued)
                    if (v == name && i + 1 < argc)
                        value = argv[++i];
            }
            options_.push_back({name, value});
        } else {
            positional_.push_back(a);
        }
    }
}

bool Args::has(const std::string &name) const {
    for (auto &o : options_)
        if (o.first == name)
            return true;
    return false;
}

std::string Args::get(const std::string &name, const std::string &fallback) const {
    for (auto &o : options_)
        if (o.first == name)
            return o.second;
    return fallback;
}

std::string Args::unknown(const std::vector<std::string> &known) const {
    for (auto &o : options_) {
        bool found = false;
        for (auto &k : known)
            found = found || k == o.first;
        if (!found)
            return "--" + o.first;
    }
    return "";
}

int fail(const std::string &context, const std::string &message) {
    fprintf(stderr, "kivjpeg: %s: %s\n", context.c_str(), message.c_str());
    return kExitError;
}

int failStatus(const std::string &context, Status status) {
    return fail(context, status.describe());
}

Progress::Progress(const std::string &what, uint64_t total)
    : what_(what), total_(total), active_(isatty(2) && total > 0) {}

void Progress::update(uint64_t done) {
    if (!active_)
        return;
    int percent = int(done * 100 / total_);
    if (percent == last_)
        return;
    last_ = percent;
    fprintf(stderr, "\r%s %3d%%", what_.c_str(), percent);
    fflush(stderr);
}

Progress::~Progress() {
    if (active_ && last_ >= 0)
        fprintf(stderr, "\r%*s\r", int(what_.size() + 6), "");
}

double nowSeconds() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
}

StreamFacts readStreamFacts(const std::vector<uint8_t> &b) {
    StreamFacts facts;
    size_t i = 2;  // behind SOI
    while (i + 1 < b.size()) {
        if (b[i] != 0xFF || b[i + 1] == 0xFF) {  // fill bytes, or no marker here
            i++;
            continue;
        }
        uint16_t m = uint16_t(0xFF00 | b[i + 1]);
        i += 2;
        if ((m >= 0xFFD0 && m <= 0xFFD8) || m == 0xFF01 || m == 0xFF00)
            continue;  // no length field
        if (m == 0xFFD9 || m == 0xFFDA || i + 2 > b.size())
            break;  // the library has chosen its routines by the first scan
        size_t length = size_t(b[i] << 8 | b[i + 1]);
        if (length < 2)
            break;
        size_t end = std::min(b.size(), i + length);
        const uint8_t *p = b.data() + i + 2;
        size_t n = end - (i + 2);  // payload bytes present
        bool sof = m >= 0xFFC0 && m <= 0xFFCF && m != 0xFFC4 && m != 0xFFC8 && m != 0xFFCC;
        if (sof && facts.frame == 0 && n >= 1) {
            facts.frame = m;
            facts.precision = p[0];
        } else if (m == 0xFFEE && n >= 12 && std::equal(p, p + 5, "Adobe")) {
            facts.adobeTransform = p[11];
        }
        i = end;
    }
    return facts;
}

std::string unsupportedProcess(const StreamFacts &f) {
    // ISO/IEC 10918-1 Table B.1, by the low nibble of the SOFn marker.
    static const char *const kProcess[16] = {
        "baseline DCT", "extended sequential DCT", "progressive DCT", "lossless", nullptr,
        "hierarchical sequential DCT", "hierarchical progressive DCT", "hierarchical lossless",
        nullptr, "arithmetic-coded sequential DCT", "arithmetic-coded progressive DCT",
        "arithmetic-coded lossless", nullptr, "hierarchical arithmetic-coded sequential DCT",
        "hierarchical arithmetic-coded progressive DCT", "hierarchical arithmetic-coded lossless"};
    if (f.frame < 0xFFC0 || f.frame > 0xFFCF || kProcess[f.frame & 15] == nullptr)
        return "";
    bool lossless = (f.frame & 3) == 3;
    if (f.frame <= 0xFFC3 && (lossless || f.precision == 8))
        return "";  // a process the library decodes
    std::string bits = lossless || f.precision == 8 ? "" : std::to_string(f.precision) + "-bit ";
    return bits + kProcess[f.frame & 15] + " (" + markerName(f.frame) + ") is not supported";
}

std::string describeRefusal(const StreamFacts &facts, Status status) {
    std::string process = unsupportedProcess(facts);
    if (status.code() != JPG_STATUS_NOT_SUPPORTED || process.empty())
        return status.describe();
    return process + " (" + status.name() + ")";
}

bool holdsAdobeCmyk(const StreamFacts &facts, const kivjpeg::Header &h, bool noColorConversion) {
    if (h.components != 4 || noColorConversion || h.precision != 8)
        return false;
    // The library converts YCCK in the DCT processes only.
    return facts.adobeTransform == 0 || (facts.adobeTransform == 2 && h.process != Process::Lossless);
}

Image cmykToInk(const Image &stored) {
    Image out = stored;
    for (auto &v : out.data)
        v = uint8_t(255 - v);
    return out;
}

Image cmykToRgb(const Image &stored) {
    Image out(stored.width, stored.height, 3, 1, PixelOrder::RGB);
    const size_t n = size_t(stored.width) * stored.height;
    for (size_t i = 0; i < n; i++) {
        const uint8_t *cmyk = &stored.data[4 * i];
        for (int c = 0; c < 3; c++)
            out.data[3 * i + c] = uint8_t((cmyk[c] * cmyk[3] + 127) / 255);
    }
    return out;
}

Status openJpeg(Decoder &decoder, const std::vector<uint8_t> &bytes, std::string *note) {
    Status s = decoder.openBytes(bytes);
    if (s.code() != JPG_STATUS_BAD_DATA)
        return s;
    // A stream cut short has no EOI; open it without that check.
    Status retry = decoder.openBytes(bytes, 0x4);
    if (!retry)
        return s;
    if (note != nullptr)
        *note = "the stream has no end-of-image marker (truncated?)";
    return retry;
}

Status openJpegFile(Decoder &decoder, const std::string &path, std::string *note) {
    Status s = decoder.openFile(path);
    if (s.code() != JPG_STATUS_BAD_DATA)
        return s;
    Status retry = decoder.openFile(path, 0x4);
    if (!retry)
        return s;
    if (note != nullptr)
        *note = "the stream has no end-of-image marker (truncated?)";
    return retry;
}

namespace {

// Decodes in strips of whole MCU rows so that progress can be shown.
Status decodeStrips(Decoder &decoder, Scale scale, Image &out, bool showProgress) {
    const auto &h = decoder.header();
    uint32_t unit = 1;
    if (h.process == Process::Baseline || h.process == Process::Extended)
        unit = scale == Scale::Full ? h.mcuHeight : h.mcuHeight >> (3 - uint32_t(scale));
    if (unit == 0)
        unit = 1;
    uint64_t pixels = uint64_t(out.width) * out.height;
    if (!showProgress || pixels < (4u << 20) || h.process == Process::Progressive)
        return decoder.decodeRows(out, 0, out.height, scale);
    uint32_t strip = ((256 + unit - 1) / unit) * unit;
    Progress progress("decoding", out.height);
    Status status;
    for (uint32_t y = 0; y < out.height && status.ok(); y += strip) {
        uint32_t rows = strip < out.height - y ? strip : out.height - y;
        Status s = decoder.decodeRows(out, y, rows, scale);
        if (!s.ok())
            status = s;
        progress.update(y + rows);
    }
    return status;
}

}  // namespace

Status decodeJpeg(Decoder &decoder, Scale scale, Image *out, std::string *note, bool showProgress) {
    const auto &h = decoder.header();
    bool dct = h.process == Process::Baseline || h.process == Process::Extended || h.process == Process::Progressive;
    Scale libraryScale = dct ? scale : Scale::Full;
    *out = decoder.makeImage(libraryScale);
    if (out->empty())
        return JPG_STATUS_NOT_SUPPORTED;
    Status s = decodeStrips(decoder, libraryScale, *out, showProgress);
    if (!s.ok() && !s.warning() && s.code() != JPG_STATUS_UNEXPECTED_END)
        return s;
    if (out->order == PixelOrder::BGR)
        out->swapRedBlue();
    if (libraryScale != scale) {
        *out = boxReduce(*out, 8u >> uint32_t(scale));
        if (note != nullptr)
            *note = std::string("the library scales DCT frames only; this ") +
                    kivjpeg::processName(h.process) + " image was reduced by averaging";
    }
    return s;
}

Image boxReduce(const Image &image, uint32_t factor) {
    // Sizes round down (at least 1), as the library's scaled output does.
    uint32_t w = image.width / factor > 0 ? image.width / factor : 1;
    uint32_t h = image.height / factor > 0 ? image.height / factor : 1;
    Image out(w, h, image.channels, image.bytesPerSample, image.order);
    out.precision = image.precision;
    for (uint32_t y = 0; y < h; y++)
        for (uint32_t x = 0; x < w; x++)
            for (uint32_t c = 0; c < image.channels; c++) {
                uint64_t sum = 0, n = 0;
                for (uint32_t dy = 0; dy < factor && y * factor + dy < image.height; dy++)
                    for (uint32_t dx = 0; dx < factor && x * factor + dx < image.width; dx++, n++)
                        sum += image.sample(x * factor + dx, y * factor + dy, c);
                out.setSample(x, y, c, uint32_t((sum + n / 2) / n));
            }
    return out;
}

Image toGray(const Image &image) {
    if (image.channels != 3)
        return image;
    Image out(image.width, image.height, 1, image.bytesPerSample, PixelOrder::Gray);
    out.precision = image.precision;
    uint32_t r = image.order == PixelOrder::BGR ? 2 : 0, b = 2 - r;
    for (uint32_t y = 0; y < image.height; y++)
        for (uint32_t x = 0; x < image.width; x++)
            out.setSample(x, y, 0,
                          (19595 * image.sample(x, y, r) + 38470 * image.sample(x, y, 1) +
                           7471 * image.sample(x, y, b) + 32768) >> 16);
    return out;
}

Image to8Bit(const Image &image) {
    if (image.bytesPerSample == 1 && image.precision == 8)
        return image;
    Image out(image.width, image.height, image.channels, 1, image.order);
    for (uint32_t y = 0; y < image.height; y++)
        for (uint32_t x = 0; x < image.width; x++)
            for (uint32_t c = 0; c < image.channels; c++) {
                uint32_t v = image.sample(x, y, c);
                v = image.precision >= 8 ? v >> (image.precision - 8) : v << (8 - image.precision);
                out.setSample(x, y, c, v > 255 ? 255 : v);
            }
    return out;
}

bool compareImages(const Image &a, const Image &b, Difference *d, Image *diffImage) {
    if (a.width != b.width || a.height != b.height || a.channels != b.channels)
        return false;
    double peak = double((1u << (a.precision > b.precision ? a.precision : b.precision)) - 1);
    double squares = 0, sum = 0;
    uint32_t worst = 0;
    if (diffImage != nullptr)
        *diffImage = Image(a.width, a.height, a.channels, 1, a.order);
    for (uint32_t y = 0; y < a.height; y++)
        for (uint32_t x = 0; x < a.width; x++)
            for (uint32_t c = 0; c < a.channels; c++) {
                int64_t e = int64_t(a.sample(x, y, c)) - int64_t(b.sample(x, y, c));
                uint32_t m = uint32_t(e < 0 ? -e : e);
                squares += double(e) * double(e);
                sum += m;
                worst = m > worst ? m : worst;
                if (diffImage != nullptr)
                    diffImage->setSample(x, y, c, m * 4 > 255 ? 255 : m * 4);
            }
    double n = double(a.width) * a.height * a.channels;
    d->maxDiff = worst;
    d->meanDiff = sum / n;
    d->psnr = squares == 0 ? INFINITY : 10 * std::log10(peak * peak / (squares / n));
    return true;
}

bool loadAnyImage(const std::string &path, Image *image, std::string *error) {
    std::vector<uint8_t> bytes;
    if (!readAll(path, &bytes, error))
        return false;
    if (formatFromBytes(bytes) != Format::Jpeg)
        return readImage(bytes, image, error);
    Decoder decoder;
    StreamFacts facts = readStreamFacts(bytes);
    Status s = openJpeg(decoder, bytes, nullptr);
    if (s)
        s = decodeJpeg(decoder, Scale::Full, image, nullptr);
    if (!s.ok() && !s.warning()) {
        *error = describeRefusal(facts, s);
        return false;
    }
    if (holdsAdobeCmyk(facts, decoder.header(), false))
        *image = cmykToRgb(*image);
    return true;
}

std::string markerName(uint16_t m) {
    static const char *const kSof[16] = {"SOF0",  "SOF1",  "SOF2",  "SOF3", "DHT",   "SOF5",
                                         "SOF6",  "SOF7",  "JPG",   "SOF9", "SOF10", "SOF11",
                                         "DAC",   "SOF13", "SOF14", "SOF15"};
    if (m >= 0xFFC0 && m <= 0xFFCF)
        return kSof[m - 0xFFC0];
    if (m >= 0xFFD0 && m <= 0xFFD7)
        return "RST" + std::to_string(m - 0xFFD0);
    if (m >= 0xFFE0 && m <= 0xFFEF)
        return "APP" + std::to_string(m - 0xFFE0);
    switch (m) {
    case 0xFFD8: return "SOI";
    case 0xFFD9: return "EOI";
    case 0xFFDA: return "SOS";
    case 0xFFDB: return "DQT";
    case 0xFFDC: return "DNL";
    case 0xFFDD: return "DRI";
    case 0xFFDE: return "DHP";
    case 0xFFDF: return "EXP";
    case 0xFFFE: return "COM";
    default: break;
    }
    char text[8];
    snprintf(text, sizeof text, "%04X", m);
    return text;
}

bool parseMarker(const std::string &text, uint16_t *marker) {
    for (uint32_t m = 0xFFC0; m <= 0xFFFE; m++)
        if (markerName(uint16_t(m)) == text) {
            *marker = uint16_t(m);
            return true;
        }
    std::string hex = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0
                          ? text.substr(2) : text;
    char *end = nullptr;
    unsigned long v = strtoul(hex.c_str(), &end, 16);
    if (hex.empty() || *end != 0 || v < 0xFFC0 || v > 0xFFFE)
        return false;
    *marker = uint16_t(v);
    return true;
}

}  // namespace kivtool
