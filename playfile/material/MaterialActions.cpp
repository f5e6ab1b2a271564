// The material actions of the user interface: the localise and download tasks they queue,
// their titles, and showing a shot's files in the desktop's file browser.
#include "playfile/material/MaterialManager.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/os/Resources.h"
#include "host/os/Reveal.h"
#include "host/project/Edit.h"
#include "host/project/SystemCache.h"
#include "host/tasks/BackgroundTaskQueue.h"
#include "playfile/tasks/LocaliseTask.h"
#include "playfile/tasks/TaskMessages.h"

#include <algorithm>

namespace {

Zn::Ptr<DownloadTask> queued(Zn::Ptr<DownloadTask> task) {
    return UIBackgroundTasksQueue::instance().queue(task) ? task : Zn::Ptr<DownloadTask>();
}

DownloadTask::Args argsFor(const CookieVec& logs, eMediaTypes types, int importance, const WString& title) {
    DownloadTask::Args args;
    MaterialManager::getReferencedClips(logs, args.clips);
    args.types = types;
    args.importance = importance;
    args.title = title;
    return args;
}

} // namespace

WString MaterialManager::makeTaskTitle(const CookieVec& logs, const WString& prefix) {
    if (logs.size() == 1) {
        EditPtr edit;
        if (!edit.i_open(logs[0], eEditOpenReadOnly)) return prefix;
        return prefix + L" : " + edit->getName();
    }
    const WString count = substitute(resourceStrW(kMsgSeveralLogs), L"$NUM$", Zn::WStringFromInteger(int64_t(logs.size())));
    return prefix + L" : " + count;
}

Zn::Ptr<DownloadTask> MaterialManager::localiseRemoteMedia(const CookieVec& logs, eMediaTypes types,
                                                          iBackgroundTask::eImportance importance) {
    WString title = makeTaskTitle(logs, resourceStrW(kMsgLocaliseMedia));
    if (title.empty()) title = resourceStrW(kMsgLocaliseMedia);
    DownloadTask::Args args = argsFor(logs, types, importance, title);
    args.kind = DownloadTask::eLocaliseRemote;
    return queued(Zn::makePtr<LocaliseTask>(args));
}

Zn::Ptr<DownloadTask> MaterialManager::localiseMedia(const CookieVec& logs, const DriveId& destination, bool highRes,
                                                    bool proxies, iBackgroundTask::eImportance importance,
                                                    const WString& title) {
    const unsigned types = (highRes ? kMediaHighRes : kMediaNone) | (proxies ? kMediaProxy : kMediaNone);
    DownloadTask::Args args = argsFor(logs, eMediaTypes(types), importance,
                                      title.empty() ? resourceStrW(kMsgLocaliseMedia) : title);
    args.drive = destination;
    args.kind = DownloadTask::eCopyToDrive;
    return queued(Zn::makePtr<LocaliseTask>(args));
}

Zn::Ptr<DownloadTask> MaterialManager::downloadRemoteMedia(const CookieVec& logs, eMediaTypes types,
                                                          const ExternalDownloadTask::Settings& settings) {
    const DownloadTask::Args args =
        argsFor(logs, types, iBackgroundTask::eHighImportance, makeTaskTitle(logs, resourceStrW(kMsgDownloadMedia)));
    return queued(Zn::makePtr<ExternalDownloadTask>(args, settings));
}

void MaterialManager::findFilesForShot(const Cookie& shot, std::vector<WString>& out) {
    for (const Cookie& c : Edit::findCookiesForShot(shot))
        if (Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(c))
            out.push_back(entry->getPhysicalFilename(false));
}

MaterialManager::eRevealResult MaterialManager::revealFilesInOS(const Cookie& shot) {
    std::vector<WString> names;
    findFilesForShot(shot, names);
    std::vector<WString> present;
    for (const WString& name : names) {
        if (!OS()->fileManager()->fileExists(name)) {
            LogStringW(L"MaterialManager::revealFilesInOS() File missing : " + name + L"\n");
            continue;
        }
        // The materials of one clip often share a file; it is shown once.
        if (std::find(present.begin(), present.end(), name) == present.end()) present.push_back(name);
    }
    if (present.empty()) return kNoneExists;
    Zn::revealFilesInOS(present);
    return kShown;
}
