// The support module of every test group: corpus paths, files and external
// tools; one image type (8-bit or deeper samples, interleaved) with PNM and
// BMP reading, comparison and PSNR; decoding a stream through each output
// driver, encoding through the public API, the libjpeg-turbo oracles; a
// stream walker; a raw reader over bytes as the reference bit reader.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/handle.h"

namespace kivtest {

using Bytes = std::vector<uint8_t>;

// ---------------------------------------------------------------- files, tools

std::string corpus(const std::string &relative);  // e.g. "samples/testorig.jpg"
Bytes readFile(const std::string &path);
void writeFile(const std::string &path, const Bytes &bytes);
std::string tempPath(const std::string &name);    // under this process's temporary directory
std::string tempDir();
int run(const std::string &command, std::string *output = nullptr);  // exit status, standard output
bool haveTool(const std::string &name);
std::string hex(uint32_t value);

// The processor flags this machine runs: 0 (portable), then SSE2, then AVX2.
std::vector<uint32_t> processorFlags();
std::string processorName(uint32_t flag);

// JPEG files of Debian's photograph packages, when installed, sorted; and
// the same sorted by size.
std::vector<std::string> photographs();
std::vector<std::string> photographsBySize();

// ---------------------------------------------------------------- images

// Interleaved samples: three channels B, G, R (the library's order), four in
// component order; `bits` above 8 take two bytes per sample in host order.
struct Image {
    int width = 0, height = 0, channels = 0, bits = 8;
    Bytes pixels;

    Image() = default;
    Image(int w, int h, int c, int sampleBits = 8, uint8_t fill = 0);
    int bytesPerSample() const { return bits > 8 ? 2 : 1; }
    int stride() const { return width * channels * bytesPerSample(); }
    size_t samples() const { return size_t(width) * height * channels; }
    uint32_t get(size_t i) const;  // sample i in interleaved order
    void set(size_t i, uint32_t value);
    uint32_t at(int x, int y, int c) const { return get((size_t(y) * width + x) * channels + c); }
    uint8_t *row(int y) { return pixels.data() + size_t(y) * stride(); }
    const uint8_t *row(int y) const { return pixels.data() + size_t(y) * stride(); }
    ComplibRect rect();  // the whole image, its allocation stated
    bool empty() const { return pixels.empty(); }
    bool operator==(const Image &o) const = default;
};

// Random samples of `bits`; a smooth ramp with a little noise; a picture of
// sine waves, hard-edged tiles and `noise` (long codes, many 0xFF bytes).
Image randomImage(int w, int h, int channels, int bits, uint32_t seed);
Image gradientImage(int w, int h, int channels, int bits, uint32_t seed);
Image picture(int w, int h, int channels, int noise, uint32_t seed);

// Binary PGM/PPM (8 or 16 bits) and PAM; colour turned into B, G, R unless
// `fileOrder`. Empty on anything else.
Image parsePnm(const Bytes &file, bool fileOrder = false);
Image readPnm(const std::string &path, bool fileOrder = false);
void writePnm(const std::string &path, const Image &image);  // B, G, R back to R, G, B
Image readBmp(const std::string &path);                        // 24-bit, uncompressed

// Differences over the common area of two images with the same channels;
// only the columns x % columnStep == 0. PSNR 99 for identical images.
struct Difference {
    double psnr = 0;
    int maxDiff = 256;
    std::string where;  // the largest difference
};
Difference compare(const Image &a, const Image &b, int columnStep = 1);
inline double psnr(const Image &a, const Image &b) { return compare(a, b).psnr; }
size_t differences(const Image &a, const Image &b);  // samples that differ

// ---------------------------------------------------------------- decoding

// A read handle that ends itself; the stream lives as long as the handle.
struct ReadHandle {
    Bytes bytes;
    JpgParam *p = nullptr;
    JpgStatus status = JPG_STATUS_FAILED;
    explicit ReadHandle(Bytes data, int32_t flags = 0);
    ~ReadHandle();
    ReadHandle(const ReadHandle &) = delete;
    ReadHandle &operator=(const ReadHandle &) = delete;
};

enum class Driver { Auto, Rows, Mcus, Progressive, Scaled, Spatial };
constexpr uint32_t kAllLevels = 0xFFFFFFFF;  // the handle's routines as chosen at the prolog

struct DecodeOptions {
    Driver driver = Driver::Auto;   // Auto: the one the frame's process needs
    int level = 3;                  // 0, 1, 2: 1/8, 1/4, 1/2 (Scaled); 3: full size
    uint32_t batch = 0;             // lines (or MCUs) per call; 0: all at once
    int channels = 0;               // of the rectangle; 0: the frame's
    int32_t flags = 0;              // prolog flags
    uint32_t processor = kAllLevels;  // else jpgSetProcessorArchitectureFlag first
    bool noConversion = false;
    uint8_t fill = 0;               // what the image holds before the decode
    bool incremental = false;       // progressive: every pass until the decoder refuses
};

struct Decoded {
    JpgStatus status = JPG_STATUS_FAILED;  // of the prolog, else of the first failing call
    Image image;
    uint32_t rows = 0;                     // delivered before the failure
    bool guardIntact = true;               // nothing written behind the image
    std::vector<Image> passes;             // incremental progressive decodes
};

// Decodes on an open handle; `image` is sized from the frame (and level).
Decoded decodeOpen(JpgParam *p, const DecodeOptions &o = {});
Decoded decode(const Bytes &jpeg, const DecodeOptions &o = {});

// ---------------------------------------------------------------- encoding

struct EncodeOptions {
    uint32_t quality = 90;
    uint32_t sampling = 0;           // 0: the default
    uint32_t method = 0;             // down-sampling
    bool noConversion = false;
    int colorSpace = 0;
    uint16_t restart = 0;            // MCUs; lossless: in rows of the image
    uint32_t strip = 0;              // rows per call; 0: all at once
    bool setSize = false;
    std::vector<Bytes> segments;     // APPn bodies, marker 0xFFE0 + index
    uint32_t processor = kAllLevels;
    bool lossless = false;
    int predictor = 1;
};

inline EncodeOptions losslessOptions(int predictor, uint16_t restartRows = 0, uint32_t strip = 0) {
    EncodeOptions o;
    o.lossless = true;
    o.predictor = predictor;
    o.restart = restartRows;
    o.strip = strip;
    return o;
}

// The stream, or empty with the failing status in *status.
Bytes encode(const Image &image, const EncodeOptions &o = {}, JpgStatus *status = nullptr);
Bytes finishToMemory(JpgParam *p, JpgStatus *status = nullptr);  // jpgWriteEpilogToMemory

// ---------------------------------------------------------------- oracles

bool djpeg(const std::string &path, Image *out, const std::string &options = "-dct int -nosmooth");
Image djpegStrict(const Bytes &jpeg, std::string *errors = nullptr);  // empty on any complaint
bool jpegtranAccepts(const Bytes &jpeg, std::string *errors = nullptr);
Bytes jpegtran(const Bytes &jpeg, const std::string &options);
Bytes cjpeg(const Image &image, const std::string &options);
std::string sampleArgument(uint32_t factor, int components);  // cjpeg -sample
std::string writeTemp(const std::string &name, const std::string &text);

// libjpeg's four-component encoder and decoder (support/libjpeg_cmyk.c), ""
// without it; CMYK held as Adobe stores it (inverted, 255 = no ink).
std::string libjpegCmyk();
Image photographAsCmyk();             // the smallest photograph at 1/4, at most 400 x 300
Image cmykEdges(int width, int height);
bool writeCmykJpeg(const Image &cmyk, const std::string &path, const std::string &kind, int quality,
                   const std::string &sampling);
bool libjpegDecodeCmyk(const std::string &jpeg, Image *image, bool raw = false);

// ---------------------------------------------------------------- streams

// A marker: its code, the offset of its 0xFF, its body.
struct Segment {
    uint16_t marker;
    size_t offset;
    Bytes body;
};
std::vector<Segment> allSegments(const Bytes &jpeg);  // every marker (RSTn, SOI, EOI without a body)
std::vector<Segment> headerSegments(const Bytes &jpeg);  // those with a length, up to the first SOS
size_t findMarker(const Bytes &b, uint8_t code, size_t from = 2);  // npos when absent
size_t scanData(const Bytes &b, int scan = 0);  // first byte behind scan's SOS, 0 when absent

// A memory write stream with its own 64 KiB staging buffer, as the encoder's
// bit writer uses it, the staging buffer `fill` bytes full.
struct MemoryWriter {
    ComplibBitstream bs{};
    Bytes staging = Bytes(0x10000);
    explicit MemoryWriter(uint32_t fill = 0);
    ~MemoryWriter();
    Bytes staged() const { return {staging.begin(), staging.begin() + bs.fill}; }
    Bytes output() const;  // what reached the memory block, then what is staged
};

// The reference bit reader: a read handle over raw bytes, as after a prolog,
// read with the exported byte-at-a-time routines (jpgReadGetBits).
struct RawReader {
    Bytes data;
    JpgParam *p;
    explicit RawReader(Bytes bytes);
    ~RawReader();
};

}  // namespace kivtest
