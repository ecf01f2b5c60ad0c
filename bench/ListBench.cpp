// Intrusive lists against std::list, a bookmark walk against a plain walk, and
// a ConstStringRef copy against a std::string copy. Every benchmark counts the
// allocations its operation makes ("allocs"); the intrusive ones must make
// none and report an error if they do.
#include <Kelvo/ConstStringCache.h>
#include <Kelvo/IntrusiveBookmarkLinkedList.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <list>
#include <new>
#include <string>
#include <vector>

#include "CountingAllocator.h"

namespace {

struct Item {
    uint64_t payload = 0;
    Kelvo::ListLinkNode runLink;
    Kelvo::BookmarkListLinkNode regLink;
};

using RunList = Kelvo::List<Item, Kelvo::ListLinkNode, &Item::runLink>;
using RegList = Kelvo::BookmarkList<Item, Kelvo::BookmarkListLinkNode, &Item::regLink>;

constexpr size_t itemCount = 1024;

// Times op, after one untimed call that counts the allocations op makes
// ("allocs", per call); mustBeZero turns any allocation into an error.
template <typename Op>
void timeOp(benchmark::State& state, bool mustBeZero, Op op) {
    const uint64_t before = allocations.load();
    op();
    const uint64_t allocs = allocations.load() - before;
    state.counters["allocs"] = double(allocs);
    if (mustBeZero && allocs != 0) {
        state.SkipWithError("allocated");
        return;
    }
    for (auto _ : state) {
        op();
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * itemCount);
}

void IntrusiveLinkUnlink(benchmark::State& state) {
    std::vector<Item> items(itemCount);
    RunList list;
    timeOp(state, true, [&] {
        for (Item& item : items) {
            list.pushBack(item);
        }
        while (!list.empty()) {
            benchmark::DoNotOptimize(&list.popFront());
        }
    });
}
BENCHMARK(IntrusiveLinkUnlink);

void StdListLinkUnlink(benchmark::State& state) {
    std::vector<Item> items(itemCount);
    std::list<Item*> list;
    timeOp(state, false, [&] {
        for (Item& item : items) {
            list.push_back(&item);
        }
        while (!list.empty()) {
            benchmark::DoNotOptimize(list.front());
            list.pop_front();
        }
    });
}
BENCHMARK(StdListLinkUnlink);

// A complete resumable walk over itemCount elements, pausing every 16.
void BookmarkWalk(benchmark::State& state) {
    std::vector<Item> items(itemCount);
    RegList list;
    for (Item& item : items) {
        list.pushBack(item);
    }
    RegList::Bookmark mark;
    timeOp(state, true, [&] {
        list.pushFront(mark);
        for (bool done = false; !done;) {
            RegList::Iterator it(list, mark);
            mark.unlink();
            done = true;
            for (unsigned n = 0; it != list.end(); ++it, ++n) {
                if (n == 16) {
                    mark.insertBefore(it);
                    done = false;
                    break;
                }
                ++it->payload;
            }
        }
    });
}
BENCHMARK(BookmarkWalk);

void PlainWalk(benchmark::State& state) {
    std::vector<Item> items(itemCount);
    RegList list;
    for (Item& item : items) {
        list.pushBack(item);
    }
    timeOp(state, true, [&] {
        for (Item& item : list) {
            ++item.payload;
        }
        benchmark::ClobberMemory();
    });
}
BENCHMARK(PlainWalk);

// Copy and destroy itemCount handles to one name, as statistics records do.
void ConstStringRefCopy(benchmark::State& state) {
    Kelvo::ConstStringCache cache;
    const Kelvo::ConstStringRef name = cache.intern("N statistics-reader-01");
    timeOp(state, true, [&] {
        for (size_t i = 0; i < itemCount; ++i) {
            Kelvo::ConstStringRef copy(name);
            benchmark::DoNotOptimize(copy);
        }
    });
}
BENCHMARK(ConstStringRefCopy);

// The same with a 24-byte std::string, past the small-string buffer.
void StringCopy24(benchmark::State& state) {
    const std::string name = "N statistics-reader-0001";
    static_assert(sizeof("N statistics-reader-0001") == 25);
    timeOp(state, false, [&] {
        for (size_t i = 0; i < itemCount; ++i) {
            std::string copy(name);
            benchmark::DoNotOptimize(copy);
        }
    });
}
BENCHMARK(StringCopy24);

}  // namespace

BENCHMARK_MAIN();
