// Image files for the kivjpeg tool: reads and writes PNG (8 and 16 bits, when
// built with libpng), PPM/PGM/PAM (maxval up to 65535) and BMP (8, 24 and 32
// bits). Images in memory are kivjpeg::Image in Gray or RGB order, 16-bit
// samples keep their significant bit count in Image::precision.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kivjpeg.hpp"

namespace kivtool {

// Pnm picks PGM, PPM or PAM from the channel count; Pam always writes PAM.
enum class Format { Unknown, Png, Pnm, Pam, Bmp, Jpeg };

// The format a file name asks for, by its extension.
Format formatFromName(const std::string &path);
// The format of a file's bytes, by their signature.
Format formatFromBytes(const std::vector<uint8_t> &bytes);
// True when the tool was built with PNG support.
bool havePng();

// Reads an image; on failure returns false and explains in *error.
bool readImage(const std::vector<uint8_t> &bytes, kivjpeg::Image *image, std::string *error);
// Writes an image in a format; PNM picks PGM, PPM or PAM from the channels.
bool writeImage(const kivjpeg::Image &image, Format format, std::vector<uint8_t> *bytes,
                std::string *error);

// Whole-file helpers; "-" is standard input or output.
bool readAll(const std::string &path, std::vector<uint8_t> *bytes, std::string *error);
bool writeAll(const std::string &path, const std::vector<uint8_t> &bytes, std::string *error);

}  // namespace kivtool
