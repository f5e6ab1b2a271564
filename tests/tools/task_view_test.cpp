// The program's view of a running task: log lines in order, progress plain or drawn with
// throughput, Ctrl-C as Escape and cancellation.
#include "host/tasks/BackgroundTaskQueue.h"
#include "host/tasks/Logger.h"
#include "host/tasks/SystemWatchdog.h"
#include "tools/TaskView.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

namespace {

struct ScriptTask final : BackgroundTaskBase {
    explicit ScriptTask(std::function<void(LoggerHandle&)> body) : body(std::move(body)) {}
    void run() override {
        LoggerHandle logger(getLog());
        body(logger);
    }
    std::function<void(LoggerHandle&)> body;
};

// Runs the task in a view writing to a temporary file and answers what it printed.
std::string viewed(const Zn::Ptr<BackgroundTaskBase>& task, int terminal, bool* interrupted = nullptr) {
    FILE* out = std::tmpfile();
    tool::TaskView view({.out = out, .terminal = terminal, .label = "copying"});
    EXPECT_TRUE(view.run(task));
    if (interrupted) *interrupted = view.interrupted();
    std::string text;
    std::rewind(out);
    for (int c; (c = std::fgetc(out)) != EOF;) text += char(c);
    std::fclose(out);
    return text;
}

void copyTwoFiles(LoggerHandle& logger) {
    logger.write(L"Building file list", LoggerBase::eHeading);
    logger.startSubTasks({3u << 20, 1u << 20});
    auto client = static_cast<iProgressClient*>(logger.progressClient());
    for (double f : {0.3, 0.6, 1.0}) client->reportProgress(f);
    logger.nextSubTask();
    logger.write(L"Could not write the file /x", LoggerBase::eError);
    logger.nextSubTask();
    logger.endSubTasks();
    logger.write(L"Material copy finished.", LoggerBase::eHeading);
}

} // namespace

// The process's queue lives here rather than with the queue's own tests: its worker
// thread stays up to the end, which processes forked by those tests would report.
TEST(TaskView, TheProcessQueueRunsTasksOnItsOneWorker) {
    auto& queue = UIBackgroundTasksQueue::instance();
    EXPECT_EQ(&queue, &UIBackgroundTasksQueue::instance());
    EXPECT_EQ(queue.workerCount(), 1u);
    Zn::Ptr<BackgroundTaskBase> seen;
    auto task = Zn::makePtr<ScriptTask>([&seen](LoggerHandle&) { seen = BackgroundTaskBase::current(); });
    ASSERT_TRUE(queue.queue(task));
    task->waitForCompletion();
    EXPECT_EQ(seen.get(), task.get());
    EXPECT_EQ(task->getStatus(), iBackgroundTask::eFinished);
}

TEST(TaskView, PrintsTheLogInOrderWithProgressAsPlainLines) {
    auto task = Zn::makePtr<ScriptTask>(copyTwoFiles);
    std::string out = viewed(task, 0);
    EXPECT_EQ(task->getStatus(), iBackgroundTask::eFinished);
    size_t heading = out.find("== Building file list\n");
    size_t error = out.find("error: Could not write the file /x\n");
    size_t done = out.find("== Material copy finished.\n");
    ASSERT_NE(heading, std::string::npos) << out;
    ASSERT_NE(error, std::string::npos) << out;
    ASSERT_NE(done, std::string::npos) << out;
    EXPECT_LT(heading, error);
    EXPECT_LT(error, done);
    EXPECT_NE(out.find("  copying: 100%  4.0 MB of 4.0 MB"), std::string::npos) << out;
    EXPECT_EQ(out.find('\r'), std::string::npos) << "no redrawing off a terminal";
}

TEST(TaskView, DrawsABarOnATerminal) {
    auto task = Zn::makePtr<ScriptTask>([](LoggerHandle& logger) {
        logger.startSubTasks({8u << 20});
        auto client = static_cast<iProgressClient*>(logger.progressClient());
        for (int i = 1; i <= 10; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            client->reportProgress(i / 10.0);
        }
        logger.endSubTasks();
    });
    std::string out = viewed(task, 1);
    EXPECT_NE(out.find("\r\033[K  copying"), std::string::npos) << out;
    EXPECT_NE(out.find("##############################] 100%  8.0 MB of 8.0 MB"), std::string::npos) << out;
    EXPECT_NE(out.find("/s"), std::string::npos) << "throughput shown: " << out;
}

TEST(TaskView, CtrlCSetsEscapeAndCancelsTheTask) {
    g_esc_pressed = false;
    auto task = Zn::makePtr<ScriptTask>([](LoggerHandle& logger) {
        std::raise(SIGINT);
        while (BackgroundTaskQueueBase::getCurrentTaskStatus() != iBackgroundTask::eCancelled)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        logger.write(L"stopped between files");
    });
    bool interrupted = false;
    std::string out = viewed(task, 0, &interrupted);
    EXPECT_TRUE(interrupted);
    EXPECT_TRUE(g_esc_pressed.load());
    EXPECT_EQ(task->getStatus(), iBackgroundTask::eCancelled);
    EXPECT_NE(out.find("stopped between files\n"), std::string::npos) << "the task's last lines still shown";
    g_esc_pressed = false;
}
