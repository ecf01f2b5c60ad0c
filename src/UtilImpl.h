// Internals of the Util module that tests reach directly.
#pragma once

#include <Kelvo/DebugCpp.h>

namespace Kelvo {
namespace Impl {

// The "KelvoUtil" handle, for helpers that take none from their caller.
Platform::DebugHandler& utilHandle();

// Util::socket with the file that names the caller's own network namespace
// given explicitly, so that a missing or unreadable one can be exercised.
int socketInDefaultNs(Platform::DebugHandler& handle, const char* selfNsPath, int domain, int type,
                      int protocol);

// The uncached send-buffer limit read from path (8 MiB when path does not
// exist); std::stoi's exceptions on text that is not a number.
int maxSendBufferSize(const String& path);

}  // namespace Impl
}  // namespace Kelvo
