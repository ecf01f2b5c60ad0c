#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/ThreadCpp.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <sstream>

namespace Kelvo {
namespace {

// The kernel id is cached per thread because every trace line prints it; the
// child of a fork() runs on a new id, so the cache is dropped there.
thread_local pid_t cachedTid_ = 0;
thread_local char threadName_[16];
thread_local bool threadNameCached_ = false;
thread_local bool threadLocalSingletons_ = false;
thread_local bool threadLocalSingletonsLocked_ = false;

void forgetTidInChild() noexcept {
    cachedTid_ = 0;
}

struct RegisterTidReset {
    RegisterTidReset() { pthread_atfork(nullptr, nullptr, forgetTidInChild); }
} registerTidReset;

}  // namespace

pid_t gettid() noexcept {
    if (cachedTid_ == 0) {
        cachedTid_ = static_cast<pid_t>(::syscall(SYS_gettid));
    }
    return cachedTid_;
}

bool isMainThread() noexcept {
    return gettid() == ::getpid();
}

const char* threadName() {
    if (!threadNameCached_) {
        const int rc = pthread_getname_np(pthread_self(), threadName_, sizeof threadName_);
        KELVO_ASSERT(rc == 0, "pthread_getname_np() failed:{}", rc);
        threadNameCached_ = true;
    }
    return threadName_;
}

void threadNameIs(const char* name) {
    if (isMainThread()) {
        return;
    }
    const int rc = pthread_setname_np(pthread_self(), name);
    KELVO_ASSERT(rc == 0, "pthread_setname_np() failed:{} for name:{}", rc, name);
    std::strncpy(threadName_, name, sizeof threadName_);
    threadName_[sizeof threadName_ - 1] = '\0';
    threadNameCached_ = true;
}

String toThreadIdString(std::thread::id id) {
    // The standard library prints the native id in decimal, and the id of no
    // thread as "thread::id of a non-executing thread".
    std::ostringstream out;
    out << id;
    return out.str();
}

void useThreadLocalSingletons() {
    KELVO_ASSERT(threadLocalSingletons_ || !threadLocalSingletonsLocked_,
                 "Attempt to change threadLocalSingletons after a global singleton has already "
                 "been created. Please call useThreadLocalSingletons() immediately after "
                 "spawning your thread.");
    threadLocalSingletons_ = true;
}

bool hasThreadLocalSingletons() noexcept {
    threadLocalSingletonsLocked_ = true;
    return threadLocalSingletons_;
}

namespace {
std::atomic<unsigned> auxiliaryThreads{0};
}  // namespace

void auxiliaryThreadRegister() noexcept {
    auxiliaryThreads.fetch_add(1, std::memory_order_relaxed);
}

void auxiliaryThreadUnregister() noexcept {
    auxiliaryThreads.fetch_sub(1, std::memory_order_relaxed);
}

bool auxiliaryThreadsRegistered() noexcept {
    return auxiliaryThreads.load(std::memory_order_relaxed) != 0;
}

void threadSafePointerIs(bool) noexcept {}

}  // namespace Kelvo
