#include <Kelvo/MappingsCpp.h>
#include <Kelvo/UtilCpp.h>

#include "TestSupport.h"
#include "ProcUtilImpl.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace KelvoTest;
namespace Impl = Kelvo::Impl;

namespace {

using Mappings = OsTest;

std::string show(const Kelvo::Mapping& m) {
    return fmt::format("{:x}-{:x} {} {:x} {:x}:{:x} {} [{}]{}", m.start, m.end, m.permissions,
                       m.offset, m.devMajor, m.devMinor, m.inode, m.path,
                       m.deleted ? " deleted" : "");
}

std::string showAll(const std::vector<Kelvo::Mapping>& entries) {
    std::string text;
    for (const auto& m : entries) {
        text += show(m) + "\n";
    }
    return text;
}

TEST_F(Mappings, ChildMappingsShowFilesWithBlanksDeletedFilesAndAnonymousMemory) {
    const long page = ::sysconf(_SC_PAGESIZE);
    const std::string spaced = path("a b.dat"), gone = path("gone.dat");
    constexpr size_t touched = 4 << 20;
    Kelvo::Util::fileWrite(h_, spaced, std::string(3 * page, 'x'), false);
    Kelvo::Util::fileWrite(h_, gone, std::string(page, 'y'), false);
    struct stat spacedFile, goneFile;
    ASSERT_EQ(::stat(spaced.c_str(), &spacedFile), 0);
    ASSERT_EQ(::stat(gone.c_str(), &goneFile), 0);
    HeldChild child([&] {
        const int spacedFd = ::open(spaced.c_str(), O_RDONLY | O_CLOEXEC);
        const int goneFd = ::open(gone.c_str(), O_RDONLY | O_CLOEXEC);
        void* shared = ::mmap(nullptr, 2 * page, PROT_READ, MAP_SHARED, spacedFd, page);
        void* code = ::mmap(nullptr, page, PROT_READ | PROT_EXEC, MAP_PRIVATE, goneFd, 0);
        void* anonymous =
            ::mmap(nullptr, touched, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        std::memset(anonymous, 1, touched);
        ::unlink(gone.c_str());
        return fmt::format("{} {} {}", shared, code, anonymous);
    });
    std::istringstream report(child.report());
    std::string addresses[3];
    ASSERT_TRUE(report >> addresses[0] >> addresses[1] >> addresses[2]) << child.report();
    const auto maps = Kelvo::readMappings(h_, child.pid());
    ASSERT_TRUE(maps);
    const std::string expected[] = {
        fmt::format("{} r--s {:x} {:x}:{:x} {} [{}]", 2 * page, page, major(spacedFile.st_dev),
                    minor(spacedFile.st_dev), spacedFile.st_ino, spaced),
        fmt::format("{} r-xp 0 {:x}:{:x} {} [{}] deleted", page, major(goneFile.st_dev),
                    minor(goneFile.st_dev), goneFile.st_ino, gone),
        fmt::format("{} rw-p 0 0:0 0 []", touched),
    };
    for (int i = 0; i < 3; ++i) {
        const uintptr_t start = std::stoull(addresses[i], nullptr, 16);
        const Kelvo::Mapping* m = maps->containing(start + 5);
        ASSERT_NE(m, nullptr) << addresses[i];
        EXPECT_EQ(m->start, start);
        const std::string text = show(*m);  // with the range as a size below
        EXPECT_EQ(std::to_string(m->size()) + text.substr(text.find(' ')), expected[i]);
    }
    // VmSize counts every mapping but the kernel's vsyscall page.
    const auto figures = Kelvo::memoryFigures(h_, child.pid());
    ASSERT_TRUE(figures);
    uint64_t mapped = 0;
    for (const auto& m : maps->entries()) {
        mapped += m.path == "[vsyscall]" ? 0 : m.size();
    }
    EXPECT_EQ(figures->mappedBytes, mapped);
    EXPECT_GE(figures->residentBytes, touched);
    EXPECT_LT(figures->residentBytes, figures->mappedBytes);

    const pid_t pid = child.pid();
    child.release();
    CaptureStderr();
    EXPECT_FALSE(Kelvo::readMappings(h_, pid));
    EXPECT_FALSE(Kelvo::memoryFigures(h_, pid));
    EXPECT_THAT(GetCapturedStderr(), ::testing::HasSubstr(fmt::format(
                                         "unable to read /proc/{}/status: No such file", pid)));
}

TEST_F(Mappings, ContainingFindsTheOneMappingAtEveryBoundary) {
    const auto self = Kelvo::readMappings(h_, ::getpid());
    ASSERT_TRUE(self);
    const Kelvo::Mapping* code = self->containing(reinterpret_cast<uintptr_t>(&showAll));
    ASSERT_NE(code, nullptr);
    EXPECT_TRUE(code->executable() && code->fileBacked());
    EXPECT_EQ(code->path, std::filesystem::read_symlink("/proc/self/exe"));

    // The binary search against a linear one, at both ends of every mapping
    // and beside them, over the process's own mappings and a sparse set.
    Kelvo::Mapping a, b, c;
    a.start = 0x1000, a.end = 0x3000, b.start = 0x3000, b.end = 0x4000;
    c.start = 0x8000, c.end = 0x9000;
    for (const Kelvo::Mappings& maps :
         {*self, Kelvo::Mappings({a, b, c}), Kelvo::Mappings({c}), Kelvo::Mappings()}) {
        std::vector<uintptr_t> probes = {0, UINTPTR_MAX};
        for (const auto& m : maps.entries()) {
            probes.insert(probes.end(), {m.start - 1, m.start, m.end - 1, m.end});
        }
        for (uintptr_t address : probes) {
            const Kelvo::Mapping* linear = nullptr;
            for (const auto& m : maps.entries()) {
                linear = m.contains(address) ? &m : linear;
            }
            EXPECT_EQ(maps.containing(address), linear) << std::hex << address;
        }
    }
}

TEST(MappingsParse, LinesOfMapsAndStatus) {
    const std::pair<std::string, std::string> lines[] = {
        {"7f3a1c200000-7f3a1c228000 r--p 00000000 fe:00 1837    /usr/lib/libc.so.6",
         "7f3a1c200000-7f3a1c228000 r--p 0 fe:0 1837 [/usr/lib/libc.so.6]"},
        {"55d0c1a00000-55d0c1a21000 rw-p 00000000 00:00 0                          [heap]",
         "55d0c1a00000-55d0c1a21000 rw-p 0 0:0 0 [[heap]]"},
        {"7ffd1000-7ffd2000 rw-s 00001000 00:05 9 /dev/shm/a  b (deleted)",
         "7ffd1000-7ffd2000 rw-s 1000 0:5 9 [/dev/shm/a  b] deleted"},
        {"7ffd1000-7ffd2000 ---p 00000000 00:00 0 ", "7ffd1000-7ffd2000 ---p 0 0:0 0 []"},
        {"ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0   [vsyscall]",
         "ffffffffff600000-ffffffffff601000 --xp 0 0:0 0 [[vsyscall]]"},
        {"7f3a1c228000-7f3a1c200000 r--p 00000000 fe:00 1837 /x", "-"},
        {"7f3a1c200000 r--p 00000000 fe:00 1837 /x", "-"},
        {"7f3a1c200000-7f3a1c228000 rwzp 00000000 fe:00 1837 /x", "-"},
        {"7f3a1c200000-7f3a1c228000 r--p 00000000 fe00 1837 /x", "-"},
        {"7f3a1c200000-7f3a1c228000 r--p 00000000 fe:00", "-"},
    };
    for (const auto& [line, expected] : lines) {
        const auto mapping = Impl::parseMapsLine(line);
        EXPECT_EQ(mapping ? show(*mapping) : "-", expected) << line;
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
// anywhere, it still gives entries in ascending order without overlaps, which
// is what containing() relies on.
TEST(MappingsParse, CutAndDamagedMapsKeepTheirOrder) {
    const std::string maps =
        "55d0c0e00000-55d0c0e21000 r--p 00000000 fe:00 1837  /usr/bin/kd\n"
        "55d0c0e21000-55d0c0e80000 r-xp 00021000 fe:00 1837  /usr/bin/kd\n"
        "55d0c1a00000-55d0c1a21000 rw-p 00000000 00:00 0     [heap]\n"
        "7f3a1c000000-7f3a1c021000 rw-s 00000000 00:05 9     /dev/shm/a b (deleted)\n"
        "7ffd1000a000-7ffd1002b000 rw-p 00000000 00:00 0     [stack]\n";
    auto quiet = handleWithLevels({});
    const std::string whole = showAll(Impl::parseMaps(*quiet, maps, "maps"));
    ASSERT_EQ(std::count(whole.begin(), whole.end(), '\n'), 5);
    for (size_t cut = 0; cut < maps.size(); ++cut) {
        const std::string some = showAll(Impl::parseMaps(*quiet, maps.substr(0, cut), "maps"));
        EXPECT_EQ(whole.substr(0, some.size()), some) << "cut at " << cut;
    }
    for (char garbage : {'\n', ' ', '-', ':', '0', 'f', 'x', '\0'}) {
        for (size_t at = 0; at < maps.size(); ++at) {
            std::string damaged = maps;
            damaged[at] = garbage;
            const auto entries = Impl::parseMaps(*quiet, damaged, "maps");
            for (size_t i = 0; i < entries.size(); ++i) {
                EXPECT_LT(entries[i].start, entries[i].end);
                EXPECT_TRUE(i == 0 || entries[i - 1].end <= entries[i].start)
                    << "byte " << at << " made " << int(garbage) << "\n"
                    << showAll(entries);
            }
        }
    }
}

}  // namespace
