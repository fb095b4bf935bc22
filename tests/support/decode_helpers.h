// Decoder test helpers: owning read handles, whole-image decoding into
// B,G,R (or grey) buffers, the djpeg oracle and image comparison.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "core/handle.h"
#include "test_support.h"

namespace kivtest {

// A read handle that ends itself.
struct ReadHandle {
    JpgParam *p = nullptr;
    JpgStatus status = JPG_STATUS_FAILED;
    std::vector<uint8_t> bytes;  // the stream stays alive as long as the handle

    ReadHandle() = default;
    explicit ReadHandle(std::vector<uint8_t> data, int32_t flags = 0) : bytes(std::move(data)) {
        status = jpgReadPrologFromMemory(bytes.data(), static_cast<int32_t>(bytes.size()), flags, &p);
    }
    ReadHandle(const ReadHandle &) = delete;
    ReadHandle &operator=(const ReadHandle &) = delete;
    ~ReadHandle() {
        if (p != nullptr)
            jpgReadEpilog(p);
    }
};

// An image as the decoder writes it: rows of width x channels bytes.
struct Image {
    int width = 0, height = 0, channels = 0;
    std::vector<uint8_t> pixels;
    uint8_t *row(int y) { return pixels.data() + static_cast<size_t>(y) * width * channels; }
};

inline ComplibRect rectFor(Image &image) {
    ComplibRect r{};
    r.width = image.width;
    r.height = image.height;
    r.stride = image.width * image.channels;
    r.pixelBits = 8 * image.channels;
    r.channels = image.channels;
    r.sampleBits = 8;
    r.pixels = image.pixels.data();
    r.allocSize = static_cast<uint32_t>(image.pixels.size());
    return r;
}

inline Image blankImage(JpgParam *p) {
    Image image;
    image.width = static_cast<int>(p->width);
    image.height = static_cast<int>(p->height);
    image.channels = static_cast<int>(p->numComponents);
    image.pixels.assign(static_cast<size_t>(image.width) * image.height * image.channels, 0);
    return image;
}

// Decodes the whole image with one jpgReadToRect call.
inline JpgStatus decodeWhole(JpgParam *p, Image *image) {
    *image = blankImage(p);
    ComplibRect r = rectFor(*image);
    return jpgReadToRect(p, &r, p->height);
}

// Reads a binary PPM (P6) or PGM (P5) and stores it as B,G,R or grey.
inline bool readPnm(const std::string &path, Image *image) {
    std::vector<uint8_t> data = readFile(path);
    if (data.size() < 2 || data[0] != 'P' || (data[1] != '5' && data[1] != '6'))
        return false;
    image->channels = data[1] == '6' ? 3 : 1;
    size_t at = 2;
    int fields[3];
    for (int &f : fields) {
        while (at < data.size() && (isspace(data[at]) || data[at] == '#')) {
            if (data[at] == '#')
                while (at < data.size() && data[at] != '\n')
                    at++;
            else
                at++;
        }
        f = 0;
        while (at < data.size() && isdigit(data[at]))
            f = f * 10 + (data[at++] - '0');
    }
    at++;
    image->width = fields[0];
    image->height = fields[1];
    size_t n = static_cast<size_t>(image->width) * image->height * image->channels;
    if (data.size() < at + n)
        return false;
    image->pixels.assign(data.begin() + static_cast<long>(at), data.begin() + static_cast<long>(at + n));
    if (image->channels == 3)
        for (size_t i = 0; i < n; i += 3)
            std::swap(image->pixels[i], image->pixels[i + 2]);  // R,G,B -> B,G,R
    return true;
}

// The oracle: djpeg with the accurate integer DCT and no fancy upsampling.
inline bool djpegDecode(const std::string &jpegPath, Image *image, const std::string &extra = "") {
    std::string out = tempPath("oracle.pnm");
    if (run("djpeg -dct int -nosmooth " + extra + " -pnm -outfile " + out + " '" + jpegPath + "'") != 0)
        return false;
    return readPnm(out, image);
}

// Four-component streams: ImageMagick's raw CMYK output through the same
// library settings (accurate integer DCT, no fancy upsampling); 4 channels
// in component order.
inline bool imageMagickDecodeCmyk(const std::string &jpegPath, int width, int height,
                                  Image *image) {
    std::string out = tempPath("oracle.cmyk");
    if (run("convert -define jpeg:fancy-upsampling=off -define jpeg:dct-method=islow '" + jpegPath +
            "' -depth 8 cmyk:" + out) != 0)
        return false;
    image->width = width;
    image->height = height;
    image->channels = 4;
    image->pixels = readFile(out);
    return image->pixels.size() == static_cast<size_t>(width) * height * 4;
}

struct Difference {
    double psnr = INFINITY;
    int maxDiff = 0;
};

// Compares every pixel, or only the columns x with x % columnStep == 0.
inline Difference compare(const Image &a, const Image &b, int columnStep = 1) {
    Difference d;
    if (a.pixels.size() != b.pixels.size() || a.pixels.empty()) {
        d.psnr = 0;
        d.maxDiff = 256;
        return d;
    }
    double sum = 0;
    size_t n = 0;
    for (size_t i = 0; i < a.pixels.size(); i++) {
        if ((i / a.channels) % a.width % columnStep != 0)
            continue;
        int e = std::abs(static_cast<int>(a.pixels[i]) - b.pixels[i]);
        sum += static_cast<double>(e) * e;
        d.maxDiff = std::max(d.maxDiff, e);
        n++;
    }
    double mse = sum / static_cast<double>(n);
    d.psnr = mse == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 / mse);
    return d;
}

inline std::string hex(uint32_t v) {
    std::ostringstream s;
    s << "0x" << std::hex << v;
    return s.str();
}

}  // namespace kivtest
