// Queues of background tasks: iBackgroundTaskQueue, what a front end and the code that
// makes tasks see of a queue; BackgroundTaskQueueBase, a queue with worker threads that
// run the tasks in the order they were queued; and UIBackgroundTasksQueue, the process's
// queue for the tasks a person starts (downloads, relocations), ended at shutdown.
#pragma once

#include "host/core/RefCount.h"
#include "host/tasks/BackgroundTask.h"
#include "host/threads/BasicThread.h"
#include "host/threads/Shutdown.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

class iBackgroundTaskQueue {
public:
    virtual ~iBackgroundTaskQueue() = default;
    // Adds a task at the end of the queue. A task is queued once in its life: false when
    // it is on a queue already, has ended, or the queue has ended (the task is then
    // ended as cancelled, so that waiting for it returns).
    virtual bool queue(const Zn::Ptr<iBackgroundTask>& task) = 0;
    // Cancels a task of this queue: a waiting one is taken out and ended with status 3
    // without running; a running one gets status 3 and stops when it next looks. False
    // when the task is not waiting or running here.
    virtual bool cancel(const Zn::Ptr<iBackgroundTask>& task) = 0;
    // The tasks running, then those waiting in queue order.
    virtual std::vector<Zn::Ptr<iBackgroundTask>> getTasks() const = 0;
};

// Workers take the task at the head of the queue, so tasks start in queue order; with
// one worker they also run one after another.
//
// mutex_ guards waiting_, running_, busy_, ended_ and workers_. It is held only to change or copy
// those, never while a task runs, is ended or asked to cancel, nor while a worker is
// started or joined; no other lock is taken under it, so any lock may be held by callers.
// endQueue must not be called from a task of the queue itself.
class BackgroundTaskQueueBase : public iBackgroundTaskQueue {
public:
    explicit BackgroundTaskQueueBase(const char* threadName, unsigned workers = 1,
                                     int priority = kPriorityBelowNormal);
    ~BackgroundTaskQueueBase() override;
    BackgroundTaskQueueBase(const BackgroundTaskQueueBase&) = delete;
    BackgroundTaskQueueBase& operator=(const BackgroundTaskQueueBase&) = delete;

    bool queue(const Zn::Ptr<iBackgroundTask>& task) override;
    bool cancel(const Zn::Ptr<iBackgroundTask>& task) override;
    std::vector<Zn::Ptr<iBackgroundTask>> getTasks() const override;

    // Waits until no task waits or runs; false when timeoutMs passed first.
    bool waitForIdle(unsigned timeoutMs = iThreadEvent::kInfinite) const;
    unsigned workerCount() const noexcept { return unsigned(workers_.size()); }
    bool hasEnded() const;

    // Takes no more tasks, cancels those waiting and running, and, with wait, waits for
    // the running ones to stop and joins the workers. Without wait the workers are left
    // to finish on their own (a fast exit).
    void endQueue(bool wait = true);
    // The host's shutdown step: endQueue, waiting only on a normal exit.
    void shutdown(Shutdown::eExitType type);

    // The status of the task running on the calling thread; eRunning when the thread runs
    // no task (nothing there to cancel).
    static iBackgroundTask::eStatus getCurrentTaskStatus();

private:
    void workerLoop();
    // Ends a task that will never run here.
    static void abandon(const Zn::Ptr<iBackgroundTask>& task);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::deque<Zn::Ptr<iBackgroundTask>> waiting_;
    std::vector<Zn::Ptr<iBackgroundTask>> running_;
    unsigned busy_ = 0;
    bool ended_ = false;
    // Made in the constructor; endQueue takes them out to join them.
    std::vector<Zn::Ptr<iThread>> workers_;
};

// The process's queue for tasks started from the user interface (and the command-line
// program): one worker, so that tasks copying media do not compete for the disks. Made
// on first use; ended at the host's shutdown step kShutdownLevel, before the library's
// own services go, or at process exit.
class UIBackgroundTasksQueue final : public BackgroundTaskQueueBase {
public:
    static constexpr unsigned kShutdownLevel = 300;

    static UIBackgroundTasksQueue& instance();
    ~UIBackgroundTasksQueue() override;

private:
    UIBackgroundTasksQueue();
    Shutdown::Handle shutdownHandle_ = 0;
};
