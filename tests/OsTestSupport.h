// Support for the OS-utility suites: descriptor-leak checks, scratch
// directories, trace capture and bounded child processes.
#pragma once

#include <Kelvo/BacktraceCpp.h>
#include <Kelvo/DebugCpp.h>
#include <gtest/gtest.h>

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <string>

namespace KelvoTest {

// Descriptors open in this process, without the one used to list them.
inline std::set<int> openFds() {
    std::set<int> fds;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return fds;
    }
    const int own = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            const int fd = std::atoi(entry->d_name);
            if (fd != own) {
                fds.insert(fd);
            }
        }
    }
    ::closedir(dir);
    return fds;
}

// A fixture whose cases must leave the descriptor table as they found it.
class NoFdLeak : public ::testing::Test {
  protected:
    void SetUp() override {
        // The unwinder behind every exception's backtrace opens a pipe on its
        // first use and keeps it: open it before the first snapshot.
        static const bool unwinderReady = Kelvo::Backtrace(true).count() > 0;
        (void)unwinderReady;
        fdsBefore_ = openFds();
    }
    void TearDown() override { EXPECT_EQ(openFds(), fdsBefore_) << "descriptors leaked"; }

  private:
    std::set<int> fdsBefore_;
};

// A fresh directory, removed with its contents on destruction.
class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern = std::filesystem::temp_directory_path() / "kelvo-test-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed";
        }
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

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
        handle->enabledIs(level, false);
    }
    for (unsigned level : levels) {
        handle->enabledIs(level, true);
    }
    return handle;
}

// Trace lines go to standard error: collect what a block writes there.
class StderrCapture {
  public:
    StderrCapture() { ::testing::internal::CaptureStderr(); }
    ~StderrCapture() {
        if (!taken_) {
            ::testing::internal::GetCapturedStderr();
        }
    }
    std::string text() {
        taken_ = true;
        return ::testing::internal::GetCapturedStderr();
    }

  private:
    bool taken_ = false;
};

struct ChildResult {
    bool exited = false;  // by exit(), with exitCode; otherwise by signal
    int exitCode = -1;
    int signal = 0;
    std::string output;  // standard output and error together
};

// Exit code a child uses to say that it could not run its case here.
constexpr int childSkipped = 77;

// Runs body in a forked child whose standard output and error are collected;
// its return value is the exit code. A child still running after
// limitSeconds is killed.
inline ChildResult runInChild(const std::function<int()>& body, int limitSeconds = 60) {
    ChildResult result;
    int out[2];
    if (::pipe(out) != 0) {
        ADD_FAILURE() << "pipe failed";
        return result;
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork failed";
        ::close(out[0]);
        ::close(out[1]);
        return result;
    }
    if (pid == 0) {
        ::close(out[0]);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(out[1], STDERR_FILENO);
        ::close(out[1]);
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
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
    bool killed = false;
    char buffer[4096];
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{out[0], POLLIN, 0};
        if (left.count() <= 0 || ::poll(&waiting, 1, static_cast<int>(left.count())) == 0) {
            ::kill(pid, SIGKILL);
            killed = true;
            break;
        }
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        result.output.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (killed) {
        ADD_FAILURE() << "child killed after " << limitSeconds << " s; output:\n" << result.output;
    }
    result.exited = WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return result;
}

// Reports a failed check inside a child and leaves the child's body.
#define CHILD_CHECK(cond)                                                                 \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            return 1;                                                                     \
        }                                                                                 \
    } while (0)

// The verdict of a child that returned 0 for success or childSkipped.
#define EXPECT_CHILD_PASSED(result)                                           \
    do {                                                                      \
        const ::KelvoTest::ChildResult& r_ = (result);                        \
        if (r_.exited && r_.exitCode == ::KelvoTest::childSkipped) {          \
            GTEST_SKIP() << r_.output;                                        \
        }                                                                     \
        EXPECT_TRUE(r_.exited&& r_.exitCode == 0)                             \
            << "exit code " << r_.exitCode << " signal " << r_.signal << "\n" \
            << r_.output;                                                     \
    } while (0)

}  // namespace KelvoTest
