// A progress bar for long work: redrawn in place on a terminal, a few plain lines
// otherwise (so logs of scripted runs stay readable). Counting bytes, it also shows the
// bytes done, the throughput and the time left.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tool {

class ProgressBar {
public:
    struct Style {
        FILE* out = stdout;
        int terminal = -1;  // 1 redraw in place, 0 plain lines, -1 whether out is a terminal
        bool bytes = false; // done and total are bytes
    };

    ProgressBar(std::string label, uint64_t total);
    ProgressBar(std::string label, uint64_t total, const Style& style);
    void update(uint64_t done);
    // Takes the bar off its line (on a terminal) so that a line can be printed; the next
    // update draws it again.
    void clear();
    void finish();
    void setTotal(uint64_t total) { total_ = total ? total : 1; }
    bool isTerminal() const noexcept { return terminal_; }

private:
    std::string rateAndTimeLeft(uint64_t done) const;

    std::string label_;
    uint64_t total_;
    FILE* out_;
    bool terminal_;
    bool bytes_;
    int lastShown_ = -1;
    bool drawn_ = false;
    bool finished_ = false;
    uint64_t lastDone_ = 0;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point lastDraw_{};
};

// "1.5 GB"-style text for a byte count.
std::string byteText(double bytes);

} // namespace tool
