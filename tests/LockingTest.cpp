#include "TestSupport.h"

using namespace KelvoTest;

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

// unlock() is noexcept: a failed owner check ends the process in either
// assertion mode; the aborting one prints the message plainly.
TEST(LockingDeathTest, ReleaseByAnotherThreadNamesBothThreads) {
    EXPECT_DEATH(
        {
            Kelvo::throwOnAssertFailIs(false);
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
    const auto takenElsewhere = [&] {
        return onOtherThread([&] { return lock.try_lock() && (lock.unlock(), true); });
    };
    for (int i = 0; i < 3; ++i)
        lock.lock();
    for (unsigned held = 3; held > 0; --held, lock.unlock())
        EXPECT_EQ(std::tuple(lock.lockCount(), lock.owns_lock(), takenElsewhere()),
                  std::tuple(held, true, false));
    EXPECT_EQ(std::tuple(lock.lockCount(), lock.owns_lock(), takenElsewhere()),
              std::tuple(0u, false, true));
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

// Its release by the outermost guard is the recursive lock's, checked above.
TEST(Loco, OneRecursiveLockForTheWholeProcess) {
    Kelvo::Platform::LocoGuard outer, inner;
    Kelvo::Platform::Loco& loco = Kelvo::Platform::loco();
    EXPECT_EQ(onOtherThread([] { return &Kelvo::Platform::loco(); }), &loco);
    EXPECT_EQ(std::pair(loco.owns_lock(), onOtherThread([&] { return loco.owns_lock(); })),
              std::pair(true, false));
}

struct LocksAtExit {
    ~LocksAtExit() {
        Kelvo::Platform::LocoGuard guard;
        ::write(STDERR_FILENO, "loco still usable\n", 18);
    }
};

TEST(LocoDeathTest, UsableFromStaticDestructors) {
    EXPECT_EXIT(
        {
            static LocksAtExit atExit;
            std::exit(0);
        },
        testing::ExitedWithCode(0), "loco still usable");
}

}  // namespace
