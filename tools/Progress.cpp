#include "tools/Progress.h"

#include <unistd.h>

namespace tool {

std::string byteText(double bytes) {
    static const char* const units[] = {"B", "KB", "MB", "GB", "TB"};
    int u = 0;
    while (bytes >= 1024.0 && u < 4) {
        bytes /= 1024.0;
        ++u;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
    return buf;
}

ProgressBar::ProgressBar(std::string label, uint64_t total) : ProgressBar(std::move(label), total, Style{}) {}

ProgressBar::ProgressBar(std::string label, uint64_t total, const Style& style)
    : label_(std::move(label)), total_(total ? total : 1), out_(style.out),
      terminal_(style.terminal < 0 ? isatty(fileno(style.out)) != 0 : style.terminal != 0), bytes_(style.bytes) {}

std::string ProgressBar::rateAndTimeLeft(uint64_t done) const {
    if (!bytes_) return {};
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::string text = "  " + byteText(double(done)) + " of " + byteText(double(total_));
    if (seconds < 0.2 || done == 0) return text;
    double rate = double(done) / seconds;
    text += "  " + byteText(rate) + "/s";
    if (done < total_) {
        long left = long(double(total_ - done) / rate + 0.5);
        char buf[32];
        std::snprintf(buf, sizeof buf, "  %ld:%02ld left", left / 60, left % 60);
        text += buf;
    }
    return text;
}

void ProgressBar::update(uint64_t done) {
    lastDone_ = done;
    int percent = int(done * 100 / total_);
    if (percent > 100) percent = 100;
    if (terminal_) {
        auto now = std::chrono::steady_clock::now();
        if (drawn_ && percent < 100 && (now - lastDraw_ < std::chrono::milliseconds(bytes_ ? 200 : 50) ||
                                        (!bytes_ && percent == lastShown_)))
            return;
        lastDraw_ = now;
        const int width = 30;
        int filled = percent * width / 100;
        std::fprintf(out_, "\r\033[K  %-28s [%.*s%*s] %3d%%%s", label_.c_str(), filled,
                     "##############################", width - filled, "", percent, rateAndTimeLeft(done).c_str());
        std::fflush(out_);
        drawn_ = true;
    } else if (percent / 25 != lastShown_ / 25 || lastShown_ < 0) {
        std::fprintf(out_, "  %s: %d%%%s\n", label_.c_str(), percent, rateAndTimeLeft(done).c_str());
        std::fflush(out_);
    }
    lastShown_ = percent;
}

void ProgressBar::clear() {
    if (!terminal_ || !drawn_) return;
    std::fprintf(out_, "\r\033[K");
    drawn_ = false;
}

void ProgressBar::finish() {
    if (finished_) return;
    finished_ = true;
    if (lastShown_ < 100) {
        drawn_ = false; // the last figure is always drawn
        update(total_);
    }
    if (terminal_) std::fprintf(out_, "\n");
    std::fflush(out_);
}

} // namespace tool
