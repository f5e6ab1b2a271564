// CodecPool: the decoders made so far, kept for reuse. A decoder is idle when the pool's
// reference is its only one; take() hands an idle decoder for the same codec and set-up
// to one caller, and flushAllUnreferenced() releases every idle decoder (the library calls
// it after closing files, so decoders of closed files go with them).
#pragma once

#include "host/core/RefCount.h"
#include "host/media/DecoderInfo.h"
#include "host/media/FrameBufferRep.h"
#include "host/threads/PlainMutex.h"

#include <vector>

// Lock: mutex_ guards the entry list. It is a leaf lock; decoders are destroyed after it
// is left, because a decoder's destructor may be slow or call back into the host.
// "Idle" is decided under the lock by a reference count of exactly 1: only the pool could
// add a reference to a pooled decoder, and it holds the lock while it looks.
class CodecPool {
public:
    static CodecPool& instance();

    // An idle decoder made for the same codec and set-up, now referenced by the caller;
    // null when there is none.
    Zn::Ptr<Zn::iDecoder> take(const VideoDecompressionInfo& info);
    void add(const VideoDecompressionInfo& info, Zn::Ptr<Zn::iDecoder> decoder);
    // Releases every decoder that only the pool references; answers how many.
    static unsigned flushAllUnreferenced();
    unsigned size() const;

private:
    CodecPool() = default;
    struct Entry {
        VideoDecompressionInfo info;
        Zn::Ptr<Zn::iDecoder> decoder;
    };
    mutable PlainMutex mutex_;
    std::vector<Entry> entries_ GUARDED_BY(mutex_);
};
