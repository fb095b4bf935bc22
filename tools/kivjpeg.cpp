// kivjpeg: command-line front end of the KivJPEG library. Dispatches to the
// commands info, segments, decode, encode, compare and demo; decode and
// encode convert between JPEG and PNG/PNM/BMP through the public C++ wrapper.
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

#include "tool.h"

namespace kivtool {

using kivjpeg::Decoder;
using kivjpeg::EncodeOptions;
using kivjpeg::Image;
using kivjpeg::PixelOrder;
using kivjpeg::Process;
using kivjpeg::Sampling;
using kivjpeg::Scale;
using kivjpeg::Status;

namespace {

const char kUsage[] =
    "usage: kivjpeg COMMAND ...\n"
    "  info FILE [--json]                 frame header, tables and marker segments\n"
    "  segments FILE [--extract MARKER OUT]\n"
    "                                     list segments, or save one segment's payload\n"
    "  decode IN.jpg OUT [options]        OUT: .png .ppm .pgm .pam .bmp or - (stdout)\n"
    "      --scale 1/2|1/4|1/8  --no-color-conversion  --passes DIR\n"
    "      --format png|pnm|pam|bmp (for stdout)\n"
    "  encode IN OUT.jpg [options]        IN: PNG, PPM, PGM, PAM or BMP, or - (stdin)\n"
    "      --quality 1..100  --sampling 444|422|420|440|411|gray  --hq  --restart N\n"
    "      --lossless [--predictor 1..7]  --comment TEXT  --no-jfif\n"
    "  compare A B [--diff OUT]           PSNR and largest difference of two images\n"
    "  demo [DIR] [--size WxH]            encode and decode a synthetic photograph\n"
    "Exit status: 0 success, 1 error, 2 output written from a damaged stream.\n";

bool parseScale(const std::string &text, Scale *scale) {
    if (text.empty() || text == "1" || text == "1/1")
        *scale = Scale::Full;
    else if (text == "1/2")
        *scale = Scale::Half;
    else if (text == "1/4")
        *scale = Scale::Quarter;
    else if (text == "1/8")
        *scale = Scale::Eighth;
    else
        return false;
    return true;
}

Format outputFormat(const std::string &path, const std::string &forced) {
    if (!forced.empty())
        return formatFromName("x." + forced);
    if (path == "-")
        return Format::Pnm;
    return formatFromName(path);
}

// Adobe CMYK as the output format holds it: a PAM (.pam, --format pam) gets
// ink amounts under Netpbm's CMYK tuple type, every other format (PPM too) RGB.
Image cmykForFormat(const Image &stored, Format format) {
    return format == Format::Pam ? cmykToInk(stored) : cmykToRgb(stored);
}

bool saveImage(const std::string &path, const Image &image, Format format, std::string *error) {
    std::vector<uint8_t> bytes;
    return writeImage(image, format, &bytes, error) && writeAll(path, bytes, error);
}

// Writes one image per progressive scan into dir: pass-01.png, ...
int decodePasses(Decoder &decoder, const std::string &dir, Format format, bool cmyk,
                 Image *final) {
    mkdir(dir.c_str(), 0755);
    const char *ext = format == Format::Png   ? "png"
                      : format == Format::Bmp ? "bmp"
                      : format == Format::Pam ? "pam"
                                              : "pnm";
    Image pass;
    bool done = false;
    int n = 0;
    while (!done) {
        Status s = decoder.nextPass(pass, &done);
        if (s.code() == JPG_STATUS_ERROR && done)
            break;
        if (!s.ok())
            return failStatus("decode: pass " + std::to_string(n + 1), s);
        Image rgb = cmyk ? cmykForFormat(pass, format) : pass;
        if (rgb.order == PixelOrder::BGR)
            rgb.swapRedBlue();
        char name[32];
        snprintf(name, sizeof name, "/pass-%02d.%s", ++n, ext);
        std::string error;
        if (!saveImage(dir + name, rgb, format, &error))
            return fail("decode", error);
        *final = rgb;
    }
    fprintf(stderr, "kivjpeg: decode: %d passes written to %s\n", n, dir.c_str());
    return kExitOk;
}

int cmdDecodeImpl(int argc, char **argv) {
    Args args(argc, argv, {"scale", "passes", "format"});
    const auto &pos = args.positional();
    std::string bad = args.unknown({"scale", "no-color-conversion", "passes", "format"});
    if (pos.size() != 2 || !bad.empty())
        return fail("decode", (bad.empty() ? "" : "unknown option " + bad + "; ") +
                                  "usage: kivjpeg decode IN.jpg OUT [--scale 1/2|1/4|1/8] "
                                  "[--no-color-conversion] [--passes DIR] [--format F]");
    Scale scale = Scale::Full;
    if (!parseScale(args.get("scale"), &scale))
        return fail("decode", "--scale takes 1/2, 1/4 or 1/8");
    Format format = outputFormat(pos[1], args.get("format"));
    if (format == Format::Unknown || format == Format::Jpeg)
        return fail("decode", "cannot tell the output format of '" + pos[1] +
                                  "' (use .png, .ppm, .pgm, .pam, .bmp or --format)");
    std::vector<uint8_t> bytes;
    std::string error, note;
    if (!readAll(pos[0], &bytes, &error))
        return fail("decode", error);
    Decoder decoder;
    StreamFacts facts = readStreamFacts(bytes);
    Status s = openJpeg(decoder, bytes, &note);
    if (!s)
        return fail("decode: " + pos[0], describeRefusal(facts, s));
    bool noColor = args.has("no-color-conversion");
    if (noColor && !(s = decoder.setNoColorConversion()))
        return failStatus("decode", s);
    bool cmyk = holdsAdobeCmyk(facts, decoder.header(), noColor);
    Image image;
    if (args.has("passes")) {
        if (decoder.header().process != Process::Progressive)
            return fail("decode", "--passes needs a progressive stream; this one is " +
                                      std::string(kivjpeg::processName(decoder.header().process)));
        if (scale != Scale::Full)
            return fail("decode", "--passes and --scale cannot be combined");
        if (int rc = decodePasses(decoder, args.get("passes"), format, cmyk, &image))
            return rc;
    } else {
        s = decodeJpeg(decoder, scale, &image, &note, true);
        // A stream cut short still gives the lines before the cut.
        bool partial = s.code() == JPG_STATUS_UNEXPECTED_END && !image.empty();
        if (!s.ok() && !s.warning() && !partial)
            return fail("decode: " + pos[0], describeRefusal(facts, s));
        if (cmyk)
            image = cmykForFormat(image, format);
    }
    if (!note.empty())
        fprintf(stderr, "kivjpeg: decode: note: %s\n", note.c_str());
    if (!saveImage(pos[1], image, format, &error))
        return fail("decode", error);
    if (!s.ok()) {
        fprintf(stderr, "kivjpeg: decode: warning: %s\n", s.describe().c_str());
        return kExitWarning;
    }
    return kExitOk;
}

bool parseSampling(const std::string &text, EncodeOptions *o, bool *gray) {
    static const struct { const char *name; Sampling value; } kTable[] = {
        {"444", Sampling::S444}, {"422", Sampling::S422}, {"420", Sampling::S420},
        {"440", Sampling::S440}, {"411", Sampling::S411}};
    *gray = text == "gray" || text == "grey";
    if (*gray || text.empty())
        return true;
    for (auto &e : kTable)
        if (text == e.name) {
            o->sampling = e.value;
            return true;
        }
    return false;
}

bool parseNumber(const std::string &text, long low, long high, long *value) {
    char *end = nullptr;
    long v = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != 0 || v < low || v > high)
        return false;
    *value = v;
    return true;
}

// Reads the encode options; returns an error message or "".
std::string encodeOptions(const Args &args, EncodeOptions *o, bool *gray) {
    long v = 0;
    if (args.has("quality")) {
        if (!parseNumber(args.get("quality"), 1, 100, &v))
            return "--quality takes 1 to 100";
        o->quality = uint32_t(v);
    }
    if (!parseSampling(args.get("sampling"), o, gray))
        return "--sampling takes 444, 422, 420, 440, 411 or gray";
    o->highQualitySubsampling = args.has("hq");
    if (args.has("restart")) {
        if (!parseNumber(args.get("restart"), 0, 65535, &v))
            return "--restart takes 0 to 65535 MCUs";
        o->restartInterval = uint16_t(v);
    }
    o->lossless = args.has("lossless");
    if (args.has("predictor")) {
        if (!o->lossless)
            return "--predictor needs --lossless";
        if (!parseNumber(args.get("predictor"), 1, 7, &v))
            return "--predictor takes 1 to 7";
        o->predictor = int32_t(v);
    }
    if (o->lossless && (args.has("quality") || args.has("hq")))
        return "--quality and --hq do not apply to --lossless";
    o->comment = args.get("comment");
    if (args.has("comment") && (o->comment.empty() || o->comment.size() > 65533))
        return "--comment takes 1 to 65533 bytes of text";
    o->jfif = !args.has("no-jfif");
    return "";
}

// Encodes in strips of 256 lines (a whole number of MCU rows for every
// sampling) so that large images show progress on a terminal.
Status encodeWithProgress(const Image &image, const EncodeOptions &options,
                          std::vector<uint8_t> *jpeg) {
    kivjpeg::Encoder encoder;
    Status s = encoder.openMemory();
    if (s)
        s = encoder.configure(options, image.channels);
    const uint32_t strip = 256;
    bool show = uint64_t(image.width) * image.height >= (4u << 20);
    Progress progress("encoding", show ? image.height : 0);
    for (uint32_t y = 0; s.ok() && y < image.height; y += strip) {
        s = encoder.encodeRows(image, y, strip < image.height - y ? strip : image.height - y);
        progress.update(y + strip < image.height ? y + strip : image.height);
    }
    Status f = encoder.finish(jpeg);
    return s ? f : s;
}

int cmdEncodeImpl(int argc, char **argv) {
    Args args(argc, argv, {"quality", "sampling", "restart", "predictor", "comment"});
    const auto &pos = args.positional();
    std::string bad = args.unknown({"quality", "sampling", "hq", "restart", "lossless",
                                    "predictor", "comment", "no-jfif"});
    if (pos.size() != 2 || !bad.empty())
        return fail("encode", (bad.empty() ? "" : "unknown option " + bad + "; ") +
                                  "usage: kivjpeg encode IN OUT.jpg [--quality Q] [--sampling S] "
                                  "[--hq] [--restart N] [--lossless [--predictor N]] "
                                  "[--comment TEXT]");
    EncodeOptions options;
    bool gray = false;
    std::string error = encodeOptions(args, &options, &gray);
    if (!error.empty())
        return fail("encode", error);
    std::vector<uint8_t> bytes;
    Image image;
    if (!readAll(pos[0], &bytes, &error) || !readImage(bytes, &image, &error))
        return fail("encode: " + pos[0], error);
    if (gray)
        image = toGray(image);
    if (image.channels != 1 && image.channels != 3)
        return fail("encode", "the encoder takes gray or colour images, not " +
                                  std::to_string(image.channels) + " channels");
    if (!options.lossless && image.precision != 8) {
        fprintf(stderr, "kivjpeg: encode: note: %u-bit samples reduced to 8 bits "
                        "(use --lossless to keep them)\n", image.precision);
        image = to8Bit(image);
    }
    if (options.lossless && image.precision < 2)
        return fail("encode", "lossless coding needs at least 2 bits per sample");
    std::vector<uint8_t> jpeg;
    Status s = encodeWithProgress(image, options, &jpeg);
    if (!s)
        return failStatus("encode", s);
    if (!writeAll(pos[1], jpeg, &error))
        return fail("encode", error);
    return kExitOk;
}

int cmdCompareImpl(int argc, char **argv) {
    Args args(argc, argv, {"diff"});
    const auto &pos = args.positional();
    if (pos.size() != 2 || !args.unknown({"diff"}).empty())
        return fail("compare", "usage: kivjpeg compare A B [--diff OUT]");
    Image a, b, diff;
    std::string error;
    if (!loadAnyImage(pos[0], &a, &error))
        return fail("compare: " + pos[0], error);
    if (!loadAnyImage(pos[1], &b, &error))
        return fail("compare: " + pos[1], error);
    if (a.channels != b.channels) {
        a = a.channels == 3 ? toGray(a) : a;
        b = b.channels == 3 ? toGray(b) : b;
    }
    Difference d;
    bool wantDiff = args.has("diff");
    if (!compareImages(a, b, &d, wantDiff ? &diff : nullptr))
        return fail("compare", "the images differ in size: " + std::to_string(a.width) + "x" +
                                   std::to_string(a.height) + " and " + std::to_string(b.width) +
                                   "x" + std::to_string(b.height));
    if (d.maxDiff == 0)
        printf("identical (PSNR inf dB, max difference 0)\n");
    else
        printf("PSNR %.2f dB, max difference %u, mean difference %.3f\n", d.psnr, d.maxDiff,
               d.meanDiff);
    if (wantDiff) {
        std::string path = args.get("diff");
        if (!saveImage(path, diff, outputFormat(path, ""), &error))
            return fail("compare", error);
    }
    return kExitOk;
}

}  // namespace

int cmdDecode(int argc, char **argv) { return cmdDecodeImpl(argc, argv); }
int cmdEncode(int argc, char **argv) { return cmdEncodeImpl(argc, argv); }
int cmdCompare(int argc, char **argv) { return cmdCompareImpl(argc, argv); }

}  // namespace kivtool

int main(int argc, char **argv) {
    using namespace kivtool;
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h") ||
        !strcmp(argv[1], "help")) {
        fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? kExitError : kExitOk;
    }
    static const struct { const char *name; int (*run)(int, char **); } kCommands[] = {
        {"info", cmdInfo},       {"segments", cmdSegments}, {"decode", cmdDecode},
        {"encode", cmdEncode},   {"compare", cmdCompare},   {"demo", cmdDemo}};
    for (auto &c : kCommands)
        if (!strcmp(argv[1], c.name))
            return c.run(argc - 2, argv + 2);
    fprintf(stderr, "kivjpeg: unknown command '%s'\n%s", argv[1], kUsage);
    return kExitError;
}
