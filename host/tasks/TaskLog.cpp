// The task log kept in memory, read by front ends through copies.
#include "host/tasks/TaskLog.h"

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
        std::lock_guard<std::mutex> lock(mutex_);
        progress_ = Progress{fraction, totalBytes, text};
        ++changes_;
    }
    changed_.notify_all();
}

void TaskLog::add(Entry entry) {
    entry.time = double(nowNs() - createdNs_) / 1e9;
    {
        std::lock_guard<std::mutex> lock(mutex_);
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
    std::lock_guard<std::mutex> lock(mutex_);
    return progress_;
}

std::vector<iTaskLog::Entry> TaskLog::getEntries(size_t from) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (from >= entries_.size()) return {};
    return std::vector<Entry>(entries_.begin() + std::ptrdiff_t(from), entries_.end());
}

size_t TaskLog::entryCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return entries_.size();
}

uint64_t TaskLog::changeCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return changes_;
}

bool TaskLog::waitForChange(uint64_t seen, unsigned timeoutMs) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return changes_ != seen; });
}
