// Aud::Metadata: what the host knows of one audio stream of a file: its sample rate,
// channel count and sample layout as stored, and for compressed streams the codec and the
// number of samples each compressed block decodes to.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/MemHolder.h"

#include <cstdint>
#include <vector>

namespace Aud {

enum eSampleType : int32_t {
    kSampleInt = 0,   // signed integers (8-bit samples are unsigned, as WAV stores them)
    kSampleFloat = 1, // IEEE float
};

class Metadata {
public:
    Metadata() = default;
    // An uncompressed stream.
    Metadata(uint32_t sampleRate, uint32_t channels, uint32_t bytesPerSample, eSampleType type = kSampleInt,
             uint64_t length = 0)
        : sampleRate(sampleRate), channels(channels), bytesPerSample(bytesPerSample),
          bitsPerSample(bytesPerSample * 8), sampleType(type), bytesPerDecodedSample(bytesPerSample),
          length(length) {}

    uint32_t getNumChannels() const noexcept { return channels; }
    // Bytes of one sample of one channel as the stream's interleaved data stores it.
    uint32_t getBytesPerSample() const noexcept { return bytesPerSample; }
    uint32_t getSampleRate() const noexcept { return sampleRate; }
    // Bytes of one sample of one channel after decoding (equal to getBytesPerSample for
    // uncompressed streams).
    uint32_t getBytesPerDecodedSample() const noexcept { return bytesPerDecodedSample; }
    // Samples one compressed block (codec frame) decodes to; 0 for uncompressed streams.
    uint32_t getSamplesPerBlock() const noexcept { return samplesPerBlock; }
    // Length of the stream in multi-channel samples.
    uint64_t getLength() const noexcept { return length; }
    bool isCompressedFormat() const noexcept { return compressed; }
    bool valid() const noexcept { return sampleRate != 0 && channels != 0; }

    friend bool operator==(const Metadata& a, const Metadata& b) noexcept {
        return a.sampleRate == b.sampleRate && a.channels == b.channels && a.bytesPerSample == b.bytesPerSample &&
               a.bitsPerSample == b.bitsPerSample && a.sampleType == b.sampleType && a.compressed == b.compressed &&
               a.samplesPerBlock == b.samplesPerBlock && a.bytesPerDecodedSample == b.bytesPerDecodedSample &&
               a.length == b.length && a.codec == b.codec && a.streamIndex == b.streamIndex;
    }

    uint32_t sampleRate = 0;
    uint32_t channels = 0;
    uint32_t bytesPerSample = 0;
    uint32_t bitsPerSample = 0; // significant bits (24-bit audio may be stored in 4 bytes)
    eSampleType sampleType = kSampleInt;
    bool compressed = false;
    uint32_t samplesPerBlock = 0;
    uint32_t bytesPerDecodedSample = 0;
    uint64_t length = 0;
    String codec;             // the codec's short name for compressed streams ("aac", "mp3")
    int32_t streamIndex = -1; // the stream's index in its container, when the back-end has one
    Zn::Ptr<iMemHolder> codecSetup; // codec set-up bytes (may be null)
};

// The text form in which an edit keeps its media's audio metadata: one line per stream of
// blank-separated "key=value" words (the codec set-up bytes are not kept). Reading ignores
// keys it does not know and leaves missing ones at their defaults, so the form can grow.
String metadataToText(const std::vector<Metadata>& streams);
std::vector<Metadata> metadataFromText(const String& text);

} // namespace Aud
