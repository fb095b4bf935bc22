// Distinct handles on distinct threads: eight threads decode and encode
// different images at the same time and must produce exactly what one
// thread produces alone. The library itself creates no threads and holds no
// mutable globals; under ThreadSanitizer (scripts/test.sh builds this test
// with -fsanitize=thread) any shared write shows up as a data race.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "hostile_decode.h"
#include "hostile_encode.h"
#include "stream_builder.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Job {
    std::string name;
    Bytes stream;                 // decoded when non-empty
    kivtest::DecodePlan decode;
    kivtest::EncodePlan encode;   // otherwise encoded
    Bytes pixels;
};

struct Result {
    JpgStatus prolog = 0, last = 0;
    uint64_t hash = 0;
    Bytes stream;
    bool operator==(const Result &) const = default;
};

Result RunJob(const Job &job) {
    Result r;
    if (!job.stream.empty()) {
        kivtest::DecodeOutcome out =
            kivtest::DecodeWithPlan(job.stream.data(), job.stream.size(), job.decode);
        r.prolog = out.prolog;
        r.last = out.last;
        r.hash = out.hash;
    } else {
        kivtest::EncodeOutcome out =
            kivtest::EncodeWithPlan(job.encode, job.pixels.data(), job.pixels.size());
        r.prolog = out.status;
        r.last = out.decode;
        r.stream = out.stream;
        for (uint8_t b : out.decoded)
            r.hash = (r.hash ^ b) * 1099511628211ull;
    }
    return r;
}

std::vector<Job> Jobs() {
    auto read = [](const char *name) { return kivtest::readFile(kivtest::corpus(name)); };
    const Bytes orig = read("samples/testorig.jpg"), prog = read("samples/testprog.jpg");
    std::vector<Job> jobs = {
        {"testorig lines", orig, {.path = 0, .batch = 16}},
        {"testorig scaled 1/4", orig, {.path = 4, .batch = 8}},
        {"testorig from file", orig, {.path = 0, .batch = 7, .flags = 4}},
        {"testprog", prog, {.path = 0, .batch = 16}},
        {"testprog incremental", prog, {.path = 1, .batch = 0}},
        {"A1 MCUs", read("conformance/A1.jpg"), {.path = 2, .batch = 3}},
        {"lossless", kivtest::LosslessBomb(300, 40, 12, 3, 3000), {.path = 0, .batch = 5}},
    };
    // Encodes of 61 x 45 pixels of the corpus picture, restart interval 3, predictor 4.
    const struct {
        const char *name;
        uint8_t mode;
        uint32_t channels, sampling, precision;
    } encodes[] = {{"baseline 4:2:0", 0, 3, 0x221111, 8},     {"baseline grey to file", 2, 1, 0x11, 8},
                   {"baseline 4:2:2 method 1", 16, 3, 0x211111, 8}, {"lossless 8-bit", 1, 3, 0x111111, 8},
                   {"lossless 16-bit to file", 3, 1, 0x11, 16}};
    for (const auto &e : encodes)
        jobs.push_back({e.name, {}, {},
                        {.mode = e.mode, .width = 61, .height = 45, .channels = e.channels, .sampling = e.sampling,
                         .restart = 3, .predictor = 4, .precision = e.precision},
                        read("samples/testorig.ppm")});
    for (Job &job : jobs)
        job.decode.tempDir = job.encode.tempDir = kivtest::tempDir();
    return jobs;
}

TEST(Concurrency, EightThreadsGiveTheSingleThreadResults) {
    const std::vector<Job> jobs = Jobs();
    std::vector<Result> expected;
    for (const Job &job : jobs)
        expected.push_back(RunJob(job));
    // The comparison means something only if real work was done.
    for (size_t j : {0, 7})
        EXPECT_TRUE(expected[j].prolog == JPG_STATUS_OK && expected[j].last == JPG_STATUS_OK) << jobs[j].name;

    constexpr int kThreads = 8, kRounds = 3;
    std::vector<std::vector<Result>> got(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([&, t] {
            // Each thread starts at a different job, so that at any moment
            // different images are in flight.
            for (size_t i = 0; i < jobs.size() * kRounds; i++)
                got[t].push_back(RunJob(jobs[(i + t * 3) % jobs.size()]));
        });
    for (auto &thread : threads)
        thread.join();
    for (int t = 0; t < kThreads; t++)
        for (size_t i = 0; i < got[t].size(); i++) {
            size_t j = (i + t * 3) % jobs.size();
            EXPECT_TRUE(got[t][i] == expected[j]) << "thread " << t << ": " << jobs[j].name;
        }
}

}  // namespace
