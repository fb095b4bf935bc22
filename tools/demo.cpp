// The demo command: draws a synthetic photograph-like scene in memory (sky,
// clouds, sun, hills, water, a house with sharp edges and fine stripes),
// encodes it at several qualities and samplings and losslessly, decodes every
// result at full size and reduced, and prints sizes, PSNR and speed.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

#include "tool.h"

namespace kivtool {

using kivjpeg::Decoder;
using kivjpeg::EncodeOptions;
using kivjpeg::Image;
using kivjpeg::PixelOrder;
using kivjpeg::Sampling;
using kivjpeg::Scale;
using kivjpeg::Status;

namespace {

// ------------------------------------------------------------ the scene

double hashNoise(int x, int y, int seed) {
    uint32_t h = uint32_t(x) * 374761393u + uint32_t(y) * 668265263u + uint32_t(seed) * 2246822519u;
    h = (h ^ (h >> 13)) * 1274126177u;
    return double(h ^ (h >> 16)) / 4294967295.0;
}

double smoothNoise(double x, double y, int seed) {
    int ix = int(std::floor(x)), iy = int(std::floor(y));
    double fx = x - ix, fy = y - iy;
    fx = fx * fx * (3 - 2 * fx);
    fy = fy * fy * (3 - 2 * fy);
    double a = hashNoise(ix, iy, seed), b = hashNoise(ix + 1, iy, seed);
    double c = hashNoise(ix, iy + 1, seed), d = hashNoise(ix + 1, iy + 1, seed);
    return (a + (b - a) * fx) * (1 - fy) + (c + (d - c) * fx) * fy;
}

double fractal(double x, double y, int seed, int octaves) {
    double sum = 0, amp = 0.5;
    for (int i = 0; i < octaves; i++, amp *= 0.5, x *= 2, y *= 2)
        sum += amp * smoothNoise(x, y, seed + i);
    return sum;
}

struct Rgb {
    double r, g, b;
};

Rgb mix(Rgb a, Rgb b, double t) {
    t = t < 0 ? 0 : t > 1 ? 1 : t;
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

double hillLine(double u, int layer) {
    return 0.55 + 0.06 * layer + 0.05 * std::sin(u * (5 + 3 * layer) + layer) +
           0.04 * fractal(u * 6, layer * 3.7, 40 + layer, 4);
}

Rgb sceneColor(double u, double v, double aspect) {
    Rgb sky = mix({70, 120, 200}, {200, 220, 240}, v / 0.6);
    double cloud = fractal(u * 4 * aspect, v * 8, 7, 6);
    sky = mix(sky, {250, 250, 252}, (cloud - 0.5) * 3 * (1 - v));
    double sd = std::hypot((u - 0.72) * aspect, v - 0.22);
    sky = mix(sky, {255, 240, 200}, 0.06 / (sd + 0.02) - 0.3);
    if (sd < 0.045)
        sky = {255, 250, 225};
    Rgb c = sky;
    for (int layer = 0; layer < 3; layer++)
        if (v > hillLine(u, layer)) {
            double t = fractal(u * 40, v * 40, 20 + layer, 5);
            Rgb base = layer == 0 ? Rgb{90, 110, 130} : layer == 1 ? Rgb{60, 110, 50} : Rgb{40, 90, 30};
            c = mix(base, {150, 140, 80}, t - 0.3 + 0.1 * layer);
        }
    if (v > 0.82) {  // water reflecting the sky, with ripples
        double ripple = 0.5 + 0.5 * std::sin(v * 400 + 6 * fractal(u * 10, v * 30, 3, 3));
        c = mix(mix({40, 70, 110}, sky, 0.4), {200, 210, 230}, ripple * 0.25);
    }
    double hx = (u - 0.2) * aspect, hy = v - 0.6;
    if (hx > 0 && hx < 0.22 && hy > 0 && hy < 0.16) {  // a house: hard edges, fine stripes
        c = int(hx * 300) % 2 ? Rgb{200, 60, 50} : Rgb{230, 220, 200};
        if (hx > 0.05 && hx < 0.09 && hy > 0.04 && hy < 0.1)
            c = {30, 40, 60};
        if (hx > 0.13 && hx < 0.19 && hy > 0.03 && hy < 0.08)
            c = mix({120, 170, 220}, {255, 255, 255}, hy * 10);
    }
    if (hx > -0.02 && hx < 0.24 && hy > -0.1 + 0.45 * std::fabs(hx - 0.11) && hy <= 0)
        c = {110, 40, 30};  // roof
    return c;
}

Image drawScene(uint32_t width, uint32_t height) {
    Image image(width, height, 3, 1, PixelOrder::RGB);
    double aspect = double(width) / height;
    for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = 0; x < width; x++) {
            Rgb c = sceneColor((x + 0.5) / width, (y + 0.5) / height, aspect);
            double grain = (hashNoise(int(x), int(y), 99) - 0.5) * 6;  // sensor noise
            uint8_t *p = image.row(y) + 3 * x;
            p[0] = uint8_t(std::lround(std::fmin(255, std::fmax(0, c.r + grain))));
            p[1] = uint8_t(std::lround(std::fmin(255, std::fmax(0, c.g + grain))));
            p[2] = uint8_t(std::lround(std::fmin(255, std::fmax(0, c.b + grain))));
        }
    return image;
}

// 12-bit grayscale version for the lossless high-precision case.
Image deepGray(const Image &rgb) {
    Image gray = toGray(rgb);
    Image deep(gray.width, gray.height, 1, 2, PixelOrder::Gray);
    deep.precision = 12;
    for (uint32_t y = 0; y < gray.height; y++)
        for (uint32_t x = 0; x < gray.width; x++)
            deep.setSample(x, y, 0, gray.sample(x, y, 0) * 16 + uint32_t(hashNoise(int(x), int(y), 5) * 16));
    return deep;
}

// ------------------------------------------------------------ the runs

constexpr int kRepeats = 3;  // timings are the best of this many runs

struct Run {
    std::string name;
    EncodeOptions options;
    bool gray12 = false;
};

struct Report {
    std::string dir;
    std::string ext;
    Format format;
    int failures = 0;
};

std::string psnrText(const Image &a, const Image &b) {
    Difference d;
    if (!compareImages(a, b, &d, nullptr))
        return "size?";
    char text[32];
    if (d.maxDiff == 0)
        snprintf(text, sizeof text, "exact");
    else
        snprintf(text, sizeof text, "%.2f", d.psnr);
    return text;
}

void saveTo(Report &r, const std::string &name, const Image &image) {
    std::vector<uint8_t> bytes;
    std::string error;
    if (!writeImage(image, r.format, &bytes, &error) || !writeAll(r.dir + "/" + name, bytes, &error))
        fprintf(stderr, "kivjpeg: demo: %s\n", error.c_str());
}

// Decodes `jpeg` at one scale; returns the PSNR text or the failing status.
std::string decodeAt(Report &r, const std::vector<uint8_t> &jpeg, Scale scale, const Image &reference,
                     const std::string &stem, double *seconds) {
    Image out;
    Status s;
    *seconds = 1e9;
    for (int i = 0; i < kRepeats && (i == 0 || s.ok()); i++) {
        Decoder decoder;
        double t0 = nowSeconds();
        s = decoder.openMemory(jpeg.data(), jpeg.size());
        if (s)
            s = decodeJpeg(decoder, scale, &out, nullptr);
        *seconds = std::fmin(*seconds, nowSeconds() - t0);
    }
    if (!s.ok()) {
        *seconds = 0;
        r.failures++;
        return s.name();
    }
    uint32_t factor = 8u >> uint32_t(scale);
    const char *suffix[] = {"-1_8", "-1_4", "-1_2", ""};
    saveTo(r, stem + suffix[uint32_t(scale)] + "." + r.ext, out);
    return psnrText(factor == 1 ? reference : boxReduce(reference, factor), out);
}

void runOne(Report &r, const Run &run, const Image &rgb, const Image &deep) {
    const Image &source = run.gray12 ? deep : run.options.sampling == Sampling(0) ? toGray(rgb) : rgb;
    std::vector<uint8_t> jpeg;
    Status s;
    double encode = 1e9;
    for (int i = 0; i < kRepeats && (i == 0 || s.ok()); i++) {  // best of a few: the machine is shared
        double t0 = nowSeconds();
        s = kivjpeg::encodeMemory(source, run.options, &jpeg);
        encode = std::fmin(encode, nowSeconds() - t0);
    }
    double mp = double(source.width) * source.height / 1e6;
    if (!s) {
        printf("%-22s  encode failed: %s\n", run.name.c_str(), s.describe().c_str());
        r.failures++;
        return;
    }
    std::string error;
    writeAll(r.dir + "/" + run.name + ".jpg", jpeg, &error);
    double full = 0, t = 0;
    std::string psnr = decodeAt(r, jpeg, Scale::Full, source, run.name, &full);
    printf("%-22s %9zu %7.3f %8.1f %8.1f %8s", run.name.c_str(), jpeg.size(),
           8.0 * double(jpeg.size()) / (source.width * double(source.height)), mp / encode,
           full > 0 ? mp / full : 0.0, psnr.c_str());
    for (Scale scale : {Scale::Half, Scale::Quarter, Scale::Eighth})
        printf(" %8s", run.options.lossless ? "-" : decodeAt(r, jpeg, scale, source, run.name, &t).c_str());
    printf("\n");
}

// Converts one result to progressive with jpegtran (when installed) and
// decodes it at once and pass by pass.
void runProgressive(Report &r, const Image &rgb) {
    std::string base = r.dir + "/q90-420.jpg", prog = r.dir + "/q90-420-progressive.jpg";
    std::string command = "jpegtran -progressive -copy all '" + base + "' > '" + prog + "' 2>/dev/null";
    if (system("command -v jpegtran >/dev/null 2>&1") != 0 || system(command.c_str()) != 0) {
        printf("progressive: skipped (jpegtran from libjpeg-turbo-progs converts our output)\n");
        return;
    }
    std::vector<uint8_t> bytes, baseBytes;
    std::string error;
    readAll(prog, &bytes, &error);
    readAll(base, &baseBytes, &error);
    double seconds = 0;
    std::string psnr = decodeAt(r, bytes, Scale::Full, rgb, "q90-420-progressive", &seconds);
    Image baseline, progressive;
    std::string same = "?";
    Decoder a, b;
    if (a.openMemory(baseBytes.data(), baseBytes.size()) && decodeJpeg(a, Scale::Full, &baseline, nullptr) &&
        b.openMemory(bytes.data(), bytes.size()) && decodeJpeg(b, Scale::Full, &progressive, nullptr))
        same = baseline.data == progressive.data ? "identical to baseline" : "DIFFERS from baseline";
    Decoder passes;
    int n = 0;
    bool done = false;
    Image pass;
    if (passes.openMemory(bytes.data(), bytes.size()))
        while (!done && passes.nextPass(pass, &done).ok()) {
            Image out = pass;
            out.swapRedBlue();
            char name[64];
            snprintf(name, sizeof name, "q90-420-pass-%02d.%s", ++n, r.ext.c_str());
            saveTo(r, name, out);
        }
    printf("%-22s %9zu %7s %8s %8.1f %8s  (%s; %d incremental passes)\n", "q90-420 progressive",
           bytes.size(), "", "", seconds > 0 ? rgb.width * double(rgb.height) / 1e6 / seconds : 0.0,
           psnr.c_str(), same.c_str(), n);
}

// Every quality, sampling and lossless case the demo shows.
std::vector<Run> demoRuns() {
    std::vector<Run> runs;
    for (uint32_t q : {50u, 75u, 90u, 100u})
        for (auto s : {std::make_pair("444", Sampling::S444), std::make_pair("420", Sampling::S420)}) {
            Run run;
            run.name = "q" + std::to_string(q) + "-" + s.first;
            run.options.quality = q;
            run.options.sampling = s.second;
            runs.push_back(run);
        }
    for (auto s : {std::make_pair("422", Sampling::S422), std::make_pair("440", Sampling::S440),
                   std::make_pair("411", Sampling::S411)}) {
        Run run;
        run.name = std::string("q85-") + s.first;
        run.options.quality = 85;
        run.options.sampling = s.second;
        runs.push_back(run);
    }
    Run hq;
    hq.name = "q85-420-hq-restart";
    hq.options.quality = 85;
    hq.options.highQualitySubsampling = true;
    hq.options.restartInterval = 16;
    runs.push_back(hq);
    Run gray;
    gray.name = "q85-gray";
    gray.options.quality = 85;
    gray.options.sampling = Sampling(0);
    runs.push_back(gray);
    for (int p : {1, 4, 7}) {
        Run run;
        run.name = "lossless-p" + std::to_string(p);
        run.options.lossless = true;
        run.options.predictor = p;
        runs.push_back(run);
    }
    Run deepRun;
    deepRun.name = "lossless-gray12-p6";
    deepRun.options.lossless = true;
    deepRun.options.predictor = 6;
    deepRun.gray12 = true;
    runs.push_back(deepRun);

    return runs;
}

}  // namespace

int cmdDemo(int argc, char **argv) {
    Args args(argc, argv, {"size"});
    if (args.positional().size() > 1 || !args.unknown({"size"}).empty())
        return fail("demo", "usage: kivjpeg demo [DIR] [--size WxH]");
    unsigned w = 1024, h = 768;
    if (args.has("size") && (sscanf(args.get("size").c_str(), "%ux%u", &w, &h) != 2 || w < 1 ||
                             h < 1 || w > 8192 || h > 8192))
        return fail("demo", "--size takes WIDTHxHEIGHT, each 1 to 8192");
    Report r;
    r.dir = args.positional().empty() ? "kivjpeg-demo" : args.positional()[0];
    r.format = havePng() ? Format::Png : Format::Pnm;
    r.ext = havePng() ? "png" : "pnm";
    mkdir(r.dir.c_str(), 0755);
    Image rgb = drawScene(w, h), deep = deepGray(rgb);
    saveTo(r, "original." + r.ext, rgb);
    saveTo(r, "original-gray12." + r.ext, deep);

    std::vector<Run> runs = demoRuns();
    printf("KivJPEG demo: synthetic %ux%u photograph, files in %s/\n", w, h, r.dir.c_str());
    printf("PSNR against the original (scaled: against the original averaged down); "
           "speed in megapixels per second\n\n");
    printf("%-22s %9s %7s %8s %8s %8s %8s %8s %8s\n", "encoding", "bytes", "bit/px", "enc MP/s",
           "dec MP/s", "PSNR dB", "1/2 dB", "1/4 dB", "1/8 dB");
    for (const Run &run : runs)
        runOne(r, run, rgb, deep);
    runProgressive(r, rgb);
    if (r.failures)
        fprintf(stderr, "kivjpeg: demo: %d step(s) failed\n", r.failures);
    return r.failures ? kExitError : kExitOk;
}

}  // namespace kivtool
