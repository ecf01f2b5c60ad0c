#include <Kelvo/ConstStringCache.h>
#include <Kelvo/ExceptionCpp.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <unordered_map>

using Kelvo::ConstStringCache;
using Kelvo::ConstStringRef;
using testing::HasSubstr;

TEST(ConstStringCache, StringLivesExactlyAsLongAsItsHandles) {
    ConstStringCache cache;
    std::optional<ConstStringRef> a = cache.intern("reader");
    ConstStringRef b = cache.intern(std::string("reader"));
    EXPECT_EQ(a->elem(), b.elem());
    EXPECT_EQ(b.refCount(), 2u);
    a.reset();
    EXPECT_EQ(b.refCount(), 1u);

    // Self-assignment of the only handle must not erase the string under it.
    ConstStringRef& alias = b;
    b = alias;
    b = std::move(alias);
    EXPECT_EQ(b.str(), "reader");
    EXPECT_EQ(b.refCount(), 1u);

    ConstStringRef moved(std::move(b));
    EXPECT_EQ(moved.refCount(), 1u);
    moved = cache.intern("writer");  // overwrites the last handle of "reader"
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_TRUE(cache.find("reader").empty());
    EXPECT_EQ(cache.intern("reader").refCount(), 1u) << "interned afresh";

    // The null handle: the empty string, counting nothing.
    ConstStringRef null, copy = cache.intern("");
    EXPECT_TRUE(copy.empty());
    EXPECT_EQ(null.str(), "");
    null.release();
    EXPECT_EQ(cache.size(), 1u);
}

TEST(ConstStringCache, HandlesHashAndCompareByContents) {
    ConstStringCache one, two;
    ConstStringRef a1 = one.intern("alpha"), a2 = two.intern("alpha"), b1 = one.intern("beta");
    EXPECT_TRUE(a1 == a2) << "same text in different caches";
    EXPECT_FALSE(a1 == b1);
    EXPECT_FALSE(a1 == ConstStringRef());
    std::unordered_map<ConstStringRef, int> completed;
    ++completed[a1];
    ++completed[a2];
    ++completed[b1];
    EXPECT_EQ(completed.size(), 2u);
    EXPECT_EQ(completed[one.intern("alpha")], 2);
    EXPECT_EQ(a1.refCount(), 2u) << "the table holds one handle";
}

TEST(ConstStringCache, MisuseRaisesNamedAssertions) {
    ConstStringCache cache;
    ConstStringRef::Elem stray(&cache, "stray");  // counted by nobody
    ConstStringRef held = cache.intern("stray");  // same text, other element
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { stray.refCountDec(); }, "Elem::refCountDec() ConstStringRef reference count"},
        {[&] { cache.eraseElem(stray); }, "ConstStringCache::eraseElem() element \"stray\""},
    };
    Kelvo::throwOnAssertFailIs(true);
    for (const auto& [misuse, expected] : cases) {
        std::string text = "no assertion";
        try {
            misuse();
        } catch (const Kelvo::AssertException& e) {
            text = e.message();
        }
        EXPECT_THAT(text, HasSubstr(expected));
    }
    Kelvo::throwOnAssertFailIs(false);
    EXPECT_EQ(stray.refCount_, 0u);
    EXPECT_EQ(held.refCount(), 1u);
    EXPECT_EQ(cache.size(), 1u);
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
