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

TEST_F(Mappings, ChildMappingsShowDeletedFilesWithBlanksAndFailForAGonePid) {
    const long page = ::sysconf(_SC_PAGESIZE);
    const std::string spaced = path("a b.dat");
    Kelvo::Util::fileWrite(h_, spaced, std::string(3 * page, 'x'), false);
    struct stat file = {};
    ASSERT_EQ(::stat(spaced.c_str(), &file), 0);
    HeldChild child([&] {
        const int fd = ::open(spaced.c_str(), O_RDONLY | O_CLOEXEC);
        void* shared = ::mmap(nullptr, 2 * page, PROT_READ | PROT_EXEC, MAP_SHARED, fd, page);
        ::unlink(spaced.c_str());
        return fmt::format("{:x}", reinterpret_cast<uintptr_t>(shared));
    });
    const auto maps = Kelvo::readMappings(h_, child.pid());
    ASSERT_TRUE(maps);
    const Kelvo::Mapping* m = maps->containing(std::stoull(child.report(), nullptr, 16) + 5);
    ASSERT_NE(m, nullptr) << child.report();
    EXPECT_EQ(show(*m),
              fmt::format("{} {:x} r-xs {:x} {:x}:{:x} {} [{}] deleted\n", child.report(), 2 * page,
                          page, major(file.st_dev), minor(file.st_dev), file.st_ino, spaced));
    const auto figures = Kelvo::memoryFigures(h_, child.pid());
    ASSERT_TRUE(figures);
    EXPECT_LT(figures->residentBytes, figures->mappedBytes);

    const pid_t pid = child.pid();
    child.release();
    EXPECT_FALSE(Kelvo::readMappings(h_, pid));
    EXPECT_FALSE(Kelvo::memoryFigures(h_, pid));
}

TEST(MappingsParse, BadMapsLinesAndStatusTexts) {
    for (const char* line : {"7f3a1c228000-7f3a1c200000 r--p 00000000 fe:00 1837 /x",
                             "7f3a1c200000 r--p 00000000 fe:00 1837 /x",
                             "7f3a1c200000-7f3a1c228000 rwzp 00000000 fe:00 1837 /x",
                             "7f3a1c200000-7f3a1c228000 r--p 00000000 fe00 1837 /x",
                             "7f3a1c200000-7f3a1c228000 r--p 00000000 fe:00"})
        EXPECT_FALSE(Impl::parseMapsLine(line)) << line;
    const std::pair<std::string, std::string> statuses[] = {
        {"Name:\tkd\nVmSize:\t  218460 kB\nVmRSS:\t    9216 kB\n", "223703040 9437184"},
        {"VmSize:\t  218460 kB\nVmRSS:\t    9216 MB\n", "-"},
        {"VmSize:\t  218460 kB\nVmRSS:\t    9216 kB", "-"},
    };
    for (const auto& [text, expected] : statuses) {
        const auto f = Impl::parseStatusMemory(text);
        EXPECT_EQ(f ? fmt::format("{} {}", f->mappedBytes, f->residentBytes) : "-", expected)
            << text;
    }
}

// What is wrong with the entries, or "": they must ascend without overlaps,
// and containing() must find what a linear search finds at both ends of every
// mapping, beside them and at both ends of the address space.
std::string disorder(const Kelvo::Mappings& parsed) {
    const auto& entries = parsed.entries();
    for (size_t i = 0; i < entries.size(); ++i) {
        const Kelvo::Mapping& m = entries[i];
        if (m.start >= m.end || (i > 0 && entries[i - 1].end > m.start))
            return "out of order: " + showAll(entries);
        for (uintptr_t address :
             {m.start - 1, m.start, m.end - 1, m.end, uintptr_t(0), UINTPTR_MAX}) {
            const Kelvo::Mapping* linear = nullptr;
            for (const auto& other : entries)
                linear = other.contains(address) ? &other : linear;
            if (parsed.containing(address) != linear)
                return fmt::format("containing({:#x}) missed", address);
        }
    }
    return "";
}

// Cut anywhere, a maps file gives the whole file's first entries; damaged
// anywhere, it still gives ordered entries. The first two entries touch.
TEST(MappingsParse, CutAndDamagedMapsKeepTheirOrder) {
    const std::string maps =
        "55d0c0e00000-55d0c1a00000 r-xp 00021000 fe:05 1837  /usr/bin/kd\n"
        "55d0c1a00000-55d0c1a21000 rw-p 00000000 00:00 0                          [heap]\n"
        "7f3a1c000000-7f3a1c021000 rw-s 00001000 00:05 9     /dev/shm/a  b (deleted)\n"
        "7ffd1000a000-7ffd1002b000 ---p 00000000 00:00 0 \n"
        "ffffffffff600000-ffffffffff601000 --xp 00000000 00:00 0   [vsyscall]\n";
    auto quiet = handleWithLevels({});
    const auto parse = [&](std::string_view text) { return Impl::parseMaps(*quiet, text, "m"); };
    const std::string whole = showAll(parse(maps));
    ASSERT_EQ(whole,
              "55d0c0e00000 c00000 r-xp 21000 fe:5 1837 [/usr/bin/kd]\n"
              "55d0c1a00000 21000 rw-p 0 0:0 0 [[heap]]\n"
              "7f3a1c000000 21000 rw-s 1000 0:5 9 [/dev/shm/a  b] deleted\n"
              "7ffd1000a000 21000 ---p 0 0:0 0 []\n"
              "ffffffffff600000 1000 --xp 0 0:0 0 [[vsyscall]]\n");
    for (size_t at = 0; at < maps.size(); ++at) {
        const std::string cut = showAll(parse(maps.substr(0, at)));
        EXPECT_EQ(whole.substr(0, cut.size()), cut) << "cut at " << at;
        for (char garbage : {'\n', ' ', '-', ':', '0', 'f', 'x', '\0'}) {
            std::string damaged = maps;
            damaged[at] = garbage;
            EXPECT_EQ(disorder(Kelvo::Mappings(parse(damaged))), "")
                << "byte " << at << " made " << int(garbage);
        }
    }
}

}  // namespace
