// The scheduler history ring, its text dump, and the blocking descriptor stream.
#include <Kelvo/TaskSchedulerCpp.h>

#include <fcntl.h>

#include <algorithm>

#include "DebugImpl.h"
#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

// Made at load so that TRACE applies to it before any scheduler exists.
const Platform::DebugHandler* const Impl::schedulerTraceHandle =
    Impl::debugHandlerForLife("KelvoTaskScheduler");

const char* taskSchedulerEventTypeDisplay(TaskSchedulerEventType type) {
    static constexpr const char* displays[] = {
        "schedule",
        "unschedule",
        "run start",
        "run end",
        "timerStart",
        "timerStop",
        "suspendOn",
        "suspendOff",
        "scheduleSus",
        "frcYieldOn",
        "frcYieldOff",
        "idle",
        "busy",
        "create",
        "delete",
        "schedulerIdle",
        "schedulerRunnable",
        "schedulerSuspended",
        "schedulerUnsuspended",
        "schedulerRunIgnoredWhileSuspended",
        "schedulerVirtualTimeOn",
        "schedulerVirtualTimeOff",
        "schedulerTestYieldRatioOn",
        "schedulerTestYieldRatioOff",
    };
    const unsigned value = static_cast<unsigned>(type);
    KELVO_SCHED_ASSERT(value < std::size(displays), "unexpected eventType {}", value);
    return displays[value];
}

String TaskSchedulerHistory::Event::display() const {
    return fmt::format("{:<12} {}", eventTypeDisplay(), name.str());
}

TaskSchedulerHistory::TaskSchedulerHistory(unsigned capacity) : events_(capacity) {}

void TaskSchedulerHistory::insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                                  const _TaskBase* task) {
    KELVO_SCHED_ASSERTM(type <= TaskSchedulerEventType::del, "unexpected eventType={}",
                        static_cast<unsigned>(type));
    insert(when, type, task->taskHistoryName());
}

void TaskSchedulerHistory::insert(const TaskTimePoint& when, TaskSchedulerEventType type,
                                  const TaskScheduler* scheduler) {
    KELVO_SCHED_ASSERTM(type >= TaskSchedulerEventType::schedulerIdle, "EventType: {}",
                        static_cast<unsigned>(type));
    insert(when, type, scheduler->nameRef());
}

void TaskSchedulerHistory::capacityIs(unsigned n) {
    if (n == capacity()) {
        return;
    }
    Ring kept(n);
    kept.size_ = std::min<size_t>(events_.size_, n);
    for (size_t i = 0; i < kept.size_; ++i) {
        const size_t slot = (events_.front_ + i) % events_.capacity();
        kept.slots_[i] = std::move(events_.slots_[slot]);
    }
    // The older events go with the old slots.
    events_ = std::move(kept);
}

void TaskSchedulerHistory::clear() noexcept {
    for (Event& event : events_.slots_) {
        event.name.release();
    }
    events_.front_ = events_.size_ = 0;
}

void TaskSchedulerHistory::renderText(std::ostream& out) const {
    const String header = fmt::format("Last {} scheduler events, absolute timestamp and{}",
                                      capacity(), " relative to last event");
    out << header << '\n' << String(header.size(), '-') << '\n';
    if (!events_.empty()) {
        const TaskTimePoint newest = events_.front().time;
        for (const Event& event : events_) {
            out << fmt::format("{:>22} ns since boot {:>10} \u00b5s {}\n",
                               event.time.time_since_epoch().count(),
                               (newest - event.time).count() / 1000, event.display())
                << std::flush;
        }
    }
    out << '\n';
}

FdToStream::FdToStream(int fd, bool closeFd)
    : std::ostream(nullptr),
      buffer_(
          boost::iostreams::file_descriptor_sink(
              fd, closeFd ? boost::iostreams::close_handle : boost::iostreams::never_close_handle),
          bufferSize) {
    rdbuf(&buffer_);
    const int flags = ::fcntl(fd, F_GETFL);
    KELVO_SCHED_ASSERTM(flags == -1 || !(flags & O_NONBLOCK),
                        "FileDescriptor {} flags 0x{:x} is non-blocking, not supported", fd, flags);
}

FdToStream::~FdToStream() {
    try {
        flush();
    } catch (...) {
        // A stream that cannot flush at destruction loses its tail, as a
        // closed std::ofstream would.
    }
}

}  // namespace Kelvo
