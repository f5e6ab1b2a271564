// MaterialMove: relocating material between media drives, either everything the chosen
// items (logs, clips) use or everything that lies on one drive. It builds the list of
// files to take (LogicalMediaFile), reports what it found to the operation's logger and
// hands the list to copyFiles (MaterialCopy.h), which copies, shows progress and closes
// the report.
//
// Runs on the calling thread (normally a background task that owns the logger) and holds
// no lock of its own.
#pragma once

#include "host/core/Cookie.h"
#include "host/project/DriveId.h"
#include "host/tasks/Logger.h"
#include "playfile/Export.h"

class PLAYFILE_API MaterialMove {
public:
    enum eType {
        eCopy = 0, // copies the files; the material directory keeps naming the old place
        eMove = 1, // copies, then re-points the material directory at the copies
    };

    // Relocates the material that the items use to the destination drive.
    static void relocate(const DriveId& destination, const CookieVec& items, eType type, LoggerHandle logger);
    // Relocates the material that lies on the source drive to the destination drive.
    static void relocate(const DriveId& source, const DriveId& destination, eType type, LoggerHandle logger);
};
