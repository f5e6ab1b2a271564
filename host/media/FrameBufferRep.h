// FrameBufferRep: a run of frames of one file as a read delivers them. Each frame has a
// surface (its picture, possibly still to come) and may have a block of data as read from
// the file (a codec bitstream, or raw pixels not yet wrapped as a surface). With the data
// travel what a decoder needs (VideoDecompressionInfo), what the stored data is
// (FrameBufferMetadata), and the format the caller wants the picture in. The
// decompression state says how far the data has been turned into a picture; threads that
// may decode the same buffer claim it with an atomic compare-and-swap from kCompressed to
// kDecompressing.
#pragma once

#include "host/core/LightweightString.h"
#include "host/core/RefCount.h"
#include "host/media/DecodeFormat.h"
#include "host/media/IndexInfoRep.h"
#include "host/media/MemHolder.h"
#include "host/media/Surface.h"

#include <atomic>
#include <cstdint>
#include <vector>

// How the frames' data is laid out in memory.
struct VideoBufferFormat {
    uint32_t stride = 0;    // bytes per row of the first plane of raw data (0: tight)
    uint32_t alignment = 0; // alignment of the data's first byte, when the decoder cares
};

// What a decoder needs to know about the data: the codec, the picture it decodes to, the
// layout of raw data, and the codec's set-up bytes.
struct VideoDecompressionInfo {
    String codec;       // the codec's short name ("prores", "dnxhd", "mjpeg"; "raw" for pixels)
    uint32_t codecTag = 0; // the container's four-character code, when it has one
    Zn::Image::Core::Data core; // the picture: size, pixel format, bit depths
    VideoBufferFormat bufferFormat;
    Zn::Ptr<iMemHolder> extraData; // codec set-up bytes (may be null)

    // Same codec and set-up: a decoder made for one serves the other.
    bool sameDecoderAs(const VideoDecompressionInfo& o) const;
};

// What the stored data is: its own image format (kFormatCompressed for a bitstream, or a
// raw pixel format), and how the picture is meant to be shown.
struct FrameBufferMetadata {
    Zn::Image::Core::Data image;
    Zn::Image::eOrientation orientation = Zn::Image::kOrientationNormal;
    Zn::Image::eColourSpace colourSpace = Zn::Image::kColourSpaceUnknown;
    Zn::Image::eColourRange colourRange = Zn::Image::kColourRangeUnknown;
};

// Threads: a buffer is filled by one thread (a reader or decoder) before it is handed on.
// After that, surfaces fill and complete in place (Surface has its own lock), and the
// decompression state is atomic; setSurface and the data setters are for the filling
// thread only. The number of frames never changes.
class FrameBufferRep : public iObject {
public:
    enum eDecompressState : int32_t {
        kNoData = 0,         // nothing to decode (surfaces are filled directly, or empty)
        kCompressed = 1,     // data waits to be turned into a picture
        kDecompressing = 2,  // a thread has claimed the data and is decoding it
        kDecompressed = 3,   // the picture is complete
        kDecompressFailed = 4,
    };

    // An empty buffer: no frames.
    FrameBufferRep();
    // One frame to be read, for a format and an index entry (either may be empty).
    FrameBufferRep(const DecodeFormat& format, Zn::Ptr<IndexInfoRep> index, uint32_t frame);
    // numFrames frames from firstFrame, each with a pending surface; streaming marks a
    // buffer that a decode thread fills group by group.
    FrameBufferRep(const DecodeFormat& format, uint32_t firstFrame, uint32_t numFrames, bool streaming);
    // One frame that wraps an existing surface (shared, not copied).
    FrameBufferRep(uint32_t frame, const Zn::Image::Surface& surface);

    uint32_t getStartValidFrameIndex() const noexcept { return firstFrame_; }
    uint32_t getNumFrames() const noexcept { return uint32_t(surfaces_.size()); }
    bool containsFrame(uint32_t frame) const noexcept {
        return frame >= firstFrame_ && frame - firstFrame_ < surfaces_.size();
    }
    bool isStreaming() const noexcept { return streaming_; }
    const Zn::Ptr<IndexInfoRep>& getIndexInfo() const noexcept { return index_; }

    // Surface of frame i of the run (0 = the first valid frame); an empty surface when i
    // is out of range.
    Zn::Image::Surface getSurface(uint32_t i) const;
    void setSurface(uint32_t i, const Zn::Image::Surface& s);

    // The format the caller wants the picture in.
    DecodeFormat& getFormat() noexcept { return format_; }
    const DecodeFormat& getFormat() const noexcept { return format_; }
    FrameBufferMetadata& getMetadata() noexcept { return metadata_; }
    const FrameBufferMetadata& getMetadata() const noexcept { return metadata_; }
    VideoDecompressionInfo& getVideoDecompressionInfo() noexcept { return decompression_; }
    const VideoDecompressionInfo& getVideoDecompressionInfo() const noexcept { return decompression_; }

    // Data of frame i as read from the file. Setting data for frame 0 makes the buffer
    // hold compressed data; the state is the caller's to set (normally kCompressed).
    void setCompressedData(uint32_t i, Zn::Ptr<iMemHolder> data);
    uint8_t* getCompressedData(uint32_t i) const;
    uint32_t getCompressedSize(uint32_t i) const;
    const Zn::Ptr<iMemHolder>& getCompressedMemory(uint32_t i) const;
    // True when the buffer holds data read from the file (a bitstream or raw pixels)
    // rather than only surfaces.
    bool isCompressedFormat() const noexcept;

    // The state, for atomic claims (OSServices::atomicCompareExchange).
    std::atomic<int32_t>& decompressionState() noexcept { return state_; }
    int32_t getDecompressionState() const noexcept { return state_.load(std::memory_order_acquire); }
    // Stores the state; kDecompressed and kDecompressFailed also complete (or fail) every
    // surface of the run that is still pending, so that nobody waits on them for ever.
    void setDecompressComplete(int32_t state);

private:
    DecodeFormat format_;
    FrameBufferMetadata metadata_;
    VideoDecompressionInfo decompression_;
    Zn::Ptr<IndexInfoRep> index_;
    uint32_t firstFrame_ = 0;
    bool streaming_ = false;
    std::vector<Zn::Image::Surface> surfaces_;
    std::vector<Zn::Ptr<iMemHolder>> data_;
    std::atomic<int32_t> state_{kNoData};
};
