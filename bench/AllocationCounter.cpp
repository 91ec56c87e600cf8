#include "AllocationCounter.h"

#include <atomic>
#include <cstddef>

// The executable's own malloc family comes first in symbol lookup, for the
// library and Qt as for this program, and forwards to the C library's.
// NOLINTBEGIN(bugprone-reserved-identifier): glibc's own entry points
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void __libc_free(void* pointer);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

std::atomic<bool> s_counting{false};
std::atomic<std::int64_t> s_allocations{0};
std::atomic<std::int64_t> s_releases{0};

void count(std::atomic<std::int64_t>& counter)
{
    if (s_counting.load(std::memory_order_relaxed))
        counter.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

extern "C" {

void* malloc(std::size_t size)
{
    count(s_allocations);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    ::count(s_allocations);
    return __libc_calloc(count, size);
}

void* realloc(void* pointer, std::size_t size)
{
    if (!pointer)
        count(s_allocations);
    return __libc_realloc(pointer, size);
}

void free(void* pointer)
{
    if (pointer)
        count(s_releases);
    __libc_free(pointer);
}

} // extern "C"

namespace quilbench {

void countAllocations(bool on) { s_counting.store(on, std::memory_order_relaxed); }

AllocationCount allocationCount()
{
    return {s_allocations.load(std::memory_order_relaxed), s_releases.load(std::memory_order_relaxed)};
}

} // namespace quilbench
