#include "TestSupport.h"

using namespace KelvoTest;

namespace {

constexpr timeout_t kNever = ~timeout_t(0);

// The wheel against a brute-force model: after every operation the same
// entries are expired, none early, late, lost or twice, and timeouts_timeout()
// is never later than the earliest pending expiry; closing the wheel unlinks
// whatever is left.
void expiresLikeBruteForce(unsigned seed, int steps, int delayBits, int jumpBits, timeout_t start,
                           int intervalPercent, int entries) {
    struct Entry {
        timeout to{};  // first, so a returned timeout* is its Entry*
        int flags = 0;
        bool scheduled = false;
        timeout_t expires = 0, interval = 0;
    };
    std::mt19937_64 rng(seed);
    auto below = [&](int n) { return int(rng() % unsigned(n)); };
    auto anyBelowBits = [&](int maxBits) {  // often next to a digit boundary of the wheel
        int bits = below(maxBits + 1);
        timeout_t v = bits == 0 ? 0 : below(2) ? rng() >> (64 - bits) : timeout_t(1) << (bits - 1);
        return v + (v && below(2) ? below(3) - 1 : 0);
    };
    timeouts* T = timeouts_open(100, nullptr);
    timeout_t now = start;
    timeouts_update(T, now);
    std::vector<Entry> model(entries);
    auto drain = [&] {
        std::vector<Entry*> got, want;
        while (timeout* to = timeouts_get(T)) {
            got.push_back(reinterpret_cast<Entry*>(to));
            ASSERT_LE(got.size(), model.size()) << "an entry is handed out again and again";
            ASSERT_EQ(to->flags, got.back()->flags) << "flag bits changed";
            ASSERT_TRUE((to->flags & TIMEOUT_INT) || !to->pending);
        }
        for (auto& e : model) {
            if (!e.scheduled || e.expires > now)
                continue;
            want.push_back(&e);
            timeout_t behind = (now - e.expires) % e.interval;
            e.scheduled = (e.flags & TIMEOUT_INT) && now - behind <= kNever - e.interval;
            e.expires = now - behind + e.interval;
        }
        std::sort(got.begin(), got.end());
        ASSERT_EQ(got, want) << "at tick " << now;
    };
    for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); ++step) {
        Entry& e = model[below(entries)];
        if (int op = below(10); op < 4) {
            if (!e.to.pending) {  // re-flag only unscheduled entries
                e.flags = (below(100) < intervalPercent ? TIMEOUT_INT : 0) |
                          (below(2) ? TIMEOUT_ABS : 0) | (int(rng()) & ~3);
                timeout_init(&e.to, e.flags);
            }
            timeout_t delay = anyBelowBits(delayBits);
            timeout_t later = now + std::min(delay, kNever - now);
            timeout_t value = !(e.flags & TIMEOUT_ABS) ? delay
                              : below(8)               ? later
                                                       : now - std::min(now, delay);
            timeouts_add(T, &e.to, value);
            e.scheduled = true;
            e.expires = (e.flags & TIMEOUT_ABS) ? value : later;
            e.interval = e.expires > now ? e.expires - now : 1;
        } else if (op < 6) {
            timeouts_del(T, &e.to);
            ASSERT_EQ(e.to.pending, nullptr);
            e.scheduled = false;
        } else {
            now += std::min(below(4) ? anyBelowBits(jumpBits) : 0, kNever - now);
            timeouts_update(T, now);
            if (below(5))  // otherwise expired entries wait, to be deleted or re-added
                drain();
        }
        bool expired = false;
        timeout_t earliest = kNever;
        for (auto& m : model) {
            expired |= m.scheduled && m.expires <= now;
            earliest =
                m.scheduled && m.expires > now ? std::min(earliest, m.expires - now) : earliest;
        }
        ASSERT_EQ(timeouts_expired(T), expired) << "step " << step;
        ASSERT_EQ(timeouts_pending(T), earliest != kNever) << "step " << step;
        timeout_t next = timeouts_timeout(T);
        if (expired || earliest == kNever || (now | 63) >= now + earliest)  // exact
            ASSERT_EQ(next, expired ? 0 : earliest) << "step " << step;
        else
            ASSERT_TRUE(next >= 1 && next <= earliest) << "step " << step;
    }
    timeouts_close(T);
    for (auto& e : model)
        EXPECT_EQ(e.to.pending, nullptr);
}

TEST(Timeout, ExpiresExactlyLikeBruteForce) {
    // seed, steps, delay and jump bits (both are below 2^bits, log-uniform),
    // start tick, % intervals, entries
    const std::tuple<unsigned, int, int, int, timeout_t, int, int> scenarios[] = {
        {1, 40000, 13, 7, 0, 10, 256},                        // low levels only
        {2, 40000, 63, 12, 0, 10, 256},                       // all levels, small steps
        {3, 40000, 63, 41, 0, 10, 256},                       // all levels, huge jumps
        {4, 20000, 63, 62, kNever - (kNever >> 2), 30, 256},  // near the last tick
        {5, 40000, 20, 24, 12345, 80, 256},                   // mostly intervals
        {6, 40000, 40, 30, 0, 20, 3},                         // few entries
    };
    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(::testing::Message() << "seed " << std::get<0>(scenario));
        std::apply(expiresLikeBruteForce, scenario);
    }
}

TEST(Timeout, EntryOfAnotherWheelIsRefused) {
    timeouts *a = timeouts_open(100, nullptr), *b = timeouts_open(100, nullptr);
    timeout to;
    timeouts_add(a, timeout_init(&to, 0), 10);
    EXPECT_THROW(timeouts_del(b, &to), Kelvo::AssertException);
    EXPECT_TRUE(timeouts_pending(a));
    timeouts_close(a);
    timeouts_close(b);
}

}  // namespace
