// Golden checksums: every line of tests/golden.txt names a corpus file and a
// mode; the decoded pixels or encoded bytes must hash to the recorded value,
// identically on both targets and at every processor level this machine has
// (portable, SSE2, AVX2). Each hash is paired with a tolerance check on the
// same input against an independent oracle (djpeg, cjpeg, jpegtran, or an
// exact round trip), so that a failure says where and by how much.
//
// Adding a case: add a line with size and hash "-"; the failure prints the
// line with the values computed here (at the portable level).
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <tuple>

#include "test_support.h"

namespace {

using namespace kivtest;

const std::string kManifest = std::string(KIV_SOURCE_DIR) + "/tests/golden.txt";

// One manifest line: file (under the corpus), options, size, hash. Options:
// a mode (decode, progressive, lossless-decode, encode, lossless-encode),
// then settings: scale=0..2, incremental, q=quality, s=420|422|444,
// ri=restart interval, hq (averaging down-sampler), p=predictor.
struct Entry {
    std::string file, options, size, hash, mode;
    std::map<std::string, std::string> settings;

    bool has(const std::string &key) const { return settings.count(key) != 0; }
    int value(const std::string &key, int otherwise) const {
        return has(key) ? std::stoi(settings.at(key)) : otherwise;
    }
};

const std::vector<Entry> &entries() {
    static const std::vector<Entry> list = [] {
        std::vector<Entry> all;
        std::ifstream in(kManifest);
        for (std::string line; std::getline(in, line);) {
            std::stringstream fields(line);
            Entry e;
            if (line.empty() || line[0] == '#' || !(fields >> e.file >> e.options >> e.size >> e.hash))
                continue;
            std::stringstream parts(e.options);
            std::getline(parts, e.mode, ',');
            for (std::string part; std::getline(parts, part, ',');) {
                size_t eq = part.find('=');
                e.settings[part.substr(0, eq)] = eq == std::string::npos ? "" : part.substr(eq + 1);
            }
            all.push_back(e);
        }
        return all;
    }();
    return list;
}

// FNV-1a, 64 bits: the same value on every target for the same bytes.
std::string hashText(const Bytes &bytes) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (uint8_t b : bytes)
        h = (h ^ b) * 0x100000001b3ull;
    char text[24];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
}

std::string sizeText(const Image &i) {
    return std::to_string(i.width) + "x" + std::to_string(i.height) + "x" + std::to_string(i.channels) +
           (i.bits > 8 ? "x16" : "");
}

// The entry's source pixels; with "grey", the first channel alone.
Image source(const Entry &e) {
    const std::string &file = e.file;
    Image image = file.substr(file.size() - 4) == ".bmp" ? readBmp(corpus(file)) : readPnm(corpus(file));
    if (!e.has("grey"))
        return image;
    Image grey(image.width, image.height, 1);
    for (size_t i = 0; i < grey.samples(); i++)
        grey.set(i, image.get(i * image.channels));
    return grey;
}

Bytes encodeEntry(const Image &image, const Entry &e, uint32_t processor, JpgStatus *status) {
    EncodeOptions o;
    o.processor = processor;
    o.restart = uint16_t(e.value("ri", 0));
    if (e.mode.rfind("lossless", 0) == 0) {
        o.lossless = true;
        o.predictor = e.value("p", 1);
        o.restart = uint16_t(o.restart / image.width);  // in rows
    } else {
        int s = e.value("s", 420);
        o.sampling = s == 444 ? 0x111111u : s == 422 ? 0x211111u : 0x221111u;
        o.quality = uint32_t(e.value("q", 90));
        o.method = e.has("hq") ? 1 : 0;
        o.setSize = true;
    }
    return encode(image, o, status);
}

// A lossless-decode entry decodes what the lossless encoder makes of the file.
Decoded decodeEntry(const Entry &e, uint32_t processor) {
    DecodeOptions o{.level = e.value("scale", 3), .processor = processor, .incremental = e.has("incremental")};
    JpgStatus status = 0;
    Bytes jpeg = e.mode == "lossless-decode" ? encodeEntry(source(e), e, processor, &status) : readFile(corpus(e.file));
    Decoded d = decode(jpeg, o);
    if (o.incremental && d.status == JPG_STATUS_ERROR && !d.passes.empty())
        d.status = JPG_STATUS_OK;  // the pass after the last scan refuses
    return d;
}

std::string below(const char *oracle, const Image &ours, const Image &theirs, double minimum) {
    Difference d = compare(ours, theirs);
    if (d.psnr >= minimum)
        return "";
    return std::string("PSNR vs ") + oracle + " " + std::to_string(d.psnr) + " dB, below " + std::to_string(minimum) +
           "; " + d.where;
}

std::string toleranceForDecode(const Entry &e, const Image &ours) {
    std::string path = corpus(e.file);
    if (e.mode == "lossless-decode")
        return ours == source(e) ? "" : "lossless round trip differs";
    int level = e.value("scale", 3);
    DecodeOptions o{.level = level};
    if (ours.channels == 4) {
        // djpeg has no four-component output; the same coefficients with
        // re-optimised Huffman tables must decode to the same pixels.
        Decoded again = decode(jpegtran(readFile(path), "-optimize"), o);
        return again.status == JPG_STATUS_OK && again.image == ours ? "" : "the jpegtran copy decodes differently";
    }
    Image reference;
    if (!djpeg(path, &reference, "-dct int -scale 1/" + std::to_string(8 >> level)))
        return "djpeg failed";
    std::string problem = below("djpeg", ours, reference, level == 3 ? 30.0 : 24.0);
    if (!problem.empty() || e.mode != "progressive")
        return problem;
    // A progressive stream holds the same coefficients as its sequential
    // transcode: the final pixels must be identical.
    Decoded baseline = decode(jpegtran(readFile(path), ""), o);
    return baseline.image == ours ? "" : "differs from the sequential transcode: " + compare(ours, baseline.image).where;
}

std::string toleranceForEncode(const Entry &e, const Image &image, const Bytes &stream) {
    if (e.mode == "lossless-encode")
        return decode(stream).image == image ? "" : "lossless round trip differs";
    int s = e.value("s", 420);
    std::string options = "-dct int -quality " + std::to_string(e.value("q", 90)) + " -sample " +
                          (s == 444 ? "1x1" : s == 422 ? "2x1" : "2x2");
    Image ours = djpegStrict(stream), theirs = djpegStrict(cjpeg(image, options));
    if (ours.empty() || theirs.empty())
        return "djpeg refuses a stream";
    // Held to cjpeg's bar less 1.5 dB at 4:4:4; when chroma is down-sampled,
    // this encoder keeps one sample per group (or a rounded mean) where
    // cjpeg smooths, so the bar there is 8 dB lower.
    return below("the source", ours, image, psnr(image, theirs) - (s == 444 ? 1.5 : 8.0));
}

class Golden : public ::testing::TestWithParam<std::tuple<size_t, uint32_t>> {};

TEST_P(Golden, MatchesManifestAndOracle) {
    const Entry &manifest = entries()[std::get<0>(GetParam())];
    uint32_t processor = std::get<1>(GetParam());
    SCOPED_TRACE(manifest.file + " " + manifest.options + " " + processorName(processor));
    std::string size, hash, problem;
    if (manifest.mode.find("encode") != std::string::npos) {
        JpgStatus status = 0;
        Image image = source(manifest);
        Bytes stream = encodeEntry(image, manifest, processor, &status);
        problem = status != 0 ? "encoding failed with " + hex(status) : toleranceForEncode(manifest, image, stream);
        size = std::to_string(stream.size());
        hash = hashText(stream);
    } else {
        Decoded d = decodeEntry(manifest, processor);
        problem = d.status != 0 ? "decoding failed with " + hex(d.status) : toleranceForDecode(manifest, d.image);
        size = sizeText(d.image);
        hash = hashText(d.image.pixels);
    }
    EXPECT_EQ(problem, "") << "tolerance check against the oracle";
    EXPECT_TRUE(size == manifest.size && hash == manifest.hash)
        << "differs from tests/golden.txt" << (problem.empty() ? " (the oracle check still passes)" : "")
        << "; computed: " << manifest.file << " " << manifest.options << " " << size << " " << hash;
}

INSTANTIATE_TEST_SUITE_P(Manifest, Golden,
                         ::testing::Combine(::testing::Range(size_t(0), entries().size()), ::testing::ValuesIn(processorFlags())),
                         [](const auto &info) {
                             const Entry &e = entries()[std::get<0>(info.param)];
                             std::string name = e.file + "_" + e.options + "_" + processorName(std::get<1>(info.param));
                             for (char &c : name)
                                 if (!std::isalnum(static_cast<unsigned char>(c)))
                                     c = '_';
                             return name;
                         });

// The manifest itself: read completely (a missing file fails its own case).
TEST(GoldenManifest, IsRead) { EXPECT_GE(entries().size(), 38u) << kManifest; }

}  // namespace
