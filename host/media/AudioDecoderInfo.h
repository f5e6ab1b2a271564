// The host's audio decoder registry. Back-ends register factories; the audio reader asks
// Zn::AudioDecoderInfo::getDecodersFor for a codec instance for one compressed stream,
// given the stream's metadata and its header buffer (the codec's private set-up data),
// and then feeds it the stream's compressed blocks one at a time.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/core/Registry.h"
#include "host/media/AudioMetadata.h"
#include "host/media/AudioResult.h"
#include "host/media/MemHolder.h"

#include <cstdint>
#include <vector>

namespace Zn {

// One decoder of one audio stream, with the state the codec carries from block to block.
// Positions: the stream's block b decodes to the samples that start at position
// b x samples per block - getDelaySamples(); decoded samples before position 0 are the
// encoder's priming and are dropped by the caller. After resetToStart, or on a fresh
// instance, a block's output is right only once the getPrimingBlocks() blocks before it
// have been decoded (their output thrown away); at block 0 no such blocks are needed.
//
// Threads: one caller at a time (the audio reader calls it under its lock).
class AudioCodecInstance : public iObject {
public:
    using enum eAudioResult;

    virtual String name() const = 0;

    // Blocks to decode ahead of a chosen block after a reset; 0 for a codec whose blocks
    // decode on their own.
    virtual uint32_t getPrimingBlocks() const { return 0; }
    // Decoded samples that come before the stream's first sample.
    virtual uint32_t getDelaySamples() const { return 0; }
    // How getOutput lays the samples out: all channels interleaved in one run (true) or
    // one run per channel (false).
    virtual bool producesInterleaved() const { return false; }

    // Decodes one compressed block of size bytes. Answers kSuccess with samples set to the
    // samples per channel now ready at getOutput (0 means the codec did not take the
    // block: it is offered again), kEndedEarly when the codec's data has ended, anything
    // else on failure. An exception from the codec is logged and answers kFailed.
    eAudioResult decodeAudioStream(const uint8_t* data, uint32_t size, uint32_t& samples);

    // The samples of the last successful decode, valid until the next decode or reset:
    // channel's run, or with producesInterleaved() the one interleaved run (channel is
    // then ignored). Each sample has the stream's bytes per decoded sample.
    virtual const uint8_t* getOutput(uint32_t channel) const = 0;

    // Back to the state of a fresh instance. The base does nothing: right for a codec
    // that carries no state between blocks.
    virtual void resetToStart() {}

protected:
    // The back-end's decode, with the contract of decodeAudioStream.
    virtual eAudioResult decode(const uint8_t* data, uint32_t size, uint32_t& samples) = 0;
};

class iAudioDecoderFactory : public iObject {
public:
    virtual String name() const = 0;
    virtual bool canDecode(const Aud::Metadata& stream) const = 0;
    // A new codec instance for the stream; header holds the codec's set-up bytes (may be
    // null). Null (or an exception) when it cannot make one.
    virtual Zn::Ptr<AudioCodecInstance> createCodec(const Aud::Metadata& stream,
                                                    const Zn::Ptr<iMemHolder>& header) = 0;
};

// A thread-safe singleton made on first use. Its factory list is a Registry: a leaf lock,
// held only to copy or edit the list (factories are called without it), so it may be
// taken with any other lock held (the audio reader's, when a reader makes a
// codec). Codec instances are not pooled: each holds the decoding state of one stream.
class AudioDecoderInfo {
public:
    static AudioDecoderInfo& instance();

    // A new codec instance from the first factory (in registration order) that can decode
    // the stream and makes one; null when none does.
    static Zn::Ptr<AudioCodecInstance> getDecodersFor(const Aud::Metadata& stream,
                                                      const Zn::Ptr<iMemHolder>& header);

    void registerFactory(Zn::Ptr<iAudioDecoderFactory> factory, int position = -1) {
        factories_.add(std::move(factory), position);
    }
    bool unregisterFactory(const Zn::Ptr<iAudioDecoderFactory>& factory) { return factories_.remove(factory); }
    unsigned numFactories() const { return unsigned(factories_.size()); }

private:
    AudioDecoderInfo() = default;

    Registry<iAudioDecoderFactory> factories_;
};

} // namespace Zn
