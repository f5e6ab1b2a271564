// The real file manager: iFileManager over POSIX and Linux calls. Wide paths are turned
// into UTF-8 byte paths; paths are taken as given (relative ones from the working
// folder), and "vol:" names are only understood by mapMountedName.
#pragma once

#include "host/os/FileManager.h"
#include "host/threads/PlainMutex.h"

#include <string>
#include <utility>
#include <vector>

class PosixFileManager : public iFileManager {
public:
    constexpr PosixFileManager() noexcept = default;
    PosixFileManager(const PosixFileManager&) = delete;
    PosixFileManager& operator=(const PosixFileManager&) = delete;

    // True for anything that exists under the name, a folder included (links followed).
    bool fileExists(const WString& path) override;
    bool isDirectory(const WString& path) override;
    // -1 for a folder as well: it has no size in bytes to speak of.
    int64_t fileSize(const WString& path) override;
    // Null when the file cannot be opened or is neither a regular file nor a block device.
    Zn::Ptr<iFile> openForRead(const WString& path) override;

    // See FileCopy.h. A dst ending in '/' names no file: eCopyNoDestination.
    eCopyRC copyFile(const WString& src, const WString& dst, const ProgressFn& progress,
                     bool overwrite) override;
    // A FileCopyBatch (FileCopy.h) with the default options.
    std::unique_ptr<iCopyBatch> newCopyBatch() override;
    // Across file systems a file is copied (times kept) and the source then deleted; a
    // folder cannot be moved that way and answers false. If the source cannot be deleted
    // after the copy, both stay and the answer is false.
    bool renameFile(const WString& src, const WString& dst) override;
    // Removes a file or link; an empty folder is removed too.
    bool deleteFile(const WString& path) override;
    // Folders are made with mode 0777 less the umask.
    bool createDirectory(const WString& path) override;
    // Matching is fnmatch with FNM_PERIOD and case-sensitive, as in a shell: "*" skips
    // names starting with '.', which also hides copies in progress (see FileCopy.h). An
    // empty pattern lists every entry. Names that are not valid UTF-8 come back with
    // U+FFFD in place of the bad bytes.
    std::vector<WString> listDirectory(const WString& dir, const WString& pattern) override;

    // The volume questions below accept paths that do not exist yet (a destination about
    // to be written): they are answered for the nearest existing parent folder.
    int64_t freeSpace(const WString& path) override;
    WString volumeOf(const WString& path) override;
    uint32_t volumeStorageUnit(const WString& path) override;
    // "vol:NAME/rest" becomes ROOT + "/rest" and "vol:NAME" becomes ROOT, where NAME is
    // given a ROOT with setMountedName or else in the environment variable
    // PLAYFILE_VOLUMES="NAME=/path:NAME2=/path2" (read on each call). Unknown names and
    // other paths come back unchanged.
    WString mapMountedName(const WString& path) override;
    // True on NFS, SMB/CIFS, AFS, Ceph, 9P and the like, on FUSE mounts whose driver is a
    // network one (sshfs, rclone, s3fs, gcsfuse, ...; see MountTable.h), and under a
    // prefix given to addRemotePrefix or listed, colon-separated, in the environment
    // variable PLAYFILE_REMOTE_PREFIXES. Prefixes are matched whole components at a time
    // against the path as written and against its resolved form (links followed). The
    // mount table and the answer per device are kept until the mounts change (MountWatch),
    // so a question costs a stat or two when no prefix is set.
    bool isRemoteLocation(const WString& path) override;

    // Names a mounted volume for mapMountedName; an empty root forgets the name.
    void setMountedName(const WString& name, const WString& root);
    void addRemotePrefix(const WString& path);

private:
    // The added prefixes and those of PLAYFILE_REMOTE_PREFIXES, UTF-8, no trailing '/'.
    void remotePrefixes(std::vector<std::string>& out);

    // mutex_ guards the names and prefixes below; it is held only to read or change them.
    mutable PlainMutex mutex_;
    // The variable's text when last parsed (a vector: a string member would keep the
    // manager from being constant-initialised).
    std::vector<char> envPrefixesText_ GUARDED_BY(mutex_);
    std::vector<std::string> envPrefixes_ GUARDED_BY(mutex_); // its prefixes
    std::vector<std::pair<std::string, std::string>>
        mountedNames_ GUARDED_BY(mutex_);                        // NAME -> root, UTF-8
    std::vector<std::string> remotePrefixes_ GUARDED_BY(mutex_); // UTF-8, no trailing '/'
};

// The process's PosixFileManager. It is constant-initialised and never destroyed, so it
// can be used from static initialisers and from code running at exit.
iFileManager* defaultFileManager() noexcept;
