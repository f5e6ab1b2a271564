// DiskManager: the media drives of the current project (see EditManager): finding a
// drive by id or by task kind, free space, drive names, adding and removing drives, and
// the notice that media went on- or offline. Static: every call works on the project
// that is open at the time; with no project open there are no drives.
//
// Lock: the listener list's lock guards only the list; it is never held while a
// listener runs and may be taken with any other lock held.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/DriveId.h"
#include "host/project/MediaDrive.h"

#include <cstdint>
#include <functional>
#include <vector>

class DiskManager {
public:
    // Every drive, in the project's order.
    static std::vector<Zn::Ptr<MediaDrive>> getDrives();
    // The drive with that id, or null.
    static Zn::Ptr<MediaDrive> getDriveWithUniqueId(const DriveId& id);
    // The first drive (in order) that serves the task kind ("import", "render"). When
    // none does and fallBackToAny is set, the first drive of all; otherwise, or when the
    // project has no drives, DriveId('0').
    static DriveId getDriveForTask(const char* task, bool fallBackToAny);
    // The drive whose root holds the path (the longest matching root), or null.
    static Zn::Ptr<MediaDrive> findDriveForPath(const WString& osPath);

    // Free space of the drive's volume in megabytes (1048576 bytes); 0 when unknown.
    static int64_t getSpaceForRecording(const DriveId& id);
    // Whether the character names one of the project's drives.
    static bool isMaterialVolume(char id);
    static bool isMaterialVolume(const DriveId& id) { return isMaterialVolume(id.getUniqueId()); }
    // With label false, the drive's root followed by '/', ready for a relative path to be
    // appended; with label true, the drive's display name (its root when it has none).
    // Empty for an unknown drive.
    static WString getMaterialVolumeName(const DriveId& id, bool label);

    // Adds a drive (or changes the one with that id): root folder (created when missing),
    // display name, tasks as a comma-separated list. False with a reason in error when the
    // id is not a letter or digit other than '0', the root is not absolute, the folders
    // cannot be made, or the database refuses.
    static bool addDrive(const DriveId& id, const WString& root, const WString& name, const String& tasks,
                         WString* error = nullptr);
    // Forgets a drive; its files stay where they are.
    static bool removeDrive(const DriveId& id);

    // Tells every listener that media went on- or offline (after a relocation, say).
    static void issueMediaOnlineChangeNotification();
    static int addMediaOnlineListener(std::function<void()> listener);
    static void removeMediaOnlineListener(int token);
    // How many notices were issued in this process.
    static uint64_t mediaOnlineChangeCount();
};
