#include "TestSupport.h"
#include <pthread.h>
#include <sys/syscall.h>

using namespace KelvoTest;

namespace {

// (cached id, kernel id, main?) of the calling thread.
std::tuple<pid_t, pid_t, bool> ids() {
    return {Kelvo::gettid(), static_cast<pid_t>(::syscall(SYS_gettid)), Kelvo::isMainThread()};
}

// (kernel's name, cached name) of the calling thread.
std::pair<std::string, std::string> names() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return {name, Kelvo::threadName()};
}

// The id is cached per thread; a forked child must not see its parent's.
TEST(Thread, IdsAreTheKernelsAndOnlyThePidsThreadIsMain) {
    const pid_t pid = ::getpid();
    EXPECT_EQ(ids(), std::tuple(pid, pid, true));
    std::thread([] {
        const auto [cached, kernel, main] = ids();
        EXPECT_EQ(std::pair(cached, main), std::pair(kernel, false));
    }).join();
    EXPECT_TRUE(KelvoTest::runInChild([] {
                    return ids() == std::tuple(::getpid(), ::getpid(), true) ? 0 : 1;
                }).exitedOk());
}

TEST(Thread, OnlyAWorkerIsRenamedAndOnlyWithinTheKernelLimit) {
    const auto before = names();
    Kelvo::threadNameIs("renamed");
    EXPECT_EQ(names(), before);
    std::thread([] {
        Kelvo::threadNameIs("exactly15chars!");
        EXPECT_THAT(
            thrownMessage([] { Kelvo::threadNameIs("twenty-characters-xx"); }),
            testing::HasSubstr("pthread_setname_np() failed:34 for name:twenty-characters-xx"));
        EXPECT_EQ(names(),
                  std::pair(std::string("exactly15chars!"), std::string("exactly15chars!")));
    }).join();
}

// Shown through the timer wheel singleton.
TEST(Thread, SingletonChoiceIsPerThreadAndLockedByFirstUse) {
    const auto shared = Kelvo::getTimerWheel();
    std::thread([&] {
        Kelvo::useThreadLocalSingletons();
        Kelvo::useThreadLocalSingletons();  // again: harmless
        EXPECT_NE(Kelvo::getTimerWheel(), shared);
        Kelvo::useThreadLocalSingletons();  // after use, same choice: harmless
    }).join();
    std::thread([&] {
        EXPECT_EQ(Kelvo::getTimerWheel(), shared);
        EXPECT_THAT(thrownMessage([] { Kelvo::useThreadLocalSingletons(); }),
                    testing::EndsWith("Attempt to change threadLocalSingletons after a global "
                                      "singleton has already been created. Please call "
                                      "useThreadLocalSingletons() immediately after spawning "
                                      "your thread."));
        EXPECT_FALSE(Kelvo::hasThreadLocalSingletons());
    }).join();
}

}  // namespace
