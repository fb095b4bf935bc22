// Benchmark inputs: source pixels from the photographs and corpus images,
// and the JPEG variants made from them with the Debian tools (cjpeg,
// jpegtran) in a temporary directory.
#pragma once

#include <string>

#include "codecs.h"

namespace bench {

// Loads a JPEG (through TurboJPEG), PPM/PGM or BMP (through stb_image) as
// 8-bit BGR pixels, or grey for one-channel sources.
bool loadSource(const std::string &path, Pixels *out);

// Reads a whole file; false when it cannot.
bool readBytes(const std::string &path, Bytes *out);

// Variants of one source, all at quality 90 with the tools' defaults.
enum class Variant { Baseline420, Baseline422, Baseline444, Grey, Progressive420 };
const char *variantName(Variant variant);

// Writes the source as PPM once, then makes the variant with cjpeg or
// jpegtran into `directory`; the stream is returned in `out`.
bool makeVariant(const Pixels &source, const std::string &directory, const std::string &stem,
                 Variant variant, Bytes *out);

// Nearest-sample resize (for the small image of the heap measurement).
Pixels resized(const Pixels &source, int width, int height);

// Smooth 16-bit grey derived from 8-bit pixels (3x3 sums scaled to 16
// bits), so that the low bits carry real variation.
Pixels grey16(const Pixels &source);

}  // namespace bench
