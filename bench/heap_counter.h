// Counts the heap that the library holds: its only allocator calls are
// memalign and free in the support layer, which the benchmark links with
// --wrap so that they pass through here.
#pragma once

#include <cstddef>

namespace bench {

// Starts counting from zero; allocations made before are not tracked.
void heapCountStart();
// Stops counting; returns the peak of bytes held (usable sizes).
size_t heapCountStop();

}  // namespace bench
