// FsysDirectoryEntry: the material directory's entry for one material cookie: its
// high-resolution file and its proxy files (MediaFileInfo), the entry's kind and the
// material's start offset. Made by SystemCache::findEntryForCookie from one committed
// state of the project; the changes made through it (status, files, sizes, link) are
// written to the project at once, each in a transaction of its own, and kept in the
// entry too. Answers of a separate look-up made earlier do not change.
//
// Lock: mutex_ guards the entry's copy of the files and kind. It is held while the
// entry writes to the project, so the project's write lock (and its reader pool's) are
// taken inside it, never the reverse; no other lock is taken with it held.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/RefCount.h"
#include "host/core/Vector.h"
#include "host/project/MaterialRecords.h"
#include "host/project/MediaFileInfo.h"
#include "host/project/ProjectDatabase.h"
#include "host/threads/PlainMutex.h"

#include <cstdint>
#include <vector>


class FsysDirectoryEntry : public iObject {
public:
    // Entry kinds: complete material, or material still being written (its files grow).
    enum eKind { eComplete = 1, eGrowing = 2 };

    // The entry as read from the project.
    FsysDirectoryEntry(Zn::Ptr<ProjectDatabase> db, const Cookie& cookie, const records::EntryRow& row);

    const Cookie& getCookie() const noexcept { return cookie_; }
    int getKind() const;
    int64_t getStartOffset() const noexcept { return startOffset_; }

    // The high-resolution file; an empty record when the entry has none.
    MediaFileInfo getFile() const;
    bool hasFile() const;
    MaterialFilename getMaterialFilename() const;
    Vector<MediaFileInfo> getProxyFiles() const;
    // Whether the high-resolution file is linked (storage kind 512).
    bool isLinked() const;
    // The high-resolution file's media (see MediaFileInfo::getPhysicalFilename).
    WString getPhysicalFilename(bool resolveLinks) const;
    // The link target of the high-resolution file; empty when it is not linked.
    WString getLinkedFilename() const;
    // Sets the link target of the high-resolution file (an empty name unlinks it).
    bool setLinkedFilename(const WString& name);

    // The stored status (MediaFileInfo::eStatus) of the kinds in types (bit 1 the
    // high-resolution file, bit 2 the proxies) without looking at the disk.
    int getStatus(unsigned types) const;
    // Looks at the disk for the kinds in types, stores what changed and answers: for
    // the high-resolution file its status; for proxies 2 when any proxy is present, 1
    // when there are proxies but none is present; for both, 2 when either kind is
    // available. 0 when the entry has no file of the kinds asked.
    int updateStatus(unsigned types);

    // Adds a file: a proxy (MediaFileInfo::isProxy) joins the proxies, replacing one of
    // the same name; any other file becomes the high-resolution file, replacing the old
    // one. The status is taken from the disk. Records only: no file is copied or deleted.
    bool addFile(const MediaFileInfo& file);
    // Drops the record of the file with that material file name (high-res or proxy).
    // Records only: the file on disk stays. False when the entry has no such file.
    bool removeFile(const MediaFileInfo& file);
    // removeFile(old) and addFile(file) in one transaction: the project names one or the
    // other at every moment, a crash included. When the entry has no file named as old,
    // file is added all the same. False (nothing changed) when the project refused it.
    bool replaceFile(const MediaFileInfo& old, const MediaFileInfo& file);
    // Measures every file of the entry again and stores the sizes.
    bool updateFileSize();
    // The high-resolution file's size.
    uint64_t getSize() const;

private:
    struct Slot {
        int seq;
        MediaFileInfo info;
    };
    int statusOfLocked(unsigned types) const REQUIRES(mutex_);
    // Drops the record of *removed (when given and there) and adds *file (when given) in
    // one transaction; false when there is nothing to do or the write failed.
    bool changeFiles(const MediaFileInfo* removed, const MediaFileInfo* file);
    void keepAddedLocked(const MediaFileInfo& added, int seq) REQUIRES(mutex_);

    Zn::Ptr<ProjectDatabase> db_;
    Cookie cookie_;
    int64_t startOffset_;
    mutable PlainMutex mutex_;
    int kind_ GUARDED_BY(mutex_);
    bool hasFile_ GUARDED_BY(mutex_) = false;
    MediaFileInfo file_ GUARDED_BY(mutex_);
    std::vector<Slot> proxies_ GUARDED_BY(mutex_);
};
