// Collects every log line written while it exists, for tests that assert exact texts.
#pragma once

#include "host/os/Log.h"

#include <mutex>
#include <string>
#include <vector>

namespace testing_support {

class LogCapture : public iLogSink {
public:
    LogCapture() { Logging::addSink(this); }
    ~LogCapture() override { Logging::removeSink(this); }

    void write(const std::string& text, bool) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(text);
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    // How many captured lines equal text exactly.
    size_t count(const std::string& text) const {
        std::lock_guard<std::mutex> lock(mutex_);
        size_t n = 0;
        for (const auto& l : lines_) n += (l == text);
        return n;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

} // namespace testing_support
