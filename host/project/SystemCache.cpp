// The material directory's look-ups and changes.
#include "host/project/SystemCache.h"

#include "host/core/Strings.h"
#include "host/project/EditManager.h"
#include "host/project/MaterialRecords.h"
#include "host/project/ProjectDatabase.h"
#include "host/project/ProjectFiles.h"
#include "host/project/RowCache.h"

#include <algorithm>
#include <cwctype>
#include <memory>

namespace {

// Extensions of files that hold media (lower case).
const wchar_t* const kMediaExtensions[] = {
    L"mov", L"mp4", L"m4v", L"mxf", L"avi", L"mkv", L"webm", L"mts", L"m2ts", L"ts", L"mpg", L"mpeg", L"dv",
    L"y4m", L"wav", L"aif", L"aiff", L"mp3", L"m4a", L"aac", L"flac", L"ogg", L"opus", L"ac3",
    L"png", L"jpg", L"jpeg", L"tif", L"tiff", L"bmp", L"dpx", L"exr", L"gif", L"webp",
};

WString lower(const WString& s) {
    std::wstring out = s.str();
    for (auto& c : out) c = wchar_t(std::towlower(wint_t(c)));
    return WString(out);
}

// When path does not exist but exactly one "<path>.<ext>" does, that one.
WString withFoundExtension(const WString& path) {
    if (path.empty() || projectfs::exists(path)) return path;
    auto found = projectfs::listDirectory(getPath(path), stripPath(path) + L".*");
    // The play header beside the file is its companion, never the file itself.
    std::erase_if(found, [](const WString& name) { return getExtension(name) == WString(L"hdr"); });
    return found.size() == 1 ? joinPaths(getPath(path), found.front()) : path;
}

// Removes a file of the entry from disk: a link file only when it is a link, a file held
// on a drive together with its header sidecar when it is the high-resolution file.
bool deleteFromDisk(const records::FileRow& f, WString& reason) {
    WString at = f.info.getOsPath();
    if (at.empty()) return true;
    if (f.info.isLinked()) {
        if (projectfs::isLink(at) && !projectfs::remove(at)) {
            reason = WString(L"cannot delete link file ") + at;
            return false;
        }
        return true;
    }
    if (projectfs::exists(at) && !projectfs::remove(at)) {
        reason = WString(L"cannot delete ") + at;
        return false;
    }
    if (f.role == records::eHighRes) {
        WString header = stripExtension(at) + L".hdr";
        if (projectfs::exists(header)) projectfs::remove(header);
    }
    return true;
}

int findProxy(const records::EntryRow& row, const MediaFileInfo& file) {
    for (size_t i = 0; i < row.files.size(); ++i)
        if (row.files[i].role == records::eProxy && row.files[i].info == file) return int(i);
    WString physical = file.getPhysicalFilename(false);
    for (size_t i = 0; i < row.files.size(); ++i)
        if (row.files[i].role == records::eProxy && row.files[i].info.getPhysicalFilename(false) == physical)
            return int(i);
    return -1;
}

// A directory entry as stored, and the cookie it was found under.
struct StoredEntry {
    Cookie cookie;
    records::EntryRow row;
};

// Entries by the cookie asked for; a null entry says the directory has none.
RowCache<Cookie, std::shared_ptr<const StoredEntry>> g_entries(1u << 18);

std::shared_ptr<const StoredEntry> readEntry(const ProjectDatabase& db, const Cookie& material) {
    auto e = std::make_shared<StoredEntry>();
    e->cookie = material;
    ProjectDatabase::Read r(db);
    if (records::loadEntry(r.db(), material, e->row)) return e;
    // A video cookie without a variant (the index for none) names the item's first
    // video variant, as the cookie of a still image's material is asked.
    if (material.type() != 'V' || material.index() != Cookie::kNoIndex) return nullptr;
    e->cookie = records::firstVideoVariant(r.db(), material);
    if (!e->cookie.valid() || !records::loadEntry(r.db(), e->cookie, e->row)) return nullptr;
    return e;
}

} // namespace

Zn::Ptr<FsysDirectoryEntry> SystemCache::findEntryForCookie(const Cookie& material) {
    auto db = EditManager::getProjdb();
    if (!db) return nullptr;
    std::shared_ptr<const StoredEntry> stored;
    uint64_t state;
    if (!g_entries.find(*db, material, stored, state)) {
        stored = readEntry(*db, material);
        g_entries.put(*db, material, stored, state);
    }
    return stored ? Zn::Ptr<FsysDirectoryEntry>(new FsysDirectoryEntry(db, stored->cookie, stored->row)) : nullptr;
}

WString SystemCache::findFileForCookie(const Cookie& material) {
    auto e = findEntryForCookie(material);
    return e ? e->getPhysicalFilename(false) : WString();
}

bool SystemCache::fileExists(const Cookie& material) {
    auto e = findEntryForCookie(material);
    return e && e->hasFile();
}

DriveId SystemCache::getDriveForCookie(const Cookie& material, int chanType) {
    auto e = findEntryForCookie(material);
    if (!e || !e->hasFile()) return DriveId();
    if (e->updateStatus(1) != MediaFileInfo::eStatusAvailable) return DriveId();
    return e->getMaterialFilename().getDrive();
}

bool SystemCache::isEligible(const WString& fileName) {
    WString ext = lower(getExtension(fileName));
    // A play header kept beside its media is a copy of the project's own record that
    // travels with the media file, like any other companion.
    if (ext == L"hdr") return false;
    for (const wchar_t* m : kMediaExtensions)
        if (ext == m) return true;
    if (Cookie(stripPathAndExt(fileName), false).valid()) return true;
    auto db = EditManager::getProjdb();
    if (!db) return false;
    MaterialFilename name = MaterialFilename::fromOsPath(fileName);
    ProjectDatabase::Read r(*db);
    sql::Query q(r.db(), "SELECT 1 FROM files WHERE (drive = ?1 AND path = ?2) OR link_target = ?3 LIMIT 1");
    q.bind(1, String(std::string(1, name.getDriveChar()))).bind(2, name.getPath()).bind(3, fileName);
    return q.next();
}

std::vector<ClipMediaFile> SystemCache::getClipMediaFiles(const Cookie& clip) {
    std::vector<ClipMediaFile> out;
    auto db = EditManager::getProjdb();
    if (!db) return out;
    ProjectDatabase::Read r(*db);
    for (const Cookie& c : records::materialsOf(r.db(), clip)) {
        records::EntryRow row;
        if (!records::loadEntry(r.db(), c, row)) continue;
        for (auto& f : row.files) out.push_back({c, f.info});
    }
    return out;
}

int SystemCache::addFile(const Cookie& material, const WString& osPath, unsigned flags) {
    WString path = withFoundExtension(osPath);
    return addFile(material, MaterialFilename::fromOsPath(path), flags);
}

int SystemCache::addFile(const Cookie& material, const MaterialFilename& name, unsigned flags) {
    auto db = EditManager::getProjdb();
    if (!db || !material.valid() || name.empty()) return 0;
    MaterialFilename actual = name;
    WString os = name.getOsPath();
    WString found = withFoundExtension(os);
    if (found != os) actual = MaterialFilename::fromOsPath(found);
    int64_t size = projectfs::size(actual.getOsPath());
    MediaFileInfo info(actual, size < 0 ? 0 : uint64_t(size));
    if (flags & eAddProxy) info.setProxy(true);
    info.refreshStatus();

    ProjectDatabase::Write w(*db);
    int kind = (flags & eAddGrowing) ? FsysDirectoryEntry::eGrowing : FsysDirectoryEntry::eComplete;
    if (!records::ensureMaterial(w.db(), material, kind)) w.fail();
    records::EntryRow row;
    records::loadEntry(w.db(), material, row);
    int role = info.isProxy() ? records::eProxy : records::eHighRes, seq = 0;
    if (info.isProxy()) {
        int at = findProxy(row, info);
        seq = at >= 0 ? row.files[size_t(at)].seq : records::nextProxySeq(w.db(), material);
    }
    if (!records::insertFile(w.db(), material, role, seq, info)) w.fail();
    return w.commit() ? 1 : 0;
}

int SystemCache::removeFile(const Cookie& material, const MediaFileInfo* file, unsigned types, WString* reason) {
    auto say = [&](const WString& why) {
        if (reason) *reason = why;
        return 0;
    };
    auto db = EditManager::getProjdb();
    if (!db) return say(WString(L"no project is open"));
    ProjectDatabase::Write w(*db);
    records::EntryRow row;
    if (!records::loadEntry(w.db(), material, row)) return say(WString(L"the material is not in the directory"));
    size_t kept = row.files.size();
    for (const auto& f : row.files) {
        bool chosen = file ? f.info == *file
                           : ((types & 1) && f.role == records::eHighRes) || ((types & 2) && f.role == records::eProxy);
        if (!chosen) continue;
        WString why;
        if (!deleteFromDisk(f, why)) {
            w.commit(); // the records of files deleted so far go with them
            return say(why);
        }
        if (!records::deleteFile(w.db(), material, f.role, f.seq)) w.fail();
        --kept;
    }
    if (file && kept == row.files.size()) return say(WString(L"the material has no such file"));
    if (kept == 0 && !records::deleteMaterial(w.db(), material)) w.fail();
    if (!w.commit()) return say(fromUTF8(w.error().c_str()));
    return 1;
}

bool SystemCache::removeProxyFile(const Cookie& material, const MediaFileInfo& file) {
    auto db = EditManager::getProjdb();
    if (!db) return false;
    ProjectDatabase::Write w(*db);
    records::EntryRow row;
    if (!records::loadEntry(w.db(), material, row)) return false;
    int at = findProxy(row, file);
    if (at < 0) return false;
    if (!records::deleteFile(w.db(), material, records::eProxy, row.files[size_t(at)].seq)) w.fail();
    return w.commit();
}

bool SystemCache::renameProxyFile(const Cookie& material, const WString& from, const WString& to) {
    auto db = EditManager::getProjdb();
    if (!db || to.empty()) return false;
    MaterialFilename name = MaterialFilename::fromOsPath(to);
    int64_t size = projectfs::size(to);
    ProjectDatabase::Write w(*db);
    records::EntryRow row;
    if (!records::loadEntry(w.db(), material, row)) return false;
    int at = -1;
    for (size_t i = 0; i < row.files.size() && at < 0; ++i) {
        const auto& f = row.files[i];
        if (f.role == records::eProxy && (f.info.getOsPath() == from || f.info.getPhysicalFilename(false) == from))
            at = int(i);
    }
    for (size_t i = 0; i < row.files.size() && at < 0; ++i) {
        const auto& f = row.files[i];
        if (f.role == records::eProxy && stripPath(f.info.getPhysicalFilename(false)) == stripPath(from)) at = int(i);
    }
    if (at < 0) return false;
    records::FileRow& f = row.files[size_t(at)];
    f.info.setMaterialFilename(name, WString());
    f.info.setSize(size < 0 ? 0 : uint64_t(size));
    f.info.refreshStatus();
    if (!records::updateFile(w.db(), material, records::eProxy, f.seq, f.info)) w.fail();
    return w.commit();
}

int SystemCache::updateStatus(const Cookie& material, unsigned types) {
    auto e = findEntryForCookie(material);
    return e ? e->updateStatus(types) : 0;
}
