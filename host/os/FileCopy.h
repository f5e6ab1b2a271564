// The copies behind iFileManager::copyFile and iFileManager::newCopyBatch: data goes into a
// temporary file beside the destination, which replaces the destination name only once it
// is complete and on disk. A batch syncs all its copies at once, then renames them.
#pragma once

#include "host/core/LightweightString.h"
#include "host/os/FileManager.h"
#include "host/os/DataCopy.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct FileCopyOptions {
    // Bytes copied between two progress calls (holes are skipped in one step).
    uint64_t chunkBytes = uint64_t(8) << 20;
    // False copies through a buffer even where the kernel could copy (or share) the
    // blocks itself.
    bool useCopyFileRange = true;
    // Gives the copy the source's access and modification times, as a move should.
    bool keepTimes = false;
    // A batch reports full() from this many waiting copies (each holds a descriptor) or
    // this many waiting bytes on.
    size_t batchFiles = 256;
    uint64_t batchBytes = uint64_t(2) << 30;
};

// Copies the regular file src to dst (UTF-8 paths) with the semantics of
// iFileManager::copyFile: a batch of one copy, committed at once. Holes of a sparse source
// stay holes. The copy gets the source's permission bits (rwx for user, group and others;
// never set-id bits).
//
// Writing past a file-size limit (RLIMIT_FSIZE) normally kills the process with SIGXFSZ.
// While it writes, the copy blocks SIGXFSZ on the calling thread and discards the signal
// it caused, so the limit is reported as eCopyNoSpace instead.
iFileManager::eCopyRC copyFileSafely(const String& src, const String& dst,
                                     const iFileManager::ProgressFn& progress, bool overwrite,
                                     const FileCopyOptions& options = {});

// The real copy batch (see iCopyBatch in FileManager.h). A copy's temporary is
// ".NAME.XXXXXX" in NAME's folder, created exclusively and held under an flock() until the
// copy is committed or dropped; a temporary of that shape nobody holds is a killed copy's
// and the next add() to NAME removes it (never renames it). The disk starts writing each
// chunk as it is copied. The commit makes the data durable: one syncfs() per destination
// file system where that covers every file (ext4, XFS, Btrfs, F2FS, tmpfs), an fsync()
// per temporary elsewhere or when the syncfs reports a failure; then renames each
// temporary onto its destination, fsyncs each distinct destination folder once, and only
// then answers: a caller that records the copies somewhere (a database) does so after the
// commit, so a record never names a copy that a crash could still lose. (A syncfs also
// writes what other programs left unwritten on that file system, as `sync` would.)
class FileCopyBatch final : public iCopyBatch {
public:
    explicit FileCopyBatch(const FileCopyOptions& options = {}) : options_(options) {}
    ~FileCopyBatch() override;
    FileCopyBatch(const FileCopyBatch&) = delete;
    FileCopyBatch& operator=(const FileCopyBatch&) = delete;

    eCopyRC add(const WString& src, const WString& dst, const iFileManager::ProgressFn& progress,
                bool overwrite) override;
    // add() with UTF-8 paths.
    eCopyRC addUTF8(const String& src, const String& dst, const iFileManager::ProgressFn& progress,
                    bool overwrite);
    bool full() const override;
    std::vector<Outcome> commit() override;

private:
    // One copy written and waiting for its commit.
    struct Waiting {
        WString src, dst;
        std::string target;      // dst, UTF-8
        std::string folder;      // dst's folder ("." for a bare name)
        std::string temporary;   // the temporary's path
        filecopy::Descriptor fd; // the temporary, open and locked
        bool overwrite = false;
        uint64_t bytes = 0;
    };
    // Removes the unheld temporaries of earlier copies to target (its folder read once per
    // batch).
    void removeLeftovers(const std::string& folderPrefix, const std::string& tempPrefix);
    void drop(Waiting& w) noexcept;
    // Makes the waiting copies' data durable; a copy that could not be gets its error.
    void syncData(std::vector<Outcome>& outcomes);

    FileCopyOptions options_;
    std::vector<Waiting> waiting_;
    uint64_t waitingBytes_ = 0;
    // Per folder read: the names there shaped like a temporary, by their prefix ".NAME.".
    std::map<std::string, std::multimap<std::string, std::string>> leftovers_;
};
