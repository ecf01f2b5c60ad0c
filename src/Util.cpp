// File, path and local-socket helpers.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/NetNs.h>
#include <Kelvo/UtilCpp.h>

#include "UtilImpl.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <limits>

namespace Kelvo {

namespace Impl {

Platform::DebugHandler& utilHandle() {
    // Leaked so that helpers stay usable from static destructors.
    static auto* handle =
        new std::shared_ptr<Platform::DebugHandler>(Platform::getDebugHandler("KelvoUtil"));
    return **handle;
}

namespace {
// Created at load so that TRACE can be inspected before first use.
[[maybe_unused]] Platform::DebugHandler& utilHandleAtLoad = utilHandle();

constexpr int defaultMaxSendBufferSize = 8 * 1024 * 1024;
}  // namespace

}  // namespace Impl

namespace Util {

namespace {

const char* errorText(int error) {
    return std::strerror(error);
}

bool closeFd(Platform::DebugHandler& handle, int fd) {
    if (::close(fd) != 0) {
        KELVO_TRACE(handle, 0, "unable to close fd:{} reason:{}", fd, errorText(errno));
        return false;
    }
    return true;
}

}  // namespace

bool touch(Platform::DebugHandler& handle, const String& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        KELVO_TRACE(handle, 0, "unable to open {} reason: {}", path, errorText(errno));
        return false;
    }
    return closeFd(handle, fd);
}

void fileWrite(Platform::DebugHandler& handle, const String& path, const String& data,
               bool ignoreErrors) {
    bool ok = false;
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) {
        KELVO_TRACE(handle, 0, "unable to open {} reason:{}", path, errorText(errno));
    } else {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            KELVO_TRACE(handle, 0, "unable to write to {} reason:{}", path, errorText(errno));
            ::close(fd);
        } else {
            if (static_cast<size_t>(written) < data.size()) {
                KELVO_TRACE(handle, 0, "wrote:{} bytes to file:{} but wanted to write:{}", written,
                            path, data.size());
            }
            ok = closeFd(handle, fd);
        }
    }
    if (!ok && !ignoreErrors) {
        RuntimeException::throwException(path);
    }
}

String fileRead(Platform::DebugHandler& handle, const String& path, bool ignoreErrors) {
    const unsigned level = ignoreErrors ? 5 : 0;
    try {
        std::ifstream in;
        // A read error (say, the path is a directory) must not pass for the
        // end of the file.
        in.exceptions(std::ios::badbit);
        in.open(path, std::ios::in | std::ios::binary);
        if (!in.is_open()) {
            KELVO_TRACE(handle, level, "unable to open file {}", path);
            return String();
        }
        String data;
        char buffer[4096];
        while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
            data.append(buffer, static_cast<size_t>(in.gcount()));
        }
        return data;
    } catch (const std::exception& e) {
        KELVO_TRACE(handle, level, "unable to open file {}. Caught std::exception: {}", path,
                    e.what());
        return String();
    }
}

bool fileExists(Platform::DebugHandler& handle, const String& path) {
    struct stat info;
    const int rc = ::stat(path.c_str(), &info);
    KELVO_TRACE(handle, 5, "checking if {} exists, stat result: {}", path, rc);
    return rc == 0;
}

bool fileRemove(Platform::DebugHandler& handle, const String& path) {
    if (::unlink(path.c_str()) != 0) {
        if (errno == ENOENT) {
            return true;
        }
        KELVO_TRACE(handle, 0, "unlink() error {}: {}", path, errorText(errno));
        return false;
    }
    KELVO_TRACE(handle, 5, "removed file {}", path);
    return true;
}

uint64_t fileSize(Platform::DebugHandler& handle, const String& path) {
    struct stat info;
    if (::stat(path.c_str(), &info) != 0) {
        KELVO_TRACE(handle, 5, "unable to stat file {}: {}", path, errorText(errno));
        return 0;
    }
    return static_cast<uint64_t>(info.st_size);
}

uint64_t fileSize(Platform::DebugHandler& handle, int fd) {
    struct stat info;
    if (::fstat(fd, &info) != 0) {
        KELVO_TRACE(handle, 5, "unable to fstat fd {}: {}", fd, errorText(errno));
        return 0;
    }
    return static_cast<uint64_t>(info.st_size);
}

int truncate(Platform::DebugHandler& handle, const String& path, int fd, size_t length) {
    const int rc = ::ftruncate(fd, static_cast<off_t>(length));
    if (rc != 0) {
        KELVO_TRACE(handle, 0, "ftruncate() size:{} error: {}: {}", length, path, errorText(errno));
    }
    return rc;
}

uint64_t fileSizeHelper(uint64_t entries, uint64_t entrySize, uint64_t extra) {
    uint64_t product = 0;
    uint64_t sum = 0;
    const bool productOverflow = __builtin_mul_overflow(entries, entrySize, &product);
    const bool sumOverflow = __builtin_add_overflow(product, extra, &sum);
    if (productOverflow || sumOverflow) {
        RuntimeException::throwException(
            fmt::format("fileSizeHelper overflow, entries:{} entrySize:{} xResult:{} endResult:{}",
                        entries, entrySize, product, sum));
    }
    return sum;
}

int mkpath(const String& path, mode_t mode) {
    KELVO_TRACE(Impl::utilHandle(), 9, "creating path: {} mode: {:o}", path, mode);
    if (::mkdir(path.c_str(), mode) == 0) {
        return 0;
    }
    if (errno != ENOENT) {
        return -1;
    }
    const size_t slash = path.rfind('/');
    if (slash == String::npos || slash == 0) {
        errno = ENOENT;
        return -1;
    }
    // A parent created meanwhile by someone else (EEXIST) serves as well.
    if (mkpath(path.substr(0, slash), mode) != 0 && errno != EEXIST) {
        return -1;
    }
    return ::mkdir(path.c_str(), mode) == 0 ? 0 : -1;
}

bool trimpath(const String& absolutePath, const String& trailingPath) {
    KELVO_ASSERT(!absolutePath.empty(), "absolute path is empty");
    KELVO_ASSERT(absolutePath[0] == '/', "absolute path is not absolute");
    KELVO_ASSERT(!trailingPath.empty(), "trailing path is empty");
    KELVO_ASSERT(trailingPath.size() < absolutePath.size(),
                 "trailing path longer than absolute path");
    const size_t keep = absolutePath.size() - trailingPath.size();
    KELVO_ASSERT(absolutePath.compare(keep, String::npos, trailingPath) == 0,
                 "trailing path is not a terminal substring of absolute path");

    Platform::DebugHandler& handle = Impl::utilHandle();
    String current = absolutePath;
    while (true) {
        KELVO_TRACE(handle, 9, "removing dir {}", current);
        if (::rmdir(current.c_str()) != 0 && errno != ENOENT) {
            KELVO_TRACE(handle, 5, "rmdir() error {} reason: {}", current, errorText(errno));
            return false;
        }
        const size_t slash = current.rfind('/');
        if (slash == String::npos || slash <= keep) {
            break;
        }
        current.resize(slash);
    }
    KELVO_TRACE(handle, 5, "removed sub-tree {} from absolute path {}", trailingPath, absolutePath);
    return true;
}

String getCwd(Platform::DebugHandler& handle) {
    char buffer[4096];
    if (::getcwd(buffer, sizeof buffer) == nullptr) {
        const String reason = errorText(errno);
        KELVO_TRACE(handle, 0, "getcwd() failed:{}", reason);
        RuntimeException::throwException("getcwd() failed:" + reason);
    }
    return String(buffer);
}

String base64Encode(uint32_t value) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_=";
    String encoded(6, '\0');
    for (size_t group = 0; group < encoded.size(); ++group) {
        encoded[group] = alphabet[(value >> (6 * group)) & 0x3f];
    }
    return encoded;
}

String decodeMagic(uint64_t magic) {
    String decoded;
    for (unsigned byte = 0; byte < 8; ++byte) {
        const char c = static_cast<char>((magic >> (8 * byte)) & 0xff);
        if (c == '\0') {
            break;
        }
        decoded.push_back(c);
    }
    return decoded;
}

// ---------------------------------------------------------------------------
// Local sockets

int socket(Platform::DebugHandler& handle, int domain, int type, int protocol) {
    return Impl::socketInDefaultNs(handle, "/proc/self/ns/net", domain, type, protocol);
}

int createSockaddr(Platform::DebugHandler& handle, void* address, const String& name) {
    auto* unixAddress = static_cast<sockaddr_un*>(address);
    std::memset(unixAddress, 0, sizeof *unixAddress);
    unixAddress->sun_family = AF_UNIX;
    // sun_path[0] stays 0: that is what makes the name abstract.
    const size_t length = std::min(name.size(), sizeof unixAddress->sun_path - 1);
    std::memcpy(unixAddress->sun_path + 1, name.data(), length);
    KELVO_TRACE(handle, 2, "using abstract socket {}", name);
    return static_cast<int>(offsetof(sockaddr_un, sun_path) + 1 + length);
}

int createAndBindSocket(Platform::DebugHandler& handle, const String& name) {
    // Close-on-exec: a listener inherited by an exec'd program would keep the
    // name bound after this process is gone.
    const int sd = Util::socket(handle, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    KELVO_ASSERT(sd >= 0, "socket() failed: {}", errorText(errno));
    const int reuse = 1;
    if (::setsockopt(sd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) != 0) {
        const String reason = errorText(errno);
        ::close(sd);
        KELVO_ASSERT_FAIL("setsockopt() failed: {}", reason);
    }
    sockaddr_un address;
    const int length = createSockaddr(handle, &address, name);
    if (::bind(sd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(length)) !=
        0) {
        const String reason = errorText(errno);
        ::close(sd);
        RuntimeException::throwException(
            fmt::format("bind() failed for socket:{} error: {}", sd, reason));
    }
    return sd;
}

void setSocketSendBufferSize(int sd, int size) {
    KELVO_ASSERT(sd >= 0, "invalid sd: {}", sd);
    KELVO_ASSERT(size >= 1, "invalid size: {}", size);
    if (::setsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size) != 0) {
        KELVO_ASSERT_FAIL("unable to set socket {} buffer size to {} bytes: {}", sd, size,
                          errorText(errno));
    }
}

int SYSTEM_MAX_SEND_BUFFER_SIZE() {
    // 0 means not yet known; racing first callers compute the same value.
    static std::atomic<int> cached{0};
    int value = cached.load(std::memory_order_relaxed);
    if (value == 0) {
        value = Impl::maxSendBufferSize("/proc/sys/net/core/wmem_max");
        cached.store(value, std::memory_order_relaxed);
    }
    return value;
}

}  // namespace Util

namespace Impl {

int socketInDefaultNs(Platform::DebugHandler& handle, const char* selfNsPath, int domain, int type,
                      int protocol) {
    const int localNsFd = ::open(selfNsPath, O_RDONLY | O_CLOEXEC);
    if (localNsFd < 0) {
        const int openErrno = errno;
        KELVO_TRACE(handle, 2, "failed to open {} reason: {}", selfNsPath,
                    Util::errorText(openErrno));
        if (openErrno != ENOENT && openErrno != EACCES) {
            errno = openErrno;
            return -1;
        }
        // No namespace support or no right to look: stay where we are.
        const int sd = ::socket(domain, type, protocol);
        if (sd >= 0) {
            KELVO_TRACE(handle, 2, "success opening local socket, sd:{}", sd);
        }
        return sd;
    }
    KELVO_TRACE(handle, 2, "success opening {}", selfNsPath);

    const bool switched = NetNs::setnsByName(NetNs::DEFAULT_NS, CLONE_NEWNET) == 0;
    if (switched) {
        KELVO_TRACE(handle, 2, "setnsByName() to {} success", NetNs::DEFAULT_NS);
    } else {
        KELVO_TRACE(handle, 2, "setnsByName() to {} failure: {}", NetNs::DEFAULT_NS,
                    Util::errorText(errno));
    }
    errno = 0;
    const int sd = ::socket(domain, type, protocol);
    const int socketErrno = errno;
    if (sd >= 0) {
        KELVO_TRACE(handle, 2, "{} opening {} socket: {}", "success", "local", sd);
    } else {
        KELVO_TRACE(handle, 2, "{} opening {} socket: {}", "failed", "local",
                    Util::errorText(socketErrno));
    }

    errno = 0;
    // A failed switch left the thread in its own namespace, and returning
    // there would need the same privilege that was just refused: only a
    // thread that moved goes back.
    if (switched && ::setns(localNsFd, CLONE_NEWNET) != 0) {
        const String reason = Util::errorText(errno);
        ::close(localNsFd);
        if (sd >= 0) {
            ::close(sd);
        }
        RuntimeException::throwException("failed to switch back to caller's namespace: " + reason);
    }
    if (::close(localNsFd) != 0) {
        const String reason = Util::errorText(errno);
        if (sd >= 0) {
            ::close(sd);
        }
        RuntimeException::throwException("failed to close( localNsFd ): " + reason);
    }
    errno = socketErrno;
    return sd;
}

int maxSendBufferSize(const String& path) {
    Platform::DebugHandler& handle = utilHandle();
    if (!Util::fileExists(handle, path)) {
        return defaultMaxSendBufferSize;
    }
    return std::stoi(Util::fileRead(handle, path, false));
}

}  // namespace Impl

}  // namespace Kelvo
