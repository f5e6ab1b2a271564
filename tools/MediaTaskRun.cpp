#include "tools/MediaTaskRun.h"

#include "host/core/Strings.h"
#include "host/tasks/TaskLog.h"
#include "tools/Command.h"
#include "tools/ProjectItems.h"
#include "tools/TaskView.h"

#include <cstdio>

namespace tool {

bool itemCookies(const std::vector<std::string>& items, CookieVec& out, std::string& error) {
    for (const std::string& text : items) {
        Cookie edit;
        if (!findItem(text, edit, error)) return false;
        out.add(edit);
    }
    return true;
}

namespace {

// The last error line of the log: what a failed task said about its failure.
std::string lastError(const Zn::Ptr<iTaskLog>& log) {
    std::string text;
    for (const auto& e : log->getEntries())
        if (e.severity >= iTaskLog::eError) text = utf8(e.text);
    return text;
}

} // namespace

int followDownload(const Zn::Ptr<DownloadTask>& task, const std::string& command, const std::string& label) {
    if (!task) return fail(kFailure, command + ": the task queue has ended");
    TaskView::Options options;
    options.label = label;
    TaskView view(options);
    view.follow(task);
    const DownloadTask::eResult result = task->result();
    if (view.interrupted() || task->getStatus() == iBackgroundTask::eCancelled ||
        result == DownloadTask::eResult::eCancelled)
        return fail(kFailure, command + ": stopped by Ctrl-C; the file in hand was abandoned, those before it stay");
    if (result == DownloadTask::eResult::eNoSpace) return fail(kFailure, command + ": " + lastError(task->getLog()));
    if (result != DownloadTask::eResult::eDone) {
        const std::string why = lastError(task->getLog());
        return fail(kFailure, command + ": " + (why.empty() ? std::string("the task failed") : why));
    }
    std::printf("%zu file(s) copied, %s in %.1f s\n", task->writtenFiles().size(),
                utf8(bytesAsString(task->totalBytes())).c_str(), task->getLifetime());
    return kOk;
}

} // namespace tool
