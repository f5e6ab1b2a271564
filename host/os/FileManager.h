// The host's file manager: every file-system operation the library and its tools make,
// behind an interface so that a test can replace it to inject a fault (a full disk, a
// copy that breaks). The real one is POSIX (PosixFileManager.cpp).
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

class iCopyBatch;

// An open file, read from its current position.
class iFile : public iObject {
public:
    // Reads up to n bytes; returns the number read, 0 at the end, -1 on an error.
    virtual int64_t read(void* buf, uint64_t n) = 0;
    // Reads at an absolute position without moving the current one.
    virtual int64_t readAt(uint64_t offset, void* buf, uint64_t n) = 0;
    virtual bool seek(uint64_t offset) = 0;
    virtual uint64_t position() const = 0;
    virtual uint64_t size() const = 0;
    virtual const WString& name() const = 0;
};

class iFileManager {
public:
    // Results of copyFile.
    enum eCopyRC {
        eCopyOK = 0,
        eCopyFailed = 2,         // the source could not be read or the destination written
        eCopyCancelled = 3,      // the progress callback asked to stop
        eCopyNoSpace = 4,        // the destination's file system is full (or a size limit hit)
        eCopyNoDestination = 5,  // no destination name was given
    };

    // Called during a copy with the bytes done so far and the total; answering false
    // cancels the copy. Calls are monotonic in bytesDone and end with done == total on
    // success.
    using ProgressFn = std::function<bool(uint64_t bytesDone, uint64_t bytesTotal)>;

    virtual ~iFileManager() = default;

    virtual bool fileExists(const WString& path) = 0;
    virtual bool isDirectory(const WString& path) = 0;
    // Size in bytes, or -1 when the file does not exist or cannot be examined.
    virtual int64_t fileSize(const WString& path) = 0;
    virtual Zn::Ptr<iFile> openForRead(const WString& path) = 0;

    // Copies src to dst. The copy is written under a temporary name beside dst, synced,
    // and renamed onto dst only when complete; on any failure nothing is left under dst
    // (an existing dst is kept unless overwrite is set and the copy succeeds).
    virtual eCopyRC copyFile(const WString& src, const WString& dst, const ProgressFn& progress,
                             bool overwrite) = 0;
    // A batch of copies with the same guarantees as copyFile, made durable together (one
    // wait for the disk for all of them, not one per file): see iCopyBatch below. Many
    // files copied in a row go much faster this way.
    virtual std::unique_ptr<iCopyBatch> newCopyBatch() = 0;
    // Renames src to dst, replacing dst if it exists.
    virtual bool renameFile(const WString& src, const WString& dst) = 0;
    virtual bool deleteFile(const WString& path) = 0;
    // Creates the folder and any missing parents; true when it exists afterwards.
    virtual bool createDirectory(const WString& path) = 0;
    // Names (not paths) of the entries of dir matching a shell pattern ("*.mov"), sorted.
    virtual std::vector<WString> listDirectory(const WString& dir, const WString& pattern) = 0;

    // Bytes free for an unprivileged writer on the file system holding path, or -1.
    virtual int64_t freeSpace(const WString& path) = 0;
    // The mount point of the volume that holds path ("/" at worst).
    virtual WString volumeOf(const WString& path) = 0;
    // The preferred I/O unit of the volume that holds path, in bytes (at least 512).
    virtual uint32_t volumeStorageUnit(const WString& path) = 0;
    // Maps a path written with a mounted-volume name ("vol:NAME/rest") to its local
    // path; any other path is returned unchanged.
    virtual WString mapMountedName(const WString& path) = 0;
    // True when path lies on a network file system (NFS, SMB/CIFS, network FUSE, ...) or
    // under one of the configured remote prefixes.
    virtual bool isRemoteLocation(const WString& path) = 0;
};

// Copies of many files made durable together. add() copies a file's data into a temporary
// beside its destination at once (progress reported as it goes) but does not wait for the
// disk; commit() then syncs the data of every copy added since the last commit, puts each
// under its destination name and syncs each destination folder once. Until its commit a
// copy is invisible under its final name; after a crash or a kill at any moment, a final
// name holds either what it held before or the whole copy. A temporary left by a killed
// copy (".NAME.XXXXXX" beside NAME) is removed by the next copy to that destination.
//
// One batch is used by one thread at a time; batches are independent of each other.
// Destroying a batch drops the copies not committed (their temporaries are removed).
class iCopyBatch {
public:
    using eCopyRC = iFileManager::eCopyRC;
    // What became of one copy at its commit.
    struct Outcome {
        WString src;
        WString dst;
        eCopyRC rc = iFileManager::eCopyOK; // eCopyOK: dst holds the whole copy, on disk
    };

    virtual ~iCopyBatch() = default;

    // Copies src into a temporary beside dst, with copyFile's rules for src, dst and
    // overwrite (an existing dst is refused without overwrite, checked again at the
    // commit). eCopyOK: the copy waits for the commit, and progress has been called
    // last with done == total. Any other answer: nothing of this copy is left, and it
    // has no outcome at the commit.
    virtual eCopyRC add(const WString& src, const WString& dst, const iFileManager::ProgressFn& progress,
                        bool overwrite) = 0;
    // True when the copies waiting are many or large enough that the caller should
    // commit before adding more (each holds an open descriptor until then).
    virtual bool full() const = 0;
    // Commits every waiting copy: the outcomes in the order the copies were added. The
    // batch is empty afterwards and may be used again.
    virtual std::vector<Outcome> commit() = 0;
};

// The real file manager; OS()->fileManager() answers it unless a test replaced it.
iFileManager* defaultFileManager() noexcept;
