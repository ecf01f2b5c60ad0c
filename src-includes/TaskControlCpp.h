// Task-backed event controls: the TimerControl, CallbackControl and FdControl
// interfaces served by tasks of a chosen scheduler instead of straight from
// the event loop, so that a handler written against those interfaces can be
// moved under a scheduler unchanged. Its events then run as tasks of the
// given priority, take turns with the other tasks and appear in the
// scheduler's statistics and history under the given name.
//
// Each control is a task and a control in one object, allocated in one block
// by the counting allocator and owned by the std::shared_ptr its factory
// returns; dropping the last one destroys the task, which unschedules and
// unregisters it. The control keeps a plain pointer to its handler, which
// must outlive it. Thread: the scheduler's thread only, as for every task.
//
// Exceptions: the timer and callback controls call their handler without a
// guard, so an exception leaves the task run and the scheduler run, and
// handleTimeoutException() and handleCallbackException() are never consulted.
// The descriptor control alone offers its handler's exception to
// handleFdException(fd).
#pragma once

#include <memory>

#include "KelvoBase.h"
#include "PlatformCpp.h"
#include "Task.h"

namespace Kelvo {

class TaskScheduler;

namespace Platform {

// ---------------------------------------------------------------------------
// Timer control

// setTimeout() is scheduleTaskDelay() (+infinity stops), delTimeout() is
// stopTimerTask(), remainingTimeout() is timerRemaining(): +infinity once
// the timer has fired, even while the task waits on its run queue.
class KELVO_EXPORT TaskTimerControl : public TimerTask, public TimerControl {
  public:
    TaskTimerControl(TimeoutHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                     TaskPriority priority, const String& name);

    void setTimeout(double seconds) override { scheduleTaskDelay(seconds); }
    void delTimeout() override { stopTimerTask(); }
    double remainingTimeout() const override { return timerRemaining(); }
    void taskExecute() override { handler_->timeout(); }

  private:
    TimeoutHandler* handler_;
};

// A timer control whose timeouts run as a task of scheduler.
KELVO_EXPORT std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                                           std::shared_ptr<TaskScheduler> scheduler,
                                                           TaskPriority priority, String name);

// ---------------------------------------------------------------------------
// Callback control

// requestCallback() queues the task (a queued task stays as it is, so
// requests coalesce), cancelCallback() unqueues it, pendingCallback() is
// whether it is queued: false again once its run has begun.
class KELVO_EXPORT TaskCallbackControl : public Task, public CallbackControl {
  public:
    TaskCallbackControl(CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                        TaskPriority priority, const String& name);

    void requestCallback() override { scheduleTask(); }
    void cancelCallback() override { unscheduleTask(); }
    bool pendingCallback() const override { return taskScheduled(); }
    void taskExecute() override { handler_->callback(); }

  private:
    CallbackHandler* handler_;
};

// A callback control whose callbacks run as a task of scheduler.
KELVO_EXPORT std::shared_ptr<CallbackControl> getCallbackControl(
    CallbackHandler* handler, std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
    String name);
// ---------------------------------------------------------------------------
// Descriptor control

// Descriptor events as runs of a FileDescriptorTask: readFdEvent and
// writeFdEvent are called from the inner read and write tasks. Writability is
// one-shot, as on the event loop: a handler that wants another writeFdEvent
// calls setWrites(true) from inside writeFdEvent. An exception from either is
// offered to the handler's handleFdException(fd): true swallows it, false
// lets it out of the task run and so out of the scheduler run.
class KELVO_EXPORT TaskFdControl : public FileDescriptorTask, public FdControl {
  public:
    TaskFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                  TaskPriority priority, const String& name);

    void setReads(bool enabled) override { taskWatchReadableIs(enabled); }
    void setWrites(bool enabled) override { taskWatchWritableIs(enabled); }
    void setFd(int fd) override { taskWatchFdIs(fd); }
    void delFd() override { taskWatchFdDel(); }
    int getFd() const override { return taskWatchFd(); }
    // Forgets the descriptor too, as delFd() does.
    void clearEvents() override { taskWatchFdDel(); }

    void taskExecuteReadable() override;
    void taskExecuteWritable() override;

  private:
    void notify(void (FdEventHandler::*notification)(int));

    FdEventHandler* handler_;
};

// A descriptor control served by a task of scheduler, registered there at once.
KELVO_EXPORT std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                                     std::shared_ptr<TaskScheduler> scheduler,
                                                     TaskPriority priority, String name);

}  // namespace Platform
}  // namespace Kelvo
