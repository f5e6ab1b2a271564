// Re-encoding a run of frames of a long-GOP video stream, for the ends of a section that
// cannot be cut at a key frame: the stream's packets are decoded from a key frame on, the
// frames of the run are encoded again with the stream's own codec and settings as close to
// the source's as FFmpeg allows (picture size and format, colour, profile and level, a
// quality high enough to keep within a fraction of a decibel of lossless where the codec
// can), one closed group starting with a key frame, no B-frames.
#pragma once

#include "backends/ffmpegxfer/XferCommon.h"

#include <vector>

namespace ffmpeg_xfer {

// The packets of a section as read, in decode order, with their frame numbers.
struct SourcePacket {
    PacketPtr packet;
    int64_t frame = 0; // the frame its picture shows (by presentation time)
    bool key = false;
};

// What an encoded run gives: its packets in decode order, their time stamps those of the
// source frames they show.
struct EncodedRun {
    std::vector<PacketPtr> packets;
    int64_t frames = 0;
};

class RunEncoder {
public:
    // stream: the source's video stream; frameOf maps a presentation time to its frame,
    // ptsOf a frame to its presentation time.
    RunEncoder(const AVStream& stream, std::function<int64_t(int64_t)> frameOf, std::function<int64_t(int64_t)> ptsOf);

    // Encodes frames [from, to) by decoding packets[start...] in order. progress is called
    // once per frame encoded; false stops with a cancelled outcome.
    Outcome encode(const std::vector<SourcePacket>& packets, size_t start, int64_t from, int64_t to,
                   const std::function<bool()>& progress, EncodedRun& out);

private:
    Outcome openDecoder(CodecPtr& dec) const;
    Outcome openEncoder(const AVCodecContext& dec, const AVFrame& frame, CodecPtr& enc) const;
    Outcome receive(AVCodecContext& enc, EncodedRun& out) const;

    const AVStream& stream_;
    std::function<int64_t(int64_t)> frameOf_;
    std::function<int64_t(int64_t)> ptsOf_;
};

} // namespace ffmpeg_xfer
