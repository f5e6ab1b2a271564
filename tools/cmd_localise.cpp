// `playfile localise`: makes the remote media of clips local, or copies clips' media onto
// a chosen media drive, as a background task of the host's queue drawn as it runs.
#include "tools/Command.h"
#include "tools/MediaTaskRun.h"
#include "tools/Options.h"
#include "tools/ProjectItems.h"
#include "tools/TaskView.h"

#include "host/project/DiskManager.h"
#include "host/project/ProjectCatalog.h"
#include "playfile/material/MaterialManager.h"

namespace tool {
namespace {

const char kLocaliseUsage[] =
    "usage: playfile localise --project DIR [ITEM...] [--to DRIVE] [--high-res] [--proxies]\n"
    "\n"
    "Without --to: copies the remote media of the clips and logs ITEM... (by cookie or\n"
    "name; every clip of the project when none is given) onto the media drive that serves\n"
    "imports, and points the project at the copies. Media is remote when it lies on a\n"
    "network file system or under one of the folders in PLAYFILE_REMOTE_PREFIXES.\n"
    "With --to: copies the media of the clips onto drive DRIVE, remote or not.\n"
    "Each file is written as NAME.partial and renamed once it is whole and on the disk.\n"
    "\n"
    "  --project DIR   the project folder, or a postgresql:// URI (required)\n"
    "  --to DRIVE      the destination drive's id\n"
    "  --high-res      the clips' own media (the default when neither kind is given)\n"
    "  --proxies       their proxy files\n"
    "\n"
    "Ctrl-C stops the copy in hand (its .partial file is removed); files copied before\n"
    "it stay copied.\n"
    "\n"
    "Exit status: 0 done (or nothing to localise), 1 stopped, not enough space, a file\n"
    "that failed to copy or a project that cannot be opened, 2 a usage error.\n";

int run(const std::vector<std::string>& args) {
    Options o;
    if (!o.parse("localise", args,
                 {{"--project", true}, {"--to", true}, {"--high-res", false}, {"--proxies", false}}))
        return fail(kUsage, o.error());
    if (!o.has("--project")) return fail(kUsage, "localise: --project DIR is required");
    const std::string to = o.value("--to");
    if (o.has("--to") && to.size() != 1) return fail(kUsage, "localise: --to takes a drive id, one character");

    std::string error;
    ProjectScope scope;
    if (!scope.open(o.value("--project"), false, error)) return fail(kFailure, "localise: " + error);
    if (o.has("--to") && !DiskManager::getDriveWithUniqueId(DriveId(to[0])))
        return fail(kUsage, "localise: the project has no drive " + to);
    CookieVec items;
    if (!itemCookies(o.positional(), items, error)) return fail(kUsage, "localise: " + error);
    if (o.positional().empty())
        for (const EditSummary& e : ProjectCatalog::edits()) items.add(e.cookie);

    const bool proxies = o.has("--proxies");
    const bool highRes = o.has("--high-res") || !proxies;
    TaskView::CatchInterrupts catcher; // the task may start before the view does
    Zn::Ptr<DownloadTask> task;
    if (o.has("--to"))
        task = MaterialManager::localiseMedia(items, DriveId(to[0]), highRes, proxies,
                                              iBackgroundTask::eNormalImportance, WString());
    else
        task = MaterialManager::localiseRemoteMedia(
            items, eMediaTypes((highRes ? unsigned(kMediaHighRes) : 0u) | (proxies ? unsigned(kMediaProxy) : 0u)),
            iBackgroundTask::eNormalImportance);
    return followDownload(task, "localise", "localising");
}

CommandRegistration reg({"localise", "make remote media local, or copy media onto a drive", kLocaliseUsage, run});

} // namespace
} // namespace tool
