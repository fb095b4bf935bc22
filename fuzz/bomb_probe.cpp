// Measures what "decompression bombs" (streams of a few hundred bytes to a
// few KiB that declare huge frames or many scans) make the library allocate
// and how long each decode path runs on them. Every case runs in a child
// process; the library's memalign/free calls are counted through the
// linker's --wrap, the caller's own output rectangles are not.
//   bomb_probe [LIMIT_MIB]   with a limit, library allocations that would
//                            exceed it fail, as under `ulimit -v`.
//   bomb_probe --fail-each   makes every library allocation fail in turn
//                            (the 1st, the 2nd, ...) on corpus streams and
//                            encodes: each run must end with a status and
//                            release everything.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "hostile_decode.h"
#include "hostile_encode.h"
#include "../tests/support/stream_builder.h"

namespace {

struct Counters {
    uint64_t calls = 0, failed = 0, total = 0, live = 0, peak = 0, largest = 0;
    uint64_t limit = UINT64_MAX;
    uint64_t failAt = 0;  // the allocation (1-based) that fails; 0 = none
};
Counters counters;

constexpr size_t kSlots = 1 << 16;
struct Slot {
    void *ptr;
    size_t size;
};
Slot slots[kSlots];

size_t SlotOf(void *ptr) { return (reinterpret_cast<uintptr_t>(ptr) >> 4) * 2654435761u % kSlots; }

}  // namespace

extern "C" void *__real_memalign(size_t alignment, size_t size);
extern "C" void __real_free(void *ptr);

extern "C" void *__wrap_memalign(size_t alignment, size_t size) {
    counters.calls++;
    if (size > counters.largest)
        counters.largest = size;
    if (counters.live + size > counters.limit || counters.calls == counters.failAt) {
        counters.failed++;
        return nullptr;
    }
    void *ptr = __real_memalign(alignment, size);
    if (ptr == nullptr) {
        counters.failed++;
        return nullptr;
    }
    counters.total += size;
    counters.live += size;
    if (counters.live > counters.peak)
        counters.peak = counters.live;
    for (size_t i = SlotOf(ptr);; i = (i + 1) % kSlots)
        if (slots[i].ptr == nullptr) {
            slots[i] = {ptr, size};
            break;
        }
    return ptr;
}

extern "C" void __wrap_free(void *ptr) {
    if (ptr != nullptr)
        for (size_t i = SlotOf(ptr), n = 0; n < kSlots; i = (i + 1) % kSlots, n++) {
            if (slots[i].ptr == nullptr)
                break;
            if (slots[i].ptr == ptr) {
                counters.live -= slots[i].size;
                // Backward-shift deletion keeps the probe chains intact.
                size_t hole = i;
                for (size_t j = (i + 1) % kSlots; slots[j].ptr != nullptr; j = (j + 1) % kSlots) {
                    size_t home = SlotOf(slots[j].ptr);
                    if ((j > hole && (home <= hole || home > j)) ||
                        (j < hole && home <= hole && home > j)) {
                        slots[hole] = slots[j];
                        hole = j;
                    }
                }
                slots[hole] = {nullptr, 0};
                break;
            }
        }
    __real_free(ptr);
}

namespace {

struct Case {
    const char *name;
    std::vector<uint8_t> stream;
    kivtest::DecodePlan plan;
};

kivtest::DecodePlan Plan(uint8_t path, uint8_t batch, uint8_t extra = 0) {
    kivtest::DecodePlan plan;
    plan.path = path;
    plan.batch = batch;
    plan.extra = extra;
    plan.pixelCap = UINT64_MAX;
    plan.maxCalls = 1 << 20;
    return plan;
}

struct Result {
    uint64_t calls, failed, total, peak, largest, leaked;
    double seconds;
    long rssKiB;
    uint32_t prolog, last;
    int outputCalls;
};

void RunCase(const Case &c, uint64_t limit) {
    int fds[2];
    if (pipe(fds) != 0)
        return;
    pid_t pid = fork();
    if (pid == 0) {
        counters = Counters{};
        counters.limit = limit;
        auto start = std::chrono::steady_clock::now();
        kivtest::DecodeOutcome out =
            kivtest::DecodeWithPlan(c.stream.data(), c.stream.size(), c.plan);
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        Result r{counters.calls, counters.failed, counters.total, counters.peak,
                 counters.largest, counters.live, seconds, usage.ru_maxrss, out.prolog,
                 out.last, out.calls};
        if (write(fds[1], &r, sizeof r) != sizeof r)
            _exit(1);
        _exit(0);
    }
    close(fds[1]);
    Result r{};
    bool ok = read(fds[0], &r, sizeof r) == sizeof r;
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!ok) {
        std::printf("| %s | %zu | child died (signal %d) | | | | | |\n", c.name, c.stream.size(),
                    WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        return;
    }
    std::printf("| %s | %zu | 0x%08X / 0x%08X | %d | %llu (%llu failed) | %.1f MiB | %.1f MiB | "
                "%.3f s | %ld MiB | %llu |\n",
                c.name, c.stream.size(), r.prolog, r.last, r.outputCalls,
                (unsigned long long)r.calls, (unsigned long long)r.failed,
                double(r.largest) / 1048576.0, double(r.peak) / 1048576.0, r.seconds,
                r.rssKiB / 1024, (unsigned long long)r.leaked);
    std::fflush(stdout);
}

}  // namespace

// Runs one decode or encode with the n-th library allocation failing, in a
// child; returns the number of allocations the run made (0 when it died).
uint64_t FailNth(const std::string &name, const std::function<uint32_t()> &run, uint64_t n,
                 int *problems) {
    int fds[2];
    if (pipe(fds) != 0)
        return 0;
    pid_t pid = fork();
    if (pid == 0) {
        counters = Counters{};
        counters.failAt = n;
        uint32_t status = run();
        uint64_t r[3] = {counters.calls, counters.live, status};
        if (write(fds[1], r, sizeof r) != sizeof r)
            _exit(1);
        _exit(0);
    }
    close(fds[1]);
    uint64_t r[3] = {};
    bool ok = read(fds[0], r, sizeof r) == sizeof r;
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!ok) {
        std::printf("%s: allocation %llu failing kills the process (signal %d)\n", name.c_str(),
                    (unsigned long long)n, WIFSIGNALED(status) ? WTERMSIG(status) : 0);
        (*problems)++;
        return 0;
    }
    if (r[1] != 0) {
        std::printf("%s: allocation %llu failing leaks %llu bytes (status 0x%08llX)\n",
                    name.c_str(), (unsigned long long)n, (unsigned long long)r[1],
                    (unsigned long long)r[2]);
        (*problems)++;
    } else if (n != 0 && n <= r[0] && r[2] != JPG_STATUS_NO_MEMORY &&
               r[2] != JPG_STATUS_OUTPUT_FULL) {  // the encoder's output could not grow
        std::printf("%s: allocation %llu failing gives status 0x%08llX, not NO_MEMORY\n",
                    name.c_str(), (unsigned long long)n, (unsigned long long)r[2]);
        (*problems)++;
    }
    return r[0];
}

int FailEach() {
    struct Run {
        std::string name;
        std::function<uint32_t()> run;
    };
    std::vector<Run> runs;
    auto corpus = [](const char *file) {
        FILE *f = std::fopen((std::string(KIV_CORPUS_DIR) + "/" + file).c_str(), "rb");
        std::vector<uint8_t> bytes;
        if (f != nullptr) {
            int c;
            while ((c = std::fgetc(f)) != EOF)
                bytes.push_back(uint8_t(c));
            std::fclose(f);
        }
        return bytes;
    };
    for (const char *file : {"samples/testorig.jpg", "samples/testprog.jpg", "conformance/A1.jpg"})
        for (uint8_t path : {0, 1, 2, 4}) {
            auto bytes = corpus(file);
            runs.push_back({std::string(file) + " path " + std::to_string(path), [bytes, path] {
                                kivtest::DecodePlan plan = Plan(path, 16, 1);
                                plan.flags = path == 2 ? 4 : 0;  // one from a file
                                kivtest::DecodeOutcome out =
                                    kivtest::DecodeWithPlan(bytes.data(), bytes.size(), plan);
                                return out.prolog != 0 ? out.prolog : out.last;
                            }});
        }
    runs.push_back({"lossless 16-bit", [] {
                        auto s = kivtest::LosslessBomb(100, 20, 16, 3, 2000);
                        kivtest::DecodeOutcome out =
                            kivtest::DecodeWithPlan(s.data(), s.size(), Plan(0, 7));
                        return out.prolog != 0 ? out.prolog : out.last;
                    }});
    for (uint8_t mode : {0, 2, 1, 3, 0x40}) {
        runs.push_back({"encode mode " + std::to_string(mode), [mode] {
                            kivtest::EncodePlan plan;
                            plan.mode = mode | 0x80;
                            plan.width = 40;
                            plan.height = 33;
                            plan.strip = 16;
                            plan.precision = 12;
                            plan.segment = {1, 2, 3};
                            kivtest::EncodeOutcome out = kivtest::EncodeWithPlan(plan, nullptr, 0);
                            // Past the encode, the allocations are the check decode's.
                            return out.status != 0 ? out.status : out.decode;
                        }});
    }
    int problems = 0;
    for (const Run &r : runs) {
        uint64_t total = FailNth(r.name, r.run, 0, &problems);
        for (uint64_t n = 1; n <= total; n++)
            FailNth(r.name, r.run, n, &problems);
        std::printf("%s: %llu allocations, each failed in turn\n", r.name.c_str(),
                    (unsigned long long)total);
    }
    std::printf("%d problems\n", problems);
    return problems == 0 ? 0 : 1;
}

int main(int argc, char **argv) {
    if (argc > 1 && std::string(argv[1]) == "--fail-each")
        return FailEach();
    uint64_t limit = argc > 1 ? std::strtoull(argv[1], nullptr, 10) << 20 : UINT64_MAX;
    using kivtest::BaselineBomb;
    using kivtest::LosslessBomb;
    using kivtest::ProgressiveBomb;
    using kivtest::ProgressiveColourBomb;
    std::vector<Case> cases = {
        {"baseline 65535x65535 4:2:0, ToRect 16 lines", BaselineBomb(65535, 65535, 200), Plan(0, 16)},
        {"baseline 65535x65535 4:2:0, McuToRect", BaselineBomb(65535, 65535, 200), Plan(2, 4)},
        {"baseline 65535x65535 4:2:0, scaled 1/8", BaselineBomb(65535, 65535, 200), Plan(4, 16, 0)},
        {"baseline 65535x65535 4:2:0, seek 100000 MCUs", BaselineBomb(65535, 65535, 200), Plan(10, 16, 0x7F)},
        {"progressive 65535x65535 grey, normal", ProgressiveBomb(65535, 65535, 200, 1, 1), Plan(0, 16)},
        {"progressive 65535x65535 4:2:0, normal", ProgressiveColourBomb(65535, 65535, 200), Plan(0, 16)},
        {"progressive 65535x65535 4:2:0, incremental", ProgressiveColourBomb(65535, 65535, 200), Plan(1, 16, 3)},
        {"progressive 2048x2048 grey, 200 EOB-run scans", ProgressiveBomb(2048, 2048, 8192, 200, 3), Plan(0, 16)},
        {"progressive 2048x2048 grey, 200 scans incremental", ProgressiveBomb(2048, 2048, 8192, 200, 3), Plan(1, 0, 13)},
        {"progressive 8192x8192 grey, 1000 scans, DC truncated", ProgressiveBomb(8192, 8192, 300, 1000, 1), Plan(0, 16)},
        {"progressive 16384x16384 grey, DC truncated", ProgressiveBomb(16384, 16384, 300, 1, 1), Plan(0, 16)},
        {"progressive 32760x32760 grey, DC truncated", ProgressiveBomb(32760, 32760, 300, 1, 1), Plan(0, 16)},
        {"progressive 30000x30000 4:2:0, DC truncated", ProgressiveColourBomb(30000, 30000, 300), Plan(0, 16)},
        {"lossless 65535x65535 16-bit x4, 16 rows a call", LosslessBomb(65535, 65535, 16, 4, 200), Plan(0, 16)},
        {"lossless 65535x65535 8-bit x1, 1 row a call", LosslessBomb(65535, 65535, 8, 1, 200), Plan(0, 1)},
        {"lossless 65535x0 16-bit x3 (no height)", LosslessBomb(65535, 0, 16, 3, 200), Plan(0, 16)},
    };
    std::printf("| input | bytes | prolog / last status | output calls | library allocations | "
                "largest | peak live | time | peak RSS | leaked bytes |\n");
    std::printf("|---|---|---|---|---|---|---|---|---|---|\n");
    for (const Case &c : cases)
        RunCase(c, limit);
    return 0;
}
