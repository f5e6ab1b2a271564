// SystemCache: the material directory of the current project (see EditManager): which
// files hold a material cookie's media, where they are and whether they are there.
// Static: every call works on the project open at the time and answers "nothing" when
// none is open. Look-ups read one committed state of the project and may run on any
// number of threads at once; changes are one transaction each.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/project/DriveId.h"
#include "host/project/FsysDirectoryEntry.h"
#include "host/project/MediaFileInfo.h"

#include <vector>

// One file of a clip's media, as getClipMediaFiles lists them.
struct ClipMediaFile {
    Cookie cookie;      // the material cookie the file belongs to
    MediaFileInfo file; // the file (isProxy tells a proxy)
};

class SystemCache {
public:
    // Flags of addFile.
    enum eAddFlags : unsigned {
        eAddProxy = 1,   // the file is a proxy of the material
        eAddGrowing = 2, // the file is still being written (entry kind 2)
    };

    // The entry of a material cookie, or null when the directory has none. A video
    // cookie with no variant (index 255) finds the item's lowest video variant.
    static Zn::Ptr<FsysDirectoryEntry> findEntryForCookie(const Cookie& material);
    // The physical file name of the material's high-resolution file (links not
    // resolved); empty when there is none.
    static WString findFileForCookie(const Cookie& material);
    // Whether the directory knows a high-resolution file for the material.
    static bool fileExists(const Cookie& material);
    // The drive of the material's high-resolution file when that file is present; '0'
    // when the material is unknown, has no file or its file is missing. chanType (1
    // video, 2 audio) is the channel type the caller asks for; the drive does not
    // depend on it here.
    static DriveId getDriveForCookie(const Cookie& material, int chanType);
    // Whether the directory would manage a file of that name itself: a file registered
    // in the project, or a media file (its name parses as a material cookie, or its
    // extension is one of a media file). Other files (a description beside a movie,
    // say, or the ".hdr" play header kept beside a material file) are not eligible and
    // travel with the media as companions.
    static bool isEligible(const WString& fileName);
    // Every file of every material of the clip (cookies with the clip's identifier
    // words): for each material its high-resolution file, then its proxies.
    static std::vector<ClipMediaFile> getClipMediaFiles(const Cookie& clip);

    // Registers a file for the material: an operating-system path (on the drive whose
    // root holds it, else on drive '0'), or a material file name. When the exact name
    // does not exist but one file "<name>.<ext>" does (its ".hdr" header aside), that file
    // is registered (a writer adds the extension). The entry is made when missing. 1 on success, 0 otherwise.
    static int addFile(const Cookie& material, const WString& osPath, unsigned flags);
    static int addFile(const Cookie& material, const MaterialFilename& name, unsigned flags);
    // Deletes files of the material: the given one, or with null every file of the kinds
    // in types (bit 1 high-res, bit 2 proxies). Files held on a drive are deleted from
    // disk with their ".hdr" header; of a linked file only the link file is deleted,
    // never the media it names. The records go too, and the entry when it has no file
    // left. 1 on success; otherwise 0 and, when reason is given, why.
    static int removeFile(const Cookie& material, const MediaFileInfo* file, unsigned types,
                          WString* reason = nullptr);
    // Drops the record of a proxy (matched by material file name, else by physical file
    // name); the file itself stays. False when the entry has no such proxy.
    static bool removeProxyFile(const Cookie& material, const MediaFileInfo& file);
    // Points a proxy record at the file `to` (an operating-system path), held on the
    // drive whose root holds it (linked no more); size and status are taken from the
    // disk. The proxy is the one whose OS path or physical name is `from`, else the one
    // whose physical file name ends in the same file name as `from`. False when none.
    static bool renameProxyFile(const Cookie& material, const WString& from, const WString& to);
    // Refreshes the status of the kinds in types from the disk (FsysDirectoryEntry::
    // updateStatus); 0 when the material is unknown.
    static int updateStatus(const Cookie& material, unsigned types);
};
