#include <Kelvo/FileLockCpp.h>
#include <Kelvo/UtilCpp.h>

#include "OsTestSupport.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using namespace KelvoTest;

namespace {

class FileLock : public NoFdLeak {
  protected:
    ScratchDir dir_;
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ =
        handleWithLevels("FileLockTest", {0, 1, 5});
    Kelvo::Platform::DebugHandler& h_ = *handle_;
};

// What F_OFD_GETLK says of a whole-file write lock asked through a new
// description: F_UNLCK when nothing conflicts.
short lockSeenBy(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock query;
    std::memset(&query, 0, sizeof query);
    query.l_type = F_WRLCK;
    const int rc = ::fcntl(fd, Kelvo::cmd_F_OFD_GETLK(), &query);
    ::close(fd);
    return rc == 0 ? query.l_type : -1;
}

TEST_F(FileLock, LockFileIsWorldWritableCloseOnExecAndSurvivesRelease) {
    EXPECT_EQ(Kelvo::FileLock(h_, "", "pid").file(), "pid");
    EXPECT_THAT(thrownMessage<Kelvo::AssertException>([&] { Kelvo::FileLock(h_, "/r", "x/y"); }),
                HasSubstr("unexpected '/' in filename: x/y"));

    const mode_t previous = ::umask(022);
    Kelvo::FileLock lock(h_, dir_ / "a/b", "daemon.lock");
    auto added = openFds();
    const bool locked = lock.lock(false);
    EXPECT_EQ(::umask(previous), 022) << "the caller's umask is restored";
    ASSERT_TRUE(locked);
    EXPECT_EQ(lock.file(), dir_ / "a/b/daemon.lock");
    struct stat info;
    ASSERT_EQ(::stat(lock.file().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0666u);
    for (int fd : openFds()) {
        if (!added.erase(fd)) {
            EXPECT_TRUE(::fcntl(fd, F_GETFD) & FD_CLOEXEC);
        }
    }
    EXPECT_EQ(lockSeenBy(lock.file()), F_WRLCK);
    lock.release();
    EXPECT_EQ(lockSeenBy(lock.file()), F_UNLCK);
}

TEST_F(FileLock, ReentryIsForTheHoldingObjectOnly) {
    Kelvo::FileLock first(h_, dir_.path(), "x.lock");
    Kelvo::FileLock second(h_, dir_.path(), "x.lock");
    ASSERT_TRUE(first.lock(false));
    CaptureStderr();
    const auto held = openFds();
    EXPECT_TRUE(first.lock(true));
    EXPECT_TRUE(first.lock(true));
    EXPECT_EQ(openFds(), held) << "re-entry opens nothing";
    EXPECT_FALSE(first.lock(false)) << "a new description conflicts with our own lock";
    EXPECT_FALSE(second.lock(true));
    EXPECT_EQ(openFds(), held) << "a refused attempt closes its descriptor";
    const std::string text = GetCapturedStderr();
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
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(finish, O_CLOEXEC), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        ::alarm(60);  // bounds both sides' blocking reads
        ::close(finish[1]);
        Kelvo::FileLock own(h_, dir_.path(), "shared.lock");
        char verdict = own.lock(false) ? 'y' : 'n';
        (void)!::write(ready[1], &verdict, 1);
        (void)!::read(finish[0], &verdict, 1);  // until the parent closes its end
        ::_exit(0);                             // exit ends the lock without a release()
    }
    ::close(ready[1]);
    ::close(finish[0]);
    char verdict = 0;
    EXPECT_EQ(::read(ready[0], &verdict, 1), 1);
    EXPECT_EQ(verdict, 'y');
    EXPECT_FALSE(lock.lock(true));
    ::close(finish[1]);
    ::close(ready[0]);
    ::waitpid(holder, nullptr, 0);
    EXPECT_TRUE(lock.lock(false));
}

TEST_F(FileLock, UnopenableFileIsRefusedAndUncreatableDirectoryAsserts) {
    ASSERT_EQ(::mkdir((dir_ / "dir.lock").c_str(), 0755), 0);
    Kelvo::FileLock onDirectory(h_, dir_.path(), "dir.lock");
    CaptureStderr();
    EXPECT_FALSE(onDirectory.lock(false));
    EXPECT_THAT(
        GetCapturedStderr(),
        HasSubstr("error: could not open lock file:" + onDirectory.file() + " Is a directory"));
    Kelvo::Util::fileWrite(h_, dir_ / "plain", "", false);
    Kelvo::FileLock underFile(h_, dir_ / "plain/sub", "x.lock");
    EXPECT_THAT(thrownMessage<Kelvo::AssertException>([&] { underFile.lock(false); }),
                HasSubstr("unexpected mkpath() error " + dir_ / "plain/sub" + ": Not a directory"));

    const std::string notHeld =
        "attempting to release a lock that is not currently held. File:" + onDirectory.file();
    EXPECT_THAT(thrownMessage<Kelvo::AssertException>([&] { onDirectory.release(); }),
                HasSubstr(notHeld));
}

TEST_F(FileLock, ForkedChildCannotReleaseTheParentsLock) {
    Kelvo::FileLock lock(h_, dir_.path(), "parent.lock");
    ASSERT_TRUE(lock.lock(false));
    const auto released = runInChild([&] {
        std::puts(thrownMessage<Kelvo::AssertException>([&] { lock.release(); }).c_str());
        CHILD_CHECK(!lock.lock(true));  // the child is not the owner
        return 0;
    });
    EXPECT_CHILD_PASSED(released);
    EXPECT_THAT(released.output,
                ContainsRegex(
                    fmt::format("called from child process:[0-9]+ of owner pid:{}\n", ::getpid())));
    // Destroying the object releases, so in a child it fails the same way.
    const auto destroyed = runInChild([&] {
        Kelvo::throwOnAssertFailIs(false);
        lock.~FileLock();
        return 0;
    });
    EXPECT_EQ(destroyed.signal, SIGABRT);
    EXPECT_THAT(destroyed.output, ContainsRegex("Kelvo::Assert aborting because: .*called from "
                                                "child process:"));
    EXPECT_EQ(lockSeenBy(lock.file()), F_WRLCK) << "still held after the children";
}

}  // namespace
