// Small file, path and local-socket helpers shared by the library and the
// daemons built on it.
//
// Each helper reports trouble on the caller's trace handle: level 0 for real
// failures, 5 for routine outcomes, 9 for step-by-step detail (socket helpers
// trace at level 2). Helpers returning bool, a size or an int turn system-call
// failures into that result; the few that must not fail silently throw
// RuntimeException or fail an assertion. None keeps state except the cached
// send-buffer limit, so any thread may call them; file-system races are the
// caller's.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "DebugCpp.h"
#include "KelvoBase.h"

namespace Kelvo {
namespace Util {

// Creates path (mode 0666, umask applies) if absent and closes it; contents
// and times are left alone.
KELVO_EXPORT bool touch(Platform::DebugHandler& handle, const String& path);
// Replaces the contents of path with data in one write(); a short write is
// traced, not retried. Throws RuntimeException(path) on failure unless
// ignoreErrors.
KELVO_EXPORT void fileWrite(Platform::DebugHandler& handle, const String& path, const String& data,
                            bool ignoreErrors);
// The whole file, or "" when it cannot be opened or read. ignoreErrors only
// chooses how loudly that is traced: level 5 when set (an optional file),
// level 0 otherwise.
KELVO_EXPORT String fileRead(Platform::DebugHandler& handle, const String& path, bool ignoreErrors);
// stat() succeeds: a dangling symbolic link does not exist.
KELVO_EXPORT bool fileExists(Platform::DebugHandler& handle, const String& path);
// unlink(); a missing file is not an error and returns true.
KELVO_EXPORT bool fileRemove(Platform::DebugHandler& handle, const String& path);
// 0 when the file cannot be examined.
KELVO_EXPORT uint64_t fileSize(Platform::DebugHandler& handle, const String& path);
KELVO_EXPORT uint64_t fileSize(Platform::DebugHandler& handle, int fd);
// ftruncate(fd, length); path only names the file in the trace.
KELVO_EXPORT int truncate(Platform::DebugHandler& handle, const String& path, int fd,
                          size_t length);
// entries * entrySize + extra; RuntimeException on unsigned 64-bit overflow.
KELVO_EXPORT uint64_t fileSizeHelper(uint64_t entries, uint64_t entrySize, uint64_t extra);

// mkdir -p: 0 when path was created, -1 with errno EEXIST when it already
// existed, -1 with errno set on any other failure.
KELVO_EXPORT int mkpath(const String& path, mode_t mode);
// Removes, deepest first, the empty directories that trailingPath adds to
// the end of absolutePath (the inverse of mkpath for that tail). Argument
// errors fail an assertion; an rmdir() failure other than ENOENT returns false.
KELVO_EXPORT bool trimpath(const String& absolutePath, const String& trailingPath);
// The working directory; RuntimeException when getcwd() fails.
KELVO_EXPORT String getCwd(Platform::DebugHandler& handle);

// Six characters, least significant 6-bit group first, through the alphabet
// A-Z a-z 0-9 _ = ; not RFC 4648 Base64.
KELVO_EXPORT String base64Encode(uint32_t value);
// The bytes of magic in little-endian order up to the first zero byte.
KELVO_EXPORT String decodeMagic(uint64_t magic);

// socket(2) in the default network namespace (NetNs.h), so that peers
// running in other namespaces meet on the same abstract names. The calling
// thread is back in its own namespace on return. Negative with errno set on
// failure; RuntimeException when the thread cannot be returned.
KELVO_EXPORT int socket(Platform::DebugHandler& handle, int domain, int type, int protocol);
// Fills the sockaddr_un at address with the abstract name (at most 107
// bytes, longer names are cut) and returns the address length to pass to
// bind() or connect().
KELVO_EXPORT int createSockaddr(Platform::DebugHandler& handle, void* address, const String& name);
// A SOCK_SEQPACKET socket bound to the abstract name; the caller owns it.
// RuntimeException when the name is taken.
KELVO_EXPORT int createAndBindSocket(Platform::DebugHandler& handle, const String& name);
// SO_SNDBUF; the kernel applies its own limit. Bad arguments or a failed
// setsockopt() fail an assertion.
KELVO_EXPORT void setSocketSendBufferSize(int sd, int size);
// /proc/sys/net/core/wmem_max, or 8 MiB when it does not exist; computed
// once per process.
KELVO_EXPORT int SYSTEM_MAX_SEND_BUFFER_SIZE();

}  // namespace Util
}  // namespace Kelvo
