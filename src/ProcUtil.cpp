// Readers of /proc: process identity, lock and socket owners, remote type
// names, the core-dump filter.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/MappingsCpp.h>
#include <Kelvo/ProcUtilCpp.h>
#include <Kelvo/TypeNameCpp.h>

#include "ProcUtilImpl.h"

#include <cxxabi.h>
#include <dirent.h>
#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_set>

namespace Kelvo {

namespace Impl {

bool ProcFileBuffer::read(int dirfd, const char* path) {
    size_ = 0;
    const int fd = ::openat(dirfd, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    while (true) {
        if (size_ == capacity_) {
            const size_t capacity = std::max<size_t>(4096, 2 * capacity_);
            auto data = std::make_unique_for_overwrite<char[]>(capacity);
            std::copy_n(data_.get(), size_, data.get());
            data_ = std::move(data);
            capacity_ = capacity;
        }
        const ssize_t n = ::read(fd, data_.get() + size_, capacity_ - size_);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            const int readErrno = errno;
            ::close(fd);
            size_ = 0;
            errno = readErrno;
            return false;
        }
        if (n == 0) {
            break;
        }
        size_ += static_cast<size_t>(n);
    }
    ::close(fd);
    return true;
}

std::optional<StatFields> parseStat(std::string_view text) {
    // "pid (title) state ppid ...": the title may hold blanks and
    // parentheses of its own, but not the last ')' of the line.
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string_view::npos || close == std::string_view::npos || close < open) {
        return std::nullopt;
    }
    std::string_view rest = text.substr(close + 1);
    // Fields 3 to 21 come before the start time (field 22).
    for (int field = 3; field < 22; ++field) {
        if (nextWord(rest).empty()) {
            return std::nullopt;
        }
    }
    const auto startTicks = parseNumber<uint64_t>(nextWord(rest));
    // The fields that follow the start time show that it was not cut short.
    if (!startTicks || nextWord(rest).empty()) {
        return std::nullopt;
    }
    return StatFields{text.substr(open + 1, close - open - 1), *startTicks};
}

std::optional<int64_t> parseBootTime(std::string_view text) {
    std::optional<int64_t> bootTime;
    forEachLine(text, [&](std::string_view line) {
        if (nextWord(line) == "btime") {
            bootTime = parseNumber<int64_t>(nextWord(line));
        }
    });
    return bootTime;
}

std::vector<String> splitCommandLine(std::string_view text) {
    std::vector<String> arguments;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\0'), text.size());
        arguments.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return arguments;
}

std::optional<LockLine> parseLockLine(std::string_view line) {
    // "id: [->] class mode access pid major:minor:inode start end"; a lock
    // on an object without an inode shows "<none>:0" and is not wanted.
    LockLine lock;
    const std::string_view id = nextWord(line);
    if (id.size() < 2 || id.back() != ':' || !parseNumber<uint64_t>(id.substr(0, id.size() - 1))) {
        return std::nullopt;
    }
    std::string_view kind = nextWord(line);
    if (kind == "->") {
        lock.waiter = true;
        kind = nextWord(line);
    }
    // A known class keeps a damaged waiter's line ("->x OFDLCK") from
    // passing for a held lock.
    constexpr std::string_view kinds[] = {"POSIX", "FLOCK",  "OFDLCK", "LEASE",
                                          "DELEG", "ACCESS", "UNKNOWN"};
    if (std::find(std::begin(kinds), std::end(kinds), kind) == std::end(kinds)) {
        return std::nullopt;
    }
    const std::string_view mode = nextWord(line);
    const std::string_view access = nextWord(line);
    const auto pid = parseNumber<pid_t>(nextWord(line));
    const std::string_view file = nextWord(line);
    const std::string_view start = nextWord(line);
    const std::string_view end = nextWord(line);
    if (mode.empty() || access.empty() || !pid || !parseNumber<int64_t>(start) ||
        (end != "EOF" && !parseNumber<int64_t>(end)) || !nextWord(line).empty()) {
        return std::nullopt;
    }
    const size_t first = file.find(':');
    const size_t second = file.find(':', first + 1);
    if (first == std::string_view::npos || second == std::string_view::npos) {
        return std::nullopt;
    }
    const auto major = parseNumber<unsigned>(file.substr(0, first), 16);
    const auto minor = parseNumber<unsigned>(file.substr(first + 1, second - first - 1), 16);
    const auto inode = parseNumber<uint64_t>(file.substr(second + 1));
    if (!major || !minor || !inode) {
        return std::nullopt;
    }
    lock.pid = *pid;
    lock.devMajor = *major;
    lock.devMinor = *minor;
    lock.inode = *inode;
    return lock;
}

bool lockListed(std::string_view locks, uint64_t inode) {
    bool listed = false;
    forEachLine(locks, [&](std::string_view line) {
        const auto lock = parseLockLine(line);
        listed = listed || (lock && !lock->waiter && lock->inode == inode);
    });
    return listed;
}

bool fdinfoHoldsLock(std::string_view fdinfo) {
    // fdinfo lists only the locks of its own file, so the lines need no
    // matching against the file.
    bool holds = false;
    forEachLine(fdinfo, [&](std::string_view line) {
        if (line.starts_with("lock:")) {
            const auto lock = parseLockLine(line.substr(5));
            holds = holds || (lock && !lock->waiter);
        }
    });
    return holds;
}

std::optional<UnixSocketLine> parseUnixSocketLine(std::string_view line) {
    // "address: refcount protocol flags type state inode[ path]": the path
    // is everything after the one blank that follows the inode.
    const std::string_view address = nextWord(line);
    if (address.size() < 2 || address.back() != ':' ||
        !parseNumber<uint64_t>(address.substr(0, address.size() - 1), 16)) {
        return std::nullopt;
    }
    for (int field = 0; field < 5; ++field) {
        if (!parseNumber<uint32_t>(nextWord(line), 16)) {
            return std::nullopt;
        }
    }
    const auto inode = parseNumber<uint64_t>(nextWord(line));
    if (!inode) {
        return std::nullopt;
    }
    if (!line.empty()) {
        if (line.size() < 2 || line[0] != ' ') {
            return std::nullopt;
        }
        line.remove_prefix(1);
    }
    return UnixSocketLine{*inode, line};
}

std::unordered_set<uint64_t> unixSocketInodes(std::string_view sockets, std::string_view path) {
    std::unordered_set<uint64_t> inodes;
    forEachLine(sockets, [&](std::string_view line) {
        const auto socket = parseUnixSocketLine(line);
        if (socket && socket->path == path) {
            inodes.insert(socket->inode);
        }
    });
    return inodes;
}

std::vector<String> abstractNames(std::string_view sockets, std::string_view prefix) {
    std::vector<String> names;
    forEachLine(sockets, [&](std::string_view line) {
        const auto socket = parseUnixSocketLine(line);
        if (socket && socket->path.starts_with('@') && socket->path.substr(1).starts_with(prefix)) {
            names.emplace_back(socket->path.substr(1));
        }
    });
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::optional<uint32_t> parseCoreDumpFilter(std::string_view text) {
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return parseNumber<uint32_t>(text, 16);
}

}  // namespace Impl

namespace Util {

namespace {

const char* errorText(int error) {
    return std::strerror(error);
}

// Reads a /proc file into buffer, or traces why it could not.
bool readTraced(Platform::DebugHandler& handle, Impl::ProcFileBuffer& buffer, const char* path) {
    if (!buffer.read(path)) {
        KELVO_TRACE(handle, 1, "unable to read {}: {}", path, errorText(errno));
        return false;
    }
    return true;
}

bool readProcessFile(Platform::DebugHandler& handle, Impl::ProcFileBuffer& buffer, pid_t pid,
                     const char* name) {
    char path[64];
    fmt::format_to_n(path, sizeof path - 1, "/proc/{}/{}", pid, name).out[0] = '\0';
    return readTraced(handle, buffer, path);
}

std::optional<Impl::StatFields> readStat(Platform::DebugHandler& handle,
                                         Impl::ProcFileBuffer& buffer, pid_t pid) {
    if (!readProcessFile(handle, buffer, pid, "stat")) {
        return std::nullopt;
    }
    auto fields = Impl::parseStat(buffer.text());
    if (!fields) {
        KELVO_TRACE(handle, 1, "malformed /proc/{}/stat: {}", pid, buffer.text());
    }
    return fields;
}

std::optional<int64_t> bootTime(Platform::DebugHandler& handle) {
    // The kernel derives btime from the wall clock at each read, so it can
    // move by a second between reads: one value keeps start times consistent.
    static std::atomic<int64_t> cached{0};
    int64_t value = cached.load(std::memory_order_relaxed);
    if (value != 0) {
        return value;
    }
    Impl::ProcFileBuffer buffer;
    if (!readTraced(handle, buffer, "/proc/stat")) {
        return std::nullopt;
    }
    const auto bootTime = Impl::parseBootTime(buffer.text());
    if (!bootTime) {
        KELVO_TRACE(handle, 1, "no btime in /proc/stat");
        return std::nullopt;
    }
    cached.store(*bootTime, std::memory_order_relaxed);
    return bootTime;
}

// Calls nameFn(name) for every entry of the directory open at fd but "."
// and "..", reading the entries in batches into buffer; false when the
// directory cannot be read.
template <typename NameFn>
bool forEachEntry(int fd, std::vector<char>& buffer, NameFn&& nameFn) {
    while (true) {
        const ssize_t size = ::getdents64(fd, buffer.data(), buffer.size());
        if (size <= 0) {
            return size == 0;
        }
        for (ssize_t at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer.data() + at);
            at += entry->d_reclen;
            if (entry->d_name[0] != '.') {
                nameFn(entry->d_name);
            }
        }
    }
}

// One pass over the descriptors of every process, for the owner lookups.
// The directories are read with getdents64 into one buffer and the links
// examined relative to their directory: the pass costs a few system calls
// per process and one per descriptor.
class DescriptorScan {
  public:
    explicit DescriptorScan(Platform::DebugHandler& handle)
        : handle_(handle),
          procFd_(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
          processes_(64 * 1024),
          descriptors_(64 * 1024) {
        if (procFd_ < 0) {
            KELVO_TRACE(handle, 1, "unable to open /proc: {}", errorText(errno));
        }
    }
    ~DescriptorScan() {
        if (procFd_ >= 0) {
            ::close(procFd_);
        }
    }
    DescriptorScan(const DescriptorScan&) = delete;
    DescriptorScan& operator=(const DescriptorScan&) = delete;

    bool ok() const noexcept { return procFd_ >= 0; }
    int procFd() const noexcept { return procFd_; }
    // Processes whose descriptors the caller was refused.
    unsigned hidden() const noexcept { return hidden_; }

    // Calls fdFn(pid, fdDirFd, fdName) for every descriptor of every process
    // whose descriptor directory can be read.
    template <typename FdFn>
    void forEachDescriptor(FdFn&& fdFn) {
        forEachEntry(procFd_, processes_, [&](const char* name) {
            const auto pid = Impl::parseNumber<pid_t>(name);
            if (!pid) {
                return;
            }
            char fdPath[32];
            fmt::format_to_n(fdPath, sizeof fdPath - 1, "{}/fd", *pid).out[0] = '\0';
            const int fdDirFd = ::openat(procFd_, fdPath, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            if (fdDirFd < 0) {
                // Gone meanwhile (ENOENT), or another user's (EACCES).
                if (errno == EACCES || errno == EPERM) {
                    ++hidden_;
                }
                KELVO_TRACE(handle_, 9, "skipping /proc/{}: {}", name, errorText(errno));
                return;
            }
            forEachEntry(fdDirFd, descriptors_, [&](const char* fd) { fdFn(*pid, fdDirFd, fd); });
            ::close(fdDirFd);
        });
    }

  private:
    Platform::DebugHandler& handle_;
    int procFd_;
    std::vector<char> processes_;
    std::vector<char> descriptors_;
    unsigned hidden_ = 0;
};

// The inode of the socket that descriptor fd (a name in the descriptor
// directory fdDirFd) is open on, from its link "socket:[14954]".
std::optional<uint64_t> socketInode(int fdDirFd, const char* fd) {
    char target[64];
    const ssize_t length = ::readlinkat(fdDirFd, fd, target, sizeof target);
    constexpr std::string_view prefix = "socket:[";
    if (length <= static_cast<ssize_t>(prefix.size()) + 1 || target[length - 1] != ']') {
        return std::nullopt;
    }
    const std::string_view link(target, static_cast<size_t>(length) - 1);
    if (!link.starts_with(prefix)) {
        return std::nullopt;
    }
    return Impl::parseNumber<uint64_t>(link.substr(prefix.size()));
}

std::vector<pid_t> sortedUnique(std::vector<pid_t> pids) {
    std::sort(pids.begin(), pids.end());
    pids.erase(std::unique(pids.begin(), pids.end()), pids.end());
    return pids;
}

}  // namespace

std::optional<String> processTitle(Platform::DebugHandler& handle, pid_t pid) {
    Impl::ProcFileBuffer buffer;
    const auto fields = readStat(handle, buffer, pid);
    return fields ? std::optional<String>(fields->title) : std::nullopt;
}

std::optional<std::vector<String>> processCommandLine(Platform::DebugHandler& handle, pid_t pid) {
    Impl::ProcFileBuffer buffer;
    if (!readProcessFile(handle, buffer, pid, "cmdline")) {
        return std::nullopt;
    }
    return Impl::splitCommandLine(buffer.text());
}

std::optional<ProcessStartTime> processStartTime(Platform::DebugHandler& handle, pid_t pid) {
    Impl::ProcFileBuffer buffer;
    const auto fields = readStat(handle, buffer, pid);
    const auto boot = bootTime(handle);
    const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
    if (!fields || !boot || ticksPerSecond <= 0) {
        return std::nullopt;
    }
    const uint64_t ticks = fields->startTicks;
    const auto sinceBoot =
        std::chrono::seconds(ticks / ticksPerSecond) +
        std::chrono::nanoseconds((ticks % ticksPerSecond) * 1'000'000'000 / ticksPerSecond);
    ProcessStartTime start;
    start.secondsSinceBoot = static_cast<double>(ticks) / static_cast<double>(ticksPerSecond);
    start.wallClock = std::chrono::system_clock::time_point(
        std::chrono::duration_cast<std::chrono::system_clock::duration>(
            std::chrono::seconds(*boot) + sinceBoot));
    return start;
}

std::optional<std::vector<pid_t>> lockOwners(Platform::DebugHandler& handle, const String& path) {
    struct stat file;
    if (::stat(path.c_str(), &file) != 0) {
        KELVO_TRACE(handle, 1, "unable to stat {}: {}", path, errorText(errno));
        return std::nullopt;
    }
    Impl::ProcFileBuffer buffer;
    if (!readTraced(handle, buffer, "/proc/locks")) {
        return std::nullopt;
    }
    // Only the inode is compared here: some file systems (overlays, btrfs
    // subvolumes) show stat() a device other than the one /proc/locks names.
    // The owners found below are matched on device and inode both.
    if (!Impl::lockListed(buffer.text(), file.st_ino)) {
        KELVO_TRACE(handle, 5, "no lock on {}", path);
        return std::vector<pid_t>();
    }

    // An open-file-description lock shows pid -1 in /proc/locks: its holders
    // are the processes with a descriptor on the file whose fdinfo lists a
    // lock that is not a wait.
    DescriptorScan scan(handle);
    if (!scan.ok()) {
        return std::nullopt;
    }
    std::vector<pid_t> owners;
    scan.forEachDescriptor([&](pid_t pid, int fdDirFd, const char* fd) {
        struct stat target;
        if (::fstatat(fdDirFd, fd, &target, 0) != 0 || target.st_ino != file.st_ino ||
            target.st_dev != file.st_dev) {
            return;
        }
        char fdinfo[64];
        fmt::format_to_n(fdinfo, sizeof fdinfo - 1, "{}/fdinfo/{}", pid, fd).out[0] = '\0';
        if (buffer.read(scan.procFd(), fdinfo) && Impl::fdinfoHoldsLock(buffer.text())) {
            owners.push_back(pid);
        }
    });
    if (owners.empty()) {
        KELVO_TRACE(handle, 1, "{} is locked by a process hidden from us ({} hidden)", path,
                    scan.hidden());
        return std::nullopt;
    }
    return sortedUnique(std::move(owners));
}

namespace {

// The inodes of the sockets bound to the abstract name, from one read of
// /proc/net/unix; std::nullopt when it cannot be read.
std::optional<std::unordered_set<uint64_t>> socketInodesNamed(Platform::DebugHandler& handle,
                                                              const String& name) {
    // /proc/net/unix shows the name's leading zero byte, and any other, as '@'.
    String shown = "@" + name;
    std::replace(shown.begin(), shown.end(), '\0', '@');
    Impl::ProcFileBuffer buffer;
    if (!readTraced(handle, buffer, "/proc/net/unix")) {
        return std::nullopt;
    }
    auto inodes = Impl::unixSocketInodes(buffer.text(), shown);
    if (inodes.empty()) {
        KELVO_TRACE(handle, 5, "no socket named {}", name);
    }
    return inodes;
}

}  // namespace

std::optional<std::vector<pid_t>> abstractSocketOwners(Platform::DebugHandler& handle,
                                                       const String& name) {
    const auto inodes = socketInodesNamed(handle, name);
    if (!inodes) {
        return std::nullopt;
    }
    if (inodes->empty()) {
        return std::vector<pid_t>();
    }

    DescriptorScan scan(handle);
    if (!scan.ok()) {
        return std::nullopt;
    }
    std::vector<pid_t> owners;
    scan.forEachDescriptor([&](pid_t pid, int fdDirFd, const char* fd) {
        const auto inode = socketInode(fdDirFd, fd);
        if (inode && inodes->count(*inode) != 0) {
            owners.push_back(pid);
        }
    });
    if (owners.empty()) {
        KELVO_TRACE(handle, 1, "socket {} is held by a process hidden from us ({} hidden)", name,
                    scan.hidden());
        return std::nullopt;
    }
    return sortedUnique(std::move(owners));
}

std::optional<bool> abstractSocketHeldBy(Platform::DebugHandler& handle, const String& name,
                                         pid_t pid) {
    const auto inodes = socketInodesNamed(handle, name);
    if (!inodes || inodes->empty()) {
        return inodes ? std::optional<bool>(false) : std::nullopt;
    }
    const String fdPath = fmt::format("/proc/{}/fd", pid);
    const int fdDirFd = ::open(fdPath.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fdDirFd < 0) {
        KELVO_TRACE(handle, 1, "unable to open {}: {}", fdPath, errorText(errno));
        return std::nullopt;
    }
    bool held = false;
    std::vector<char> entries(16 * 1024);
    const bool listed = forEachEntry(fdDirFd, entries, [&](const char* fd) {
        const auto inode = socketInode(fdDirFd, fd);
        held = held || (inode && inodes->count(*inode) != 0);
    });
    ::close(fdDirFd);
    if (!listed && !held) {
        KELVO_TRACE(handle, 1, "unable to list {}: {}", fdPath, errorText(errno));
        return std::nullopt;
    }
    return held;
}

std::vector<String> abstractSocketNames(Platform::DebugHandler& handle, const String& prefix) {
    Impl::ProcFileBuffer buffer;
    if (!readTraced(handle, buffer, "/proc/net/unix")) {
        return {};
    }
    return Impl::abstractNames(buffer.text(), prefix);
}

namespace {

// Reads size bytes at address of process pid; false when any is unreadable.
bool readRemote(pid_t pid, uintptr_t address, void* out, size_t size) {
    iovec local{out, size};
    iovec remote{reinterpret_cast<void*>(address), size};
    return ::process_vm_readv(pid, &local, 1, &remote, 1, 0) == static_cast<ssize_t>(size);
}

// Where the file that mapping maps is loaded: the start of its lowest
// mapping, which maps the file's first page.
std::optional<uintptr_t> loadBase(const Mappings& mappings, const Mapping& mapping) {
    for (const Mapping& other : mappings.entries()) {
        if (other.inode == mapping.inode && other.devMajor == mapping.devMajor &&
            other.devMinor == mapping.devMinor && other.path == mapping.path) {
            return other.offset == 0 ? std::optional<uintptr_t>(other.start) : std::nullopt;
        }
    }
    return std::nullopt;
}

// The type whose vtable symbol ("_ZTV" and the type's mangled name) covers
// vptr, looked up in the caller's own copy of the binary that holds it. The
// binary's segments lie at the same distances from its load base in both
// processes; file offsets would not do, as one page of the file may be
// mapped twice (read-only data, then relocated data).
std::optional<String> typeFromVtableSymbol(Platform::DebugHandler& handle, const Mappings& remote,
                                           const Mapping& holder, uintptr_t vptr) {
    const auto own = readMappings(handle, ::getpid());
    const auto remoteBase = loadBase(remote, holder);
    const auto localBase = own ? loadBase(*own, holder) : std::nullopt;
    if (!remoteBase || !localBase) {
        return std::nullopt;
    }
    const uintptr_t local = vptr - *remoteBase + *localBase;
    const Mapping* localHolder = own->containing(local);
    if (localHolder == nullptr || localHolder->inode != holder.inode) {
        return std::nullopt;
    }
    const auto* address = reinterpret_cast<const char*>(local);
    Dl_info info;
    void* entry = nullptr;
    const int found = ::dladdr1(address, &info, &entry, RTLD_DL_SYMENT);
    const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
    // dladdr names the nearest exported symbol below the address, which need
    // not cover it.
    const auto* begin = static_cast<const char*>(info.dli_saddr);
    if (found == 0 || symbol == nullptr || info.dli_sname == nullptr ||
        std::strncmp(info.dli_sname, "_ZTV", 4) != 0 || address < begin ||
        address >= begin + symbol->st_size) {
        return std::nullopt;
    }
    KELVO_TRACE(handle, 9, "vtable symbol {} covers {:#x}", info.dli_sname, vptr);
    return typeName(info.dli_sname + 4);
}

// The type named by the type_info that the vtable at vptr points to: the
// word before the vtable's address point is the type_info's address, whose
// second word is the mangled name. Everything read is checked to lie in a
// file-backed mapping and the name must demangle, so that data that merely
// looks like a vtable pointer is refused.
std::optional<String> typeFromTypeInfo(Platform::DebugHandler& handle, pid_t pid,
                                       const Mappings& mappings, uintptr_t vptr) {
    const auto inFile = [&](uintptr_t address) {
        const Mapping* mapping = mappings.containing(address);
        return mapping != nullptr && mapping->fileBacked() && mapping->readable();
    };
    uintptr_t typeInfo = 0;
    uintptr_t namePointer = 0;
    if (!inFile(vptr - sizeof typeInfo) ||
        !readRemote(pid, vptr - sizeof typeInfo, &typeInfo, sizeof typeInfo) ||
        !inFile(typeInfo + sizeof namePointer) ||
        !readRemote(pid, typeInfo + sizeof namePointer, &namePointer, sizeof namePointer) ||
        !inFile(namePointer)) {
        return std::nullopt;
    }
    // The name may end near the end of its mapping: read what is there.
    const Mapping* holder = mappings.containing(namePointer);
    char name[512];
    const size_t size = std::min<uint64_t>(sizeof name, holder->end - namePointer);
    if (!readRemote(pid, namePointer, name, size)) {
        return std::nullopt;
    }
    const char* end = static_cast<const char*>(std::memchr(name, '\0', size));
    if (end == nullptr || end == name) {
        return std::nullopt;
    }
    const char* mangled = name[0] == '*' ? name + 1 : name;
    int status = -1;
    char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
    std::free(demangled);
    if (status != 0) {
        return std::nullopt;
    }
    KELVO_TRACE(handle, 9, "type_info of vtable {:#x} names {}", vptr, mangled);
    return typeName(mangled);
}

}  // namespace

std::optional<String> remoteTypeName(Platform::DebugHandler& handle, pid_t pid, uintptr_t address) {
    uintptr_t vptr = 0;
    if (!readRemote(pid, address, &vptr, sizeof vptr)) {
        KELVO_TRACE(handle, 1, "unable to read pid {} at {:#x}: {}", pid, address,
                    errorText(errno));
        return std::nullopt;
    }
    const auto mappings = readMappings(handle, pid);
    if (!mappings) {
        return std::nullopt;
    }
    const Mapping* holder = mappings->containing(vptr);
    if (holder == nullptr || !holder->fileBacked() || !holder->readable()) {
        KELVO_TRACE(handle, 1, "no object at {:#x} of pid {}: {:#x} is not a vtable address",
                    address, pid, vptr);
        return std::nullopt;
    }
    auto type = typeFromVtableSymbol(handle, *mappings, *holder, vptr);
    if (!type) {
        type = typeFromTypeInfo(handle, pid, *mappings, vptr);
    }
    if (!type) {
        KELVO_TRACE(handle, 1, "no object at {:#x} of pid {}: {:#x} in {} is not a vtable", address,
                    pid, vptr, holder->path);
    }
    return type;
}

std::optional<uint32_t> coreDumpFilter(Platform::DebugHandler& handle) {
    Impl::ProcFileBuffer buffer;
    if (!readTraced(handle, buffer, "/proc/self/coredump_filter")) {
        return std::nullopt;
    }
    const auto mask = Impl::parseCoreDumpFilter(buffer.text());
    if (!mask) {
        KELVO_TRACE(handle, 1, "malformed coredump_filter: {}", buffer.text());
    }
    return mask;
}

bool coreDumpFilterIs(Platform::DebugHandler& handle, uint32_t mask) {
    if ((mask & ~coreDumpFilterBits) != 0) {
        KELVO_TRACE(handle, 1, "refusing coredump_filter {:#x}: bits {:#x} are unknown", mask,
                    mask & ~coreDumpFilterBits);
        return false;
    }
    const int fd = ::open("/proc/self/coredump_filter", O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        KELVO_TRACE(handle, 1, "unable to open {}: {}", "/proc/self/coredump_filter",
                    errorText(errno));
        return false;
    }
    const String text = fmt::format("{:#x}", mask);
    const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int writeErrno = errno;
    ::close(fd);
    if (!written) {
        KELVO_TRACE(handle, 1, "unable to write {} to {}: {}", text, "/proc/self/coredump_filter",
                    errorText(writeErrno));
        return false;
    }
    KELVO_TRACE(handle, 5, "coredump_filter set to {:#x}", mask);
    return true;
}

}  // namespace Util
}  // namespace Kelvo
