// ExternalDownloadTask: the download task that copies the remote media of clips into a
// folder of the user's choosing, outside the managed media drives, each copy named after
// its clip or after its source file, proxies marked by a proxy extension. A name made
// from a clip's name always stays a single name inside the folder (no separators, no
// "..", no control characters, short enough for ".partial" to be appended), and two
// copies of one task never get the same name.
//
// Runs on a task-queue thread like every DownloadTask; the set of names used is the
// task's own and touched by that thread only.
#pragma once

#include "host/core/JSON.h"
#include "playfile/Export.h"
#include "playfile/tasks/DownloadTask.h"

#include <set>
#include <string>

class PLAYFILE_API ExternalDownloadTask final : public DownloadTask {
public:
    // The settings a host keeps between sessions, as JSON:
    // {"Location": folder, "ProxyExt": extension, "Naming": "clip" | "file"}.
    class Settings : public JSON::iPersistable {
    public:
        enum eNaming : int { eNameByClip = 0, eNameByFile = 1 };

        WString location;
        int naming = eNameByFile;
        WString proxyExt;

        void write(JSON::Builder& builder) const override;
        // Naming is by clip only for exactly "clip"; usable only when the location and the
        // proxy extension are both given and not empty.
        bool read(const Zn::Ptr<JSON::Element>& element) override;
    };

    ExternalDownloadTask(const Args& args, const Settings& settings);

    const Settings& settings() const noexcept { return settings_; }
    // The destination folder: the location as written on any system, made local.
    WString folder() const;
    // The name (without folder) that the job's copy gets; edit is the job's clip, or null.
    // A number above 1 is appended to the name's base ("clip_2.mov").
    WString destinationName(const CopyJob& job, EditPtr& edit, int number = 1) const;

protected:
    void run() override;
    iFileManager::eCopyRC save(const CopyJob& job) override;
    // Room only when the total is strictly below the free bytes of the location's volume;
    // a location whose free space cannot be told has none.
    bool sufficientDiskSpace(const std::vector<CopyJob>& jobs, Zn::Ptr<iTaskLog> log) const override;

private:
    Settings settings_;
    std::set<std::wstring> used_;
};

// The "not enough space" message, with free and needed bytes.
WString notEnoughSpaceText(uint64_t freeBytes, uint64_t neededBytes);
