// Hierarchical timing wheel: entries keyed by an integer tick, O(1) add and
// delete, expiry by cascading entries down the levels as the wheel's current
// tick advances. It reads no clock: the owner advances it with
// timeouts_update(). A wheel and the entries scheduled on it are used by one
// thread at a time; the caller owns both the wheel (timeouts_open/close) and
// every entry (the wheel only links entries, it never allocates or frees them).
#pragma once

#include <stdint.h>
#include <sys/queue.h>

#include "KelvoBase.h"

typedef uint64_t timeout_t;

// The wheel's own bits of timeout::flags; every other bit belongs to the user
// and is never changed by the wheel.
#define TIMEOUT_INT 1  // periodic: timeouts_get() re-arms it one interval later
#define TIMEOUT_ABS 2  // the value given to timeouts_add() is an absolute tick

TAILQ_HEAD(timeout_list, timeout);

struct timeout {
    int flags;
    timeout_t expires;             // absolute tick at which it is due
    timeout_t interval;            // period of a TIMEOUT_INT entry
    struct timeout_list* pending;  // list it is on (a slot or the expired list), NULL if none
    TAILQ_ENTRY(timeout) tqe;
};

struct timeouts;

extern "C" {

// Clears the entry and sets its flags; the entry is unscheduled afterwards.
KELVO_EXPORT struct timeout* timeout_init(struct timeout* to, int flags);

// A new wheel at tick 0; hz (ticks per second) must not be 0, though the
// wheel itself only counts ticks.
// On failure returns NULL and stores an errno value in *error (if error is not
// NULL): EINVAL for hz == 0, ENOMEM. Stores 0 on success.
KELVO_EXPORT struct timeouts* timeouts_open(timeout_t hz, int* error);
// Unschedules every entry still on the wheel (pending = NULL) and frees it.
KELVO_EXPORT void timeouts_close(struct timeouts* T);
// The wheel's current tick.
KELVO_EXPORT timeout_t timeouts_now(struct timeouts* T);

// Advances the current tick to abstime; every entry due at or before it moves
// to the expired list. A tick earlier than the current one is ignored.
KELVO_EXPORT void timeouts_update(struct timeouts* T, timeout_t abstime);

// Schedules the entry at current tick + timeout, or at tick `timeout` when the
// entry has TIMEOUT_ABS (sums past the largest tick saturate). An entry
// already scheduled is removed first; one due at or before the current tick
// goes straight to the expired list. A TIMEOUT_INT entry takes as its interval
// the distance from the current tick to its first expiry (at least 1).
KELVO_EXPORT void timeouts_add(struct timeouts* T, struct timeout* to, timeout_t timeout);
// Unschedules the entry; a no-op when it is not scheduled.
KELVO_EXPORT void timeouts_del(struct timeouts* T, struct timeout* to);

// Takes the next expired entry, or NULL. A returned one-shot entry is unlinked
// (pending == NULL) and never touched again by the wheel. A returned
// TIMEOUT_INT entry is already re-armed at expires + interval; when the wheel
// has jumped past that too, at the first multiple of the interval after the
// current tick, so missed periods are reported once rather than replayed.
KELVO_EXPORT struct timeout* timeouts_get(struct timeouts* T);
// Whether expired entries wait to be taken.
KELVO_EXPORT bool timeouts_expired(struct timeouts* T);
// Whether any entry is scheduled and not yet expired.
KELVO_EXPORT bool timeouts_pending(struct timeouts* T);
// Ticks from the current tick until the wheel must next be updated: 0 when
// expired entries wait, ~timeout_t(0) when nothing is pending, otherwise a
// lower bound of the distance to the earliest expiry, exact when that expiry
// lies in the same block of 64 ticks as the current tick.
KELVO_EXPORT timeout_t timeouts_timeout(struct timeouts* T);

}  // extern "C"
