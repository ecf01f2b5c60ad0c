#include "TestSupport.h"

using namespace KelvoTest;

using namespace Kelvo;
using namespace Kelvo::Platform;

// A child is marked until it clears the mark, and a grandchild is marked
// again. The child's loop, reinitialised, serves timers and descriptors, and
// its changes leave the parent's loop alone. A thread without a loop gets one.
TEST(ForkHandler, ChildIsMarkedAndItsReinitialisedLoopDispatches) {
    Pipe p;
    Probe watch;
    watch.fd->setFd(p.fds[0]);
    auto timerAndRead = [&] {
        Probe t;
        t.timer->setTimeout(0.01);
        childCheck(::write(p.fds[1], "x", 1) == 1);
        eventLoopTimeout(0.05);
        return t.fired == 1 && watch.reads >= 1;
    };
    EXPECT_EQ(runInChild([&] {
                  childCheck(isForkedChild());
                  forkedChildIs(false);
                  childCheck(!isForkedChild());
                  childCheck(runInChild([] { return isForkedChild() ? 0 : 1; }).exitedOk());
                  leForkReinit();
                  childCheck(timerAndRead());
                  watch.fd->delFd();  // from the child's own loop: the parent's stays armed
                  return 0;
              }).text(),
              "exit 0");
    EXPECT_FALSE(isForkedChild());
    EXPECT_TRUE(timerAndRead());
    std::thread([] {
        EXPECT_TRUE(runInChild([] { return leForkReinit(), leInitialized() ? 0 : 1; }).exitedOk());
    }).join();
}
