// A progress bar for long work: redrawn in place on a terminal, a few plain lines
// otherwise (so logs of scripted runs stay readable).
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace tool {

class ProgressBar {
public:
    ProgressBar(std::string label, uint64_t total);
    void update(uint64_t done);
    void finish();

private:
    std::string label_;
    uint64_t total_;
    bool terminal_;
    int lastShown_ = -1;
    bool finished_ = false;
    std::chrono::steady_clock::time_point lastDraw_{};
};

} // namespace tool
