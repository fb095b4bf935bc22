// Four-component test streams through the libjpeg oracle program
// (support/libjpeg_cmyk.c): CMYK pictures, a photograph turned into CMYK and
// synthetic edge patterns, written as YCCK or plain CMYK JPEGs, and libjpeg's
// own CMYK decoding. CMYK is held as Adobe stores it: inverted, 255 = no ink.
#pragma once

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>

#include "decode_helpers.h"

namespace kivtest {

// The oracle program, or "" when libjpeg was not found for this target.
inline std::string libjpegCmyk() { return KIV_LIBJPEG_CMYK; }

// The smallest installed photograph, decoded by djpeg at 1/4 and cut to at
// most 400 x 300, as CMYK with the black taken from the brightest channel
// (ink K = 255 - max(R, G, B), C = (max - R) / max, ...). Empty without
// photographs or djpeg.
inline Image photographAsCmyk() {
    std::vector<std::string> photos = photographs();
    Image rgb, cmyk;
    if (photos.empty() || !haveTool("djpeg"))
        return cmyk;
    std::string smallest = *std::min_element(photos.begin(), photos.end(), [](auto &a, auto &b) {
        return std::filesystem::file_size(a) < std::filesystem::file_size(b);
    });
    std::string ppm = tempPath("photo-quarter.ppm");
    if (run("djpeg -scale 1/4 -ppm -outfile " + ppm + " '" + smallest + "'") != 0 ||
        !readPnm(ppm, &rgb))
        return cmyk;
    cmyk.width = std::min(rgb.width, 400);
    cmyk.height = std::min(rgb.height, 300);
    cmyk.channels = 4;
    for (int y = 0; y < cmyk.height; y++)
        for (int x = 0; x < cmyk.width; x++) {
            const uint8_t *bgr = rgb.row(y) + 3 * x;
            int top = std::max({bgr[0], bgr[1], bgr[2]});
            for (int c : {2, 1, 0})  // C from R, M from G, Y from B
                cmyk.pixels.push_back(uint8_t(top == 0 ? 255 : 255 - (top - bgr[c]) * 255 / top));
            cmyk.pixels.push_back(uint8_t(top));
        }
    return cmyk;
}

// Hard edges: 8 x 8 tiles cycling through the 16 combinations of no and full
// ink, every fourth tile row a ramp in one channel; edges and ramps drive
// the colour conversion into its clamps.
inline Image cmykEdges(int width, int height) {
    Image image{width, height, 4, {}};
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++) {
            int tile = (y / 8) * ((width + 7) / 8) + x / 8;
            for (int c = 0; c < 4; c++)
                image.pixels.push_back((y / 8) % 4 == 3 ? uint8_t(c == tile % 4 ? x * 255 / width : 255)
                                                        : uint8_t((tile >> c) & 1 ? 255 : 0));
        }
    return image;
}

// Writes a picture as "ycck" or "cmyk" at a quality, sampling "444" or "420".
inline bool writeCmykJpeg(const Image &cmyk, const std::string &path, const std::string &kind,
                          int quality, const std::string &sampling) {
    std::string raw = tempPath("oracle-in.cmyk");
    writeFile(raw, cmyk.pixels);
    std::ostringstream command;
    command << libjpegCmyk() << " encode " << kind << " " << cmyk.width << " " << cmyk.height << " "
            << quality << " " << sampling << " " << raw << " " << path;
    return run(command.str()) == 0;
}

// libjpeg's decoding (accurate integer DCT, replicating upsampling) to CMYK,
// or with `raw` to the coded samples.
inline bool libjpegDecodeCmyk(const std::string &jpeg, Image *image, bool raw = false) {
    std::string out = tempPath("oracle-out.cmyk"), size;
    if (run(libjpegCmyk() + (raw ? " decode raw '" : " decode cmyk '") + jpeg + "' " + out, &size) != 0)
        return false;
    std::istringstream(size) >> image->width >> image->height;
    image->channels = 4;
    image->pixels = readFile(out);
    return image->pixels.size() == size_t(image->width) * image->height * 4;
}

}  // namespace kivtest
