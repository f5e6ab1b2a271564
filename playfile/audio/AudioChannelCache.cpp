#include "playfile/audio/AudioChannelCache.h"

#include "playfile/audio/MemRef.h"

#include <utility>

void AudioChannelCache::addBuffers(uint32_t stream, uint64_t start, Aud::StreamBufferList list) {
    const uint32_t count = list.getSampleCount();
    for (Aud::StreamBuffer& b : list)
        b.setSampleCount(count);
    CriticalSection::Lock guard(lock_);
    CacheEntry& e = entries_[stream];
    // The old block moves into list and is released with it, after the lock is left.
    std::swap(e.buffers, list);
    e.start = start;
    e.count = count;
}

bool AudioChannelCache::contains(const AudioRequest& r) {
    CriticalSection::Lock guard(lock_);
    auto it = entries_.find(r.stream);
    if (it == entries_.end()) return false;
    const CacheEntry& e = it->second;
    // Written as ends one past the last sample, so an empty block contains nothing and
    // nothing wraps round.
    return e.count != 0 && r.start >= e.start && r.start + r.count <= e.start + e.count;
}

Aud::StreamBuffer AudioChannelCache::getResult(const AudioRequest& r, uint32_t bytesPerSample) {
    CriticalSection::Lock guard(lock_);
    const CacheEntry& e = entries_[r.stream];
    if (r.channel >= e.buffers.size()) return {};
    const Aud::StreamBuffer& cached = e.buffers[r.channel];
    if (r.start == e.start) return cached;
    if (r.start < e.start || r.start - e.start >= e.count) return {};

    const uint64_t skipped = r.start - e.start;
    const uint64_t offset = skipped * bytesPerSample;
    const uint32_t used = cached.getUsedBytes();
    if (offset > used) return {};
    Zn::Ptr<iMemHolder> view(
        new MemRef(cached.getMemory(), uint32_t(offset), used - uint32_t(offset)));
    Aud::StreamBuffer result(cached);
    result.setMemory(std::move(view));
    result.setSampleCount(e.count - uint32_t(skipped));
    return result;
}

bool AudioChannelCache::reclaimBuffers(uint32_t stream, uint32_t bytes,
                                       Aud::StreamBufferList& out) {
    CriticalSection::Lock guard(lock_);
    auto it = entries_.find(stream);
    if (it == entries_.end() || it->second.buffers.empty()) return false;
    CacheEntry& e = it->second;
    // A count of 1 is the entry's own reference: other references are only made from it,
    // under this lock, so nobody can take one while the block is handed over.
    for (const Aud::StreamBuffer& b : e.buffers)
        if (b.getMemory().refCount() != 1 || b.getMemory()->getSize() < bytes) return false;
    out = std::move(e.buffers);
    e.buffers.clear();
    e.start = 0;
    e.count = 0;
    return true;
}

bool AudioChannelCache::cachedSpan(uint32_t stream, uint64_t& start, uint32_t& count) {
    CriticalSection::Lock guard(lock_);
    auto it = entries_.find(stream);
    if (it == entries_.end() || it->second.count == 0) return false;
    start = it->second.start;
    count = it->second.count;
    return true;
}
