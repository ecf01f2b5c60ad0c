#include <Kelvo/Kelvo.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace {

const bool assertsThrow = (Kelvo::throwOnAssertFailIs(true), true);

template <typename F>
void onNewThread(F f) {
    std::thread(f).join();
}

std::string kernelName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST(Thread, OnlyTheThreadWhoseIdIsThePidIsMain) {
    EXPECT_TRUE(Kelvo::isMainThread());
    EXPECT_EQ(Kelvo::gettid(), ::getpid());
    onNewThread([] {
        EXPECT_FALSE(Kelvo::isMainThread());
        EXPECT_EQ(Kelvo::gettid(), static_cast<pid_t>(::syscall(SYS_gettid)));
    });
}

TEST(Thread, ForkedChildSeesItsOwnThreadId) {
    (void)Kelvo::gettid();  // fill the parent's cache first
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(Kelvo::gettid() == ::getpid() && Kelvo::isMainThread() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Thread, MainThreadNameIsNeverChanged) {
    const std::string before = kernelName();
    const std::string cached = Kelvo::threadName();
    Kelvo::threadNameIs("renamed");
    EXPECT_EQ(kernelName(), before);
    EXPECT_EQ(Kelvo::threadName(), cached);
}

TEST(Thread, WorkerNameReachesKernelAndCacheWithinItsLimit) {
    onNewThread([] {
        Kelvo::threadNameIs("exactly15chars!");
        EXPECT_EQ(kernelName(), "exactly15chars!");
        EXPECT_STREQ(Kelvo::threadName(), "exactly15chars!");
        try {
            Kelvo::threadNameIs("twenty-characters-xx");
            ADD_FAILURE() << "a 20-character name was accepted";
        } catch (const Kelvo::AssertException& e) {
            EXPECT_THAT(
                e.message(),
                testing::HasSubstr("pthread_setname_np() failed:34 for name:twenty-characters-xx"));
        }
        EXPECT_STREQ(Kelvo::threadName(), "exactly15chars!");
    });
}

TEST(Thread, ThreadIdStrings) {
    EXPECT_EQ(Kelvo::toThreadIdString(std::thread::id()), "thread::id of a non-executing thread");
    EXPECT_EQ(Kelvo::toThreadIdString(std::this_thread::get_id()),
              std::to_string(static_cast<unsigned long>(pthread_self())));
}

TEST(Thread, SingletonChoiceIsPerThreadAndLockedByFirstUse) {
    onNewThread([] {
        Kelvo::useThreadLocalSingletons();
        Kelvo::useThreadLocalSingletons();  // again: harmless
        EXPECT_TRUE(Kelvo::hasThreadLocalSingletons());
        Kelvo::useThreadLocalSingletons();  // after use, same choice: harmless
    });
    onNewThread([] {
        EXPECT_FALSE(Kelvo::hasThreadLocalSingletons());
        try {
            Kelvo::useThreadLocalSingletons();
            ADD_FAILURE() << "switched after a global singleton was used";
        } catch (const Kelvo::AssertException& e) {
            EXPECT_THAT(e.message(),
                        testing::EndsWith(
                            "Attempt to change threadLocalSingletons after a global singleton has "
                            "already been created. Please call useThreadLocalSingletons() "
                            "immediately after spawning your thread."));
        }
        EXPECT_FALSE(Kelvo::hasThreadLocalSingletons());
    });
}

}  // namespace
