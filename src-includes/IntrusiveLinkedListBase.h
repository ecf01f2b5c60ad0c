// Intrusive doubly linked lists: the link lives inside the element, so linking
// and unlinking never allocate and an element leaves its list in constant time
// (also when it is destroyed: nodes are auto-unlinking).
//
// ListImpl is the common base of List and BookmarkList. A list never owns its
// elements; destroying a list leaves every element unlinked and alive. A list
// and the elements on it belong to one thread (the one that owns the structure
// holding the list); nothing here locks.
//
// Template parameters, shared by every list template:
//   ElementType     the element class
//   LinkNodeType    the node type embedded in the element
//   ptrToLinkNode   pointer to the element's member of that node type
//   ElementPtrType  how elements are handed out; only void (references and raw
//                   pointers) is supported
#pragma once

#include <cstddef>
#include <iterator>
#include <type_traits>

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include "FmtraceCpp.h"

namespace Kelvo {

// Auto-unlink hook: next and previous pointers, both null while unlinked.
using ListLinkHook =
    boost::intrusive::list_member_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;

// The node of a plain List, embedded in its elements.
struct ListLinkNode {
    ListLinkHook link;

    bool isLinked() const noexcept { return link.is_linked(); }
};

template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType = void>
class ListImpl {
    static_assert(std::is_void_v<ElementPtrType>,
                  "lists hand out plain references and raw element pointers only");

  public:
    using NodeList = boost::intrusive::list<
        LinkNodeType,
        boost::intrusive::member_hook<LinkNodeType, ListLinkHook, &LinkNodeType::link>,
        boost::intrusive::constant_time_size<false>>;

    class ConstIterator;

    // Forward iterator over elements; bookmarks are never visible through it.
    class Iterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = ElementType;
        using difference_type = std::ptrdiff_t;
        using pointer = ElementType*;
        using reference = ElementType&;

        Iterator() = default;
        // Starts at node, which must be linked on list; a bookmark moves the
        // iterator forward to the next element or to the end.
        Iterator(const ListImpl& list, const LinkNodeType& node)
            : list_(&list), it_(list.nodeIterator(node)) {
            skipBookmarks();
        }

        ElementType& operator*() const { return elementOf(const_cast<LinkNodeType&>(*it_)); }
        ElementType* operator->() const { return &**this; }
        Iterator& operator++() {
            ++it_;
            skipBookmarks();
            return *this;
        }
        Iterator operator++(int) {
            Iterator before = *this;
            ++*this;
            return before;
        }
        friend bool operator==(const Iterator& a, const Iterator& b) { return a.it_ == b.it_; }

      private:
        friend class ListImpl;
        friend class ConstIterator;
        Iterator(const ListImpl* list, typename NodeList::const_iterator it)
            : list_(list), it_(it) {
            skipBookmarks();
        }
        void skipBookmarks() {
            while (it_ != list_->nodes_.end() && list_->isBookmark(*it_)) {
                ++it_;
            }
        }

        const ListImpl* list_ = nullptr;
        typename NodeList::const_iterator it_;
    };

    class ConstIterator {
      public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = ElementType;
        using difference_type = std::ptrdiff_t;
        using pointer = const ElementType*;
        using reference = const ElementType&;

        ConstIterator() = default;
        ConstIterator(const Iterator& other) : inner_(other) {}
        ConstIterator(const ListImpl& list, const LinkNodeType& node) : inner_(list, node) {}

        const ElementType& operator*() const { return *inner_; }
        const ElementType* operator->() const { return &*inner_; }
        ConstIterator& operator++() {
            ++inner_;
            return *this;
        }
        ConstIterator operator++(int) {
            ConstIterator before = *this;
            ++inner_;
            return before;
        }
        friend bool operator==(const ConstIterator& a, const ConstIterator& b) {
            return a.inner_ == b.inner_;
        }

        // The list this iterator walks and its position among the nodes, which
        // may be the end marker.
        const ListImpl& list() const { return *inner_.list_; }
        typename NodeList::const_iterator nodePosition() const { return inner_.it_; }

      private:
        Iterator inner_;
    };

    ListImpl() = default;
    ListImpl(const ListImpl&) = delete;
    ListImpl& operator=(const ListImpl&) = delete;
    // Every node still on the list, element or bookmark, is left unlinked.
    virtual ~ListImpl() { nodes_.clear(); }

    virtual bool isBookmark(const LinkNodeType&) const { return false; }

    // Guards every operation that links an element: an element is on at most
    // one list per node member, and linking it twice is a bug, never a move.
    void beingLinked(ElementType& element) const {
        KELVO_ASSERTM(!(element.*ptrToLinkNode).isLinked(),
                      "!( element.*ptrToLinkNode ).isLinked()");
    }

    void pushFront(ElementType& element) {
        beingLinked(element);
        nodes_.push_front(element.*ptrToLinkNode);
    }
    void pushBack(ElementType& element) {
        beingLinked(element);
        nodes_.push_back(element.*ptrToLinkNode);
    }
    // Links element immediately before position (last when position is end()).
    Iterator insertBefore(const ConstIterator& position, ElementType& element) {
        KELVO_ASSERTM(&position.list() == this, "iterator of another list");
        beingLinked(element);
        return Iterator(this, nodes_.insert(position.nodePosition(), element.*ptrToLinkNode));
    }
    // Unlinks element from whatever list holds it; an unlinked element is left alone.
    static void remove(ElementType& element) noexcept { (element.*ptrToLinkNode).link.unlink(); }
    // Unlinks the element at position; returns the position of the next element.
    Iterator erase(const ConstIterator& position) {
        KELVO_ASSERTM(&position.list() == this && position != end(),
                      "erase at an invalid position");
        auto next = position.nodePosition();
        ++next;
        nodes_.erase(position.nodePosition());
        return Iterator(this, next);
    }

    Iterator begin() { return Iterator(this, nodes_.begin()); }
    Iterator end() { return Iterator(this, nodes_.end()); }
    ConstIterator begin() const { return Iterator(this, nodes_.begin()); }
    ConstIterator end() const { return Iterator(this, nodes_.end()); }
    Iterator iteratorTo(ElementType& element) { return Iterator(*this, element.*ptrToLinkNode); }

    // True when the list holds no element (bookmarks do not count).
    bool empty() const { return begin() == end(); }
    // The first element; the list must not be empty.
    ElementType& front() {
        KELVO_ASSERTM(!empty(), "front() of an empty list");
        return *begin();
    }
    // Unlinks and returns the first element; the list must not be empty.
    ElementType& popFront() {
        ElementType& first = front();
        remove(first);
        return first;
    }
    // Linear: no size is stored, and bookmarks are not counted.
    size_t elementCount() const {
        size_t count = 0;
        for (const LinkNodeType& node : nodes_) {
            count += !isBookmark(node);
        }
        return count;
    }

    static ElementType& elementOf(LinkNodeType& node) {
        return *boost::intrusive::get_parent_from_member(&node, ptrToLinkNode);
    }

  protected:
    typename NodeList::const_iterator nodeIterator(const LinkNodeType& node) const {
        KELVO_ASSERTM(node.isLinked(), "iterator at an unlinked node");
        return nodes_.iterator_to(node);
    }
    // Links a node that is not an element (a bookmark) before position.
    static void insertNode(const ConstIterator& position, LinkNodeType& node) {
        // Reached through a const iterator: linking a non-element changes no
        // element, so dropping const breaks no promise made to the caller.
        const_cast<ListImpl&>(position.list()).nodes_.insert(position.nodePosition(), node);
    }

    NodeList nodes_;
};

// A plain intrusive list, e.g. a run queue.
template <typename ElementType, typename LinkNodeType, LinkNodeType ElementType::*ptrToLinkNode,
          typename ElementPtrType = void>
class List : public ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType> {
    using Base = ListImpl<ElementType, LinkNodeType, ptrToLinkNode, ElementPtrType>;

  public:
    List() = default;
    ~List() override = default;

    // A plain list holds no bookmarks, so its first node is its first
    // element: these skip the bookmark test of the general iterator.
    bool empty() const noexcept { return this->nodes_.empty(); }
    ElementType& front() {
        KELVO_ASSERTM(!empty(), "front() of an empty list");
        return Base::elementOf(this->nodes_.front());
    }
    ElementType& popFront() {
        ElementType& first = front();
        Base::remove(first);
        return first;
    }
};

}  // namespace Kelvo
