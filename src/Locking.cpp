#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/LockingCpp.h>
#include <Kelvo/ThreadCpp.h>

#include <system_error>

namespace Kelvo {
namespace Locking {

namespace {
const std::thread::id noThread{};

void initMutex(pthread_mutex_t& mutex, int kind) noexcept {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, kind);
    pthread_mutex_init(&mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

void lockMutex(pthread_mutex_t& mutex) {
    if (const int rc = pthread_mutex_lock(&mutex); rc != 0) {
        throw std::system_error(rc, std::generic_category());
    }
}
}  // namespace

Lock::Lock() noexcept : owner_(noThread) {
    initMutex(mutex_, PTHREAD_MUTEX_DEFAULT);
}

Lock::~Lock() {
    pthread_mutex_destroy(&mutex_);
}

void Lock::lock() {
    lockMutex(mutex_);
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

bool Lock::try_lock() noexcept {
    if (pthread_mutex_trylock(&mutex_) != 0) {
        return false;
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    return true;
}

// noexcept: a failed check here ends the process even when assertions throw.
void Lock::unlock() noexcept {
    const std::thread::id me = std::this_thread::get_id();
    const std::thread::id owner = owner_.load(std::memory_order_relaxed);
    KELVO_ASSERTM(owner == me,
                  "attempting to release a lock that is not currently held, owner:{} me:{}",
                  toThreadIdString(owner), toThreadIdString(me));
    owner_.store(noThread, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex_);
}

RecursiveLock::RecursiveLock() noexcept : owner_(noThread) {
    initMutex(mutex_, PTHREAD_MUTEX_RECURSIVE_NP);
}

RecursiveLock::~RecursiveLock() {
    pthread_mutex_destroy(&mutex_);
}

// Only the holder changes the count, and only while it holds the mutex, so a
// plain load and store suffice.
void RecursiveLock::lock() {
    lockMutex(mutex_);
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

bool RecursiveLock::try_lock() noexcept {
    if (pthread_mutex_trylock(&mutex_) != 0) {
        return false;
    }
    owner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
    count_.store(count_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
}

void RecursiveLock::unlock() noexcept {
    const std::thread::id me = std::this_thread::get_id();
    const std::thread::id owner = owner_.load(std::memory_order_relaxed);
    const unsigned count = count_.load(std::memory_order_relaxed);
    KELVO_ASSERTM(
        owner == me && count != 0,
        "attempting to release a lock that is not currently held, owner:{} me:{} lockCount:{}",
        toThreadIdString(owner), toThreadIdString(me), count);
    if (count == 1) {
        owner_.store(noThread, std::memory_order_relaxed);
    }
    count_.store(count - 1, std::memory_order_relaxed);
    pthread_mutex_unlock(&mutex_);
}

ConditionalGuard::ConditionalGuard(Lock& lock) : lock_(lock) {
    lock_.lock();
}

ConditionalGuard::~ConditionalGuard() {
    if (release_ && lock_.owns_lock()) {
        lock_.unlock();
    }
}

}  // namespace Locking
}  // namespace Kelvo
