#include "TestSupport.h"
#include "ProcUtilImpl.h"

#include <sys/file.h>
#include <sys/prctl.h>
#include <time.h>

using namespace KelvoTest;
namespace Impl = Kelvo::Impl;
namespace Util = Kelvo::Util;

namespace KelvoTest {
// Exported, so that its vtable has a dynamic symbol to be named by.
struct KELVO_EXPORT ExportedShape {
    virtual ~ExportedShape() = default;
};
}  // namespace KelvoTest

namespace {

// Types known to the child only through their type_info.
template <int>
struct Poly {
    virtual ~Poly() = default;
};
struct Both : Poly<1>, Poly<2> {};
struct NotPolymorphic {
    const char* text = "a literal in a file-backed mapping";
};

using ProcUtil = OsTest;

// Children trace nothing, so that the suite's output is its own.
Kelvo::Platform::DebugHandler& quiet() {
    static const auto handle = handleWithLevels({});
    return *handle;
}

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
        if (::getppid() == parent)
            ::pause();
        ::_exit(0);
    }
    return pid;
}

TEST_F(ProcUtil, IdentityOfAProcessWithBlanksAndParenthesesInItsTitle) {
    // The title is the base name of the executed path, here a link to sh.
    const std::string program = path("a (b)) c");
    ASSERT_EQ(::symlink("/bin/sh", program.c_str()), 0);
    const double bootBefore = secondsSinceBoot();
    const auto wallBefore = std::chrono::system_clock::now();
    // Exec closes the report pipe, so the arguments are in place once the
    // child is constructed; the shell then reads a pipe only it can write to.
    HeldChild shell([&] {
        int forever[2];
        childCheck(::pipe(forever) == 0 && ::dup2(forever[0], STDIN_FILENO) == STDIN_FILENO);
        ::execl(program.c_str(), program.c_str(), "-c", "read line", "", "x y", nullptr);
        return "error: exec";
    });
    const double bootAfter = secondsSinceBoot();
    const pid_t pid = shell.pid();
    ASSERT_EQ(shell.report(), "");

    EXPECT_EQ(Util::processTitle(h_, pid), "a (b)) c");
    EXPECT_EQ(Util::processCommandLine(h_, pid),
              (std::vector<std::string>{program, "-c", "read line", "", "x y"}));
    const auto start = Util::processStartTime(h_, pid);
    ASSERT_TRUE(start);
    // One clock tick is 10 ms; the boot time is whole seconds.
    EXPECT_GE(start->secondsSinceBoot, bootBefore - 0.011);
    EXPECT_LE(start->secondsSinceBoot, bootAfter + 0.011);
    EXPECT_LT(std::chrono::abs(start->wallClock - wallBefore), std::chrono::milliseconds(1100));

    ::kill(pid, SIGKILL);
    shell.release();
    CaptureStderr();
    EXPECT_FALSE(Util::processTitle(h_, pid));
    EXPECT_FALSE(Util::processCommandLine(h_, pid));
    EXPECT_FALSE(Util::processStartTime(h_, pid));
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr(fmt::format("unable to read /proc/{}/cmdline: No such file", pid)));
}

// The holder locks a file each way and binds a name, then forks a process
// that shares its descriptors: that one holds the OFD and flock locks and the
// socket with it, but not the POSIX lock, which belongs to a process. The
// bystander keeps every file open and binds a name the holder's begins with.
TEST_F(ProcUtil, OwnersAreEveryHolderOfTheLockOrTheWholeSocketNameAndNoOneElse) {
    const std::string prefix = fmt::format("kelvo-test-{}-", ::getpid());
    const std::string ofd = path("ofd"), posix = path("posix"), flock = path("flock");
    const std::string unlocked = path("free");
    Util::touch(h_, unlocked);
    HeldChild holder([&] {
        const int fds[] = {::open(ofd.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600),
                           ::open(posix.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600),
                           ::open(flock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)};
        struct flock whole = {};
        whole.l_type = F_WRLCK;
        childCheck(::fcntl(fds[0], Kelvo::cmd_F_OFD_SETLK(), &whole) == 0 &&
                   ::fcntl(fds[1], F_SETLK, &whole) == 0 &&
                   ::flock(fds[2], LOCK_EX | LOCK_NB) == 0);
        Util::createAndBindSocket(quiet(), prefix + "a b");
        return std::to_string(forkSharer());
    });
    HeldChild bystander([&] {
        for (const std::string& file : {ofd, posix, flock, unlocked})
            childCheck(::open(file.c_str(), O_RDONLY) >= 0);
        return std::to_string(Util::createAndBindSocket(quiet(), prefix + "a"));
    });
    ASSERT_THAT(holder.report() + bystander.report(), Not(HasSubstr("error")));
    const pid_t sharer = std::stoi(holder.report());
    const std::vector<pid_t> both = {std::min(holder.pid(), sharer),
                                     std::max(holder.pid(), sharer)};
    const int own = Util::createAndBindSocket(quiet(), prefix + "own");

    EXPECT_EQ(Util::lockOwners(h_, ofd), both);
    EXPECT_EQ(Util::lockOwners(h_, posix), std::vector<pid_t>{holder.pid()});
    EXPECT_EQ(Util::lockOwners(h_, flock), both);
    EXPECT_EQ(Util::lockOwners(h_, unlocked), std::vector<pid_t>{});
    EXPECT_EQ(Util::lockOwners(h_, path("missing")), std::nullopt);
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "a b"), both);
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "a"), std::vector<pid_t>{bystander.pid()});
    EXPECT_EQ(Util::abstractSocketOwners(h_, prefix + "own"), std::vector<pid_t>{::getpid()});
    // The whole name, and only the process asked about.
    EXPECT_EQ(Util::abstractSocketHeldBy(h_, prefix + "a", bystander.pid()), true);
    EXPECT_EQ(Util::abstractSocketHeldBy(h_, prefix + "a", holder.pid()), false);
    EXPECT_EQ(Util::abstractSocketHeldBy(h_, prefix + "a b", ::getpid()), false);
    EXPECT_THAT(Util::abstractSocketNames(h_, prefix),
                ElementsAre(prefix + "a", prefix + "a b", prefix + "own"));
    ::close(own);
}

TEST_F(ProcUtil, RemoteTypeNamesComeFromTheVtableSymbolOrTheTypeInfo) {
    // The objects exist only in the child, which sends their addresses.
    HeldChild child([] {
        auto* both = new Both;
        const void* objects[] = {
            new ExportedShape,
            new Poly<0>,
            static_cast<Poly<2>*>(both),
            (new auto(Kelvo::Platform::getDebugHandler("ProcTypeName")))->get(),
            new NotPolymorphic,
            new long(42),
            reinterpret_cast<void*>(16),
        };
        return fmt::format("{}", fmt::join(objects, " "));
    });
    // Each type, and how it was found.
    const std::pair<const char*, const char*> expected[] = {
        {"KelvoTest::ExportedShape", "vtable symbol _ZTVN9KelvoTest13ExportedShapeE covers"},
        {"(anonymous namespace)::Poly<0>", "type_info of vtable"},
        {"(anonymous namespace)::Both", "type_info of vtable"},
        {"Kelvo::Sarn::DebugHandler", ""},
        {"not an object", ""},
        {"not an object", ""},
        {"not an object", ""},
    };
    std::istringstream addresses(child.report());
    auto detail = handleWithLevels({1, 9});
    for (const auto& [type, trace] : expected) {
        uintptr_t address = 0;
        ASSERT_TRUE(addresses >> std::hex >> address) << child.report();
        SCOPED_TRACE(type);
        CaptureStderr();
        const auto name = Util::remoteTypeName(*detail, child.pid(), address);
        EXPECT_THAT(GetCapturedStderr(), HasSubstr(trace));
        EXPECT_EQ(name.value_or("not an object"), type);
    }
}

TEST_F(ProcUtil, CoreDumpFilterRoundTripsAndRefusesUnknownBits) {
    EXPECT_THAT(runInChild([&] {
                    const uint32_t mask = Util::coreDumpAnonymousPrivate | Util::coreDumpElfHeaders;
                    // A refused filter leaves the one in force.
                    for (const uint32_t bits : {mask, mask | 0x200, Util::coreDumpFilterBits}) {
                        childCheck(Util::coreDumpFilterIs(h_, bits) == !(bits & 0x200));
                        childCheck(Util::coreDumpFilter(h_) == (bits & ~0x200u));
                    }
                    return 0;
                }).text(),
                AllOf(HasSubstr("refusing coredump_filter 0x211: bits 0x200 are unknown"),
                      EndsWith("exit 0")));
}

TEST_F(ProcUtil, AnUnprivilegedCallerGetsNoAnswerForWhatItCannotSee) {
    const std::string probe = std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                              "procprobe/kelvo_proc_probe";
    if (::access("/usr/bin/setpriv", X_OK) != 0 || ::access(probe.c_str(), X_OK) != 0)
        GTEST_SKIP() << "needs /usr/bin/setpriv and " << probe;
    ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);
    const std::string name = fmt::format("kelvo-test-{}-hidden", ::getpid());
    HeldChild holder([&] {
        childCheck((new Kelvo::FileLock(quiet(), dir_, "hidden.lock"))->lock(false));
        Util::createAndBindSocket(quiet(), name);
        return fmt::format("{}", static_cast<void*>(new Poly<0>));
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

// Every parser is given lines the kernel writes for other kinds of objects,
// and damaged ones, beyond those of the cases above; each entry is the line
// and what the parser makes of it.
TEST(ProcUtilParse, LinesOfEachFormat) {
    const auto lock = [](std::string_view line) {
        const auto parsed = Impl::parseLockLine(line);
        return parsed ? fmt::format("{} {}", parsed->waiter ? "wait" : "held", parsed->inode) : "-";
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
        {lock, "4: FLOCK  ADVISORY  WRITE 4242 <none>:0 0 EOF", "-"},
        {lock, "5: OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0", "-"},
        {lock, "5: OFDLCK ADVISORY  WRITE -1 fe:00:109x3114 0 EOF", "-"},
        {lock, "OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0 EOF", "-"},
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
    for (const Case& c : cases)
        EXPECT_EQ(c.parse(c.text), c.expected) << c.text;
}

// Listings cut at every length may lose entries but never gain one; a
// damaged byte anywhere never makes an awaited lock, or an absent one, held.
TEST(ProcUtilParse, CutAndDamagedListingsNeverGainAnEntry) {
    const std::string locks =
        "1: OFDLCK ADVISORY  WRITE -1 fe:00:100 0 EOF\n"
        "1: -> OFDLCK ADVISORY  WRITE -1 fe:00:200 0 EOF\n"
        "2: POSIX  ADVISORY  READ 4242 08:01:300 128 255\n";
    const std::string sockets =
        "Num       RefCount Protocol Flags    Type St Inode Path\n"
        "0000000026e110b4: 00000002 00000000 00000000 0005 01 14954 @kd.ctl\n"
        "0000000026e110b5: 00000002 00000000 00000000 0005 01 14955 @kd.ctl x\n"
        "00000000f82d5f43: 00000003 00000000 00000000 0001 03   568\n";
    // Everything the two listings answer, as one set of facts.
    const auto facts = [](std::string_view locks, std::string_view sockets) {
        std::set<std::string> facts;
        for (uint64_t inode : {100, 200, 300, 400}) {
            if (Impl::lockListed(locks, inode))
                facts.insert(fmt::format("locked {}", inode));
        }
        for (const char* name : {"@kd.ctl", "@kd.ctl x"}) {
            for (uint64_t inode : Impl::unixSocketInodes(sockets, name))
                facts.insert(fmt::format("{} {}", name, inode));
        }
        for (const std::string& name : Impl::abstractNames(sockets, ""))
            facts.insert("name " + name);
        return facts;
    };
    const auto whole = facts(locks, sockets);
    ASSERT_EQ(whole, (std::set<std::string>{"locked 100", "locked 300", "@kd.ctl 14954",
                                            "@kd.ctl x 14955", "name kd.ctl", "name kd.ctl x"}));
    for (size_t at = 0; at < sockets.size(); ++at) {
        const auto cut = facts(locks.substr(0, at), sockets.substr(0, at));
        EXPECT_TRUE(std::includes(whole.begin(), whole.end(), cut.begin(), cut.end()))
            << "cut at " << at << ": " << fmt::format("{}", fmt::join(cut, "; "));
        for (char garbage : {'\n', ' ', ':', '-', '>', '0', '@', 'x', '\0'}) {
            // The lock listing is the shorter: its bytes come round again.
            std::string damaged = locks;
            damaged[at % locks.size()] = garbage;
            const auto some = facts(damaged, "");
            EXPECT_FALSE(some.count("locked 200") || some.count("locked 400"))
                << "byte " << at % locks.size() << " made " << int(garbage);
        }
    }
}

}  // namespace
