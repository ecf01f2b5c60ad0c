// Task-backed event controls: construction and factories. Each factory makes
// task and control one allocation of the counting allocator; the task
// registers with its scheduler as it is constructed.
#include <Kelvo/AllocatorCpp.h>
#include <Kelvo/TaskControlCpp.h>
#include <Kelvo/TaskSchedulerCpp.h>

#include <utility>

namespace Kelvo {
namespace Platform {

// ---------------------------------------------------------------------------
// Timer control

TaskTimerControl::TaskTimerControl(TimeoutHandler* handler,
                                   std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority,
                                   const String& name)
    : TimerTask(std::move(scheduler), priority, name), handler_(handler) {}

std::shared_ptr<TimerControl> getTimerControl(TimeoutHandler* handler,
                                              std::shared_ptr<TaskScheduler> scheduler,
                                              TaskPriority priority, String name) {
    return allocateShared<TaskTimerControl>(handler, std::move(scheduler), priority, name);
}

// ---------------------------------------------------------------------------
// Callback control

TaskCallbackControl::TaskCallbackControl(CallbackHandler* handler,
                                         std::shared_ptr<TaskScheduler> scheduler,
                                         TaskPriority priority, const String& name)
    : Task(std::move(scheduler), priority, name), handler_(handler) {}

std::shared_ptr<CallbackControl> getCallbackControl(CallbackHandler* handler,
                                                    std::shared_ptr<TaskScheduler> scheduler,
                                                    TaskPriority priority, String name) {
    return allocateShared<TaskCallbackControl>(handler, std::move(scheduler), priority, name);
}

// ---------------------------------------------------------------------------
// Descriptor control

TaskFdControl::TaskFdControl(FdEventHandler* handler, std::shared_ptr<TaskScheduler> scheduler,
                             TaskPriority priority, const String& name)
    : FileDescriptorTask(std::move(scheduler), priority, name), handler_(handler) {}

void TaskFdControl::notify(void (FdEventHandler::*notification)(int)) {
    try {
        (handler_->*notification)(getFd());
    } catch (...) {
        // Unlike the timer and callback controls, this one consults its
        // handler's hook, as the event loop's descriptor control does.
        if (!handler_->handleFdException(getFd())) {
            throw;
        }
    }
}

void TaskFdControl::taskExecuteReadable() {
    notify(&FdEventHandler::readFdEvent);
}

void TaskFdControl::taskExecuteWritable() {
    notify(&FdEventHandler::writeFdEvent);
}

std::shared_ptr<FdControl> getFdControl(FdEventHandler* handler,
                                        std::shared_ptr<TaskScheduler> scheduler,
                                        TaskPriority priority, String name) {
    return allocateShared<TaskFdControl>(handler, std::move(scheduler), priority, name);
}

}  // namespace Platform
}  // namespace Kelvo
