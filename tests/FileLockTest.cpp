#include "TestSupport.h"

using namespace KelvoTest;

namespace {

using FileLock = OsTest;

// What F_OFD_GETLK says of a whole-file write lock asked through a new
// description: F_UNLCK when nothing conflicts.
short lockSeenBy(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct flock query = {};
    query.l_type = F_WRLCK;
    const int rc = ::fcntl(fd, Kelvo::cmd_F_OFD_GETLK(), &query);
    ::close(fd);
    return rc == 0 ? query.l_type : -1;
}

// A refused attempt that kept its descriptor would show in the fixture's
// descriptor check.
TEST_F(FileLock, LockFileIsSharedCloseOnExecAndReenteredOnlyByItsHolder) {
    EXPECT_EQ(Kelvo::FileLock(h_, "", "pid").file(), "pid");
    const mode_t previous = ::umask(022);
    Kelvo::FileLock first(h_, path("a/b"), "x.lock");
    Kelvo::FileLock second(h_, path("a/b"), "x.lock");
    const auto before = openFds();
    ASSERT_TRUE(first.lock(false));
    EXPECT_EQ(::umask(previous), 022) << "the caller's umask is restored";
    EXPECT_EQ(std::filesystem::status(first.file()).permissions(), std::filesystem::perms(0666));
    for (int fd : openFds())
        EXPECT_TRUE(before.count(fd) || ::fcntl(fd, F_GETFD) & FD_CLOEXEC);
    CaptureStderr();
    EXPECT_TRUE(first.lock(true)) << "re-entry";
    EXPECT_FALSE(first.lock(false)) << "a new description conflicts with our own lock";
    EXPECT_FALSE(second.lock(true));
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr("error: conflicting lock held on file:" + first.file()));
    EXPECT_EQ(lockSeenBy(first.file()), F_WRLCK);
    first.release();
    EXPECT_EQ(lockSeenBy(first.file()), F_UNLCK) << "the file survives release";
    EXPECT_TRUE(second.lock(false));
}

// A child shares the parent's description: releasing there, even by
// destruction, would drop the parent's lock.
TEST_F(FileLock, OtherProcessesNeitherTakeNorReleaseAHeldLock) {
    Kelvo::FileLock lock(h_, dir_, "parent.lock");
    ASSERT_TRUE(lock.lock(false));
    EXPECT_THAT(runInChild([&] {
                    Kelvo::FileLock own(h_, dir_, "parent.lock");
                    childCheck(!own.lock(true) && !lock.lock(true));
                    std::puts(thrownMessage([&] { lock.release(); }).c_str());
                    return 0;
                }).text(),
                ContainsRegex(fmt::format(
                    "called from child process:[0-9]+ of owner pid:{}\nexit 0$", ::getpid())));
    EXPECT_THAT(
        runInChild([&] {
            Kelvo::throwOnAssertFailIs(false);
            lock.~FileLock();
            return 0;
        }).text(),
        AllOf(ContainsRegex(
                  "Kelvo::Assert aborting because: .*called from child process:[0-9]+ of owner"),
              EndsWith("signal " + std::to_string(SIGABRT))));
    EXPECT_EQ(lockSeenBy(lock.file()), F_WRLCK) << "still held after the children";
}

TEST_F(FileLock, UnopenableFileIsRefusedAndMisuseAsserts) {
    ASSERT_EQ(::mkdir(path("dir.lock").c_str(), 0755), 0);
    Kelvo::FileLock onDirectory(h_, dir_, "dir.lock");
    CaptureStderr();
    EXPECT_FALSE(onDirectory.lock(false));
    EXPECT_THAT(
        GetCapturedStderr(),
        HasSubstr("error: could not open lock file:" + onDirectory.file() + " Is a directory"));
    Kelvo::Util::fileWrite(h_, path("plain"), "", false);
    const std::pair<std::function<void()>, std::string> misuse[] = {
        {[&] { Kelvo::FileLock(h_, "/r", "x/y"); }, "unexpected '/' in filename: x/y"},
        {[&] { onDirectory.release(); },
         "attempting to release a lock that is not currently held. File:" + onDirectory.file()},
        {[&] { Kelvo::FileLock(h_, path("plain/sub"), "x.lock").lock(false); },
         "unexpected mkpath() error " + path("plain/sub") + ": Not a directory"},
    };
    for (const auto& [call, text] : misuse)
        EXPECT_THAT(thrownMessage(call), HasSubstr(text));
}

}  // namespace
