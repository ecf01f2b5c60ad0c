#include "TestSupport.h"

using namespace KelvoTest;

namespace {

// Like a task: on a run queue and on a registry at once, through two nodes.
struct Item {
    explicit Item(int id) : id(id) {}
    int id;
    Kelvo::ListLinkNode runLink;
    Kelvo::BookmarkListLinkNode regLink;
};
using RunList = Kelvo::List<Item, Kelvo::ListLinkNode, &Item::runLink>;
using RegList = Kelvo::BookmarkList<Item, Kelvo::BookmarkListLinkNode, &Item::regLink>;

template <typename L>
std::vector<int> ids(const L& list) {
    std::vector<int> out;
    for (const Item& item : list)
        out.push_back(item.id);
    return out;
}

}  // namespace

TEST(BookmarkList, BookmarksStayHiddenMisuseFailsAndNodesOutliveLists) {
    auto a = std::make_unique<Item>(1), b = std::make_unique<Item>(2),
         c = std::make_unique<Item>(3);
    {
        RunList run;
        RegList reg;
        RegList::Bookmark m1, m2, m3, m4;
        m1.insertBefore(reg.end());
        EXPECT_TRUE(reg.empty()) << "a bookmark is not an element";
        reg.pushBack(*a);
        m2.insertBefore(reg.end());
        m3.insertBefore(reg.end());
        reg.pushBack(*b);
        m4.insertBefore(reg.end());  // before the end: last
        EXPECT_THAT(ids(reg), ElementsAre(1, 2));
        EXPECT_EQ(reg.elementCount(), 2u);
        // Built at a bookmark, an iterator moves over consecutive bookmarks to
        // the next element (0: the end); built at an element, it stays.
        auto at = [&](const auto& node) {
            RegList::Iterator it(reg, node);
            return it == reg.end() ? 0 : it->id;
        };
        EXPECT_THAT((std::vector{at(m1), at(m2), at(m4), at(b->regLink)}), ElementsAre(1, 2, 0, 2));
        for (auto* item : {a.get(), b.get(), c.get()})
            run.pushBack(*item);
        // The class part of the prefix is ListImpl with its template parameters.
        const char* beingLinked = "::beingLinked() !( element.*ptrToLinkNode ).isLinked()";
        EXPECT_THAT([&] { run.pushBack(*a); }, failsWith(beingLinked));
        EXPECT_THAT([&] { reg.insertBefore(reg.end(), *b); }, failsWith(beingLinked));
        EXPECT_THAT([&] { m1.insertBefore(reg.end()); },
                    failsWith("Bookmark::insertBefore() !link.isLinked()"));
        EXPECT_THAT([&] { reg.pushFront(m1); }, failsWith("::pushFront() !link.isLinked()"));
        EXPECT_THAT([&] { (void)RegList::Iterator(reg, RegList::Bookmark()); },
                    failsWith("iterator at an unlinked node"));
        b.reset();  // a destroyed element takes itself off every list
        EXPECT_THAT(ids(run), ElementsAre(1, 3)) << "and misuse moved nothing";
        EXPECT_THAT(ids(reg), ElementsAre(1));
        reg.pushFront(*c);
    }
    // Lists destroyed with nodes on them leave every node unlinked.
    EXPECT_FALSE(a->runLink.isLinked() || a->regLink.isLinked() || c->regLink.isLinked());
}

TEST(BookmarkList, ResumableWalkVisitsEverySurvivorExactlyOnce) {
    for (unsigned k : {1u, 2u, 7u, 1000u}) {  // elements per run
        std::mt19937 rng(k);
        std::vector<std::unique_ptr<Item>> items;
        // By id. expected: 1, or 0 when added ahead of the walk, or -1 when
        // removed, which allows at most one visit.
        std::vector<int> visits, expected;
        RegList reg;
        RegList::Bookmark mark;
        auto add = [&](bool front) {
            items.push_back(std::make_unique<Item>(static_cast<int>(visits.size())));
            visits.push_back(0);
            expected.push_back(!front);
            front ? reg.pushFront(*items.back()) : reg.pushBack(*items.back());
        };
        for (int i = 0; i < 200; ++i)
            add(false);
        reg.pushFront(mark);
        for (unsigned runs = 0; mark.isLinked(); ++runs) {
            ASSERT_LT(runs, 10000u) << "walk does not progress, k=" << k;
            RegList::Iterator it(reg, mark);
            mark.unlink();
            for (unsigned done = 0; it != reg.end() && done < k; ++it, ++done)
                ++visits[it->id];
            if (it == reg.end())
                break;
            mark.insertBefore(it);
            // While the walker is away: destroy or unlink some elements, often
            // the one the bookmark stands before, and add one at either end.
            for (int n = 0; n < 3 && !items.empty(); ++n) {
                RegList::Iterator next(reg, mark);
                Item* victim = next != reg.end() && rng() % 3 == 0
                                   ? &*next
                                   : items[rng() % items.size()].get();
                expected[victim->id] = -1;
                RegList::remove(*victim);
                if (rng() % 2)
                    std::erase_if(items, [&](const auto& item) { return item.get() == victim; });
            }
            add(rng() % 2);
        }
        for (size_t id = 0; id < visits.size(); ++id)
            expected[id] = expected[id] < 0 ? std::min(visits[id], 1) : expected[id];
        EXPECT_EQ(visits, expected) << "k=" << k;
    }
}
