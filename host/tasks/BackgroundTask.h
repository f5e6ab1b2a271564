// Background tasks: iBackgroundTask, what every task that runs on a host task queue offers
// (its status, log, description and completion), and BackgroundTaskBase, which keeps all
// of that so that a concrete task only supplies run().
#pragma once

#include "host/core/IdStamp.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"

#include <atomic>
#include <chrono>

class iBackgroundTaskQueue;
class iTaskLog;
class iThreadEvent;

class iBackgroundTask : public virtual iObject {
public:
    // A task's life: eQueued until a worker takes it, eRunning while run() is under way,
    // then eFinished, or eFailed when run() ended by an exception. eCancelled is set from
    // outside to ask for cancellation: a task that has not started never runs, a running
    // one sees the status (BackgroundTaskQueueBase::getCurrentTaskStatus) and stops at the
    // next point where it can, and its status stays eCancelled.
    enum eStatus : int {
        eQueued = 0,
        eRunning = 1,
        eFinished = 2,
        eCancelled = 3,
        eFailed = 4,
    };
    // How much a front end should make of the task (a tool may hide unimportant ones).
    enum eImportance : int { eLowImportance = 0, eNormalImportance = 1, eHighImportance = 2 };

    // Runs the task on the calling thread. A task runs at most once: later calls, and a
    // call on a cancelled task, only end it (its completion is signalled) without running.
    virtual void execute() = 0;
    // Blocks until the task has ended: it ran, failed, or was cancelled and stopped.
    virtual void waitForCompletion() const = 0;
    // The fraction done, 0 to 1.
    virtual double getProgress() const = 0;
    virtual WString getID() const = 0;
    virtual WString getDescription() const = 0;
    virtual int getImportance() const = 0;
    virtual Zn::Ptr<iTaskLog> getLog() const = 0;
    // Seconds the task has been running: from its start to its end, or to now; 0 before
    // it starts.
    virtual double getLifetime() const = 0;
    // Whether a front end may offer to cancel it.
    virtual bool isAbortable() const { return true; }
    // Whether a front end keeps it listed after it has ended.
    virtual bool isMemorable() const { return false; }
    virtual iBackgroundTaskQueue* getQueue() const = 0;
    virtual void setQueue(iBackgroundTaskQueue* queue) = 0;
    virtual eStatus getStatus() const = 0;
    // Changes the status while the task has not ended; eCancelled is the one value meant
    // for callers outside the task. Ignored once the task has ended.
    virtual void setStatus(eStatus status) = 0;
};

// The usual base of a task. Status, queue and times are atomics, so every operation may
// be called from any thread; completion is a manual-reset event set once, when the task
// ends. No lock is held while run() runs.
class BackgroundTaskBase : public iBackgroundTask, public virtual Identified {
public:
    explicit BackgroundTaskBase(const WString& description = WString(), int importance = eNormalImportance);
    ~BackgroundTaskBase() override;

    void execute() override;
    void waitForCompletion() const override;
    // As waitForCompletion, for at most timeoutMs; true when the task has ended.
    bool waitForCompletion(unsigned timeoutMs) const;
    // The fraction of the log's progress entry.
    double getProgress() const override;
    WString getID() const override { return WString(); }
    WString getDescription() const override { return description_; }
    int getImportance() const override { return importance_; }
    Zn::Ptr<iTaskLog> getLog() const override;
    double getLifetime() const override;
    iBackgroundTaskQueue* getQueue() const override { return queue_.load(std::memory_order_acquire); }
    void setQueue(iBackgroundTaskQueue* queue) override { queue_.store(queue, std::memory_order_release); }
    eStatus getStatus() const override { return status_.load(std::memory_order_acquire); }
    void setStatus(eStatus status) override;
    bool hasEnded() const noexcept { return ended_.load(std::memory_order_acquire); }
    // How many times run() was entered (0 or 1).
    int runCount() const noexcept { return runs_.load(std::memory_order_acquire); }

    // The task whose execute() the calling thread is inside, or null.
    static BackgroundTaskBase* current() noexcept;

protected:
    // The task's work, on the thread that called execute(). Long work looks at
    // getStatus() (or BackgroundTaskQueueBase::getCurrentTaskStatus()) now and then and
    // returns when it is eCancelled. An exception ends the task with eFailed and its
    // message in the log.
    virtual void run() = 0;

private:
    using Clock = std::chrono::steady_clock;
    void end(eStatus finalStatus);

    const WString description_;
    const int importance_;
    Zn::Ptr<iTaskLog> log_;
    Zn::Ptr<iThreadEvent> endedEvent_;
    std::atomic<eStatus> status_{eQueued};
    std::atomic<iBackgroundTaskQueue*> queue_{nullptr};
    std::atomic<bool> started_{false};
    std::atomic<bool> ended_{false};
    std::atomic<int> runs_{0};
    std::atomic<int64_t> startNs_{0};
    std::atomic<int64_t> endNs_{0};
};
