// Support for the OS-utility suites: descriptor-leak checks, scratch
// directories, trace capture and bounded child processes.
#pragma once

#include <Kelvo/BacktraceCpp.h>
#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

namespace KelvoTest {

using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

// The listing's own descriptor takes the lowest free number, so equal tables
// list equal sets.
inline std::set<int> openFds() {
    std::set<int> fds;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        fds.insert(std::stoi(entry.path().filename()));
    }
    return fds;
}

// Cases must leave the descriptor table as they found it; assertions throw.
class NoFdLeak : public ::testing::Test {
  protected:
    void SetUp() override {
        // The unwinder behind every exception opens a pipe on first use and
        // keeps it: open it before the first snapshot.
        static const bool unwinderReady = Kelvo::Backtrace(true).count() > 0;
        (void)unwinderReady;
        Kelvo::throwOnAssertFailIs(true);
        fdsBefore_ = openFds();
    }
    void TearDown() override { EXPECT_EQ(openFds(), fdsBefore_) << "descriptors leaked"; }

  private:
    std::set<int> fdsBefore_;
};

class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX";
        path_ = ::mkdtemp(pattern.data()) ? pattern : "/nonexistent-scratch";
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A handle of its own with exactly the given levels enabled.
inline std::shared_ptr<Kelvo::Platform::DebugHandler> handleWithLevels(
    const std::string& name, std::initializer_list<unsigned> levels) {
    auto handle = Kelvo::Platform::getDebugHandler(name);
    for (unsigned level = 0; level < 10; ++level) {
        handle->enabledIs(level, std::find(levels.begin(), levels.end(), level) != levels.end());
    }
    return handle;
}

// The message of the E that call throws, or a text saying there was none.
template <typename E>
std::string thrownMessage(const std::function<void()>& call) {
    try {
        call();
    } catch (const E& e) {
        return e.message();
    }
    return "nothing thrown";
}

struct ChildResult {
    int exitCode = -1;  // -1 when ended by a signal
    int signal = 0;
    std::string output;  // standard output and error together
};

// Exit code of a child that cannot run its case on this machine.
constexpr int childSkipped = 77;

// Runs body in a forked child and collects its output; body's result is the
// exit code. A child still running after limitSeconds dies of SIGALRM.
inline ChildResult runInChild(const std::function<int()>& body, unsigned limitSeconds = 60) {
    int out[2];
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(limitSeconds);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(out[1], STDERR_FILENO);
        int code = 1;
        try {
            code = body();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child: uncaught exception: %s\n", e.what());
        }
        std::fflush(nullptr);
        ::_exit(code);
    }
    ::close(out[1]);
    ChildResult result;
    char buffer[4096];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) {
        result.output.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}

// Inside a child: report a failed check and leave the body.
#define CHILD_CHECK(cond)                                                                 \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                                     \
        }                                                                                 \
    } while (0)

#define EXPECT_CHILD_PASSED(result)                                             \
    do {                                                                        \
        if ((result).exitCode == ::KelvoTest::childSkipped) {                   \
            GTEST_SKIP() << (result).output;                                    \
        }                                                                       \
        EXPECT_EQ((result).exitCode, 0) << "signal " << (result).signal << "\n" \
                                        << (result).output;                     \
    } while (0)

}  // namespace KelvoTest
