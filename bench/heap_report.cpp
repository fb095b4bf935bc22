// Peak heap of the library while decoding: a large photograph as baseline
// and as progressive (against its coefficient memory, 2 bytes per
// coefficient), and a 640x480 baseline image made from it.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "codecs.h"
#include "heap_counter.h"
#include "images.h"
#include "kivjpeg.h"

namespace bench {

namespace {

// Coefficient memory of a progressive frame: 2 bytes per coefficient.
size_t coefficientBytes(const Bytes &jpeg) {
    JpgParam *param = nullptr;
    if (jpgReadPrologFromMemory(jpeg.data(), int32_t(jpeg.size()), 0, &param) != 0) return 0;
    uint32_t width = 0, height = 0;
    jpgReadGetImageSize(param, &width, &height);
    size_t bytes = size_t(jpgGetJPEGBlockMemorySize(param, height)) * 2;
    jpgReadEpilog(param);
    return bytes;
}

void report(const char *what, const Bytes &jpeg) {
    Pixels pixels;
    heapCountStart();
    std::string error = decode(Codec::Kiv, jpeg, 1, &pixels);
    size_t peak = heapCountStop();
    std::printf("| %s | %dx%d | %.2f | %.1f | %s |\n", what, pixels.width, pixels.height,
                pixels.megapixels(), peak / 1048576.0, error.empty() ? "" : error.c_str());
}

}  // namespace

int heapReport(const std::string &large, const std::string &tmp) {
    Pixels source;
    Bytes original, baseline, small, progressive;
    if (!loadSource(large, &source) || !readBytes(large, &original)) return 1;
    std::string stem = "heap-" + large.substr(large.find_last_of('/') + 1);
    std::string seq = tmp + "/" + stem + "-sequential.jpg";
    std::string prog = tmp + "/" + stem + "-progressive.jpg";
    if (std::system(("jpegtran -outfile " + seq + " " + large).c_str()) != 0 ||
        std::system(("jpegtran -progressive -outfile " + prog + " " + large).c_str()) != 0 ||
        !readBytes(seq, &baseline) || !readBytes(prog, &progressive))
        return 1;
    Pixels little = resized(source, 640, 480);
    if (!makeVariant(little, tmp, "heap-640x480", Variant::Baseline420, &small)) return 1;
    std::printf("| decode | size | MP | library peak heap (MiB) | note |\n"
                "|---|---|---:|---:|---|\n");
    report("baseline 640x480", small);
    report("baseline, large photograph", baseline);
    report("progressive, large photograph", progressive);
    std::printf("\nCoefficient memory of the progressive frame (2 bytes a coefficient): "
                "%.1f MiB\n", coefficientBytes(progressive) / 1048576.0);
    return 0;
}

}  // namespace bench
