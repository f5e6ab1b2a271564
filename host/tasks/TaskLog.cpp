// The task log kept in memory, read by front ends through copies.
#include "host/tasks/TaskLog.h"

#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <chrono>

namespace {
int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

TaskLog::TaskLog() : createdNs_(nowNs()) {}

void TaskLog::setProgress(double fraction, const WString& text, uint64_t totalBytes) {
    fraction = std::clamp(fraction, 0.0, 1.0);
    {
        PlainMutex::Lock lock(mutex_);
        progress_ = Progress{fraction, totalBytes, text};
        ++changes_;
    }
    changed_.notify_all();
}

void TaskLog::add(Entry entry) {
    entry.time = double(nowNs() - createdNs_) / 1e9;
    {
        PlainMutex::Lock lock(mutex_);
        entries_.push_back(std::move(entry));
        ++changes_;
    }
    changed_.notify_all();
}

void TaskLog::addLine(const WString& text, int severity, int kind) {
    Entry e;
    e.text = text;
    e.severity = severity;
    e.kind = kind;
    add(std::move(e));
}

void TaskLog::addHyperlink(const WString& text, const WString& folder, const std::vector<WString>& files, int kind) {
    Entry e;
    e.type = Entry::eHyperlink;
    e.text = text;
    e.kind = kind;
    e.folder = folder;
    e.files = files;
    add(std::move(e));
}

iTaskLog::Progress TaskLog::getProgress() const {
    PlainMutex::Lock lock(mutex_);
    return progress_;
}

std::vector<iTaskLog::Entry> TaskLog::getEntries(size_t from) const {
    PlainMutex::Lock lock(mutex_);
    if (from >= entries_.size()) return {};
    return std::vector<Entry>(entries_.begin() + std::ptrdiff_t(from), entries_.end());
}

size_t TaskLog::entryCount() const {
    PlainMutex::Lock lock(mutex_);
    return entries_.size();
}

uint64_t TaskLog::changeCount() const {
    PlainMutex::Lock lock(mutex_);
    return changes_;
}

bool TaskLog::waitForChange(uint64_t seen, unsigned timeoutMs) const {
    PlainMutex::UniqueLock lock(mutex_);
    return changed_.wait_for(lock.native(), std::chrono::milliseconds(timeoutMs),
                             [&]() REQUIRES(mutex_) { return changes_ != seen; });
}
