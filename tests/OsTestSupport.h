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
#include <source_location>
#include <stdexcept>
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

// A handle of its own with exactly the given levels enabled.
inline std::shared_ptr<Kelvo::Platform::DebugHandler> handleWithLevels(
    std::initializer_list<unsigned> levels) {
    auto handle = Kelvo::Platform::getDebugHandler("OsTest");
    for (unsigned level = 0; level < 10; ++level) {
        handle->enabledIs(level, std::find(levels.begin(), levels.end(), level) != levels.end());
    }
    return handle;
}

// A case with a scratch directory and a handle tracing levels 0, 1, 2 and 5.
// It must leave the descriptor table as it found it; assertions throw.
class OsTest : public ::testing::Test {
  protected:
    OsTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX";
        dir_ = ::mkdtemp(pattern.data()) ? pattern : "/nonexistent-scratch";
    }
    ~OsTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    void SetUp() override {
        // The unwinder behind every exception opens a pipe on first use and
        // keeps it: open it before the first snapshot.
        static const bool unwinderReady = Kelvo::Backtrace(true).count() > 0;
        (void)unwinderReady;
        Kelvo::throwOnAssertFailIs(true);
        fdsBefore_ = openFds();
    }
    void TearDown() override { EXPECT_EQ(openFds(), fdsBefore_) << "descriptors leaked"; }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    std::string dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ = handleWithLevels({0, 1, 2, 5});
    Kelvo::Platform::DebugHandler& h_ = *handle_;

  private:
    std::set<int> fdsBefore_;
};

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

// Exit code of a child that cannot run its case on this machine.
constexpr int childSkipped = 77;

// Runs body in a forked child and returns its standard output and error,
// then how it ended: "exit N" (N being body's result) or "signal N". A child
// still running after a minute dies of SIGALRM.
inline std::string runInChild(const std::function<int()>& body) {
    int out[2];
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(60);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(out[1], STDERR_FILENO);
        int code = 1;
        try {
            code = body();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "child: %s\n", e.what());
        }
        std::fflush(nullptr);
        ::_exit(code);
    }
    ::close(out[1]);
    std::string output;
    char buffer[4096];
    for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) {
        output.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return output + (WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                       : "signal " + std::to_string(WTERMSIG(status)));
}

// Inside a child: a failed check ends the body with exit code 1.
inline void childCheck(bool ok, std::source_location at = std::source_location::current()) {
    if (!ok) {
        throw std::runtime_error("check failed on line " + std::to_string(at.line()));
    }
}

}  // namespace KelvoTest
