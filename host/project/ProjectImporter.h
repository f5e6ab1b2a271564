// ProjectImporter: registers media files as clips of the current project (see
// EditManager), one clip per file: an edit of log type 4 marked imported, its channels,
// its video material (variant 0) and sound material (channels 1..n), all held by the
// one file, which is either linked in place (storage kind 512: a link file on the media
// drive names the file where it is) or copied onto the media drive. Each clip is one
// transaction: after a crash the project holds all of a clip or none of it. The file
// takes its final name only after that transaction (see ImportRecovery.h for what a
// killed import leaves and how it is tidied up).
//
// Until the library's readers can be asked, the channel layout comes from the options,
// or from the file's kind: sound files (wav, mp3, ...) one sound material per audio
// channel and no video, still images one video material, anything else one video and
// two audio channels.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/project/DriveId.h"
#include "host/project/MediaFileInfo.h"

#include <cstdint>
#include <functional>
#include <vector>

struct ImportProgress {
    enum eStage {
        eCopying,     // bytes of the file copied so far (done of total)
        eRegistering, // the clip's records are written and about to be committed
        eDone,        // the clip is in the project
    };
    eStage stage;
    WString file;
    uint64_t done = 0, total = 0;
};

struct ImportOptions {
    // The drive for the clips' material files; '0' for the project's "import" drive
    // (any drive when none serves imports; a new drive 'A' at <project>/media when the
    // project has no drive at all and is a folder).
    DriveId drive;
    bool copy = false;      // copy onto the drive rather than link in place
    int videoChannels = -1; // -1: from the file's kind
    int audioChannels = -1; // -1: from the file's kind
    unsigned sampleRate = 48000;
    // Called on the importing thread; see ImportProgress.
    std::function<void(const ImportProgress&)> progress;
};

struct ImportResult {
    WString file;
    bool ok = false;
    Cookie clip;   // the new clip's edit cookie
    WString error; // why the file was not imported
};

// A clip whose media file is already in place, for registerClips.
struct ClipRecord {
    WString name;
    int videoChannels = 1;
    int audioChannels = 2;
    unsigned flags = 0; // Edit::eFlags besides "imported"
    unsigned sampleRate = 48000;
    MediaFileInfo file; // the one file that holds all of the clip's material; none when
                        // the material's files are registered already (SystemCache::addFile)
};

class ProjectImporter {
public:
    explicit ProjectImporter(ImportOptions options = ImportOptions());

    ImportResult importFile(const WString& path);

    // Registers clips whose files are in place already, all in one transaction. Answers
    // their edit cookies in order; empty (and nothing stored) on failure.
    static std::vector<Cookie> registerClips(const std::vector<ClipRecord>& clips, WString* error = nullptr);

    // A new clip number, in a transaction of its own: material files are named after the
    // clip before the clip is written. Invalid, with the reason in error, on failure.
    static Cookie newClipCookie(WString* error = nullptr);
    // Writes the clip under a number from newClipCookie, in one transaction.
    static bool registerClip(const Cookie& clip, const ClipRecord& record, WString* error = nullptr);

    // The drive that imports go to, as described for ImportOptions::drive; '0' with a
    // reason in error when there is none and none can be made.
    static DriveId importDrive(const DriveId& wanted, WString* error = nullptr);

private:
    ImportOptions options_;
};
