// Owner-checking locks and the library-wide global lock (the "loco").
//
// Lock and RecursiveLock remember the thread that holds them, so a release by
// any other thread is caught at once and ends the process. Any thread may use
// them; the objects are owned by whoever declares them. The global lock is
// created on first use and never destroyed, so it stays usable from static
// destructors and exit handlers.
#pragma once

#include <pthread.h>

#include <atomic>
#include <thread>

#include "KelvoBase.h"

namespace Kelvo {
namespace Locking {

class KELVO_EXPORT Lock {
  public:
    Lock() noexcept;
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

    // Raises std::system_error when the mutex reports a failure.
    void lock();
    bool try_lock() noexcept;
    // A release by a thread that does not hold the lock is fatal.
    void unlock() noexcept;
    bool owns_lock() const noexcept {
        return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }

  private:
    pthread_mutex_t mutex_;
    // Written only by the holder while it holds the mutex; other threads only
    // compare it with their own id, so a stale read never grants ownership.
    std::atomic<std::thread::id> owner_;
};

class KELVO_EXPORT RecursiveLock {
  public:
    RecursiveLock() noexcept;
    ~RecursiveLock();
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    void lock();
    bool try_lock() noexcept;
    // Releases one hold; the outermost release clears the owner.
    void unlock() noexcept;
    bool owns_lock() const noexcept {
        return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id();
    }
    // Nested holds by the owner; 0 when free.
    unsigned lockCount() const noexcept { return count_.load(std::memory_order_relaxed); }

  private:
    pthread_mutex_t mutex_;
    std::atomic<std::thread::id> owner_;
    // The mutex does not expose its own count portably, so the owner keeps one:
    // incremented after each successful lock, decremented before each unlock.
    std::atomic<unsigned> count_{0};
};

// Locks on construction; unlocks on destruction unless told not to, or unless
// the lock was already released by its owner.
class KELVO_EXPORT ConditionalGuard {
  public:
    explicit ConditionalGuard(Lock& lock);
    ~ConditionalGuard();
    ConditionalGuard(const ConditionalGuard&) = delete;
    ConditionalGuard& operator=(const ConditionalGuard&) = delete;

    void releaseIs(bool release) noexcept { release_ = release; }
    bool release() const noexcept { return release_; }

  private:
    Lock& lock_;
    bool release_ = true;
};

}  // namespace Locking

namespace Platform {

// The global lock's interface.
class KELVO_EXPORT Loco {
  public:
    virtual void lock() = 0;
    virtual void unlock() noexcept = 0;
    virtual bool owns_lock() const noexcept = 0;
    virtual ~Loco();
};

// The one global lock of the process.
KELVO_EXPORT Loco& loco() noexcept;

class KELVO_EXPORT LocoGuard {
  public:
    LocoGuard() : loco_(loco()) { loco_.lock(); }
    ~LocoGuard() { loco_.unlock(); }
    LocoGuard(const LocoGuard&) = delete;
    LocoGuard& operator=(const LocoGuard&) = delete;

  private:
    Loco& loco_;
};

}  // namespace Platform

// The global lock: a recursive owner-checking lock.
class KELVO_EXPORT Loco : public Platform::Loco {
  public:
    void lock() override { lock_.lock(); }
    void unlock() noexcept override { lock_.unlock(); }
    bool owns_lock() const noexcept override { return lock_.owns_lock(); }
    unsigned lockCount() const noexcept { return lock_.lockCount(); }

  private:
    Locking::RecursiveLock lock_;
};

}  // namespace Kelvo
