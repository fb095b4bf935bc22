// Wrappers for memalign and free (linked with -Wl,--wrap) that keep the
// live blocks of the library in a small table while counting is on. Other
// callers' frees find nothing in the table and pass straight through.
#include "heap_counter.h"

#include <malloc.h>

extern "C" void *__real_memalign(size_t alignment, size_t size);
extern "C" void __real_free(void *ptr);

namespace bench {
namespace {

constexpr int kMaxLive = 1024;

struct Counter {
    bool on = false;
    size_t held = 0;
    size_t peak = 0;
    void *live[kMaxLive] = {};
    size_t sizes[kMaxLive] = {};
};

Counter &counter() {
    static Counter instance;
    return instance;
}

void track(void *ptr) {
    Counter &c = counter();
    for (int i = 0; i < kMaxLive; ++i) {
        if (c.live[i] == nullptr) {
            c.live[i] = ptr;
            c.sizes[i] = malloc_usable_size(ptr);
            c.held += c.sizes[i];
            if (c.held > c.peak) c.peak = c.held;
            return;
        }
    }
}

void untrack(void *ptr) {
    Counter &c = counter();
    for (int i = 0; i < kMaxLive; ++i) {
        if (c.live[i] == ptr) {
            c.held -= c.sizes[i];
            c.live[i] = nullptr;
            return;
        }
    }
}

}  // namespace

void heapCountStart() {
    Counter &c = counter();
    c = Counter();
    c.on = true;
}

size_t heapCountStop() {
    Counter &c = counter();
    c.on = false;
    return c.peak;
}

}  // namespace bench

extern "C" void *__wrap_memalign(size_t alignment, size_t size) {
    void *ptr = __real_memalign(alignment, size);
    if (ptr != nullptr && bench::counter().on) bench::track(ptr);
    return ptr;
}

extern "C" void __wrap_free(void *ptr) {
    if (ptr != nullptr && bench::counter().on) bench::untrack(ptr);
    __real_free(ptr);
}
