// BackgroundTaskBase: the once-only run, the status changes around it and completion.
#include "host/tasks/BackgroundTask.h"

#include "host/core/Strings.h"
#include "host/os/OS.h"
#include "host/tasks/TaskLog.h"
#include "host/threads/ThreadEvent.h"

#include <exception>

namespace {

thread_local BackgroundTaskBase* t_current = nullptr;

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Makes the task current on this thread for a scope (execute may nest: a task may run
// another on its own thread).
class CurrentTask {
public:
    explicit CurrentTask(BackgroundTaskBase* task) noexcept : previous_(t_current) { t_current = task; }
    ~CurrentTask() { t_current = previous_; }
    CurrentTask(const CurrentTask&) = delete;
    CurrentTask& operator=(const CurrentTask&) = delete;

private:
    BackgroundTaskBase* previous_;
};

} // namespace

BackgroundTaskBase::BackgroundTaskBase(const WString& description, int importance)
    : description_(description), importance_(importance), log_(Zn::makePtr<TaskLog>()),
      endedEvent_(OS()->createThreadEvent(true, false)) {}

BackgroundTaskBase::~BackgroundTaskBase() = default;

BackgroundTaskBase* BackgroundTaskBase::current() noexcept { return t_current; }

Zn::Ptr<iTaskLog> BackgroundTaskBase::getLog() const { return log_; }

double BackgroundTaskBase::getProgress() const { return log_->getProgress().fraction; }

double BackgroundTaskBase::getLifetime() const {
    int64_t start = startNs_.load(std::memory_order_acquire);
    if (start == 0) return 0;
    int64_t end = endNs_.load(std::memory_order_acquire);
    return double((end ? end : nowNs()) - start) / 1e9;
}

void BackgroundTaskBase::setStatus(eStatus status) {
    eStatus cur = status_.load(std::memory_order_acquire);
    // Once run() has returned (eFinished, eFailed) or the task has ended, the status is
    // its outcome and stays.
    while (cur != eFinished && cur != eFailed && !hasEnded()) {
        if (status_.compare_exchange_weak(cur, status, std::memory_order_acq_rel)) return;
    }
}

void BackgroundTaskBase::execute() {
    if (started_.exchange(true, std::memory_order_acq_rel)) return;
    startNs_.store(nowNs(), std::memory_order_release);
    eStatus expected = eQueued;
    if (!status_.compare_exchange_strong(expected, eRunning, std::memory_order_acq_rel)) {
        end(eCancelled); // cancelled (or otherwise taken out of the queue) before it started
        return;
    }
    runs_.fetch_add(1, std::memory_order_acq_rel);
    eStatus outcome = eFinished;
    {
        CurrentTask current(this);
        try {
            run();
        } catch (const std::exception& e) {
            log_->addLine(fromUTF8(String("The task failed: ") + e.what()), iTaskLog::eError, iTaskLog::eKindError);
            outcome = eFailed;
        } catch (...) {
            log_->addLine(WString(L"The task failed."), iTaskLog::eError, iTaskLog::eKindError);
            outcome = eFailed;
        }
    }
    expected = eRunning;
    if (!status_.compare_exchange_strong(expected, outcome, std::memory_order_acq_rel)) outcome = expected;
    end(outcome);
}

void BackgroundTaskBase::end(eStatus finalStatus) {
    status_.store(finalStatus, std::memory_order_release);
    endNs_.store(nowNs(), std::memory_order_release);
    ended_.store(true, std::memory_order_release);
    endedEvent_->set();
}

void BackgroundTaskBase::waitForCompletion() const { endedEvent_->wait(); }

bool BackgroundTaskBase::waitForCompletion(unsigned timeoutMs) const { return endedEvent_->wait(timeoutMs); }
