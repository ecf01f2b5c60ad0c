// Memory mappings and totals of a process, from /proc/<pid>/maps and status.
#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/MappingsCpp.h>

#include "ProcUtilImpl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Kelvo {

const Mapping* Mappings::containing(uintptr_t address) const noexcept {
    // The first mapping that ends after address is the only one that can hold it.
    const auto it =
        std::upper_bound(entries_.begin(), entries_.end(), address,
                         [](uintptr_t a, const Mapping& mapping) { return a < mapping.end; });
    return it != entries_.end() && it->contains(address) ? &*it : nullptr;
}

namespace Impl {

std::optional<Mapping> parseMapsLine(std::string_view line) {
    // "start-end perms offset major:minor inode", then blanks and the path,
    // which runs to the end of the line and may hold blanks itself.
    Mapping mapping;
    const std::string_view range = nextWord(line);
    const std::string_view permissions = nextWord(line);
    const std::string_view offset = nextWord(line);
    const std::string_view device = nextWord(line);
    const std::string_view inode = nextWord(line);
    const size_t dash = range.find('-');
    const size_t colon = device.find(':');
    if (dash == std::string_view::npos || colon == std::string_view::npos ||
        permissions.size() != 4) {
        return std::nullopt;
    }
    const auto start = parseNumber<uintptr_t>(range.substr(0, dash), 16);
    const auto end = parseNumber<uintptr_t>(range.substr(dash + 1), 16);
    const auto fileOffset = parseNumber<uint64_t>(offset, 16);
    const auto major = parseNumber<unsigned>(device.substr(0, colon), 16);
    const auto minor = parseNumber<unsigned>(device.substr(colon + 1), 16);
    const auto inodeNumber = parseNumber<uint64_t>(inode);
    if (!start || !end || *end <= *start || !fileOffset || !major || !minor || !inodeNumber) {
        return std::nullopt;
    }
    for (size_t i = 0; i < 4; ++i) {
        const char allowed = i == 3 ? (permissions[i] == 's' ? 's' : 'p') : "rwx"[i];
        if (permissions[i] != allowed && permissions[i] != '-') {
            return std::nullopt;
        }
    }
    mapping.start = *start;
    mapping.end = *end;
    std::memcpy(mapping.permissions, permissions.data(), 4);
    mapping.offset = *fileOffset;
    mapping.devMajor = *major;
    mapping.devMinor = *minor;
    mapping.inode = *inodeNumber;
    const size_t pathStart = line.find_first_not_of(' ');
    if (pathStart != std::string_view::npos) {
        std::string_view path = line.substr(pathStart);
        constexpr std::string_view deletedSuffix = " (deleted)";
        if (path.size() > deletedSuffix.size() && path.ends_with(deletedSuffix)) {
            path.remove_suffix(deletedSuffix.size());
            mapping.deleted = true;
        }
        mapping.path = path;
    }
    return mapping;
}

std::vector<Mapping> parseMaps(Platform::DebugHandler& handle, std::string_view text,
                               std::string_view source) {
    std::vector<Mapping> entries;
    forEachLine(text, [&](std::string_view line) {
        auto mapping = parseMapsLine(line);
        // Keeping the order ascending and disjoint is what makes containing()
        // a binary search; a line that breaks it is as bad as a garbled one.
        if (mapping && (entries.empty() || entries.back().end <= mapping->start)) {
            entries.push_back(std::move(*mapping));
        } else {
            KELVO_TRACE(handle, 1, "skipping malformed line of {}: {}", source, line);
        }
    });
    return entries;
}

std::optional<MemoryFigures> parseStatusMemory(std::string_view text) {
    // "VmSize:\t  218460 kB"
    std::optional<uint64_t> mapped, resident;
    forEachLine(text, [&](std::string_view line) {
        std::optional<uint64_t>* figure = line.starts_with("VmSize:")  ? &mapped
                                          : line.starts_with("VmRSS:") ? &resident
                                                                       : nullptr;
        if (figure == nullptr) {
            return;
        }
        nextWord(line);
        const auto kiB = parseNumber<uint64_t>(nextWord(line));
        if (kiB && nextWord(line) == "kB" && *kiB <= UINT64_MAX / 1024) {
            *figure = *kiB * 1024;
        }
    });
    if (!mapped || !resident) {
        return std::nullopt;
    }
    return MemoryFigures{*mapped, *resident};
}

}  // namespace Impl

namespace {

bool readProcessFile(Platform::DebugHandler& handle, Impl::ProcFileBuffer& buffer, pid_t pid,
                     const char* name, String& path) {
    path = fmt::format("/proc/{}/{}", pid, name);
    if (!buffer.read(path.c_str())) {
        KELVO_TRACE(handle, 1, "unable to read {}: {}", path, std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

std::optional<Mappings> readMappings(Platform::DebugHandler& handle, pid_t pid) {
    Impl::ProcFileBuffer buffer;
    String path;
    if (!readProcessFile(handle, buffer, pid, "maps", path)) {
        return std::nullopt;
    }
    return Mappings(Impl::parseMaps(handle, buffer.text(), path));
}

std::optional<MemoryFigures> memoryFigures(Platform::DebugHandler& handle, pid_t pid) {
    Impl::ProcFileBuffer buffer;
    String path;
    if (!readProcessFile(handle, buffer, pid, "status", path)) {
        return std::nullopt;
    }
    auto figures = Impl::parseStatusMemory(buffer.text());
    if (!figures) {
        KELVO_TRACE(handle, 1, "no VmSize and VmRSS in {}", path);
    }
    return figures;
}

}  // namespace Kelvo
