// The worker-thread queue of background tasks and the process's user-interface queue.
#include "host/tasks/BackgroundTaskQueue.h"

#include <algorithm>
#include <chrono>

BackgroundTaskQueueBase::BackgroundTaskQueueBase(const char* threadName, unsigned workers, int priority) {
    for (unsigned i = 0; i < std::max(workers, 1u); ++i) {
        Zn::Ptr<iThread> t = iThread::create([this] { workerLoop(); }, threadName, priority);
        if (t) workers_.push_back(std::move(t));
    }
}

BackgroundTaskQueueBase::~BackgroundTaskQueueBase() { endQueue(true); }

void BackgroundTaskQueueBase::abandon(const Zn::Ptr<iBackgroundTask>& task) {
    task->setStatus(iBackgroundTask::eCancelled);
    task->execute(); // a cancelled task only ends: its waiters are released
}

bool BackgroundTaskQueueBase::queue(const Zn::Ptr<iBackgroundTask>& task) {
    if (!task || task->getStatus() != iBackgroundTask::eQueued) return false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (task->getQueue() != nullptr) return false;
        task->setQueue(this);
        if (!ended_ && !workers_.empty()) {
            waiting_.push_back(task);
            changed_.notify_all();
            return true;
        }
    }
    abandon(task);
    return false;
}

bool BackgroundTaskQueueBase::cancel(const Zn::Ptr<iBackgroundTask>& task) {
    bool waiting = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto w = std::find(waiting_.begin(), waiting_.end(), task);
        if (w != waiting_.end()) {
            waiting_.erase(w);
            waiting = true;
        } else if (std::find(running_.begin(), running_.end(), task) == running_.end()) {
            return false;
        }
    }
    if (waiting) {
        abandon(task);
        changed_.notify_all();
    } else {
        task->setStatus(iBackgroundTask::eCancelled);
    }
    return true;
}

std::vector<Zn::Ptr<iBackgroundTask>> BackgroundTaskQueueBase::getTasks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Zn::Ptr<iBackgroundTask>> all(running_);
    all.insert(all.end(), waiting_.begin(), waiting_.end());
    return all;
}

bool BackgroundTaskQueueBase::waitForIdle(unsigned timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    auto idle = [&] { return waiting_.empty() && busy_ == 0; };
    if (timeoutMs == iThreadEvent::kInfinite) {
        changed_.wait(lock, idle);
        return true;
    }
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), idle);
}

bool BackgroundTaskQueueBase::hasEnded() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return ended_;
}

void BackgroundTaskQueueBase::workerLoop() {
    for (;;) {
        Zn::Ptr<iBackgroundTask> task;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return ended_ || !waiting_.empty(); });
            if (waiting_.empty()) return; // ended
            task = std::move(waiting_.front());
            waiting_.pop_front();
            running_.push_back(task);
            ++busy_;
        }
        task->execute();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            running_.erase(std::find(running_.begin(), running_.end(), task));
            --busy_;
        }
        changed_.notify_all();
    }
}

void BackgroundTaskQueueBase::endQueue(bool wait) {
    std::deque<Zn::Ptr<iBackgroundTask>> waiting;
    std::vector<Zn::Ptr<iBackgroundTask>> running;
    std::vector<Zn::Ptr<iThread>> workers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ended_ = true;
        waiting.swap(waiting_);
        running = running_;
        workers.swap(workers_);
    }
    changed_.notify_all();
    for (const auto& task : waiting) abandon(task);
    for (const auto& task : running) task->setStatus(iBackgroundTask::eCancelled);
    if (wait) {
        for (const auto& w : workers) w->endThread();
    } else {
        // A fast exit: nothing waits for a task to notice its cancellation.
        for (auto& w : workers) w.release();
    }
}

void BackgroundTaskQueueBase::shutdown(Shutdown::eExitType type) { endQueue(type == Shutdown::eNormalExit); }

iBackgroundTask::eStatus BackgroundTaskQueueBase::getCurrentTaskStatus() {
    BackgroundTaskBase* task = BackgroundTaskBase::current();
    return task ? task->getStatus() : iBackgroundTask::eRunning;
}

UIBackgroundTasksQueue::UIBackgroundTasksQueue() : BackgroundTaskQueueBase("BackgroundTask", 1, kPriorityBelowNormal) {
    shutdownHandle_ =
        Shutdown::addCallback<BackgroundTaskQueueBase>(this, &BackgroundTaskQueueBase::shutdown, kShutdownLevel);
}

UIBackgroundTasksQueue::~UIBackgroundTasksQueue() {
    Shutdown::removeCallback(shutdownHandle_);
    endQueue(true);
}

UIBackgroundTasksQueue& UIBackgroundTasksQueue::instance() {
    static UIBackgroundTasksQueue single;
    return single;
}
