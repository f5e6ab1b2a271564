// Gathering a material's files, measured, for a copy to another drive.
#include "playfile/material/LogicalMediaFile.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/OS.h"
#include "host/project/DiskManager.h"
#include "host/project/EditManager.h"
#include "host/project/SystemCache.h"
#include "playfile/material/MediaLocationUtils.h"

#include <cstring>
#include <string>

namespace {

// The log types whose edits are searched for a drive's material (clips, logs, ...).
constexpr unsigned kLogTypesWithMaterial = 32844;

uint64_t sizeOnDisk(const WString& osPath) {
    if (osPath.empty()) return 0;
    int64_t n = OS()->fileManager()->fileSize(osPath);
    return n > 0 ? uint64_t(n) : 0;
}

// Appends the file when it is not on the excluded drive and is present.
void addIfTravelling(LogicalMediaFile& record, const MediaFileInfo& file, DriveId excluded) {
    if (file.getMaterialFilename().getDriveChar() == excluded.getUniqueId()) return;
    MediaFileInfoEx measured(file);
    if (measured.getFileSize() == 0) return;
    record.files.push_back(std::move(measured));
}

int channelTypeOf(const Cookie& material) { return material.type() == 'V' ? 1 : 2; }

} // namespace

MediaFileInfoEx::MediaFileInfoEx(const MediaFileInfo& info) : MediaFileInfo(info), fileSize_(sizeOnDisk(info.getOsPath())) {}

uint64_t LogicalMediaFile::totalSize() const noexcept {
    uint64_t total = 0;
    for (const auto& f : files) total += f.getFileSize();
    return total;
}

LogicalMediaFile makeLogicalMediaFile(const Cookie& material, DriveId excluded) {
    LogicalMediaFile record;
    record.cookie = material;
    Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(material);
    if (!entry) return record;
    if (entry->hasFile()) addIfTravelling(record, entry->getFile(), excluded);
    for (const MediaFileInfo& proxy : entry->getProxyFiles()) addIfTravelling(record, proxy, excluded);
    return record;
}

void getMaterialFiles(const CookieVec& materials, std::vector<LogicalMediaFile>& out, DriveId excluded) {
    for (const Cookie& c : materials) {
        LogicalMediaFile record = makeLogicalMediaFile(c, excluded);
        if (!record.files.empty()) out.push_back(std::move(record));
    }
}

void getMaterialFilesOnDrive(const DriveId& drive, std::vector<LogicalMediaFile>& out) {
    Zn::Ptr<ProjectDatabase> db = EditManager::getProjdb();
    if (!db) return;
    CookieVec logs = db->search(1, kLogTypesWithMaterial);
    if (logs.size() == 0) return;
    for (const Cookie& shot : MediaLocationUtils::buildShotList(logs)) {
        DriveId on = SystemCache::getDriveForCookie(shot, channelTypeOf(shot));
        if (on.isNone() || !(on == drive)) continue;
        LogicalMediaFile record = makeLogicalMediaFile(shot, drive);
        if (!record.files.empty()) out.push_back(std::move(record));
    }
}

uint64_t ToolsGetfilesize(const char* name) {
    if (!name || !*name) return 0;
    const size_t length = std::strlen(name);
    auto widen = [](const char* from) {
        std::wstring w;
        for (const char* p = from; *p; ++p) w += wchar_t(static_cast<unsigned char>(*p));
        return WString(w);
    };
    WString path;
    if (DiskManager::isMaterialVolume(name[0]))
        path = DiskManager::getMaterialVolumeName(DriveId(name[0]), false) + widen(name + std::min<size_t>(2, length));
    else
        path = widen(name);
    return sizeOnDisk(path);
}
