// Interned constant strings shared by reference count.
//
// A ConstStringCache holds each distinct string once; a ConstStringRef is a
// one-pointer handle to an interned string (or null for the empty string). A
// string lives exactly as long as some handle refers to it: the last handle to
// go erases it from its cache. The cache and all its handles belong to one
// thread; counts are plain integers. The cache must outlive every handle taken
// from it: the creator of the cache owns it, each handle owns one reference.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>
#include <unordered_set>

#include "FmtraceCpp.h"
#include "KelvoBase.h"

namespace Kelvo {

class ConstStringCache;

class KELVO_EXPORT ConstStringRef {
  public:
    // One interned string. The count is mutable so that const handles can
    // count; an Elem with count 0 is not in its cache.
    class KELVO_EXPORT Elem {
      public:
        Elem(ConstStringCache* cache, String str) : cache_(cache), str_(std::move(str)) {}
        Elem(const Elem&) = delete;
        Elem& operator=(const Elem&) = delete;

        void refCountInc() const noexcept { ++refCount_; }
        // Releases one reference; the last one erases the string from its
        // cache, which destroys this Elem.
        void refCountDec() const;

        ConstStringCache* const cache_;
        const String str_;
        mutable uint64_t refCount_ = 0;

      private:
        void refCountDecLast() const;
    };

    ConstStringRef() noexcept = default;
    // Takes a new reference to elem (which may be null).
    explicit ConstStringRef(const Elem* elem) noexcept : elem_(elem) {
        if (elem_) {
            elem_->refCountInc();
        }
    }
    ConstStringRef(const ConstStringRef& other) noexcept : ConstStringRef(other.elem_) {}
    ConstStringRef(ConstStringRef&& other) noexcept : elem_(other.elem_) { other.elem_ = nullptr; }
    ConstStringRef& operator=(const ConstStringRef& other) {
        // Take before release: other may be this handle, or hold the only
        // other reference.
        const Elem* elem = other.elem_;
        if (elem) {
            elem->refCountInc();
        }
        release();
        elem_ = elem;
        return *this;
    }
    ConstStringRef& operator=(ConstStringRef&& other) {
        if (this != &other) {
            release();
            elem_ = other.elem_;
            other.elem_ = nullptr;
        }
        return *this;
    }
    ~ConstStringRef() { release(); }

    // The text; a null handle reads as the empty string.
    const String& str() const noexcept { return elem_ ? elem_->str_ : emptyString(); }
    operator std::string_view() const noexcept { return str(); }
    bool empty() const noexcept { return elem_ == nullptr; }
    const Elem* elem() const noexcept { return elem_; }
    uint64_t refCount() const noexcept { return elem_ ? elem_->refCount_ : 0; }
    // Drops the reference; the handle becomes null.
    void release() {
        if (const Elem* elem = elem_) {
            elem_ = nullptr;
            elem->refCountDec();
        }
    }

    // Handles of one cache are equal exactly when they share an element;
    // handles of different caches compare by contents.
    friend bool operator==(const ConstStringRef& a, const ConstStringRef& b) noexcept {
        if (a.elem_ == b.elem_) {
            return true;
        }
        if (!a.elem_ || !b.elem_ || a.elem_->cache_ == b.elem_->cache_) {
            return false;
        }
        return a.elem_->str_ == b.elem_->str_;
    }

  private:
    static const String& emptyString() noexcept;

    const Elem* elem_ = nullptr;
};

class KELVO_EXPORT ConstStringCache {
  public:
    using Elem = ConstStringRef::Elem;

    // Hash and equality by contents; transparent so that lookups by text
    // build no Elem.
    struct ElemHasher {
        using is_transparent = void;
        size_t operator()(const Elem& elem) const noexcept { return (*this)(elem.str_); }
        size_t operator()(std::string_view text) const noexcept {
            return std::hash<std::string_view>()(text);
        }
    };
    struct ElemEqual {
        using is_transparent = void;
        bool operator()(const Elem& a, const Elem& b) const noexcept { return a.str_ == b.str_; }
        bool operator()(std::string_view a, const Elem& b) const noexcept { return a == b.str_; }
        bool operator()(const Elem& a, std::string_view b) const noexcept { return a.str_ == b; }
    };
    using ElemSet = std::unordered_set<Elem, ElemHasher, ElemEqual>;

    ConstStringCache() = default;
    ConstStringCache(const ConstStringCache&) = delete;
    ConstStringCache& operator=(const ConstStringCache&) = delete;
    // Asserts that no handle is left: they would point into freed memory.
    ~ConstStringCache();

    // A handle to text, interning it if absent; the empty text gives a null handle.
    ConstStringRef intern(std::string_view text);
    // A handle to text if it is interned, else a null handle.
    ConstStringRef find(std::string_view text) const;
    // Number of distinct strings held.
    size_t size() const noexcept { return elems_.size(); }

    // Removes elem, whose count has dropped to 0; asserts that it is in this cache.
    void eraseElem(const Elem& elem);

  private:
    ElemSet elems_;
};

inline void ConstStringRef::Elem::refCountDec() const {
    KELVO_ASSERTM(refCount_ > 0, "ConstStringRef reference count underflow on \"{}\"", str_);
    if (--refCount_ > 0) {
        return;
    }
    cache_->eraseElem(*this);
}

}  // namespace Kelvo

// Handles hash by contents, like the strings they stand for.
template <>
struct std::hash<Kelvo::ConstStringRef> {
    size_t operator()(const Kelvo::ConstStringRef& ref) const noexcept {
        return std::hash<std::string_view>()(ref.str());
    }
};
