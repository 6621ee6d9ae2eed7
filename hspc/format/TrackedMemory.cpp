#include "hspc/format/TrackedMemory.h"

#include <atomic>

namespace HSPC
{
namespace
{

// The one process-wide figure that every stage's memory test reads. Relaxed ordering suffices: the count
// guards no other data, and a reader only needs a recent value.
std::atomic<uint64_t> trackedBytes{0};

}  // namespace

uint64_t trackedByteCount()
{
    return trackedBytes.load(std::memory_order_relaxed);
}

namespace tracked_memory
{

void add(uint64_t bytes)
{
    trackedBytes.fetch_add(bytes, std::memory_order_relaxed);
}

void remove(uint64_t bytes)
{
    trackedBytes.fetch_sub(bytes, std::memory_order_relaxed);
}

}  // namespace tracked_memory
}  // namespace HSPC
