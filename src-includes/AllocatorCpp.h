// The library's counting allocator. Every shared object the library creates
// (event-loop controls, timer wheels, tasks it owns, snapshots) comes from
// allocateShared<T>(), which puts the object and its shared count in one block
// and counts, per type, the blocks and bytes alive. A daemon author reads the
// figures with MemTrack::usage() to see what the library holds, or to find a
// leak; a daemon's own types may use the same allocator.
//
// Threads: any thread may allocate, free and read. The counters are relaxed
// atomics, so counting takes no lock; a figure is exact once the threads that
// allocate are quiet, and a reading taken meanwhile may see one counter of a
// record ahead of another.
//
// Ownership: one MemTrack per counted type (per shared object that
// instantiates it), in static storage and never freed; usage() merges the
// records of one type by name. A plug-in that allocates through Allocator must
// stay loaded while usage() may be called, since its records are linked into
// the process-wide list.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <typeinfo>
#include <utility>
#include <vector>

#include "KelvoBase.h"

namespace Kelvo {

// What one type holds: blocks and bytes alive, and blocks ever allocated.
struct MemUsage {
    String typeName;
    uint64_t liveObjects = 0;
    uint64_t liveBytes = 0;
    uint64_t allocations = 0;
};

class KELVO_EXPORT MemTrack {
  public:
    // The record of type T, created and linked on first use.
    template <class T>
    static MemTrack& of() {
        static MemTrack track(typeid(T).name());
        return track;
    }

    // Every type that has allocated since the process started, one entry per
    // type name, sorted by name.
    static std::vector<MemUsage> usage();
    // The figures of one type by its readable name (see typeName()); all zero
    // when that type never allocated.
    static MemUsage usage(const String& typeName);

    void allocated(std::size_t bytes) noexcept {
        liveObjects_.fetch_add(1, std::memory_order_relaxed);
        liveBytes_.fetch_add(bytes, std::memory_order_relaxed);
        allocations_.fetch_add(1, std::memory_order_relaxed);
    }
    void released(std::size_t bytes) noexcept {
        liveObjects_.fetch_sub(1, std::memory_order_relaxed);
        liveBytes_.fetch_sub(bytes, std::memory_order_relaxed);
    }

    uint64_t liveObjects() const noexcept { return liveObjects_.load(std::memory_order_relaxed); }
    uint64_t liveBytes() const noexcept { return liveBytes_.load(std::memory_order_relaxed); }
    uint64_t allocations() const noexcept { return allocations_.load(std::memory_order_relaxed); }

    MemTrack(const MemTrack&) = delete;
    MemTrack& operator=(const MemTrack&) = delete;

  private:
    // Links the record at the head of the process-wide list.
    explicit MemTrack(const char* mangledName) noexcept;

    const char* mangledName_;
    std::atomic<uint64_t> liveObjects_{0};
    std::atomic<uint64_t> liveBytes_{0};
    std::atomic<uint64_t> allocations_{0};
    MemTrack* next_ = nullptr;
};

// A standard allocator that counts every block against Tag. Rebinding keeps the
// tag, so the shared-count block of allocateShared<T>() is counted as T.
template <class T, class Tag = T>
class Allocator {
  public:
    using value_type = T;
    template <class U>
    struct rebind {
        using other = Allocator<U, Tag>;
    };

    Allocator() noexcept = default;
    template <class U>
    Allocator(const Allocator<U, Tag>&) noexcept {}

    T* allocate(std::size_t n) {
        if (n > std::size_t(-1) / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        void* block;
        if constexpr (alignof(T) > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
            block = ::operator new(n * sizeof(T), std::align_val_t(alignof(T)));
        } else {
            block = ::operator new(n * sizeof(T));
        }
        MemTrack::of<Tag>().allocated(n * sizeof(T));
        return static_cast<T*>(block);
    }

    void deallocate(T* block, std::size_t n) noexcept {
        MemTrack::of<Tag>().released(n * sizeof(T));
        if constexpr (alignof(T) > __STDCPP_DEFAULT_NEW_ALIGNMENT__) {
            ::operator delete(block, std::align_val_t(alignof(T)));
        } else {
            ::operator delete(block);
        }
    }

    template <class U>
    bool operator==(const Allocator<U, Tag>&) const noexcept {
        return true;
    }
};

// T and its shared count in one counted block.
template <class T, class... Args>
std::shared_ptr<T> allocateShared(Args&&... args) {
    return std::allocate_shared<T>(Allocator<T>(), std::forward<Args>(args)...);
}

}  // namespace Kelvo
