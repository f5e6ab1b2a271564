// Timed tasks: what the steps add up to, under many threads, and that a step allocates
// nothing once its activity is known.
#include "host/os/OS.h"
#include "host/threads/TimedTask.h"
#include "support/Allocators.h"

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

} // namespace

TEST(TimedTask, StepsAddUpPerTaskAndActivity) {
    TimedTaskManager manager;
    auto task = manager.createTimedTask("read");
    EXPECT_STREQ(task->name(), "read");
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
    ASSERT_TRUE(find(records, "read", "decode"));
    EXPECT_EQ(find(records, "read", "decode")->count, 2u);
    EXPECT_EQ(find(records, "read", "convert")->count, 1u);

    EXPECT_NE(manager.report().find("convert"), std::string::npos);
    manager.reset();
    EXPECT_TRUE(manager.stats().empty());
}

TEST(TimedTask, CountsStayExactUnderEightThreads) {
    TimedTaskManager manager;
    auto shared = manager.createTimedTask("shared");
    constexpr int kThreads = 8, kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            auto own = manager.getTimedTask("frame");
            for (int i = 0; i < kRounds; ++i) {
                own->step("open");
                own->step("read");
                TimedActivity activity(shared, "decode");
            }
            own->end();
        });
    for (auto& t : threads)
        t.join();
    auto records = manager.stats();
    for (const char* activity : {"open", "read"}) {
        ASSERT_TRUE(find(records, "frame", activity));
        EXPECT_EQ(find(records, "frame", activity)->count, uint64_t(kThreads * kRounds));
    }
    ASSERT_TRUE(find(records, "shared", "decode"));
    EXPECT_EQ(find(records, "shared", "decode")->count, uint64_t(kThreads * kRounds));
}

TEST(TimedTask, StepsAllocateNothingOnceTheActivityIsKnown) {
    auto countOfA = [] {
        auto records = TimedTaskManager::instance().stats();
        auto* r = find(records, "timed-task-test-allocation", "a");
        return r ? r->count : 0;
    };
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
