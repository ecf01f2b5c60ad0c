// Event controls served by tasks: the timer, callback and descriptor control
// interfaces of PlatformCpp.h, each backed by a task of a chosen scheduler,
// priority and name, so that a handler written against those interfaces runs
// under a scheduler unchanged, takes turns with its other tasks and shows in
// its statistics and history.
//
// Each control is a task and a control in one object, allocated in one block
// through the counting allocator and handed out as a std::shared_ptr of the
// control interface. Thread: the scheduler's thread only. The handler is not
// owned and must outlive its control.
#pragma once

#include <memory>

#include "KelvoBase.h"
#include "PlatformCpp.h"
#include "Task.h"

namespace Kelvo {
namespace Platform {

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
