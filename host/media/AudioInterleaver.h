// AudioInterleaver: splits a stream's interleaved samples (all channels of one sample
// position side by side) into one buffer per channel, keeping each sample's stored form:
// 8-, 16-, 24- and 32-bit integers and 32-bit floats are moved as 1, 2, 3 and 4 bytes, so
// a channel buffer holds its samples exactly as the file does, only no longer interleaved.
// Other sample widths (64-bit float) are moved byte for byte.
#pragma once

#include "host/media/AudioMetadata.h"
#include "host/media/StreamBuffer.h"

#include <cstdint>

class AudioInterleaver {
public:
    // Splits the whole samples held in interleaved (its used bytes, a multiple of
    // channels x bytes per sample; a trailing part sample is ignored) into one new buffer
    // per channel, appended to out in channel order. Each buffer holds one channel, its
    // capacity and sample count being the number of samples; the list's sample count,
    // rate and bytes per sample are set from the stream. False (out unchanged)
    // when the stream has no channels or no sample width, or there is no memory.
    static bool deinterleaveAudio(const Aud::Metadata& stream,
                                  const Zn::Ptr<iMemHolder>& interleaved,
                                  Aud::StreamBufferList& out);

    // The same into buffers made before, one per channel with room for the samples
    // (memory of at least samples x bytes per sample bytes), whose memory is written
    // again: their used bytes, capacities and sample counts are set as deinterleaveAudio
    // sets them. False, changing nothing, when the list does not fit the stream.
    static bool deinterleaveInto(const Aud::Metadata& stream, const iMemHolder& interleaved,
                                 Aud::StreamBufferList& out);

    // The loop itself: samples positions of channels interleaved channels of
    // bytesPerSample bytes each, from src into dst[0..channels-1]. The destinations must
    // not overlap the source or each other.
    static void deinterleave(const uint8_t* src, uint32_t channels, uint32_t bytesPerSample,
                             uint32_t samples, uint8_t* const* dst);
};
