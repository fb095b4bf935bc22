// Writes the seed inputs of the fuzz targets: every corpus stream (up to
// 128 KiB) behind several decode plans, streams written by the encoder with
// a range of parameters, small hostile frames, and encoder plans.
// The api target gets the misuse programs of fuzz/api_seeds.h.
//   make_seeds CORPUS_DIR DECODE_SEED_DIR ENCODE_SEED_DIR [API_SEED_DIR]
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "api_seeds.h"
#include "hostile_decode.h"
#include "hostile_encode.h"
#include "../tests/support/stream_builder.h"

namespace fs = std::filesystem;

namespace {

int written = 0;

void Write(const fs::path &dir, const std::string &name, const std::vector<uint8_t> &bytes) {
    std::ofstream out(dir / name, std::ios::binary);
    out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    written++;
}

// Plans that reach each driver: path, batch, flags, extra.
constexpr uint8_t kPlans[][4] = {
    {0, 16, 0, 0},  {0, 7, 0, 0},    {2, 3, 0, 0},   {4, 5, 0, 1},  {6, 2, 0, 2},
    {8, 16, 0, 9},  {10, 1, 0, 200}, {12, 16, 1, 9}, {14, 0, 8, 0}, {1, 16, 0, 3},
    {0, 0, 4, 0},   {0, 13, 0x34, 5}, {0, 9, 0x16, 11}, {1, 1, 0, 5},
};

void WithPlans(const fs::path &dir, const std::string &stem, const std::vector<uint8_t> &jpeg) {
    int i = 0;
    for (const auto &plan : kPlans) {
        std::vector<uint8_t> seed(plan, plan + 4);
        seed.insert(seed.end(), jpeg.begin(), jpeg.end());
        Write(dir, stem + "-p" + std::to_string(i++), seed);
    }
}

// Encoder plans: mode, width, height, channels, quality, sampling index,
// restart, predictor, strip, precision, selectors, segment length.
std::vector<std::vector<uint8_t>> EncoderPlans() {
    std::vector<std::vector<uint8_t>> plans;
    uint32_t state = 12345;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return uint8_t(state >> 16);
    };
    for (int i = 0; i < 64; i++) {
        std::vector<uint8_t> p(kivtest::kEncodePlanBytes);
        for (auto &b : p)
            b = next();
        p[0] = uint8_t((i & 1) | (p[0] & 0xFE));
        if (i < 16)
            p[3] = 2;  // three channels
        p[11] = uint8_t(i % 3 == 0 ? 8 : 0);
        for (int k = 0; k < p[11]; k++)
            p.push_back(next());
        for (int k = 0; k < 300; k++)
            p.push_back(uint8_t(k * 7 + i));
        plans.push_back(p);
    }
    return plans;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: make_seeds CORPUS_DIR DECODE_DIR ENCODE_DIR [API_DIR]\n");
        return 2;
    }
    fs::path corpus = argv[1], decodeDir = argv[2], encodeDir = argv[3];
    fs::create_directories(decodeDir);
    fs::create_directories(encodeDir);
    for (const char *sub : {"conformance", "samples"}) {
        std::error_code ec;
        for (const auto &entry : fs::directory_iterator(corpus / sub, ec)) {
            if (entry.path().extension() != ".jpg" || entry.file_size() > 128 * 1024)
                continue;
            std::ifstream in(entry.path(), std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), {});
            WithPlans(decodeDir, std::string(sub) + "-" + entry.path().stem().string(), bytes);
        }
    }
    // Streams from the encoder, as the decoder's seeds; the plans themselves
    // are the encoder's seeds.
    int n = 0;
    for (const auto &plan : EncoderPlans()) {
        Write(encodeDir, "plan-" + std::to_string(n), plan);
        kivtest::EncodePlan parsed;
        size_t used = kivtest::ReadEncodePlan(plan.data(), plan.size(), &parsed);
        kivtest::EncodeOutcome out =
            kivtest::EncodeWithPlan(parsed, plan.data() + used, plan.size() - used);
        if (out.status == JPG_STATUS_OK && !out.stream.empty() && n % 2 == 0)
            WithPlans(decodeDir, "encoded-" + std::to_string(n), out.stream);
        else if (out.status == JPG_STATUS_OK && !out.stream.empty())
            Write(decodeDir, "encoded-" + std::to_string(n),
                  [&] { std::vector<uint8_t> s{uint8_t(n), 16, 0, uint8_t(n)};
                        s.insert(s.end(), out.stream.begin(), out.stream.end());
                        return s; }());
        n++;
    }
    // Small hostile frames.
    WithPlans(decodeDir, "bomb-baseline", kivtest::BaselineBomb(65535, 65535, 64));
    WithPlans(decodeDir, "bomb-progressive", kivtest::ProgressiveBomb(512, 512, 512, 8, 1));
    WithPlans(decodeDir, "bomb-lossless", kivtest::LosslessBomb(4000, 300, 16, 3, 64));
    WithPlans(decodeDir, "bomb-lossless8", kivtest::LosslessBomb(300, 30, 8, 1, 64));
    if (argc == 5) {
        fs::path apiDir = argv[4];
        fs::create_directories(apiDir);
        auto read = [&](const char *name) {
            std::ifstream in(corpus / "samples" / name, std::ios::binary);
            return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), {});
        };
        for (const auto &seed : kivtest::ApiSeedPrograms(read("testorig.jpg"), read("testprog.jpg")))
            Write(apiDir, seed.name, seed.input.bytes());
    }
    std::printf("make_seeds: %d files\n", written);
    return 0;
}
