// Local sockets in the default network namespace, and the namespace layer.
#include <Kelvo/NetNs.h>
#include <Kelvo/UtilCpp.h>

#include "OsTestSupport.h"
#include "UtilImpl.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using namespace KelvoTest;
namespace Util = Kelvo::Util;

namespace {

class LocalSocket : public NoFdLeak {
  protected:
    std::shared_ptr<Kelvo::Platform::DebugHandler> handle_ =
        handleWithLevels("LocalSocketTest", {0, 1, 2});
    Kelvo::Platform::DebugHandler& h_ = *handle_;
};

ino_t threadNetNs() {
    struct stat info;
    return ::stat("/proc/thread-self/ns/net", &info) == 0 ? info.st_ino : 0;
}

// Unique per process, so that parallel runs never meet on one name.
std::string uniqueName(const char* tag) {
    return std::string("kelvo-test-") + tag + "-" + std::to_string(::getpid());
}

TEST_F(LocalSocket, AbstractAddressLengthCountsNoTerminator) {
    for (const auto& [name, length] :
         {std::pair{std::string("abcde"), 8}, {std::string(200, 'n'), 110}}) {
        sockaddr_un address;
        std::memset(&address, 0x5a, sizeof address);
        EXPECT_EQ(Util::createSockaddr(h_, &address, name), length);
        EXPECT_EQ(address.sun_family, AF_UNIX);
        // A leading zero, the (cut) name, and zeros: stale bytes would lengthen the name.
        std::string expected(sizeof address.sun_path, '\0');
        expected.replace(1, length - 3, name, 0, length - 3);
        EXPECT_EQ(std::string(address.sun_path, sizeof address.sun_path), expected);
    }
}

TEST_F(LocalSocket, SocketReturnsTheCallerToItsNamespaceAndKeepsErrno) {
    const ino_t before = threadNetNs();
    CaptureStderr();
    const int sd = Util::socket(h_, AF_UNIX, SOCK_STREAM, 0);
    errno = 0;
    EXPECT_LT(Util::socket(h_, AF_UNIX, 0x7ff, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    const int fallback =
        Kelvo::Impl::socketInDefaultNs(h_, "/nonexistent/ns/net", AF_UNIX, SOCK_DGRAM, 0);
    EXPECT_EQ(Kelvo::Impl::socketInDefaultNs(h_, "/etc/passwd/ns", AF_UNIX, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, ENOTDIR) << "only a missing or forbidden namespace file is tolerated";
    const std::string text = GetCapturedStderr();
    EXPECT_GE(sd, 0);
    EXPECT_GE(fallback, 0);
    ::close(sd);
    ::close(fallback);
    EXPECT_EQ(threadNetNs(), before);
    for (const std::string& expected : std::initializer_list<std::string>{
             "success opening /proc/self/ns/net",
             "setnsByName() to default ",
             "success opening local socket: " + std::to_string(sd),
             "failed opening local socket: Invalid argument",
             "failed to open /nonexistent/ns/net reason: No such file or directory",
             "success opening local socket, sd:" + std::to_string(fallback),
         }) {
        EXPECT_THAT(text, HasSubstr(expected));
    }
}

TEST_F(LocalSocket, SecondBindToTheSameNameFailsNamingTheSocket) {
    const std::string name = uniqueName("bind");
    const int first = Util::createAndBindSocket(h_, name);
    ASSERT_GE(first, 0);
    EXPECT_THAT(
        thrownMessage<Kelvo::RuntimeException>([&] { Util::createAndBindSocket(h_, name); }),
        MatchesRegex("bind\\(\\) failed for socket:[0-9]+ error: Address already in use"));
    ASSERT_EQ(::listen(first, 1), 0);
    sockaddr_un address;
    const int length = Util::createSockaddr(h_, &address, name);
    const int client = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), length), 0);
    ::close(client);
    ::close(first);
}

TEST_F(LocalSocket, SendBufferSizeRefusesBadArguments) {
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const std::pair<std::pair<int, int>, std::string> cases[] = {
        {{-1, 10}, "invalid sd: -1"},
        {{3, 0}, "invalid size: 0"},
        {{pipeFds[0], 4096},
         fmt::format("unable to set socket {} buffer size to 4096 bytes: "
                     "Socket operation on non-socket",
                     pipeFds[0])},
    };
    for (const auto& [arguments, text] : cases) {
        EXPECT_THAT(thrownMessage<Kelvo::AssertException>(
                        [&] { Util::setSocketSendBufferSize(arguments.first, arguments.second); }),
                    HasSubstr(text));
    }
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

TEST_F(LocalSocket, MaxSendBufferSizeDefaultsWithoutTheSystemFile) {
    ScratchDir dir;
    EXPECT_EQ(Kelvo::Impl::maxSendBufferSize(dir / "absent"), 8388608);
    Util::fileWrite(h_, dir / "wmem", " 4194304x\n", false);
    EXPECT_EQ(Kelvo::Impl::maxSendBufferSize(dir / "wmem"), 4194304);
    Util::fileWrite(h_, dir / "wmem", "none", false);
    EXPECT_THROW(Kelvo::Impl::maxSendBufferSize(dir / "wmem"), std::invalid_argument);
    EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(),
              Kelvo::Impl::maxSendBufferSize("/proc/sys/net/core/wmem_max"));
}

TEST_F(LocalSocket, SetnsByNameRefusesWhatItCannotResolve) {
    const std::tuple<const char*, int, int> cases[] = {
        {nullptr, CLONE_NEWNET, EINVAL},
        {"kelvo-no-such-namespace", CLONE_NEWNET, ENOENT},
        {"kelvo-no-such-namespace", CLONE_NEWUTS, EINVAL},
        {"/proc/self/ns/uts", CLONE_NEWNET, EINVAL},
    };
    for (const auto& [name, nstype, error] : cases) {
        errno = 0;
        EXPECT_EQ(Kelvo::NetNs::setnsByName(name, nstype), -1);
        EXPECT_EQ(errno, error) << (name ? name : "null");
    }
}

// The real switch: a child moves into a network namespace of its own, with
// its original one pinned as the default in a private mount namespace.
// Abstract names are per network namespace, so a listener made through
// Util::socket is reachable from a socket made the same way and not from one
// made with plain socket(2) in the child's namespace.
TEST_F(LocalSocket, SocketIsMadeInTheDefaultNamespace) {
    const std::string name = uniqueName("netns");
    const auto result = runInChild([&] {
        // Building the namespaces needs CAP_SYS_ADMIN; without it, say so and skip.
        const auto failedStep = [&]() -> const char* {
            if (::unshare(CLONE_NEWNS) != 0)
                return "unshare(CLONE_NEWNS)";
            if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
                return "mount";
            if (::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
                return "mount /run";
            if (::mkdir("/run/netns", 0755) != 0)
                return "mkdir";
            ::close(::open("/run/netns/default", O_CREAT | O_WRONLY | O_CLOEXEC, 0444));
            if (::mount("/proc/self/ns/net", "/run/netns/default", nullptr, MS_BIND, nullptr) != 0)
                return "bind mount";
            return ::unshare(CLONE_NEWNET) != 0 ? "unshare(CLONE_NEWNET)" : nullptr;
        }();
        if (failedStep != nullptr) {
            const bool refused = errno == EPERM || errno == EACCES;
            std::printf("%s%s: %s\n", refused ? "no privilege to create namespaces: " : "",
                        failedStep, std::strerror(errno));
            return refused ? childSkipped : 1;
        }
        const ino_t inner = threadNetNs();

        const int listener = Util::createAndBindSocket(h_, name);
        CHILD_CHECK(::listen(listener, 1) == 0);
        sockaddr_un address;
        const int length = Util::createSockaddr(h_, &address, name);
        const auto* raw = reinterpret_cast<sockaddr*>(&address);
        const int local = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        CHILD_CHECK(::connect(local, raw, length) == -1 && errno == ECONNREFUSED);
        const int shared = Util::socket(h_, AF_UNIX, SOCK_SEQPACKET, 0);
        CHILD_CHECK(::connect(shared, raw, length) == 0);
        CHILD_CHECK(threadNetNs() == inner);
        return 0;
    });
    EXPECT_CHILD_PASSED(result);
    EXPECT_THAT(result.output, HasSubstr("setnsByName() to default success"));
}

}  // namespace
