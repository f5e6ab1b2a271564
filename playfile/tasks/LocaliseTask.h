// LocaliseTask: the download task that makes clips' media local: each file is copied onto
// a managed media drive (the one given, or the one that serves imports), then the project
// is pointed at the copy (links re-pointed, proxies renamed, the entry's file replaced),
// the open-file cache forgets both the old and the new name, and each clip is told that
// its media changed. A failed or cancelled copy leaves the clip on its old media.
//
// Kind eLocaliseRemote takes the imported clips that MaterialManager::canDownload allows,
// and of them only the materials whose media is remote; kind eCopyToDrive takes every
// material of the imported clips. Runs on a task-queue thread; no lock of its own.
#pragma once

#include "playfile/tasks/DownloadTask.h"

class LocaliseTask final : public DownloadTask {
public:
    explicit LocaliseTask(const Args& args) : DownloadTask(args) {}

protected:
    void run() override;
    iFileManager::eCopyRC save(const CopyJob& job) override;
    iFileManager::eCopyRC savefile(const WString& src, const WString& dst) override;
    // Each destination drive (other than '0') must have at least the whole total free.
    bool sufficientDiskSpace(const std::vector<CopyJob>& jobs, Zn::Ptr<iTaskLog> log) const override;

private:
    void updateStatus(const CopyJob& job, iFileManager::eCopyRC rc);
};
