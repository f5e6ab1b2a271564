// Timed tasks: named activities timed for diagnostics. A TimedTask walks through the steps
// of one piece of work (step("seek"), step("decode"), end()); the manager adds each step's
// duration to the count, total and maximum kept per (task name, activity) and reports them.
// The calls sit on hot paths (every frame read), so a step costs a clock read, a few
// atomic additions and an uncontended lock, and allocates nothing once a (task, activity)
// pair has been seen.
#pragma once

#include "host/core/RefCount.h"
#include "host/threads/PlainMutex.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class TimedTask;

// Collects the statistics. Tasks with the same name share theirs, however many TimedTask
// objects and threads record them.
//
// mutex_ guards groups_ (the map; a group, once made, lives as long as the manager). It is
// taken by createTimedTask, stats, report and reset, with no other lock held; a group's
// lock is taken under it, never the other way round.
class TimedTaskManager {
public:
    struct Record {
        std::string task;
        std::string activity;
        uint64_t count = 0;
        uint64_t totalNs = 0;
        uint64_t maxNs = 0;
        double meanMs() const noexcept {
            return count ? double(totalNs) / double(count) / 1e6 : 0.0;
        }
    };

    TimedTaskManager();
    // Every TimedTask of this manager must be gone by then.
    ~TimedTaskManager();
    TimedTaskManager(const TimedTaskManager&) = delete;
    TimedTaskManager& operator=(const TimedTaskManager&) = delete;

    // The process's manager, usable at any time and never destroyed.
    static TimedTaskManager& instance() noexcept;

    Zn::Ptr<TimedTask> createTimedTask(const char* name);
    // The same as createTimedTask: the name, not the object, groups the statistics.
    Zn::Ptr<TimedTask> getTimedTask(const char* name) { return createTimedTask(name); }

    // Every (task, activity) pair recorded since the last reset, in name order.
    std::vector<Record> stats() const;
    // stats() as an aligned text table, one line per pair, times in milliseconds.
    std::string report() const;
    // Zeroes every figure. Steps running meanwhile are counted after the reset.
    void reset();

private:
    friend class TimedTask;
    friend class TimedActivity;

    // One (task, activity) pair's figures, updated without a lock.
    struct Slot {
        explicit Slot(std::string_view a) : activity(a) {}
        void add(uint64_t ns) noexcept;
        const std::string activity;
        std::atomic<uint64_t> count{0};
        std::atomic<uint64_t> totalNs{0};
        std::atomic<uint64_t> maxNs{0};
    };
    // All pairs of one task name. mutex guards slots (the list; a slot, once made, lives as
    // long as the group). It is taken with at most a TimedTask's lock or the manager's
    // lock held, and nothing is taken under it.
    struct Group {
        explicit Group(std::string_view n) : name(n) {}
        Slot* slotFor(const char* activity);
        const std::string name;
        PlainMutex mutex;
        std::vector<std::unique_ptr<Slot>> slots GUARDED_BY(mutex);
    };

    mutable PlainMutex mutex_ ACQUIRED_BEFORE(Group::mutex);
    std::map<std::string, std::unique_ptr<Group>, std::less<>> groups_ GUARDED_BY(mutex_);
};

// One run of a named task. Steps are timed one after another: step() ends the running
// step (if any) and starts the next, end() ends the running one, and releasing the last
// reference ends it too. The object may be shared between threads (its lock keeps the
// steps consistent), though steps from several threads at once make little sense; use one
// task per thread, or TimedActivity, for that.
//
// mutex_ guards current_, startNs_ and cache_. It is taken by step/end/TimedActivity with
// no other lock held; the group's lock may be taken under it (first use of an activity).
class TimedTask : public iObject {
public:
    ~TimedTask() override;

    void step(const char* activity);
    void end();
    const char* name() const noexcept { return group_->name.c_str(); }

private:
    friend class TimedTaskManager;
    friend class TimedActivity;
    using Slot = TimedTaskManager::Slot;

    explicit TimedTask(TimedTaskManager::Group* group) noexcept : group_(group) {}
    // The slot of an activity: from the last few used, looked up by pointer (activity names
    // are mostly literals) and confirmed by text, else from the group. Called under mutex_.
    Slot* slotFor(const char* activity) REQUIRES(mutex_);
    static uint64_t nowNs() noexcept;

    struct CacheEntry {
        const char* key = nullptr;
        Slot* slot = nullptr;
    };
    static constexpr unsigned kCacheSize = 8;

    TimedTaskManager::Group* const group_;
    PlainMutex mutex_ ACQUIRED_BEFORE(TimedTaskManager::Group::mutex);
    Slot* current_ GUARDED_BY(mutex_) = nullptr;
    uint64_t startNs_ GUARDED_BY(mutex_) = 0;
    CacheEntry cache_[kCacheSize] GUARDED_BY(mutex_);
    unsigned nextEntry_ GUARDED_BY(mutex_) = 0;
};

// Times one activity of a task for a scope, independently of the task's own steps, so
// that several threads may time activities of one shared task at once.
class TimedActivity {
public:
    TimedActivity(Zn::Ptr<TimedTask> task, const char* activity);
    ~TimedActivity();
    TimedActivity(const TimedActivity&) = delete;
    TimedActivity& operator=(const TimedActivity&) = delete;

private:
    Zn::Ptr<TimedTask> task_;
    TimedTaskManager::Slot* slot_ = nullptr;
    uint64_t startNs_ = 0;
};
