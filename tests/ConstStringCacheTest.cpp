#include "TestSupport.h"

using namespace KelvoTest;

using Kelvo::ConstStringCache;
using Kelvo::ConstStringRef;

TEST(ConstStringCache, StringLivesExactlyAsLongAsItsHandlesWhichCompareByContents) {
    ConstStringCache cache, other;
    std::optional<ConstStringRef> a = cache.intern("reader");
    ConstStringRef b = cache.intern(std::string("reader"));
    EXPECT_TRUE(a->elem() == b.elem() && b.refCount() == 2) << "one element, counted twice";
    {
        // Same text in different caches is equal; a null handle equals no string.
        const ConstStringRef elsewhere = other.intern("reader"), writer = cache.intern("writer");
        EXPECT_THAT((std::vector{b == elsewhere, b == writer, b == ConstStringRef()}),
                    ElementsAre(true, false, false));
        std::unordered_map<ConstStringRef, int> completed;
        for (const ConstStringRef& key : {b, elsewhere, writer})
            ++completed[key];
        EXPECT_EQ(completed.size(), 2u);
        EXPECT_EQ(b.refCount(), 3u) << "the table holds one handle";
    }
    a.reset();
    // Self-assignment of the only handle must not erase the string under it.
    ConstStringRef& alias = b;
    b = alias;
    b = std::move(alias);
    EXPECT_EQ(b.str() + " x" + std::to_string(b.refCount()), "reader x1");
    ConstStringRef moved(std::move(b));
    moved = cache.intern("writer");  // overwrites the last handle of "reader"
    EXPECT_TRUE(cache.find("reader").empty());
    // The empty text interns nothing: a null handle reading as "".
    EXPECT_TRUE(cache.intern("").empty());
    EXPECT_EQ(ConstStringRef().str(), "");
    ConstStringRef::Elem stray(&cache, "writer");  // counted by nobody, not the cache's
    EXPECT_THAT(
        [&] { stray.refCountDec(); },
        failsWith("Elem::refCountDec() ConstStringRef reference count underflow on \"writer\""));
    EXPECT_THAT([&] { cache.eraseElem(stray); },
                failsWith("ConstStringCache::eraseElem() element \"writer\" is not in this"));
    EXPECT_THAT((std::vector<uint64_t>{stray.refCount_, moved.refCount(), cache.size()}),
                ElementsAre(0, 1, 1))
        << "a failed check changes nothing";
}

TEST(ConstStringCacheDeathTest, DestroyingCacheWithLiveHandleAborts) {
    EXPECT_DEATH(
        {
            Kelvo::throwOnAssertFailIs(false);
            ConstStringCache cache;
            static const ConstStringRef survivor = cache.intern("survivor");
        },
        "Kelvo::Assert aborting because: .*ConstStringCache::~ConstStringCache\\(\\) "
        "Destroying ConstStringCache with open references");
}
