// Directory streams.
#include <Kelvo/DirNodeCpp.h>
#include <Kelvo/FmtraceCpp.h>

#include <cerrno>
#include <cstring>

namespace Kelvo {

DirNode::DirNode(Platform::DebugHandler& handle) : Debuggable(handle) {}

DirNode::DirNode(Platform::DebugHandler& handle, const String& path,
                 std::shared_ptr<DirNode> parent)
    : Debuggable(handle), parent_(std::move(parent)), path_(path) {
    KELVO_TRACEM(*this, 9, "path: {}", path_);
    openDir();
}

DirNode::DirNode(const DirNode& other)
    : Debuggable(other), parent_(other.parent_), path_(other.path_) {
    if (other.dir_ != nullptr) {
        openDir();
    }
}

DirNode::DirNode(DirNode&& other) noexcept
    : Debuggable(other), parent_(std::move(other.parent_)), path_(other.path_), dir_(other.dir_) {
    other.dir_ = nullptr;
}

DirNode::~DirNode() {
    KELVO_TRACEM(*this, 9, "path: {}", path_);
    if (dir_ != nullptr && ::closedir(dir_) != 0) {
        KELVO_TRACEM(*this, 1, "failed to close {} errno: {}", path_, errno);
    }
}

void DirNode::pathIs(const String& path) {
    KELVO_TRACEM(*this, 9, "path: {}", path);
    if (path != path_) {
        path_ = path;
    }
    openDir();
}

void DirNode::openDir() {
    if (dir_ != nullptr) {
        if (::closedir(dir_) != 0) {
            KELVO_TRACEM(*this, 1, "failed to close {} before reopening. errno: {}", path_, errno);
        }
        dir_ = nullptr;
    }
    dir_ = ::opendir(path_.c_str());
    if (dir_ == nullptr) {
        const int error = errno;
        // Absent and unreadable directories are expected; anything else is not.
        const bool expected = error == ENOENT || error == EACCES || error == ENOTDIR;
        KELVO_TRACEM(*this, expected ? 9 : 1, "failed to open {} errno: {}", path_, error);
    }
}

struct dirent* DirNode::readEntry() const {
    KELVO_TRACEM(*this, 9, "path: {}", path_);
    if (dir_ == nullptr) {
        KELVO_TRACEM(*this, 5, "cannot read {} because the directory is not open", path_);
        return nullptr;
    }
    errno = 0;
    struct dirent* entry = ::readdir(dir_);
    if (entry == nullptr && errno != 0) {
        const String message = fmt::format("failed to read {} errno: {}", path_, errno);
        KELVO_TRACEM(*this, 0, "{}", message);
        RuntimeException::throwException(message);
    }
    return entry;
}

void DirNode::rewind() const {
    KELVO_TRACEM(*this, 9, "path: {}", path_);
    if (dir_ == nullptr) {
        const String message =
            fmt::format("cannot rewind {} because the directory is not open", path_);
        KELVO_TRACEM(*this, 0, "{}", message);
        RuntimeException::throwException(message);
    }
    ::rewinddir(dir_);
}

std::list<String> DirNode::findFiles(const String& extension) const {
    KELVO_TRACEM(*this, 9, "path: {} extension: {}", path_, extension);
    if (dir_ == nullptr) {
        const String message = fmt::format(
            "cannot find {} files in {} because the directory is not open", extension, path_);
        KELVO_TRACEM(*this, 0, "{}", message);
        RuntimeException::throwException(message);
    }
    std::list<String> found;
    while (const struct dirent* entry = readEntry()) {
        // d_type is trusted as is: DT_UNKNOWN entries are skipped, not stat'ed.
        if (entry->d_type != DT_REG && entry->d_type != DT_LNK) {
            continue;
        }
        const std::string_view name(entry->d_name);
        if (name.size() < extension.size() ||
            name.compare(name.size() - extension.size(), extension.size(), extension) != 0) {
            continue;
        }
        KELVO_TRACEM(*this, 8, "found file with extension {}: {}", extension, name);
        found.emplace_back(name);
    }
    return found;
}

}  // namespace Kelvo
