// MediaFileInfo: one physical file of a material entry: its material file name, size,
// storage kind, status, and for a linked file the place where the media really is.
//
// A linked file (storage kind 512) is media left where it was found: its material file
// name on the drive holds only a link file (a symbolic link, see createLinkFile) and
// its link target is the media itself. Any other file is held on the media drive under
// its material file name. Whether a file is a proxy follows from its name (a ".proxy"
// part before the extension, as in "clip.proxy.mp4") unless the directory says so.
#pragma once

#include "host/core/LightweightString.h"
#include "host/project/MaterialFilename.h"

#include <cstdint>

class MediaFileInfo {
public:
    static constexpr int kStorageDrive = 0;
    static constexpr int kStorageLinked = 512;
    // Status values: not yet looked at, missing, present.
    enum eStatus { eStatusUnknown = 0, eStatusOffline = 1, eStatusAvailable = 2 };

    MediaFileInfo() = default;
    // A file held on a drive.
    MediaFileInfo(const MaterialFilename& name, uint64_t size);
    // A linked file when linkTarget is not empty (storage kind 512), else as above.
    MediaFileInfo(const MaterialFilename& name, uint64_t size, const WString& linkTarget);

    const MaterialFilename& getMaterialFilename() const noexcept { return name_; }
    void setMaterialFilename(const MaterialFilename& name);
    // The name and the link target together (an empty target makes the file unlinked).
    void setMaterialFilename(const MaterialFilename& name, const WString& linkTarget);
    const WString& getLinkTarget() const noexcept { return link_; }
    void setLinkTarget(const WString& target);

    uint64_t getSize() const noexcept { return size_; }
    void setSize(uint64_t size) noexcept { size_ = size; }
    int getStorageKind() const noexcept { return storage_; }
    bool isLinked() const noexcept { return storage_ == kStorageLinked; }
    int getStatus() const noexcept { return status_; }
    void setStatus(int status) noexcept { status_ = status; }
    bool isProxy() const noexcept { return proxy_; }
    void setProxy(bool proxy) noexcept { proxy_ = proxy; }

    WString getOsPath() const { return name_.getOsPath(); }
    // Where the media is: the link target of a linked file, the OS path of any other.
    // With resolveLinks, symbolic links on the way are followed (when the file exists).
    WString getPhysicalFilename(bool resolveLinks) const;
    // Looks at the disk: available when the media (the link target of a linked file)
    // exists, offline otherwise. Stores and answers the status.
    int refreshStatus();
    // Writes the link file of a linked file: a symbolic link at the OS path naming the
    // link target, replacing an older link there. False for a file that is not linked.
    bool createLinkFile() const;

    // Two records name the same file when their material file names are equal.
    friend bool operator==(const MediaFileInfo& a, const MediaFileInfo& b) { return a.name_ == b.name_; }

    // Whether a file name marks a proxy (".proxy" before the extension).
    static bool isProxyName(const WString& name);

private:
    MaterialFilename name_;
    WString link_;
    uint64_t size_ = 0;
    int storage_ = kStorageDrive;
    int status_ = eStatusUnknown;
    bool proxy_ = false;
};
