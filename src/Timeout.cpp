#include <Kelvo/FmtraceCpp.h>
#include <Kelvo/Timeout.h>

#include <errno.h>

#include <functional>
#include <new>

// A tick is read as kLevels digits of kSlotBits bits; level L is indexed by
// digit L. The wheel's invariants, with `now` its current tick:
//  1. An entry on level L, slot s, agrees with `now` on every digit above L
//     and has s == digit(expires, L) > digit(now, L). So L is the highest
//     digit in which expires and now differ, and every entry of level L is due
//     before any entry of level L + 1: the lowest occupied level holds the
//     earliest expiry.
//  2. Bit s of occupied[L] is set iff slot (L, s) is non-empty.
//  3. Entries due at or before `now` are on the expired list and nowhere else.
// Advancing `now` only disturbs the slots whose digit it passes (or reaches),
// so an update touches those slots and their entries and nothing else; each
// entry moves down at least one level per move, at most kLevels times in all.

namespace {

constexpr int kSlotBits = 6;
constexpr int kSlots = 1 << kSlotBits;
constexpr int kLevels = (64 + kSlotBits - 1) / kSlotBits;
constexpr timeout_t kNever = ~timeout_t(0);

inline unsigned digit(timeout_t t, int level) {
    return static_cast<unsigned>(t >> (level * kSlotBits)) & (kSlots - 1);
}

// The ticks below level `level + 1`, i.e. the digits 0..level.
inline timeout_t lowDigits(int level) {
    int bits = (level + 1) * kSlotBits;
    return bits >= 64 ? kNever : (timeout_t(1) << bits) - 1;
}

inline timeout_t saturatingAdd(timeout_t a, timeout_t b) {
    timeout_t sum;
    return __builtin_add_overflow(a, b, &sum) ? kNever : sum;
}

}  // namespace

struct timeouts {
    timeout_list slot[kLevels * kSlots];  // level-major: slot[level * kSlots + digit]
    uint64_t occupied[kLevels];
    timeout_list expired;
    timeout_t now;
};

namespace {

void link(timeouts* T, timeout* to) {
    timeout_list* list;
    if (to->expires <= T->now) {
        list = &T->expired;
    } else {
        int level = (63 - __builtin_clzll(to->expires ^ T->now)) / kSlotBits;
        unsigned s = digit(to->expires, level);
        list = &T->slot[level * kSlots + s];
        T->occupied[level] |= uint64_t(1) << s;
    }
    TAILQ_INSERT_TAIL(list, to, tqe);
    to->pending = list;
}

void unlink(timeouts* T, timeout* to) {
    timeout_list* list = to->pending;
    // std::less: a plain < gives no order between pointers into different objects.
    std::less<const timeout_list*> before;
    bool inSlot = !before(list, T->slot) && before(list, T->slot + kLevels * kSlots);
    KELVO_ASSERT(inSlot || list == &T->expired, "timeout {} is scheduled on another wheel",
                 static_cast<void*>(to));
    TAILQ_REMOVE(list, to, tqe);
    to->pending = nullptr;
    if (inSlot && TAILQ_EMPTY(list)) {
        auto index = list - T->slot;
        T->occupied[index / kSlots] &= ~(uint64_t(1) << (index % kSlots));
    }
}

}  // namespace

extern "C" {

timeout* timeout_init(timeout* to, int flags) {
    *to = timeout{};
    to->flags = flags;
    return to;
}

timeouts* timeouts_open(timeout_t hz, int* error) {
    int err = 0;
    timeouts* T = nullptr;
    if (hz == 0) {
        err = EINVAL;
    } else if (!(T = new (std::nothrow) timeouts)) {
        err = ENOMEM;
    } else {
        for (auto& list : T->slot) {
            TAILQ_INIT(&list);
        }
        TAILQ_INIT(&T->expired);
        for (auto& bits : T->occupied) {
            bits = 0;
        }
        T->now = 0;
    }
    if (error) {
        *error = err;
    }
    return T;
}

void timeouts_close(timeouts* T) {
    if (!T) {
        return;
    }
    // Entries outlive the wheel: leave none pointing into freed memory.
    auto release = [](timeout_list* list) {
        for (timeout* to = TAILQ_FIRST(list); to; to = TAILQ_NEXT(to, tqe)) {
            to->pending = nullptr;
        }
    };
    for (int level = 0; level < kLevels; ++level) {
        for (uint64_t bits = T->occupied[level]; bits; bits &= bits - 1) {
            release(&T->slot[level * kSlots + __builtin_ctzll(bits)]);
        }
    }
    release(&T->expired);
    delete T;
}

timeout_t timeouts_now(timeouts* T) {
    return T->now;
}

void timeouts_update(timeouts* T, timeout_t abstime) {
    if (abstime <= T->now) {
        return;
    }
    timeout_list moved;
    TAILQ_INIT(&moved);
    // Once now and abstime agree from digit L up, no slot of level L or above
    // is reached (invariant 1), so the walk stops there.
    for (int level = 0;
         level < kLevels && (T->now >> (level * kSlotBits)) != (abstime >> (level * kSlotBits));
         ++level) {
        uint64_t due, cascade = 0;
        if ((T->now & ~lowDigits(level)) != (abstime & ~lowDigits(level))) {
            // abstime is in a later round of this level: all its entries are due.
            due = ~uint64_t(0);
        } else {
            // Slots digit(now)+1 .. digit(abstime)-1 are due as a whole; the
            // entries of slot digit(abstime) are due or move to a lower level.
            unsigned from = digit(T->now, level), to = digit(abstime, level);
            due = ((uint64_t(1) << to) - 1) & ~((uint64_t(2) << from) - 1);
            cascade = uint64_t(1) << to;
        }
        due &= T->occupied[level];
        cascade &= T->occupied[level];
        T->occupied[level] &= ~(due | cascade);
        for (; due; due &= due - 1) {
            timeout_list* list = &T->slot[level * kSlots + __builtin_ctzll(due)];
            for (timeout* to = TAILQ_FIRST(list); to; to = TAILQ_NEXT(to, tqe)) {
                to->pending = &T->expired;
            }
            TAILQ_CONCAT(&T->expired, list, tqe);
        }
        if (cascade) {
            TAILQ_CONCAT(&moved, &T->slot[level * kSlots + __builtin_ctzll(cascade)], tqe);
        }
    }
    T->now = abstime;
    while (timeout* to = TAILQ_FIRST(&moved)) {
        TAILQ_REMOVE(&moved, to, tqe);
        link(T, to);
    }
}

void timeouts_add(timeouts* T, timeout* to, timeout_t timeout) {
    if (to->pending) {
        unlink(T, to);
    }
    to->expires = (to->flags & TIMEOUT_ABS) ? timeout : saturatingAdd(T->now, timeout);
    if (to->flags & TIMEOUT_INT) {
        to->interval = to->expires > T->now ? to->expires - T->now : 1;
    }
    link(T, to);
}

void timeouts_del(timeouts* T, timeout* to) {
    if (to->pending) {
        unlink(T, to);
    }
}

timeout* timeouts_get(timeouts* T) {
    timeout* to = TAILQ_FIRST(&T->expired);
    if (!to) {
        return nullptr;
    }
    unlink(T, to);
    if ((to->flags & TIMEOUT_INT) && to->interval) {
        // The first period after now; one past the largest tick cannot be
        // served and leaves the entry idle. caughtUp <= now, so only the
        // last addition can overflow.
        timeout_t caughtUp = to->expires + (T->now - to->expires) / to->interval * to->interval;
        timeout_t next;
        if (!__builtin_add_overflow(caughtUp, to->interval, &next)) {
            to->expires = next;
            link(T, to);
        }
    }
    return to;
}

bool timeouts_expired(timeouts* T) {
    return !TAILQ_EMPTY(&T->expired);
}

bool timeouts_pending(timeouts* T) {
    uint64_t any = 0;
    for (uint64_t bits : T->occupied) {
        any |= bits;
    }
    return any != 0;
}

timeout_t timeouts_timeout(timeouts* T) {
    if (!TAILQ_EMPTY(&T->expired)) {
        return 0;
    }
    for (int level = 0; level < kLevels; ++level) {
        if (uint64_t bits = T->occupied[level]) {
            // The first tick of the lowest occupied slot: exact on level 0,
            // the slot's cascade tick above it (invariant 1).
            timeout_t start = (T->now & ~lowDigits(level)) |
                              (timeout_t(__builtin_ctzll(bits)) << (level * kSlotBits));
            return start - T->now;
        }
    }
    return kNever;
}

}  // extern "C"
