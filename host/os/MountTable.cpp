// Reading /proc/self/mountinfo and classifying mounts as local or network.
#include "host/os/MountTable.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

// mountinfo writes space, tab, newline and backslash in paths as \ooo.
std::string unescape(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size()) {
            bool octal = true;
            int v = 0;
            for (size_t k = 1; k <= 3; ++k) {
                char c = s[i + k];
                if (c < '0' || c > '7') {
                    octal = false;
                    break;
                }
                v = v * 8 + (c - '0');
            }
            if (octal && v < 256) {
                out += char(v);
                i += 3;
                continue;
            }
        }
        out += s[i];
    }
    return out;
}

std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && line[i] == ' ')
            ++i;
        size_t start = i;
        while (i < line.size() && line[i] != ' ')
            ++i;
        if (i > start) fields.push_back(line.substr(start, i - start));
    }
    return fields;
}

bool parseDevice(std::string_view text, dev_t& device) {
    size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 >= text.size()) return false;
    auto number = [](std::string_view s, unsigned long& v) {
        v = 0;
        for (char c : s) {
            if (c < '0' || c > '9') return false;
            v = v * 10 + unsigned(c - '0');
        }
        return true;
    };
    unsigned long major = 0, minor = 0;
    if (!number(text.substr(0, colon), major) || !number(text.substr(colon + 1), minor))
        return false;
    device = makedev(major, minor);
    return true;
}

} // namespace

bool pathIsUnder(std::string_view path, std::string_view folder) noexcept {
    if (folder.empty()) return false;
    if (folder == "/") return !path.empty() && path[0] == '/';
    if (!path.starts_with(folder)) return false;
    return path.size() == folder.size() || path[folder.size()] == '/';
}

MountTable MountTable::parse(std::string_view text) {
    MountTable table;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;

        // id parent major:minor root mountpoint options [optional...] - fstype source superopts
        std::vector<std::string_view> f = splitFields(line);
        auto dash = std::find(f.begin(), f.end(), std::string_view("-"));
        if (f.size() < 6 || dash == f.end() || dash - f.begin() < 6 || f.end() - dash < 2) continue;
        MountEntry e;
        if (!parseDevice(f[2], e.device)) continue;
        e.mountPoint = unescape(f[4]);
        e.fsType = unescape(dash[1]);
        if (f.end() - dash >= 3) e.source = unescape(dash[2]);
        if (e.mountPoint.empty() || e.mountPoint[0] != '/') continue;
        table.entries_.push_back(std::move(e));
    }
    return table;
}

MountTable MountTable::current() {
    int fd = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return MountTable();
    std::string text;
    char buf[16384];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        text.append(buf, size_t(n));
    }
    ::close(fd);
    return parse(text);
}

const MountEntry* MountTable::mountHolding(std::string_view resolvedPath) const noexcept {
    const MountEntry* best = nullptr;
    for (const MountEntry& e : entries_) {
        if (!pathIsUnder(resolvedPath, e.mountPoint)) continue;
        if (!best || e.mountPoint.size() >= best->mountPoint.size()) best = &e;
    }
    return best;
}

const MountEntry* MountTable::mountOfDevice(dev_t device) const noexcept {
    const MountEntry* found = nullptr;
    for (const MountEntry& e : entries_)
        if (e.device == device) found = &e;
    return found;
}

bool isNetworkFuse(const MountEntry& mount) {
    // FUSE mounts are listed as "fuse.<driver>" (or "fuseblk.<driver>"); old mount
    // helpers leave the type bare and write the driver as "driver#what" in the source.
    std::string_view type = mount.fsType;
    std::string_view driver;
    if (type.starts_with("fuse."))
        driver = type.substr(5);
    else if (type.starts_with("fuseblk."))
        driver = type.substr(8);
    else if (type == "fuse" || type == "fuseblk") {
        std::string_view src = mount.source;
        size_t hash = src.find('#');
        if (hash == std::string_view::npos) return false;
        driver = src.substr(0, hash);
    } else {
        return false;
    }
    static const std::string_view network[] = {
        "sshfs",     "rclone",        "s3fs",      "gcsfuse",      "goofys",
        "geesefs",   "mountpoint-s3", "blobfuse",  "blobfuse2",    "juicefs",
        "curlftpfs", "davfs",         "httpdirfs", "smbnetfs",     "glusterfs",
        "ceph-fuse", "cephfs",        "mfs",       "moosefs",      "lizardfs",
        "weed",      "seaweedfs",     "onedriver", "s3backer",     "google-drive-ocamlfuse",
        "gdrivefs",  "cvmfs",         "xtreemfs",  "alluxio-fuse", "afpfs",
        "afpfs-ng",  "ftpfs",         "webdavfs",  "gvfsd-fuse",   "kio-fuse",
    };
    return std::find(std::begin(network), std::end(network), driver) != std::end(network);
}

bool isNetworkFsMagic(unsigned long fsType) noexcept {
    // statfs f_type is a signed word; the magic numbers are 32-bit.
    switch (uint32_t(fsType)) {
    case 0x6969:     // NFS
    case 0x517B:     // SMB (smbfs)
    case 0xFF534D42: // CIFS
    case 0xFE534D42: // SMB2 (the in-kernel smb3 client)
    case 0x5346414F: // AFS (OpenAFS)
    case 0x6B414653: // AFS (kAFS)
    case 0x00C36400: // Ceph
    case 0x01021997: // 9P
    case 0x73757245: // Coda
    case 0x564C:     // NCP
    case 0x47504653: // GPFS
    case 0x0BD00BD0: // Lustre
        return true;
    default:
        return false;
    }
}
