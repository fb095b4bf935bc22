// The three codecs of the benchmark behind one interface: this library,
// libjpeg-turbo's TurboJPEG API and stb_image / stb_image_write. Each call
// does one whole decode or encode from memory to memory, the way a client
// would, so that the timings compare like with like.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

using Bytes = std::vector<uint8_t>;

// Interleaved pixels: 8-bit samples (BGR, or grey) or 16-bit samples.
struct Pixels {
    int width = 0;
    int height = 0;
    int channels = 0;
    int bits = 8;  // 8 or 16 (lossless only)
    std::vector<uint8_t> data;

    int stride() const { return width * channels * (bits > 8 ? 2 : 1); }
    double megapixels() const { return double(width) * height / 1e6; }
};

enum class Codec { Kiv, Turbo, Stb };

// The processor flag every KivJPEG handle of the benchmark gets (all ones:
// the widest routines the processor has, as by default).
void setKivProcessorFlag(uint32_t flag);
uint32_t kivProcessorFlag();
constexpr int kCodecCount = 3;
const char *codecName(Codec codec);

struct EncodeSettings {
    int quality = 90;
    bool subsample420 = true;  // false: 4:4:4
};

// Decodes a JPEG stream at 1/scale of its size (scale 1, 2, 4 or 8).
// Returns an empty string on success, else why the codec could not.
std::string decode(Codec codec, const Bytes &jpeg, int scale, Pixels *out);

// Encodes 8-bit BGR (or grey) pixels as baseline JPEG.
std::string encode(Codec codec, const Pixels &in, const EncodeSettings &settings,
                   Bytes *out);

// Lossless (SOF3) encoding with predictor 1; this library only.
std::string encodeLossless(const Pixels &in, Bytes *out);

}  // namespace bench
