#include "TestSupport.h"
#include "ProcUtilImpl.h"

#include <sys/mman.h>
#include <sys/sysmacros.h>

using namespace KelvoTest;
namespace Impl = Kelvo::Impl;

namespace {

using Mappings = OsTest;

// A mapping as its start, size and the rest of its maps line.
std::string show(const Kelvo::Mapping& m) {
    return fmt::format("{:x} {:x} {} {:x} {:x}:{:x} {} [{}]{}\n", m.start, m.size(), m.permissions,
                       m.offset, m.devMajor, m.devMinor, m.inode, m.path,
                       m.deleted ? " deleted" : "");
}

// A loop, not a view: clang 14 cannot use libstdc++ 12's ranges.
std::string showAll(const std::vector<Kelvo::Mapping>& entries) {
    std::string all;
    for (const auto& m : entries)
        all += show(m);
    return all;
}

// Device and inode of a file, as a maps line shows them.
std::string fileId(const std::string& file) {
    struct stat info = {};
    ::stat(file.c_str(), &info);
    return fmt::format("{:x}:{:x} {}", major(info.st_dev), minor(info.st_dev), info.st_ino);
}

TEST_F(Mappings, ChildMappingsShowDeletedFilesWithBlanksAndAnonymousMemory) {
    const long page = ::sysconf(_SC_PAGESIZE);
    const std::string spaced = path("a b.dat");
    constexpr size_t touched = 4 << 20;
    Kelvo::Util::fileWrite(h_, spaced, std::string(3 * page, 'x'), false);
    const std::string expected[] = {
        fmt::format("{:x} r-xs {:x} {} [{}] deleted", 2 * page, page, fileId(spaced), spaced),
        fmt::format("{:x} rw-p 0 0:0 0 []", touched),
    };
    HeldChild child([&] {
        const int fd = ::open(spaced.c_str(), O_RDONLY | O_CLOEXEC);
        void* shared = ::mmap(nullptr, 2 * page, PROT_READ | PROT_EXEC, MAP_SHARED, fd, page);
        void* anonymous =
            ::mmap(nullptr, touched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        std::memset(anonymous, 1, touched);
        ::unlink(spaced.c_str());
        return fmt::format("{} {}", shared, anonymous);
    });
    const auto maps = Kelvo::readMappings(h_, child.pid());
    ASSERT_TRUE(maps);
    std::istringstream report(child.report());
    for (const std::string& rest : expected) {
        uintptr_t start = 0;
        ASSERT_TRUE(report >> std::hex >> start) << child.report();
        const Kelvo::Mapping* m = maps->containing(start + 5);
        ASSERT_NE(m, nullptr) << rest;
        EXPECT_EQ(show(*m), fmt::format("{:x} {}\n", start, rest));
    }
    const auto figures = Kelvo::memoryFigures(h_, child.pid());
    ASSERT_TRUE(figures);
    EXPECT_GE(figures->residentBytes, touched);
    EXPECT_LT(figures->residentBytes, figures->mappedBytes);

    const pid_t pid = child.pid();
    child.release();
    CaptureStderr();
    EXPECT_FALSE(Kelvo::readMappings(h_, pid));
    EXPECT_FALSE(Kelvo::memoryFigures(h_, pid));
    EXPECT_THAT(GetCapturedStderr(),
                HasSubstr(fmt::format("unable to read /proc/{}/status: No such file", pid)));
}

TEST(MappingsParse, LinesOfMapsAndStatus) {
    const std::pair<std::string, std::string> lines[] = {
        {"55d0c1a00000-55d0c1a21000 rw-p 00000000 00:00 0                          [heap]",
         "55d0c1a00000 21000 rw-p 0 0:0 0 [[heap]]"},
        {"7ffd1000-7ffd2000 rw-s 00001000 fe:05 9 /dev/shm/a  b (deleted)",
         "7ffd1000 1000 rw-s 1000 fe:5 9 [/dev/shm/a  b] deleted"},
        {"7ffd1000-7ffd2000 ---p 00000000 00:00 0 ", "7ffd1000 1000 ---p 0 0:0 0 []"},
        {"ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0   [vsyscall]",
         "ffffffffff600000 1000 --xp 0 0:0 0 [[vsyscall]]"},
        {"7f3a1c228000-7f3a1c200000 r--p 00000000 fe:00 1837 /x", "-"},
        {"7f3a1c200000 r--p 00000000 fe:00 1837 /x", "-"},
        {"7f3a1c200000-7f3a1c228000 rwzp 00000000 fe:00 1837 /x", "-"},
        {"7f3a1c200000-7f3a1c228000 r--p 00000000 fe00 1837 /x", "-"},
        {"7f3a1c200000-7f3a1c228000 r--p 00000000 fe:00", "-"},
    };
    for (const auto& [line, expected] : lines) {
        const auto mapping = Impl::parseMapsLine(line);
        EXPECT_EQ(mapping ? show(*mapping) : "-\n", expected + "\n") << line;
    }
    const std::pair<std::string, std::string> statuses[] = {
        {"Name:\tkd\nVmSize:\t  218460 kB\nVmRSS:\t    9216 kB\n", "223703040 9437184"},
        {"Name:\tkthreadd\nThreads:\t1\n", "-"},
        {"VmSize:\t  218460 kB\nVmRSS:\t    9216 MB\n", "-"},
        {"VmSize:\t  218460 kB\nVmRSS:\t    9216 kB", "-"},
    };
    for (const auto& [text, expected] : statuses) {
        const auto figures = Impl::parseStatusMemory(text);
        EXPECT_EQ(
            figures ? fmt::format("{} {}", figures->mappedBytes, figures->residentBytes) : "-",
            expected)
            << text;
    }
}

// A maps file cut anywhere gives the whole file's first entries; damaged
// anywhere, it still gives entries in ascending order without overlaps, in
// which containing() finds what a linear search finds at both ends of every
// mapping and beside them.
TEST(MappingsParse, CutAndDamagedMapsKeepTheirOrder) {
    const std::string maps =
        "55d0c0e00000-55d0c0e21000 r--p 00000000 fe:00 1837  /usr/bin/kd\n"
        "55d0c0e21000-55d0c0e80000 r-xp 00021000 fe:00 1837  /usr/bin/kd\n"
        "55d0c1a00000-55d0c1a21000 rw-p 00000000 00:00 0     [heap]\n"
        "7f3a1c000000-7f3a1c021000 rw-s 00000000 00:05 9     /dev/shm/a b (deleted)\n"
        "7ffd1000a000-7ffd1002b000 rw-p 00000000 00:00 0     [stack]\n";
    auto quiet = handleWithLevels({});
    // What is wrong with the order of the entries that text gives, or "".
    const auto disorder = [&](std::string_view text) {
        const Kelvo::Mappings parsed(Impl::parseMaps(*quiet, text, "maps"));
        std::vector<uintptr_t> probes;
        for (const auto& m : parsed.entries()) {
            if (m.start >= m.end || (!probes.empty() && probes.back() > m.start))
                return "out of order: " + showAll(parsed.entries());
            probes.insert(probes.end(), {m.start - 1, m.start, m.end - 1, m.end});
        }
        probes.insert(probes.end(), {0, UINTPTR_MAX});
        for (uintptr_t address : probes) {
            const Kelvo::Mapping* linear = nullptr;
            for (const auto& m : parsed.entries())
                linear = m.contains(address) ? &m : linear;
            if (parsed.containing(address) != linear)
                return fmt::format("containing({:#x}) missed", address);
        }
        return std::string();
    };
    const std::string whole = showAll(Impl::parseMaps(*quiet, maps, "maps"));
    ASSERT_EQ(std::count(whole.begin(), whole.end(), '\n'), 5);
    for (size_t at = 0; at < maps.size(); ++at) {
        const std::string cut = showAll(Impl::parseMaps(*quiet, maps.substr(0, at), "maps"));
        EXPECT_EQ(whole.substr(0, cut.size()), cut) << "cut at " << at;
        EXPECT_EQ(disorder(maps.substr(0, at)), "") << "cut at " << at;
        for (char garbage : {'\n', ' ', '-', ':', '0', 'f', 'x', '\0'}) {
            std::string damaged = maps;
            damaged[at] = garbage;
            EXPECT_EQ(disorder(damaged), "") << "byte " << at << " made " << int(garbage);
        }
    }
}

}  // namespace
