// Timed tasks: what the steps add up to, under many threads, and that a step allocates
// nothing once its activity is known.
#include "host/os/OS.h"
#include "host/threads/TimedTask.h"
#include "support/Allocators.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

const TimedTaskManager::Record* find(const std::vector<TimedTaskManager::Record>& records,
                                     const char* task, const char* activity) {
    for (const auto& r : records)
        if (r.task == task && r.activity == activity) return &r;
    return nullptr;
}

uint64_t countOf(const TimedTaskManager& manager, const char* task, const char* activity) {
    auto records = manager.stats();
    const auto* r = find(records, task, activity);
    return r ? r->count : 0;
}

} // namespace

TEST(TimedTask, StepsAddUpPerTaskAndActivity) {
    TimedTaskManager manager;
    auto task = manager.createTimedTask("read");
    task->step("seek");
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    task->step("decode");
    task->end();
    task->end(); // nothing running: no effect
    task->step("seek");
    task.reset(); // releasing ends the running step

    // The text, not the pointer, names an activity: a reused buffer is another activity.
    auto other = manager.getTimedTask("read");
    char buffer[16] = "decode";
    other->step(buffer);
    std::strcpy(buffer, "convert");
    other->step(buffer);
    other->end();

    auto records = manager.stats();
    ASSERT_EQ(records.size(), 3u);
    const auto* seek = find(records, "read", "seek");
    ASSERT_TRUE(seek);
    EXPECT_EQ(seek->count, 2u);
    EXPECT_GE(seek->maxNs, 5000000u);
    EXPECT_LE(seek->maxNs, seek->totalNs);
    EXPECT_EQ(countOf(manager, "read", "decode"), 2u);
    EXPECT_EQ(countOf(manager, "read", "convert"), 1u);

    EXPECT_NE(manager.report().find("convert"), std::string::npos);
    manager.reset();
    EXPECT_TRUE(manager.stats().empty());
}

TEST(TimedTask, CountsStayExactUnderEightThreads) {
    TimedTaskManager manager;
    auto shared = manager.createTimedTask("shared");
    constexpr int kThreads = 8, kRounds = 2000;
    testing_support::inThreads(kThreads, [&](int) {
        auto own = manager.getTimedTask("frame");
        for (int i = 0; i < kRounds; ++i) {
            own->step("open");
            own->step("read");
            TimedActivity activity(shared, "decode");
        }
        own->end();
    });
    for (auto [task, activity] : {std::pair{"frame", "open"}, {"frame", "read"}, {"shared", "decode"}})
        EXPECT_EQ(countOf(manager, task, activity), uint64_t(kThreads * kRounds)) << activity;
}

TEST(TimedTask, StepsAllocateNothingOnceTheActivityIsKnown) {
    auto countOfA = [] { return countOf(TimedTaskManager::instance(), "timed-task-test-allocation", "a"); };
    auto task = TimedTaskManager::instance().createTimedTask("timed-task-test-allocation");
    const uint64_t before = countOfA();
    task->step("a");
    task->step("b");
    { TimedActivity warm(task, "c"); }
    testing_support::CountingAllocator counter;
    {
        ScopedAllocator scope(&counter);
        for (int i = 0; i < 1000; ++i) {
            task->step("a");
            task->step("b");
            TimedActivity activity(task, "c");
        }
        task->end();
    }
    EXPECT_EQ(counter.allocations, 0u);
    EXPECT_EQ(countOfA() - before, 1001u); // the warm-up's "a" too
}
