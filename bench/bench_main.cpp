// kiv_bench: decodes and encodes the same images with this library,
// libjpeg-turbo (TurboJPEG) and stb_image in one process, single-threaded,
// after a warm-up run, and prints megapixels per second (of the full-size
// image) per image and codec, the ratio to libjpeg-turbo and geometric means
// as Markdown. `--heap` measures the library's peak heap instead.
//
//   kiv_bench [--min-time S] [--reps N] [--case TEXT] [--kiv-only] [--tmp DIR]
//             [--level portable|sse2|avx2] SOURCE...
//   kiv_bench --level-info [--level ...]   prints the routines' level in use
//   kiv_bench --heap [--tmp DIR] LARGE_PHOTO
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "codecs.h"
#include "heap_counter.h"
#include "images.h"
#include "kivjpeg.h"

namespace bench {
namespace {

enum class Work { Decode, Encode, LosslessDecode, LosslessEncode };

struct Case {
    std::string name;
    Work work;
    Variant variant = Variant::Baseline420;  // decode input
    int scale = 1;
    EncodeSettings settings;
    int losslessBits = 8;
};

std::vector<Case> allCases() {
    std::vector<Case> cases;
    for (Variant v : {Variant::Baseline420, Variant::Baseline422, Variant::Baseline444,
                      Variant::Grey, Variant::Progressive420})
        cases.push_back({std::string("decode ") + variantName(v), Work::Decode, v});
    for (int scale : {2, 4, 8})
        cases.push_back({"decode 4:2:0 at 1/" + std::to_string(scale), Work::Decode,
                         Variant::Baseline420, scale});
    for (int quality : {75, 90, 95})
        for (bool sub : {true, false})
            cases.push_back({"encode q" + std::to_string(quality) + (sub ? " 4:2:0" : " 4:4:4"),
                             Work::Encode, Variant::Baseline420, 1, {quality, sub}});
    for (int bits : {8, 16}) {
        cases.push_back({"lossless decode " + std::to_string(bits) + "-bit",
                         Work::LosslessDecode, Variant::Baseline420, 1, {}, bits});
        cases.push_back({"lossless encode " + std::to_string(bits) + "-bit",
                         Work::LosslessEncode, Variant::Baseline420, 1, {}, bits});
    }
    return cases;
}

struct Row {
    std::string image;
    double megapixels = 0;
    double rate[kCodecCount] = {NAN, NAN, NAN};  // MP/s, NaN when not run
    size_t bytes[kCodecCount] = {0, 0, 0};        // encoded size
    std::string note;
};

double nowSeconds() {
    using Clock = std::chrono::steady_clock;
    return std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
}

// Best time of repeated runs after one warm-up; NaN when the run failed.
struct Options {
    double minTime = 0.3;  // seconds of measuring per case and codec
    int minReps = 3;       // runs after the warm-up, at least
    std::string only;      // run only the cases whose name contains this
    bool kivOnly = false;  // skip the peers (for profiling)
};

double bestSeconds(const std::function<std::string()> &once, const Options &options,
                   std::string *error) {
    *error = once();
    if (!error->empty()) return NAN;
    double best = INFINITY, spent = 0;
    for (int reps = 0; (reps < options.minReps || spent < options.minTime) && reps < 200;
         ++reps) {
        double start = nowSeconds();
        once();
        double took = nowSeconds() - start;
        best = std::min(best, took);
        spent += took;
    }
    return best;
}

// What one image contributes: its pixels, variants and lossless inputs.
struct Inputs {
    std::string name;
    Pixels pixels;
    std::map<int, Bytes> variants;  // by Variant
    Pixels grey16;
    Bytes lossless[2];              // 8-bit, 16-bit streams made by this library
};

bool prepare(const std::string &path, const std::string &tmp, Inputs *in) {
    in->name = path.substr(path.find_last_of('/') + 1);
    if (!loadSource(path, &in->pixels)) return false;
    std::string stem = in->name.substr(0, in->name.find_last_of('.'));
    for (Variant v : {Variant::Baseline420, Variant::Baseline422, Variant::Baseline444,
                      Variant::Grey, Variant::Progressive420})
        if (!makeVariant(in->pixels, tmp, stem, v, &in->variants[int(v)])) return false;
    in->grey16 = grey16(in->pixels);
    encodeLossless(in->pixels, &in->lossless[0]);
    encodeLossless(in->grey16, &in->lossless[1]);
    return true;
}

Row measure(const Case &c, const Inputs &in, const Options &options) {
    Row row;
    row.image = in.name;
    row.megapixels = in.pixels.megapixels();
    for (int k = 0; k < kCodecCount; ++k) {
        Codec codec = Codec(k);
        bool losslessWork = c.work == Work::LosslessDecode || c.work == Work::LosslessEncode;
        if ((losslessWork || options.kivOnly) && codec != Codec::Kiv) continue;
        Pixels pixels;
        Bytes bytes;
        const Bytes &lossless = in.lossless[c.losslessBits == 16 ? 1 : 0];
        const Pixels &source = c.losslessBits == 16 ? in.grey16 : in.pixels;
        std::function<std::string()> once;
        switch (c.work) {
        case Work::Decode:
            once = [&] { return decode(codec, in.variants.at(int(c.variant)), c.scale, &pixels); };
            break;
        case Work::Encode: once = [&] { return encode(codec, in.pixels, c.settings, &bytes); };
            break;
        case Work::LosslessDecode: once = [&] { return decode(codec, lossless, 1, &pixels); };
            break;
        case Work::LosslessEncode: once = [&] { return encodeLossless(source, &bytes); }; break;
        }
        std::string error;
        double seconds = bestSeconds(once, options, &error);
        row.rate[k] = row.megapixels / seconds;
        row.bytes[k] = bytes.size();
        if (!error.empty() && codec == Codec::Kiv) row.note = error;
    }
    return row;
}

std::string rate(double value) {
    if (std::isnan(value)) return "—";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

std::string ratio(double kiv, double peer) {
    if (std::isnan(kiv) || std::isnan(peer)) return "—";
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", kiv / peer);
    return text;
}

double geomean(const std::vector<double> &values) {
    double logSum = 0;
    int n = 0;
    for (double v : values)
        if (!std::isnan(v) && v > 0) logSum += std::log(v), ++n;
    return n == 0 ? NAN : std::exp(logSum / n);
}

struct Summary {
    double rate[kCodecCount];
    double ratio;
};

Summary printCase(const Case &c, const std::vector<Row> &rows) {
    bool encodes = c.work == Work::Encode;
    std::printf("\n#### %s\n\n| image | MP | KivJPEG | libjpeg-turbo | stb | KivJPEG / turbo |%s\n"
                "|---|---:|---:|---:|---:|---:|%s\n",
                c.name.c_str(), encodes ? " size KivJPEG / turbo |" : "",
                encodes ? "---:|" : "");
    std::vector<double> per[kCodecCount], ratios;
    for (const Row &row : rows) {
        std::string ours = row.note.empty() ? rate(row.rate[0]) : "fails (" + row.note + ")";
        std::printf("| %s | %.2f | %s | %s | %s | %s |", row.image.c_str(), row.megapixels,
                    ours.c_str(), rate(row.rate[1]).c_str(),
                    rate(row.rate[2]).c_str(), ratio(row.rate[0], row.rate[1]).c_str());
        if (encodes)
            std::printf(" %s |", ratio(double(row.bytes[0]), row.bytes[1] ? double(row.bytes[1])
                                                                          : NAN).c_str());
        std::printf("\n");
        for (int k = 0; k < kCodecCount; ++k) per[k].push_back(row.rate[k]);
        ratios.push_back(row.rate[0] / row.rate[1]);
    }
    Summary summary{{geomean(per[0]), geomean(per[1]), geomean(per[2])}, geomean(ratios)};
    std::printf("| **geometric mean** | | %s | %s | %s | %s |%s\n",
                rate(summary.rate[0]).c_str(), rate(summary.rate[1]).c_str(),
                rate(summary.rate[2]).c_str(),
                std::isnan(summary.ratio) ? "—" : ratio(summary.ratio, 1).c_str(),
                encodes ? " |" : "");
    return summary;
}

void printSummary(const std::vector<Case> &cases, const std::vector<Summary> &summaries) {
    std::printf("\n| case | KivJPEG MP/s | libjpeg-turbo MP/s | stb MP/s | KivJPEG / turbo |\n"
                "|---|---:|---:|---:|---:|\n");
    std::vector<double> ratios;
    for (size_t i = 0; i < cases.size(); ++i) {
        const Summary &s = summaries[i];
        std::printf("| %s | %s | %s | %s | %s |\n", cases[i].name.c_str(), rate(s.rate[0]).c_str(),
                    rate(s.rate[1]).c_str(), rate(s.rate[2]).c_str(),
                    std::isnan(s.ratio) ? "—" : ratio(s.ratio, 1).c_str());
        ratios.push_back(s.ratio);
    }
    double all = geomean(ratios);
    std::printf("| **all cases with a peer (geometric mean)** | | | | %s |\n",
                std::isnan(all) ? "—" : ratio(all, 1).c_str());
}

int runBenchmark(const std::vector<std::string> &sources, const std::string &tmp,
                 const Options &options) {
    std::vector<Inputs> inputs;
    for (const std::string &path : sources) {
        Inputs in;
        if (prepare(path, tmp, &in)) inputs.push_back(std::move(in));
        else std::fprintf(stderr, "skipped %s: cannot load or convert\n", path.c_str());
    }
    std::vector<Case> cases;
    for (const Case &c : allCases())
        if (c.name.find(options.only) != std::string::npos) cases.push_back(c);
    std::vector<std::vector<Row>> rows(cases.size());
    for (const Inputs &in : inputs) {
        std::fprintf(stderr, "%s (%.1f MP)\n", in.name.c_str(), in.pixels.megapixels());
        for (size_t i = 0; i < cases.size(); ++i) rows[i].push_back(measure(cases[i], in, options));
    }
    std::printf("### Per image (MP/s of the full-size image)\n");
    std::vector<Summary> summaries;
    for (size_t i = 0; i < cases.size(); ++i) summaries.push_back(printCase(cases[i], rows[i]));
    std::printf("\n### Summary (geometric means over the images)\n");
    printSummary(cases, summaries);
    return 0;
}

}  // namespace

int heapReport(const std::string &large, const std::string &tmp);

}  // namespace bench

int main(int argc, char **argv) {
    std::vector<std::string> sources;
    std::string tmp = "/tmp";
    bench::Options options;
    bool heap = false, levelInfo = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--min-time" && i + 1 < argc) options.minTime = std::atof(argv[++i]);
        else if (arg == "--reps" && i + 1 < argc) options.minReps = std::atoi(argv[++i]);
        else if (arg == "--case" && i + 1 < argc) options.only = argv[++i];
        else if (arg == "--kiv-only") options.kivOnly = true;
        else if (arg == "--tmp" && i + 1 < argc) tmp = argv[++i];
        else if (arg == "--heap") heap = true;
        else if (arg == "--level" && i + 1 < argc) {
            std::string level = argv[++i];
            bench::setKivProcessorFlag(level == "portable" ? 0u
                                       : level == "sse2"   ? JPG_PROCESSOR_SSE2
                                                           : JPG_PROCESSOR_SSE2 | JPG_PROCESSOR_AVX2);
        } else if (arg == "--level-info") levelInfo = true;
        else sources.push_back(arg);
    }
    if (levelInfo) {
        // The level a handle ends up with: the request masked by CPUID.
        uint32_t used = bench::kivProcessorFlag() & jpgGetProcessorArchitecture();
        std::printf("%s\n", (used & JPG_PROCESSOR_AVX2)   ? "AVX2"
                            : (used & JPG_PROCESSOR_SSE2) ? "SSE2"
                                                          : "portable");
        return 0;
    }
    if (sources.empty()) {
        std::fprintf(stderr, "usage: kiv_bench [--min-time S] [--reps N] [--case TEXT] [--kiv-only]"
                             " [--tmp DIR] [--heap] [--level portable|sse2|avx2] SOURCE...\n");
        return 2;
    }
    return heap ? bench::heapReport(sources[0], tmp)
                : bench::runBenchmark(sources, tmp, options);
}
