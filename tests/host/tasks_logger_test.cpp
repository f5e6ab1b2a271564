// Task logs, loggers with weighted sub-tasks, the watchdog's life support.
#include "host/tasks/Logger.h"
#include "host/tasks/SystemWatchdog.h"
#include "host/tasks/TaskLog.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

struct LoggedLine {
    std::wstring text;
    int severity;
    int kind;
    bool operator==(const LoggedLine&) const = default;
};

std::vector<LoggedLine> linesOf(const Zn::Ptr<iTaskLog>& log) {
    std::vector<LoggedLine> out;
    for (const auto& e : log->getEntries()) out.push_back({e.text.str(), e.severity, e.kind});
    return out;
}

} // namespace

TEST(TaskLogger, WritesLinesWithTheirSeverityAndKind) {
    Zn::Ptr<iTaskLog> log = Zn::makePtr<TaskLog>();
    LoggerHandle logger(log);
    logger.write(L"Building file list", LoggerBase::eHeading);
    logger->Out("\n%d file(s) to process\n\n", 3);
    logger->Out("%ls -> %s", L"caf\u00e9.mov", "b");
    logger.write(L"Failed", LoggerBase::eError);
    logger.write(L"Careful", LoggerBase::eWarning);
    logger.write(L"");
    const std::vector<LoggedLine> expected = {
        {L"Building file list", iTaskLog::eInfo, iTaskLog::eKindHeading},
        {L"", iTaskLog::eInfo, iTaskLog::eKindNormal},
        {L"3 file(s) to process", iTaskLog::eInfo, iTaskLog::eKindNormal},
        {L"", iTaskLog::eInfo, iTaskLog::eKindNormal},
        {L"caf\u00e9.mov -> b", iTaskLog::eInfo, iTaskLog::eKindNormal},
        {L"Failed", iTaskLog::eError, iTaskLog::eKindError},
        {L"Careful", iTaskLog::eWarning, iTaskLog::eKindWarning},
        {L"", iTaskLog::eInfo, iTaskLog::eKindNormal},
    };
    EXPECT_EQ(linesOf(log), expected);

    log->addHyperlink(WString(L"Downloaded"), WString(L"/media/out"), {WString(L"a.mov"), WString(L"b.mov")},
                      iTaskLog::eKindResult);
    auto last = log->getEntries(log->entryCount() - 1);
    ASSERT_EQ(last.size(), 1u);
    EXPECT_EQ(last[0].type, iTaskLog::Entry::eHyperlink);
    EXPECT_EQ(last[0].folder.str(), L"/media/out");
    EXPECT_EQ(last[0].files.size(), 2u);

    // A long formatted line is not cut.
    std::string longName(2000, 'x');
    logger->Out("%s", longName.c_str());
    EXPECT_EQ(log->getEntries(log->entryCount() - 1)[0].text.size(), 2000u);

    LoggerHandle nowhere; // writes nowhere, and does not fail
    nowhere->Out("%d", 1);
    nowhere.startSubTasks({1, 2});
    nowhere.nextSubTask();
    nowhere.endSubTasks();
}

// The fraction of the whole follows the sizes of the sub-tasks, at every level.
TEST(TaskLogger, SubTasksWeightProgressBySize) {
    Zn::Ptr<iTaskLog> log = Zn::makePtr<TaskLog>();
    LoggerHandle logger(log);
    auto client = static_cast<iProgressClient*>(logger.progressClient());
    auto fraction = [&] { return log->getProgress().fraction; };

    logger.startSubTasks({100, 300});
    EXPECT_EQ(log->getProgress().totalBytes, 400u);
    client->reportProgress(0.5);
    EXPECT_DOUBLE_EQ(fraction(), 0.125);
    logger.nextSubTask();
    EXPECT_DOUBLE_EQ(fraction(), 0.25);

    LoggerHandle copy = logger; // shares the levels, as an operation's callee does
    copy.startSubTasks({200, 0, 100});
    client->reportProgress(1.0);
    EXPECT_DOUBLE_EQ(fraction(), 0.25 + 0.75 * 2 / 3);
    copy.nextSubTask();
    copy.nextSubTask(); // the empty file weighs nothing
    client->reportProgress(0.5);
    EXPECT_DOUBLE_EQ(fraction(), 0.25 + 0.75 * 2.5 / 3);
    copy.endSubTasks(); // stopped early: the whole stays where it got to
    EXPECT_DOUBLE_EQ(fraction(), 0.25 + 0.75 * 2.5 / 3);
    logger.nextSubTask();
    EXPECT_DOUBLE_EQ(fraction(), 1.0);
    client->reportProgress(0.2); // past the last sub-task: nothing moves back
    EXPECT_DOUBLE_EQ(fraction(), 1.0);
    logger.endSubTasks();

    // Sizes that are all zero count the sub-tasks equally; a new outermost start begins
    // at zero again.
    logger.startSubTasks({0, 0, 0, 0});
    EXPECT_DOUBLE_EQ(fraction(), 0.0);
    logger.nextSubTask();
    client->reportProgress(0.5);
    EXPECT_DOUBLE_EQ(fraction(), 0.375);
    logger.endSubTasks();
}

TEST(TaskLog, WaitsForChangesFromAnotherThread) {
    Zn::Ptr<iTaskLog> log = Zn::makePtr<TaskLog>();
    uint64_t seen = log->changeCount();
    EXPECT_FALSE(log->waitForChange(seen, 10));
    std::thread writer([&] { log->setProgress(1.5, WString(L"done")); });
    EXPECT_TRUE(log->waitForChange(seen, 20000));
    writer.join();
    EXPECT_DOUBLE_EQ(log->getProgress().fraction, 1.0) << "clamped";
    EXPECT_EQ(log->getProgress().text.str(), L"done");
}

TEST(SystemWatchdog, LifeSupportNestsAcrossThreadsAndHidesAHang) {
    SystemWatchdog::heartbeat();
    EXPECT_FALSE(SystemWatchdog::isHung(60000));
    int before = SystemWatchdog::lifeSupportCount();
    testing_support::inThreads(4, [](int) {
        for (int i = 0; i < 1000; ++i) {
            SystemWatchdog::LifeSupport hold;
            EXPECT_TRUE(SystemWatchdog::isOnLifeSupport());
            EXPECT_FALSE(SystemWatchdog::isHung(0));
        }
    });
    EXPECT_EQ(SystemWatchdog::lifeSupportCount(), before);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(SystemWatchdog::isHung(1));
    SystemWatchdog::beginLifeSupport();
    EXPECT_FALSE(SystemWatchdog::isHung(1));
    SystemWatchdog::endLifeSupport();
}
