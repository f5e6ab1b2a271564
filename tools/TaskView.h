// Follows a background task for a person at the console: the lines of its log as they are
// written, and its progress (a bar weighted by bytes, with throughput and time left, on a
// terminal; a few plain lines otherwise). Ctrl-C while it runs sets Escape and asks the
// task to cancel (status 3), and the task decides where it stops; a second Ctrl-C ends
// the program at once.
#pragma once

#include "host/tasks/BackgroundTask.h"
#include "host/tasks/TaskLog.h"

#include <csignal>
#include <cstdio>
#include <string>

namespace tool {

class TaskView {
public:
    // Catches the first Ctrl-C for its life (a second one has the default effect): a
    // view holds one while it follows a task, and a command that queues a task itself
    // makes one first, so that a Ctrl-C before the view starts is not lost.
    class CatchInterrupts {
    public:
        CatchInterrupts();
        ~CatchInterrupts();
        CatchInterrupts(const CatchInterrupts&) = delete;
        CatchInterrupts& operator=(const CatchInterrupts&) = delete;

    private:
        struct sigaction previous_ {};
    };

    struct Options {
        FILE* out = stdout;
        int terminal = -1;     // as ProgressBar::Style::terminal
        bool showLines = true;    // false leaves the log's lines to the caller (--json)
        bool showProgress = true; // false draws no progress either
        std::string label = "working";
    };

    explicit TaskView(Options options) : options_(std::move(options)) {}

    // Queues the task on the process's task queue and follows it until it has ended.
    // Answers false when the queue refused it.
    bool run(const Zn::Ptr<BackgroundTaskBase>& task);
    // Follows a task already queued on the process's task queue until it has ended.
    void follow(const Zn::Ptr<BackgroundTaskBase>& task);
    // Whether Ctrl-C was pressed while the task ran.
    bool interrupted() const noexcept { return interrupted_; }

    // One log line as the view prints it: errors and warnings get a prefix, headings
    // stand out, hyperlink entries list their files below their text.
    static std::string format(const iTaskLog::Entry& entry);

private:
    Options options_;
    bool interrupted_ = false;
};

} // namespace tool
