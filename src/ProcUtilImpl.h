// Internals of the /proc readers that the tests reach directly: the reading
// buffer and the line parsers, each of which takes one line (or one file's
// text) and returns std::nullopt for anything it does not recognise.
#pragma once

#include <Kelvo/MappingsCpp.h>

#include <fcntl.h>
#include <sys/types.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace Kelvo {
namespace Impl {

// Whole-file reads of /proc files into memory kept from one read to the
// next. /proc files report a size of 0, so a read goes on until end of file.
class ProcFileBuffer {
  public:
    // Replaces the text with the file at path, relative to dirfd (AT_FDCWD
    // for the working directory). false with errno set when it cannot be
    // opened or read; the text is then empty.
    bool read(int dirfd, const char* path);
    bool read(const char* path) { return read(AT_FDCWD, path); }
    std::string_view text() const noexcept { return {data_.get(), size_}; }

  private:
    std::unique_ptr<char[]> data_;
    size_t capacity_ = 0;
    size_t size_ = 0;
};

// Calls lineFn(line) for each line of text, without its '\n'. The kernel
// ends every line of its files, so a last line without one was cut short and
// is not passed on.
template <typename LineFn>
void forEachLine(std::string_view text, LineFn&& lineFn) {
    for (size_t eol; (eol = text.find('\n')) != std::string_view::npos;) {
        lineFn(text.substr(0, eol));
        text.remove_prefix(eol + 1);
    }
}

// The whole of text as a number in base; std::nullopt for anything else
// (empty, a "+" sign, trailing characters, overflow); "-" only for a signed T.
template <typename T>
std::optional<T> parseNumber(std::string_view text, int base = 10) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// The next blank-separated word of text, which loses it and the blanks
// before it; "" at the end.
inline std::string_view nextWord(std::string_view& text) {
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        text = {};
        return {};
    }
    text.remove_prefix(start);
    const size_t end = std::min(text.find_first_of(" \t"), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end);
    return word;
}

// /proc/<pid>/stat: the title between the first '(' and the last ')', and the
// start time in clock ticks after boot (field 22).
struct StatFields {
    std::string_view title;
    uint64_t startTicks = 0;
};
std::optional<StatFields> parseStat(std::string_view text);

// The "btime" of /proc/stat: the boot time in seconds since the epoch.
std::optional<int64_t> parseBootTime(std::string_view text);

// /proc/<pid>/cmdline: arguments separated and ended by '\0'. A process that
// rewrote its arguments may leave the last one unterminated.
std::vector<String> splitCommandLine(std::string_view text);

// A line of /proc/locks, or the text after "lock:" in an fdinfo file:
//   "1: OFDLCK ADVISORY  WRITE -1 fe:00:10953114 0 EOF"
// A waiter's line has "->" after the number.
struct LockLine {
    bool waiter = false;
    pid_t pid = 0;  // -1 for open-file-description locks
    unsigned devMajor = 0;
    unsigned devMinor = 0;
    uint64_t inode = 0;
};
std::optional<LockLine> parseLockLine(std::string_view line);
// Whether a /proc/locks text lists a held (not awaited) lock on inode.
bool lockListed(std::string_view locks, uint64_t inode);
// Whether an fdinfo text lists a held lock: one that its description owns.
bool fdinfoHoldsLock(std::string_view fdinfo);

// A line of /proc/net/unix:
//   "0000000026e110b4: 00000002 00000000 00000000 0005 01 14954 @kelvod.ctl"
// path is "" for an unbound socket; an abstract name starts with '@' and
// shows each zero byte as '@'.
struct UnixSocketLine {
    uint64_t inode = 0;
    std::string_view path;
};
std::optional<UnixSocketLine> parseUnixSocketLine(std::string_view line);
// The inodes of the sockets that a /proc/net/unix text shows bound to path.
std::unordered_set<uint64_t> unixSocketInodes(std::string_view sockets, std::string_view path);
// The abstract names starting with prefix in a /proc/net/unix text, sorted,
// each once, without the leading '@'.
std::vector<String> abstractNames(std::string_view sockets, std::string_view prefix);

// A line of /proc/<pid>/maps.
std::optional<Mapping> parseMapsLine(std::string_view line);
// The lines of a maps text; a malformed line, or one out of ascending order,
// is skipped with a level-1 trace naming source.
std::vector<Mapping> parseMaps(Platform::DebugHandler& handle, std::string_view text,
                               std::string_view source);

// VmSize and VmRSS of a /proc/<pid>/status text; std::nullopt unless both
// are there.
std::optional<MemoryFigures> parseStatusMemory(std::string_view text);

// The contents of a coredump_filter file ("00000033\n").
std::optional<uint32_t> parseCoreDumpFilter(std::string_view text);

}  // namespace Impl
}  // namespace Kelvo
