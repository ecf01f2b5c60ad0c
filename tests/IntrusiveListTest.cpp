#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/IntrusiveBookmarkLinkedList.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <vector>

using Kelvo::BookmarkListLinkNode;
using Kelvo::ListLinkNode;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Like a task: on a run queue and on a registry at once, through two nodes.
struct Item {
    explicit Item(int id) : id(id) {}
    int id;
    ListLinkNode runLink;
    BookmarkListLinkNode regLink;
};
using RunList = Kelvo::List<Item, ListLinkNode, &Item::runLink>;
using RegList = Kelvo::BookmarkList<Item, BookmarkListLinkNode, &Item::regLink>;

template <typename L>
std::vector<int> ids(const L& list) {
    std::vector<int> out;
    for (const Item& item : list) {
        out.push_back(item.id);
    }
    return out;
}

}  // namespace

TEST(IntrusiveList, ElementsOutliveTheirListsAndListsOutliveTheirElements) {
    auto a = std::make_unique<Item>(1);
    auto b = std::make_unique<Item>(2);
    Item c(3);
    {
        RunList run;
        RegList reg;
        RegList::Bookmark mark;
        run.pushBack(*a);
        run.pushBack(*b);
        reg.pushBack(*a);
        reg.pushFront(mark);
        reg.pushBack(c);
        b.reset();  // a destroyed element takes itself off
        EXPECT_THAT(ids(run), ElementsAre(1));
    }
    // Lists destroyed with nodes on them: every node is unlinked and reusable.
    EXPECT_FALSE(a->runLink.isLinked());
    EXPECT_FALSE(a->regLink.isLinked());
    EXPECT_FALSE(c.regLink.isLinked());
    RegList again;
    again.pushBack(c);
    EXPECT_THAT(ids(again), ElementsAre(3));
}

TEST(IntrusiveList, MisuseFailsTheNamedAssertion) {
    Item a(1), loose(2);
    RunList run;
    RegList reg;
    run.pushBack(a);
    reg.pushBack(a);
    RegList::Bookmark mark;
    reg.pushFront(mark);
    // The class part of the prefix is ListImpl with its template parameters.
    const char* beingLinked = "::beingLinked() !( element.*ptrToLinkNode ).isLinked()";
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { run.pushBack(a); }, beingLinked},
        {[&] { reg.insertBefore(reg.end(), a); }, beingLinked},
        {[&] { mark.insertBefore(reg.end()); }, "Bookmark::insertBefore() !link.isLinked()"},
        {[&] { reg.pushFront(mark); }, "!link.isLinked()"},
        {[&] { (void)RunList::Iterator(run, loose.runLink); }, "iterator at an unlinked node"},
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
    EXPECT_THAT(ids(run), ElementsAre(1)) << "nothing moved";
    EXPECT_THAT(ids(reg), ElementsAre(1));
}

TEST(BookmarkList, IteratorsAndCountsNeverShowBookmarks) {
    Item a(1), b(2);
    RegList reg;
    RegList::Bookmark m1, m2, m3, m4;
    m1.insertBefore(reg.end());
    EXPECT_TRUE(reg.empty()) << "a bookmark is not an element";
    reg.pushBack(a);
    m2.insertBefore(reg.end());
    m3.insertBefore(reg.end());
    reg.pushBack(b);
    m4.insertBefore(reg.end());  // before the end: last

    EXPECT_THAT(ids(reg), ElementsAre(1, 2));
    EXPECT_EQ(reg.elementCount(), 2u);
    EXPECT_EQ(&reg.front(), &a);
    // Built at a bookmark: moves over consecutive bookmarks to the next element.
    EXPECT_EQ(&*RegList::Iterator(reg, m1), &a);
    EXPECT_EQ(&*RegList::Iterator(reg, m2), &b);
    EXPECT_EQ(RegList::Iterator(reg, m4), reg.end()) << "only bookmarks follow m4";
    EXPECT_EQ(&*RegList::Iterator(reg, b.regLink), &b) << "built at an element: stays";

    // A plain list never calls a node a bookmark.
    RunList run;
    run.pushBack(a);
    EXPECT_FALSE(run.isBookmark(a.runLink));
    EXPECT_EQ(run.elementCount(), 1u);
}

TEST(BookmarkList, ResumableWalkVisitsEverySurvivorExactlyOnce) {
    for (unsigned k : {1u, 2u, 7u, 1000u}) {
        std::mt19937 rng(k);
        std::vector<std::unique_ptr<Item>> items;
        std::vector<bool> removed, behind;  // by id; behind: added ahead of the walk
        std::vector<int> visits;
        RegList reg;
        auto add = [&](bool front) {
            items.push_back(std::make_unique<Item>(static_cast<int>(visits.size())));
            removed.push_back(false);
            behind.push_back(front);
            visits.push_back(0);
            front ? reg.pushFront(*items.back()) : reg.pushBack(*items.back());
        };
        for (int i = 0; i < 200; ++i) {
            add(false);
        }
        RegList::Bookmark mark;
        reg.pushFront(mark);
        for (unsigned runs = 0;; ++runs) {
            ASSERT_LT(runs, 10000u) << "walk does not progress, k=" << k;
            RegList::Iterator it(reg, mark);
            mark.unlink();
            for (unsigned done = 0; it != reg.end(); ++it, ++done) {
                if (done == k) {
                    mark.insertBefore(it);
                    break;
                }
                ++visits[it->id];
            }
            if (!mark.isLinked()) {
                break;
            }
            // While the walker is away: destroy or unlink some elements (sometimes
            // the one the bookmark stands before) and add one at either end.
            for (int n = 0; n < 3 && !items.empty(); ++n) {
                const size_t victim = rng() % items.size();
                removed[items[victim]->id] = true;
                RegList::remove(*items[victim]);
                if (rng() % 2) {
                    items.erase(items.begin() + victim);
                }
            }
            if (RegList::Iterator next(reg, mark); next != reg.end() && rng() % 4 == 0) {
                removed[next->id] = true;
                items.erase(std::find_if(items.begin(), items.end(),
                                         [&](auto& item) { return item.get() == &*next; }));
            }
            add(rng() % 2);
        }
        for (size_t id = 0; id < visits.size(); ++id) {
            EXPECT_EQ(visits[id], removed[id] ? std::min(visits[id], 1) : int(!behind[id]))
                << "k=" << k << " id=" << id;
        }
    }
}
