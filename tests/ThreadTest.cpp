#include "TestSupport.h"
#include <pthread.h>
#include <sys/syscall.h>

using namespace KelvoTest;

namespace {

// Whether the calling thread's cached id is the kernel's and it is main as
// told. The id is cached per thread; a forked child must not see its parent's.
bool ownIds(bool main) {
    const pid_t kernel = static_cast<pid_t>(::syscall(SYS_gettid));
    return Kelvo::gettid() == kernel && Kelvo::isMainThread() == main;
}

// The kernel's and the cached name of the calling thread.
std::string names() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return std::string(name) + "/" + Kelvo::threadName();
}

// The singleton choice is shown through the timer wheel singleton.
TEST(Thread, IdentityAndNameAreTheThreadsOwnAndTheSingletonChoiceIsLockedByFirstUse) {
    const auto shared = Kelvo::getTimerWheel();
    const std::string before = names();
    Kelvo::threadNameIs("renamed");
    EXPECT_EQ(names(), before) << "the main thread keeps its name";
    EXPECT_TRUE(ownIds(true));
    EXPECT_TRUE(runInChild([] { return ownIds(true) ? 0 : 1; }).exitedOk());
    std::thread([&] {
        EXPECT_TRUE(ownIds(false));
        Kelvo::threadNameIs("exactly15chars!");
        EXPECT_THAT(thrownMessage([] { Kelvo::threadNameIs("twenty-characters-xx"); }),
                    HasSubstr("pthread_setname_np() failed:34 for name:twenty-characters-xx"));
        EXPECT_EQ(names(), "exactly15chars!/exactly15chars!");
        Kelvo::useThreadLocalSingletons();
        EXPECT_NE(Kelvo::getTimerWheel(), shared);
        Kelvo::useThreadLocalSingletons();  // again, after use: harmless
    }).join();
    std::thread([&] {
        EXPECT_EQ(Kelvo::getTimerWheel(), shared);
        EXPECT_THAT(thrownMessage([] { Kelvo::useThreadLocalSingletons(); }),
                    EndsWith("Attempt to change threadLocalSingletons after a global singleton "
                             "has already been created. Please call useThreadLocalSingletons() "
                             "immediately after spawning your thread."));
        EXPECT_FALSE(Kelvo::hasThreadLocalSingletons());
    }).join();
}

}  // namespace
