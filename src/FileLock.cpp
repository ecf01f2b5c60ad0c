// Lock files on open-file-description locks.
#include <Kelvo/FileLockCpp.h>
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/UtilCpp.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Kelvo {

namespace {

// The values are the kernel's ABI, fixed whatever the headers say.
constexpr int ofdGetlk = 36;
constexpr int ofdSetlk = 37;

// OFD locks demand l_pid 0; the range is the whole file.
struct flock wholeFile(short type) {
    struct flock request;
    std::memset(&request, 0, sizeof request);
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = 0;
    request.l_len = 0;
    request.l_pid = 0;
    return request;
}

}  // namespace

int cmd_F_OFD_SETLK() {
    return ofdSetlk;
}
int cmd_F_OFD_GETLK() {
    return ofdGetlk;
}

FileLock::FileLock(Platform::DebugHandler& handle, const String& directory, const String& fileName)
    : Debuggable(handle),
      directory_(directory),
      file_(directory.empty() ? fileName : directory + "/" + fileName) {
    KELVO_ASSERTM(fileName.find('/') == String::npos, "unexpected '/' in filename: {}", fileName);
}

FileLock::~FileLock() {
    KELVO_TRACEM(*this, 5, "file:{}", file_);
    if (fd_ >= 0) {
        release();
    }
}

bool FileLock::lock(bool allowReentry) {
    KELVO_TRACEM(*this, 5, "file:{}", file_);
    const int pid = ::getpid();
    if (allowReentry && ownerPid_ == pid) {
        KELVO_TRACEM(*this, 5, "re-entry held by pid:{} on file:{}", ownerPid_, file_);
        return true;
    }
    if (!directory_.empty() && Util::mkpath(directory_, 0777) != 0 && errno != EEXIST) {
        KELVO_ASSERT_FAILM("unexpected mkpath() error {}: {}", directory_, std::strerror(errno));
    }

    // Every user must be able to take this lock later, whatever our umask.
    const mode_t previousMask = ::umask(0);
    const int fd = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    const int openErrno = errno;
    ::umask(previousMask);
    if (fd < 0) {
        KELVO_TRACEM(*this, 1, "error: could not open lock file:{} {}", file_,
                     std::strerror(openErrno));
        return false;
    }

    struct flock request = wholeFile(F_WRLCK);
    if (::fcntl(fd, cmd_F_OFD_SETLK(), &request) != 0) {
        if (errno == EAGAIN) {
            KELVO_TRACEM(*this, 1, "error: conflicting lock held on file:{}", file_);
            ::close(fd);
            return false;
        }
        const String reason = std::strerror(errno);
        ::close(fd);
        KELVO_ASSERT_FAILM("unexpected error: {} file:{}", reason, file_);
    }
    // O_CLOEXEC already covers this; setting it again keeps the guarantee
    // explicit and catches a descriptor that went bad in between.
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) {
        const String reason = std::strerror(errno);
        ::close(fd);
        KELVO_ASSERT_FAILM("unexpected error:{} file:{}", reason, file_);
    }
    KELVO_TRACEM(*this, 5, "acquired lock on file:{}", file_);
    fd_ = fd;
    ownerPid_ = pid;
    return true;
}

void FileLock::release() {
    KELVO_TRACEM(*this, 5, "file:{}", file_);
    KELVO_ASSERTM(fd_ >= 0, "attempting to release a lock that is not currently held. File:{}",
                  file_);
    const int pid = ::getpid();
    // The child shares the parent's open file description: unlocking here
    // would drop the parent's lock.
    KELVO_ASSERTM(pid == ownerPid_, "called from child process:{} of owner pid:{}", pid, ownerPid_);
    struct flock request = wholeFile(F_UNLCK);
    if (::fcntl(fd_, cmd_F_OFD_SETLK(), &request) != 0) {
        KELVO_ASSERT_FAILM("unexpected error: {} file:{} fd:{}", std::strerror(errno), file_, fd_);
    }
    closeFd();
    ownerPid_ = -1;
    KELVO_TRACEM(*this, 5, "released lock on file:{}", file_);
}

void FileLock::closeFd() noexcept {
    KELVO_TRACEM(*this, 5, "file:{} fd:{}", file_, fd_);
    if (fd_ < 0) {
        KELVO_TRACEM(*this, 5, "no active fd: nothing to do");
        return;
    }
    if (::close(fd_) == 0) {
        KELVO_TRACEM(*this, 5, "closed fd for file:{}", file_);
    } else {
        KELVO_TRACEM(*this, 1, "error: {} file:{} fd:{}", std::strerror(errno), file_, fd_);
    }
    fd_ = -1;
}

}  // namespace Kelvo
