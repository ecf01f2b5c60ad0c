// An intrusive list that can also hold bookmarks: placeholder nodes that mark a
// position, so that a long walk can pause (yield to other work) and resume at
// the same place although elements were added or removed meanwhile. Iterators
// and element counts never see a bookmark.
//
// Resumable walk over list with bookmark b:
//   start:   list.pushFront(b)
//   run:     Iterator it(list, b); b.unlink();
//            process elements, asking before each one except the first whether to yield;
//            on yield: b.insertBefore(it) and run again later; at the end: done.
// The walker holds no element pointer across a pause, so elements removed
// meanwhile simply vanish from the walk.
//
// Same ownership and threading as ListImpl: one thread, no ownership of
// elements; a Bookmark is owned by whoever walks (usually beside the list).
#pragma once

#include <cstdint>

#include "IntrusiveLinkedListBase.h"

namespace Kelvo {

// The node of a BookmarkList. Elements carry kind 0; any kind other than
// bookmarkKind counts as an element.
struct BookmarkListLinkNode {
    static constexpr uint32_t elementKind = 0;
    static constexpr uint32_t bookmarkKind = 1;

    ListLinkHook link;
    uint32_t kind = elementKind;

    bool isLinked() const noexcept { return link.is_linked(); }
};

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType = void>
class BookmarkList : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
    using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;

  public:
    using Iterator = typename Base::Iterator;
    using ConstIterator = typename Base::ConstIterator;

    // A free-standing node that marks a place in one list; created unlinked.
    // Destroying a linked bookmark unlinks it.
    class Bookmark : public LinkNodeType {
      public:
        Bookmark() { this->kind = LinkNodeType::bookmarkKind; }
        Bookmark(const Bookmark&) = delete;
        Bookmark& operator=(const Bookmark&) = delete;

        // Links the bookmark immediately before the node at position (last
        // when position is the end).
        void insertBefore(const ConstIterator& position) {
            KELVO_ASSERTM(!this->link.is_linked(), "!link.isLinked()");
            Base::insertNode(position, *this);
        }
        void unlink() noexcept { this->link.unlink(); }
    };

    BookmarkList() = default;
    ~BookmarkList() override = default;

    using Base::pushFront;
    // Places bookmark ahead of every node: a walk starting there meets every element.
    void pushFront(Bookmark& bookmark) {
        KELVO_ASSERTM(!bookmark.link.is_linked(), "!link.isLinked()");
        this->nodes_.push_front(bookmark);
    }

    bool isBookmark(const LinkNodeType& node) const override {
        return node.kind == LinkNodeType::bookmarkKind;
    }
};

}  // namespace Kelvo
