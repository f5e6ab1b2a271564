// PlayFileMetadataRep: what is known about an open media file's contents, filled in by
// the back-end that opens it and consulted by the cache, the queues and the readers: its
// video (frame count, native picture, frame rate, whether frames are stored in groups of
// pictures, a still image), its audio streams (one Aud::Metadata each) and descriptive
// fields (label, orientation, timecode, frame sizes).
//
// Threads: a back-end fills the metadata while it opens the file, before the instance is
// shared. Afterwards only the frame count and the audio length change (a file that is
// still being written grows), so those two are atomic; everything else is read-only.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/AudioMetadata.h"
#include "host/media/ImageCore.h"
#include "host/media/Surface.h"

#include <atomic>
#include <cstdint>
#include <vector>

struct FrameRate {
    uint32_t numerator = 0;
    uint32_t denominator = 1;
    bool valid() const noexcept { return numerator != 0 && denominator != 0; }
    double asDouble() const noexcept { return valid() ? double(numerator) / denominator : 0.0; }
    friend bool operator==(const FrameRate&, const FrameRate&) = default;
};

// Stored bytes of the file's frames: typical is the size of one frame as the back-end
// first found it, largest the biggest frame seen.
struct FrameSizes {
    uint32_t typical = 0;
    uint32_t largest = 0;
    friend bool operator==(const FrameSizes&, const FrameSizes&) = default;
};

class PlayFileMetadataRep : public iObject {
public:
    explicit PlayFileMetadataRep(const WString& fileName) : fileName_(fileName) {}

    const WString& getFileName() const noexcept { return fileName_; }

    // Video.
    uint32_t getFrameCount() const noexcept { return frameCount_.load(std::memory_order_acquire); }
    void setFrameCount(uint32_t n) noexcept { frameCount_.store(n, std::memory_order_release); }
    uint32_t getVideoStreamCount() const noexcept { return videoStreams_; }
    void setVideoStreamCount(uint32_t n) noexcept { videoStreams_ = n; }
    const Zn::Image::Core::Data& getNativeFormat() const noexcept { return native_; }
    void setNativeFormat(const Zn::Image::Core::Data& d) noexcept { native_ = d; }
    const String& getVideoCodec() const noexcept { return videoCodec_; }
    void setVideoCodec(const String& c) { videoCodec_ = c; }
    const FrameRate& getFrameRate() const noexcept { return frameRate_; }
    void setFrameRate(const FrameRate& r) noexcept { frameRate_ = r; }
    // Frames stored in groups that are read and decoded together (long-GOP video), with
    // the group's size in frames. A grouped file always has a group size of at least 1.
    bool framesAreGrouped() const noexcept { return grouped_; }
    uint16_t getGroupSize() const noexcept { return groupSize_; }
    void setFrameGroups(bool grouped, uint16_t size) noexcept {
        grouped_ = grouped && size > 0;
        groupSize_ = size;
    }
    // The picture of a still-image file, kept from its header; empty for moving video.
    const Zn::Image::Surface& getStillImage() const noexcept { return still_; }
    void setStillImage(const Zn::Image::Surface& s) { still_ = s; }
    bool hasStillImage() const { return still_.valid(); }

    // Audio: one entry per audio stream, in the file's order.
    const std::vector<Aud::Metadata>& getAudioMetadata() const noexcept { return audio_; }
    std::vector<Aud::Metadata>& getAudioMetadata() noexcept { return audio_; }
    void setAudioMetadata(std::vector<Aud::Metadata> m) { audio_ = std::move(m); }
    uint32_t getAudioStreamCount() const noexcept { return uint32_t(audio_.size()); }
    // Channels of all streams together.
    uint32_t getTotalChannels() const noexcept;
    // Length of the file's audio in sample frames.
    uint64_t getAudioLength() const noexcept { return audioLength_.load(std::memory_order_acquire); }
    void setAudioLength(uint64_t n) noexcept { audioLength_.store(n, std::memory_order_release); }

    // Descriptive fields.
    // The reel or edit label a file carries; valid when not empty.
    const WString& getLabel() const noexcept { return label_; }
    void setLabel(const WString& l) { label_ = l; }
    bool isLabelValid() const noexcept { return !label_.empty(); }
    Zn::Image::eOrientation getOrientation() const noexcept { return orientation_; }
    void setOrientation(Zn::Image::eOrientation o) noexcept { orientation_ = o; }
    // The timecode of the first frame, in frames; 0 when the file carries none.
    uint32_t getStartTimecode() const noexcept { return startTimecode_; }
    void setStartTimecode(uint32_t t) noexcept { startTimecode_ = t; }
    const FrameSizes& getFrameSizes() const noexcept { return frameSizes_; }
    void setFrameSizes(const FrameSizes& s) noexcept { frameSizes_ = s; }

private:
    const WString fileName_;
    std::atomic<uint32_t> frameCount_{0};
    uint32_t videoStreams_ = 0;
    Zn::Image::Core::Data native_;
    String videoCodec_;
    FrameRate frameRate_;
    bool grouped_ = false;
    uint16_t groupSize_ = 0;
    Zn::Image::Surface still_;
    std::vector<Aud::Metadata> audio_;
    std::atomic<uint64_t> audioLength_{0};
    WString label_;
    Zn::Image::eOrientation orientation_ = Zn::Image::kOrientationNormal;
    uint32_t startTimecode_ = 0;
    FrameSizes frameSizes_;
};
