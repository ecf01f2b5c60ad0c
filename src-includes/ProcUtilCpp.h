// Readers of /proc that answer the questions asked of a running daemon
// family: what is this process (title, command line, started when), which
// process holds this lock file, which process has this abstract socket open,
// what type is the object at this address of that process; and the core-dump
// filter of this process.
//
// None keeps state except a cached boot time, so any thread may call them.
// Every reader takes the caller's trace handle and returns a plain failure
// value (std::nullopt or false) with the errno text traced at level 1 when
// it cannot answer. The owner lookups read one listing (/proc/locks or
// /proc/net/unix) and then make one pass over the descriptors of all
// processes; a process that exits meanwhile, or whose descriptors the caller
// may not see, is skipped (traced at level 9), never reported in another's
// place.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "DebugCpp.h"
#include "KelvoBase.h"

namespace Kelvo {
namespace Util {

// The process's title (comm): at most 15 bytes, blanks and parentheses kept,
// e.g. "kelvod (main)" for a /proc/<pid>/stat that begins
// "4242 (kelvod (main)) S 1 ...".
KELVO_EXPORT std::optional<String> processTitle(Platform::DebugHandler& handle, pid_t pid);

// Every argument of the process's command line, e.g. {"/usr/sbin/kelvod",
// "--config", "a b"}; empty for a kernel thread or a process that is exiting.
KELVO_EXPORT std::optional<std::vector<String>> processCommandLine(Platform::DebugHandler& handle,
                                                                   pid_t pid);

// When a process started: e.g. {secondsSinceBoot 1523.47, wallClock
// 2026-11-23 14:03:11.470 UTC} for a start time of 152347 clock ticks at
// 100 ticks a second and a boot time ("btime" of /proc/stat) of
// 2026-11-23 13:37:48 UTC. The wall-clock time is only as exact as the boot
// time, which the kernel gives in whole seconds.
struct KELVO_EXPORT ProcessStartTime {
    double secondsSinceBoot = 0;
    std::chrono::system_clock::time_point wallClock;
};
KELVO_EXPORT std::optional<ProcessStartTime> processStartTime(Platform::DebugHandler& handle,
                                                              pid_t pid);

// The processes holding a lock on the file at path (an open-file-description
// lock as FileLock takes, or a POSIX or flock lock), in ascending order, e.g.
// {4242}; also {4242, 4250} when 4250 is a forked child of 4242 that shares
// the locked description. Empty when nothing holds a lock on the file.
// std::nullopt when the answer is unknown: path cannot be examined,
// /proc/locks cannot be read, or the file is locked by a process whose
// descriptors the caller may not see.
KELVO_EXPORT std::optional<std::vector<pid_t>> lockOwners(Platform::DebugHandler& handle,
                                                          const String& path);

// The processes with a descriptor open on a socket bound to the abstract
// name (as createAndBindSocket makes; without the leading zero byte), in
// ascending order, e.g. {4242} for the listener of "kelvod.ctl". Connections
// accepted on that listener carry its name and count too. Empty when no
// socket has that name. std::nullopt when /proc/net/unix cannot be read or
// the socket exists but its holders are hidden from the caller. Names are
// those of the caller's network namespace.
KELVO_EXPORT std::optional<std::vector<pid_t>> abstractSocketOwners(Platform::DebugHandler& handle,
                                                                    const String& name);

// Whether process pid has a descriptor open on a socket bound to the
// abstract name: one read of /proc/net/unix and of that process's
// descriptors, so checking the pid a name claims costs the same however many
// processes run, e.g. true for ("kelvod.ctl", 4242) above. false when no
// socket has that name; std::nullopt when the listing or the process's
// descriptors cannot be read (no such process, another user's).
KELVO_EXPORT std::optional<bool> abstractSocketHeldBy(Platform::DebugHandler& handle,
                                                      const String& name, pid_t pid);

// The abstract socket names that start with prefix, sorted and each once,
// e.g. {"kelvod.ctl", "kelvod.stats"} for the prefix "kelvod.". Empty when
// /proc/net/unix cannot be read (traced).
KELVO_EXPORT std::vector<String> abstractSocketNames(Platform::DebugHandler& handle,
                                                     const String& prefix);

// The dynamic type of the polymorphic object at address in process pid,
// which runs the same binary as the caller, e.g. "Kelvo::FileLock" or
// "(anonymous namespace)::Probe". The object's vtable pointer is read with
// process_vm_readv and named by the vtable symbol that covers it, found
// through the caller's own mapping of the file that holds the vtable; a
// vtable without an exported symbol is named by its type_info instead.
// std::nullopt when the memory cannot be read (no such address, no right to
// read it) or what it holds is not the start of a polymorphic object.
KELVO_EXPORT std::optional<String> remoteTypeName(Platform::DebugHandler& handle, pid_t pid,
                                                  uintptr_t address);

// The bits of /proc/self/coredump_filter: which memory a core dump contains.
enum CoreDumpFilterBit : uint32_t {
    coreDumpAnonymousPrivate = 1u << 0,
    coreDumpAnonymousShared = 1u << 1,
    coreDumpFileBackedPrivate = 1u << 2,
    coreDumpFileBackedShared = 1u << 3,
    coreDumpElfHeaders = 1u << 4,
    coreDumpHugePagesPrivate = 1u << 5,
    coreDumpHugePagesShared = 1u << 6,
    coreDumpDaxPrivate = 1u << 7,
    coreDumpDaxShared = 1u << 8,
};
// Every bit the kernel knows.
constexpr uint32_t coreDumpFilterBits = 0x1ff;

// The current mask, e.g. 0x33 (anonymous private and shared, ELF headers,
// private huge pages: the kernel's default).
KELVO_EXPORT std::optional<uint32_t> coreDumpFilter(Platform::DebugHandler& handle);
// Sets the mask, inherited by children forked later. A mask with bits outside
// coreDumpFilterBits is refused (false, traced at level 1) and nothing is
// written.
KELVO_EXPORT bool coreDumpFilterIs(Platform::DebugHandler& handle, uint32_t mask);

}  // namespace Util
}  // namespace Kelvo
