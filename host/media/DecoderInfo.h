// The host's video decoder registry. Back-ends register decoder factories; the library
// asks Zn::DecoderInfo::getDecoderFor for a decoder that turns a frame buffer's
// compressed data into a picture. Decoders are kept in the CodecPool and handed out again
// once idle, because making one (a codec context) costs far more than a decode.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Registry.h"
#include "host/media/FrameBufferRep.h"

#include <vector>

namespace Zn {

// One decoder instance. The pool gives an instance to one caller at a time, so decode is
// never called on one instance from two threads at once.
class iDecoder : public iObject {
public:
    // What a decode answers. A decoder may answer a failure number of its own.
    enum class eDecodeResult : int { kDecodeFailed = 0, kDecoded = 1 };
    using enum eDecodeResult;

    virtual String name() const = 0;

    // Decodes the data of the buffer's first frame into a picture in the buffer's format
    // (the file's native form when its core data is not set) and stores it as surface 0.
    // Answers kDecoded on success; then the buffer is marked kDecompressed if the decoder
    // did not do so itself. An exception from the decoder is logged and answers
    // kDecodeFailed.
    eDecodeResult decodeFrame(Zn::Ptr<FrameBufferRep>& buffer);

protected:
    // The back-end's decode: kDecoded on success, anything else on failure.
    virtual eDecodeResult decode(Zn::Ptr<FrameBufferRep>& buffer) = 0;
};

class iDecoderFactory : public iObject {
public:
    virtual String name() const = 0;
    virtual bool canDecode(const VideoDecompressionInfo& info) const = 0;
    // A new decoder for the codec and set-up; null (or an exception) when it cannot.
    virtual Zn::Ptr<iDecoder> createDecoder(const VideoDecompressionInfo& info) = 0;
};

// A thread-safe singleton made on first use. Its factory list is a Registry (a leaf lock,
// held only to copy or edit the list; factories are called without it).
class DecoderInfo {
public:
    static DecoderInfo& instance();

    // An idle pooled decoder for this codec and set-up, or a new one from the first
    // factory (in registration order) that can decode it and makes one; null when none.
    static Zn::Ptr<iDecoder> getDecoderFor(const VideoDecompressionInfo& info);

    void registerFactory(Zn::Ptr<iDecoderFactory> factory, int position = -1) { factories_.add(std::move(factory), position); }
    bool unregisterFactory(const Zn::Ptr<iDecoderFactory>& factory) { return factories_.remove(factory); }
    unsigned numFactories() const { return unsigned(factories_.size()); }

private:
    DecoderInfo() = default;

    Registry<iDecoderFactory> factories_;
};

} // namespace Zn
