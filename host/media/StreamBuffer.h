// Aud::StreamBuffer and Aud::StreamBufferList: audio samples in memory. A StreamBuffer is
// a value that refers to its memory (shared, reference counted) and describes it: how many
// channels are interleaved in it, how many samples it can hold and holds, and a flag byte.
// A StreamBufferList is one buffer per channel of a stream, with the list's overall sample
// count and two descriptive values that travel with it. Copies share the memory.
#pragma once

#include "host/core/RefCount.h"
#include "host/media/MemHolder.h"

#include <cstdint>
#include <vector>

namespace Aud {

class StreamBuffer {
public:
    StreamBuffer() = default;
    StreamBuffer(Zn::Ptr<iMemHolder> memory, uint32_t channels, uint32_t capacity, uint32_t sampleCount,
                 uint8_t flags = 0)
        : memory_(std::move(memory)), sampleCount_(sampleCount), flags_(flags), channels_(channels),
          capacity_(capacity) {}

    const Zn::Ptr<iMemHolder>& getMemory() const noexcept { return memory_; }
    void setMemory(Zn::Ptr<iMemHolder> m) noexcept { memory_ = std::move(m); }
    // The first byte of the samples, or null when the buffer has no storage.
    uint8_t* getData() const { return memory_ ? memory_->getBuffer() : nullptr; }
    // Bytes of the memory in use (0 without memory).
    uint32_t getUsedBytes() const { return memory_ ? memory_->getUsed() : 0; }
    bool empty() const noexcept { return !memory_; }

    uint32_t getSampleCount() const noexcept { return sampleCount_; }
    void setSampleCount(uint32_t n) noexcept { sampleCount_ = n; }
    uint8_t getFlags() const noexcept { return flags_; }
    void setFlags(uint8_t f) noexcept { flags_ = f; }
    uint32_t getChannels() const noexcept { return channels_; }
    uint32_t getCapacity() const noexcept { return capacity_; }

private:
    Zn::Ptr<iMemHolder> memory_;
    uint32_t sampleCount_ = 0;
    uint8_t flags_ = 0;
    uint32_t channels_ = 0;
    uint32_t capacity_ = 0;
};

class StreamBufferList {
public:
    StreamBufferList() = default;

    void add(const StreamBuffer& b) { buffers_.push_back(b); }
    uint32_t size() const noexcept { return uint32_t(buffers_.size()); }
    bool empty() const noexcept { return buffers_.empty(); }
    StreamBuffer& operator[](uint32_t i) { return buffers_[i]; }
    const StreamBuffer& operator[](uint32_t i) const { return buffers_[i]; }
    auto begin() noexcept { return buffers_.begin(); }
    auto end() noexcept { return buffers_.end(); }
    auto begin() const noexcept { return buffers_.begin(); }
    auto end() const noexcept { return buffers_.end(); }
    void clear() noexcept {
        buffers_.clear();
        sampleCount_ = 0;
    }

    // Samples per channel held by the list as a whole.
    uint32_t getSampleCount() const noexcept { return sampleCount_; }
    void setSampleCount(uint32_t n) noexcept { sampleCount_ = n; }
    uint32_t getSampleRate() const noexcept { return sampleRate_; }
    void setSampleRate(uint32_t r) noexcept { sampleRate_ = r; }
    uint32_t getBytesPerSample() const noexcept { return bytesPerSample_; }
    void setBytesPerSample(uint32_t b) noexcept { bytesPerSample_ = b; }

private:
    std::vector<StreamBuffer> buffers_;
    uint32_t sampleCount_ = 0;
    uint32_t sampleRate_ = 0;
    uint32_t bytesPerSample_ = 0;
};

} // namespace Aud
