#include <Kelvo/ForkHandlerCpp.h>
#include <Kelvo/LibeventFactoryCpp.h>

#include "EventLoopTestUtil.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

using namespace Kelvo;
using namespace Kelvo::Platform;
using namespace KelvoTest;

namespace {

// Runs child in a forked process and returns its exit code.
template <typename F>
int inChild(F&& child) {
    const pid_t pid = ::fork();
    if (pid == 0)
        std::_Exit(child());
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(ForkHandler, ChildIsMarkedUntilClearedAndAgainInAGrandchild) {
    ASSERT_FALSE(isForkedChild());
    EXPECT_EQ(inChild([] {
                  if (!isForkedChild())
                      return 1;
                  forkedChildIs(false);
                  if (isForkedChild())
                      return 2;
                  return inChild([] { return isForkedChild() ? 0 : 3; });
              }),
              0);
    EXPECT_FALSE(isForkedChild());
}

// The child's loop, reinitialised, serves timers and descriptors; the
// parent's loop keeps working beside it. A thread without a loop gets one.
TEST(ForkHandler, ReinitialisedChildLoopDispatches) {
    Pipe p;
    Probe watch;
    watch.fd->setFd(p.fds[0]);
    auto timerAndRead = [&] {
        Probe t;
        t.timer->setTimeout(0.01);
        if (::write(p.fds[1], "x", 1) != 1)
            return 3;
        eventLoopTimeout(0.05);
        return t.fired == 1 && watch.reads >= 1 ? 0 : 1;
    };
    EXPECT_EQ(inChild([&] { return leForkReinit(), timerAndRead(); }), 0);
    EXPECT_EQ(timerAndRead(), 0);
    std::thread([] {
        EXPECT_EQ(inChild([] { return leForkReinit(), leInitialized() ? 0 : 1; }), 0);
    }).join();
}
