// Creating and renaming a clip's material files (ClipMedia::create, renameMediaFiles).
// Every file that is renamed is closed in the play file cache first, so that no reader
// keeps it open underneath.
#include "playfile/open/ClipMedia.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/project/DiskManager.h"
#include "host/project/MaterialFilename.h"
#include "host/project/MaterialInfo.h"
#include "host/project/SystemCache.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/header/PlayPriv.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/open/PlayFileWriter.h"

#include <map>
#include <string>

namespace {

// The name a new material file gets, without its extension: the cookie's name on the
// drive that takes rendered (and captured) material.
MaterialFilename materialFilenameFor(const Cookie& cookie) {
    return getMaterialFilenameForCookie(cookie, DiskManager::getDriveForTask("render", true));
}

String headerText(SAV_HEADER& hdr) {
    std::string text(header_text_size(&hdr), '\0');
    char* end = header_to_string(&hdr, text.data());
    text.resize(size_t(end - text.data()));
    return String(text);
}

WString replaced(const WString& in, const WString& what, const WString& with) {
    std::wstring s = in.str();
    const std::wstring w = what.str();
    if (w.empty()) return in;
    size_t at = s.find(w);
    if (at == std::wstring::npos) return in;
    s.replace(at, w.size(), with.str());
    return WString(s);
}

} // namespace

Zn::Ptr<Zn::FileWriteInstance> ClipMedia::create(const Cookie& cookie, Zn::FileWriterParams& params) {
    WString name = materialFilenameFor(cookie).getOsPath();
    std::vector<WString> extensions = Zn::FileWriterInfo::getExtensionsForFormat(params);
    if (!name.empty() && !extensions.empty()) name = name + L"." + extensions.front();

    // Without a drive to put it on there is no name, and nothing is created.
    Zn::Ptr<Zn::FileWriteInstance> writer = name.empty() ? nullptr : PlayFileWriter::open(name, params);
    if (!writer) {
        Log("PlayFile[%s]::create: *** Unable to create material file (%s) ***\n", cookie.asString().c_str(),
            toUTF8(name).c_str());
        return nullptr;
    }

    Zn::Ptr<PlayFile> file = Zn::makePtr<PlayFile>(name);
    SAV_HEADER hdr;
    switch (cookie.type()) {
    case 'S':
        SystemCache::addFile(cookie, name, 0);
        PlayPriv::make_audio_header(file, &hdr, double(params.audio.getSampleRate()),
                                    int(params.audio.getBytesPerSample()));
        writer->getMetadata().audioStream = params.audio;
        break;
    case 'V':
        SystemCache::addFile(cookie, name, 0);
        PlayPriv::make_vision_header(file, params.videoMetadata(), &hdr);
        break;
    default: {
        Log("PlayFile[%s]::create: *** Bad type ***\n", cookie.asString().c_str());
        // No record names the file just made: take it away again rather than leave it.
        writer->close();
        writer = nullptr;
        OS()->fileManager()->deleteFile(name);
        return nullptr;
    }
    }
    if (MaterialInfo::write_header(cookie, headerText(hdr)) == MaterialInfo::kWriteFailed) {
        Log("plf_open: failed to open file\n");
        return nullptr;
    }
    return writer;
}

int ClipMedia::renameMediaFiles(const Cookie& from, const Cookie& to) {
    std::vector<ClipMediaFile> files = SystemCache::getClipMediaFiles(from);
    // What goes with a material besides its files: its header and start offset. Taken
    // before the first file moves, because removing a material's last file drops them.
    struct Carried {
        String header;
        int64_t startOffset;
        int kind;
    };
    std::map<Cookie, Carried> carried;
    for (const ClipMediaFile& f : files)
        if (!carried.count(f.cookie)) {
            Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(f.cookie);
            carried[f.cookie] = {MaterialInfo::read_header(f.cookie), MaterialInfo::get_start_offset(f.cookie),
                                 entry ? entry->getKind() : int(FsysDirectoryEntry::eComplete)};
        }

    int result = 1;
    for (ClipMediaFile f : files) {
        const Cookie target = convertCookie(to, f.cookie.type(), f.cookie.index());
        MediaFileInfo& info = f.file;
        const MediaFileInfo old = info;
        cache_.remove(info.getPhysicalFilename(false));

        const MaterialFilename& oldName = info.getMaterialFilename();
        MaterialFilename newName(oldName.getDrive(), replaced(oldName.getPath(), f.cookie.asWString(),
                                                              target.asWString()));
        const WString oldOs = oldName.getOsPath(), newOs = newName.getOsPath();
        const bool moves = !(newName == oldName);
        if (moves && !OS()->fileManager()->renameFile(oldOs, newOs)) {
            LogBoth("PlayFileCache::renameMediaFiles: cannot rename %ls to %ls\n", oldOs.c_str(), newOs.c_str());
            result = 0;
            continue;
        }
        info.setMaterialFilename(newName, info.getLinkTarget());

        // The old record goes. When the file was renamed, nothing is left at its old name for
        // removeFile to delete but the header sidecar, which is rewritten beside the new
        // name below; a file whose name does not carry the clip's identifier keeps its name,
        // and then only its record may go, never the file.
        bool removed = false;
        if (moves) {
            removed = SystemCache::removeFile(f.cookie, &old, info.isProxy() ? kMediaProxy : kMediaHighRes) == 1;
        } else if (Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(f.cookie)) {
            removed = entry->removeFile(old);
        }
        unsigned flags = info.isProxy() ? unsigned(SystemCache::eAddProxy) : 0u;
        if (carried[f.cookie].kind == FsysDirectoryEntry::eGrowing) flags |= SystemCache::eAddGrowing;
        bool added = SystemCache::addFile(target, newName, flags) == 1;
        if (added && info.isLinked() && !info.isProxy())
            if (Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(target))
                added = entry->setLinkedFilename(info.getLinkTarget());
        if (!removed || !added) result = 0;
        if (added && !info.isProxy()) {
            const Carried& c = carried[f.cookie];
            if (!c.header.empty()) MaterialInfo::write_header(target, c.header);
            if (c.startOffset) MaterialInfo::set_start_offset(target, c.startOffset);
        }
    }
    return result;
}
