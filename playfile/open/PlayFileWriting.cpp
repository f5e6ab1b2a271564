// Creating, writing, deleting and renaming play files: PlayUtil::openWrite and the sample
// writers, PlayFileCache::create and the renames, PlayUtil::deletePlayFile and
// delete_material_files. Every file that is deleted or renamed is closed in the play file
// cache first, so that no reader keeps it open underneath.
#include "host/core/Strings.h"
#include "host/media/CapturePacket.h"
#include "host/media/FileWriterInfo.h"
#include "host/os/FileManager.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/project/DiskManager.h"
#include "host/project/MaterialFilename.h"
#include "host/project/MaterialInfo.h"
#include "host/project/SystemCache.h"
#include "playfile/Configuration.h"
#include "playfile/header/PlayHeader.h"
#include "playfile/header/PlayPriv.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/open/PlayUtil.h"

#include <map>
#include <string>

namespace {

// The back-pressure rule of the sample writer: wait while more than this many frames are
// pending in the writer...
constexpr unsigned kMaxPendingFrames = 32;
// ...in steps of this long...
constexpr unsigned kPendingWaitMs = 100;
// ...for at most this many steps less one (the count is decremented before each wait and
// reaching 0 gives up, so a writer gets 49 waits, about 4.9 seconds).
constexpr int kPendingWaitCount = 50;

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

Zn::Ptr<Zn::FileWriteInstance> PlayUtil::openWrite(const WString& fileName, Zn::FileWriterParams& params) {
    Zn::Ptr<Zn::iFileWriter> writer = Zn::FileWriterInfo::getFileWriterFor(params);
    if (!writer) return nullptr;
    Zn::Ptr<Zn::FileWriteInstance> out;
    // A back-end that throws is a broken back-end, not a reason to take the host down.
    try {
        if (writer->create(fileName, params, out) != 1) return nullptr;
    } catch (const std::exception& e) {
        LogBoth("PlayUtil::openWrite: writer %s failed: %s\n", writer->name().c_str(), e.what());
        return nullptr;
    }
    return out;
}

Zn::Ptr<Zn::FileWriteInstance> PlayFileCache::create(const Cookie& cookie, Zn::FileWriterParams& params) {
    WString name = materialFilenameFor(cookie).getOsPath();
    std::vector<WString> extensions = Zn::FileWriterInfo::getExtensionsForFormat(params);
    if (!name.empty() && !extensions.empty()) name = name + L"." + extensions.front();

    // Without a drive to put it on there is no name, and nothing is created.
    Zn::Ptr<Zn::FileWriteInstance> writer = name.empty() ? nullptr : PlayUtil::openWrite(name, params);
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

int PlayUtil::ZnVideoSample_write(Zn::Ptr<Zn::FileWriteInstance>& writer, int sampleId, Zn::Ptr<CapturePacket>& packet,
                                  void (*done)(RequestStatus)) {
    if (!writer || !packet) return 0;
    auto& written = writer->getMetadata().framesWritten;
    if (uint32_t(sampleId) != written.load() || sampleId < 0) {
        LogBoth("Bad sample ID %d\n", sampleId);
        return 0;
    }
    for (int waits = kPendingWaitCount; writer->pendingFrames() > kMaxPendingFrames;) {
        if (--waits == 0) {
            if (done) done(RequestStatus::Failed);
            LogBoth("Failed to write sample %d\n", sampleId);
            return 0;
        }
        OS()->sleep(kPendingWaitMs);
    }
    const bool surfaces = writer->takesSurfaces();
    int rc = surfaces ? writer->writeSurface(packet->getImage(), sampleId)
                      : writer->writeFrame(packet->getImage(), sampleId);
    if (rc != 1) {
        if (!surfaces) writer->abandonFrame();
        if (done) done(RequestStatus::Failed);
        LogBoth("Failed to write sample %d\n", sampleId);
        return rc;
    }
    if (done) done(RequestStatus::Complete);
    written.fetch_add(1);
    return 1;
}

int PlayUtil::ZnAudioSamples_write(Zn::Ptr<Zn::FileWriteInstance>& writer, Zn::Ptr<iMemHolder>& samples,
                                   void (*done)(RequestStatus)) {
    if (!writer) return 0;
    int rc = writer->writeAudio(samples, done);
    if (rc == 1) {
        auto& meta = writer->getMetadata();
        const uint64_t frameBytes = uint64_t(meta.audioStream.getBytesPerSample()) * meta.audioStream.getNumChannels();
        if (frameBytes && samples) meta.audioFramesWritten.fetch_add(samples->getUsed() / frameBytes);
    }
    return rc;
}

int PlayUtil::deletePlayFile(const Cookie& cookie, eMediaTypes types) {
    Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(cookie);
    if (!entry) {
        LogBoth("PlayFile[%s]::delete: *** Material not available ***\n", cookie.asString().c_str());
        return 0;
    }
    std::vector<WString> files;
    if (types == kMediaProxy || types == kMediaAll)
        for (const MediaFileInfo& proxy : entry->getProxyFiles()) files.push_back(proxy.getPhysicalFilename(false));
    if (types != kMediaProxy && entry->hasFile()) files.push_back(entry->getPhysicalFilename(false));
    for (const WString& f : files) PlayFileCache::Shared().remove(f);

    WString reason;
    int rc = SystemCache::removeFile(cookie, nullptr, types, &reason);
    if (rc != 1)
        LogBoth("PlayFile[%s]::delete: *** Unable to delete material file ***, %s\n", cookie.asString().c_str(),
                toUTF8(reason).c_str());
    // A sound file's derived data in this host is its header, which removeFile deletes with
    // the file (the project's copy and the sidecar); decoded audio lives only in the open
    // instance, closed above. So there is nothing further to drop for 'S'.
    return rc;
}

int PlayUtil::delete_material_files(Cookie cookie, eMediaTypes types) {
    int result = 1;
    auto deleteIfKnown = [&](const Cookie& material) {
        if (!SystemCache::fileExists(material)) return;
        int rc = deletePlayFile(material, types);
        if (rc != 1) result = rc; // the last failure is the one reported
    };
    for (unsigned variant = 0; variant < 24; ++variant) deleteIfKnown(convertCookie(cookie, 'V', uint8_t(variant)));
    const int channels = PlayfileConfig::maxAudioChansInShot();
    if (channels < 1) return result;
    for (int channel = 1; channel <= channels && channel < Cookie::kNoIndex; ++channel)
        deleteIfKnown(convertCookie(cookie, 'S', uint8_t(channel)));
    return result;
}

int PlayFileCache::renameMediaFiles(const Cookie& from, const Cookie& to) {
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
        remove(info.getPhysicalFilename(false));

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

int PlayFileCache::renameMediaFile(const Cookie& from, const Cookie& to) { return renameMediaFiles(from, to); }
