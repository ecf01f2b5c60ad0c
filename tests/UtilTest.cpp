#include "TestSupport.h"
#include "UtilImpl.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

using namespace KelvoTest;

namespace Util = Kelvo::Util;

namespace {

using UtilFiles = OsTest;

TEST_F(UtilFiles, FileHelpersTurnFailuresIntoResultsAndLevelZeroTraces) {
    h_.enabledIs(5, false);  // optional files trace below level 0
    const std::string file = path("f");
    const std::string missing = path("no/f");
    ASSERT_EQ(::symlink("nowhere", path("dangling").c_str()), 0);
    EXPECT_TRUE(Util::touch(h_, file));
    Util::fileWrite(h_, file, "a longer first text", false);
    Util::fileWrite(h_, file, "0123456789", false);
    EXPECT_TRUE(Util::touch(h_, file));
    EXPECT_EQ(Util::fileRead(h_, file, false), "0123456789") << "touch keeps contents";
    EXPECT_FALSE(Util::fileExists(h_, path("dangling")));

    const int ro = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    CaptureStderr();
    EXPECT_FALSE(Util::touch(h_, missing));
    EXPECT_EQ(
        thrownMessage<Kelvo::RuntimeException>([&] { Util::fileWrite(h_, missing, "x", false); }),
        missing);
    Util::fileWrite(h_, missing, "x", true);
    EXPECT_EQ(Util::fileRead(h_, missing, true) + Util::fileRead(h_, dir_, false), "");
    EXPECT_EQ(Util::truncate(h_, file, ro, 2), -1);
    EXPECT_EQ(std::vector<uint64_t>(
                  {Util::fileSize(h_, ro), Util::fileSize(h_, missing), Util::fileSize(h_, -1)}),
              std::vector<uint64_t>({10, 0, 0}));
    EXPECT_TRUE(Util::fileRemove(h_, file));
    EXPECT_TRUE(Util::fileRemove(h_, file)) << "a missing file is no error";
    EXPECT_FALSE(Util::fileRemove(h_, dir_));
    ::close(ro);
    EXPECT_THAT(GetCapturedStderr(),
                AllOf(HasSubstr("unable to open " + missing + " reason: No such file or directory"),
                      HasSubstr("unable to open " + missing + " reason:No such file or directory"),
                      HasSubstr("unable to open file " + dir_ + ". Caught std::exception: "),
                      HasSubstr("ftruncate() size:2 error: " + file + ": Invalid argument"),
                      HasSubstr("unlink() error " + dir_ + ": Is a directory"),
                      Not(HasSubstr("unable to open file " + missing)),
                      Not(HasSubstr("unlink() error " + file))));
}

TEST(Util, FileSizeHelperThrowsOnProductOrSumOverflow) {
    constexpr uint64_t max = std::numeric_limits<uint64_t>::max();
    const auto size = [](uint64_t entries, uint64_t entrySize, uint64_t extra) {
        std::string sum;
        const std::string thrown = thrownMessage<Kelvo::RuntimeException>(
            [&] { sum = std::to_string(Util::fileSizeHelper(entries, entrySize, extra)); });
        return sum.empty() ? thrown : sum;
    };
    EXPECT_EQ(size(3, 4, 5), "17");
    EXPECT_EQ(size(0, max, max), "18446744073709551615");
    EXPECT_EQ(size(uint64_t(1) << 62, 8, 0),
              "fileSizeHelper overflow, entries:4611686018427387904 entrySize:8 xResult:0 "
              "endResult:0");
    EXPECT_EQ(size(max, 1, 1),
              "fileSizeHelper overflow, entries:18446744073709551615 entrySize:1 "
              "xResult:18446744073709551615 endResult:0");
}

TEST_F(UtilFiles, MkpathAndTrimpathAreInverses) {
    ASSERT_EQ(::mkdir(path("a").c_str(), 0755), 0);
    EXPECT_EQ(Util::mkpath(path("a/b/c/d"), 0755), 0);
    errno = 0;
    EXPECT_EQ(Util::mkpath(path("a/b/c/d"), 0755), -1);
    EXPECT_EQ(errno, EEXIST);
    Util::fileWrite(h_, path("plain"), "", false);
    EXPECT_EQ(Util::mkpath(path("plain/x/y"), 0755), -1);
    EXPECT_EQ(errno, ENOTDIR);

    EXPECT_TRUE(Util::trimpath(path("a/b/c/d"), "/c/d"));
    EXPECT_FALSE(std::filesystem::exists(path("a/b/c")));
    EXPECT_TRUE(std::filesystem::is_directory(path("a/b")));
    EXPECT_TRUE(Util::trimpath(path("a/b/c/d"), "c/d")) << "already gone is fine";
    ASSERT_EQ(Util::mkpath(path("a/b/c/d"), 0755), 0);
    Util::fileWrite(h_, path("a/b/c/keep"), "", false);
    EXPECT_FALSE(Util::trimpath(path("a/b/c/d"), "/c/d")) << "only empty directories go";
    EXPECT_TRUE(std::filesystem::exists(path("a/b/c/keep")));

    const std::tuple<const char*, const char*, const char*> bad[] = {
        {"", "x", "absolute path is empty"},
        {"relative/x", "x", "absolute path is not absolute"},
        {"/a/x", "", "trailing path is empty"},
        {"/a/x", "/a/x", "trailing path longer than absolute path"},
        {"/a/x", "y", "trailing path is not a terminal substring of absolute path"},
    };
    for (const auto& [absolute, trailing, message] : bad) {
        EXPECT_THAT(thrownMessage([a = absolute, t = trailing] { Util::trimpath(a, t); }),
                    HasSubstr(message));
    }
}

TEST_F(UtilFiles, GetCwdThrowsWhenTheWorkingDirectoryIsGone) {
    const std::string gone = path("gone");
    EXPECT_THAT(
        runInChild([&] {
            childCheck(::mkdir(gone.c_str(), 0755) == 0 && ::chdir(gone.c_str()) == 0);
            childCheck(Util::getCwd(h_) == gone && ::rmdir(gone.c_str()) == 0);
            std::puts(thrownMessage<Kelvo::RuntimeException>([&] { Util::getCwd(h_); }).c_str());
            return 0;
        }).text(),
        EndsWith("getcwd() failed:No such file or directory\nexit 0"));
}

TEST(Util, EncodingsPutTheLeastSignificantPartFirst) {
    std::string encoded;
    for (uint32_t value : {0u, 1u, 62u, 63u, 64u, 0xC0000000u, 0xFFFFFFFFu})
        encoded += Util::base64Encode(value) + " ";
    for (uint64_t magic : {0x4f564c4bull, 0x4847464544434241ull, 0x4300004241ull})
        encoded += Util::decodeMagic(magic) + " ";
    EXPECT_EQ(encoded, "AAAAAA BAAAAA _AAAAA =AAAAA ABAAAA AAAAAD =====D KLVO ABCDEFGH AB ");
}

// Local sockets in the default network namespace, and the namespace layer.
using LocalSocket = OsTest;

ino_t threadNetNs() {
    struct stat info;
    return ::stat("/proc/thread-self/ns/net", &info) == 0 ? info.st_ino : 0;
}

// Connects a socket that fn makes to the listener bound to name; errno when it fails.
int connectTo(const std::string& name, const std::function<int()>& fn) {
    sockaddr_un address;
    const int length = Util::createSockaddr(Kelvo::Impl::utilHandle(), &address, name);
    const int sd = fn();
    const int rc = ::connect(sd, reinterpret_cast<sockaddr*>(&address), length);
    const int error = errno;
    ::close(sd);
    return rc == 0 ? 0 : error;
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

// Where the thread returns to its own namespace is checked in a namespace
// of its own, below.
TEST_F(LocalSocket, BadArgumentsAndMissingSystemFilesAreHandled) {
    CaptureStderr();
    errno = 0;
    EXPECT_LT(Util::socket(h_, AF_UNIX, 0x7ff, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    const int fallback =
        Kelvo::Impl::socketInDefaultNs(h_, "/nonexistent/ns/net", AF_UNIX, SOCK_DGRAM, 0);
    EXPECT_GE(fallback, 0);
    ::close(fallback);
    EXPECT_EQ(Kelvo::Impl::socketInDefaultNs(h_, "/etc/passwd/ns", AF_UNIX, SOCK_DGRAM, 0), -1);
    EXPECT_EQ(errno, ENOTDIR) << "only a missing or forbidden namespace file is tolerated";
    EXPECT_THAT(
        GetCapturedStderr(),
        AllOf(HasSubstr("setnsByName() to default "),
              HasSubstr("failed opening local socket: Invalid argument"),
              HasSubstr("failed to open /nonexistent/ns/net reason: No such file or directory"),
              HasSubstr("success opening local socket, sd:" + std::to_string(fallback))));

    Pipe pipe;
    const std::tuple<int, int, std::string> cases[] = {
        {-1, 10, "invalid sd: -1"},
        {3, 0, "invalid size: 0"},
        {pipe.fds[0], 4096,
         fmt::format("unable to set socket {} buffer size to 4096 bytes: "
                     "Socket operation on non-socket",
                     pipe.fds[0])},
    };
    for (const auto& [sd, size, text] : cases) {
        // Copies: clang 14 cannot capture structured bindings.
        EXPECT_THAT(
            thrownMessage([sd = sd, size = size] { Util::setSocketSendBufferSize(sd, size); }),
            HasSubstr(text));
    }

    EXPECT_EQ(Kelvo::Impl::maxSendBufferSize(path("absent")), 8388608);
    Util::fileWrite(h_, path("wmem"), " 4194304x\n", false);
    EXPECT_EQ(Kelvo::Impl::maxSendBufferSize(path("wmem")), 4194304);
    Util::fileWrite(h_, path("wmem"), "none", false);
    EXPECT_THROW(Kelvo::Impl::maxSendBufferSize(path("wmem")), std::invalid_argument);
    EXPECT_EQ(Util::SYSTEM_MAX_SEND_BUFFER_SIZE(),
              Kelvo::Impl::maxSendBufferSize("/proc/sys/net/core/wmem_max"));

    const auto setnsError = [](const char* name, int nstype) {
        errno = 0;
        return Kelvo::NetNs::setnsByName(name, nstype) == -1 ? errno : 0;
    };
    EXPECT_EQ(std::vector<int>({setnsError(nullptr, CLONE_NEWNET),
                                setnsError("kelvo-no-such-namespace", CLONE_NEWNET),
                                setnsError("kelvo-no-such-namespace", CLONE_NEWUTS)}),
              std::vector<int>({EINVAL, ENOENT, EINVAL}));
}

// The real switch: a child moves into a network namespace of its own, with
// its original one pinned as the default in a private mount namespace.
// Abstract names are per network namespace, so the parent's listener is
// reachable from the child through Util::socket and not through socket(2),
// and its name is taken for the child's Util::createAndBindSocket.
TEST_F(LocalSocket, SocketsAreMadeAndBoundInTheDefaultNamespace) {
    // Unique per process, so that parallel runs never meet on one name.
    const std::string name = fmt::format("kelvo-test-netns-{}", ::getpid());
    const auto bindAgain = [&] {
        return thrownMessage<Kelvo::RuntimeException>([&] { Util::createAndBindSocket(h_, name); });
    };
    const int listener = Util::createAndBindSocket(h_, name);
    ASSERT_EQ(::listen(listener, 8), 0);
    EXPECT_THAT(bindAgain(),
                MatchesRegex("bind\\(\\) failed for socket:[0-9]+ error: Address already in use"));
    const std::string result =
        runInChild([&] {
            // Building the namespaces needs CAP_SYS_ADMIN; without it, say so and skip.
            if (::unshare(CLONE_NEWNS) != 0 ||
                ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                ::mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0 ||
                ::mkdir("/run/netns", 0755) != 0 ||
                ::close(::open("/run/netns/default", O_CREAT | O_WRONLY | O_CLOEXEC, 0444)) != 0 ||
                ::mount("/proc/self/ns/net", "/run/netns/default", nullptr, MS_BIND, nullptr) !=
                    0 ||
                ::unshare(CLONE_NEWNET) != 0) {
                const int error = errno;
                std::printf("cannot build the namespaces: %s\n", std::strerror(error));
                return error == EPERM || error == EACCES ? childSkipped : 1;
            }
            const ino_t inner = threadNetNs();
            childCheck(connectTo(name, [] { return ::socket(AF_UNIX, SOCK_SEQPACKET, 0); }) ==
                       ECONNREFUSED);
            childCheck(
                connectTo(name, [&] { return Util::socket(h_, AF_UNIX, SOCK_SEQPACKET, 0); }) == 0);
            childCheck(bindAgain().ends_with("Address already in use"));
            childCheck(threadNetNs() == inner);
            return 0;
        }).text();
    ::close(listener);
    if (result.ends_with("exit " + std::to_string(childSkipped)))
        GTEST_SKIP() << result;
    EXPECT_THAT(result, AllOf(HasSubstr("setnsByName() to default success"), EndsWith("exit 0")));
}

}  // namespace
