// encode_example: draws a colour gradient and encodes it with the C++
// wrapper, once as a baseline JPEG and once losslessly, then decodes both
// again and checks the lossless one is exact.
//   encode_example OUT-BASENAME
#include <cstdio>
#include <string>
#include <vector>

#include <kivjpeg.hpp>

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUT-BASENAME\n", argv[0]);
        return 2;
    }
    kivjpeg::Image image(320, 200, 3, 1, kivjpeg::PixelOrder::RGB);
    for (uint32_t y = 0; y < image.height; y++)
        for (uint32_t x = 0; x < image.width; x++) {
            image.setSample(x, y, 0, x * 255 / image.width);
            image.setSample(x, y, 1, y * 255 / image.height);
            image.setSample(x, y, 2, (x ^ y) & 0xFF);
        }

    kivjpeg::EncodeOptions options;
    options.quality = 85;
    options.sampling = kivjpeg::Sampling::S444;
    options.comment = "made by encode_example";
    for (bool lossless : {false, true}) {
        options.lossless = lossless;
        std::vector<uint8_t> jpeg;
        kivjpeg::Status s = kivjpeg::encodeMemory(image, options, &jpeg);
        if (!s) {
            std::fprintf(stderr, "encode: %s\n", s.describe().c_str());
            return 1;
        }
        std::string path = std::string(argv[1]) + (lossless ? "-lossless.jpg" : ".jpg");
        if (FILE *f = std::fopen(path.c_str(), "wb")) {
            std::fwrite(jpeg.data(), 1, jpeg.size(), f);
            std::fclose(f);
        }
        kivjpeg::Image back;
        s = kivjpeg::decodeMemory(jpeg.data(), jpeg.size(), &back);
        if (!s) {
            std::fprintf(stderr, "decode: %s\n", s.describe().c_str());
            return 1;
        }
        if (back.order == kivjpeg::PixelOrder::BGR)
            back.swapRedBlue();
        if (lossless && back.data != image.data) {
            std::fprintf(stderr, "lossless round trip differs\n");
            return 1;
        }
        std::printf("%s: %zu bytes\n", path.c_str(), jpeg.size());
    }
    return 0;
}
