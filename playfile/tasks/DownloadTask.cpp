// The common procedure of the download tasks: copy jobs from materials, the run over the
// jobs, the ".partial" copy of one file, image sequences frame by frame, progress and
// the failure messages.
#include "playfile/tasks/DownloadTask.h"

#include "host/core/SafeFileNames.h"
#include "host/core/Strings.h"
#include "host/os/OS.h"
#include "host/os/PartialCopy.h"
#include "host/os/Resources.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/SystemCache.h"
#include "host/tasks/BackgroundTaskQueue.h"
#include "host/tasks/TaskLog.h"
#include "playfile/tasks/TaskMessages.h"

#include <string>

namespace {

iFileManager* files() { return OS()->fileManager(); }

} // namespace

DownloadTask::DownloadTask(const Args& args)
    : BackgroundTaskBase(args.title, args.importance), args_(args) {}

DownloadTask::~DownloadTask() = default;

double DownloadTask::getProgress() const {
    const uint64_t total = total_.load(std::memory_order_relaxed);
    if (total == 0) return 0.0;
    const uint64_t done = current_.load(std::memory_order_relaxed) + finished_.load(std::memory_order_relaxed);
    return double(float(done) / float(total));
}

void DownloadTask::updateProgress() {
    if (auto log = getLog()) log->setProgress(getProgress(), WString(), countingFrames_ ? 0 : totalBytes());
}

bool DownloadTask::copyProgress(void* self, uint64_t bytesCopied, uint64_t /*bytesTotal*/) {
    auto* task = static_cast<DownloadTask*>(self);
    task->current_.store(bytesCopied, std::memory_order_relaxed);
    task->updateProgress();
    return task->getStatus() != eCancelled;
}

void DownloadTask::logError(const WString& text) {
    if (auto log = getLog()) log->addLine(text, iTaskLog::eError, iTaskLog::eKindError);
}

void DownloadTask::logCopyFailure(iFileManager::eCopyRC rc, const WString& file) {
    switch (rc) {
    case iFileManager::eCopyOK:
    case iFileManager::eCopyCancelled: return; // a cancellation is not a failure
    case iFileManager::eCopyFailed: logError(substitute(resourceStrW(kMsgCouldNotWrite), L"$FILE$", file)); return;
    case iFileManager::eCopyNoSpace: logError(resourceStrW(ZnResult{2}, eResStrTextAndCode)); return;
    default: logError(WString(L"Error copying/downloading file") + L" (" + file + L")"); return;
    }
}

bool DownloadTask::isImageSequence(EditPtr& edit, const WString& file) {
    if (!edit || !edit->isImage()) return false;
    const WString second = Zn::FilespecUtils::getSEQFileName(file, 1);
    return !second.empty() && files()->fileExists(second);
}

bool DownloadTask::sufficientDiskSpace(const std::vector<CopyJob>&, Zn::Ptr<iTaskLog>) const { return true; }

std::vector<DownloadTask::CopyJob> DownloadTask::makeJobs(const std::set<Cookie>& materials) {
    const DriveId driveId = args_.drive.isNone() ? DiskManager::getDriveForTask("import", true) : args_.drive;
    const Zn::Ptr<MediaDrive> drive = DiskManager::getDriveWithUniqueId(driveId);
    std::vector<CopyJob> jobs;
    std::set<std::wstring> sources, destinations;
    auto addJobsFor = [&](const Cookie& material) {
        const Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(material);
        if (!entry) return;
        const WString folder = drive ? drive->getFolder(material) : WString();
        auto add = [&](const WString& source, bool proxy) {
            if (source.empty() || !sources.insert(source.str()).second) return;
            // The name leaves room for the ".partial" suffix while the copy is written.
            const size_t fits = Zn::FilespecUtils::kMaxNameBytes - Zn::PartialCopy::kSuffixBytes;
            auto in = [&](const WString& name) {
                return folder.empty() ? WString() : joinPaths(folder, Zn::FilespecUtils::fitFilename(name, fits));
            };
            WString destination = in(stripPath(source));
            if (destination == source) return; // already there
            // Two sources of one name, or a file of that name already on the drive that
            // is not this one: the material's cookie tells the copy apart.
            if (!destination.empty() && (destinations.count(destination.str()) || files()->fileExists(destination))) {
                const WString ext = getExtension(source);
                destination = in(stripPathAndExt(source) + L"_" + material.asWString() + (ext.empty() ? WString() : L"." + ext));
            }
            destinations.insert(destination.str());
            const int64_t size = files()->fileSize(source);
            MediaFileInfo info(MaterialFilename::fromOsPath(destination), size < 0 ? 0 : uint64_t(size));
            info.setProxy(proxy);
            jobs.push_back({material, source, MediaFileInfoEx(info, info.getSize())});
        };
        if ((args_.types & kMediaHighRes) && entry->hasFile()) add(entry->getPhysicalFilename(false), false);
        if (args_.types & kMediaProxy)
            for (const MediaFileInfo& proxy : entry->getProxyFiles()) add(proxy.getPhysicalFilename(false), true);
    };
    // Video material first: a file that holds a clip's pictures and its sound goes to
    // the video folder.
    for (const Cookie& material : materials)
        if (material.type() == 'V') addJobsFor(material);
    for (const Cookie& material : materials)
        if (material.type() != 'V') addJobsFor(material);
    return jobs;
}

DownloadTask::eResult DownloadTask::download(const std::set<Cookie>& materials) {
    auto finish = [this](eResult r) {
        result_.store(r, std::memory_order_release);
        return r;
    };
    const std::vector<CopyJob> jobs = makeJobs(materials);
    uint64_t total = 0;
    for (const CopyJob& job : jobs) total += job.file.getFileSize();
    total_ = total;
    finished_ = current_ = 0;
    updateProgress();
    if (!sufficientDiskSpace(jobs, getLog())) return finish(eResult::eNoSpace);
    for (const CopyJob& job : jobs) {
        if (getStatus() == eCancelled) return finish(eResult::eCancelled);
        const iFileManager::eCopyRC rc = save(job);
        if (rc != iFileManager::eCopyOK)
            return finish(rc == iFileManager::eCopyCancelled ? eResult::eCancelled : eResult::eFailed);
        finished_ += job.file.getFileSize();
        current_ = 0;
        updateProgress();
    }
    return finish(eResult::eDone);
}

iFileManager::eCopyRC DownloadTask::save(const CopyJob& job, const WString& name) {
    EditPtr edit;
    edit.i_open(job.cookie, eEditOpenReadOnly);
    WString what = edit ? edit->getName() : stripPath(job.source);
    if (job.file.isProxy()) what = what + L" (" + resourceStrW(kMsgProxy) + L")";
    if (auto log = getLog()) log->addLine(what, iTaskLog::eInfo, iTaskLog::eKindNormal);
    const bool sequence = isImageSequence(edit, job.source);
    const iFileManager::eCopyRC rc = sequence ? saveImageSequence(job.source, name) : savefile(job.source, name);
    edit.i_close();
    if (rc == iFileManager::eCopyOK) written_.push_back(sequence ? stripExtension(name) : name);
    return rc;
}

iFileManager::eCopyRC DownloadTask::savefile(const WString& src, const WString& dst) {
    if (dst.empty()) return iFileManager::eCopyNoDestination;
    current_ = 0;
    const Zn::PartialCopy::Result r =
        Zn::PartialCopy::copy(src, dst, [this](uint64_t done, uint64_t total) { return copyProgress(this, done, total); });
    if (r.discardedStale)
        if (auto log = getLog())
            log->addLine(substitute(resourceStrW(kMsgStalePartial), L"$FILE$", Zn::PartialCopy::partialName(dst)),
                         iTaskLog::eNotice, iTaskLog::eKindDetail);
    if (r.rc != iFileManager::eCopyOK) logCopyFailure(r.rc, dst);
    return r.rc;
}

iFileManager::eCopyRC DownloadTask::saveImageSequence(const WString& src, const WString& dst) {
    const WString folder = stripExtension(dst);
    if (!files()->createDirectory(folder)) {
        logCopyFailure(iFileManager::eCopyFailed, folder);
        return iFileManager::eCopyFailed;
    }
    std::vector<WString> frames;
    for (int64_t n = 0;; ++n) {
        WString frame = Zn::FilespecUtils::getSEQFileName(src, n);
        if (frame.empty() || !files()->fileExists(frame)) break;
        frames.push_back(std::move(frame));
    }
    // While the sequence is copied, progress counts its frames.
    const uint64_t total = total_, finished = finished_;
    countingFrames_ = true;
    total_ = frames.size();
    finished_ = current_ = 0;
    iFileManager::eCopyRC rc = iFileManager::eCopyOK;
    for (const WString& frame : frames) {
        rc = imageSeqCopyFiles(frame, joinPaths(folder, stripPath(frame)));
        if (rc != iFileManager::eCopyOK) break;
        ++finished_;
        updateProgress();
    }
    countingFrames_ = false;
    total_ = total;
    finished_ = finished;
    return rc;
}

iFileManager::eCopyRC DownloadTask::imageSeqCopyFiles(const WString& src, const WString& dst) {
    const iFileManager::eCopyRC rc = files()->copyFile(src, dst, {}, true);
    if (rc != iFileManager::eCopyOK) {
        logCopyFailure(rc, dst);
        return rc;
    }
    const bool cancelled = BackgroundTaskQueueBase::getCurrentTaskStatus() == eCancelled || getStatus() == eCancelled;
    return cancelled ? iFileManager::eCopyCancelled : iFileManager::eCopyOK;
}
