// The copy behind iFileManager::copyFile: data goes into a temporary file beside the
// destination, which replaces the destination name only once it is complete and synced.
#pragma once

#include "host/core/LightweightString.h"
#include "host/os/FileManager.h"

#include <cstdint>

struct FileCopyOptions {
    // Bytes copied between two progress calls (holes are skipped in one step).
    uint64_t chunkBytes = uint64_t(8) << 20;
    // False copies through a buffer even where the kernel could copy (or share) the
    // blocks itself.
    bool useCopyFileRange = true;
    // Gives the copy the source's access and modification times, as a move should.
    bool keepTimes = false;
};

// Copies the regular file src to dst (UTF-8 paths) with the semantics of
// iFileManager::copyFile. Holes of a sparse source stay holes. The copy gets the source's
// permission bits (rwx for user, group and others; never set-id bits).
//
// Writing past a file-size limit (RLIMIT_FSIZE) normally kills the process with SIGXFSZ.
// While it writes, the copy blocks SIGXFSZ on the calling thread and discards the signal
// it caused, so the limit is reported as eCopyNoSpace instead.
iFileManager::eCopyRC copyFileSafely(const String& src, const String& dst,
                                     const iFileManager::ProgressFn& progress, bool overwrite,
                                     const FileCopyOptions& options = {});

// The data part of a copy alone: the total bytes of the open regular file `in` are copied
// into the open file `out` at the same offsets (holes stay holes), with the progress calls
// of copyFileSafely except the final one (done == total), which is the caller's. `out`'s
// length is not set and nothing is synced: the caller owns the file and its name.
iFileManager::eCopyRC copyFileData(int in, int out, uint64_t total, const iFileManager::ProgressFn& progress,
                                   const FileCopyOptions& options = {});
