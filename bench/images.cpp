// Input preparation for the benchmark; see images.h.
#include "images.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include <turbojpeg.h>
#include <stb/stb_image.h>

namespace bench {
namespace {

bool endsWith(const std::string &text, const std::string &tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(),
                                                      tail) == 0;
}

bool writePnm(const Pixels &pixels, const std::string &path) {
    std::FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return false;
    std::fprintf(file, "P%d\n%d %d\n255\n", pixels.channels == 1 ? 5 : 6, pixels.width,
                 pixels.height);
    std::vector<uint8_t> row(size_t(pixels.stride()));
    for (int y = 0; y < pixels.height; ++y) {
        const uint8_t *in = pixels.data.data() + size_t(y) * pixels.stride();
        for (int x = 0; x < pixels.width * pixels.channels; x += pixels.channels)
            for (int c = 0; c < pixels.channels; ++c)  // BGR to RGB
                row[size_t(x + c)] = in[x + pixels.channels - 1 - c];
        std::fwrite(row.data(), 1, row.size(), file);
    }
    return std::fclose(file) == 0;
}

bool run(const std::string &command) {
    return std::system((command + " 2>/dev/null").c_str()) == 0;
}

}  // namespace

bool readBytes(const std::string &path, Bytes *out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

bool loadSource(const std::string &path, Pixels *out) {
    Bytes bytes;
    if (!readBytes(path, &bytes)) return false;
    if (endsWith(path, ".jpg") || endsWith(path, ".jpeg"))
        return decode(Codec::Turbo, bytes, 1, out).empty();
    int width = 0, height = 0, channels = 0;
    uint8_t *rgb = stbi_load_from_memory(bytes.data(), int(bytes.size()), &width, &height,
                                         &channels, 0);
    if (rgb == nullptr) return false;
    int kept = channels >= 3 ? 3 : 1;
    out->width = width;
    out->height = height;
    out->channels = kept;
    out->bits = 8;
    out->data.resize(size_t(width) * height * kept);
    for (size_t i = 0; i < size_t(width) * height; ++i)
        for (int c = 0; c < kept; ++c)  // RGB to BGR
            out->data[i * kept + c] = rgb[i * channels + (kept - 1 - c)];
    stbi_image_free(rgb);
    return true;
}

const char *variantName(Variant variant) {
    switch (variant) {
    case Variant::Baseline420: return "baseline 4:2:0";
    case Variant::Baseline422: return "baseline 4:2:2";
    case Variant::Baseline444: return "baseline 4:4:4";
    case Variant::Grey: return "baseline grey";
    default: return "progressive 4:2:0";
    }
}

bool makeVariant(const Pixels &source, const std::string &directory, const std::string &stem,
                 Variant variant, Bytes *out) {
    std::string base = directory + "/" + stem;
    std::string pnm = base + ".ppm", j420 = base + "-420.jpg";
    if (!std::ifstream(pnm) && !writePnm(source, pnm)) return false;
    std::string cjpeg = "cjpeg -quality 90 ";
    std::string path = base + "-" + std::to_string(int(variant)) + ".jpg";
    bool made = true;
    switch (variant) {
    case Variant::Baseline420: made = run(cjpeg + "-sample 2x2 -outfile " + j420 + " " + pnm);
        path = j420; break;
    case Variant::Baseline422: made = run(cjpeg + "-sample 2x1 -outfile " + path + " " + pnm);
        break;
    case Variant::Baseline444: made = run(cjpeg + "-sample 1x1 -outfile " + path + " " + pnm);
        break;
    case Variant::Grey: made = run(cjpeg + "-grayscale -outfile " + path + " " + pnm); break;
    case Variant::Progressive420:
        made = (std::ifstream(j420) || run(cjpeg + "-sample 2x2 -outfile " + j420 + " " + pnm))
               && run("jpegtran -progressive -outfile " + path + " " + j420);
        break;
    }
    return made && readBytes(path, out);
}

Pixels resized(const Pixels &source, int width, int height) {
    Pixels out;
    out.width = width;
    out.height = height;
    out.channels = source.channels;
    out.data.resize(size_t(out.stride()) * height);
    for (int y = 0; y < height; ++y) {
        int sy = int(int64_t(y) * source.height / height);
        for (int x = 0; x < width; ++x) {
            int sx = int(int64_t(x) * source.width / width);
            for (int c = 0; c < source.channels; ++c)
                out.data[(size_t(y) * width + x) * source.channels + c] =
                    source.data[(size_t(sy) * source.width + sx) * source.channels + c];
        }
    }
    return out;
}

Pixels grey16(const Pixels &source) {
    Pixels out;
    out.width = source.width;
    out.height = source.height;
    out.channels = 1;
    out.bits = 16;
    out.data.resize(size_t(out.stride()) * out.height);
    auto luma = [&](int x, int y) {
        x = x < 0 ? 0 : x >= source.width ? source.width - 1 : x;
        y = y < 0 ? 0 : y >= source.height ? source.height - 1 : y;
        const uint8_t *p = &source.data[(size_t(y) * source.width + x) * source.channels];
        return source.channels == 1 ? int(p[0]) : (p[0] + 2 * p[1] + p[2]) / 4;
    };
    for (int y = 0; y < out.height; ++y)
        for (int x = 0; x < out.width; ++x) {
            int sum = 0;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) sum += luma(x + dx, y + dy);
            uint16_t value = uint16_t(sum * 65535 / (9 * 255));
            auto *cell = &out.data[(size_t(y) * out.width + x) * 2];
            cell[0] = uint8_t(value);  // little-endian host order
            cell[1] = uint8_t(value >> 8);
        }
    return out;
}

}  // namespace bench
