#include <Kelvo/ForkHandlerCpp.h>
#include <Kelvo/LibeventFactoryCpp.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

using namespace Kelvo;
using namespace Kelvo::Platform;

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

struct Probe : TimeoutHandler, FdEventHandler {
    std::shared_ptr<TimerControl> timer = getTimerControl(this);
    std::shared_ptr<FdControl> fd = getFdControl(this);
    int fired = 0, reads = 0;
    void timeout() override { ++fired; }
    void readFdEvent(int) override { ++reads; }
    void writeFdEvent(int) override {}
};

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
// parent's loop keeps working beside it. A child thread without a loop gets
// a fresh one.
TEST(ForkHandler, ReinitialisedChildLoopDispatches) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto watchOwner = std::make_unique<Probe>();
    Probe& watch = *watchOwner;
    watch.fd->setFd(fds[0]);
    EXPECT_EQ(inChild([&] {
                  leForkReinit();
                  Probe t;
                  t.timer->setTimeout(0.01);
                  if (::write(fds[1], "c", 1) != 1)
                      return 3;
                  eventLoopTimeout(0.05);
                  return t.fired == 1 && watch.reads >= 1 ? 0 : 1;
              }),
              0);
    {
        char drained[8];
        while (::read(fds[0], drained, sizeof drained) > 0) {
        }
        ASSERT_EQ(::write(fds[1], "p", 1), 1);
        Probe t;
        t.timer->setTimeout(0.01);
        eventLoopTimeout(0.05);
        EXPECT_EQ(t.fired, 1);
        EXPECT_GE(watch.reads, 1);
        watch.fd->delFd();
    }
    watchOwner.reset();
    ::close(fds[0]), ::close(fds[1]);
    leFree();
    EXPECT_EQ(inChild([] {
                  leForkReinit();
                  return leInitialized() ? 0 : 1;
              }),
              0);
}
