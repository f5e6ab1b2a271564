// MaterialManager: where the media of clips and logs lie, for the host's user interface
// and the background media tasks: whether a clip's media can be played now, whether it
// lies on a remote location, whether it is local already, and whether a download would
// fetch something.
//
// Two axes run through every query. The media type (eMediaTypes): bit 1 the clip's own
// high-resolution material file, bit 2 its proxy files. The project space
// (ProjectSpacesManager): in a local one (type 0 or 1) a remote file is one whose
// physical path the file manager reports on a remote location; in a remote one (type 2)
// remote media is linked high-res media under one of the space's mount points, or linked
// proxies that are available, and local media is present media under no mount point.
// Local media is only defined in a remote project space.
//
// All operations are static, stateless and synchronous, hold no lock of their own and may
// run on any thread. A cookie that does not open, a material without a directory entry or
// a missing project-space resource counts as a negative answer. Refreshing a status
// (FsysDirectoryEntry::updateStatus) stores it, so a query can change what a later one
// sees. Each query looks at a file, and at the mount table, once however often it asks
// about them (FileQueryScope); the next query looks again.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/project/DriveId.h"
#include "host/tasks/BackgroundTask.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"
#include "playfile/tasks/ExternalDownloadTask.h"

#include <set>
#include <vector>

class PLAYFILE_API MaterialManager {
public:
    // True when any of the materials has media of the asked kinds on a remote location.
    // Local project space: a linked proxy (asked first) or linked high-res file whose
    // physical name the file manager calls remote. Remote project space: a linked
    // high-res file whose resolved name starts with a mount point's path (an empty path
    // matches every file), or a linked proxy whose refreshed status is available.
    static bool isMediaRemote(const std::set<Cookie>& materials, eMediaTypes types);
    static bool isMediaRemote(const Cookie& material, eMediaTypes types);
    // True when any of the materials has local media of the asked kinds; only ever in a
    // remote project space. High-res: present, with no mount point's path anywhere in
    // its name (and the space has mount points). Proxies: any proxy whose physical name
    // the file manager does not call remote.
    static bool isMediaLocal(const std::set<Cookie>& materials, eMediaTypes types);
    static bool isMediaLocal(const Cookie& material, eMediaTypes types);

    // Whether the first material of the clip's availability references (selector 4) that
    // has a directory entry is available for the asked kinds; later ones are not looked at.
    static bool isMediaAvailable(const Cookie& clip, eMediaTypes types);
    static bool isHighResMediaAvailable(const Cookie& clip) { return isMediaAvailable(clip, kMediaHighRes); }
    static bool isProxyMediaAvailable(const Cookie& clip) { return isMediaAvailable(clip, kMediaProxy); }

    // Adds to out the material cookies (references of selector 2) or clip cookies
    // (selector 3) of each log; out is not cleared first.
    static void getReferencedMediaFiles(const CookieVec& logs, std::set<Cookie>& out);
    static void getReferencedClips(const CookieVec& logs, std::set<Cookie>& out);
    static bool logsReferToRemoteMedia(const CookieVec& logs, eMediaTypes types);
    static bool logsReferToLocalMedia(const CookieVec& logs, eMediaTypes types);

    // True when a download of the asked kinds would fetch something. Outside a remote
    // project space: high-res media that is remote (proxies never). In one: a log whose
    // server holds media (or proxies) and that has no local media of that kind.
    static bool canDownload(const CookieVec& logs, eMediaTypes types);
    static bool canDownload(const Cookie& log, eMediaTypes types);

    // The physical file name of a still-image clip's media; empty for any other clip.
    static WString findFileForImageClip(const Cookie& clip);

    // The actions of the user interface. The three transfers queue a task on the
    // process's UIBackgroundTasksQueue and return at once, answering the task so that a
    // caller can follow it (null when the queue has ended); the task copies, reports and
    // fails on its own (DownloadTask).
    //
    // Makes the remote media of the logs' clips local, on the drive that serves imports.
    static Zn::Ptr<DownloadTask> localiseRemoteMedia(const CookieVec& logs, eMediaTypes types,
                                                     iBackgroundTask::eImportance importance);
    // Copies the media of the logs' clips onto the destination drive; an empty title is
    // the localise message.
    static Zn::Ptr<DownloadTask> localiseMedia(const CookieVec& logs, const DriveId& destination, bool highRes,
                                               bool proxies, iBackgroundTask::eImportance importance,
                                               const WString& title);
    // Downloads the remote media of the logs' clips into the settings' folder.
    static Zn::Ptr<DownloadTask> downloadRemoteMedia(const CookieVec& logs, eMediaTypes types,
                                                     const ExternalDownloadTask::Settings& settings);
    // prefix + " : " + the log's name for one log (the bare prefix when it does not
    // open), or + " : " + the "$NUM$ logs" message for any other count.
    static WString makeTaskTitle(const CookieVec& logs, const WString& prefix);
    // Appends the physical file names (links not resolved) of the shot's materials.
    static void findFilesForShot(const Cookie& shot, std::vector<WString>& out);
    // Shows the shot's files that exist in the desktop's file browser (each missing one
    // costs a log line): 1 when some were shown, 5 when none exists.
    static int revealFilesInOS(const Cookie& shot);
};
