#include "TestSupport.h"

#include <future>

using namespace KelvoTest;

namespace {

using Kelvo::Locking::ConditionalGuard;
using Kelvo::Locking::Lock;
using Kelvo::Locking::RecursiveLock;
namespace Platform = Kelvo::Platform;

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
        return std::async(std::launch::async,
                          [&] { return lock.try_lock() && (lock.unlock(), true); })
            .get();
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
    for (int how : {0, 1, 2}) {  // releases, is told not to, finds it released by its owner
        {
            ConditionalGuard guard(lock);
            guard.releaseIs(how != 1);
            if (how == 2)
                lock.unlock();  // a second release would be fatal
        }
        EXPECT_EQ(lock.owns_lock(), how == 1) << how;
        if (how == 1)
            lock.unlock();
    }
}

// One recursive lock for the whole process, usable from static destructors;
// its release by the outermost guard is the recursive lock's, checked above.
TEST(LocoDeathTest, OneLockForTheWholeProcessUsableAtExit) {
    {
        Platform::LocoGuard outer, inner;
        const auto other = [] {
            return std::pair(&Platform::loco(), Platform::loco().owns_lock());
        };
        EXPECT_EQ(std::async(std::launch::async, other).get(), std::pair(&Platform::loco(), false));
        EXPECT_EQ(other(), std::pair(&Platform::loco(), true));
    }
    struct LocksAtExit {
        ~LocksAtExit() {
            Platform::LocoGuard guard;
            ::write(STDERR_FILENO, "loco still usable\n", 18);
        }
    };
    EXPECT_EXIT(
        {
            static LocksAtExit atExit;
            std::exit(0);
        },
        testing::ExitedWithCode(0), "loco still usable");
}

}  // namespace
