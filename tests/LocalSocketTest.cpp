// Local sockets in the default network namespace, and the namespace layer.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/NetNs.h>
#include <Kelvo/UtilCpp.h>
#include <gmock/gmock.h>

#include "OsTestSupport.h"
#include "UtilImpl.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using namespace KelvoTest;
namespace Util = Kelvo::Util;

namespace {

class LocalSocket : public NoFdLeak {
  protected:
    void SetUp() override {
        NoFdLeak::SetUp();
        Kelvo::throwOnAssertFailIs(true);
    }
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ =
        handleWithLevels("LocalSocketTest", {0, 1, 2});
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

ino_t nsInode(const char* path) {
    struct stat info;
    return ::stat(path, &info) == 0 ? info.st_ino : 0;
}

// Unique per process, so parallel runs never meet on one name.
std::string uniqueName(const char* tag) {
    return std::string("kelvo-test-") + tag + "-" + std::to_string(::getpid());
}

TEST_F(LocalSocket, CreateSockaddrBuildsAnAbstractAddress) {
    const std::pair<std::string, int> cases[] = {
        {"abcde", 8},
        {"", 3},
        {std::string(107, 'n'), 110},
        {std::string(200, 'n'), 110},
    };
    for (const auto& [name, length] : cases) {
        sockaddr_un address;
        std::memset(&address, 0x5a, sizeof address);
        EXPECT_EQ(Util::createSockaddr(h_, &address, name), length) << name.size();
        EXPECT_EQ(address.sun_family, AF_UNIX);
        EXPECT_EQ(address.sun_path[0], '\0');
        const size_t copied = static_cast<size_t>(length) - 3;
        EXPECT_EQ(std::string(address.sun_path + 1, copied), name.substr(0, copied));
        // Stale bytes past the name would become part of a longer name.
        for (size_t i = copied + 1; i < sizeof address.sun_path; ++i) {
            ASSERT_EQ(address.sun_path[i], '\0') << i;
        }
    }
}

TEST_F(LocalSocket, SocketLeavesTheCallerInItsOwnNamespace) {
    const ino_t before = nsInode("/proc/thread-self/ns/net");
    StderrCapture capture;
    const int sd = Util::socket(h_, AF_UNIX, SOCK_STREAM, 0);
    const std::string text = capture.text();
    ASSERT_GE(sd, 0) << text;
    ::close(sd);
    EXPECT_EQ(nsInode("/proc/thread-self/ns/net"), before);
    EXPECT_THAT(text, HasSubstr("success opening /proc/self/ns/net"));
    EXPECT_THAT(text, HasSubstr("setnsByName() to default "));
    EXPECT_THAT(text, HasSubstr("success opening local socket: " + std::to_string(sd)));
}

TEST_F(LocalSocket, SocketFailureKeepsTheSocketCallsErrno) {
    StderrCapture capture;
    errno = 0;
    EXPECT_LT(Util::socket(h_, AF_UNIX, 0x7ff, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(capture.text(), HasSubstr("failed opening local socket: Invalid argument"));
}

TEST_F(LocalSocket, SocketWithoutANamespaceFileStaysInPlace) {
    {
        StderrCapture capture;
        const int sd =
            Kelvo::Impl::socketInDefaultNs(h_, "/nonexistent/ns/net", AF_UNIX, SOCK_DGRAM, 0);
        const std::string text = capture.text();
        ASSERT_GE(sd, 0) << text;
        int type = 0;
        socklen_t size = sizeof type;
        EXPECT_EQ(::getsockopt(sd, SOL_SOCKET, SO_TYPE, &type, &size), 0);
        EXPECT_EQ(type, SOCK_DGRAM);
        ::close(sd);
        EXPECT_THAT(text, HasSubstr("failed to open /nonexistent/ns/net reason: No such file"));
        EXPECT_THAT(text, HasSubstr("success opening local socket, sd:" + std::to_string(sd)));
    }
    // Any other failure to look at the namespace is the caller's to see.
    errno = 0;
    EXPECT_EQ(Kelvo::Impl::socketInDefaultNs(h_, "/etc/passwd/ns", AF_UNIX, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(LocalSocket, SecondBindToTheSameNameFailsNamingTheSocket) {
    const std::string name = uniqueName("bind");
    const int first = Util::createAndBindSocket(h_, name);
    ASSERT_GE(first, 0);
    std::string message;
    try {
        Util::createAndBindSocket(h_, name);
    } catch (const Kelvo::RuntimeException& e) {
        message = e.message();
    }
    EXPECT_THAT(message, ContainsRegex("^bind\\(\\) failed for socket:[0-9]+ error: Address "
                                       "already in use$"));

    // The bound socket serves a client that addresses the same name.
    ASSERT_EQ(::listen(first, 1), 0);
    sockaddr_un address;
    const int length = Util::createSockaddr(h_, &address, name);
    const int client = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), length), 0)
        << std::strerror(errno);
    EXPECT_TRUE(::fcntl(first, F_GETFD) & FD_CLOEXEC);
    ::close(client);
    ::close(first);
}

TEST_F(LocalSocket, SendBufferSizeRefusesBadArguments) {
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const std::string notSocket = fmt::format(
        "unable to set socket {} buffer size to 4096 bytes: Socket operation on non-socket",
        pipeFds[0]);
    const std::pair<std::pair<int, int>, std::string> cases[] = {
        {{-1, 10}, "invalid sd: -1"},
        {{3, 0}, "invalid size: 0"},
        {{3, -5}, "invalid size: -5"},
        {{pipeFds[0], 4096}, notSocket},
    };
    for (const auto& [arguments, text] : cases) {
        EXPECT_THAT(assertMessage(
                        [&] { Util::setSocketSendBufferSize(arguments.first, arguments.second); }),
                    HasSubstr(text));
    }
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);

    const int sd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    Util::setSocketSendBufferSize(sd, 65536);
    int size = 0;
    socklen_t length = sizeof size;
    ASSERT_EQ(::getsockopt(sd, SOL_SOCKET, SO_SNDBUF, &size, &length), 0);
    EXPECT_GE(size, 65536);
    ::close(sd);
}

TEST_F(LocalSocket, MaxSendBufferSizeParsesLikeStoi) {
    ScratchDir dir;
    const std::pair<std::string, int> cases[] = {
        {"4194304\n", 4194304},
        {"  \t123abc", 123},
        {"-7", -7},
    };
    for (const auto& [text, value] : cases) {
        Util::fileWrite(h_, dir / "wmem_max", text, false);
        EXPECT_EQ(Kelvo::Impl::maxSendBufferSize(dir / "wmem_max"), value) << text;
    }
    EXPECT_EQ(Kelvo::Impl::maxSendBufferSize(dir / "absent"), 8388608);

    Util::fileWrite(h_, dir / "wmem_max", "abc", false);
    EXPECT_THROW(Kelvo::Impl::maxSendBufferSize(dir / "wmem_max"), std::invalid_argument);
    Util::fileWrite(h_, dir / "wmem_max", "99999999999", false);
    try {
        Kelvo::Impl::maxSendBufferSize(dir / "wmem_max");
        ADD_FAILURE() << "no out_of_range";
    } catch (const std::out_of_range& e) {
        EXPECT_THAT(e.what(), HasSubstr("stoi"));
    }

    const int system = Util::SYSTEM_MAX_SEND_BUFFER_SIZE();
    EXPECT_EQ(system, Kelvo::Impl::maxSendBufferSize("/proc/sys/net/core/wmem_max"));
    EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(), system);
}

TEST_F(LocalSocket, SetnsByNameResolvesNames) {
    struct Case {
        const char* name;
        int nstype;
        int error;
    };
    const Case cases[] = {
        {nullptr, CLONE_NEWNET, EINVAL},
        {"", CLONE_NEWNET, EINVAL},
        {"kelvo-no-such-namespace", CLONE_NEWNET, ENOENT},
        {"kelvo-no-such-namespace", CLONE_NEWUTS, EINVAL},
        {"/nonexistent/ns/net", CLONE_NEWNET, ENOENT},
        {"/proc/self/ns/uts", CLONE_NEWNET, EINVAL},
    };
    const ino_t before = nsInode("/proc/thread-self/ns/net");
    for (const Case& c : cases) {
        errno = 0;
        EXPECT_EQ(Kelvo::NetNs::setnsByName(c.name, c.nstype), -1) << (c.name ? c.name : "null");
        EXPECT_EQ(errno, c.error) << (c.name ? c.name : "null");
    }
    EXPECT_EQ(nsInode("/proc/thread-self/ns/net"), before);
}

// The real switch: a child moves into a network namespace of its own, with
// its original namespace pinned as the default one in a private mount
// namespace. Abstract names are per network namespace, so a listener made by
// Util::socket must be reachable from a socket made the same way and not
// from one made with plain socket(2) in the child's namespace.
TEST(LocalSocketNamespaces, SocketIsMadeInTheDefaultNamespace) {
    const auto handle = handleWithLevels("LocalSocketTest", {0, 1, 2});
    const std::string name = uniqueName("netns");
    const auto result = runInChild([&] {
        Kelvo::throwOnAssertFailIs(true);
        if (::unshare(CLONE_NEWNS) != 0) {
            std::printf("needs CAP_SYS_ADMIN to create namespaces: unshare: %s\n",
                        std::strerror(errno));
            return errno == EPERM ? childSkipped : 1;
        }
        CHILD_CHECK(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
        CHILD_CHECK(::mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0);
        CHILD_CHECK(::mkdir("/run/netns", 0755) == 0);
        const int pin = ::open("/run/netns/default", O_CREAT | O_WRONLY | O_CLOEXEC, 0444);
        CHILD_CHECK(pin >= 0);
        ::close(pin);
        CHILD_CHECK(::mount("/proc/self/ns/net", "/run/netns/default", nullptr, MS_BIND, nullptr) ==
                    0);
        const ino_t outer = nsInode("/proc/self/ns/net");
        CHILD_CHECK(::unshare(CLONE_NEWNET) == 0);
        const ino_t inner = nsInode("/proc/self/ns/net");
        CHILD_CHECK(inner != outer);

        const int listener = Util::createAndBindSocket(*handle, name);
        CHILD_CHECK(nsInode("/proc/thread-self/ns/net") == inner);
        CHILD_CHECK(::listen(listener, 1) == 0);
        sockaddr_un address;
        const int length = Util::createSockaddr(*handle, &address, name);
        const auto* raw = reinterpret_cast<sockaddr*>(&address);

        const int local = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        CHILD_CHECK(::connect(local, raw, length) == -1 && errno == ECONNREFUSED);
        const int shared = Util::socket(*handle, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        CHILD_CHECK(shared >= 0);
        CHILD_CHECK(::connect(shared, raw, length) == 0);
        CHILD_CHECK(nsInode("/proc/thread-self/ns/net") == inner);
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, HasSubstr("setnsByName() to default success"));
}

}  // namespace
