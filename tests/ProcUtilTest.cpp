#include <Kelvo/FileLockCpp.h>
#include <Kelvo/ProcUtilCpp.h>
#include <Kelvo/UtilCpp.h>

#include "TestSupport.h"
#include "ProcUtilImpl.h"

#include <spawn.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <time.h>

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using namespace KelvoTest;
namespace Impl = Kelvo::Impl;
namespace Util = Kelvo::Util;

namespace KelvoTest {
// Exported, so that its vtable has a dynamic symbol to be named by.
struct KELVO_EXPORT ExportedShape {
    virtual ~ExportedShape() = default;
    int sides = 3;
};
}  // namespace KelvoTest

namespace {

struct Probe {
    virtual ~Probe() = default;
};
struct Left {
    virtual ~Left() = default;
    long left = 1;
};
struct Right {
    virtual ~Right() = default;
    long right = 2;
};
struct Both : Left, Right {};
struct NotPolymorphic {
    const char* text = "a literal in a file-backed mapping";
};

// Children trace nothing, so that the suite's output is its own.
class ProcUtil : public OsTest {
  protected:
    std::shared_ptr<Kelvo::Platform::DebugHandler> quietHandle_ = handleWithLevels({});
    Kelvo::Platform::DebugHandler& quiet_ = *quietHandle_;
};

double secondsSinceBoot() {
    timespec now;
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Forks a process that keeps the descriptors it inherits and dies with its
// parent; returns its id.
pid_t forkSharer() {
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::alarm(60);
        if (::getppid() == parent) {
            ::pause();
        }
        ::_exit(0);
    }
    return pid;
}

TEST_F(ProcUtil, IdentityOfAProcessWithBlanksAndParenthesesInItsTitle) {
    // The title is the base name of the executed path, here a link to sh.
    const std::string program = path("a (b)) c");
    ASSERT_EQ(::symlink("/bin/sh", program.c_str()), 0);
    // The shell says when it runs (its arguments are in place only once exec
    // is done) and then waits for its input to close.
    int input[2], output[2];
    ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(output, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    std::vector<std::string> args = {program, "-c", "echo; read line", "", "x y"};
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const double bootBefore = secondsSinceBoot();
    const auto wallBefore = std::chrono::system_clock::now();
    pid_t pid = -1;
    ASSERT_EQ(::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ), 0);
    const double bootAfter = secondsSinceBoot();
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    struct pollfd running = {output[0], POLLIN, 0};
    ASSERT_EQ(::poll(&running, 1, 30000), 1);
    ::close(output[0]);

    EXPECT_EQ(Util::processTitle(h_, pid), "a (b)) c");
    EXPECT_EQ(Util::processCommandLine(h_, pid), args);
    const auto start = Util::processStartTime(h_, pid);
    ASSERT_TRUE(start);
    // One clock tick is 10 ms; the boot time is whole seconds.
    EXPECT_GE(start->secondsSinceBoot, bootBefore - 0.011);
    EXPECT_LE(start->secondsSinceBoot, bootAfter + 0.011);
    EXPECT_LT(std::chrono::abs(start->wallClock - wallBefore), std::chrono::milliseconds(1100));

    ::close(input[1]);
    ASSERT_EQ(::waitpid(pid, nullptr, 0), pid);
    CaptureStderr();
    EXPECT_FALSE(Util::processTitle(h_, pid));
    EXPECT_FALSE(Util::processCommandLine(h_, pid));
    EXPECT_FALSE(Util::processStartTime(h_, pid));
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr(fmt::format("unable to read /proc/{}/cmdline: No such file", pid)));
}

TEST_F(ProcUtil, LockOwnersAreTheHoldersOfTheLockAndNoOneElse) {
    enum Kind { ofd, posix, flock };
    for (Kind kind : {ofd, posix, flock}) {
        SCOPED_TRACE(kind);
        const std::string file = path(fmt::format("{}.lock", int(kind)));
        const std::string unlocked = path(fmt::format("{}.free", int(kind)));
        Util::touch(h_, unlocked);
        // The holder forks a process that shares its description: it holds
        // an OFD or flock lock with it, but not the holder's POSIX lock.
        HeldChild holder([&] {
            bool locked = false;
            if (kind == ofd) {
                locked = (new Kelvo::FileLock(quiet_, dir_, fmt::format("{}.lock", int(kind))))
                             ->lock(false);
            } else {
                const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
                struct flock whole = {};
                whole.l_type = F_WRLCK;
                locked = kind == posix ? ::fcntl(fd, F_SETLK, &whole) == 0
                                       : ::flock(fd, LOCK_EX | LOCK_NB) == 0;
            }
            return locked ? std::to_string(forkSharer()) : "error: not locked";
        });
        // Keeps both files open without locking them.
        HeldChild bystander([&] {
            return std::to_string(::open(file.c_str(), O_RDONLY) >= 0 &&
                                  ::open(unlocked.c_str(), O_RDONLY) >= 0);
        });
        ASSERT_EQ(bystander.report(), "1");
        const pid_t sharer = std::stoi(holder.report());
        const std::vector<pid_t> expected =
            kind == posix ? std::vector<pid_t>{holder.pid()}
                          : std::vector<pid_t>{std::min(holder.pid(), sharer),
                                               std::max(holder.pid(), sharer)};
        EXPECT_EQ(Util::lockOwners(h_, file), expected);
        EXPECT_EQ(Util::lockOwners(h_, unlocked), std::vector<pid_t>{});
    }
    Kelvo::FileLock own(h_, dir_, "own.lock");
    ASSERT_TRUE(own.lock(false));
    EXPECT_EQ(Util::lockOwners(h_, own.file()), std::vector<pid_t>{::getpid()});
    EXPECT_EQ(Util::lockOwners(h_, path("missing")), std::nullopt);
}

TEST_F(ProcUtil, SocketOwnersMatchTheWholeNameAndEveryHolderOfTheDescriptor) {
    const std::string prefix = fmt::format("kelvo-test-{}-", ::getpid());
    HeldChild spaced([&] {
        Util::createAndBindSocket(quiet_, prefix + "a b");
        return std::to_string(forkSharer());
    });
    HeldChild shorter(
        [&] { return std::to_string(Util::createAndBindSocket(quiet_, prefix + "a")); });
    const pid_t sharer = std::stoi(spaced.report());
    const int own = Util::createAndBindSocket(quiet_, prefix + "own");

    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "a b"),
              (std::vector<pid_t>{std::min(spaced.pid(), sharer), std::max(spaced.pid(), sharer)}));
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "a"), std::vector<pid_t>{shorter.pid()});
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "own"), std::vector<pid_t>{::getpid()});
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix), std::vector<pid_t>{});
    EXPECT_THAT(Util::abstractSocketNames(h_, prefix),
                ElementsAre(prefix + "a", prefix + "a b", prefix + "own"));
    ::close(own);
    shorter.release();
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "a"), std::vector<pid_t>{});
    EXPECT_THAT(Util::abstractSocketNames(h_, prefix), ElementsAre(prefix + "a b"));
}

TEST_F(ProcUtil, RemoteTypeNamesComeFromTheVtableSymbolOrTheTypeInfo) {
    // The objects exist only in the child, which sends their addresses.
    HeldChild child([] {
        auto* both = new Both;
        const void* objects[] = {
            new ExportedShape,
            new Probe,
            static_cast<Right*>(both),
            (new auto(Kelvo::Platform::getDebugHandler("ProcTypeName")))->get(),
            new NotPolymorphic,
            new long(42),
            reinterpret_cast<void*>(16),
        };
        std::string addresses;
        for (const void* object : objects) {
            addresses += fmt::format("{} ", object);
        }
        return addresses;
    });
    const char* expected[] = {"KelvoTest::ExportedShape",
                              "(anonymous namespace)::Probe",
                              "(anonymous namespace)::Both",
                              "Kelvo::Sarn::DebugHandler",
                              "not an object",
                              "not an object",
                              "not an object"};
    std::istringstream addresses(child.report());
    auto detail = handleWithLevels({1, 9});
    for (const char* type : expected) {
        std::string address;
        ASSERT_TRUE(addresses >> address) << child.report();
        SCOPED_TRACE(address + " " + type);
        CaptureStderr();
        const auto name =
            Util::remoteTypeName(*detail, child.pid(), std::stoull(address, nullptr, 16));
        const std::string trace = GetCapturedStderr();
        EXPECT_EQ(name.value_or("not an object"), type);
        if (std::string_view(type).starts_with("KelvoTest")) {
            EXPECT_THAT(trace, HasSubstr("vtable symbol _ZTVN9KelvoTest13ExportedShapeE covers"));
        } else if (std::string_view(type).starts_with("(anonymous")) {
            EXPECT_THAT(trace, HasSubstr("type_info of vtable"));
        }
    }
}

TEST_F(ProcUtil, CoreDumpFilterRoundTripsAndRefusesUnknownBits) {
    EXPECT_THAT(runInChild([&] {
                    childCheck(Util::coreDumpFilter(h_).has_value());
                    const uint32_t mask = Util::coreDumpAnonymousPrivate | Util::coreDumpElfHeaders;
                    childCheck(Util::coreDumpFilterIs(h_, mask));
                    childCheck(Util::coreDumpFilter(h_) == mask);
                    childCheck(!Util::coreDumpFilterIs(h_, mask | 0x200));
                    childCheck(Util::coreDumpFilter(h_) == mask);
                    childCheck(Util::coreDumpFilterIs(h_, Util::coreDumpFilterBits));
                    childCheck(Util::coreDumpFilter(h_) == Util::coreDumpFilterBits);
                    return 0;
                }).text(),
                AllOf(HasSubstr("refusing coredump_filter 0x211: bits 0x200 are unknown"),
                      EndsWith("exit 0")));
}

TEST_F(ProcUtil, AnUnprivilegedCallerGetsNoAnswerForWhatItCannotSee) {
    const std::string probe = std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                              "procprobe/kelvo_proc_probe";
    if (::access("/usr/bin/setpriv", X_OK) != 0 || ::access(probe.c_str(), X_OK) != 0) {
        GTEST_SKIP() << "needs /usr/bin/setpriv and " << probe;
    }
    ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);
    const std::string name = fmt::format("kelvo-test-{}-hidden", ::getpid());
    HeldChild holder([&] {
        childCheck((new Kelvo::FileLock(quiet_, dir_, "hidden.lock"))->lock(false));
        Util::createAndBindSocket(quiet_, name);
        return fmt::format("{}", static_cast<void*>(new Probe));
    });
    const std::string output =
        runInChild([&] {
            const std::string pid = std::to_string(holder.pid());
            const std::string lockFile = path("hidden.lock");
            ::execl("/usr/bin/setpriv", "setpriv", "--reuid", "65534", "--regid", "65534",
                    "--clear-groups", probe.c_str(), pid.c_str(), lockFile.c_str(), name.c_str(),
                    holder.report().c_str(), nullptr);
            return 1;
        }).text();
    EXPECT_EQ(output,
              "title: test_ProcUtil\nlockOwners: unknown\nsocketOwners: unknown\n"
              "mappings: unknown\ntype: unknown\nownLock: self\nexit 0");
}

// Every parser is given well-formed lines, lines the kernel writes for other
// kinds of objects, and damaged ones; each entry is the line and what the
// parser makes of it.
TEST(ProcUtilParse, LinesOfEachFormat) {
    const auto lock = [](std::string_view line) {
        const auto parsed = Impl::parseLockLine(line);
        return parsed ? fmt::format("{} {} {:x}:{:x}:{}", parsed->waiter ? "wait" : "held",
                                    parsed->pid, parsed->devMajor, parsed->devMinor, parsed->inode)
                      : "-";
    };
    const auto socket = [](std::string_view line) {
        const auto parsed = Impl::parseUnixSocketLine(line);
        return parsed ? fmt::format("{} [{}]", parsed->inode, parsed->path) : "-";
    };
    const auto stat = [](std::string_view text) {
        const auto parsed = Impl::parseStat(text);
        return parsed ? fmt::format("[{}] {}", parsed->title, parsed->startTicks) : "-";
    };
    const auto cmdline = [](std::string_view text) {
        return fmt::format("{}", fmt::join(Impl::splitCommandLine(text), "|"));
    };
    using namespace std::literals;
    const std::string statTail = " S 1 9 9 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 152347 2234 5";
    struct Case {
        std::function<std::string(std::string_view)> parse;
        std::string text, expected;
    } cases[] = {
        {lock, "1: OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0 EOF", "held -1 fe:0:10953114"},
        {lock, "1: -> OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0 EOF", "wait -1 fe:0:10953114"},
        {lock, "2: POSIX  ADVISORY  READ 4242 08:01:77 128 255", "held 4242 8:1:77"},
        {lock, "4: FLOCK  ADVISORY  WRITE 4242 <none>:0 0 EOF", "-"},
        {lock, "5: OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0", "-"},
        {lock, "5: OFDLCK ADVISORY  WRITE -1 fe:00:109x3114 0 EOF", "-"},
        {lock, "OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0 EOF", "-"},
        {socket, "0000000026e110b4: 00000002 00000000 00000000 0005 01 14954 @kd (ctl) x",
         "14954 [@kd (ctl) x]"},
        {socket, "00000000f82d5f43: 00000003 00000000 00000000 0001 03   568", "568 []"},
        {socket, "00000000f82d5f43: 00000002 00000000 00010000 0001 01 569 /run/k.sock",
         "569 [/run/k.sock]"},
        {socket, "Num       RefCount Protocol Flags    Type St Inode Path", "-"},
        {socket, "00000000f82d5f43: 00000002 00000000 00010000 0001 01", "-"},
        {socket, "00000000f82d5f43: 00000002 00000000 00010000 0001 01 569 ", "-"},
        {stat, "4242 (x) S 1", "-"},
        {stat, "4242 x)" + statTail, "-"},
        {stat, "4242 (x)" + statTail.substr(0, statTail.size() - 7), "-"},
        {stat, "4242 (x (y)) z)" + statTail, "[x (y)) z] 152347"},
        {cmdline, "a\0b c\0\0"s, "a|b c|"},
        {cmdline, "a\0b"s, "a|b"},  // rewritten by the process, unterminated
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.parse(c.text), c.expected) << c.text;
    }
}

// Whole files cut at every length may lose entries but never gain one; a
// damaged byte anywhere never makes an awaited lock, or an absent one, held.
TEST(ProcUtilParse, CutAndDamagedFilesNeverGainAnEntry) {
    const std::string locks =
        "1: OFDLCK ADVISORY  WRITE -1 fe:00:100 0 EOF\n"
        "1: -> OFDLCK ADVISORY  WRITE -1 fe:00:200 0 EOF\n"
        "2: POSIX  ADVISORY  READ 4242 08:01:300 128 255\n";
    const std::string sockets =
        "Num       RefCount Protocol Flags    Type St Inode Path\n"
        "0000000026e110b4: 00000002 00000000 00000000 0005 01 14954 @kd.ctl\n"
        "0000000026e110b5: 00000002 00000000 00000000 0005 01 14955 @kd.ctl x\n"
        "00000000f82d5f43: 00000003 00000000 00000000 0001 03   568\n";
    const std::string stat =
        "4242 (kd (1)) S 1 9 9 0 -1 4194560 100 0 0 0 1 2 0 0 20 0 1 0 152347 2234 5\n";
    // Everything the three files answer, as one set of facts.
    const auto facts = [](std::string_view locks, std::string_view sockets, std::string_view stat) {
        std::set<std::string> facts;
        for (uint64_t inode : {100, 200, 300, 400}) {
            if (Impl::lockListed(locks, inode)) {
                facts.insert(fmt::format("locked {}", inode));
            }
        }
        for (const char* name : {"@kd.ctl", "@kd.ctl x"}) {
            for (uint64_t inode : Impl::unixSocketInodes(sockets, name)) {
                facts.insert(fmt::format("{} {}", name, inode));
            }
        }
        for (const std::string& name : Impl::abstractNames(sockets, "")) {
            facts.insert("name " + name);
        }
        if (const auto fields = Impl::parseStat(stat)) {
            facts.insert(fmt::format("stat {} {}", fields->title, fields->startTicks));
        }
        return facts;
    };
    const auto whole = facts(locks, sockets, stat);
    ASSERT_EQ(whole,
              (std::set<std::string>{"locked 100", "locked 300", "@kd.ctl 14954", "@kd.ctl x 14955",
                                     "name kd.ctl", "name kd.ctl x", "stat kd (1) 152347"}));
    const size_t longest = std::max({locks.size(), sockets.size(), stat.size()});
    for (size_t cut = 0; cut < longest; ++cut) {
        const auto some =
            facts(std::string_view(locks).substr(0, cut), std::string_view(sockets).substr(0, cut),
                  std::string_view(stat).substr(0, cut));
        EXPECT_TRUE(std::includes(whole.begin(), whole.end(), some.begin(), some.end()))
            << "cut at " << cut << ": " << fmt::format("{}", fmt::join(some, "; "));
    }
    for (char garbage : {'\n', ' ', ':', '-', '>', '0', '@', 'x', '\0'}) {
        for (size_t at = 0; at < longest; ++at) {
            std::string l = locks, s = sockets, t = stat;
            for (std::string* text : {&l, &s, &t}) {
                if (at < text->size()) {
                    (*text)[at] = garbage;
                }
            }
            const auto some = facts(l, s, t);
            EXPECT_FALSE(some.count("locked 200") || some.count("locked 400"))
                << "byte " << at << " made " << int(garbage);
        }
    }
}

}  // namespace
