#include <Kelvo/FileLockCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/UtilCpp.h>
#include <gmock/gmock.h>

#include "OsTestSupport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace KelvoTest;

namespace {

class FileLock : public NoFdLeak {
  protected:
    void SetUp() override {
        NoFdLeak::SetUp();
        Kelvo::throwOnAssertFailIs(true);
    }
    ScratchDir dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ =
        handleWithLevels("FileLockTest", {0, 1, 5});
    Kelvo::Platform::DebugHandler& h_ = *handle_;
};

std::string assertMessage(const std::function<void()>& call) {
    try {
        call();
    } catch (const Kelvo::AssertException& e) {
        return e.message();
    }
    return "no AssertException";
}

// What F_OFD_GETLK reports about a write lock over the whole of path, asked
// through a description of its own: F_UNLCK when nothing conflicts.
short conflictingLockType(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    struct flock query;
    std::memset(&query, 0, sizeof query);
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    const int rc = ::fcntl(fd, Kelvo::cmd_F_OFD_GETLK(), &query);
    ::close(fd);
    return rc == 0 ? query.l_type : -1;
}

TEST(FileLockCommands, MatchTheKernelNumbers) {
    EXPECT_EQ(Kelvo::cmd_F_OFD_SETLK(), 37);
    EXPECT_EQ(Kelvo::cmd_F_OFD_GETLK(), 36);
    EXPECT_EQ(Kelvo::cmd_F_OFD_SETLK(), F_OFD_SETLK);
    EXPECT_EQ(Kelvo::cmd_F_OFD_GETLK(), F_OFD_GETLK);
}

TEST_F(FileLock, FileNameIsJoinedToDirectoryAndMayNotHoldASlash) {
    EXPECT_EQ(Kelvo::FileLock(h_, "/var/run/x", "pid").file(), "/var/run/x/pid");
    EXPECT_EQ(Kelvo::FileLock(h_, "", "pid").file(), "pid");
    EXPECT_THAT(assertMessage([&] { Kelvo::FileLock(h_, "/var/run", "x/pid"); }),
                HasSubstr("FileLock::FileLock() unexpected '/' in filename: x/pid"));
}

TEST_F(FileLock, LockCreatesDirectoryAndAWorldWritableCloseOnExecFile) {
    const mode_t previous = ::umask(022);
    Kelvo::FileLock lock(h_, dir_ / "a/b", "daemon.lock");
    const auto before = openFds();
    const bool locked = lock.lock(false);
    EXPECT_EQ(::umask(previous), 022) << "the caller's umask is restored";
    ASSERT_TRUE(locked);

    struct stat info;
    ASSERT_EQ(::stat(lock.file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);
    auto after = openFds();
    for (int fd : before) {
        after.erase(fd);
    }
    ASSERT_EQ(after.size(), 1u);
    EXPECT_TRUE(::fcntl(*after.begin(), F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(conflictingLockType(lock.file()), F_WRLCK);

    lock.release();
    EXPECT_EQ(conflictingLockType(lock.file()), F_UNLCK);
    EXPECT_TRUE(std::filesystem::exists(lock.file())) << "the lock file is kept";
}

TEST_F(FileLock, EmptyDirectoryMeansTheWorkingDirectory) {
    const auto result = runInChild([&] {
        CHILD_CHECK(::chdir(dir_.path().c_str()) == 0);
        Kelvo::FileLock lock(h_, "", "here.lock");
        CHILD_CHECK(lock.lock(false));
        CHILD_CHECK(conflictingLockType(dir_ / "here.lock") == F_WRLCK);
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
}

TEST_F(FileLock, ReentryIsForTheHolderOnlyWhenAllowed) {
    Kelvo::FileLock first(h_, dir_.path(), "x.lock");
    Kelvo::FileLock second(h_, dir_.path(), "x.lock");
    ASSERT_TRUE(first.lock(false));
    StderrCapture capture;
    const auto held = openFds();
    EXPECT_TRUE(first.lock(true));
    EXPECT_TRUE(first.lock(true));
    EXPECT_EQ(openFds(), held) << "re-entry opens nothing";
    EXPECT_FALSE(first.lock(false)) << "a new description conflicts with our own lock";
    EXPECT_FALSE(second.lock(true)) << "re-entry is per object";
    EXPECT_EQ(openFds(), held) << "a refused attempt closes its descriptor";
    const std::string text = capture.text();
    EXPECT_THAT(text, HasSubstr(fmt::format("FileLock::lock() re-entry held by pid:{} on file:{}",
                                            ::getpid(), first.file())));
    EXPECT_THAT(text, HasSubstr("error: conflicting lock held on file:" + first.file()));

    first.release();
    EXPECT_TRUE(second.lock(false));
}

TEST_F(FileLock, LockHeldByAnotherProcessIsRefusedUntilItExits) {
    Kelvo::FileLock lock(h_, dir_.path(), "shared.lock");
    int ready[2];
    int finish[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(finish), 0);
    std::fflush(nullptr);
    const pid_t holder = ::fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
        ::close(ready[0]);
        ::close(finish[1]);
        Kelvo::FileLock own(h_, dir_.path(), "shared.lock");
        const char verdict = own.lock(false) ? 'y' : 'n';
        (void)!::write(ready[1], &verdict, 1);
        char go;
        pollfd waiting{finish[0], POLLIN, 0};
        ::poll(&waiting, 1, 60000);
        (void)!::read(finish[0], &go, 1);
        ::_exit(0);  // Exit ends the lock without a release().
    }
    ::close(ready[1]);
    ::close(finish[0]);
    char verdict = 0;
    pollfd waiting{ready[0], POLLIN, 0};
    ASSERT_EQ(::poll(&waiting, 1, 60000), 1);
    ASSERT_EQ(::read(ready[0], &verdict, 1), 1);
    EXPECT_EQ(verdict, 'y');
    EXPECT_FALSE(lock.lock(true));
    ::close(finish[1]);
    ::close(ready[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(holder, &status, 0), holder);
    EXPECT_TRUE(lock.lock(false));
}

TEST_F(FileLock, UnopenableFileIsRefusedAndUncreatableDirectoryFailsAssertion) {
    ASSERT_EQ(::mkdir((dir_ / "dir.lock").c_str(), 0755), 0);
    Kelvo::FileLock onDirectory(h_, dir_.path(), "dir.lock");
    {
        StderrCapture capture;
        EXPECT_FALSE(onDirectory.lock(false));
        EXPECT_THAT(
            capture.text(),
            HasSubstr("error: could not open lock file:" + onDirectory.file() + " Is a directory"));
    }
    Kelvo::Util::fileWrite(h_, dir_ / "plain", "", false);
    Kelvo::FileLock underFile(h_, dir_ / "plain/sub", "x.lock");
    EXPECT_THAT(assertMessage([&] { underFile.lock(false); }),
                HasSubstr("unexpected mkpath() error " + dir_ / "plain/sub" + ": Not a directory"));
}

TEST_F(FileLock, ReleaseNeedsAHeldLock) {
    Kelvo::FileLock lock(h_, dir_.path(), "r.lock");
    const std::string notHeld =
        "attempting to release a lock that is not currently held. File:" + lock.file();
    EXPECT_THAT(assertMessage([&] { lock.release(); }), HasSubstr(notHeld));
    ASSERT_TRUE(lock.lock(false));
    lock.release();
    EXPECT_THAT(assertMessage([&] { lock.release(); }), HasSubstr(notHeld));
}

TEST_F(FileLock, ForkedChildCannotReleaseTheParentsLock) {
    Kelvo::FileLock lock(h_, dir_.path(), "parent.lock");
    ASSERT_TRUE(lock.lock(false));
    const pid_t parent = ::getpid();
    const auto result = runInChild([&] {
        std::printf("%s\n", assertMessage([&] { lock.release(); }).c_str());
        // A child taking the lock opens its own description and conflicts.
        CHILD_CHECK(!lock.lock(true));
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, ContainsRegex(fmt::format(
                                   "called from child process:[0-9]+ of owner pid:{}", parent)));
    EXPECT_THAT(result.output, Not(HasSubstr(fmt::format("child process:{} ", parent))));
    EXPECT_EQ(conflictingLockType(lock.file()), F_WRLCK) << "still held after the child";

    // Destroying the object in a child releases, so it fails the same way and
    // ends the child.
    const auto destroyed = runInChild([&] {
        Kelvo::throwOnAssertFailIs(false);
        lock.~FileLock();
        return 0;
    });
    EXPECT_FALSE(destroyed.exited);
    EXPECT_THAT(destroyed.output, HasSubstr("Kelvo::Assert aborting because: "));
    EXPECT_THAT(destroyed.output, HasSubstr("called from child process:"));
    EXPECT_EQ(conflictingLockType(lock.file()), F_WRLCK);
    lock.release();
}

}  // namespace
