// Image files for the kivjpeg tool: PNG through libpng, PNM and BMP by hand.
// Takes file bytes and produces kivjpeg::Image (Gray, RGB or plain component
// order) and back. Sizes from files are checked before any buffer is made.
#include "image_io.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#if KIV_HAVE_PNG
#include <png.h>
#endif

namespace kivtool {

using kivjpeg::Image;
using kivjpeg::PixelOrder;

namespace {

constexpr uint64_t kMaxPixels = uint64_t(1) << 30;

uint32_t bitsFor(uint32_t maxval) {
    uint32_t bits = 1;
    while ((1u << bits) - 1 < maxval)
        bits++;
    return bits;
}

bool sizeOk(uint64_t w, uint64_t h, uint64_t ch, std::string *error) {
    if (w == 0 || h == 0 || w > 65535 || h > 65535 || w * h > kMaxPixels || ch == 0 || ch > 4) {
        *error = "unsupported image size or channel count";
        return false;
    }
    return true;
}

// ------------------------------------------------------------------ PNM

struct PnmCursor {
    const std::vector<uint8_t> &bytes;
    size_t pos = 0;
    void skipSpace() {
        while (pos < bytes.size()) {
            if (bytes[pos] == '#') {
                while (pos < bytes.size() && bytes[pos] != '\n')
                    pos++;
            } else if (isspace(bytes[pos])) {
                pos++;
            } else {
                break;
            }
        }
    }
    bool number(uint32_t *v) {
        skipSpace();
        uint64_t n = 0;
        size_t start = pos;
        while (pos < bytes.size() && isdigit(bytes[pos]) && n < 1u << 30)
            n = n * 10 + (bytes[pos++] - '0');
        *v = uint32_t(n);
        return pos > start;
    }
    std::string word() {
        skipSpace();
        std::string w;
        while (pos < bytes.size() && !isspace(bytes[pos]))
            w += char(bytes[pos++]);
        return w;
    }
};

bool readPamHeader(PnmCursor &c, uint32_t *w, uint32_t *h, uint32_t *ch, uint32_t *maxval) {
    *w = *h = *ch = *maxval = 0;
    for (;;) {
        std::string key = c.word();
        if (key.empty())
            return false;
        if (key == "ENDHDR") {
            if (c.pos < c.bytes.size())
                c.pos++;
            return true;
        }
        if (key == "WIDTH") {
            c.number(w);
        } else if (key == "HEIGHT") {
            c.number(h);
        } else if (key == "DEPTH") {
            c.number(ch);
        } else if (key == "MAXVAL") {
            c.number(maxval);
        } else if (key == "TUPLTYPE") {
            while (c.pos < c.bytes.size() && c.bytes[c.pos] != '\n')
                c.pos++;
        }
    }
}

bool readPnm(const std::vector<uint8_t> &bytes, Image *image, std::string *error) {
    PnmCursor c{bytes};
    char kind = char(bytes[1]);
    c.pos = 2;
    uint32_t w = 0, h = 0, ch = 0, maxval = 0;
    bool ascii = kind == '2' || kind == '3';
    if (kind == '7') {
        if (!readPamHeader(c, &w, &h, &ch, &maxval)) {
            *error = "malformed PAM header";
            return false;
        }
    } else {
        ch = kind == '5' || kind == '2' ? 1 : 3;
        if (!c.number(&w) || !c.number(&h) || !c.number(&maxval)) {
            *error = "malformed PNM header";
            return false;
        }
        if (!ascii)
            c.pos++;  // the single whitespace after maxval
    }
    if (!sizeOk(w, h, ch, error))
        return false;
    if (maxval == 0 || maxval > 65535) {
        *error = "PNM maxval out of range";
        return false;
    }
    uint32_t bytesPer = maxval > 255 ? 2 : 1;
    *image = Image(w, h, ch, bytesPer, ch == 1 ? PixelOrder::Gray
                                       : ch == 3 ? PixelOrder::RGB
                                                 : PixelOrder::Components);
    image->precision = bitsFor(maxval);
    size_t count = size_t(w) * h * ch;
    if (ascii) {
        for (size_t i = 0; i < count; i++) {
            uint32_t v;
            if (!c.number(&v)) {
                *error = "PNM data ends early";
                return false;
            }
            image->setSample(uint32_t(i % (size_t(w) * ch) / ch), uint32_t(i / (size_t(w) * ch)),
                             uint32_t(i % ch), v > maxval ? maxval : v);
        }
        return true;
    }
    if (bytes.size() - c.pos < count * bytesPer) {
        *error = "PNM data ends early";
        return false;
    }
    const uint8_t *p = bytes.data() + c.pos;
    for (size_t i = 0; i < count; i++) {
        uint32_t v = bytesPer == 1 ? p[i] : uint32_t(p[2 * i] << 8 | p[2 * i + 1]);
        if (bytesPer == 1) {
            image->data[i] = uint8_t(v);
        } else {
            uint16_t s = uint16_t(v > maxval ? maxval : v);
            std::memcpy(&image->data[2 * i], &s, 2);
        }
    }
    return true;
}

void writePnm(const Image &image, bool pam, std::vector<uint8_t> *out) {
    uint32_t maxval = (1u << image.precision) - 1;
    static const char *const kTupleType[5] = {"", "GRAYSCALE", "GRAYSCALE_ALPHA", "RGB", "CMYK"};
    std::string header;
    if (!pam && (image.channels == 1 || image.channels == 3)) {
        header = std::string(image.channels == 1 ? "P5\n" : "P6\n") + std::to_string(image.width) +
                 " " + std::to_string(image.height) + "\n" + std::to_string(maxval) + "\n";
    } else {
        header = "P7\nWIDTH " + std::to_string(image.width) + "\nHEIGHT " +
                 std::to_string(image.height) + "\nDEPTH " + std::to_string(image.channels) +
                 "\nMAXVAL " + std::to_string(maxval) + "\nTUPLTYPE " +
                 kTupleType[image.channels] + "\nENDHDR\n";
    }
    out->assign(header.begin(), header.end());
    size_t count = size_t(image.width) * image.height * image.channels;
    if (image.bytesPerSample == 1) {
        out->insert(out->end(), image.data.begin(), image.data.begin() + count);
        return;
    }
    out->reserve(out->size() + 2 * count);
    for (size_t i = 0; i < count; i++) {
        uint16_t v;
        std::memcpy(&v, &image.data[2 * i], 2);
        out->push_back(uint8_t(v >> 8));
        out->push_back(uint8_t(v));
    }
}

// ------------------------------------------------------------------ BMP

uint32_t le(const uint8_t *p, int n) {
    uint32_t v = 0;
    for (int i = n - 1; i >= 0; i--)
        v = v << 8 | p[i];
    return v;
}

void putLe(std::vector<uint8_t> *out, uint32_t v, int n) {
    for (int i = 0; i < n; i++)
        out->push_back(uint8_t(v >> (8 * i)));
}

bool readBmp(const std::vector<uint8_t> &b, Image *image, std::string *error) {
    if (b.size() < 54) {
        *error = "BMP file too short";
        return false;
    }
    uint32_t offset = le(&b[10], 4), headerSize = le(&b[14], 4);
    int32_t w = int32_t(le(&b[18], 4)), h = int32_t(le(&b[22], 4));
    uint32_t bpp = le(&b[28], 2), compression = le(&b[30], 4), colors = le(&b[46], 4);
    bool topDown = h < 0;
    int64_t height = topDown ? -int64_t(h) : h;
    if ((bpp != 8 && bpp != 24 && bpp != 32) || (compression != 0 && compression != 3)) {
        *error = "only uncompressed 8, 24 and 32-bit BMP files are supported";
        return false;
    }
    if (w <= 0 || !sizeOk(uint64_t(w), uint64_t(height), 1, error))
        return false;
    uint64_t rowBytes = (uint64_t(w) * bpp / 8 + 3) & ~uint64_t(3);
    if (offset > b.size() || b.size() - offset < rowBytes * uint64_t(height)) {
        *error = "BMP data ends early";
        return false;
    }
    const uint8_t *palette = &b[14 + headerSize];
    if (bpp == 8) {
        if (colors == 0 || colors > 256)
            colors = 256;
        if (14 + uint64_t(headerSize) + 4 * uint64_t(colors) > offset) {
            *error = "BMP palette is missing";
            return false;
        }
    }
    bool gray = bpp == 8;
    for (uint32_t i = 0; gray && i < colors; i++)
        gray = palette[4 * i] == palette[4 * i + 1] && palette[4 * i] == palette[4 * i + 2];
    *image = Image(uint32_t(w), uint32_t(height), gray ? 1 : 3, 1,
                   gray ? PixelOrder::Gray : PixelOrder::RGB);
    for (int64_t y = 0; y < height; y++) {
        const uint8_t *src = &b[offset + rowBytes * uint64_t(topDown ? y : height - 1 - y)];
        uint8_t *dst = image->row(uint32_t(y));
        for (int32_t x = 0; x < w; x++) {
            if (bpp == 8) {
                uint32_t index = src[x] < colors ? src[x] : 0;
                const uint8_t *c = palette + 4 * index;
                if (gray) {
                    dst[x] = c[0];
                } else {
                    dst[3 * x] = c[2], dst[3 * x + 1] = c[1], dst[3 * x + 2] = c[0];
                }
            } else {
                const uint8_t *c = src + x * (bpp / 8);
                dst[3 * x] = c[2], dst[3 * x + 1] = c[1], dst[3 * x + 2] = c[0];
            }
        }
    }
    return true;
}

bool writeBmp(const Image &image, std::vector<uint8_t> *out, std::string *error) {
    if ((image.channels != 1 && image.channels != 3) || image.bytesPerSample != 1) {
        *error = "BMP output takes 8-bit gray or colour images";
        return false;
    }
    uint32_t bpp = image.channels == 1 ? 8 : 24;
    uint32_t rowBytes = (image.width * bpp / 8 + 3) & ~3u;
    uint32_t paletteBytes = bpp == 8 ? 1024 : 0;
    uint32_t offset = 54 + paletteBytes;
    out->clear();
    out->push_back('B');
    out->push_back('M');
    putLe(out, offset + rowBytes * image.height, 4);
    putLe(out, 0, 4);
    putLe(out, offset, 4);
    putLe(out, 40, 4);
    putLe(out, image.width, 4);
    putLe(out, image.height, 4);
    putLe(out, 1, 2);
    putLe(out, bpp, 2);
    putLe(out, 0, 4);
    putLe(out, rowBytes * image.height, 4);
    putLe(out, 2835, 4);
    putLe(out, 2835, 4);
    putLe(out, bpp == 8 ? 256 : 0, 4);
    putLe(out, 0, 4);
    for (uint32_t i = 0; i < paletteBytes / 4; i++)
        putLe(out, i * 0x010101u, 4);
    for (uint32_t y = image.height; y-- > 0;) {
        const uint8_t *src = image.row(y);
        size_t start = out->size();
        for (uint32_t x = 0; x < image.width; x++) {
            if (bpp == 8) {
                out->push_back(src[x]);
            } else {
                out->push_back(src[3 * x + 2]);
                out->push_back(src[3 * x + 1]);
                out->push_back(src[3 * x]);
            }
        }
        out->resize(start + rowBytes, 0);
    }
    return true;
}

// ------------------------------------------------------------------ PNG

#if KIV_HAVE_PNG
struct PngSource {
    const std::vector<uint8_t> *bytes;
    size_t pos;
};

void pngRead(png_structp png, png_bytep data, png_size_t length) {
    auto *src = static_cast<PngSource *>(png_get_io_ptr(png));
    if (src->bytes->size() - src->pos < length)
        png_error(png, "PNG data ends early");
    std::memcpy(data, src->bytes->data() + src->pos, length);
    src->pos += length;
}

void pngWrite(png_structp png, png_bytep data, png_size_t length) {
    auto *out = static_cast<std::vector<uint8_t> *>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + length);
}

void pngFlush(png_structp) {}

std::string pngMessage;
void pngError(png_structp png, png_const_charp message) {
    pngMessage = message;
    png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

bool readPng(const std::vector<uint8_t> &bytes, Image *image, std::string *error) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        *error = "out of memory";
        return false;
    }
    PngSource src{&bytes, 0};
    std::vector<png_bytep> rows;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        *error = "PNG: " + pngMessage;
        return false;
    }
    png_set_read_fn(png, &src, pngRead);
    png_read_info(png, info);
    png_uint_32 w = png_get_image_width(png, info), h = png_get_image_height(png, info);
    int depth = png_get_bit_depth(png, info), type = png_get_color_type(png, info);
    png_color_8p sig = nullptr;
    uint32_t significant = depth > 8 ? 16 : 8;
    if (png_get_sBIT(png, info, &sig) && sig != nullptr && depth >= 8 &&
        type != PNG_COLOR_TYPE_PALETTE) {
        uint32_t s = type & PNG_COLOR_MASK_COLOR ? sig->red : sig->gray;
        if (s >= 2 && s <= significant)
            significant = s;
    }
    png_set_expand(png);
    png_set_strip_alpha(png);
    if (depth == 16)
        png_set_swap(png);
    if (type == PNG_COLOR_TYPE_PALETTE)
        type = PNG_COLOR_TYPE_RGB;
    uint32_t channels = type & PNG_COLOR_MASK_COLOR ? 3 : 1;
    png_read_update_info(png, info);
    if (!sizeOk(w, h, channels, error)) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    uint32_t bytesPer = depth == 16 ? 2 : 1;
    *image = Image(w, h, channels, bytesPer, channels == 1 ? PixelOrder::Gray : PixelOrder::RGB);
    image->precision = significant;
    for (uint32_t y = 0; y < h; y++)
        rows.push_back(image->row(y));
    png_read_image(png, rows.data());
    png_destroy_read_struct(&png, &info, nullptr);
    // Samples were stored left-aligned; sBIT says how many bits count.
    if (significant < 8 * bytesPer)
        for (size_t i = 0; i < size_t(w) * h * channels; i++) {
            uint32_t x = uint32_t(i % (size_t(w) * channels)), y = uint32_t(i / (size_t(w) * channels));
            uint32_t v = image->sample(x / channels, y, x % channels);
            image->setSample(x / channels, y, x % channels, v >> (8 * bytesPer - significant));
        }
    return true;
}

bool writePng(const Image &image, std::vector<uint8_t> *out, std::string *error) {
    if (image.channels == 2 || image.channels == 4) {
        *error = "PNG output takes gray or colour images; use .pam for " +
                 std::to_string(image.channels) + " channels";
        return false;
    }
    // Samples are stored left-aligned in their 8 or 16-bit container, with
    // sBIT telling a reader the significant bits.
    uint32_t container = image.bytesPerSample * 8;
    uint32_t shift = container - image.precision;
    Image scaled = image;
    for (size_t i = 0; shift != 0 && i < size_t(image.width) * image.height * image.channels; i++) {
        uint32_t x = uint32_t(i % (size_t(image.width) * image.channels));
        uint32_t y = uint32_t(i / (size_t(image.width) * image.channels));
        uint32_t v = image.sample(x / image.channels, y, x % image.channels);
        scaled.setSample(x / image.channels, y, x % image.channels,
                         v << shift | v >> (image.precision > shift ? image.precision - shift : 0));
    }
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, pngError, pngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        *error = "out of memory";
        return false;
    }
    out->clear();
    std::vector<png_bytep> rows;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        *error = "PNG: " + pngMessage;
        return false;
    }
    png_set_write_fn(png, out, pngWrite, pngFlush);
    png_set_compression_level(png, 3);
    png_set_IHDR(png, info, image.width, image.height, int(container),
                 image.channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (shift != 0) {
        png_color_8 sig{};
        sig.red = sig.green = sig.blue = sig.gray = png_byte(image.precision);
        png_set_sBIT(png, info, &sig);
    }
    png_write_info(png, info);
    if (container == 16)
        png_set_swap(png);
    for (uint32_t y = 0; y < image.height; y++)
        rows.push_back(scaled.row(y));
    png_write_image(png, rows.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return true;
}
#endif

}  // namespace

bool havePng() { return KIV_HAVE_PNG != 0; }

Format formatFromName(const std::string &path) {
    auto dot = path.rfind('.');
    if (dot == std::string::npos)
        return Format::Unknown;
    std::string ext = path.substr(dot + 1);
    for (auto &ch : ext)
        ch = char(tolower(ch));
    if (ext == "png")
        return Format::Png;
    if (ext == "ppm" || ext == "pgm" || ext == "pnm")
        return Format::Pnm;
    if (ext == "pam")
        return Format::Pam;
    if (ext == "bmp")
        return Format::Bmp;
    if (ext == "jpg" || ext == "jpeg" || ext == "jpe")
        return Format::Jpeg;
    return Format::Unknown;
}

Format formatFromBytes(const std::vector<uint8_t> &b) {
    if (b.size() >= 8 && b[0] == 0x89 && b[1] == 'P' && b[2] == 'N' && b[3] == 'G')
        return Format::Png;
    if (b.size() >= 3 && b[0] == 'P' && strchr("23567", b[1]) != nullptr && b[1] != 0)
        return Format::Pnm;
    if (b.size() >= 2 && b[0] == 'B' && b[1] == 'M')
        return Format::Bmp;
    if (b.size() >= 2 && b[0] == 0xFF && b[1] == 0xD8)
        return Format::Jpeg;
    return Format::Unknown;
}

bool readImage(const std::vector<uint8_t> &bytes, Image *image, std::string *error) {
    switch (formatFromBytes(bytes)) {
    case Format::Pnm: return readPnm(bytes, image, error);
    case Format::Bmp: return readBmp(bytes, image, error);
    case Format::Png:
#if KIV_HAVE_PNG
        return readPng(bytes, image, error);
#else
        *error = "this kivjpeg was built without PNG support";
        return false;
#endif
    default: *error = "not a PNG, PNM or BMP image"; return false;
    }
}

bool writeImage(const Image &image, Format format, std::vector<uint8_t> *bytes,
                std::string *error) {
    switch (format) {
    case Format::Pnm: writePnm(image, false, bytes); return true;
    case Format::Pam: writePnm(image, true, bytes); return true;
    case Format::Bmp: return writeBmp(image, bytes, error);
    case Format::Png:
#if KIV_HAVE_PNG
        return writePng(image, bytes, error);
#else
        *error = "this kivjpeg was built without PNG support; write .ppm, .pgm, .pam or .bmp";
        return false;
#endif
    default: *error = "unknown output format (use .png, .ppm, .pgm, .pam or .bmp)"; return false;
    }
}

bool readAll(const std::string &path, std::vector<uint8_t> *bytes, std::string *error) {
    FILE *f = path == "-" ? stdin : fopen(path.c_str(), "rb");
    if (f == nullptr) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    bytes->clear();
    uint8_t buffer[65536];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, f)) > 0)
        bytes->insert(bytes->end(), buffer, buffer + n);
    bool ok = !ferror(f);
    if (f != stdin)
        fclose(f);
    if (!ok)
        *error = path + ": read error";
    return ok;
}

bool writeAll(const std::string &path, const std::vector<uint8_t> &bytes, std::string *error) {
    FILE *f = path == "-" ? stdout : fopen(path.c_str(), "wb");
    if (f == nullptr) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    ok = (f == stdout ? fflush(f) == 0 : fclose(f) == 0) && ok;
    if (!ok)
        *error = path + ": write error";
    return ok;
}

}  // namespace kivtool
