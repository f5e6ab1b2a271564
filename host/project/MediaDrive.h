// MediaDrive: one media drive of the project, a folder tree that holds material files:
// its unique id character, its root, the video and sound folders below the root, and
// the task kinds ("import", "render") it serves. A snapshot of the drive table row,
// made by DiskManager; it does not change after it is made.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/DriveId.h"

#include <cstdint>

class MediaDrive : public iObject {
public:
    MediaDrive(DriveId id, const WString& name, const WString& root, const WString& videoFolder,
               const WString& soundFolder, const String& tasks);

    DriveId getUniqueId() const noexcept { return id_; }
    const WString& getName() const noexcept { return name_; }
    // The root folder, without a trailing '/' (except for "/" itself).
    const WString& getRoot() const noexcept { return root_; }
    // A folder of the drive, always ending in '/' so that it compares equal to getPath()
    // of a file inside it: 'V' (86) the video folder, 'S' (83) the sound folder, any other
    // value (0 included) the root.
    WString getLocation(int type) const;
    // The folder for a new material file of the cookie: sound folder for 'S', video
    // folder for anything else.
    WString getFolder(const Cookie& cookie) const;
    // The folder names below the root, as stored ("video", "sound").
    const WString& getVideoFolderName() const noexcept { return video_; }
    const WString& getSoundFolderName() const noexcept { return sound_; }
    // Free bytes on the drive's volume; 0 when it cannot be measured.
    uint64_t getSpaceBytes() const;
    // The comma-separated task kinds, and whether one of them is task.
    const String& getTasks() const noexcept { return tasks_; }
    bool servesTask(const char* task) const;

private:
    DriveId id_;
    WString name_, root_, video_, sound_;
    String tasks_;
};
