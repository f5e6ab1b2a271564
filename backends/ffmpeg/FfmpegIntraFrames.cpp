// Reading compressed frames by number, and decoding single packets of intra-only video.
#include "backends/ffmpeg/FfmpegIntraFrames.h"

#include <cstring>

namespace ffmpeg_engine {

Result<std::unique_ptr<FfmpegPacketReader>> FfmpegPacketReader::open(std::shared_ptr<const MediaIndex> index) {
    using R = Result<std::unique_ptr<FfmpegPacketReader>>;
    if (!index || !index->video) return R::fail("the file has no video stream");
    std::unique_ptr<FfmpegPacketReader> r(new FfmpegPacketReader);
    r->index_ = index;
    r->track_ = &*index->video;
    const VideoTrack* v = r->track_;
    auto cursor = PacketCursor::open(index, v->stream, int(v->packets.size()),
                                     [v](int i) -> const PacketKey& { return v->packets[size_t(i)].key; });
    if (!cursor) return R::fail(cursor.error);
    r->cursor_ = std::move(cursor.value);
    return R::ok(std::move(r));
}

Result<PacketPtr> FfmpegPacketReader::readPacket(int frame) {
    using R = Result<PacketPtr>;
    if (frame < 0 || frame >= track_->frameCount())
        return R::fail("frame " + std::to_string(frame) + " is outside 0.." + std::to_string(track_->frameCount() - 1));
    const int packet = track_->frames[size_t(frame)].packet;
    std::string error;
    if (!cursor_->seekTo(packet, error)) return R::fail(error);
    PacketPtr pkt = newPacket();
    if (!pkt) return R::fail("out of memory");
    int index = -1;
    int rc = cursor_->next(pkt.get(), index);
    if (rc == 0) return R::fail("the file ended before frame " + std::to_string(frame));
    if (rc < 0) return R::fail("cannot read frame " + std::to_string(frame) + ": " + errorText(rc));
    if (index != packet) return R::fail("the file did not read as indexed at frame " + std::to_string(frame));
    return R::ok(std::move(pkt));
}

Result<std::unique_ptr<FfmpegPacketDecoder>> FfmpegPacketDecoder::open(std::shared_ptr<const MediaIndex> index,
                                                                      Threading threading, int threads) {
    using R = Result<std::unique_ptr<FfmpegPacketDecoder>>;
    if (!index || !index->video) return R::fail("the file has no video stream");
    if (threading == Threading::Auto) threading = Threading::Slice;
    auto opened = openDecoder(index->video->codec.get(), threading, threads);
    if (!opened) return R::fail(opened.error);
    std::unique_ptr<FfmpegPacketDecoder> d(new FfmpegPacketDecoder);
    d->index_ = std::move(index);
    d->codec_ = std::move(opened.value);
    return R::ok(std::move(d));
}

Result<FramePtr> FfmpegPacketDecoder::decode(const AVPacket& packet) {
    using R = Result<FramePtr>;
    FramePtr picture = newFrame();
    if (!picture) return R::fail("out of memory");
    AVCodecContext* ctx = codec_.get();
    int rc = avcodec_send_packet(ctx, &packet);
    if (rc < 0 && rc != AVERROR(EAGAIN)) {
        avcodec_flush_buffers(ctx);
        return R::fail("the decoder refused the frame: " + errorText(rc));
    }
    rc = avcodec_receive_frame(ctx, picture.get());
    if (rc == AVERROR(EAGAIN)) {
        // A decoder holding the picture back (frame threads): drain it.
        avcodec_send_packet(ctx, nullptr);
        rc = avcodec_receive_frame(ctx, picture.get());
        avcodec_flush_buffers(ctx);
    }
    if (rc < 0) {
        avcodec_flush_buffers(ctx);
        return R::fail("the frame did not decode: " + errorText(rc));
    }
    return R::ok(std::move(picture));
}

Result<FramePtr> FfmpegPacketDecoder::decode(const uint8_t* data, size_t size) {
    using R = Result<FramePtr>;
    if (!data || size == 0 || size > size_t(INT32_MAX) - AV_INPUT_BUFFER_PADDING_SIZE)
        return R::fail("no compressed data");
    PacketPtr pkt = newPacket();
    if (!pkt || av_new_packet(pkt.get(), int(size)) < 0) return R::fail("out of memory");
    std::memcpy(pkt->data, data, size);
    pkt->flags |= AV_PKT_FLAG_KEY;
    return decode(*pkt);
}

} // namespace ffmpeg_engine
