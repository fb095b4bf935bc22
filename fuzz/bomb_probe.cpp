// Measures what "decompression bombs" (streams of a few hundred bytes to a
// few KiB that declare huge frames or many scans) make the library allocate
// and how long each decode path runs on them. Every case runs in a child
// process; the library's memalign/free calls are counted through the
// linker's --wrap, the caller's own output rectangles are not.
//   bomb_probe [LIMIT_MIB]   with a limit, library allocations that would
//                            exceed it fail, as under `ulimit -v`.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "../tests/support/hostile_decode.h"
#include "../tests/support/jpeg_builder.h"

namespace {

struct Counters {
    uint64_t calls = 0, failed = 0, total = 0, live = 0, peak = 0, largest = 0;
    uint64_t limit = UINT64_MAX;
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
    if (counters.live + size > counters.limit) {
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

int main(int argc, char **argv) {
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
