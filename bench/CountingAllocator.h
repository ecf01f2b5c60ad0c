// Counts the program's heap allocations by replacing the global allocator.
// Include it in exactly one source file of a benchmark program.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

// Every allocation made since the program started.
inline std::atomic<uint64_t> allocations{0};

// Out of line, and with the warning off: the replaced operators pair malloc
// with free, which the compiler cannot see across an inlined call.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
[[gnu::noinline]] void* operator new(size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) {
    return operator new(size);
}
[[gnu::noinline]] void operator delete(void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
[[gnu::noinline]] void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}
#pragma GCC diagnostic pop
