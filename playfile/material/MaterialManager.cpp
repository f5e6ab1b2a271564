// The availability, remote and local media queries.
#include "playfile/material/MaterialManager.h"

#include "host/os/FileManager.h"
#include "host/os/FileQueryScope.h"
#include "host/os/OS.h"
#include "host/project/Edit.h"
#include "host/project/FsysDirectoryEntry.h"
#include "host/project/ProjectSpacesManager.h"
#include "host/project/SystemCache.h"

#include <vector>

namespace {

constexpr int kAvailable = MediaFileInfo::eStatusAvailable;

// The directory entries of the materials that have one, in set order.
std::vector<Zn::Ptr<FsysDirectoryEntry>> entriesOf(const std::set<Cookie>& materials) {
    std::vector<Zn::Ptr<FsysDirectoryEntry>> out;
    out.reserve(materials.size());
    for (const Cookie& m : materials)
        if (auto e = SystemCache::findEntryForCookie(m)) out.push_back(std::move(e));
    return out;
}

bool isRemotePath(const WString& path) { return OS()->fileManager()->isRemoteLocation(path); }

bool anyLinkedFileRemote(const std::vector<Zn::Ptr<FsysDirectoryEntry>>& entries, eMediaTypes types) {
    if (types & kMediaProxy) {
        for (const auto& e : entries)
            for (const MediaFileInfo& proxy : e->getProxyFiles())
                if (proxy.getStorageKind() == MediaFileInfo::kStorageLinked &&
                    isRemotePath(proxy.getPhysicalFilename(false)))
                    return true;
    }
    if (types & kMediaHighRes) {
        for (const auto& e : entries) {
            MediaFileInfo file = e->getFile();
            if (file.getStorageKind() == MediaFileInfo::kStorageLinked && isRemotePath(e->getPhysicalFilename(false)))
                return true;
        }
    }
    return false;
}

bool underAnyMountPoint(const WString& name, const std::vector<MountPointInfo>& mounts) {
    for (const auto& mount : mounts) {
        const WString& path = mount.localPath();
        // A prefix over the mount path's length; an empty path is a prefix of every name.
        if (name.startsWith(path.view())) return true;
    }
    return false;
}

bool mountPathInside(const WString& name, const std::vector<MountPointInfo>& mounts) {
    for (const auto& mount : mounts)
        if (name.find(mount.localPath().view()) != WString::npos) return true;
    return false;
}

bool logsReferTo(const CookieVec& logs, eMediaTypes types, bool remote) {
    std::set<Cookie> materials;
    MaterialManager::getReferencedMediaFiles(logs, materials);
    return remote ? MaterialManager::isMediaRemote(materials, types) : MaterialManager::isMediaLocal(materials, types);
}

void addReferences(const CookieVec& logs, unsigned selector, std::set<Cookie>& out) {
    for (const Cookie& log : logs) {
        EditPtr edit;
        if (!edit.i_open(log, eEditOpenReadOnly)) continue;
        for (const Cookie& c : edit->getReferences(selector)) out.insert(c);
        edit.i_close();
    }
}

} // namespace

bool MaterialManager::isMediaRemote(const std::set<Cookie>& materials, eMediaTypes types) {
    FileQueryScope files;
    const int spaceType = ProjectSpacesManager::getCurrentProjectSpaceType();
    if (spaceType == ProjectSpacesManager::eLocal || spaceType == ProjectSpacesManager::eLocalShared)
        return anyLinkedFileRemote(entriesOf(materials), types);
    if (spaceType != ProjectSpacesManager::eRemote) return false;

    auto resource = ProjectSpacesManager::getResourceForRemoteProjectSpace();
    if (!resource) return false;
    const std::vector<MountPointInfo> mounts = resource->getMountPoints();
    for (const auto& e : entriesOf(materials)) {
        if ((types & kMediaHighRes) && e->isLinked() && !mounts.empty() &&
            underAnyMountPoint(e->getPhysicalFilename(true), mounts))
            return true;
        if (types & kMediaProxy) {
            e->updateStatus(kMediaProxy);
            for (const MediaFileInfo& proxy : e->getProxyFiles())
                if (proxy.getStorageKind() == MediaFileInfo::kStorageLinked && proxy.getStatus() == kAvailable)
                    return true;
        }
    }
    return false;
}

bool MaterialManager::isMediaRemote(const Cookie& material, eMediaTypes types) {
    return isMediaRemote(std::set<Cookie>{material}, types);
}

bool MaterialManager::isMediaLocal(const std::set<Cookie>& materials, eMediaTypes types) {
    FileQueryScope files;
    if (ProjectSpacesManager::getCurrentProjectSpaceType() != ProjectSpacesManager::eRemote) return false;
    auto resource = ProjectSpacesManager::getResourceForRemoteProjectSpace();
    if (!resource) return false;
    const std::vector<MountPointInfo> mounts = resource->getMountPoints();
    for (const auto& e : entriesOf(materials)) {
        if ((types & kMediaHighRes) && !mounts.empty()) {
            WString name = e->getPhysicalFilename(false);
            // Unlike the remote test, a mount path anywhere in the name makes the file
            // not local, not only at its start.
            if (!name.empty() && e->updateStatus(kMediaHighRes) == kAvailable && !mountPathInside(name, mounts))
                return true;
        }
        if (types & kMediaProxy) {
            for (const MediaFileInfo& proxy : e->getProxyFiles())
                if (!isRemotePath(proxy.getPhysicalFilename(false))) return true;
        }
    }
    return false;
}

bool MaterialManager::isMediaLocal(const Cookie& material, eMediaTypes types) {
    return isMediaLocal(std::set<Cookie>{material}, types);
}

bool MaterialManager::isMediaAvailable(const Cookie& clip, eMediaTypes types) {
    FileQueryScope files;
    EditPtr edit;
    if (!edit.i_open(clip, eEditOpenReadOnly)) return false;
    for (const Cookie& c : edit->getReferences(Edit::eRefAvailability))
        if (auto entry = SystemCache::findEntryForCookie(c)) return entry->updateStatus(types) == kAvailable;
    return false;
}

void MaterialManager::getReferencedMediaFiles(const CookieVec& logs, std::set<Cookie>& out) {
    addReferences(logs, Edit::eRefMaterial, out);
}

void MaterialManager::getReferencedClips(const CookieVec& logs, std::set<Cookie>& out) {
    addReferences(logs, Edit::eRefClips, out);
}

bool MaterialManager::logsReferToRemoteMedia(const CookieVec& logs, eMediaTypes types) {
    return logsReferTo(logs, types, true);
}

bool MaterialManager::logsReferToLocalMedia(const CookieVec& logs, eMediaTypes types) {
    return logsReferTo(logs, types, false);
}

bool MaterialManager::canDownload(const CookieVec& logs, eMediaTypes types) {
    FileQueryScope files;
    auto resource = ProjectSpacesManager::getResourceForRemoteProjectSpace();
    if (!resource) return (types & kMediaHighRes) && logsReferToRemoteMedia(logs, kMediaHighRes);
    for (const Cookie& log : logs) {
        const CookieVec one{log};
        if ((types & kMediaHighRes) && !resource->getServerMediaEntries(log).empty() &&
            !logsReferToLocalMedia(one, kMediaHighRes))
            return true;
        if ((types & kMediaProxy) && resource->hasServerProxies(log) && !logsReferToLocalMedia(one, kMediaProxy))
            return true;
    }
    return false;
}

bool MaterialManager::canDownload(const Cookie& log, eMediaTypes types) { return canDownload(CookieVec{log}, types); }

WString MaterialManager::findFileForImageClip(const Cookie& clip) {
    EditPtr edit;
    if (!edit.i_open(clip, eEditOpenReadOnly) || !edit->isImage()) return WString();
    auto entry = SystemCache::findEntryForCookie(convertCookie(edit->getCookie(), 'V', 255));
    return entry ? entry->getPhysicalFilename(false) : WString();
}
