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
    std::string temp = kivtest::tempDir();
    std::vector<Job> jobs;
    auto decode = [&](const std::string &name, Bytes stream, uint8_t path, uint8_t batch,
                      uint8_t flags) {
        Job job;
        job.name = name;
        job.stream = std::move(stream);
        job.decode.path = path;
        job.decode.batch = batch;
        job.decode.flags = flags;
        job.decode.tempDir = temp;
        jobs.push_back(std::move(job));
    };
    auto encode = [&](const std::string &name, uint8_t mode, uint32_t channels,
                      uint32_t sampling, uint32_t precision) {
        Job job;
        job.name = name;
        job.encode.mode = mode;
        job.encode.width = 61;
        job.encode.height = 45;
        job.encode.channels = channels;
        job.encode.sampling = sampling;
        job.encode.precision = precision;
        job.encode.restart = 3;
        job.encode.predictor = 4;
        job.encode.tempDir = temp;
        job.pixels = kivtest::readFile(kivtest::corpus("samples/testorig.ppm"));
        jobs.push_back(std::move(job));
    };
    Bytes orig = kivtest::readFile(kivtest::corpus("samples/testorig.jpg"));
    decode("testorig lines", orig, 0, 16, 0);
    decode("testorig scaled 1/4", orig, 4, 8, 0);
    decode("testorig from file", orig, 0, 7, 4);
    decode("testprog", kivtest::readFile(kivtest::corpus("samples/testprog.jpg")), 0, 16, 0);
    decode("testprog incremental", kivtest::readFile(kivtest::corpus("samples/testprog.jpg")), 1,
           0, 0);
    decode("A1 MCUs", kivtest::readFile(kivtest::corpus("conformance/A1.jpg")), 2, 3, 0);
    decode("lossless", kivtest::LosslessBomb(300, 40, 12, 3, 3000), 0, 5, 0);
    encode("baseline 4:2:0", 0, 3, 0x221111, 8);
    encode("baseline grey to file", 2, 1, 0x11, 8);
    encode("baseline 4:2:2 method 1", 16, 3, 0x211111, 8);
    encode("lossless 8-bit", 1, 3, 0x111111, 8);
    encode("lossless 16-bit to file", 3, 1, 0x11, 16);
    return jobs;
}

TEST(Concurrency, EightThreadsGiveTheSingleThreadResults) {
    const std::vector<Job> jobs = Jobs();
    std::vector<Result> expected;
    for (const Job &job : jobs)
        expected.push_back(RunJob(job));
    // The comparison means something only if real work was done.
    EXPECT_EQ(expected[0].prolog, JPG_STATUS_OK) << jobs[0].name;
    EXPECT_EQ(expected[0].last, JPG_STATUS_OK) << jobs[0].name;
    EXPECT_EQ(expected[7].prolog, JPG_STATUS_OK) << jobs[7].name;
    EXPECT_EQ(expected[7].last, JPG_STATUS_OK) << jobs[7].name;

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
