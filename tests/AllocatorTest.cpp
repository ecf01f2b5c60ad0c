#include <Kelvo/Kelvo.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

using Kelvo::MemTrack;

namespace {

struct Plain {
    char payload[40];
};
struct alignas(64) Wide {
    char payload[64];
};
struct VectorTag {};
struct Shared {
    int value = 0;
};

TEST(Allocator, CountsSharedObjectsWithTheirCountBlock) {
    const MemTrack& track = MemTrack::of<Plain>();
    const uint64_t before = track.allocations();
    {
        auto a = Kelvo::allocateShared<Plain>();
        auto b = Kelvo::allocateShared<Plain>();
        EXPECT_EQ(track.liveObjects(), 2u);
        // Object and shared count share one block.
        EXPECT_GT(track.liveBytes(), 2 * sizeof(Plain));
        EXPECT_LT(track.liveBytes(), 2 * (sizeof(Plain) + 64));
        auto copy = a;
        a.reset();
        EXPECT_EQ(track.liveObjects(), 2u);
    }
    EXPECT_EQ(std::tuple(track.liveObjects(), track.liveBytes(), track.allocations()),
              std::tuple(0u, 0u, before + 2));

    auto wide = Kelvo::allocateShared<Wide>();
    EXPECT_EQ(reinterpret_cast<uintptr_t>(wide.get()) % 64, 0u);
    EXPECT_EQ(MemTrack::of<Wide>().liveObjects(), 1u);
}

TEST(Allocator, ContainersCountAgainstTheirTag) {
    const MemTrack& track = MemTrack::of<VectorTag>();
    {
        std::vector<int, Kelvo::Allocator<int, VectorTag>> v;
        v.reserve(100);
        v.resize(1000);  // the reserved block is given back
        EXPECT_EQ(std::pair(track.liveObjects(), track.liveBytes()),
                  std::pair(uint64_t{1}, v.capacity() * sizeof(int)));
    }
    EXPECT_EQ(std::pair(track.liveObjects(), track.liveBytes()),
              std::pair(uint64_t{0}, uint64_t{0}));
}

TEST(Allocator, ExactAcrossThreadsAndListedByName) {
    constexpr int threads = 4, rounds = 10000, kept = 25;
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
    EXPECT_EQ(u.liveObjects, uint64_t(threads * kept));
    EXPECT_EQ(u.allocations, uint64_t(threads * rounds) + 1);
    EXPECT_EQ(u.liveBytes, threads * kept * blockBytes);

    const auto all = MemTrack::usage();
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end(),
                               [](auto& a, auto& b) { return a.typeName < b.typeName; }));
    EXPECT_EQ(
        std::count_if(all.begin(), all.end(), [&](auto& e) { return e.typeName == u.typeName; }),
        1);
    EXPECT_EQ(MemTrack::usage("NoSuchType").allocations, 0u);
}

struct NoTimeout : Kelvo::Platform::TimeoutHandler {
    void timeout() override {}
};

uint64_t liveOf(const char* typeNamePart) {
    uint64_t live = 0;
    for (const auto& u : MemTrack::usage())
        live += u.typeName.find(typeNamePart) != Kelvo::String::npos ? u.liveObjects : 0;
    return live;
}

TEST(Allocator, LibraryControlsAreCounted) {
    NoTimeout handler;
    const uint64_t timers = liveOf("TimerControl"), wheels = liveOf("Kelvo::TimerWheel");
    {
        auto loopTimer = Kelvo::Platform::getTimerControl(&handler);
        auto wheel = Kelvo::getTimerWheelForTaskScheduler(Kelvo::Platform::eventPriorityDefault);
        // The wheel holds a loop timer of its own.
        EXPECT_EQ(std::pair(liveOf("TimerControl"), liveOf("Kelvo::TimerWheel")),
                  std::pair(timers + 2, wheels + 1));
    }
    EXPECT_EQ(std::pair(liveOf("TimerControl"), liveOf("Kelvo::TimerWheel")),
              std::pair(timers, wheels));
}

}  // namespace
