// kivjpeg.hpp - header-only C++17 convenience layer over the C interface of
// kivjpeg.h: move-only decoder and encoder handles that end their JpgParam
// when they go out of scope, an owning Image type, and statuses returned as
// values (no exceptions). Everything here calls only the exported functions.
#ifndef KIVJPEG_HPP
#define KIVJPEG_HPP

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "kivjpeg.h"

namespace kivjpeg {

// ------------------------------------------------------------------ statuses

// The upper-case name of a status code, e.g. "JPG_STATUS_BAD_DATA".
inline const char *statusName(JpgStatus s) {
    switch (s) {
    case JPG_STATUS_OK: return "JPG_STATUS_OK";
    case JPG_STATUS_FAILED: return "JPG_STATUS_FAILED";
    case JPG_STATUS_BLOCK_UNAVAILABLE: return "JPG_STATUS_BLOCK_UNAVAILABLE";
    case JPG_STATUS_NO_MEMORY: return "JPG_STATUS_NO_MEMORY";
    case JPG_STATUS_INVALID_HANDLE: return "JPG_STATUS_INVALID_HANDLE";
    case JPG_STATUS_SEEK_FAILED: return "JPG_STATUS_SEEK_FAILED";
    case JPG_STATUS_OUTPUT_FULL: return "JPG_STATUS_OUTPUT_FULL";
    case JPG_STATUS_END_OF_STREAM: return "JPG_STATUS_END_OF_STREAM";
    case JPG_STATUS_INVALID_PARAMETER: return "JPG_STATUS_INVALID_PARAMETER";
    case JPG_STATUS_WRONG_MODE: return "JPG_STATUS_WRONG_MODE";
    case JPG_STATUS_NOT_SUPPORTED: return "JPG_STATUS_NOT_SUPPORTED";
    case JPG_STATUS_BAD_DATA: return "JPG_STATUS_BAD_DATA";
    case JPG_STATUS_FILE_OPEN_FAILED: return "JPG_STATUS_FILE_OPEN_FAILED";
    case JPG_STATUS_UNEXPECTED_END: return "JPG_STATUS_UNEXPECTED_END";
    case JPG_STATUS_BAD_DC_CODE: return "JPG_STATUS_BAD_DC_CODE";
    case JPG_STATUS_BAD_AC_CODE: return "JPG_STATUS_BAD_AC_CODE";
    case JPG_STATUS_SEGMENT_LENGTH: return "JPG_STATUS_SEGMENT_LENGTH";
    case JPG_STATUS_BAD_SAMPLING: return "JPG_STATUS_BAD_SAMPLING";
    case JPG_STATUS_ERROR: return "JPG_STATUS_ERROR";
    default: return "JPG_STATUS_UNKNOWN";
    }
}

// A one-line explanation of a status code for people.
inline const char *statusMessage(JpgStatus s) {
    switch (s) {
    case JPG_STATUS_OK: return "success";
    case JPG_STATUS_FAILED: return "the operation failed";
    case JPG_STATUS_BLOCK_UNAVAILABLE: return "the requested block is not available";
    case JPG_STATUS_NO_MEMORY: return "out of memory";
    case JPG_STATUS_INVALID_HANDLE: return "invalid handle or missing argument";
    case JPG_STATUS_SEEK_FAILED: return "repositioning the input failed";
    case JPG_STATUS_OUTPUT_FULL: return "the output could not be written";
    case JPG_STATUS_END_OF_STREAM: return "the end of the input was reached";
    case JPG_STATUS_INVALID_PARAMETER: return "an argument is out of range";
    case JPG_STATUS_WRONG_MODE: return "the handle is in the wrong mode";
    case JPG_STATUS_NOT_SUPPORTED: return "this coding process or operation is not supported";
    case JPG_STATUS_BAD_DATA: return "the stream contradicts the JPEG syntax";
    case JPG_STATUS_FILE_OPEN_FAILED: return "the file could not be opened or created";
    case JPG_STATUS_UNEXPECTED_END: return "the stream ended early (truncated?)";
    case JPG_STATUS_BAD_DC_CODE: return "invalid DC Huffman code; the rest of the image may be damaged";
    case JPG_STATUS_BAD_AC_CODE: return "invalid AC Huffman code; the rest of the image may be damaged";
    case JPG_STATUS_SEGMENT_LENGTH: return "a marker segment length does not match its contents";
    case JPG_STATUS_BAD_SAMPLING: return "a sampling factor is zero";
    case JPG_STATUS_ERROR: return "the request was refused";
    default: return "unknown status";
    }
}

// A status as a value. Warnings (0x8000xxxx) mean partial output is usable.
class Status {
public:
    constexpr Status(JpgStatus code = JPG_STATUS_OK) : code_(code) {}
    constexpr JpgStatus code() const { return code_; }
    constexpr bool ok() const { return code_ == JPG_STATUS_OK; }
    constexpr bool warning() const { return (code_ & 0xF0000000u) == 0x80000000u; }
    constexpr explicit operator bool() const { return ok(); }
    const char *name() const { return statusName(code_); }
    const char *message() const { return statusMessage(code_); }
    // "JPG_STATUS_BAD_DATA: the stream contradicts the JPEG syntax"
    std::string describe() const { return std::string(name()) + ": " + message(); }
    friend constexpr bool operator==(Status a, Status b) { return a.code_ == b.code_; }
    friend constexpr bool operator!=(Status a, Status b) { return a.code_ != b.code_; }

private:
    JpgStatus code_;
};

// --------------------------------------------------------------------- image

// Meaning of the channels of an Image.
enum class PixelOrder { Gray, BGR, RGB, Components };

// An owning, tightly packed image: 8-bit samples, or 16-bit samples in native
// byte order, channels interleaved. `precision` is the number of significant
// bits (for example 12 in a 16-bit container).
struct Image {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t channels = 0;
    uint32_t bytesPerSample = 1;
    uint32_t precision = 8;
    PixelOrder order = PixelOrder::Gray;
    std::vector<uint8_t> data;

    Image() = default;
    Image(uint32_t w, uint32_t h, uint32_t ch, uint32_t bytes = 1, PixelOrder o = PixelOrder::Gray)
        : width(w), height(h), channels(ch), bytesPerSample(bytes),
          precision(bytes == 1 ? 8 : 16), order(o) {
        data.assign(size_t(w) * h * ch * bytes, 0);
    }

    bool empty() const { return data.empty(); }
    size_t stride() const { return size_t(width) * channels * bytesPerSample; }
    uint8_t *row(uint32_t y) { return data.data() + stride() * y; }
    const uint8_t *row(uint32_t y) const { return data.data() + stride() * y; }
    uint32_t sample(uint32_t x, uint32_t y, uint32_t c) const {
        size_t i = (size_t(y) * width + x) * channels + c;
        if (bytesPerSample == 1)
            return data[i];
        uint16_t v;
        std::memcpy(&v, data.data() + 2 * i, 2);
        return v;
    }
    void setSample(uint32_t x, uint32_t y, uint32_t c, uint32_t v) {
        size_t i = (size_t(y) * width + x) * channels + c;
        if (bytesPerSample == 1) {
            data[i] = uint8_t(v);
        } else {
            uint16_t s = uint16_t(v);
            std::memcpy(data.data() + 2 * i, &s, 2);
        }
    }
    // Swaps the first and third channel of a three-channel image (BGR <-> RGB).
    void swapRedBlue() {
        if (channels != 3)
            return;
        size_t n = size_t(width) * height;
        for (size_t i = 0; i < n; i++)
            for (uint32_t b = 0; b < bytesPerSample; b++)
                std::swap(data[(3 * i) * bytesPerSample + b], data[(3 * i + 2) * bytesPerSample + b]);
        if (order == PixelOrder::BGR)
            order = PixelOrder::RGB;
        else if (order == PixelOrder::RGB)
            order = PixelOrder::BGR;
    }
    // The library's view of this image (rows starting at `firstRow`).
    ComplibRect rect(uint32_t firstRow = 0) {
        ComplibRect r{};
        r.width = int32_t(width);
        r.height = int32_t(height - firstRow);
        r.stride = int32_t(stride());
        r.channels = int32_t(channels);
        r.sampleBits = int32_t(precision);
        r.pixelBits = int32_t(8 * bytesPerSample * channels);
        r.pixels = data.data() + stride() * firstRow;
        r.allocSize = uint32_t(data.size() - stride() * firstRow);
        return r;
    }
};

// ------------------------------------------------------------------- decoder

enum class Process { Baseline, Extended, Progressive, Lossless, Unknown };

inline const char *processName(Process p) {
    switch (p) {
    case Process::Baseline: return "baseline";
    case Process::Extended: return "extended";
    case Process::Progressive: return "progressive";
    case Process::Lossless: return "lossless";
    default: return "unknown";
    }
}

// What the frame header says.
struct Header {
    Process process = Process::Unknown;
    uint32_t width = 0, height = 0, components = 0, precision = 0;
    uint32_t mcuWidth = 0, mcuHeight = 0, restartInterval = 0;
    uint32_t pointTransform = 0;    // lossless only
    uint8_t identifiers[4] = {};    // component identifiers
    uint8_t sampling[4] = {};       // H << 4 | V per component
};

// One marker segment: code and payload length (without the length field).
struct Segment {
    uint16_t marker = 0;
    uint32_t length = 0;
};

// Scale of the output: full size or 1/2, 1/4, 1/8.
enum class Scale : uint32_t { Eighth = 0, Quarter = 1, Half = 2, Full = 3 };

class Decoder {
public:
    Decoder() = default;
    Decoder(const Decoder &) = delete;
    Decoder &operator=(const Decoder &) = delete;
    Decoder(Decoder &&o) noexcept { *this = std::move(o); }
    Decoder &operator=(Decoder &&o) noexcept {
        if (this != &o) {
            close();
            param_ = std::exchange(o.param_, nullptr);
            owned_ = std::move(o.owned_);
            header_ = o.header_;
            noColor_ = o.noColor_;
        }
        return *this;
    }
    ~Decoder() { close(); }

    // Opens a stream in memory that the caller keeps alive while decoding.
    Status openMemory(const uint8_t *data, size_t size, int32_t flags = 0) {
        close();
        if (size > 0x7FFFFFFF)
            return JPG_STATUS_INVALID_PARAMETER;
        Status s = jpgReadPrologFromMemory(data, int32_t(size), flags, &param_);
        return s ? readHeader() : s;
    }
    // Opens a stream in memory; the decoder keeps its own copy of the bytes.
    Status openBytes(std::vector<uint8_t> bytes, int32_t flags = 0) {
        close();
        owned_ = std::move(bytes);
        if (owned_.empty())
            return JPG_STATUS_INVALID_PARAMETER;
        if (owned_.size() > 0x7FFFFFFF)
            return JPG_STATUS_INVALID_PARAMETER;
        Status s = jpgReadPrologFromMemory(owned_.data(), int32_t(owned_.size()), flags, &param_);
        return s ? readHeader() : s;
    }
    // Opens a stream in a file (read through the handle's buffer, not held
    // in memory); `flags` as for the file prolog (0x4: no end-of-image check).
    Status openFile(const std::string &path, uint8_t flags = 0) {
        close();
        Status s = jpgReadPrologFromFile(path.c_str(), 0, 0, flags, &param_);
        return s ? readHeader() : s;
    }
    void close() {
        if (param_ != nullptr)
            jpgReadEpilog(param_);
        param_ = nullptr;
        header_ = Header{};
        noColor_ = false;
    }

    bool isOpen() const { return param_ != nullptr; }
    JpgParam *handle() const { return param_; }
    const Header &header() const { return header_; }

    // The 64 values of a component's quantization table, in zig-zag order.
    Status quantizationTable(uint32_t component, uint32_t table[64]) const {
        if (param_ == nullptr || component >= header_.components)
            return JPG_STATUS_INVALID_PARAMETER;
        if (header_.process == Process::Lossless)
            return JPG_STATUS_NOT_SUPPORTED;
        return jpgReadGetQuantizationTable(param_, component, table);
    }

    Status setNoColorConversion() {
        Status s = jpgReadSetNoColorConversion(param_);
        if (s)
            noColor_ = true;
        return s;
    }

    // Size of the output at a scale.
    Status scaledSize(Scale scale, uint32_t *width, uint32_t *height) const {
        if (scale == Scale::Full) {
            *width = header_.width;
            *height = header_.height;
            return JPG_STATUS_OK;
        }
        return jpgReadScaleOutputGetImageSize(param_, width, height, uint32_t(scale));
    }

    // An image of the right shape for decode(): channels = components,
    // 16-bit samples for lossless precisions above 8.
    Image makeImage(Scale scale = Scale::Full) const {
        uint32_t w = 0, h = 0;
        if (!scaledSize(scale, &w, &h))
            return Image();
        uint32_t bytes = header_.process == Process::Lossless && header_.precision > 8 ? 2 : 1;
        PixelOrder order = PixelOrder::Components;
        if (header_.components == 1)
            order = PixelOrder::Gray;
        else if (header_.components == 3 && !noColor_)
            order = header_.process == Process::Lossless ? PixelOrder::RGB : PixelOrder::BGR;
        Image image(w, h, header_.components, bytes, order);
        image.precision = header_.process == Process::Lossless ? header_.precision : 8;
        return image;
    }

    // Decodes the whole image (any process; scaled output for DCT frames).
    // Warnings, and JPG_STATUS_UNEXPECTED_END for a stream that ends early,
    // leave a usable, partly damaged image in `out`.
    Status decode(Image &out, Scale scale = Scale::Full) {
        if (param_ == nullptr)
            return JPG_STATUS_INVALID_HANDLE;
        out = makeImage(scale);
        if (out.empty())
            return JPG_STATUS_INVALID_PARAMETER;
        return decodeRows(out, 0, out.height, scale);
    }

    // Decodes the next `rows` rows into out (whose shape comes from
    // makeImage), starting at row `first` of out. Every frame may be decoded
    // in strips this way; frames coded in several scans (progressive ones)
    // decode all scans on the first call.
    Status decodeRows(Image &out, uint32_t first, uint32_t rows, Scale scale = Scale::Full) {
        if (param_ == nullptr)
            return JPG_STATUS_INVALID_HANDLE;
        if (first >= out.height || rows == 0)
            return JPG_STATUS_INVALID_PARAMETER;
        ComplibRect r = out.rect(first);
        switch (header_.process) {
        case Process::Baseline:
        case Process::Extended:
            if (scale == Scale::Full)
                return jpgReadToRect(param_, &r, rows);
            return jpgReadScaleOutputToRect(param_, &r, rows, uint32_t(scale));
        case Process::Progressive:
            if (scale != Scale::Full)
                return jpgReadScaleOutputToRect(param_, &r, rows, uint32_t(scale));
            return jpgReadProgressiveToRect(param_, &r, rows, 0);
        case Process::Lossless: {
            if (scale != Scale::Full)
                return JPG_STATUS_NOT_SUPPORTED;
            Status s = jpgReadSpatialToRect(param_, &r, rows);
            if (s.code() != JPG_STATUS_OK || header_.pointTransform == 0)
                return s;
            undoPointTransform(out, first, rows);
            return s;
        }
        default:
            return JPG_STATUS_NOT_SUPPORTED;
        }
    }

    // Progressive incremental display: each call decodes one more scan and
    // delivers the whole image refined so far. *done becomes true after the
    // last scan; a further call returns JPG_STATUS_ERROR.
    Status nextPass(Image &out, bool *done) {
        if (param_ == nullptr || done == nullptr)
            return JPG_STATUS_INVALID_HANDLE;
        if (header_.process != Process::Progressive)
            return JPG_STATUS_NOT_SUPPORTED;
        if (out.empty())
            out = makeImage();
        ComplibRect r = out.rect();
        Status s = jpgReadProgressiveToRect(param_, &r, out.height, JPG_PROGRESSIVE_INCREMENTAL);
        uint32_t completed = 0;
        *done = s.code() == JPG_STATUS_ERROR ||
                (s.ok() && jpgReadProgressiveIsCompleted(param_, &completed) == 0 && completed);
        return s;
    }

    // Walks the marker segments: origin 0 starts again at SOI, 1 continues
    // after the current segment. Decoding afterwards rewinds by itself.
    Status nextSegment(bool fromStart, Segment *seg) {
        uint16_t marker = 0;
        uint32_t length = 0;
        Status s = jpgReadSeekMarkerSegment(param_, fromStart ? 0 : 1, &marker, &length);
        seg->marker = marker;
        seg->length = length;
        return s;
    }
    std::vector<Segment> segments() {
        std::vector<Segment> list;
        Segment seg;
        for (bool first = true; nextSegment(first, &seg).ok(); first = false) {
            list.push_back(seg);
            if (seg.marker == 0xFFD9)
                break;
        }
        return list;
    }
    // The payload of the segment last found by nextSegment.
    Status segmentData(std::vector<uint8_t> *payload, uint32_t length) {
        payload->assign(length, 0);
        uint32_t done = 0;
        while (done < length) {
            uint32_t count = 0;
            Status s = jpgReadReadMarkerData(param_, payload->data() + done, length - done, &count);
            if (!s || count == 0)
                return s ? Status(JPG_STATUS_FAILED) : s;
            done += count;
        }
        return JPG_STATUS_OK;
    }

private:
    Status readHeader() {
        uint32_t process = 0, v = 0;
        if (jpgReadGetCodingProcess(param_, &process) == JPG_STATUS_OK) {
            header_.process = process == JPG_PROCESS_BASELINE      ? Process::Baseline
                              : process == JPG_PROCESS_EXTENDED    ? Process::Extended
                              : process == JPG_PROCESS_PROGRESSIVE ? Process::Progressive
                              : process == JPG_PROCESS_LOSSLESS    ? Process::Lossless
                                                                   : Process::Unknown;
        }
        jpgReadGetImageSize(param_, &header_.width, &header_.height);
        jpgReadGetNumberOfChannels(param_, &header_.components);
        jpgReadGetSamplePrecision(param_, &header_.precision);
        jpgReadGetMcuSize(param_, &header_.mcuWidth, &header_.mcuHeight);
        jpgReadGetRestartInterval(param_, &header_.restartInterval);
        if (header_.process == Process::Lossless && jpgReadGetPointTransform(param_, &v) == 0)
            header_.pointTransform = v;
        uint32_t packed = 0;
        jpgReadGetSubsamplingFactor(param_, &packed);
        uint32_t ids[4] = {};
        jpgReadGetQuantizationTableSelector(param_, ids);
        uint32_t n = header_.components < 4 ? header_.components : 4;
        for (uint32_t i = 0; i < n; i++) {
            header_.sampling[i] = uint8_t(packed >> (8 * (n - 1 - i)));
            header_.identifiers[i] = uint8_t(ids[i]);
        }
        return JPG_STATUS_OK;
    }
    // Lossless samples arrive at precision P - Pt; bring them back to P.
    void undoPointTransform(Image &out, uint32_t first, uint32_t rows) {
        uint32_t last = first + rows < out.height ? first + rows : out.height;
        for (uint32_t y = first; y < last; y++)
            for (uint32_t x = 0; x < out.width; x++)
                for (uint32_t c = 0; c < out.channels; c++)
                    out.setSample(x, y, c, out.sample(x, y, c) << header_.pointTransform);
    }

    JpgParam *param_ = nullptr;
    std::vector<uint8_t> owned_;
    Header header_;
    bool noColor_ = false;
};

// ------------------------------------------------------------------- encoder

// Chroma subsampling of a three-channel baseline image (H x V of luminance).
enum class Sampling : uint32_t {
    S444 = 0x111111,
    S422 = 0x211111,
    S420 = 0x221111,
    S440 = 0x121111,
    S411 = 0x411111,
};

struct EncodeOptions {
    uint32_t quality = 90;             // 1..100
    Sampling sampling = Sampling::S420;
    bool highQualitySubsampling = false;
    uint16_t restartInterval = 0;      // MCUs; 0 = none
    bool lossless = false;
    int32_t predictor = 1;             // lossless, 1..7
    bool jfif = true;                  // write a JFIF APP0 (baseline)
    std::string comment;               // COM segment when not empty
};

class Encoder {
public:
    Encoder() = default;
    Encoder(const Encoder &) = delete;
    Encoder &operator=(const Encoder &) = delete;
    Encoder(Encoder &&o) noexcept { *this = std::move(o); }
    Encoder &operator=(Encoder &&o) noexcept {
        if (this != &o) {
            discard();
            param_ = std::exchange(o.param_, nullptr);
            toFile_ = o.toFile_;
        }
        return *this;
    }
    ~Encoder() { discard(); }

    Status openMemory(uint32_t options = 0) {
        discard();
        toFile_ = false;
        return jpgWritePrologToMemory(options, &param_);
    }
    Status openFile(const std::string &path) {
        discard();
        toFile_ = true;
        return jpgWritePrologToFile(path.c_str(), 0, &param_);
    }
    JpgParam *handle() const { return param_; }

    // Applies the options; call before encode().
    Status configure(const EncodeOptions &o, uint32_t channels) {
        if (param_ == nullptr)
            return JPG_STATUS_INVALID_HANDLE;
        lossless_ = o.lossless;
        Status s = JPG_STATUS_OK;
        if (o.lossless) {
            s = jpgWriteSetSpatialPredictor(param_, o.predictor);
        } else {
            s = jpgWriteSetQuantizationFactor(param_, o.quality);
            if (s && channels == 3)
                s = jpgWriteSetSubsamplingFactor(param_, uint32_t(o.sampling));
            if (s)
                s = jpgWriteSetSubsamplingMethod(param_, o.highQualitySubsampling ? 1 : 0);
        }
        if (s)
            s = jpgWriteSetRestartInterval(param_, o.restartInterval);
        if (s && o.jfif && !o.lossless && (channels == 1 || channels == 3)) {
            static const uint8_t kJfif[14] = {'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0};
            s = addSegment(0xFFE0, kJfif, sizeof kJfif);
        }
        if (s && !o.comment.empty())
            s = addSegment(0xFFFE, reinterpret_cast<const uint8_t *>(o.comment.data()),
                           uint32_t(o.comment.size()));
        return s;
    }

    // Writes a marker segment of the caller's own right after SOI.
    Status addSegment(uint16_t marker, const uint8_t *data, uint32_t length) {
        if (length == 0 || length > 65533)
            return JPG_STATUS_INVALID_PARAMETER;
        return jpgWriteWriteMarkerSegment(param_, marker, data, int32_t(length));
    }

    // Encodes a whole image: 8-bit Gray or BGR/RGB for baseline; 2..16-bit
    // samples for lossless (components in the image's channel order, with
    // RGB order for three-channel images).
    Status encode(const Image &image) { return encodeRows(image, 0, image.height); }

    // Encodes rows [first, first + rows) of an image, top to bottom over
    // several calls. Baseline strips must be a whole number of MCU rows
    // (16 lines always is) except the last.
    Status encodeRows(const Image &image, uint32_t first, uint32_t rows) {
        if (param_ == nullptr)
            return JPG_STATUS_INVALID_HANDLE;
        if (image.empty() || rows == 0 || first >= image.height || rows > image.height - first)
            return JPG_STATUS_INVALID_PARAMETER;
        if (lossless_ ? image.precision < 2 || image.precision > 16
                      : image.bytesPerSample != 1 || image.precision != 8)
            return lossless_ ? JPG_STATUS_INVALID_PARAMETER : JPG_STATUS_NOT_SUPPORTED;
        if (first == 0) {
            Status s = jpgWriteSetImageSize(param_, image.width, image.height);
            if (!s)
                return s;
        }
        bool swap = image.channels == 3 && ((lossless_ && image.order == PixelOrder::BGR) ||
                                            (!lossless_ && image.order == PixelOrder::RGB));
        Image strip;
        ComplibRect r;
        if (swap) {
            strip = Image(image.width, rows, 3, image.bytesPerSample, image.order);
            strip.precision = image.precision;
            std::memcpy(strip.data.data(), image.row(first), strip.data.size());
            strip.swapRedBlue();
            r = strip.rect();
        } else {
            r = const_cast<Image &>(image).rect(first);
            r.height = int32_t(rows);
        }
        if (lossless_)
            return jpgWriteSpatialFromRect(param_, &r, int32_t(rows));
        return jpgWriteFromRect(param_, &r, rows);
    }

    // Ends the stream; a memory encoder hands its bytes to `out`.
    Status finish(std::vector<uint8_t> *out = nullptr) {
        if (param_ == nullptr)
            return JPG_STATUS_INVALID_HANDLE;
        JpgParam *p = std::exchange(param_, nullptr);
        if (toFile_)
            return jpgWriteEpilogToFile(p);
        uint8_t *buffer = nullptr;
        uint32_t size = 0;
        Status s = jpgWriteEpilogToMemory(p, &buffer, &size);
        if (out != nullptr && buffer != nullptr)
            out->assign(buffer, buffer + size);
        if (buffer != nullptr)
            jpgWriteFreeBitstream(buffer);
        return s;
    }

private:
    void discard() {
        if (param_ == nullptr)
            return;
        finish(nullptr);
    }

    JpgParam *param_ = nullptr;
    bool toFile_ = false;
    bool lossless_ = false;
};

// ------------------------------------------------------------- one-liners

inline Status decodeMemory(const uint8_t *data, size_t size, Image *out, Scale scale = Scale::Full) {
    Decoder d;
    Status s = d.openMemory(data, size);
    return s ? d.decode(*out, scale) : s;
}

inline Status encodeMemory(const Image &image, const EncodeOptions &options,
                           std::vector<uint8_t> *out) {
    Encoder e;
    Status s = e.openMemory();
    if (s)
        s = e.configure(options, image.channels);
    if (s)
        s = e.encode(image);
    Status f = e.finish(out);
    return s ? f : s;
}

}  // namespace kivjpeg

#endif  // KIVJPEG_HPP
