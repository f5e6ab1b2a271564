// Importing media files as clips: placing the file (link or copy) and writing the clip.
#include "host/project/ProjectImporter.h"

#include "host/core/Strings.h"
#include "host/project/DiskManager.h"
#include "host/project/Edit.h"
#include "host/project/EditManager.h"
#include "host/project/ImportRecovery.h"
#include "host/project/MaterialRecords.h"
#include "host/project/ProjectFiles.h"

#include <cwctype>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

bool hasExtension(const WString& path, std::initializer_list<const wchar_t*> list) {
    std::wstring ext = getExtension(path).str();
    for (auto& c : ext) c = wchar_t(std::towlower(wint_t(c)));
    for (const wchar_t* e : list)
        if (ext == e) return true;
    return false;
}

bool isSoundFile(const WString& p) {
    return hasExtension(p, {L"wav", L"aif", L"aiff", L"mp3", L"m4a", L"aac", L"flac", L"ogg", L"opus", L"ac3"});
}

bool isStillImage(const WString& p) {
    return hasExtension(p, {L"png", L"jpg", L"jpeg", L"tif", L"tiff", L"bmp", L"dpx", L"exr", L"gif", L"webp"});
}

// The clip's material cookies: video variant 0 when it has video, sound channels 1..n.
std::vector<Cookie> materialsOf(const Cookie& clip, int video, int audio) {
    std::vector<Cookie> out;
    if (video > 0) out.push_back(convertCookie(clip, 'V', 0));
    for (int ch = 1; ch <= audio; ++ch) out.push_back(convertCookie(clip, 'S', uint8_t(ch)));
    return out;
}

// Writes one clip (edit, channels, references, material entries, file records) within
// the caller's transaction.
bool writeClip(const Zn::Ptr<ProjectDatabase>& db, sql::Connection& conn, const Cookie& clip, const ClipRecord& r) {
    Zn::Ptr<Edit> edit(new Edit(db, clip, r.name, Edit::eLogClip, r.flags | Edit::eImported));
    edit->setAudioInputSampleRate(r.sampleRate);
    for (int i = 0; i < r.videoChannels; ++i) edit->addChannel(Edit::eVideo);
    for (int i = 0; i < r.audioChannels; ++i) edit->addChannel(Edit::eAudio);
    edit->addReference(Edit::eRefClips, edit->getCookie());
    bool ok = true;
    for (const Cookie& m : materialsOf(clip, r.videoChannels, r.audioChannels)) {
        edit->addReference(Edit::eRefMaterial, m);
        edit->addReference(Edit::eRefAvailability, m);
        if (!r.file.getMaterialFilename().empty())
            ok = ok && records::ensureMaterial(conn, m, 1) && records::insertFile(conn, m, records::eHighRes, 0, r.file);
    }
    return ok && edit->store(conn);
}

// The clip's name, rate and channels: by the file's kind, then as the options say. Why the
// layout cannot be a clip's, else empty.
WString layOutClip(const WString& sourceName, const ImportOptions& options, ClipRecord& clip) {
    clip.name = stripPathAndExt(sourceName);
    clip.sampleRate = options.sampleRate;
    if (isStillImage(sourceName)) {
        clip.flags = Edit::eImage;
        clip.videoChannels = 1;
        clip.audioChannels = 0;
    } else if (isSoundFile(sourceName)) {
        clip.videoChannels = 0;
        clip.audioChannels = 2;
    }
    if (options.videoChannels >= 0) clip.videoChannels = options.videoChannels;
    if (options.audioChannels >= 0) clip.audioChannels = options.audioChannels;
    if (clip.videoChannels + clip.audioChannels <= 0) return WString(L"the clip would have no channels");
    if (clip.videoChannels > 1 || clip.audioChannels > 254) return WString(L"too many channels");
    return WString();
}

// Puts the source on the drive under its pending name, a copy or a link file to it, and
// fills the clip's file record. Why it could not, else empty.
template <class Report>
WString placeFile(const WString& sourceName, const MaterialFilename& name, const DriveId& drive, uint64_t size,
                  const WString& pending, bool copy, Report& report, ClipRecord& clip) {
    if (copy) {
        auto rc = projectfs::copy(sourceName, pending, [&](uint64_t done, uint64_t) {
            report(ImportProgress::eCopying, done);
            return true;
        }, false);
        if (rc != iFileManager::eCopyOK)
            return WString(L"cannot copy onto drive ") + drive.asWString() + L" (copy result " +
                   Zn::WStringFromInteger(rc) + L")";
        clip.file = MediaFileInfo(name, size);
    } else {
        clip.file = MediaFileInfo(name, size, sourceName);
        if (!projectfs::makeLink(pending, sourceName, false))
            return WString(L"cannot make the link file ") + name.getOsPath();
    }
    return WString();
}

} // namespace

ProjectImporter::ProjectImporter(ImportOptions options) : options_(std::move(options)) {}

DriveId ProjectImporter::importDrive(const DriveId& wanted, WString* error) {
    if (!wanted.isNone()) {
        if (DiskManager::isMaterialVolume(wanted)) return wanted;
        if (error) *error = WString(L"the project has no media drive '") + wanted.asWString() + L"'";
        return DriveId();
    }
    DriveId d = DiskManager::getDriveForTask("import", true);
    if (!d.isNone()) return d;
    auto db = EditManager::getProjdb();
    if (!db) {
        if (error) *error = WString(L"no project is open");
        return DriveId();
    }
    if (db->folder().empty()) {
        // The seats of a server project share its drives: one is added on purpose.
        if (error) *error = WString(L"the project has no media drive (add one with playfile drives add)");
        return DriveId();
    }
    WString why;
    if (!DiskManager::addDrive(DriveId('A'), joinPaths(db->folder(), WString(L"media")), WString(L"media"),
                               String("import,render"), &why)) {
        if (error) *error = WString(L"cannot make a media drive: ") + why;
        return DriveId();
    }
    return DriveId('A');
}

ImportResult ProjectImporter::importFile(const WString& path) {
    ImportResult result;
    result.file = path;
    auto fail = [&](const WString& why) {
        result.error = why;
        return result;
    };
    auto db = EditManager::getProjdb();
    if (!db) return fail(WString(L"no project is open"));
    // Held to the end: a recovery in another process must not take this import's pending
    // file for a killed one's.
    ImportLock importing(*db, false);

    std::error_code ec;
    fs::path source = fs::absolute(projectfs::toPath(path), ec).lexically_normal();
    if (ec || !fs::exists(source, ec)) return fail(WString(L"no such file"));
    if (!fs::is_regular_file(source, ec)) return fail(WString(L"not a regular file"));
    WString sourceName = projectfs::fromPath(source);
    uint64_t size = fs::file_size(source, ec);

    WString why;
    DriveId driveId = importDrive(options_.drive, &why);
    if (driveId.isNone()) return fail(why);
    auto drive = DiskManager::getDriveWithUniqueId(driveId);
    if (!drive) return fail(WString(L"the media drive has gone"));

    ClipRecord clip;
    if (WString wrong = layOutClip(sourceName, options_, clip); !wrong.empty()) return fail(wrong);

    // The clip's number first (a transaction of its own: a failed import leaves a gap in
    // the numbers, nothing else), because the material file is named after it.
    Cookie cookie = newClipCookie(&why);
    if (!cookie.valid()) return fail(why);
    Cookie primary = materialsOf(cookie, clip.videoChannels, clip.audioChannels).front();
    WString ext = getExtension(sourceName);
    WString folder = primary.type() == 'S' ? drive->getSoundFolderName() : drive->getVideoFolderName();
    WString relative = joinPaths(folder, primary.asWString() + (ext.empty() ? WString(L"") : WString(L".") + ext));
    MaterialFilename name(driveId, relative, drive->getRoot());
    // The file goes under its pending name, and gets its final name only once the project
    // has the clip (see ImportRecovery.h).
    const WString placed = name.getOsPath();
    const WString pending = pendingImportName(placed);
    projectfs::createDirectory(getPath(placed));

    auto report = [&](ImportProgress::eStage stage, uint64_t done) {
        if (options_.progress) options_.progress(ImportProgress{stage, path, done, size});
    };
    if (WString wrong = placeFile(sourceName, name, driveId, size, pending, options_.copy, report, clip);
        !wrong.empty())
        return fail(wrong);
    clip.file.setStatus(MediaFileInfo::eStatusAvailable);

    bool stored;
    std::string dbError;
    {
        ProjectDatabase::Write w(*db);
        if (!writeClip(db, w.db(), cookie, clip)) w.fail();
        report(ImportProgress::eRegistering, size);
        stored = w.commit();
        if (!stored) dbError = w.error();
    }
    if (!stored) {
        projectfs::remove(pending); // the copy, or the link file: never the source
        return fail(WString(L"the project refused the clip: ") + fromUTF8(dbError.c_str()));
    }
    // Should this fail, the next opening of the project puts the file in place.
    if (!projectfs::rename(pending, placed))
        return fail(WString(L"the clip is stored, but its file could not be renamed to ") + placed);
    report(ImportProgress::eDone, size);
    result.ok = true;
    result.clip = cookie;
    return result;
}

Cookie ProjectImporter::newClipCookie(WString* error) {
    auto db = EditManager::getProjdb();
    if (!db) {
        if (error) *error = WString(L"no project is open");
        return Cookie();
    }
    ProjectDatabase::Write w(*db);
    Cookie cookie = ProjectDatabase::newCookie(w.db(), 'E');
    if (cookie.valid() && w.commit()) return cookie;
    if (error) *error = WString(L"the project refused a new clip: ") + fromUTF8(w.error().c_str());
    return Cookie();
}

bool ProjectImporter::registerClip(const Cookie& clip, const ClipRecord& record, WString* error) {
    auto db = EditManager::getProjdb();
    if (!db) {
        if (error) *error = WString(L"no project is open");
        return false;
    }
    ProjectDatabase::Write w(*db);
    if (!writeClip(db, w.db(), clip, record)) w.fail();
    if (w.commit()) return true;
    if (error) *error = fromUTF8(w.error().c_str());
    return false;
}

std::vector<Cookie> ProjectImporter::registerClips(const std::vector<ClipRecord>& clips, WString* error) {
    std::vector<Cookie> out;
    auto db = EditManager::getProjdb();
    if (!db) {
        if (error) *error = WString(L"no project is open");
        return out;
    }
    ProjectDatabase::Write w(*db);
    for (const auto& c : clips) {
        Cookie cookie = ProjectDatabase::newCookie(w.db(), 'E');
        if (!cookie.valid() || !writeClip(db, w.db(), cookie, c)) {
            w.fail();
            break;
        }
        out.push_back(cookie);
    }
    if (!w.commit()) {
        if (error) *error = fromUTF8(w.error().c_str());
        out.clear();
    }
    return out;
}
