// MediaLocationInfo: where the material files of one clip lie and in what state they
// are, one element per referenced material file, all lists in the same order. The host
// defines the record; the library's location queries fill it. Lists may differ in length:
// a referenced material without a directory entry has only its cookie listed, and a file
// with no material file name has no element in the names.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/Vector.h"
#include "host/project/MaterialFilename.h"

class MediaLocationInfo {
public:
    // The status of a file as FsysDirectoryEntry::updateStatus answers it (the values
    // of MediaFileInfo::eStatus): 0 not looked at or no file, 1 missing, 2 available.
    enum eMediaStatus : int { eUnknown = 0, eOffline = 1, eAvailable = 2 };

    Vector<eMediaStatus> highResStatuses;
    Vector<eMediaStatus> proxyStatuses;
    Vector<MaterialFilename> materialFilenames;
    // Directory of the physical file; for a file on a remote location the whole name.
    Vector<WString> locations;
    // The file name part; empty for a file on a remote location.
    Vector<WString> fileNames;
    Vector<Cookie> materialCookies;

    bool empty() const noexcept { return materialCookies.empty(); }
    // True when no listed file is available, neither its high-resolution file nor a
    // proxy (a record that lists no file at all is all offline).
    bool allMediaOffline() const;
};
