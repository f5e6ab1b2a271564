// The process's view of mounted file systems, read from /proc/self/mountinfo: which mount
// holds a path, and whether a mount is a network file system.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

struct MountEntry {
    dev_t device = 0;       // st_dev of the files on this mount
    std::string mountPoint; // unescaped, absolute
    std::string fsType;     // "ext4", "nfs4", "fuse.sshfs", ...
    std::string source;     // "/dev/sda1", "server:/export", "user@host:", ...
};

class MountTable {
public:
    // Reads /proc/self/mountinfo; an unreadable file gives an empty table.
    static MountTable current();
    // Parses mountinfo text; malformed lines are skipped.
    static MountTable parse(std::string_view text);

    bool empty() const noexcept { return entries_.empty(); }
    const std::vector<MountEntry>& entries() const noexcept { return entries_; }

    // The mount whose mount point is the longest prefix of an absolute, resolved path
    // (the last listed wins a tie, as later mounts hide earlier ones); null when none.
    const MountEntry* mountHolding(std::string_view resolvedPath) const noexcept;
    // The last listed mount of a device; null when none.
    const MountEntry* mountOfDevice(dev_t device) const noexcept;

private:
    std::vector<MountEntry> entries_;
};

// True when path is folder or lies inside it, comparing whole components: "/a/b" holds
// "/a/b" and "/a/b/c" but not "/a/bc"; "/" holds every absolute path.
bool pathIsUnder(std::string_view path, std::string_view folder) noexcept;

// True for a FUSE mount whose driver reaches its files over a network (sshfs, rclone,
// s3fs, gcsfuse, ...). Local FUSE drivers (ntfs-3g, exfat, bindfs) answer false.
bool isNetworkFuse(const MountEntry& mount);
// True for a statfs f_type that is a network file system by nature (NFS, SMB, CIFS,
// AFS, Ceph, 9P, ...). FUSE is not among them: it depends on the driver.
bool isNetworkFsMagic(unsigned long fsType) noexcept;
constexpr unsigned long kFuseSuperMagic = 0x65735546;
