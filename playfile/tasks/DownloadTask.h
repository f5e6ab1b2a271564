// DownloadTask: the background task that brings the media files of a set of clips onto
// local storage. It turns the clips' material into copy jobs (one per distinct source
// file), asks its subclass whether there is room, copies each file under its final name
// followed by ".partial" with progress reports, and renames it into place. Subclasses
// (ExternalDownloadTask, LocaliseTask) say which materials to fetch (run) and where each
// file goes (save).
//
// Progress counts bytes: the bytes of the file in hand plus those of the files finished,
// over the total of all jobs (an image sequence counts its frames while it is copied).
// Cancellation is the task's status eCancelled, looked at by the copy's progress callback
// and between the frames of a sequence; the file in hand stops and its ".partial" goes.
//
// Threads: the task runs on one task-queue thread; the counters are atomics because a
// front end reads the progress from another. Copies to one destination are serialised
// (Zn::PartialCopy), so two tasks never share a ".partial". No lock of its own.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/os/FileManager.h"
#include "host/project/DriveId.h"
#include "host/tasks/BackgroundTask.h"
#include "playfile/Export.h"
#include "playfile/material/LogicalMediaFile.h"
#include "playfile/open/MediaTypes.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <vector>

class EditPtr;

class PLAYFILE_API DownloadTask : public BackgroundTaskBase {
public:
    // What the run came to.
    enum class eResult : int { eFailed = 0, eDone = 1, eNoSpace = 2, eCancelled = 3 };
    // What the task is asked to do with the media: make remote media local, or copy it
    // onto a given drive.
    enum eKind : int { eLocaliseRemote = 2, eCopyToDrive = 3 };

    struct Args {
        std::set<Cookie> clips;
        WString title;
        int importance = iBackgroundTask::eNormalImportance;
        // Which files of each material: kMediaHighRes, kMediaProxy.
        eMediaTypes types = kMediaHighRes;
        // The destination drive; '0' leaves the choice to the task (the drive that serves
        // imports).
        DriveId drive{'0'};
        int kind = eCopyToDrive;
    };

    // One file to copy: the material it belongs to, the file to read, and the
    // destination (name, whether a proxy, size in bytes).
    struct CopyJob {
        Cookie cookie;
        WString source;
        MediaFileInfoEx file;
    };

    explicit DownloadTask(const Args& args);
    ~DownloadTask() override;

    double getProgress() const override;
    WString getID() const override { return WString(); }
    WString getDescription() const override { return args_.title; }
    int getImportance() const override { return args_.importance; }

    const Args& args() const noexcept { return args_; }
    // The outcome of the last download() (eFailed before one ran).
    eResult result() const noexcept { return result_.load(std::memory_order_acquire); }
    // The destination names written so far, in order.
    const std::vector<WString>& writtenFiles() const noexcept { return written_; }
    uint64_t totalBytes() const noexcept { return total_.load(std::memory_order_relaxed); }

    // The copy jobs for a set of material cookies: each distinct source file once (video
    // materials first, in set order, then the others), high-res files and proxies as the
    // task's media types ask, sized from the disk. The destination is the file's name in
    // the drive's folder for the material; a name taken by another job or by a file on
    // the drive gets the material's cookie appended.
    std::vector<CopyJob> makeJobs(const std::set<Cookie>& materials);

    // Whether the clip's media is an image sequence (numbered still images, of which
    // file is the first), copied frame by frame.
    static bool isImageSequence(EditPtr& edit, const WString& file);

protected:
    // The common procedure: jobs, space check, copies in order; stops at the first job
    // that fails.
    eResult download(const std::set<Cookie>& materials);

    // Where the job's file goes; the subclass calls save(job, name).
    virtual iFileManager::eCopyRC save(const CopyJob& job) = 0;
    iFileManager::eCopyRC save(const CopyJob& job, const WString& name);
    // src to dst through dst + ".partial".
    virtual iFileManager::eCopyRC savefile(const WString& src, const WString& dst);
    // The frames of the sequence whose first frame is src into the folder dst without
    // its extension.
    virtual iFileManager::eCopyRC saveImageSequence(const WString& src, const WString& dst);
    virtual iFileManager::eCopyRC imageSeqCopyFiles(const WString& src, const WString& dst);
    // Whether the destination has room for the jobs; here always.
    virtual bool sufficientDiskSpace(const std::vector<CopyJob>& jobs, Zn::Ptr<iTaskLog> log) const;

    void updateProgress();
    // The copy's progress callback, self being the task: keeps the count of the file in
    // hand and answers false (stop) once the task is cancelled.
    static bool copyProgress(void* self, uint64_t bytesCopied, uint64_t bytesTotal);
    // One failure message (severity 4) for a copy result; none for a cancellation.
    void logCopyFailure(iFileManager::eCopyRC rc, const WString& file);
    // The log line for a user-visible message with the host's severity and kind 4.
    void logError(const WString& text);

private:
    Args args_;
    std::atomic<uint64_t> current_{0};
    std::atomic<uint64_t> finished_{0};
    std::atomic<uint64_t> total_{0};
    std::atomic<eResult> result_{eResult::eFailed};
    // True while an image sequence is copied: the counters count frames, not bytes.
    std::atomic<bool> countingFrames_{false};
    std::vector<WString> written_;
};
