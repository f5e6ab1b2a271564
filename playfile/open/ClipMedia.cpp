#include "playfile/open/ClipMedia.h"

#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/os/Resources.h"
#include "host/media/AudioMetadata.h"
#include "host/os/FileManager.h"
#include "host/os/OS.h"
#include "host/project/Edit.h"
#include "host/project/EditManager.h"
#include "host/project/EditModifier.h"
#include "host/project/MaterialInfo.h"
#include "host/project/SystemCache.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayFileCache.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"

#include <algorithm>
#include <numeric>
#include <vector>

ClipMedia::ClipMedia() : cache_(PlayFileCache::Shared()) {}

// ---------------------------------------------------------------------------------------
// Read requests

eClipRead ClipMedia::videoReadRequest(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame,
                                      eResultType resultType, const DecodeFormat& format,
                                      Zn::Ptr<ReadRequestIssuer::Proxy> issuer) {
    Zn::Ptr<FileReadInstance> file = cache_.open(material, format, 0);
    // The start offset counts fields, two to a frame.
    int64_t index = MaterialInfo::get_start_offset(material) / 2 + frame;
    if (!file || index < 0) return eClipRead::kNotAvailable;

    const PlayFileMetadataRep& meta = *file->getMetadata();
    Zn::Ptr<IndexInfoRep> indexInfo;
    if (index == 0 && meta.hasStillImage()) {
        request = Zn::makePtr<VideoReadRequest>(file, indexInfo, 0u, resultType, format, issuer);
        request->setResultBuffer(Zn::makePtr<FrameBufferRep>(0u, meta.getStillImage()));
        request->requestHasCompleted(RequestStatus::Complete);
        return eClipRead::kVideoQueued;
    }
    const uint32_t frames = meta.getFrameCount();
    if (frames != 1 && index >= int64_t(frames)) return eClipRead::kNotAvailable;
    // A one-frame file shows its frame wherever it is asked.
    uint32_t at = frames == 1 ? 0u : uint32_t(index);
    at += file->getVideoOrigin();
    file->ZnFileIxCache_open(indexInfo, at);
    request = Zn::makePtr<VideoReadRequest>(file, indexInfo, at, resultType, format, issuer);
    return file->queueReadRequest(request, false) ? eClipRead::kVideoQueued : eClipRead::kNotAvailable;
}

uint32_t ClipMedia::codecFrameReadLength(uint64_t sample, uint32_t count, int64_t frameSize) {
    const uint64_t f = frameSize < 1 ? 4096u : uint64_t(frameSize);
    if (count == 4096) {
        // Whole codec frames in whole blocks of 4096 samples. For 2048 and 1024 the length
        // is four blocks, more than the common multiple needs: kept as it always was.
        uint64_t blocks;
        switch (f) {
        case 1152: blocks = 9; break;
        case 1536: blocks = 3; break;
        case 2048: blocks = 4; break;
        case 960: blocks = 15; break;
        case 1024: blocks = 4; break;
        case 384: blocks = 3; break;
        default: blocks = std::clamp<uint64_t>(f / std::gcd(f, uint64_t(4096)), 1, 16);
        }
        return uint32_t(blocks * 4096);
    }
    // Otherwise the read ends on a codec-frame boundary.
    uint64_t remainder = (sample + count) % f;
    return remainder ? uint32_t(count + (f - remainder)) : count;
}

eClipRead ClipMedia::audioReadRequest(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                                      uint32_t count, eProxyLevel proxyLevel,
                                      Zn::Ptr<ReadRequestIssuer::Proxy> issuer, bool noOffset) {
    eClipRead rc =
        audioReadRequestFor(request, material, sample, count, DecodeFormat(int(proxyLevel)), issuer, noOffset);
    if (rc != eClipRead::kAudioCreated)
        LogBoth("Audio Read request failed: %s\n", toUTF8(resourceStrW(unsigned(resultCode(rc)))).c_str());
    return rc;
}

eClipRead ClipMedia::audioReadRequestFor(Zn::Ptr<AudioReadRequest>& request, const Cookie& material,
                                         uint64_t sample, uint32_t count, const DecodeFormat& format,
                                         Zn::Ptr<ReadRequestIssuer::Proxy>& issuer, bool noOffset) {
    const unsigned channel = material.index(); // 1-based
    if (channel == 0) return eClipRead::kNotAvailable;
    Zn::Ptr<FileReadInstance> file = cache_.open(material, format, 0);
    if (!file) return eClipRead::kNotAvailable;

    // The channel's stream and its place in it, counting the streams' channels in order.
    const std::vector<Aud::Metadata>& streams = file->getMetadata()->getAudioMetadata();
    uint32_t stream = 0;
    uint32_t place = channel - 1;
    if (place < file->getMetadata()->getTotalChannels()) {
        while (stream < streams.size() && place >= streams[stream].getNumChannels())
            place -= streams[stream++].getNumChannels();
    }
    const Aud::Metadata* streamMeta = stream < streams.size() ? &streams[stream] : nullptr;
    if (streamMeta && place < streamMeta->getNumChannels()) {
        // The stream goes to the opener, which may choose its reader by it; the key does not
        // hold it, so the file opened first for this name and type serves every stream.
        file = cache_.open(material, format, stream);
        if (!file) return eClipRead::kNotAvailable;
        // The file may have been closed meanwhile and opened anew: describe the stream from
        // the instance that serves the read (the other one may be gone already).
        const std::vector<Aud::Metadata>& now = file->getMetadata()->getAudioMetadata();
        streamMeta = stream < now.size() ? &now[stream] : nullptr;
    }

    if (!noOffset) sample += uint64_t(MaterialInfo::get_start_offset(material)); // in samples here
    const uint64_t length = file->getMetadata()->getAudioLength();
    if (sample >= length) return eClipRead::kAudioPastEnd;

    uint64_t toRead = count;
    if (streamMeta && streamMeta->isCompressedFormat())
        toRead = codecFrameReadLength(sample, count, streamMeta->getSamplesPerBlock());
    uint64_t asked = count;
    if (sample + asked > length) asked = length - sample;
    if (sample + toRead > length) toRead = length - sample;

    AudioRequest r;
    r.stream = stream;
    r.channel = place;
    r.tag = asked;
    r.start = sample;
    r.count = uint32_t(toRead);
    request = Zn::makePtr<AudioReadRequest>(file, r, 1u, issuer);
    return eClipRead::kAudioCreated;
}

// ---------------------------------------------------------------------------------------
// Questions about a clip's files, and closing them

uint64_t ClipMedia::getSampleCount(const Cookie& material) {
    Zn::Ptr<FileReadInstance> file = cache_.open(material, DecodeFormat(1), 0);
    if (!file) return 0;
    switch (material.type()) {
    case 'V': return file->getMetadata()->getFrameCount();
    case 'S': return file->getMetadata()->getAudioLength();
    default: return 0;
    }
}

void ClipMedia::recalculateSize(const Cookie& clip, unsigned flags, unsigned& newSize) {
    CookieVec references;
    {
        EditPtr edit;
        if (!edit.i_open(clip, eEditOpenReadOnly)) return;
        edit->getReferences(references, Edit::eRefMaterial);
    }
    std::vector<WString> names;
    for (const Cookie& material : references) {
        Zn::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(material);
        if (!entry || entry->getKind() != FsysDirectoryEntry::eGrowing) continue;
        names.push_back(entry->getPhysicalFilename(false));
        for (const MediaFileInfo& proxy : entry->getProxyFiles()) names.push_back(proxy.getPhysicalFilename(false));
    }
    // The base recalculateSize does nothing, so calling it on every instance is the same
    // as calling it on those whose back-end overrides it.
    for (auto& file : cache_.openInstancesOf(names)) file->recalculateSize(flags, newSize);
}

void ClipMedia::totalSize(const Cookie& material, size_t* total) {
    WString name = SystemCache::findFileForCookie(material);
    if (name.empty() || !total) return;
    iFileManager* files = OS()->fileManager();
    if (!files->fileExists(name)) return;
    int64_t size = files->fileSize(name);
    if (size > 0) *total += size_t(size);
}

bool ClipMedia::checkAudioMetadata(const Cookie& clip) {
    EditPtr edit;
    if (!edit.i_open(clip) || !edit->isImported()) return false;
    Zn::Ptr<FileReadInstance> file = cache_.open(convertCookie(clip, 'S', 1), DecodeFormat::getDefault(), 0);
    if (file && file->getMetadata()->getAudioStreamCount() > 0) {
        {
            EditModifier modifier(edit);
            edit->setAudioMetadata(Aud::metadataToText(file->getMetadata()->getAudioMetadata()));
        }
        EditManager::updateProjdbRec(*edit);
    }
    return true;
}

bool ClipMedia::checkImageData(const Cookie& clip, const PlayFileMetadataRep&) {
    EditPtr edit;
    edit.i_open(convertCookie(clip, 'E', Cookie::kNoIndex));
    edit.i_close();
    return false;
}

void ClipMedia::close(const Cookie& cookie, eMediaTypes types) {
    if ((types & kMediaAll) == 0) return;
    std::vector<Cookie> materials;
    if (cookie.type() == 'E') {
        EditPtr edit;
        if (edit.i_open(cookie, eEditOpenReadOnly)) {
            Vector<int> chans;
            // The video variants deliberately run one further than the channels listed.
            unsigned video = edit->getChans(chans, Edit::eVideo, 15);
            for (unsigned v = 0; v <= video; ++v) materials.push_back(convertCookie(cookie, 'V', uint8_t(v)));
            unsigned audio = edit->getChans(chans, Edit::eAudio, 15);
            for (unsigned c = 1; c <= audio; ++c) materials.push_back(convertCookie(cookie, 'S', uint8_t(c)));
        }
        edit.i_close();
    } else {
        materials.push_back(cookie);
    }
    cache_.remove(materials);
}
