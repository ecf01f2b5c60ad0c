#include <Kelvo/ConstStringCache.h>
#include <Kelvo/ExceptionCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <unordered_map>

using Kelvo::ConstStringCache;
using Kelvo::ConstStringRef;
using testing::HasSubstr;

namespace {

template <typename F>
std::string assertText(F&& f) {
    Kelvo::throwOnAssertFailIs(true);
    std::string text = "no assertion";
    try {
        f();
    } catch (const Kelvo::AssertException& e) {
        text = e.message();
    }
    Kelvo::throwOnAssertFailIs(false);
    return text;
}

}  // namespace

TEST(ConstStringCache, SameTextSharesOneElementUntilTheLastHandleGoes) {
    ConstStringCache cache;
    std::optional<ConstStringRef> a = cache.intern("reader");
    std::optional<ConstStringRef> b = cache.intern(std::string("reader"));
    ConstStringRef other = cache.intern("writer");
    EXPECT_EQ(a->elem(), b->elem());
    EXPECT_EQ(a->refCount(), 2u);
    EXPECT_NE(a->elem(), other.elem());
    EXPECT_EQ(cache.size(), 2u);

    a.reset();
    EXPECT_EQ(b->refCount(), 1u);
    EXPECT_EQ(b->str(), "reader");
    b.reset();
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_TRUE(cache.find("reader").empty()) << "gone with its last handle";

    ConstStringRef again = cache.intern("reader");
    EXPECT_EQ(again.refCount(), 1u) << "interned afresh";
    EXPECT_EQ(cache.find("reader").elem(), again.elem());
    EXPECT_EQ(again.refCount(), 1u) << "a temporary handle gave its reference back";
}

TEST(ConstStringCache, HandleCopiesMovesAndAssignmentsKeepCountsExact) {
    ConstStringCache cache;
    ConstStringRef x = cache.intern("x");
    ConstStringRef y = cache.intern("y");

    {
        ConstStringRef copy(x);
        EXPECT_EQ(x.refCount(), 2u);
        ConstStringRef moved(std::move(copy));
        EXPECT_TRUE(copy.empty());
        EXPECT_EQ(x.refCount(), 2u);
        moved = y;  // releases x, takes y
        EXPECT_EQ(x.refCount(), 1u);
        EXPECT_EQ(y.refCount(), 2u);
        moved = ConstStringRef();
        EXPECT_EQ(y.refCount(), 1u);
    }
    // Self-assignment of the only handle must not erase the string under it.
    ConstStringRef& alias = x;
    x = alias;
    x = std::move(alias);
    EXPECT_EQ(x.str(), "x");
    EXPECT_EQ(x.refCount(), 1u);

    // Overwriting the last handle of a string with a handle to another.
    ConstStringRef z = cache.intern("z");
    z = std::move(y);
    EXPECT_EQ(z.str(), "y");
    EXPECT_EQ(cache.size(), 2u) << "z was erased";
    EXPECT_TRUE(cache.find("z").empty());
}

TEST(ConstStringCache, NullHandleIsTheEmptyString) {
    ConstStringCache cache;
    ConstStringRef null;
    ConstStringRef empty = cache.intern("");
    EXPECT_EQ(null.str(), "");
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(empty, null);
    EXPECT_EQ(cache.size(), 0u);
    null.release();
    ConstStringRef copy = null;
    EXPECT_EQ(copy.refCount(), 0u);
}

TEST(ConstStringCache, HandlesHashAndCompareByContents) {
    ConstStringCache one, two;
    ConstStringRef a1 = one.intern("alpha"), a2 = two.intern("alpha"), b1 = one.intern("beta");
    EXPECT_EQ(a1, a2) << "same text in different caches";
    EXPECT_NE(a1, b1);
    EXPECT_NE(a1, ConstStringRef());
    std::hash<ConstStringRef> hash;
    EXPECT_EQ(hash(a1), hash(a2));
    EXPECT_EQ(hash(a1), std::hash<std::string>()("alpha"));

    std::unordered_map<ConstStringRef, int> completed;
    completed[a1] += 1;
    completed[a2] += 1;
    completed[b1] += 1;
    EXPECT_EQ(completed.size(), 2u);
    EXPECT_EQ(completed[one.intern("alpha")], 2);
    EXPECT_EQ(a1.refCount(), 2u) << "the table holds one handle";
    completed.clear();
    EXPECT_EQ(a1.refCount(), 1u);
}

TEST(ConstStringCache, MisuseRaisesNamedAssertions) {
    ConstStringCache cache;
    // An element nobody counted: releasing it underflows.
    ConstStringRef::Elem stray(&cache, "stray");
    EXPECT_THAT(assertText([&] { stray.refCountDec(); }),
                HasSubstr("Elem::refCountDec() ConstStringRef reference count underflow"));
    EXPECT_EQ(stray.refCount_, 0u);

    // Erasing an element that this cache does not hold, though it holds the
    // same text.
    ConstStringRef held = cache.intern("stray");
    EXPECT_THAT(assertText([&] { cache.eraseElem(stray); }),
                HasSubstr("ConstStringCache::eraseElem() element \"stray\" is not in this"));
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_EQ(held.str(), "stray");
}

TEST(ConstStringCacheDeathTest, DestroyingCacheWithLiveHandleAborts) {
    EXPECT_DEATH(
        {
            Kelvo::throwOnAssertFailIs(false);
            auto* cache = new ConstStringCache;
            static ConstStringRef survivor;
            survivor = cache->intern("survivor");
            delete cache;
        },
        "Kelvo::Assert aborting because: .*ConstStringCache::~ConstStringCache\\(\\) "
        "Destroying ConstStringCache with open references");
}
