// Whole decodes through the fast output paths (whole MCUs, paired chroma
// rows, SSE2 and AVX2 writers) against the pixel-by-pixel path, which the
// decoder takes when the rectangle has more channels than the frame (at
// every processor level the same as the portable one): the same stream must
// give the same bytes for every sampling, for sizes that cut MCUs at the
// right and bottom edges, at every processor level.
#include <gtest/gtest.h>

#include "test_support.h"

namespace {

using namespace kivtest;

TEST(OutputPaths, FastPathsMatchThePixelByPixelPath) {
    int decoded = 0;
    for (auto [channels, sampling] : {std::pair{3, 0x221111u}, {3, 0x211111u}, {3, 0x121111u}, {3, 0x111111u},
                                      {3, 0x222121u}, {1, 0u}})
        for (auto [w, h] : {std::pair{1, 1}, {7, 3}, {17, 33}, {35, 19}, {64, 16}, {50, 41}}) {
            Bytes jpeg = encode(picture(w, h, channels, 24, uint32_t(w * 131 + h)), {.sampling = sampling});
            if (jpeg.empty())
                continue;  // a sampling the encoder refuses
            Image plain = decode(jpeg, {.channels = 4, .processor = 0}).image;
            ASSERT_EQ(plain.width, w);
            decoded++;
            for (uint32_t flag : processorFlags()) {
                ASSERT_TRUE(decode(jpeg, {.channels = 4, .processor = flag}).image == plain)
                    << processorName(flag) << " pixel by pixel";
                Decoded fast = decode(jpeg, {.channels = channels, .processor = flag});
                ASSERT_EQ(fast.status, JPG_STATUS_OK);
                for (size_t i = 0; i < size_t(w) * h; i++)
                    for (int k = 0; k < channels; k++)
                        ASSERT_EQ(fast.image.pixels[i * channels + k], plain.pixels[i * 4 + k])
                            << processorName(flag) << " " << std::hex << sampling << std::dec << " " << w << "x" << h
                            << " pixel " << i;
            }
        }
    EXPECT_GE(decoded, 30);
}

}  // namespace
