#include <Kelvo/ExceptionCpp.h>
#include <Kelvo/IntrusiveBookmarkLinkedList.h>
#include <Kelvo/IntrusiveLinkedListBase.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <vector>

using Kelvo::BookmarkListLinkNode;
using Kelvo::ListLinkNode;
using testing::AnyOf;
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

TEST(IntrusiveList, LinkOperationsKeepOrderOnEachListIndependently) {
    Item a(1), b(2), c(3), d(4);
    RunList run;
    RegList reg;
    run.pushBack(b);
    run.pushFront(a);
    run.pushBack(d);
    run.insertBefore(run.iteratorTo(d), c);
    reg.pushBack(d);
    reg.pushBack(a);
    EXPECT_THAT(ids(run), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(ids(reg), ElementsAre(4, 1));

    RunList::remove(b);
    RunList::remove(b);  // already unlinked: nothing happens
    EXPECT_EQ(&run.popFront(), &a);
    EXPECT_THAT(ids(run), ElementsAre(3, 4));
    EXPECT_THAT(ids(reg), ElementsAre(4, 1)) << "the other node is untouched";
    auto next = run.erase(run.begin());
    EXPECT_EQ(&*next, &d);
    EXPECT_FALSE(c.runLink.isLinked());
    EXPECT_EQ(&run.front(), &d);
    EXPECT_EQ(run.elementCount(), 1u);
}

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
        EXPECT_TRUE(mark.isLinked());
    }
    // Lists destroyed with nodes on them: every node is unlinked and reusable.
    EXPECT_FALSE(a->runLink.isLinked());
    EXPECT_FALSE(a->regLink.isLinked());
    EXPECT_FALSE(c.regLink.isLinked());
    EXPECT_EQ(c.id, 3);
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
    const std::string beingLinked = "::beingLinked() !( element.*ptrToLinkNode ).isLinked()";
    struct Case {
        const char* what;
        std::function<void()> misuse;
        std::string expected;
    } cases[] = {
        {"push back twice", [&] { run.pushBack(a); }, beingLinked},
        {"push front twice", [&] { run.pushFront(a); }, beingLinked},
        {"insert linked", [&] { reg.insertBefore(reg.end(), a); }, beingLinked},
        {"bookmark twice", [&] { mark.insertBefore(reg.end()); },
         "Bookmark::insertBefore() !link.isLinked()"},
        {"bookmark pushed twice", [&] { reg.pushFront(mark); }, "!link.isLinked()"},
        {"iterator at unlinked node", [&] { (void)RunList::Iterator(run, loose.runLink); },
         "iterator at an unlinked node"},
        {"front of empty", [&] { RunList().front(); }, "front() of an empty list"},
    };
    for (const Case& c : cases) {
        const std::string text = assertText(c.misuse);
        EXPECT_THAT(text, HasSubstr(c.expected)) << c.what;
        EXPECT_THAT(text, AnyOf(HasSubstr("IntrusiveLinkedListBase.h:"),
                                HasSubstr("IntrusiveBookmarkLinkedList.h:")))
            << c.what;
    }
    // Nothing moved.
    EXPECT_THAT(ids(run), ElementsAre(1));
    EXPECT_THAT(ids(reg), ElementsAre(1));
    EXPECT_EQ(reg.elementCount(), 1u);
}

TEST(BookmarkList, IteratorsAndCountsNeverShowBookmarks) {
    Item a(1), b(2);
    RegList reg;
    RegList::Bookmark m1, m2, m3, m4;
    EXPECT_TRUE(reg.empty());
    m1.insertBefore(reg.end());
    EXPECT_TRUE(reg.empty()) << "a bookmark is not an element";
    EXPECT_EQ(reg.begin(), reg.end());
    reg.pushBack(a);
    m2.insertBefore(reg.end());
    m3.insertBefore(reg.end());
    reg.pushBack(b);
    m4.insertBefore(reg.end());  // before the end: last

    EXPECT_THAT(ids(reg), ElementsAre(1, 2));
    EXPECT_EQ(reg.elementCount(), 2u);
    EXPECT_EQ(&reg.front(), &a);
    EXPECT_TRUE(reg.isBookmark(m1));
    EXPECT_FALSE(reg.isBookmark(a.regLink));

    // Built at a bookmark: moves over consecutive bookmarks to the next element.
    EXPECT_EQ(&*RegList::Iterator(reg, m1), &a);
    EXPECT_EQ(&*RegList::Iterator(reg, m2), &b);
    EXPECT_EQ(RegList::Iterator(reg, m4), reg.end()) << "only bookmarks follow m4";
    // Built at an element: stays there.
    EXPECT_EQ(&*RegList::Iterator(reg, b.regLink), &b);

    // An iterator advanced past a bookmark inserted in front of it.
    RegList::ConstIterator it = reg.begin();
    RegList::Bookmark m5;
    m5.insertBefore(++RegList::ConstIterator(it));
    EXPECT_EQ(&*++it, &b);

    m2.unlink();
    m3.unlink();
    m4.unlink();
    EXPECT_FALSE(m4.isLinked());
    EXPECT_THAT(ids(reg), ElementsAre(1, 2));

    // A plain list never calls anything a bookmark, whatever the node holds.
    RunList run;
    run.pushBack(a);
    EXPECT_FALSE(run.isBookmark(a.runLink));
    EXPECT_EQ(run.elementCount(), 1u);
}

// One run of the resumable walk: resumes at the bookmark, yields after k
// elements, and leaves the bookmark ahead of the first unprocessed element.
// Returns true when the walk is complete.
static bool walkRun(RegList& reg, RegList::Bookmark& mark, unsigned k, std::vector<int>& visits) {
    RegList::Iterator it(reg, mark);
    mark.unlink();
    for (unsigned done = 0; it != reg.end(); ++it, ++done) {
        if (done > 0 && done % k == 0) {
            mark.insertBefore(it);
            return false;
        }
        ++visits[it->id];
    }
    return true;
}

TEST(BookmarkList, ResumableWalkVisitsEverySurvivorExactlyOnce) {
    enum Origin { original, appended, prepended };
    for (unsigned k : {1u, 2u, 3u, 7u, 1000u}) {
        std::mt19937 rng(k);
        std::vector<std::unique_ptr<Item>> items;
        std::vector<Origin> origin;
        std::vector<bool> removed;
        RegList reg;
        auto add = [&](Origin from) {
            items.push_back(std::make_unique<Item>(static_cast<int>(origin.size())));
            origin.push_back(from);
            removed.push_back(false);
            if (from == prepended) {
                reg.pushFront(*items.back());
            } else {
                reg.pushBack(*items.back());
            }
        };
        for (int i = 0; i < 200; ++i) {
            add(original);
        }

        RegList::Bookmark mark;
        reg.pushFront(mark);
        std::vector<int> visits;
        unsigned runs = 0;
        for (;;) {
            visits.resize(origin.size());
            if (walkRun(reg, mark, k, visits)) {
                break;
            }
            ASSERT_LT(++runs, 10000u) << "walk does not progress, k=" << k;
            // Churn while the walker is away: destroy, unlink, add at both ends.
            for (int n = 0; n < 3 && !items.empty(); ++n) {
                const size_t victim = rng() % items.size();
                removed[items[victim]->id] = true;
                if (rng() % 2) {
                    items.erase(items.begin() + victim);  // destroyed: auto-unlinked
                } else {
                    RegList::remove(*items[victim]);
                }
            }
            // The element right after the bookmark is the riskiest one to lose.
            RegList::Iterator next(reg, mark);
            if (next != reg.end() && rng() % 4 == 0) {
                removed[next->id] = true;
                RegList::remove(*next);
            }
            add(rng() % 2 ? appended : prepended);
        }
        EXPECT_FALSE(mark.isLinked());
        for (size_t id = 0; id < origin.size(); ++id) {
            EXPECT_LE(visits[id], 1) << "k=" << k << " id=" << id;
            if (removed[id]) {
                continue;
            }
            // Survivors: originals and appended ones lie ahead of the walker,
            // prepended ones behind it.
            EXPECT_EQ(visits[id], origin[id] == prepended ? 0 : 1)
                << "k=" << k << " id=" << id << " origin=" << origin[id];
        }
    }
}
