// MediaLocationUtils: where the material files of a clip lie and in what state they are
// (its MediaLocationInfo), whether the clip of an edit view is offline, and the small
// name and drive functions that the material code shares: a file's bare name whatever
// separator wrote it, a material file's type from its name, the media drive holding a
// file, whether a linked file lies on a media drive, and the shots a list of logs uses.
//
// Every call is synchronous and stateless and holds no lock of its own; the answers come
// from the current project (see EditManager) and the disk. Refreshing a status through
// FsysDirectoryEntry::updateStatus stores what it found, so a query can change what a
// later one sees. Clips that do not open, materials without a directory entry and logs of
// other types give empty or false answers; nothing is reported.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/MediaDrive.h"
#include "host/project/MediaFileInfo.h"
#include "host/project/MediaLocationInfo.h"
#include "playfile/Export.h"

class EditModule;

class PLAYFILE_API MediaLocationUtils {
public:
    // The location record of a clip: for each material file it refers to (references
    // of selector 2, in order) the material cookie, and for those with a directory entry
    // the high-res and proxy statuses (refreshed from the disk), the file's folder and
    // name (a file on a remote location: its whole name as the location and an empty
    // name) and its material file name when that has a path. Empty unless the clip's log
    // type is 1, 4, 16, 32 or 1024 and the clip opens and is not empty.
    static MediaLocationInfo getClipLocationInfo(const Cookie& clip);

    // Both answer isMediaOffline(module): the one test serves either name.
    static bool isAllMediaOffline(const EditModule& module);
    static bool isSomeMediaOffline(const EditModule& module);

    // The file name of path after turning the foreign separator ('\') into '/'.
    static WString stripPath2(const WString& path);
    // The material type of a material file named after its cookie: 1 video ('V'),
    // 2 sound ('S'), 128 anything else ('I' included, and names that are no cookie).
    static int getMaterialTypeFromName(const WString& fileName);
    // The first media drive (in the project's order) whose video or sound folder is the
    // file's folder, compared as whole strings; null when none is.
    static Zn::Ptr<MediaDrive> findMediaLocationFromFile(const WString& fileName);
    // True for a linked file (storage kind 512) whose media lies in a folder of a media
    // drive (see findMediaLocationFromFile).
    static bool isLinkedLocal(const MediaFileInfo& file);
    // The shots the logs use: each log's references of selector 4 in order, appended one
    // by one (a shot that two logs use is listed twice), the filler material (second
    // identifier word 647) left out. Logs that do not open add nothing.
    static CookieVec buildShotList(const CookieVec& logs);

    // Whether a log type is one the location record serves.
    static bool servesLogType(int logType) noexcept;
};

// True when the clip the module shows has all its media offline. For a clip (log type
// 1, 4, 16, 32 or 1024): its own location record. For a sequence (log type 2): the
// material under the cursor on the first selected video channel; an effect, filler,
// nothing there or no selected channel is never offline. Any other log type, no edit or
// an empty edit: false.
PLAYFILE_API bool isMediaOffline(const EditModule& module);
