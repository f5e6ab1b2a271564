// A clip's location record, the offline test of an edit view, and the shared name and
// drive functions of the material code.
#include "playfile/material/MediaLocationUtils.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/FileQueryScope.h"
#include "host/os/OS.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/EditInfo.h"
#include "host/project/EditModule.h"
#include "host/project/SystemCache.h"
#include "playfile/open/MediaTypes.h"

#include <algorithm>

namespace {

constexpr wchar_t kSeparator = L'/';
constexpr wchar_t kForeignSeparator = L'\\';

MediaLocationInfo::eMediaStatus asStatus(int status) { return MediaLocationInfo::eMediaStatus(status); }

void addFileOf(MediaLocationInfo& info, FsysDirectoryEntry& entry) {
    info.highResStatuses.push_back(asStatus(entry.updateStatus(kMediaHighRes)));
    info.proxyStatuses.push_back(asStatus(entry.updateStatus(kMediaProxy)));
    WString name = entry.getPhysicalFilename(false);
    if (OS()->fileManager()->isRemoteLocation(name)) {
        info.locations.push_back(name);
        info.fileNames.push_back(WString());
    } else {
        info.fileNames.push_back(MediaLocationUtils::stripPath2(name));
        info.locations.push_back(getPath(name));
    }
    MaterialFilename materialName = entry.getMaterialFilename();
    if (!materialName.getPath().empty()) info.materialFilenames.push_back(materialName);
}

} // namespace

bool MediaLocationUtils::servesLogType(int logType) noexcept {
    return logType == 1 || logType == 4 || logType == 16 || logType == 32 || logType == 1024;
}

MediaLocationInfo MediaLocationUtils::getClipLocationInfo(const Cookie& clip) {
    FileQueryScope files; // a file shared by the clip's materials is looked at once
    MediaLocationInfo info;
    if (!servesLogType(EditInfo(clip).getLogType())) return info;
    EditPtr edit;
    if (!edit.i_open(clip, eEditOpenReadOnly) || edit->isEmpty(1)) return info;
    for (const Cookie& material : edit->getReferences(Edit::eRefMaterial)) {
        info.materialCookies.push_back(material);
        if (auto entry = SystemCache::findEntryForCookie(material)) addFileOf(info, *entry);
    }
    edit.i_close();
    return info;
}

bool isMediaOffline(const EditModule& module) {
    FileQueryScope files;
    const EditPtr& edit = module.getEdit();
    if (!edit || edit->isEmpty(1)) return false;
    const int logType = edit->getLogType();
    if (MediaLocationUtils::servesLogType(logType))
        return MediaLocationUtils::getClipLocationInfo(edit->getCookie()).allMediaOffline();
    if (logType != Edit::eLogSequence) return false;

    Vector<int> chans;
    if (module.getSelectedChans(chans, 1, 15) == 0) return false;
    EditGraphIterator it(edit, chans[0], module.getCurrentTime(1), 2);
    if (dynamic_cast<EffectInstance*>(it.getNode(-1).get())) return false;
    Zn::Ptr<CelEventPair> cel = it.getUTRHandle(-1);
    if (!cel) return false;
    Cookie material = cel->stripCookie();
    if (material.id1() == 1 && material.id2() == Cookie::kFillerWord) return false;
    return MediaLocationUtils::getClipLocationInfo(convertCookie(material, 'E', 255)).allMediaOffline();
}

bool MediaLocationUtils::isAllMediaOffline(const EditModule& module) { return isMediaOffline(module); }

bool MediaLocationUtils::isSomeMediaOffline(const EditModule& module) { return isMediaOffline(module); }

WString MediaLocationUtils::stripPath2(const WString& path) {
    if (path.empty()) return stripPath(path);
    std::wstring normalised = path.str();
    std::replace(normalised.begin(), normalised.end(), kForeignSeparator, kSeparator);
    return stripPath(WString(normalised));
}

MediaLocationUtils::eMaterialType
MediaLocationUtils::getMaterialTypeFromName(const WString& fileName) {
    switch (Cookie(stripPathAndExt(fileName), false).type()) {
    case 'V':
        return kVideoMaterial;
    case 'S':
        return kSoundMaterial;
    default:
        return kOtherMaterial;
    }
}

Zn::Ptr<MediaDrive> MediaLocationUtils::findMediaLocationFromFile(const WString& fileName) {
    const WString folder = getPath(fileName);
    for (auto& drive : DiskManager::getDrives())
        if (drive->getLocation('V') == folder || drive->getLocation('S') == folder) return drive;
    return nullptr;
}

bool MediaLocationUtils::isLinkedLocal(const MediaFileInfo& file) {
    if (file.getStorageKind() != MediaFileInfo::kStorageLinked) return false;
    return findMediaLocationFromFile(file.getPhysicalFilename(false)) != nullptr;
}

CookieVec MediaLocationUtils::buildShotList(const CookieVec& logs) {
    CookieVec shots;
    for (const Cookie& log : logs) {
        EditPtr edit;
        if (!edit.i_open(log, eEditOpenReadOnly)) continue;
        for (const Cookie& c : edit->getReferences(Edit::eRefAvailability))
            if (c.id2() != Cookie::kFillerWord) shots.add(c);
    }
    return shots;
}
