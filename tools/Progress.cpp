#include "tools/Progress.h"

#include <cstdio>
#include <unistd.h>

namespace tool {

ProgressBar::ProgressBar(std::string label, uint64_t total)
    : label_(std::move(label)), total_(total ? total : 1), terminal_(isatty(fileno(stdout)) != 0) {}

void ProgressBar::update(uint64_t done) {
    int percent = int(done * 100 / total_);
    if (percent > 100) percent = 100;
    if (terminal_) {
        auto now = std::chrono::steady_clock::now();
        if (percent == lastShown_ || (now - lastDraw_ < std::chrono::milliseconds(50) && percent < 100)) return;
        lastDraw_ = now;
        const int width = 30;
        int filled = percent * width / 100;
        std::printf("\r  %-28s [%.*s%*s] %3d%%", label_.c_str(), filled, "##############################",
                    width - filled, "", percent);
        std::fflush(stdout);
    } else if (percent / 25 != lastShown_ / 25 || lastShown_ < 0) {
        std::printf("  %s: %d%%\n", label_.c_str(), percent);
    }
    lastShown_ = percent;
}

void ProgressBar::finish() {
    if (finished_) return;
    finished_ = true;
    if (lastShown_ < 100) update(total_);
    if (terminal_) std::printf("\n");
}

} // namespace tool
