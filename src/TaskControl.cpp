// Event controls served by tasks.
#include <Kelvo/TaskControlCpp.h>

#include <Kelvo/AllocatorCpp.h>

namespace Kelvo {
namespace Platform {

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
