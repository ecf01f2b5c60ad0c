// The asynchronous JSON report writer: a render task and its write task.
//
// Invariants:
//  1. writeInProgress_ is set from a hand-over until the write task reports
//     its buffer written; the render task is scheduled only by that report
//     (and once at the start), so it never runs during a write.
//  2. The write task's offset is below its buffer's size exactly while a
//     write is in progress; the buffer is never empty, since every piece
//     holds at least one JSON token.
//  3. The render task is in its scheduler's set from the start until its
//     last run, which closes the descriptor, calls done and then removes it.
#include <Kelvo/TaskSchedulerCpp.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "TaskScheduler/TaskSchedulerImpl.h"

namespace Kelvo {

namespace {

constexpr const char* renderJsonStatsName = "TaskSchedulerRenderJson";
constexpr const char* writeSuffix = ":FdWrite";

}  // namespace

// ---------------------------------------------------------------------------
// Start

void TaskScheduler::snapshotRenderJsonAsync(int fd, SnapshotList snapshots,
                                            std::function<void()> done) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags != -1 && !(flags & O_NONBLOCK)) {
        ::fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    }
    sanityCheckCurrentRunningThread();
    auto task =
        allocateShared<SnapshotRenderJsonTask>(shared_from_this(), fd, std::move(snapshots));
    task->done_ = std::move(done);
    task->cleanup_ = [this](SnapshotRenderJsonTask* finished) {
        // A non-owning key: equal to the owning entry, costs no count.
        snapshotRenderTasks_.erase(
            std::shared_ptr<SnapshotRenderJsonTask>(std::shared_ptr<void>(), finished));
    };
    snapshotRenderTasks_.insert(task);
    task->scheduleTask();
}

void TaskScheduler::snapshotRenderJsonAsync(int fd, SnapshotList snapshots) {
    snapshotRenderJsonAsync(fd, std::move(snapshots), [] {});
}

void TaskScheduler::snapshotRenderJsonAsync(int fd,
                                            std::shared_ptr<const TaskSchedulerSnapshot> snapshot) {
    snapshotRenderJsonAsync(fd, SnapshotList{std::move(snapshot)}, [] {});
}

// ---------------------------------------------------------------------------
// Rendering

TaskScheduler::SnapshotRenderJsonTask::SnapshotRenderJsonTask(
    std::shared_ptr<TaskScheduler> scheduler, int fd, SnapshotList snapshots)
    : Task(scheduler, TaskPriority::normal, makeJsonTaskName(fd, nullptr)),
      fd_(fd),
      snapshots_(std::move(snapshots)),
      printContext_(TaskScheduler::PrintContextIs(ostr_)),
      writeTask_(allocateShared<SnapshotWriteJsonTask>(std::move(scheduler), fd, this)) {
    taskStatsNameIs(renderJsonStatsName);
    writeTask_->writeComplete_ = [this] { writeComplete(); };
}

TaskScheduler::SnapshotRenderJsonTask::~SnapshotRenderJsonTask() = default;

void TaskScheduler::SnapshotRenderJsonTask::taskExecute() {
    KELVO_SCHED_ASSERTM(!writeInProgress_, "Executing before previous write completed.");
    if (nextIndex_ < snapshots_.size()) {
        snapshots_[nextIndex_++]->renderJson(*printContext_);
        writeOstrToFileDescriptor();
        taskWorkCountInc(1);
        taskWorkPendingIs(static_cast<unsigned>(snapshots_.size() - nextIndex_));
        return;
    }
    taskWorkPendingIs(0);
    if (!finished_) {
        printContext_->closeJson();
        writeOstrToFileDescriptor();
        SnapshotList().swap(snapshots_);
        finished_ = true;
        return;
    }
    writeTask_->taskWatchFdDel();
    writeTask_.reset();
    ::close(fd_);
    done_();
    // Drops the scheduler's share: the run loop's own share keeps this task
    // alive to the end of the run.
    cleanup_(this);
}

void TaskScheduler::SnapshotRenderJsonTask::writeOstrToFileDescriptor() {
    writeInProgress_ = true;
    String text = std::move(ostr_).str();
    SnapshotWriteJsonTask& writer = *writeTask_;
    writer.assertWriteComplete();
    writer.buffer_.swap(text);
    writer.offset_ = 0;
    KELVO_TRACEM(Impl::schedulerTrace(), 3, "Request write to fd {} of {} bytes", fd_,
                 writer.buffer_.size());
    writer.taskWatchWritableIs(true);
    // The written-out buffer becomes the stream's storage, so the pieces
    // after the first two allocate nothing.
    text.clear();
    ostr_.str(std::move(text));
    ostr_.clear();
}

void TaskScheduler::SnapshotRenderJsonTask::writeComplete() {
    KELVO_SCHED_ASSERTM(writeInProgress_, "Notified about an unexpected write complete");
    writeInProgress_ = false;
    scheduleTask();
}

// ---------------------------------------------------------------------------
// Writing

TaskScheduler::SnapshotWriteJsonTask::SnapshotWriteJsonTask(
    std::shared_ptr<TaskScheduler> scheduler, int fd, SnapshotRenderJsonTask* renderTask,
    TaskPriority priority)
    : FileDescriptorTask(std::move(scheduler), priority, makeJsonTaskName(fd, writeSuffix)),
      renderTask_(renderTask),
      socket_([fd] {
          struct stat st;
          return ::fstat(fd, &st) == 0 && S_ISSOCK(st.st_mode);
      }()) {
    taskStatsNameIs(fmt::format("{}{}", renderJsonStatsName, writeSuffix));
    taskWatchReadableIs(false);
    taskWatchFdIs(fd);
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteReadable() {
    KELVO_SCHED_ASSERTM(false, "We never register for readable events");
}

void TaskScheduler::SnapshotWriteJsonTask::writeBufferIs(String buffer,
                                                         std::function<void()> complete) {
    KELVO_SCHED_ASSERTM(!buffer.empty(), "Nothing to write");
    assertWriteComplete();
    buffer_ = std::move(buffer);
    offset_ = 0;
    writeComplete_ = std::move(complete);
    taskWatchWritableIs(true);
}

void TaskScheduler::SnapshotWriteJsonTask::assertWriteComplete() const {
    KELVO_SCHED_ASSERTM(offset_ == buffer_.size(),
                        "Previous write not complete, at offset {} of {}", offset_, buffer_.size());
}

void TaskScheduler::SnapshotWriteJsonTask::taskExecuteWritable() {
    const int fd = taskWatchFd();
    const size_t size = buffer_.size();
    const auto& trace = Impl::schedulerTrace();
    do {
        KELVO_SCHED_ASSERTM(offset_ < size, "invalid offset {} size {}", offset_, size);
        const uint32_t remaining = static_cast<uint32_t>(size - offset_);
        const ssize_t written = socket_
                                    ? ::send(fd, buffer_.data() + offset_, remaining, MSG_NOSIGNAL)
                                    : ::write(fd, buffer_.data() + offset_, remaining);
        if (written < 0) {
            const int error = errno;
            if (error == EAGAIN || error == EINTR) {
                taskWorkPendingWritableIs(remaining);
                KELVO_TRACEM(trace, 3, "Writing to fd {} at offset {} of {} got {}", fd, offset_,
                             size, std::strerror(error));
                if (error == EAGAIN) {
                    taskWatchWritableIs(true);
                } else {
                    scheduleTaskWritable();
                }
                return;
            }
            KELVO_SCHED_ASSERTM(error == EBADF || error == EPIPE || error == ECONNRESET,
                                "Write to fd {} failed {}({})", fd, std::strerror(error), error);
            // The reader went away: the rest of this piece is dropped.
            KELVO_TRACEM(trace, 2, "Writing to fd {} at offset {} of {} failed {}", fd, offset_,
                         size, std::strerror(error));
            taskWorkPendingWritableIs(0);
            offset_ = static_cast<uint32_t>(size);
            break;
        }
        // A run that has just written the last byte completes instead of
        // yielding: a yield would leave a run with nothing to write.
        const bool yielding = static_cast<uint32_t>(written) < remaining && taskShouldYield();
        KELVO_TRACEM(trace, 3,
                     "Writing to fd {} at offset {} of {} wrote {} bytes of {} remaining{}", fd,
                     offset_, size, written, remaining, yielding ? " yielding" : "");
        offset_ += static_cast<uint32_t>(written);
        taskWorkCountWritableInc(static_cast<unsigned long>(written));
        if (yielding) {
            taskWorkPendingWritableIs(static_cast<unsigned>(size - offset_));
            scheduleTaskWritable();
            return;
        }
    } while (offset_ < size);
    KELVO_TRACEM(trace, 3, "Completed writing to fd {}", fd);
    assertWriteComplete();
    taskWorkPendingWritableIs(0);
    writeComplete_();
}

}  // namespace Kelvo
