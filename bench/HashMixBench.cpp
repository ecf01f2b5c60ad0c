// Word-at-a-time FNV-1a against byte-wise FNV-1a of the same width, and the
// fixed-length forms against mix() with the same length.
#include <Kelvo/HashMixCpp.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> randomBytes(size_t size) {
    std::mt19937_64 rng(1);
    std::vector<unsigned char> bytes(size);
    for (auto& byte : bytes) {
        byte = static_cast<unsigned char>(rng());
    }
    return bytes;
}

// The baselines: classic FNV-1a, one byte per multiply. Out of line like
// Util::hash, so both sides pay one call.
[[gnu::noinline]] uint32_t fnv1a32(const void* data, size_t length) {
    const auto* p = static_cast<const unsigned char*>(data);
    uint32_t h = 0x811c9dc5u;
    for (size_t i = 0; i < length; ++i) {
        h = (h ^ p[i]) * 0x01000193u;
    }
    return h;
}

[[gnu::noinline]] uint64_t fnv1a64(const void* data, size_t length) {
    const auto* p = static_cast<const unsigned char*>(data);
    uint64_t h = 0xcbf29ce484222325ull;
    for (size_t i = 0; i < length; ++i) {
        h = (h ^ p[i]) * 0x100000001b3ull;
    }
    return h;
}

constexpr size_t blockSize = 4096;

template <typename F>
void hashBlock(benchmark::State& state, F hash) {
    const auto bytes = randomBytes(blockSize);
    for (auto _ : state) {
        benchmark::DoNotOptimize(hash(bytes.data(), static_cast<unsigned>(bytes.size())));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * blockSize);
}

void Fnv1aBytewise32_4KiB(benchmark::State& state) {
    hashBlock(state, fnv1a32);
}
void Fnv1aBytewise64_4KiB(benchmark::State& state) {
    hashBlock(state, fnv1a64);
}
void Hash32_4KiB(benchmark::State& state) {
    hashBlock(state, [](const void* p, unsigned n) { return Kelvo::Util::hash(p, n); });
}
void Hash64_4KiB(benchmark::State& state) {
    hashBlock(state, [](const void* p, unsigned n) { return Kelvo::Util::hash64(p, n); });
}
BENCHMARK(Fnv1aBytewise32_4KiB);
BENCHMARK(Fnv1aBytewise64_4KiB);
BENCHMARK(Hash32_4KiB);
BENCHMARK(Hash64_4KiB);

// Hashes 1024 short keys, each starting at a different (often unaligned)
// offset; the keys' hashes are independent, as in a hash table's lookups.
constexpr size_t keyCount = 1024;

template <typename T, size_t N, bool fixed>
void hashKeys(benchmark::State& state) {
    const auto bytes = randomBytes(keyCount * 3 + N);
    for (auto _ : state) {
        T sink = 0;
        for (size_t k = 0; k < keyCount; ++k) {
            Kelvo::Impl::HashMix<T> h;
            if constexpr (fixed) {
                h.template mixFixedLen<N>(bytes.data() + 3 * k);
            } else {
                h.mix(bytes.data() + 3 * k, N);
            }
            sink += h.value();
        }
        benchmark::DoNotOptimize(sink);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * keyCount);
}

template <size_t N>
void registerKeys() {
    const std::string n = std::to_string(N);
    benchmark::RegisterBenchmark(("Mix32_" + n).c_str(), hashKeys<uint32_t, N, false>);
    benchmark::RegisterBenchmark(("MixFixedLen32_" + n).c_str(), hashKeys<uint32_t, N, true>);
    benchmark::RegisterBenchmark(("Mix64_" + n).c_str(), hashKeys<uint64_t, N, false>);
    benchmark::RegisterBenchmark(("MixFixedLen64_" + n).c_str(), hashKeys<uint64_t, N, true>);
}

const bool registered = [] {
    registerKeys<1>();
    registerKeys<2>();
    registerKeys<4>();
    registerKeys<8>();
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
