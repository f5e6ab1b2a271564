// PlayFileCache: the process's cache of open media files. Every read of video or audio
// goes through it: it maps a file name and open type to an open FileReadInstance, opens
// files on demand through PlayUtil::openRead (one thread per file name at a time, through
// an access queue), remembers files that failed to open so that they are not tried on
// every frame, keeps the number of idle open files within its limits by closing the least
// recently used idle file first, and turns a read of a frame or of a run of audio into a
// request for the file's queue. It is a host Reclaimable (the host may ask it to shrink)
// and forgets failed opens when the product changes.
//
// The limits govern idle files: a file that a request, a reader or a caller still holds is
// never closed, and an open trims before it adds, so the cache may hold one file more than
// its maximum after an open.
#pragma once

#include "host/core/Cookie.h"
#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/ValObserver.h"
#include "host/media/DecodeFormat.h"
#include "host/media/FileWriterInfo.h"
#include "host/media/OpenOutcome.h"
#include "host/os/Reclaimable.h"
#include "host/threads/CriticalSection.h"
#include "ole/Zn/ZnMultipleAccessQueue.h"
#include "playfile/Export.h"
#include "playfile/open/MediaTypes.h"
#include "playfile/open/OpenType.h"
#include "playfile/requests/ReadRequestIssuer.h"
#include "playfile/requests/RequestStatus.h"

#include <atomic>
#include <compare>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

class AudioReadRequest;
class FileReadInstance;
class VideoReadRequest;

// Locks, in the order they are taken:
//   1. accessQueue_ (per file name, Zn::MultipleAccessQueue): held by the one thread that
//      opens a file, across the open. It is taken with no lock of the cache held.
//   2. lock_ (re-entrant): guards openFiles_, failedOpens_, useCounter_ and the counts of
//      counts_. It is held only for map work and reading reference counts; nothing else is
//      called under it (no reader, queue, request, instance destruction or project look-up),
//      so it may be taken with any lock held (a queue's or a request's, as when an issuer's
//      callback reads the next frame) and it never waits for one. The only calls made under
//      it are to the host's log (reportUsage), a leaf.
// A reference count of 1 seen under lock_ is final: only the maps hand out new references
// to a file that nobody else holds, and they do so under lock_.
class PLAYFILE_API PlayFileCache : public Reclaimable, public ValObserverClient {
public:
    // Results of the read requests.
    static constexpr int kVideoQueued = 0;
    static constexpr int kAudioCreated = 1;
    static constexpr int kNotAvailable = 2000;
    static constexpr int kAudioPastEnd = 2061;

    // The key of both maps: ordered by file name, then open type.
    struct CacheEntry {
        WString fileName;
        OpenType type;
    };

    // What the cache has done since it was made (or since resetStatistics).
    struct Statistics {
        uint64_t hits = 0;           // opens answered by a file already open
        uint64_t misses = 0;         // opens that found neither an open nor a failed file
        uint64_t opens = 0;          // files opened through the readers
        uint64_t failedOpens = 0;    // files the readers could not open (now remembered)
        uint64_t passingFailures = 0; // opens that failed for a passing reason (not remembered)
        uint64_t refusedOpens = 0;   // opens answered at once because the file failed before
        uint64_t missingFiles = 0;   // opens of files that do not exist
        uint64_t evictions = 0;      // idle files closed to keep within the limits
        uint32_t openFiles = 0;      // files open now
        uint32_t peakOpenFiles = 0;  // most files open at once
        uint64_t openingNs = 0;      // time spent opening files
        uint64_t accessWaitNs = 0;   // time spent waiting for another thread's open of a name
    };

    // The process's cache, made on first use with the limits "playfileCacheSizeMin" and
    // "playfileCacheSizeMax" as they are then; later changes of those values are not seen.
    static PlayFileCache& Shared();

    // maxSize is lowered to what the process's descriptor limit leaves room for, with a
    // log line when it is.
    PlayFileCache(int minSize, int maxSize);
    ~PlayFileCache() override;
    PlayFileCache(const PlayFileCache&) = delete;
    PlayFileCache& operator=(const PlayFileCache&) = delete;

    // The open instance for (fileName, type), opening it when needed. streamIndex is the
    // audio stream the opener should consider when it chooses a reader; it is not part of
    // the key, so whichever stream was asked first decides. cookie names the clip whose
    // stored decode options a new instance gets. Null when the file does not exist (nothing
    // is remembered), when it failed to open now ("Failed to open %ls" is logged and the
    // failure remembered) or before. A failure for a passing reason (no descriptor or
    // memory left, a storage error: the reader's eOpenOutcome) is not remembered; when
    // descriptors ran out, the idle files are closed and the open is tried once more.
    Zn::Ptr<FileReadInstance> open(const WString& fileName, const Cookie& cookie, const DecodeFormat& format,
                                   OpenType type, unsigned streamIndex);
    // The same for a material cookie: its file from the project, its type from the letter.
    Zn::Ptr<FileReadInstance> open(const Cookie& material, const DecodeFormat& format, unsigned streamIndex);
    // The material's instance if it is open now (the look-up counts as a use); else null.
    Zn::Ptr<FileReadInstance> isOpen(const Cookie& material, const DecodeFormat& format, unsigned streamIndex = 0);
    // Whether an open of the file failed and is remembered: for type 1 or 2 that one, for 3
    // both, for anything else either.
    bool isCorrupt(const WString& fileName, OpenType type);

    // Closes the material's file (its open type from the letter) and forgets its failure.
    void remove(const Cookie& material, const DecodeFormat& format);
    // Closes every open instance of the file, whatever its open type.
    void remove(const WString& fileName);
    // Closes a clip's files: an edit cookie closes every video variant and sound channel of
    // the edit, any other cookie just its own file. types: kMediaHighRes, kMediaProxy.
    void close(const Cookie& cookie, eMediaTypes types);
    // Closes every open file; remembered failures stay.
    void closeAll();
    // Forgets failed opens of the file, so the next open tries again.
    void reOpen(const WString& fileName);

    // Trims to at most maxFiles open files, closing idle files least recently used first.
    void limitUsage(unsigned maxFiles);
    // One trimming step: closes the least recently used idle file; false if none is idle.
    bool removeOldestEntry();

    // Reclaimable: purge trims to no open files (files in use stay), limitUsage to the
    // minimum size; reportUsage logs the open files.
    void purge() override;
    void limitUsage() override;
    void reportUsage() override;

    // A change of the product makes every failed file worth trying again.
    void notifyValChanged(ValObserverBase& observer) override;

    // The material file's length: frames for 'V', sample frames for 'S', else 0 (also
    // when the file cannot be opened).
    uint64_t getSampleCount(const Cookie& material);
    // Has the open files of a clip's growing material (and of its proxies) re-read their
    // length, passing flags and newSize on to FileReadInstance::recalculateSize.
    void recalculateSize(const Cookie& clip, unsigned flags, unsigned& newSize);

    // Creates the material file of a clip ('V' or 'S' cookie) under the clip's material
    // file name with the writer's extension, registers it with the project and stores its
    // play header there and beside the file. Null, with a log line, on failure.
    // (PlayFileWriting.cpp, like the renames.)
    Zn::Ptr<Zn::FileWriteInstance> create(const Cookie& cookie, Zn::FileWriterParams& params);
    // Moves every file of the clip `from` to the names of the clip `to`: each is closed
    // here, renamed on disk (its name's material cookie text replaced), and its record,
    // header and start offset move to the same material of `to`. A file whose name does
    // not carry the cookie keeps its name; only its record moves. 1 when all moved.
    // Both names do the same, as callers have always used either.
    int renameMediaFile(const Cookie& from, const Cookie& to);
    int renameMediaFiles(const Cookie& from, const Cookie& to);

    // Makes and queues the request for one frame of a video material: frame counts from
    // the material's start in its file. kVideoQueued, or kNotAvailable when the file
    // cannot be opened or has no such frame. Frame 0 of a file with a still image is
    // answered from that image at once, on the calling thread. The flag is not used.
    int videoReadRequest(Zn::Ptr<VideoReadRequest>& request, const Cookie& material, int frame, bool flag,
                         eResultType resultType, const DecodeFormat& format,
                         Zn::Ptr<ReadRequestIssuer::Proxy> issuer);
    // Makes (does not queue) the request for count samples of a sound material's channel
    // from sample (counted from the material's start unless noOffset). Reads of compressed
    // streams are widened to whole codec frames (see codecFrameReadLength); the request's
    // count is the samples to read, its tag the count asked for. kAudioCreated, else
    // kAudioPastEnd or kNotAvailable, with "Audio Read request failed: %s" logged.
    int audioReadRequest(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, unsigned long sample,
                         unsigned count, eProxyLevel proxyLevel, Zn::Ptr<ReadRequestIssuer::Proxy> issuer,
                         bool noOffset);
    // The samples an audio read of count samples from sample reads from a compressed
    // stream whose codec frames hold frameSize samples each.
    static uint32_t codecFrameReadLength(uint64_t sample, uint32_t count, int64_t frameSize);

    unsigned getMinSize() const noexcept { return minSize_; }
    unsigned getMaxSize() const noexcept { return maxSize_; }
    unsigned openFileCount() const;
    unsigned failedOpenCount() const;
    Statistics statistics() const;
    void resetStatistics();
    // The statistics as a few lines of text.
    std::string statisticsReport() const;

private:
    // Heterogeneous look-up by (name view, type), so a hit copies no string.
    struct KeyView {
        std::wstring_view name;
        uint32_t type;
    };
    struct KeyLess {
        using is_transparent = void;
        static KeyView view(const CacheEntry& e) noexcept { return {e.fileName.view(), uint32_t(e.type)}; }
        static const KeyView& view(const KeyView& v) noexcept { return v; }
        template <class A, class B> bool operator()(const A& a, const B& b) const noexcept {
            const KeyView& x = view(a);
            const KeyView& y = view(b);
            if (auto c = x.name.compare(y.name); c != 0) return c < 0;
            return x.type < y.type;
        }
    };
    using FileMap = std::map<CacheEntry, Zn::Ptr<FileReadInstance>, KeyLess>;
    using InstanceList = std::vector<Zn::Ptr<FileReadInstance>>;

    // Under lock_: true when the key is in either map; out is the open instance (stamped
    // as used) or null for a remembered failure. count: add the look-up to the figures.
    bool lookupLocked(const KeyView& key, Zn::Ptr<FileReadInstance>& out, bool count = true);
    void stampLocked(FileReadInstance& file) noexcept;
    void eraseLocked(const KeyView& key, InstanceList& removed);
    // Calls limitUsage of every open instance, outside lock_.
    void limitInstances();
    // Purges the removed instances and lets them go, outside lock_.
    static void release(InstanceList& removed);
    struct Counts {
        uint64_t hits = 0, misses = 0, opens = 0, failedOpens = 0, passingFailures = 0, refusedOpens = 0,
                 missingFiles = 0, evictions = 0;
        uint32_t peak = 0;
    };
    // Opens through the readers (PlayUtil::openReadChecked); when descriptors ran out,
    // closes the idle files and tries once more. Called holding the file name's access
    // queue and not lock_ (which the closing takes).
    eOpenOutcome openThroughReaders(const WString& fileName, const DecodeFormat& format, OpenType type,
                                    unsigned streamIndex, Zn::Ptr<FileReadInstance>& file);
    int audioReadRequestFor(Zn::Ptr<AudioReadRequest>& request, const Cookie& material, uint64_t sample,
                            uint32_t count, const DecodeFormat& format, Zn::Ptr<ReadRequestIssuer::Proxy>& issuer,
                            bool noOffset);

    Zn::MultipleAccessQueue<WString> accessQueue_;
    FileMap openFiles_;
    FileMap failedOpens_;
    // What every look-up writes, on a cache line of its own with the lock that guards it:
    // threads on other cores then fetch one line per look-up rather than several.
    alignas(64) mutable CriticalSection lock_;
    uint64_t useCounter_ = 0;
    Counts counts_;
    ValObserver<WString> productObserver_;
    const unsigned minSize_;
    const unsigned maxSize_;
    std::atomic<uint64_t> openingNs_{0};
    std::atomic<uint64_t> accessWaitNs_{0};
};
