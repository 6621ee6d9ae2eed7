// Memory that a conversion accounts for. Node buffers, work lists and other bulk data of the conversion
// stages live in HSPCBuffer, a std::vector whose allocations are counted in one process-wide byte count; the
// stages compare that count with their memory limit before they read more input.
//
// The count is of allocated capacity, not of elements in use: a buffer counts from its allocation to its
// release, a move hands it on without touching the count. It is atomic, so buffers may be made, grown and
// freed on any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace HSPC
{

// Bytes held by all tracked allocations of the process right now.
uint64_t trackedByteCount();

namespace tracked_memory
{
void add(uint64_t bytes);
void remove(uint64_t bytes);
}  // namespace tracked_memory

template <typename T>
class TrackedAllocator
{
public:
    using value_type = T;

    TrackedAllocator() noexcept = default;
    template <typename U>
    TrackedAllocator(const TrackedAllocator<U>&) noexcept
    {
    }

    T* allocate(std::size_t count)
    {
        T* memory = std::allocator<T>().allocate(count);
        tracked_memory::add(uint64_t(count) * sizeof(T));
        return memory;
    }

    void deallocate(T* memory, std::size_t count) noexcept
    {
        tracked_memory::remove(uint64_t(count) * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }

    // Stateless: memory from one allocator may be freed by any other.
    template <typename U>
    friend bool operator==(const TrackedAllocator&, const TrackedAllocator<U>&) noexcept
    {
        return true;
    }
};

template <typename T>
using HSPCBuffer = std::vector<T, TrackedAllocator<T>>;

}  // namespace HSPC
