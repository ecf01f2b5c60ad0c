#include <Kelvo/ForkHandlerCpp.h>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

using namespace Kelvo::Platform;

namespace {

// Runs child in a forked process and returns its exit code.
template <typename F>
int inChild(F&& child) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        std::_Exit(child());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(ForkHandler, ChildIsMarkedParentIsNot) {
    ASSERT_FALSE(isForkedChild());
    EXPECT_EQ(inChild([] { return isForkedChild() ? 0 : 1; }), 0);
    EXPECT_FALSE(isForkedChild());
}

TEST(ForkHandler, ClearedFlagStaysClearUntilTheNextFork) {
    EXPECT_EQ(inChild([] {
                  if (!isForkedChild())
                      return 1;
                  forkedChildIs(false);
                  if (isForkedChild())
                      return 2;
                  // A grandchild is a forked child again.
                  return inChild([] { return isForkedChild() ? 0 : 3; });
              }),
              0);
}
