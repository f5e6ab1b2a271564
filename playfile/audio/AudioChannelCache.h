// AudioChannelCache: per audio stream of a file, the last block of samples read or
// decoded, as one buffer per channel. Audio is requested one channel at a time, but a file
// reads or decodes all channels of a stream together; keeping the block lets the requests
// for the other channels of the same span be answered from memory. Results are views into
// the cached buffers (MemRef), never copies. It is the base of Zn::AudioReader, whose lock
// it provides.
#pragma once

#include "host/media/StreamBuffer.h"
#include "host/threads/CriticalSection.h"
#include "playfile/Export.h"
#include "playfile/requests/AudioReadRequest.h"

#include <cstdint>
#include <map>

// Lock: lock_ (re-entrant) guards entries_; every operation takes it. Zn::AudioReader
// holds it across a whole audio read, issuers' callbacks included, and guards its own
// state with it, so a request for one channel never sees another read's block half
// built. Locks that may be held when it is taken: none of the library's (the audio
// queue's lock is never held while reading). Taken under it: a request's lock (while its
// issuers are called) and whatever the file's reading and decoding take. Views handed out
// outlive the lock safely: each holds a reference to its source.
class PLAYFILE_API AudioChannelCache {
public:
    struct CacheEntry {
        Aud::StreamBufferList buffers; // one per channel, in channel order
        uint64_t start = 0;            // position of the first cached multi-channel sample
        uint32_t count = 0;            // cached samples per channel
    };

    AudioChannelCache() = default;
    virtual ~AudioChannelCache() = default;
    AudioChannelCache(const AudioChannelCache&) = delete;
    AudioChannelCache& operator=(const AudioChannelCache&) = delete;

    // Replaces the stream's block with list (sharing its memory), first sample at start.
    // Every buffer's sample count becomes the list's. One block per stream is kept: the
    // previous one is released (views into it keep their part alive).
    void addBuffers(uint32_t stream, uint64_t start, Aud::StreamBufferList list);

    // Whether the whole of r lies inside its stream's cached block. Makes no entry.
    bool contains(const AudioRequest& r);

    // Channel r.channel of the cached block from r.start on: the cached buffer itself when
    // r starts where the block does, else a view from r's start to the end of the block
    // (not only to the end of r; the reader trims what it needs). bytesPerSample is the
    // width of one sample of one channel in the cached buffers. Empty when the stream has
    // no such channel or r.start lies outside the block.
    Aud::StreamBuffer getResult(const AudioRequest& r, uint32_t bytesPerSample);

    // Hands the stream's block over for its memory to be written again, when every buffer
    // of it has at least bytes bytes and is referred to by the cache alone (no result
    // or view still uses it). The stream then holds nothing. False, and nothing changes,
    // otherwise.
    bool reclaimBuffers(uint32_t stream, uint32_t bytes, Aud::StreamBufferList& out);

    // The stream's cached span, for tests and diagnostics: false when nothing is cached.
    bool cachedSpan(uint32_t stream, uint64_t& start, uint32_t& count);

protected:
    CriticalSection& getLock() noexcept RETURN_CAPABILITY(lock_) { return lock_; }

private:
    std::map<uint32_t, CacheEntry> entries_ GUARDED_BY(lock_);
    CriticalSection lock_;
};
