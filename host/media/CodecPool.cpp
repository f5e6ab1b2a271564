#include "host/media/CodecPool.h"

#include "host/threads/PlainMutex.h"

// Never destroyed: decoders still held at exit must not find the pool gone.
CodecPool& CodecPool::instance() {
    static CodecPool* pool = new CodecPool;
    return *pool;
}

Zn::Ptr<Zn::iDecoder> CodecPool::take(const VideoDecompressionInfo& info) {
    PlainMutex::Lock lock(mutex_);
    for (auto& e : entries_) {
        if (e.decoder.refCount() == 1 && e.info.sameDecoderAs(info)) return e.decoder;
    }
    return nullptr;
}

void CodecPool::add(const VideoDecompressionInfo& info, Zn::Ptr<Zn::iDecoder> decoder) {
    if (!decoder) return;
    PlainMutex::Lock lock(mutex_);
    entries_.push_back(Entry{info, std::move(decoder)});
}

unsigned CodecPool::flushAllUnreferenced() {
    CodecPool& pool = instance();
    std::vector<Entry> released;
    {
        PlainMutex::Lock lock(pool.mutex_);
        auto keep = pool.entries_.begin();
        for (auto it = pool.entries_.begin(); it != pool.entries_.end(); ++it) {
            if (it->decoder.refCount() == 1) released.push_back(std::move(*it));
            else if (keep++ != it) *(keep - 1) = std::move(*it);
        }
        pool.entries_.erase(keep, pool.entries_.end());
    }
    return unsigned(released.size());
}

unsigned CodecPool::size() const {
    PlainMutex::Lock lock(mutex_);
    return unsigned(entries_.size());
}
