// Golden checksums: every line of tests/golden.txt names a corpus file and a
// mode; the decoded pixels or encoded bytes must hash to the recorded value,
// identically on both targets. Each hash is paired with a tolerance check on
// the same input against an independent oracle (djpeg, cjpeg, ImageMagick,
// or an exact invariant), so that a failure says where and by how much.
// Every case runs at every processor level this machine has (portable,
// SSE2, AVX2), each handle set to its level, and must give the same hash.
//
// Adding a case: add a line with size and hash "-", then run
//   KIV_GOLDEN_UPDATE=1 test_api --gtest_filter='Golden*'
// which rewrites tests/golden.txt with the values computed here.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "golden_support.h"
#include "kivjpeg.h"
#include "test_support.h"

namespace {

using kivtest::golden::Entry;
using kivtest::golden::Image;
using Bytes = std::vector<uint8_t>;

const std::string kManifest = std::string(KIV_SOURCE_DIR) + "/tests/golden.txt";

std::vector<Entry> &entries() {
    static std::vector<Entry> list = kivtest::golden::readManifest(kManifest);
    return list;
}

bool updating() {
    const char *value = std::getenv("KIV_GOLDEN_UPDATE");
    return value != nullptr && std::string(value) == "1";
}

// Decoded pixels and their oracle check.
std::string checkDecode(const Entry &e, Image *out) {
    using namespace kivtest::golden;
    std::string path = kivtest::corpus(e.file);
    JpgStatus status = decodeFile(path, e, out);
    if (status != 0) return "decoding failed with status " + hex(status);
    return toleranceForDecode(path, e, *out);
}

// Encoded stream (baseline or lossless) and its oracle check.
std::string checkEncode(const Entry &e, Bytes *stream) {
    using namespace kivtest::golden;
    Image source;
    if (!readSource(kivtest::corpus(e.file), &source)) return "cannot read " + e.file;
    JpgStatus status = encodeImage(source, e, stream);
    if (status != 0) return "encoding failed with status " + hex(status);
    return toleranceForEncode(source, e, *stream);
}

class Golden : public ::testing::TestWithParam<std::tuple<size_t, uint32_t>> {};

TEST_P(Golden, MatchesManifestAndOracle) {
    Entry &manifest = entries()[std::get<0>(GetParam())];
    Entry e = manifest;
    e.processorFlag = std::get<1>(GetParam());
    SCOPED_TRACE(e.file + " " + e.options + " " + kivtest::processorName(e.processorFlag));
    std::string size, hash, problem;
    if (kivtest::golden::producesStream(e)) {
        Bytes stream;
        problem = checkEncode(e, &stream);
        size = std::to_string(stream.size());
        hash = kivtest::golden::hashText(stream.data(), stream.size());
    } else {
        Image image;
        problem = checkDecode(e, &image);
        size = image.sizeText();
        hash = kivtest::golden::hashText(image.pixels.data(), image.pixels.size());
    }
    EXPECT_EQ(problem, "") << "tolerance check against the oracle";
    // An update takes the portable level's values; the other levels, which
    // run after it, must reproduce them.
    if (updating() && e.processorFlag == 0) {
        manifest.size = size;
        manifest.hash = hash;
        return;
    }
    e.size = manifest.size;
    e.hash = manifest.hash;
    EXPECT_EQ(size, e.size) << "size differs from tests/golden.txt";
    EXPECT_EQ(hash, e.hash) << "checksum differs from tests/golden.txt"
                            << (problem.empty() ? " (the oracle check still passes)" : "");
}

std::string caseName(const ::testing::TestParamInfo<std::tuple<size_t, uint32_t>> &info) {
    const Entry &e = entries()[std::get<0>(info.param)];
    std::string name = e.file + "_" + e.options + "_" + kivtest::processorName(std::get<1>(info.param));
    for (char &c : name)
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    return name;
}

std::vector<size_t> indices() {
    std::vector<size_t> list;
    for (size_t i = 0; i < entries().size(); ++i) list.push_back(i);
    return list;
}

INSTANTIATE_TEST_SUITE_P(Manifest, Golden,
                         ::testing::Combine(::testing::ValuesIn(indices()),
                                            ::testing::ValuesIn(kivtest::processorFlags())),
                         caseName);

// The manifest itself: parsed completely, every line unique, every file
// present, and filled in (no "-" left from adding a line).
TEST(GoldenManifest, IsWellFormed) {
    ASSERT_FALSE(entries().empty()) << kManifest;
    std::map<std::string, int> seen;
    for (const Entry &e : entries()) {
        EXPECT_EQ(seen[e.file + " " + e.options]++, 0) << "duplicate " << e.file << " " << e.options;
        EXPECT_TRUE(std::ifstream(kivtest::corpus(e.file)).good()) << e.file;
        if (!updating()) EXPECT_NE(e.hash, "-") << e.file << " " << e.options;
    }
}

// Writes the manifest back with the computed values after an update run.
class ManifestWriter : public ::testing::Environment {
public:
    void TearDown() override {
        if (updating()) kivtest::golden::writeManifest(kManifest, entries());
    }
};

const auto *const kWriter = ::testing::AddGlobalTestEnvironment(new ManifestWriter);

}  // namespace
