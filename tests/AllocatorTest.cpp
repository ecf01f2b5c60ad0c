#include "TestSupport.h"

using namespace KelvoTest;
using Kelvo::MemTrack;

namespace {

struct alignas(64) Wide {
    char payload[64];
};
struct VectorTag {};
struct Shared {
    int value = 0;
};

TEST(Allocator, CountsEachBlockAgainstItsTypeOrTag) {
    const MemTrack& wide = MemTrack::of<Wide>();
    const MemTrack& tag = MemTrack::of<VectorTag>();
    const uint64_t before = wide.allocations();
    {
        auto object = Kelvo::allocateShared<Wide>();
        auto copy = object;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(object.get()) % 64, 0u);
        // Object and shared count share one block.
        EXPECT_EQ(wide.liveObjects(), 1u);
        EXPECT_GT(wide.liveBytes(), sizeof(Wide));
        EXPECT_LT(wide.liveBytes(), sizeof(Wide) + 128);
        std::vector<int, Kelvo::Allocator<int, VectorTag>> v;
        v.reserve(100);
        v.resize(1000);  // the reserved block is given back
        EXPECT_EQ(std::pair(tag.liveObjects(), tag.liveBytes()),
                  std::pair(uint64_t{1}, v.capacity() * sizeof(int)));
    }
    EXPECT_EQ(std::tuple(wide.liveObjects(), wide.liveBytes(), wide.allocations(), tag.liveBytes()),
              std::tuple(0u, 0u, before + 1, 0u));
}

TEST(Allocator, ExactAcrossThreadsAndListedByName) {
    constexpr int threads = 4, rounds = 10000, kept = 25;
    // Counts are of the process, so a repeated run starts from earlier ones.
    const uint64_t before = MemTrack::of<Shared>().allocations();
    const uint64_t blockBytes = [] {
        auto one = Kelvo::allocateShared<Shared>();
        return MemTrack::of<Shared>().liveBytes();
    }();
    std::vector<std::vector<std::shared_ptr<Shared>>> held(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            for (int i = 0; i < rounds; ++i) {
                auto p = Kelvo::allocateShared<Shared>();
                if (i % (rounds / kept) == 0)
                    held[t].push_back(std::move(p));
            }
        });
    }
    for (auto& w : workers)
        w.join();
    const Kelvo::MemUsage u = MemTrack::usage(Kelvo::typeName(typeid(Shared)));
    const uint64_t live = threads * kept, made = before + threads * rounds + 1;
    EXPECT_EQ(std::tuple(u.liveObjects, u.allocations, u.liveBytes),
              std::tuple(live, made, live * blockBytes));

    const auto all = MemTrack::usage();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                               [](auto& a, auto& b) { return a.typeName < b.typeName; }));
    EXPECT_EQ(
        std::count_if(all.begin(), all.end(), [&](auto& e) { return e.typeName == u.typeName; }),
        1);
    EXPECT_EQ(MemTrack::usage("NoSuchType").allocations, 0u);
}

// Live objects of every type whose name holds part.
uint64_t liveOf(const char* part) {
    uint64_t live = 0;
    for (const auto& u : MemTrack::usage())
        live += u.typeName.find(part) != Kelvo::String::npos ? u.liveObjects : 0;
    return live;
}

TEST(Allocator, LibraryControlsAreCounted) {
    Probe handler;
    const auto counts = [] {
        return std::pair(liveOf("TimerControl"), liveOf("Kelvo::TimerWheel"));
    };
    const auto before = counts();
    {
        auto loopTimer = Kelvo::Platform::getTimerControl(&handler);
        auto wheel = Kelvo::getTimerWheelForTaskScheduler(Kelvo::Platform::eventPriorityDefault);
        // The wheel holds a loop timer of its own.
        EXPECT_EQ(counts(), std::pair(before.first + 2, before.second + 1));
    }
    EXPECT_EQ(counts(), before);
}

}  // namespace
