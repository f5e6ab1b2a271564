// Material file names: from and to operating-system paths through the drive table.
#include "host/project/MaterialFilename.h"

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"

MaterialFilename MaterialFilename::fromOsPath(const WString& osPath) {
    if (auto d = DiskManager::findDriveForPath(osPath)) {
        WString root = d->getLocation(0);
        return MaterialFilename(d->getUniqueId(), osPath.substr(root.size()), d->getRoot());
    }
    return MaterialFilename(DriveId(), osPath);
}

WString MaterialFilename::getOsPath() const {
    if (path_.empty()) return WString();
    if (drive_.isNone()) return path_;
    if (!root_.empty()) return joinPaths(root_, path_);
    auto d = DiskManager::getDriveWithUniqueId(drive_);
    return d ? joinPaths(d->getRoot(), path_) : WString();
}

MaterialFilename getMaterialFilenameForCookie(const Cookie& cookie, const DriveId& drive) {
    auto d = DiskManager::getDriveWithUniqueId(drive);
    if (!d) return MaterialFilename();
    const WString& folder = cookie.type() == 'S' ? d->getSoundFolderName() : d->getVideoFolderName();
    return MaterialFilename(drive, joinPaths(folder, cookie.asWString()), d->getRoot());
}
