// Kelvo::DirNode: one open directory stream with the library's tracing and
// error conventions, optionally holding its parent directory's node alive so
// that a tree walk keeps its ancestors.
//
// Opening never throws (an absent or unreadable directory leaves the node
// closed); reading, rewinding and listing a closed node throw
// RuntimeException, except readEntry, which returns null. A node is used by
// one thread at a time and owned by its creator; the parent is shared.
#pragma once

#include <dirent.h>

#include <list>
#include <memory>

#include "DebugCpp.h"
#include "KelvoBase.h"

namespace Kelvo {

class KELVO_EXPORT DirNode : public Debuggable {
  public:
    explicit DirNode(Platform::DebugHandler& handle);
    DirNode(Platform::DebugHandler& handle, const String& path, std::shared_ptr<DirNode> parent);
    // Same handle, parent and path; the copy opens a stream of its own, at the
    // first entry, when the original is open. Streams are never shared.
    DirNode(const DirNode& other);
    // Takes the other's parent and stream; the other is left closed, without
    // a parent.
    DirNode(DirNode&& other) noexcept;
    DirNode& operator=(const DirNode&) = delete;
    DirNode& operator=(DirNode&&) = delete;
    ~DirNode();

    // Points the node at path and (re)opens it, even when the path is the
    // current one: reading then starts again from the first entry.
    void pathIs(const String& path);
    void openDir();

    // The next entry, or null at the end or when closed. The record stays
    // valid until the next read on this node.
    struct dirent* readEntry() const;
    void rewind() const;
    // Names (not paths) of the regular files and symbolic links from the
    // current position to the end whose names end in extension, in directory
    // order. Leaves the stream at its end.
    std::list<String> findFiles(const String& extension) const;

    const String& path() const noexcept { return path_; }
    const std::shared_ptr<DirNode>& parent() const noexcept { return parent_; }
    bool isOpen() const noexcept { return dir_ != nullptr; }

  private:
    std::shared_ptr<DirNode> parent_;
    String path_;
    DIR* dir_ = nullptr;
};

}  // namespace Kelvo
