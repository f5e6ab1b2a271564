// Media file records: physical names, status from the disk, link files.
#include "host/project/MediaFileInfo.h"

#include "host/core/Strings.h"
#include "host/project/ProjectFiles.h"

MediaFileInfo::MediaFileInfo(const MaterialFilename& name, uint64_t size)
    : name_(name), size_(size), proxy_(isProxyName(name.getPath())) {}

MediaFileInfo::MediaFileInfo(const MaterialFilename& name, uint64_t size, const WString& linkTarget)
    : MediaFileInfo(name, size) {
    setLinkTarget(linkTarget);
}

void MediaFileInfo::setMaterialFilename(const MaterialFilename& name) {
    name_ = name;
    proxy_ = proxy_ || isProxyName(name.getPath());
}

void MediaFileInfo::setMaterialFilename(const MaterialFilename& name, const WString& linkTarget) {
    setMaterialFilename(name);
    setLinkTarget(linkTarget);
}

void MediaFileInfo::setLinkTarget(const WString& target) {
    link_ = target;
    storage_ = target.empty() ? kStorageDrive : kStorageLinked;
}

WString MediaFileInfo::getPhysicalFilename(bool resolveLinks) const {
    WString name = isLinked() ? link_ : name_.getOsPath();
    return resolveLinks ? projectfs::resolve(name) : name;
}

int MediaFileInfo::refreshStatus() {
    WString media = getPhysicalFilename(false);
    status_ = !media.empty() && projectfs::exists(media) ? eStatusAvailable : eStatusOffline;
    return status_;
}

bool MediaFileInfo::createLinkFile() const {
    WString at = name_.getOsPath();
    if (!isLinked() || at.empty()) return false;
    return projectfs::makeLink(at, link_, true);
}

bool MediaFileInfo::isProxyName(const WString& name) {
    WString stem = stripPathAndExt(name);
    return stem.endsWith(L".proxy") || stem.find(std::wstring_view(L".proxy.")) != WString::npos;
}
