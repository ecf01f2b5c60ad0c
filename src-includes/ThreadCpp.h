// Thread identity and the per-thread choice of singletons. Every function acts
// on the calling thread and may be called from any thread.
#pragma once

#include <sys/types.h>

#include <thread>

#include "KelvoBase.h"

namespace Kelvo {

// Kernel thread id of the calling thread.
KELVO_EXPORT pid_t gettid() noexcept;
// True on the thread whose kernel id equals the process id.
KELVO_EXPORT bool isMainThread() noexcept;
// The calling thread's name, cached after the first call.
KELVO_EXPORT const char* threadName();
// Names the calling thread (at most 15 characters); a no-op on the main thread,
// whose name is the process name.
KELVO_EXPORT void threadNameIs(const char* name);
// Unsigned decimal form of an id, or "thread::id of a non-executing thread".
KELVO_EXPORT String toThreadIdString(std::thread::id id);

// Asks for per-thread singletons (timer wheel and the like). Must come before
// the thread's first use of any such singleton.
KELVO_EXPORT void useThreadLocalSingletons();
// Locks the choice for this thread and returns it.
KELVO_EXPORT bool hasThreadLocalSingletons() noexcept;
// Auxiliary threads: threads that act on another thread's schedulers while
// that thread waits for them (helpers of a blocking call, test drivers).
// They register for as long as they do so; the schedulers' thread checks are
// off while any is registered. Any thread; the count is an atomic.
KELVO_EXPORT void auxiliaryThreadRegister() noexcept;
KELVO_EXPORT void auxiliaryThreadUnregister() noexcept;
KELVO_EXPORT bool auxiliaryThreadsRegistered() noexcept;

// Accepted for compatibility; has no effect.
KELVO_EXPORT void threadSafePointerIs(bool threadSafe) noexcept;

}  // namespace Kelvo
