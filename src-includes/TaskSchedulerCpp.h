// The task scheduler's flight recorder and blocking report stream.
//
// TaskSchedulerHistory is a fixed-capacity ring of the newest scheduler events
// (front = newest, back = oldest). Recording on a full ring overwrites the
// oldest event in place and allocates nothing. The history also owns the
// ConstStringCache in which every name under one root scheduler is interned;
// the cache is declared before the ring, so events (which hold names) go
// first. Thread: the root scheduler's thread only. Owned through the
// std::shared_ptr its root creates; every scheduler under the root shares it.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>

#include <boost/circular_buffer.hpp>
#include <boost/iostreams/device/file_descriptor.hpp>
#include <boost/iostreams/stream_buffer.hpp>

#include "ConstStringCache.h"
#include "KelvoBase.h"

namespace Kelvo {

class _TaskBase;
class TaskScheduler;

// Scheduler times: steady-clock points and signed 64-bit nanoseconds.
using TaskTimePoint = std::chrono::steady_clock::time_point;
using TaskTimeDuration = std::chrono::nanoseconds;

// Values 0 to 14 are about one task, 15 to 23 about a scheduler.
enum class TaskSchedulerEventType : uint8_t {
    schedule = 0,
    unschedule = 1,
    runStart = 2,
    runEnd = 3,
    timerStart = 4,
    timerStop = 5,
    suspendOn = 6,
    suspendOff = 7,
    scheduleSus = 8,
    frcYieldOn = 9,
    frcYieldOff = 10,
    idle = 11,
    busy = 12,
    create = 13,
    del = 14,
    schedulerIdle = 15,
    schedulerRunnable = 16,
    schedulerSuspended = 17,
    schedulerUnsuspended = 18,
    schedulerRunIgnoredWhileSuspended = 19,
    schedulerVirtualTimeOn = 20,
    schedulerVirtualTimeOff = 21,
    schedulerTestYieldRatioOn = 22,
    schedulerTestYieldRatioOff = 23,
};

// The display text ("schedule", "run start", ...); asserts on a value above 23.
KELVO_EXPORT const char* taskSchedulerEventTypeDisplay(TaskSchedulerEventType type);

class KELVO_EXPORT TaskSchedulerHistory {
  public:
    struct KELVO_EXPORT Event {
        TaskSchedulerEventType eventType;
        TaskTimePoint time;
        // The task's history name or the scheduler's name.
        ConstStringRef name;

        const char* eventTypeDisplay() const { return taskSchedulerEventTypeDisplay(eventType); }
        // The display text padded to 12 characters, a blank, the name.
        String display() const;
    };
    using Ring = boost::circular_buffer<Event>;

    // Capacity 0 records nothing.
    explicit TaskSchedulerHistory(unsigned capacity);
    TaskSchedulerHistory(const TaskSchedulerHistory&) = delete;
    TaskSchedulerHistory& operator=(const TaskSchedulerHistory&) = delete;

    // Records an event about a task (types 0 to 14) or a scheduler (15 to 23).
    void insert(const TaskTimePoint& when, TaskSchedulerEventType type, const _TaskBase* task);
    void insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                const TaskScheduler* scheduler);
    // Records an event about whatever name names; the kind checks are the caller's.
    void insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                const ConstStringRef& name) {
        events_.push_front(Event{type, when, name});
    }

    unsigned capacity() const noexcept { return static_cast<unsigned>(events_.capacity()); }
    size_t size() const noexcept { return events_.size(); }
    // A new ring of capacity n keeps the min(size, n) newest events.
    void capacityIs(unsigned n);
    void clear() noexcept { events_.clear(); }
    // Newest first.
    const Ring& events() const noexcept { return events_; }

    // The text dump: a header, a rule, one line per event from the newest,
    // each flushed, and an empty line.
    void renderText(std::ostream& out) const;

    ConstStringCache& stringCache() noexcept { return stringCache_; }

  private:
    ConstStringCache stringCache_;
    Ring events_;
};

// A std::ostream writing to a descriptor through a 4096-byte buffer. The
// descriptor must be blocking (a non-blocking one fails an assertion); it is
// closed with the stream only when closeFd is true. Thread: its user's.
class KELVO_EXPORT FdToStream : public std::ostream {
  public:
    static constexpr size_t bufferSize = 4096;

    FdToStream(int fd, bool closeFd);
    ~FdToStream() override;

  private:
    boost::iostreams::stream_buffer<boost::iostreams::file_descriptor_sink> buffer_;
};

}  // namespace Kelvo
