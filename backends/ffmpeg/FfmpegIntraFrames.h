// Intra-only video (ProRes, DNxHD, MJPEG, FFV1 with every frame a key frame, raw video):
// each frame is one packet that decodes on its own, so reading and decoding are split.
// FfmpegPacketReader reads a frame's compressed packet by frame number (cheap, done where
// the file is read); FfmpegPacketDecoder turns such a packet into a picture, with its own
// codec context, on whichever thread completes the request. Each object is used by one
// thread at a time; make one per thread.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"
#include "backends/ffmpeg/FfmpegPacketCursor.h"

#include <memory>

namespace ffmpeg_engine {

class FfmpegPacketReader {
public:
    static Result<std::unique_ptr<FfmpegPacketReader>> open(std::shared_ptr<const MediaIndex> index);

    // The compressed packet of frame `frame` (presentation order) as the demuxer gives it.
    // For frames that do not decode on their own this is still the frame's packet, but
    // decoding it alone does not give the frame.
    Result<PacketPtr> readPacket(int frame);

    const VideoTrack& track() const { return *track_; }
    const PacketCursor::Stats& cursorStats() const { return cursor_->stats(); }

private:
    FfmpegPacketReader() = default;
    std::shared_ptr<const MediaIndex> index_;
    const VideoTrack* track_ = nullptr;
    std::unique_ptr<PacketCursor> cursor_;
};

class FfmpegPacketDecoder {
public:
    // A decoder for the video stream of the index. Threading Auto means slice threads,
    // which shorten the decode of one picture without delaying it.
    static Result<std::unique_ptr<FfmpegPacketDecoder>> open(std::shared_ptr<const MediaIndex> index,
                                                             Threading threading = Threading::Auto,
                                                             int threads = 0);

    // Decodes one packet of a frame that decodes on its own; no state carries over.
    Result<FramePtr> decode(const AVPacket& packet);
    // The same from bytes (copied into a padded packet, as libavcodec requires).
    Result<FramePtr> decode(const uint8_t* data, size_t size);

private:
    FfmpegPacketDecoder() = default;
    std::shared_ptr<const MediaIndex> index_;
    CodecContextPtr codec_;
};

} // namespace ffmpeg_engine
