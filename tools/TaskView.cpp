#include "tools/TaskView.h"

#include "host/core/Strings.h"
#include "host/tasks/BackgroundTaskQueue.h"
#include "host/tasks/SystemWatchdog.h"
#include "tools/Progress.h"

#include <atomic>
#include <csignal>
#include <memory>

namespace tool {

namespace {

std::atomic<bool> g_interrupt{false};
// CatchInterrupts alive; only the outermost starts with a clean flag.
std::atomic<int> g_catchers{0};

extern "C" void onInterrupt(int) {
    g_esc_pressed.store(true);
    g_interrupt.store(true);
}

} // namespace

TaskView::CatchInterrupts::CatchInterrupts() {
    if (g_catchers++ == 0) g_interrupt = false;
    struct sigaction sa {};
    sa.sa_handler = onInterrupt;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &sa, &previous_);
}

TaskView::CatchInterrupts::~CatchInterrupts() {
    sigaction(SIGINT, &previous_, nullptr);
    --g_catchers;
}

std::string TaskView::format(const iTaskLog::Entry& entry) {
    std::string text = toUTF8(entry.text).str();
    if (entry.type == iTaskLog::Entry::eHyperlink) {
        text += (text.empty() ? "" : " ") + toUTF8(entry.folder).str();
        for (const auto& f : entry.files) text += "\n    " + toUTF8(f).str();
        return text;
    }
    if (entry.severity >= iTaskLog::eError) return "error: " + text;
    if (entry.severity == iTaskLog::eWarning) return "warning: " + text;
    if (entry.kind == iTaskLog::eKindHeading && !text.empty()) return "== " + text;
    return text;
}

bool TaskView::run(const Zn::Ptr<BackgroundTaskBase>& task) {
    CatchInterrupts catcher; // from before the task can start
    if (!UIBackgroundTasksQueue::instance().queue(task)) return false;
    follow(task);
    return true;
}

void TaskView::follow(const Zn::Ptr<BackgroundTaskBase>& task) {
    CatchInterrupts catcher;
    auto& queue = UIBackgroundTasksQueue::instance();
    Zn::Ptr<iTaskLog> log = task->getLog();
    ProgressBar::Style style;
    style.out = options_.out;
    style.terminal = options_.terminal;
    std::unique_ptr<ProgressBar> bar;
    size_t printed = 0;
    double lastFraction = -1;
    bool cancelled = false;
    uint64_t done = 0;
    for (;;) {
        uint64_t seen = log->changeCount();
        bool ended = task->hasEnded();
        if (g_interrupt && !cancelled) {
            cancelled = interrupted_ = true;
            queue.cancel(task);
        }
        SystemWatchdog::heartbeat();
        auto entries = log->getEntries(printed);
        printed += entries.size();
        if (options_.showLines && !entries.empty()) {
            if (bar) bar->clear();
            for (const auto& e : entries) std::fprintf(options_.out, "%s\n", format(e).c_str());
            std::fflush(options_.out);
            if (bar) bar->update(done);
        }
        iTaskLog::Progress p = log->getProgress();
        if (options_.showProgress && p.fraction != lastFraction && (p.fraction > 0 || bar)) {
            // Without a byte total the bar counts thousandths.
            uint64_t total = p.totalBytes ? p.totalBytes : 1000;
            style.bytes = p.totalBytes != 0;
            if (!bar) bar = std::make_unique<ProgressBar>(options_.label, total, style);
            bar->setTotal(total);
            done = uint64_t(p.fraction * double(total));
            bar->update(done);
            lastFraction = p.fraction;
        }
        if (ended && log->changeCount() == seen) break;
        log->waitForChange(seen, 100);
    }
    if (bar) bar->finish();
    task->waitForCompletion();
}

} // namespace tool
