#include <Kelvo/Kelvo.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace {

using Kelvo::Locking::ConditionalGuard;
using Kelvo::Locking::Lock;
using Kelvo::Locking::RecursiveLock;

template <typename F>
auto onOtherThread(F f) {
    decltype(f()) result{};
    std::thread([&] { result = f(); }).join();
    return result;
}

TEST(LockingDeathTest, ReleaseByAnotherThreadNamesBothThreads) {
    EXPECT_DEATH(
        {
            Lock lock;
            lock.lock();
            std::thread([&] { lock.unlock(); }).join();
        },
        "Kelvo::Assert aborting because: .*Lock::unlock\\(\\) attempting to release a lock that "
        "is not currently held, owner:[0-9]+ me:[0-9]+");
    EXPECT_DEATH(Lock().unlock(),
                 "not currently held, owner:thread::id of a non-executing thread me:[0-9]+");
}

TEST(Locking, RecursiveLockIsReleasedByTheOutermostUnlock) {
    RecursiveLock lock;
    for (int i = 0; i < 3; ++i)
        lock.lock();
    EXPECT_EQ(lock.lockCount(), 3u);
    for (int i = 0; i < 2; ++i) {
        lock.unlock();
        EXPECT_TRUE(lock.owns_lock());
        EXPECT_FALSE(onOtherThread([&] { return lock.try_lock(); }));
    }
    lock.unlock();
    EXPECT_FALSE(lock.owns_lock());
    EXPECT_EQ(lock.lockCount(), 0u);
    EXPECT_TRUE(onOtherThread([&] {
        const bool got = lock.try_lock();
        if (got)
            lock.unlock();
        return got;
    }));
    EXPECT_DEATH(lock.unlock(), "not currently held, owner:.* me:[0-9]+ lockCount:0");
}

TEST(Locking, ConditionalGuardReleasesOnlyWhatItStillHolds) {
    Lock lock;
    { ConditionalGuard guard(lock); }
    EXPECT_FALSE(lock.owns_lock());
    {
        ConditionalGuard guard(lock);
        guard.releaseIs(false);
    }
    EXPECT_TRUE(lock.owns_lock());
    lock.unlock();
    {
        // Released early by its owner: a second release would be fatal.
        ConditionalGuard guard(lock);
        lock.unlock();
    }
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST(Loco, OneRecursiveLockForTheWholeProcess) {
    Kelvo::Platform::Loco& loco = Kelvo::Platform::loco();
    EXPECT_EQ(onOtherThread([] { return &Kelvo::Platform::loco(); }), &loco);
    {
        Kelvo::Platform::LocoGuard outer;
        Kelvo::Platform::LocoGuard inner;
        EXPECT_TRUE(loco.owns_lock());
        EXPECT_FALSE(onOtherThread([&] { return loco.owns_lock(); }));
    }
    EXPECT_FALSE(loco.owns_lock());
}

struct TracesAtExit {
    ~TracesAtExit() {
        Kelvo::Platform::LocoGuard guard;
        ::write(STDERR_FILENO, "loco still usable\n", 18);
    }
};

TEST(LocoDeathTest, UsableFromStaticDestructors) {
    EXPECT_EXIT(
        {
            static TracesAtExit atExit;
            std::exit(0);
        },
        testing::ExitedWithCode(0), "loco still usable");
}

}  // namespace
