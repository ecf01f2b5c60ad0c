#include "TestSupport.h"

using namespace KelvoTest;

using Kelvo::ConstStringCache;
using Kelvo::ConstStringRef;

TEST(ConstStringCache, StringLivesExactlyAsLongAsItsHandles) {
    ConstStringCache cache;
    std::optional<ConstStringRef> a = cache.intern("reader");
    ConstStringRef b = cache.intern(std::string("reader"));
    EXPECT_TRUE(a->elem() == b.elem() && b.refCount() == 2) << "one element, counted twice";
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
    EXPECT_EQ(cache.size(), 1u);
}

TEST(ConstStringCache, HandlesHashAndCompareByContents) {
    ConstStringCache one, two;
    ConstStringRef a1 = one.intern("alpha"), a2 = two.intern("alpha"), b1 = one.intern("beta");
    // Same text in different caches is equal; a null handle equals no string.
    EXPECT_THAT((std::vector{a1 == a2, a1 == b1, a1 == ConstStringRef()}),
                testing::ElementsAre(true, false, false));
    std::unordered_map<ConstStringRef, int> completed;
    for (const ConstStringRef* key : {&a1, &a2, &b1})
        ++completed[*key];
    EXPECT_EQ(completed.size(), 2u);
    EXPECT_EQ(completed[one.intern("alpha")], 2);
    EXPECT_EQ(a1.refCount(), 2u) << "the table holds one handle";
}

TEST(ConstStringCache, MisuseRaisesNamedAssertions) {
    ConstStringCache cache;
    ConstStringRef::Elem stray(&cache, "stray");  // counted by nobody
    ConstStringRef held = cache.intern("stray");  // same text, other element
    EXPECT_THAT(
        [&] { stray.refCountDec(); },
        failsWith("Elem::refCountDec() ConstStringRef reference count underflow on \"stray\""));
    EXPECT_THAT([&] { cache.eraseElem(stray); },
                failsWith("ConstStringCache::eraseElem() element \"stray\" is not in this"));
    EXPECT_THAT((std::vector<uint64_t>{stray.refCount_, held.refCount(), cache.size()}),
                testing::ElementsAre(0, 1, 1))
        << "a failed check changes nothing";
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
