// Timed tasks and their manager.
#include "host/threads/TimedTask.h"

#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>

void TimedTaskManager::Slot::add(uint64_t ns) noexcept {
    count.fetch_add(1, std::memory_order_relaxed);
    totalNs.fetch_add(ns, std::memory_order_relaxed);
    uint64_t seen = maxNs.load(std::memory_order_relaxed);
    while (ns > seen && !maxNs.compare_exchange_weak(seen, ns, std::memory_order_relaxed)) {
    }
}

TimedTaskManager::Slot* TimedTaskManager::Group::slotFor(const char* activity) {
    std::string_view text(activity ? activity : "");
    PlainMutex::Lock lock(mutex);
    for (auto& s : slots) {
        if (s->activity == text) return s.get();
    }
    slots.push_back(std::make_unique<Slot>(text));
    return slots.back().get();
}

TimedTaskManager::TimedTaskManager() = default;
TimedTaskManager::~TimedTaskManager() = default;

TimedTaskManager& TimedTaskManager::instance() noexcept {
    // Never destroyed, so tasks released by static destructors still find their groups.
    alignas(TimedTaskManager) static unsigned char storage[sizeof(TimedTaskManager)];
    static TimedTaskManager* manager = new (storage) TimedTaskManager;
    return *manager;
}

Zn::Ptr<TimedTask> TimedTaskManager::createTimedTask(const char* name) {
    std::string_view key(name ? name : "");
    Group* group;
    {
        PlainMutex::Lock lock(mutex_);
        auto it = groups_.find(key);
        if (it == groups_.end())
            it = groups_.emplace(std::string(key), std::make_unique<Group>(key)).first;
        group = it->second.get();
    }
    return Zn::Ptr<TimedTask>(new TimedTask(group));
}

std::vector<TimedTaskManager::Record> TimedTaskManager::stats() const {
    std::vector<Record> out;
    PlainMutex::Lock lock(mutex_);
    for (const auto& [name, group] : groups_) {
        PlainMutex::Lock groupLock(group->mutex);
        size_t first = out.size();
        for (const auto& s : group->slots) {
            uint64_t count = s->count.load(std::memory_order_relaxed);
            if (count == 0) continue;
            out.push_back(Record{name, s->activity, count,
                                 s->totalNs.load(std::memory_order_relaxed),
                                 s->maxNs.load(std::memory_order_relaxed)});
        }
        std::sort(out.begin() + ptrdiff_t(first), out.end(),
                  [](const Record& a, const Record& b) { return a.activity < b.activity; });
    }
    return out;
}

std::string TimedTaskManager::report() const {
    const std::vector<Record> records = stats();
    size_t taskWidth = 4, activityWidth = 8;
    for (const Record& r : records) {
        taskWidth = std::max(taskWidth, r.task.size());
        activityWidth = std::max(activityWidth, r.activity.size());
    }
    std::string out;
    char line[512];
    auto addRow = [&](const char* task, const char* activity, const char* count, const char* total,
                      const char* mean, const char* max) {
        std::snprintf(line, sizeof(line), "%-*s | %-*s | %10s | %12s | %10s | %10s\n",
                      int(taskWidth), task, int(activityWidth), activity, count, total, mean, max);
        out += line;
    };
    addRow("task", "activity", "count", "total ms", "mean ms", "max ms");
    for (const Record& r : records) {
        char count[24], total[24], mean[24], max[24];
        std::snprintf(count, sizeof(count), "%llu", static_cast<unsigned long long>(r.count));
        std::snprintf(total, sizeof(total), "%.3f", double(r.totalNs) / 1e6);
        std::snprintf(mean, sizeof(mean), "%.3f", r.meanMs());
        std::snprintf(max, sizeof(max), "%.3f", double(r.maxNs) / 1e6);
        addRow(r.task.c_str(), r.activity.c_str(), count, total, mean, max);
    }
    return out;
}

void TimedTaskManager::reset() {
    PlainMutex::Lock lock(mutex_);
    for (const auto& entry : groups_) {
        Group& group = *entry.second;
        PlainMutex::Lock groupLock(group.mutex);
        for (auto& s : group.slots) {
            s->count.store(0, std::memory_order_relaxed);
            s->totalNs.store(0, std::memory_order_relaxed);
            s->maxNs.store(0, std::memory_order_relaxed);
        }
    }
}

uint64_t TimedTask::nowNs() noexcept {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count());
}

TimedTask::~TimedTask() {
    end();
}

TimedTask::Slot* TimedTask::slotFor(const char* activity) {
    const char* text = activity ? activity : "";
    for (const CacheEntry& e : cache_) {
        // The pointer narrows the search; the text decides, because a buffer may be
        // reused for another name.
        if (e.key == activity && e.slot && e.slot->activity == text) return e.slot;
    }
    Slot* slot = group_->slotFor(text);
    cache_[nextEntry_] = CacheEntry{activity, slot};
    nextEntry_ = (nextEntry_ + 1) % kCacheSize;
    return slot;
}

void TimedTask::step(const char* activity) {
    PlainMutex::Lock lock(mutex_);
    const uint64_t now = nowNs();
    if (current_) current_->add(now - startNs_);
    current_ = slotFor(activity);
    startNs_ = now;
}

void TimedTask::end() {
    PlainMutex::Lock lock(mutex_);
    if (!current_) return;
    current_->add(nowNs() - startNs_);
    current_ = nullptr;
}

TimedActivity::TimedActivity(Zn::Ptr<TimedTask> task, const char* activity)
    : task_(std::move(task)) {
    if (!task_) return;
    {
        PlainMutex::Lock lock(task_->mutex_);
        slot_ = task_->slotFor(activity);
    }
    startNs_ = TimedTask::nowNs();
}

TimedActivity::~TimedActivity() {
    if (slot_) slot_->add(TimedTask::nowNs() - startNs_);
}
