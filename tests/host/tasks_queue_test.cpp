// Background tasks on a worker queue: queue order, cancellation while waiting and while
// running, failures, once-only runs, the end of a queue, and all of it under stress.
#include "host/tasks/BackgroundTaskQueue.h"
#include "host/tasks/TaskLog.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Status = iBackgroundTask::eStatus;

struct ProbeTask final : BackgroundTaskBase {
    explicit ProbeTask(std::function<void(ProbeTask&)> body = {}) : body(std::move(body)) {}
    void run() override {
        started = true;
        if (body) body(*this);
    }
    std::function<void(ProbeTask&)> body;
    std::atomic<bool> started{false};
};

Zn::Ptr<ProbeTask> probe(std::function<void(ProbeTask&)> body = {}) { return Zn::makePtr<ProbeTask>(std::move(body)); }

void spinUntil(const std::function<bool()>& done) {
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!done() && std::chrono::steady_clock::now() < limit) std::this_thread::sleep_for(std::chrono::microseconds(200));
    ASSERT_TRUE(done()) << "timed out";
}

// Runs until its cancellation is seen through the calling thread's current task.
void untilCancelled(ProbeTask&) {
    spinUntil([] { return BackgroundTaskQueueBase::getCurrentTaskStatus() == iBackgroundTask::eCancelled; });
}

// A task that holds a worker until released.
struct Gate {
    std::atomic<bool> open{false};
    Zn::Ptr<ProbeTask> task = probe([this](ProbeTask&) { spinUntil([this] { return open.load(); }); });
};

} // namespace

TEST(BackgroundTaskQueue, RunsTasksInQueueOrderOnItsWorker) {
    BackgroundTaskQueueBase queue("TaskTest");
    std::mutex m;
    std::vector<int> order;
    std::vector<Zn::Ptr<ProbeTask>> tasks;
    for (int i = 0; i < 8; ++i) {
        tasks.push_back(probe([&, i](ProbeTask&) {
            std::lock_guard<std::mutex> lock(m);
            order.push_back(i);
        }));
        ASSERT_TRUE(queue.queue(tasks.back()));
    }
    ASSERT_TRUE(queue.waitForIdle(20000));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}));
    for (auto& t : tasks) {
        EXPECT_EQ(t->getStatus(), iBackgroundTask::eFinished);
        EXPECT_TRUE(t->waitForCompletion(0));
        EXPECT_EQ(t->getQueue(), &queue);
    }
    EXPECT_EQ(BackgroundTaskQueueBase::getCurrentTaskStatus(), iBackgroundTask::eRunning); // no task here
}

TEST(BackgroundTaskQueue, CancelsWaitingAndRunningTasks) {
    BackgroundTaskQueueBase queue("TaskTest");
    auto running = probe(untilCancelled);
    auto waiting = probe();
    ASSERT_TRUE(queue.queue(running));
    ASSERT_TRUE(queue.queue(waiting));
    spinUntil([&] { return running->started.load(); });
    EXPECT_EQ(queue.getTasks().size(), 2u);

    EXPECT_TRUE(queue.cancel(waiting));
    EXPECT_TRUE(waiting->waitForCompletion(0)) << "a task cancelled while waiting ends at once";
    EXPECT_EQ(waiting->getStatus(), iBackgroundTask::eCancelled);
    EXPECT_EQ(waiting->runCount(), 0);

    EXPECT_EQ(running->getStatus(), iBackgroundTask::eRunning);
    EXPECT_TRUE(queue.cancel(running));
    running->waitForCompletion();
    EXPECT_EQ(running->getStatus(), iBackgroundTask::eCancelled);
    EXPECT_EQ(running->runCount(), 1);
    EXPECT_TRUE(queue.waitForIdle(20000));
    EXPECT_FALSE(queue.cancel(running)) << "no longer on the queue";
}

TEST(BackgroundTaskQueue, OutcomesOfRunsAndMisuse) {
    BackgroundTaskQueueBase queue("TaskTest");
    auto failing = probe([](ProbeTask&) { throw std::runtime_error("disk on fire"); });
    ASSERT_TRUE(queue.queue(failing));
    failing->waitForCompletion();
    EXPECT_EQ(failing->getStatus(), iBackgroundTask::eFailed);
    auto lines = failing->getLog()->getEntries();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.str(), L"The task failed: disk on fire");
    EXPECT_EQ(lines[0].severity, iTaskLog::eError);

    // Queued once in its life; the status of an ended task is its outcome.
    EXPECT_FALSE(queue.queue(failing));
    failing->setStatus(iBackgroundTask::eCancelled);
    EXPECT_EQ(failing->getStatus(), iBackgroundTask::eFailed);

    auto direct = probe();
    direct->execute();
    direct->execute();
    EXPECT_EQ(direct->runCount(), 1);
    EXPECT_EQ(direct->getStatus(), iBackgroundTask::eFinished);
    EXPECT_FALSE(queue.queue(direct)) << "has run already";
    EXPECT_GE(direct->getLifetime(), 0.0);

    auto cancelledFirst = probe();
    cancelledFirst->setStatus(iBackgroundTask::eCancelled);
    cancelledFirst->execute();
    EXPECT_EQ(cancelledFirst->runCount(), 0);
    EXPECT_TRUE(cancelledFirst->hasEnded());
}

TEST(BackgroundTaskQueue, EndingCancelsEverythingAndRefusesNewTasks) {
    auto queue = std::make_unique<BackgroundTaskQueueBase>("TaskTest");
    Shutdown::Sequence sequence;
    sequence.addCallback(Zn::Ptr<Shutdown::iCallback>(new Shutdown::MethodCallback<BackgroundTaskQueueBase>(
                             queue.get(), &BackgroundTaskQueueBase::shutdown)),
                         UIBackgroundTasksQueue::kShutdownLevel);
    auto running = probe(untilCancelled);
    auto waiting = probe();
    queue->queue(running);
    queue->queue(waiting);
    spinUntil([&] { return running->started.load(); });

    sequence.run(Shutdown::eNormalExit); // returns once the running task has stopped
    EXPECT_TRUE(queue->hasEnded());
    EXPECT_TRUE(running->hasEnded());
    EXPECT_EQ(running->getStatus(), iBackgroundTask::eCancelled);
    EXPECT_EQ(waiting->getStatus(), iBackgroundTask::eCancelled);
    EXPECT_EQ(waiting->runCount(), 0);

    auto late = probe();
    EXPECT_FALSE(queue->queue(late));
    EXPECT_TRUE(late->waitForCompletion(0)) << "a refused task is ended, so waiting for it returns";
    EXPECT_EQ(late->runCount(), 0);
    queue.reset();
}

// 50 tasks queued from 4 threads onto 2 workers held by gates: some cancelled while they
// wait, some while they run, some racing their start; every one ends once, with the
// status its history calls for.
TEST(BackgroundTaskQueue, StressFromFourThreads) {
    constexpr int kWorkers = 2, kThreads = 4, kTasks = 48; // plus the two gates
    enum Kind { kFinish, kCancelWaiting, kCancelRunning, kCancelRacing };
    BackgroundTaskQueueBase queue("TaskStress", kWorkers);
    Gate gates[kWorkers];
    for (auto& g : gates) ASSERT_TRUE(queue.queue(g.task));
    spinUntil([&] { return gates[0].task->started && gates[1].task->started; });

    std::vector<Zn::Ptr<ProbeTask>> tasks(kTasks);
    std::vector<Kind> kinds(kTasks);
    std::atomic<int> runs{0};
    std::atomic<int> queuedCount{0};
    testing_support::inThreads(kThreads, [&](int t) {
        for (int i = t; i < kTasks; i += kThreads) {
            kinds[i] = Kind(i % 4);
            auto body = kinds[i] == kCancelRunning ? std::function<void(ProbeTask&)>(untilCancelled)
                                                   : std::function<void(ProbeTask&)>();
            tasks[i] = probe([&runs, body](ProbeTask& p) {
                runs++;
                if (body) body(p);
            });
            ASSERT_TRUE(queue.queue(tasks[i]));
            queuedCount++;
            if (kinds[i] == kCancelWaiting) {
                EXPECT_TRUE(queue.cancel(tasks[i])); // the workers are held
            }
        }
    });
    ASSERT_EQ(queuedCount.load(), kTasks);
    for (auto& g : gates) g.open = true;

    std::thread racer([&] {
        for (int i = 0; i < kTasks; ++i)
            if (kinds[i] == kCancelRacing) queue.cancel(tasks[i]); // may be waiting, running or done
    });
    // They start in queue order, which the threads interleaved: cancel each once it runs.
    std::vector<bool> cancelled(kTasks, false);
    spinUntil([&] {
        bool all = true;
        for (int i = 0; i < kTasks; ++i) {
            if (kinds[i] != kCancelRunning || cancelled[i]) continue;
            if (tasks[i]->started) cancelled[i] = queue.cancel(tasks[i]);
            all = all && cancelled[i];
        }
        return all;
    });
    racer.join();
    ASSERT_TRUE(queue.waitForIdle(60000));

    int expectedRuns = kWorkers;
    for (int i = 0; i < kTasks; ++i) {
        SCOPED_TRACE(i);
        const auto& task = *tasks[i];
        ASSERT_TRUE(task.hasEnded());
        EXPECT_LE(task.runCount(), 1);
        expectedRuns += task.runCount();
        switch (kinds[i]) {
        case kFinish:
            EXPECT_EQ(task.getStatus(), iBackgroundTask::eFinished);
            EXPECT_EQ(task.runCount(), 1);
            break;
        case kCancelWaiting:
            EXPECT_EQ(task.getStatus(), iBackgroundTask::eCancelled);
            EXPECT_EQ(task.runCount(), 0);
            break;
        case kCancelRunning:
            EXPECT_EQ(task.getStatus(), iBackgroundTask::eCancelled);
            EXPECT_EQ(task.runCount(), 1);
            break;
        case kCancelRacing:
            // Cancelled before it started, or it ran: to its end, or cancelled on the way.
            if (task.runCount() == 0) {
                EXPECT_EQ(task.getStatus(), iBackgroundTask::eCancelled);
            } else {
                EXPECT_NE(task.getStatus(), iBackgroundTask::eRunning);
            }
            break;
        }
    }
    EXPECT_EQ(runs.load() + kWorkers, expectedRuns) << "every run counted once";
}
