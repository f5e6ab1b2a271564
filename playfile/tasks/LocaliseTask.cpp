// The localise task: which materials it takes, pointing the project at each local copy,
// and the space check per destination drive.
#include "playfile/tasks/LocaliseTask.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/EditModifier.h"
#include "host/project/MaterialLink.h"
#include "host/project/SystemCache.h"
#include "host/tasks/TaskLog.h"
#include "playfile/material/MaterialManager.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/tasks/ExternalDownloadTask.h"

void LocaliseTask::run() {
    std::set<Cookie> materials;
    const bool remoteOnly = args().kind == eLocaliseRemote;
    for (const Cookie& clip : args().clips) {
        EditPtr edit;
        if (!edit.i_open(clip, eEditOpenReadOnly) || !edit->isImported()) continue;
        if (remoteOnly && !MaterialManager::canDownload(clip, args().types)) continue;
        for (const ClipMediaFile& f : SystemCache::getClipMediaFiles(clip))
            if (!remoteOnly || MaterialManager::isMediaRemote(f.cookie, args().types)) materials.insert(f.cookie);
    }
    if (download(materials) == eResult::eNoSpace) return;
    for (const Cookie& clip : args().clips) {
        EditPtr edit;
        if (!edit.i_open(clip)) continue;
        EditModifier modifier(edit);
        edit->addModification(EditModification(eEditModMediaChanged, 1), true);
    }
}

iFileManager::eCopyRC LocaliseTask::save(const CopyJob& job) {
    const iFileManager::eCopyRC rc = DownloadTask::save(job, job.file.getOsPath());
    updateStatus(job, rc);
    return rc;
}

iFileManager::eCopyRC LocaliseTask::savefile(const WString& src, const WString& dst) {
    const iFileManager::eCopyRC rc = DownloadTask::savefile(src, dst);
    // An instance of an older file of that name must not be read in place of the copy.
    if (rc == iFileManager::eCopyOK) PlayFileCache::Shared().remove(dst);
    return rc;
}

void LocaliseTask::updateStatus(const CopyJob& job, iFileManager::eCopyRC rc) {
    const WString destination = job.file.getOsPath();
    if (rc != iFileManager::eCopyOK) {
        LogBoth("cancel download for %ls\n", job.source.c_str());
        SystemCache::removeProxyFile(job.cookie, job.file);
        SystemCache::updateStatus(job.cookie, kMediaAll);
        return;
    }
    if (job.file.isProxy()) {
        LogBoth("rename proxy for %ls\n", job.source.c_str());
        SystemCache::renameProxyFile(job.cookie, destination, destination);
    } else if (Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(job.cookie)) {
        EditPtr edit;
        edit.i_open(job.cookie, eEditOpenReadOnly);
        if (isImageSequence(edit, job.source)) {
            // The sequence now lies in a folder of its own, first frame first.
            entry->setLinkedFilename(joinPaths(stripExtension(destination), stripPath(job.source)));
        } else {
            const WString old = entry->getLinkedFilename();
            if (!old.empty()) MaterialLink::createLink(old, destination, true);
            entry->addFile(job.file);
        }
        entry->updateFileSize();
    }
    // The remote file's instance goes too: whatever reads the material now opens the copy.
    PlayFileCache::Shared().remove(job.source);
}

bool LocaliseTask::sufficientDiskSpace(const std::vector<CopyJob>& jobs, Zn::Ptr<iTaskLog> log) const {
    std::set<DriveId> drives;
    for (const CopyJob& job : jobs) drives.insert(job.file.getMaterialFilename().getDrive());
    for (const DriveId& id : drives) {
        if (id.isNone()) continue;
        const Zn::Ptr<MediaDrive> drive = DiskManager::getDriveWithUniqueId(id);
        const uint64_t freeBytes = drive ? drive->getSpaceBytes() : 0;
        if (totalBytes() <= freeBytes) continue;
        if (log) log->addLine(notEnoughSpaceText(freeBytes, totalBytes()), iTaskLog::eError, iTaskLog::eKindError);
        return false;
    }
    return true;
}
