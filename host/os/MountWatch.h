// MountWatch: the process's mount table kept in memory and read again only when the
// kernel reports a change (poll on /proc/self/mountinfo signals POLLPRI | POLLERR after
// any mount or unmount in the process's mount namespace), and the per-device answer to
// "is this a network file system?" kept with it. This makes the remote-location test
// cheap enough to ask for every file of every query: a stat, one poll and a look-up, and
// within a FileQueryScope (one query) the poll once for all its questions.
// Where /proc cannot be polled, the table is read again on every question. A child
// process made by fork reads its own table afresh; a process that moves to another mount
// namespace without forking (unshare) keeps watching the one it started in.
//
// Lock: mutex_ guards the descriptor, the table, the device answers and the generation.
// It is held for a look-up, for the re-read of the table when it changed, and across a
// fork (pthread_atfork); no other lock is taken with it held, so it may be taken with
// any other lock held.
#pragma once

#include "host/os/MountTable.h"
#include "host/threads/PlainMutex.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <unordered_map>

class MountWatch {
public:
    // The process's watch; never destroyed, usable until exit.
    static MountWatch& shared();

    // Whether the file system of device (which holds path, an existing path on it) is a
    // network one: NFS, SMB/CIFS and the like by their statfs magic, or a FUSE mount whose
    // driver is a network one. Asked of the system once per device and mount table.
    bool isNetworkDevice(dev_t device, const std::string& path);
    // The mount point of the mount holding a resolved path; empty when none is listed.
    std::string mountPointOf(const std::string& resolvedPath);
    // Counts the times the table was read (the first reading included).
    uint64_t generation();

private:
    MountWatch();
    ~MountWatch() = delete;
    // Reads the table again when the kernel reports a change (or cannot tell).
    void refreshLocked() REQUIRES(mutex_);

    PlainMutex mutex_;
    int fd_ GUARDED_BY(mutex_) = -1;
    bool loaded_ GUARDED_BY(mutex_) = false;
    bool forked_ GUARDED_BY(mutex_) = false; // set in a child process: open the child's own table
    MountTable table_ GUARDED_BY(mutex_);
    std::unordered_map<dev_t, bool> network_ GUARDED_BY(mutex_);
    uint64_t generation_ GUARDED_BY(mutex_) = 0;
};
