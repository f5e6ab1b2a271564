// Copying a file to its final name through "<name>.partial": the data goes into the
// ".partial" file beside the destination, which is synced and renamed onto the
// destination only once it is whole. What makes this safe when several writers aim at
// the same destination:
//
// - In this process, copies to one destination are serialised: a second one waits until
//   the first has ended (gate_ below).
// - Across processes, the writer holds an exclusive advisory lock (flock) on the
//   ".partial" file for as long as it writes it, and renames or removes it before letting
//   go. A writer that finds the file locked waits; one that gets the lock checks that the
//   name still names the file it locked (the holder may have renamed it meanwhile) and
//   starts over when not.
// - A ".partial" nobody holds a lock on was left by a writer that died (a lock ends with
//   its process). Its content is discarded before anything is written, so it is never
//   renamed into place.
//
// Waiting, for the gate or the lock, asks the progress callback (with 0 done) every
// kPollMs; a callback that answers false ends the wait as a cancelled copy.
//
// Lock order: the gate's mutex is held only to look at or change the set of busy
// destinations, never while waiting for the file lock or copying; the file lock is taken
// after the gate (and released before the gate's slot).
#pragma once

#include "host/core/LightweightString.h"
#include "host/os/FileManager.h"

#include <cstddef>

namespace Zn {

class PartialCopy {
public:
    static constexpr wchar_t kSuffix[] = L".partial";
    // The suffix's length in UTF-8 bytes, what a name to be written this way must leave
    // free of the file system's name length.
    static constexpr size_t kSuffixBytes = 8;
    static constexpr unsigned kPollMs = 50;

    struct Result {
        iFileManager::eCopyRC rc = iFileManager::eCopyFailed;
        // A ".partial" left by a writer that died was found and discarded.
        bool discardedStale = false;
    };

    // Copies src to dst (replacing an existing dst) through dst + kSuffix. On any failure
    // or cancellation the ".partial" is removed and dst is untouched. An empty dst is
    // eCopyNoDestination; a missing or unreadable source, or a folder that cannot be
    // written, eCopyFailed; a full file system eCopyNoSpace.
    static Result copy(const WString& src, const WString& dst, const iFileManager::ProgressFn& progress);

    // The ".partial" name of a destination.
    static WString partialName(const WString& dst) { return dst + kSuffix; }
};

} // namespace Zn
