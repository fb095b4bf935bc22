// Whole decodes through the fast output paths (whole MCUs, paired chroma
// rows, SSE2 writers) against the pixel-by-pixel path, which the decoder
// takes when the rectangle has more channels than the frame: the same
// stream decoded into both must give the same bytes, for every sampling,
// for sizes that cut MCUs at the right and bottom edges, and at every
// processor level this machine runs (portable upsampling and converters
// included).
#include <gtest/gtest.h>

#include <random>

#include "encode_helpers.h"

namespace {

using namespace kivtest;

// A smooth random picture, so that chroma varies within MCUs.
Image picture(int width, int height, int channels, uint32_t seed) {
    std::mt19937 random(seed);
    Image img;
    img.width = width, img.height = height, img.channels = channels;
    img.pixels.resize(static_cast<size_t>(width) * height * channels);
    int phase[4] = {int(random() % 64), int(random() % 64), int(random() % 64), int(random() % 64)};
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            for (int c = 0; c < channels; c++)
                img.at(x, y)[c] = static_cast<uint8_t>(
                    ((x * (c + 3) + y * (5 - c) + phase[c]) * 7 + int(random() % 24)) & 0xFF);
    return img;
}

// Decodes the stream into a rectangle of `channels` channels with the
// routines of a processor flag.
std::vector<uint8_t> decode(const std::vector<uint8_t> &jpeg, int channels, int *width, int *height,
                            uint32_t flag = 0xFFFFFFFF) {
    JpgParam *p = nullptr;
    EXPECT_EQ(jpgReadPrologFromMemory(jpeg.data(), static_cast<int32_t>(jpeg.size()), 0, &p),
              JPG_STATUS_OK);
    if (p == nullptr)
        return {};
    EXPECT_EQ(jpgSetProcessorArchitectureFlag(p, flag), JPG_STATUS_OK);
    uint32_t w = 0, h = 0;
    jpgReadGetImageSize(p, &w, &h);
    *width = static_cast<int>(w), *height = static_cast<int>(h);
    std::vector<uint8_t> pixels(static_cast<size_t>(w) * h * channels, 0x77);
    ComplibRect r{};
    r.width = static_cast<int32_t>(w);
    r.height = static_cast<int32_t>(h);
    r.stride = static_cast<int32_t>(w) * channels;
    r.pixelBits = 8 * channels;
    r.channels = channels;
    r.sampleBits = 8;
    r.pixels = pixels.data();
    r.allocSize = static_cast<uint32_t>(pixels.size());
    EXPECT_EQ(jpgReadToRect(p, &r, h), JPG_STATUS_OK);
    jpgReadEpilog(p);
    return pixels;
}

TEST(OutputPaths, FastPathsMatchPixelByPixelPath) {
    struct Case {
        int channels;
        uint32_t sampling;
    };
    const Case cases[] = {{3, 0x221111}, {3, 0x211111}, {3, 0x121111}, {3, 0x111111},
                          {3, 0x222121}, {1, 0x11}};
    int decoded = 0;
    for (const Case &c : cases)
        for (auto [w, h] : {std::pair{1, 1}, {7, 3}, {17, 33}, {35, 19}, {64, 16}, {50, 41}}) {
            Image img = picture(w, h, c.channels, static_cast<uint32_t>(w * 131 + h));
            EncodeOptions o;
            o.sampling = c.channels == 1 ? 0 : c.sampling;
            JpgStatus status = 0;
            std::vector<uint8_t> jpeg = encode(img, o, &status);
            if (jpeg.empty())
                continue;  // a sampling the encoder refuses
            int fw = 0, fh = 0, pw = 0, ph = 0;
            std::vector<uint8_t> plain = decode(jpeg, 4, &pw, &ph, 0);
            ASSERT_EQ(pw, w);
            decoded++;
            for (uint32_t flag : processorFlags()) {
                std::vector<uint8_t> fast = decode(jpeg, c.channels, &fw, &fh, flag);
                ASSERT_EQ(fw, w);
                ASSERT_EQ(fh, h);
                for (int i = 0; i < w * h; i++)
                    for (int k = 0; k < c.channels; k++)
                        ASSERT_EQ(fast[size_t(i) * c.channels + k], plain[size_t(i) * 4 + k])
                            << processorName(flag) << " " << std::hex << c.sampling << std::dec << " " << w << "x"
                            << h << " pixel " << i;
            }
        }
    EXPECT_GE(decoded, 30);
}

}  // namespace
