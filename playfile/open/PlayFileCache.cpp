#include "playfile/open/PlayFileCache.h"

#include "host/core/Strings.h"
#include "host/os/FileManager.h"
#include "host/os/Log.h"
#include "host/os/OS.h"
#include "host/os/Product.h"
#include "host/os/Resources.h"
#include "host/project/Edit.h"
#include "host/project/MaterialInfo.h"
#include "host/project/SystemCache.h"
#include "playfile/Configuration.h"
#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayUtil.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <limits>
#include <numeric>

namespace {

uint64_t nowNs() {
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count());
}

unsigned positive(int n) { return n > 0 ? unsigned(n) : 0u; }

// An open media file may hold several descriptors (its reader's, its decoders' demuxers),
// and the process needs some for everything else: the maximum leaves room for both.
constexpr uint64_t kDescriptorsPerFile = 4;
constexpr uint64_t kDescriptorMargin = 16;

unsigned clampedToDescriptors(unsigned maxSize) {
    const uint64_t limit = OS()->openFileLimit();
    if (limit == 0) return maxSize;
    const uint64_t room = limit > kDescriptorMargin ? (limit - kDescriptorMargin) / kDescriptorsPerFile : 0;
    const unsigned cap = unsigned(std::clamp<uint64_t>(room, 1, std::numeric_limits<unsigned>::max()));
    if (maxSize <= cap) return maxSize;
    LogBoth("PlayFileCache: at most %u files kept open, not %u: the process may open %llu files\n", cap, maxSize,
            static_cast<unsigned long long>(limit));
    return cap;
}

} // namespace

PlayFileCache& PlayFileCache::Shared() {
    static const int minSize = PlayfileConfig::read(PlayfileConfig::kCacheSizeMin);
    static const int maxSize = PlayfileConfig::read(PlayfileConfig::kCacheSizeMax);
    static PlayFileCache cache(minSize, maxSize);
    return cache;
}

PlayFileCache::PlayFileCache(int minSize, int maxSize)
    : productObserver_(this, Zn::getProduct()), minSize_(positive(minSize)),
      maxSize_(clampedToDescriptors(positive(maxSize))) {
    Zn::registerForProductChangeNotification(productObserver_);
    ReclaimableRegistry::add(this);
}

PlayFileCache::~PlayFileCache() {
    ReclaimableRegistry::remove(this);
    Zn::unregisterForProductChangeNotification(productObserver_);
    closeAll();
}

// ---------------------------------------------------------------------------------------
// Looking up and opening

void PlayFileCache::stampLocked(FileReadInstance& file) noexcept { file.setLastUse(++useCounter_); }

bool PlayFileCache::lookupLocked(const KeyView& key, Zn::Ptr<FileReadInstance>& out, bool count) {
    if (!failedOpens_.empty() && failedOpens_.find(key) != failedOpens_.end()) {
        counts_.refusedOpens += count;
        out = nullptr;
        return true;
    }
    auto it = openFiles_.find(key);
    if (it == openFiles_.end()) return false;
    counts_.hits += count;
    stampLocked(*it->second);
    out = it->second;
    return true;
}

Zn::Ptr<FileReadInstance> PlayFileCache::open(const WString& fileName, const Cookie& cookie, const DecodeFormat& format,
                                              OpenType type, unsigned streamIndex) {
    const KeyView key{fileName.view(), uint32_t(type)};
    Zn::Ptr<FileReadInstance> file;
    {
        CriticalSection::Lock lock(lock_);
        if (lookupLocked(key, file)) return file;
        ++counts_.misses;
    }

    // Trimming before the new file is added keeps the idle files within the maximum
    // without ever closing the file that is about to be used.
    limitUsage(maxSize_);

    // One thread opens a given file; the others wait here and then find it open (or failed).
    struct Access {
        Access(PlayFileCache& c, const WString& n) : cache(c), name(n) {
            uint64_t start = nowNs();
            cache.accessQueue_.beginAccess(name);
            cache.accessWaitNs_.fetch_add(nowNs() - start, std::memory_order_relaxed);
        }
        ~Access() { cache.accessQueue_.endAccess(name); }
        PlayFileCache& cache;
        const WString& name;
    } access(*this, fileName);

    {
        // Another thread may have opened the file, or failed to, while we waited.
        CriticalSection::Lock lock(lock_);
        if (lookupLocked(key, file, false)) return file;
    }

    iFileManager* files = OS()->fileManager();
    if (!files->fileExists(fileName)) {
        CriticalSection::Lock lock(lock_);
        ++counts_.missingFiles;
        return nullptr;
    }
    uint64_t start = nowNs();
    const eOpenOutcome outcome = openThroughReaders(fileName, format, type, streamIndex, file);
    openingNs_.fetch_add(nowNs() - start, std::memory_order_relaxed);

    if (file) {
        // The options a user chose for the clip survive closing and reopening its file.
        // Applied before the instance is shared, so no read sees the defaults.
        EditPtr edit;
        if (cookie.valid() && edit.i_open(convertCookie(cookie, 'E', Cookie::kNoIndex), eEditOpenReadOnly) &&
            edit->hasDecodeOptions())
            file->initDecodeOptionValues(edit->getDecodeOptions());
        edit.i_close();
    }

    {
        CriticalSection::Lock lock(lock_);
        if (file) {
            openFiles_.emplace(CacheEntry{fileName, type}, file);
            stampLocked(*file);
            ++counts_.opens;
            counts_.peak = std::max(counts_.peak, uint32_t(openFiles_.size()));
        } else if (isPassing(outcome)) {
            ++counts_.passingFailures;
        } else {
            failedOpens_.emplace(CacheEntry{fileName, type}, nullptr);
            ++counts_.failedOpens;
        }
    }
    if (!file && isPassing(outcome)) LogBoth("Failed to open %ls for now: %s\n", fileName.c_str(), asString(outcome));
    else if (!file) LogBoth("Failed to open %ls\n", fileName.c_str());
    return file;
}

eOpenOutcome PlayFileCache::openThroughReaders(const WString& fileName, const DecodeFormat& format, OpenType type,
                                               unsigned streamIndex, Zn::Ptr<FileReadInstance>& file) {
    for (int attempt = 0;; ++attempt) {
        Zn::iFileReader::Opened opened;
        {
            // Held open underneath the readers, as the host's file manager has always been
            // asked to, so the file cannot go away while they look at it.
            Zn::Ptr<iFile> held = OS()->fileManager()->openForRead(fileName);
            opened = PlayUtil::openReadChecked(fileName, format, type, streamIndex);
        }
        file = std::move(opened.file);
        if (file || opened.outcome != eOpenOutcome::kNoDescriptors || attempt > 0) return opened.outcome;
        // The descriptors the idle files hold are the ones to give back first.
        LogBoth("Too many open files opening %ls: closing idle files and trying again\n", fileName.c_str());
        limitUsage(0);
    }
}

Zn::Ptr<FileReadInstance> PlayFileCache::open(const Cookie& material, const DecodeFormat& format,
                                              unsigned streamIndex) {
    return open(SystemCache::findFileForCookie(material), material, format, PlayUtil::getType(material), streamIndex);
}

Zn::Ptr<FileReadInstance> PlayFileCache::isOpen(const Cookie& material, const DecodeFormat&, unsigned) {
    WString name = SystemCache::findFileForCookie(material);
    const KeyView key{name.view(), uint32_t(PlayUtil::getType(material))};
    CriticalSection::Lock lock(lock_);
    if (failedOpens_.find(key) != failedOpens_.end()) return nullptr;
    auto it = openFiles_.find(key);
    if (it == openFiles_.end()) return nullptr;
    stampLocked(*it->second);
    return it->second;
}

bool PlayFileCache::isCorrupt(const WString& fileName, OpenType type) {
    CriticalSection::Lock lock(lock_);
    bool video = failedOpens_.find(KeyView{fileName.view(), OpenType::kVideo}) != failedOpens_.end();
    bool audio = failedOpens_.find(KeyView{fileName.view(), OpenType::kAudio}) != failedOpens_.end();
    switch (uint32_t(type)) {
    case OpenType::kVideo: return video;
    case OpenType::kAudio: return audio;
    case OpenType::kVideoAndAudio: return video && audio;
    default: return video || audio;
    }
}

// ---------------------------------------------------------------------------------------
// Closing

void PlayFileCache::release(InstanceList& removed) {
    for (auto& file : removed) file->purge();
    // Each instance is destroyed here, if nothing else holds it: outside lock_, because
    // destroying one gives its queues back to their pools and its back-end may wait for
    // threads of its own.
    removed.clear();
}

void PlayFileCache::eraseLocked(const KeyView& key, InstanceList& removed) {
    if (auto it = openFiles_.find(key); it != openFiles_.end()) {
        removed.push_back(std::move(it->second));
        openFiles_.erase(it);
    }
    if (auto it = failedOpens_.find(key); it != failedOpens_.end()) failedOpens_.erase(it);
}

void PlayFileCache::remove(const Cookie& material, const DecodeFormat&) {
    WString name = SystemCache::findFileForCookie(material);
    InstanceList removed;
    {
        CriticalSection::Lock lock(lock_);
        eraseLocked(KeyView{name.view(), uint32_t(PlayUtil::getType(material))}, removed);
    }
    release(removed);
}

void PlayFileCache::remove(const WString& fileName) {
    InstanceList removed;
    {
        CriticalSection::Lock lock(lock_);
        auto it = openFiles_.lower_bound(KeyView{fileName.view(), 0});
        while (it != openFiles_.end() && it->first.fileName == fileName) {
            removed.push_back(std::move(it->second));
            it = openFiles_.erase(it);
        }
    }
    release(removed);
}

void PlayFileCache::close(const Cookie& cookie, eMediaTypes types) {
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
    // The high-resolution and the proxy media of a material are looked up by the same
    // key (the decode format is not part of it), so one removal serves both bits. The
    // names are found first, so that no project look-up runs under lock_; the removal
    // itself is one step.
    std::vector<std::pair<WString, OpenType>> keys;
    for (const Cookie& m : materials) keys.emplace_back(SystemCache::findFileForCookie(m), PlayUtil::getType(m));
    InstanceList removed;
    {
        CriticalSection::Lock lock(lock_);
        for (const auto& [name, type] : keys) eraseLocked(KeyView{name.view(), uint32_t(type)}, removed);
    }
    release(removed);
}

void PlayFileCache::closeAll() {
    FileMap all;
    {
        CriticalSection::Lock lock(lock_);
        all.swap(openFiles_);
    }
    InstanceList removed;
    for (auto& [key, file] : all) removed.push_back(std::move(file));
    all.clear();
    release(removed);
}

void PlayFileCache::reOpen(const WString& fileName) {
    CriticalSection::Lock lock(lock_);
    for (uint32_t type : {uint32_t(OpenType::kVideo), uint32_t(OpenType::kAudio)})
        if (auto it = failedOpens_.find(KeyView{fileName.view(), type}); it != failedOpens_.end()) failedOpens_.erase(it);
}

// ---------------------------------------------------------------------------------------
// Trimming

void PlayFileCache::limitInstances() {
    InstanceList all;
    {
        CriticalSection::Lock lock(lock_);
        all.reserve(openFiles_.size());
        for (const auto& [key, file] : openFiles_) all.push_back(file);
    }
    // Drops finished requests that only a file's queue still holds: they hold the file,
    // which would otherwise never look idle.
    for (auto& file : all) file->limitUsage();
}

bool PlayFileCache::removeOldestEntry() {
    limitInstances();
    Zn::Ptr<FileReadInstance> victim;
    {
        CriticalSection::Lock lock(lock_);
        auto chosen = openFiles_.end();
        uint64_t oldest = std::numeric_limits<uint64_t>::max();
        for (auto it = openFiles_.begin(); it != openFiles_.end(); ++it) {
            // Only the cache holds it: no request, reader or caller is using the file.
            if (it->second.refCount() != 1) continue;
            uint64_t used = it->second->getLastUse();
            if (used < oldest) {
                oldest = used;
                chosen = it;
            }
        }
        if (chosen == openFiles_.end()) return false;
        victim = std::move(chosen->second);
        openFiles_.erase(chosen);
        ++counts_.evictions;
    }
    victim->purge();
    victim.reset();
    return true;
}

void PlayFileCache::limitUsage(unsigned maxFiles) {
    limitInstances();
    while (openFileCount() > maxFiles && removeOldestEntry()) {
    }
}

void PlayFileCache::purge() { limitUsage(0u); }

void PlayFileCache::limitUsage() { limitUsage(minSize_); }

void PlayFileCache::reportUsage() {
    CriticalSection::Lock lock(lock_);
    Log("PlayFileCache\n\n");
    Log("   %d files open\n", int(openFiles_.size()));
    for (const auto& [key, file] : openFiles_) Log("      %ls\n", key.fileName.c_str());
}

void PlayFileCache::notifyValChanged(ValObserverBase& observer) {
    if (&observer != &productObserver_) return;
    CriticalSection::Lock lock(lock_);
    failedOpens_.clear();
}

// ---------------------------------------------------------------------------------------
// Queries about a clip's files

uint64_t PlayFileCache::getSampleCount(const Cookie& material) {
    Zn::Ptr<FileReadInstance> file = open(material, DecodeFormat(1), 0);
    if (!file) return 0;
    switch (material.type()) {
    case 'V': return file->getMetadata()->getFrameCount();
    case 'S': return file->getMetadata()->getAudioLength();
    default: return 0;
    }
}

void PlayFileCache::recalculateSize(const Cookie& clip, unsigned flags, unsigned& newSize) {
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
    InstanceList growing;
    {
        CriticalSection::Lock lock(lock_);
        for (const WString& name : names)
            for (auto it = openFiles_.lower_bound(KeyView{name.view(), 0});
                 it != openFiles_.end() && it->first.fileName == name; ++it)
                growing.push_back(it->second);
    }
    // The base recalculateSize does nothing, so calling it on every instance is the same
    // as calling it on those whose back-end overrides it.
    for (auto& file : growing) file->recalculateSize(flags, newSize);
}

// ---------------------------------------------------------------------------------------
// Read requests

int PlayFileCache::videoReadRequest(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame, bool,
                                    eResultType resultType, const DecodeFormat& format,
                                    Zn::Ptr<ReadRequestIssuer::Proxy> issuer) {
    Zn::Ptr<FileReadInstance> file = open(material, format, 0);
    // The start offset counts fields, two to a frame.
    int64_t index = MaterialInfo::get_start_offset(material) / 2 + frame;
    if (!file || index < 0) return kNotAvailable;

    const PlayFileMetadataRep& meta = *file->getMetadata();
    Zn::Ptr<IndexInfoRep> indexInfo;
    if (index == 0 && meta.hasStillImage()) {
        request = Zn::makePtr<VideoReadRequest>(file, indexInfo, 0u, resultType, format, issuer);
        request->setResultBuffer(Zn::makePtr<FrameBufferRep>(0u, meta.getStillImage()));
        request->requestHasCompleted(RequestStatus::Complete);
        return kVideoQueued;
    }
    const uint32_t frames = meta.getFrameCount();
    if (frames != 1 && index >= int64_t(frames)) return kNotAvailable;
    // A one-frame file shows its frame wherever it is asked.
    uint32_t at = frames == 1 ? 0u : uint32_t(index);
    at += file->getVideoOrigin();
    file->ZnFileIxCache_open(indexInfo, at);
    request = Zn::makePtr<VideoReadRequest>(file, indexInfo, at, resultType, format, issuer);
    return file->queueReadRequest(request, false) ? kVideoQueued : kNotAvailable;
}

uint32_t PlayFileCache::codecFrameReadLength(uint64_t sample, uint32_t count, int64_t frameSize) {
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

int PlayFileCache::audioReadRequest(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, unsigned long sample,
                                    unsigned count, eProxyLevel proxyLevel, Zn::Ptr<ReadRequestIssuer::Proxy> issuer,
                                    bool noOffset) {
    int rc = audioReadRequestFor(request, material, sample, count, DecodeFormat(int(proxyLevel)), issuer, noOffset);
    if (rc != kAudioCreated) LogBoth("Audio Read request failed: %s\n", toUTF8(resourceStrW(unsigned(rc))).c_str());
    return rc;
}

int PlayFileCache::audioReadRequestFor(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                                       uint32_t count, const DecodeFormat& format,
                                       Zn::Ptr<ReadRequestIssuer::Proxy>& issuer, bool noOffset) {
    const unsigned channel = material.index(); // 1-based
    if (channel == 0) return kNotAvailable;
    Zn::Ptr<FileReadInstance> file = open(material, format, 0);
    if (!file) return kNotAvailable;

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
        file = open(material, format, stream);
        if (!file) return kNotAvailable;
        // The file may have been closed meanwhile and opened anew: describe the stream from
        // the instance that serves the read (the other one may be gone already).
        const std::vector<Aud::Metadata>& now = file->getMetadata()->getAudioMetadata();
        streamMeta = stream < now.size() ? &now[stream] : nullptr;
    }

    if (!noOffset) sample += uint64_t(MaterialInfo::get_start_offset(material)); // in samples here
    const uint64_t length = file->getMetadata()->getAudioLength();
    if (sample >= length) return kAudioPastEnd;

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
    return kAudioCreated;
}

// ---------------------------------------------------------------------------------------
// Figures

unsigned PlayFileCache::openFileCount() const {
    CriticalSection::Lock lock(lock_);
    return unsigned(openFiles_.size());
}

unsigned PlayFileCache::failedOpenCount() const {
    CriticalSection::Lock lock(lock_);
    return unsigned(failedOpens_.size());
}

PlayFileCache::Statistics PlayFileCache::statistics() const {
    Statistics s;
    {
        CriticalSection::Lock lock(lock_);
        s.hits = counts_.hits;
        s.misses = counts_.misses;
        s.opens = counts_.opens;
        s.failedOpens = counts_.failedOpens;
        s.passingFailures = counts_.passingFailures;
        s.refusedOpens = counts_.refusedOpens;
        s.missingFiles = counts_.missingFiles;
        s.evictions = counts_.evictions;
        s.openFiles = uint32_t(openFiles_.size());
        s.peakOpenFiles = counts_.peak;
    }
    s.openingNs = openingNs_.load(std::memory_order_relaxed);
    s.accessWaitNs = accessWaitNs_.load(std::memory_order_relaxed);
    return s;
}

void PlayFileCache::resetStatistics() {
    CriticalSection::Lock lock(lock_);
    counts_ = Counts();
    counts_.peak = uint32_t(openFiles_.size());
    openingNs_.store(0, std::memory_order_relaxed);
    accessWaitNs_.store(0, std::memory_order_relaxed);
}

std::string PlayFileCache::statisticsReport() const {
    Statistics s = statistics();
    uint64_t lookups = s.hits + s.misses;
    char text[640];
    std::snprintf(text, sizeof text,
                  "PlayFileCache: %u files open (peak %u; limits %u to %u)\n"
                  "  look-ups %" PRIu64 ": %" PRIu64 " hits (%.1f%%), %" PRIu64 " misses, %" PRIu64
                  " refused (failed before)\n"
                  "  opens %" PRIu64 ", failed %" PRIu64 " (and %" PRIu64 " for now), missing files %" PRIu64
                  ", evictions %" PRIu64 "\n"
                  "  opening %.3f ms (%.3f ms per open), waiting for another thread's open %.3f ms\n",
                  s.openFiles, s.peakOpenFiles, minSize_, maxSize_, lookups, s.hits,
                  lookups ? 100.0 * double(s.hits) / double(lookups) : 0.0, s.misses, s.refusedOpens, s.opens,
                  s.failedOpens, s.passingFailures, s.missingFiles, s.evictions, double(s.openingNs) / 1e6,
                  (s.opens + s.failedOpens) ? double(s.openingNs) / 1e6 / double(s.opens + s.failedOpens) : 0.0,
                  double(s.accessWaitNs) / 1e6);
    return text;
}
