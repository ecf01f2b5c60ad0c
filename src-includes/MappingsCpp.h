// A process's memory mappings as its /proc/<pid>/maps file lists them, and
// its mapped and resident totals from /proc/<pid>/status.
//
// Mappings is a snapshot: a value that owns its entries and never changes
// after it is read, so any thread may read it. The readers keep no state;
// any thread may call them. A process that is gone, or whose files the
// caller may not read, gives std::nullopt with the errno text traced at
// level 1 on the caller's handle; a malformed line is skipped and traced at
// level 1.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "DebugCpp.h"
#include "KelvoBase.h"

namespace Kelvo {

// One line of a maps file, e.g.
//   7f3a1c200000-7f3a1c228000 r--p 00000000 fe:00 1837 /usr/lib/x86_64-linux-gnu/libc.so.6
// is {start 0x7f3a1c200000, end 0x7f3a1c228000, permissions "r--p", offset 0,
// devMajor 0xfe, devMinor 0, inode 1837, path "/usr/lib/x86_64-linux-gnu/libc.so.6",
// deleted false}. Anonymous mappings have an empty path; the kernel's own
// ones are named "[heap]", "[stack]", "[vdso]" and so on. A path keeps its
// blanks; the kernel's " (deleted)" suffix is removed and sets deleted.
struct KELVO_EXPORT Mapping {
    uintptr_t start = 0;           // first byte
    uintptr_t end = 0;             // one past the last byte
    char permissions[5] = "----";  // r, w, x, then p (private) or s (shared)
    uint64_t offset = 0;           // of start within the mapped file
    unsigned devMajor = 0;
    unsigned devMinor = 0;
    uint64_t inode = 0;  // 0 for anonymous mappings
    String path;
    bool deleted = false;

    uint64_t size() const noexcept { return end - start; }
    bool contains(uintptr_t address) const noexcept { return address >= start && address < end; }
    bool readable() const noexcept { return permissions[0] == 'r'; }
    bool writable() const noexcept { return permissions[1] == 'w'; }
    bool executable() const noexcept { return permissions[2] == 'x'; }
    bool shared() const noexcept { return permissions[3] == 's'; }
    // Backed by a file of the file system, as opposed to anonymous memory or
    // a kernel-named region.
    bool fileBacked() const noexcept { return inode != 0 && !path.empty() && path[0] == '/'; }
};

class KELVO_EXPORT Mappings {
  public:
    Mappings() = default;
    // entries in ascending address order, not overlapping (as the kernel
    // lists them).
    explicit Mappings(std::vector<Mapping> entries) : entries_(std::move(entries)) {}

    const std::vector<Mapping>& entries() const noexcept { return entries_; }
    // The mapping that holds address, or nullptr; a binary search.
    const Mapping* containing(uintptr_t address) const noexcept;

  private:
    std::vector<Mapping> entries_;
};

// Reads /proc/<pid>/maps once.
KELVO_EXPORT std::optional<Mappings> readMappings(Platform::DebugHandler& handle, pid_t pid);

// VmSize and VmRSS of /proc/<pid>/status, in bytes, e.g. {mappedBytes
// 223703040, residentBytes 9437184} for "VmSize: 218460 kB" and
// "VmRSS: 9216 kB". Kernel threads, which have neither, give std::nullopt.
struct KELVO_EXPORT MemoryFigures {
    uint64_t mappedBytes = 0;
    uint64_t residentBytes = 0;
};
KELVO_EXPORT std::optional<MemoryFigures> memoryFigures(Platform::DebugHandler& handle, pid_t pid);

}  // namespace Kelvo
