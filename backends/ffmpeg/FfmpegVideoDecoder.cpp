// Frame-exact video decoding over the index: sessions that start at key packets, packets
// tagged with their decode index so every picture that comes out is known for certain.
#include "backends/ffmpeg/FfmpegVideoDecoder.h"

#include <algorithm>
#include <utility>

namespace ffmpeg_engine {

Result<std::unique_ptr<FfmpegVideoDecoder>> FfmpegVideoDecoder::open(std::shared_ptr<const MediaIndex> index,
                                                                    const VideoDecoderOptions& options) {
    using R = Result<std::unique_ptr<FfmpegVideoDecoder>>;
    if (!index || !index->video) return R::fail("the file has no video stream");
    std::unique_ptr<FfmpegVideoDecoder> d(new FfmpegVideoDecoder);
    d->index_ = index;
    d->track_ = &*index->video;
    d->options_ = options;
    const VideoTrack* v = d->track_;
    auto cursor = PacketCursor::open(index, v->stream, int(v->packets.size()),
                                     [v](int i) -> const PacketKey& { return v->packets[size_t(i)].key; });
    if (!cursor) return R::fail(cursor.error);
    d->cursor_ = std::move(cursor.value);
    d->packet_ = newPacket();
    if (!d->packet_) return R::fail("out of memory");
    d->disposable_ = std::make_unique<DisposablePictures>(*v->codec);
    for (size_t i = 0; i < v->packets.size(); ++i)
        if (i == 0 || v->packets[i].keyFrame) d->keyPackets_.push_back(int(i));
    std::string error;
    if (!d->openCodec(error)) return R::fail(error);
    return R::ok(std::move(d));
}

FfmpegVideoDecoder::~FfmpegVideoDecoder() = default;

bool FfmpegVideoDecoder::openCodec(std::string& error) {
    resolved_ = options_.threading;
    if (resolved_ == Threading::Auto)
        resolved_ = track_->codecIsIntraOnly || track_->allFramesKey ? Threading::Slice : Threading::Frame;
    threads_ = options_.threads > 0 ? options_.threads : std::min(coreCount(), 16);
    if (resolved_ == Threading::Single) threads_ = 1;
    auto opened = openDecoder(track_->codec.get(), resolved_, threads_);
    if (!opened) {
        error = opened.error;
        return false;
    }
    codec_ = std::move(opened.value);
    codec_->pkt_timebase = track_->timeBase;
    sessionStart_ = -1;
    return true;
}

bool FfmpegVideoDecoder::setThreading(Threading threading, int threads, std::string& error) {
    options_.threading = threading;
    options_.threads = threads;
    codec_.reset();
    return openCodec(error);
}

int FfmpegVideoDecoder::packetLimitFor(int frame) const {
    // A picture comes out at most the reorder depth (16 in H.264/HEVC) plus one per frame
    // thread after its own packet went in.
    return track_->frames[size_t(frame)].packet + 17 + threads_ + std::max(0, track_->codec->video_delay);
}

bool FfmpegVideoDecoder::startAt(int packet, int skipFrom, std::string& error) {
    ++stats_.sessions;
    sessionStart_ = -1;
    if (!cursor_->seekTo(packet, error)) return false;
    avcodec_flush_buffers(codec_.get());
    sessionStart_ = packet;
    lastShown_ = -1;
    inputEnded_ = decoderEnded_ = false;
    skipBefore_ = options_.skipUnneededAfterSeek ? skipFrom : -1;
    return true;
}

bool FfmpegVideoDecoder::prepare(int first, int last, int skipFrom, std::string& error) {
    int need = INT32_MAX;
    for (int k = first; k <= last; ++k) need = std::min(need, int(track_->frames[size_t(k)].startPacket));
    // Carrying on is right when the running decode started early enough to make these
    // frames intact, has not shown them yet, and has not read past where a seek would go.
    const bool carryOn = sessionStart_ >= 0 && !decoderEnded_ && need >= sessionStart_ &&
                         first > lastShown_ && need <= cursor_->position();
    if (carryOn) {
        // Jumping ahead within the group: the pictures on the way may be left out too.
        if (options_.skipUnneededAfterSeek && skipFrom > lastShown_ + 1) skipBefore_ = skipFrom;
        return true;
    }
    return startAt(need, skipFrom, error);
}

int FfmpegVideoDecoder::produce(FramePtr& out, int packetLimit, std::string& error) {
    const VideoTrack& v = *track_;
    for (;;) {
        FramePtr picture = newFrame();
        if (!picture) {
            error = "out of memory";
            return -1;
        }
        int rc = avcodec_receive_frame(codec_.get(), picture.get());
        if (rc >= 0) {
            ++stats_.picturesDecoded;
            int64_t tag = picture->pts != AV_NOPTS_VALUE ? picture->pts : picture->best_effort_timestamp;
            if (tag < 0 || tag >= int64_t(v.packets.size())) continue;
            const int frame = v.packets[size_t(tag)].frame;
            // Pictures that depend on packets before the session's start are damaged.
            if (frame < 0 || frame <= lastShown_ || v.frames[size_t(frame)].startPacket < sessionStart_) continue;
            lastShown_ = frame;
            // The decode index served its purpose; give the picture its real time back.
            picture->pts = picture->best_effort_timestamp = v.frames[size_t(frame)].pts;
            picture->pkt_dts = AV_NOPTS_VALUE;
            out = std::move(picture);
            return frame;
        }
        if (rc == AVERROR_EOF) {
            decoderEnded_ = true;
            return -1;
        }
        if (rc != AVERROR(EAGAIN)) {
            decoderEnded_ = true;
            error = "the decoder failed: " + errorText(rc);
            return -1;
        }
        if (inputEnded_) {
            // Drained, yet the decoder still wants input: nothing more will come.
            decoderEnded_ = true;
            return -1;
        }
        if (packetLimit >= 0 && cursor_->position() > packetLimit) return -2;
        int index = -1;
        rc = cursor_->next(packet_.get(), index);
        if (rc <= 0) {
            // End of the stream (or a read error: decode what was read): drain the decoder.
            inputEnded_ = true;
            avcodec_send_packet(codec_.get(), nullptr);
            continue;
        }
        // Pictures before the first one wanted that nobody refers to are never sent: the
        // decoder cannot tell that it would show them in vain, and with frame threads even
        // a picture it discards would hold up a thread.
        const int shows = index >= 0 ? v.packets[size_t(index)].frame : -1;
        if (skipBefore_ >= 0 && shows >= 0 && shows < skipBefore_ && disposable_->disposable(*packet_)) {
            ++stats_.packetsSkipped;
            av_packet_unref(packet_.get());
            continue;
        }
        disposable_->observe(*packet_);
        packet_->pts = index >= 0 ? index : -1;
        packet_->dts = AV_NOPTS_VALUE;
        ++stats_.packetsSent;
        // A damaged packet is skipped, as FFmpeg's own program does.
        avcodec_send_packet(codec_.get(), packet_.get());
        av_packet_unref(packet_.get());
    }
}

FramePtr FfmpegVideoDecoder::pumpTo(int frame, std::string& error) {
    for (;;) {
        FramePtr picture;
        const int got = produce(picture, packetLimitFor(frame), error);
        if (got == frame) {
            skipBefore_ = -1;
            return picture;
        }
        if (got < 0) return nullptr;
        // Kept either way: past the frame wanted, the picture is the next one a run asks for
        // when the frame wanted never comes out (its packet is damaged).
        cacheKeep(got, picture.get());
        if (got > frame) return nullptr;
    }
}

FramePtr FfmpegVideoDecoder::reach(int frame, std::string& error) {
    constexpr int kEarlierStarts = 3;
    FramePtr picture = pumpTo(frame, error);
    for (int attempt = 0; !picture && error.empty() && attempt < kEarlierStarts; ++attempt) {
        const int from = std::min(sessionStart_ >= 0 ? sessionStart_ : INT32_MAX,
                                  int(track_->frames[size_t(frame)].startPacket));
        auto it = std::lower_bound(keyPackets_.begin(), keyPackets_.end(), from);
        if (it == keyPackets_.begin()) break;
        // Without leaving pictures out this time: whatever held the frame back, it is not that.
        if (!startAt(*--it, -1, error)) return nullptr;
        picture = pumpTo(frame, error);
    }
    if (!picture && error.empty()) error = "frame " + std::to_string(frame) + " did not come out of the decoder";
    return picture;
}

Result<FramePtr> FfmpegVideoDecoder::decodeFrame(int frame) {
    using R = Result<FramePtr>;
    if (frame < 0 || frame >= frameCount())
        return R::fail("frame " + std::to_string(frame) + " is outside 0.." + std::to_string(frameCount() - 1));
    const int asked = std::exchange(lastAsked_, frame);
    if (FramePtr hit = cacheFind(frame)) return R::ok(std::move(hit));
    // A little behind the frame asked for last: a step back, likely followed by more, so
    // the frames behind this one are decoded and kept too.
    int skipFrom = frame;
    if (frame < asked && asked - frame < kStepBack) skipFrom = std::max(track_->groupStart(frame), frame - kStepBack + 1);
    std::string error;
    if (!prepare(frame, frame, skipFrom, error)) return R::fail(error);
    FramePtr picture = reach(frame, error);
    if (!picture) return R::fail(error);
    cacheKeep(frame, picture.get());
    return R::ok(std::move(picture));
}

Result<int> FfmpegVideoDecoder::decodeRange(int first, int last, const Deliver& deliver) {
    using R = Result<int>;
    if (first < 0 || last >= frameCount() || first > last)
        return R::fail("frames " + std::to_string(first) + ".." + std::to_string(last) + " are outside 0.." +
                       std::to_string(frameCount() - 1));
    int delivered = 0;
    int k = first;
    // Frames already at hand first; the decode carries on from the first one missing.
    while (k <= last) {
        FramePtr hit = cacheFind(k);
        if (!hit) break;
        ++delivered;
        if (!deliver(k, hit.get())) return R::ok(delivered);
        ++k;
    }
    if (k > last) return R::ok(delivered);
    std::string error;
    if (!prepare(k, last, k, error)) return R::fail(error);
    // A frame that does not come out (a damaged or missing packet) is left out and the run
    // goes on, as FFmpeg's own program shows the pictures after it; the run fails only
    // when none came out at all. After such a frame the decode only carries on forward:
    // trying earlier starts again for every frame of a broken run would decode its group
    // over and over.
    std::string firstError;
    for (; k <= last; ++k) {
        FramePtr picture = cacheFind(k);
        if (!picture) picture = firstError.empty() ? reach(k, error) : pumpTo(k, error);
        if (!picture) {
            if (firstError.empty()) firstError = error;
            error.clear();
            continue;
        }
        ++delivered;
        if (!deliver(k, picture.get())) break;
    }
    if (delivered == 0 && !firstError.empty()) return R::fail(firstError);
    return R::ok(delivered);
}

FramePtr FfmpegVideoDecoder::cacheFind(int frame) {
    auto it = cache_.find(frame);
    if (it == cache_.end()) return nullptr;
    cacheAge_.splice(cacheAge_.begin(), cacheAge_, it->second.age);
    ++stats_.cacheHits;
    return refFrame(it->second.picture.get());
}

void FfmpegVideoDecoder::cacheKeep(int frame, const AVFrame* picture) {
    if (options_.cacheBytes == 0 || cache_.count(frame)) return;
    size_t bytes = 0;
    for (const AVBufferRef* b : picture->buf)
        if (b) bytes += b->size;
    for (int i = 0; i < picture->nb_extended_buf; ++i) bytes += picture->extended_buf[i]->size;
    if (bytes > options_.cacheBytes) return;
    while (cacheBytes_ + bytes > options_.cacheBytes && !cacheAge_.empty()) {
        auto old = cache_.find(cacheAge_.back());
        cacheBytes_ -= old->second.bytes;
        cache_.erase(old);
        cacheAge_.pop_back();
    }
    FramePtr ref = refFrame(picture);
    if (!ref) return;
    cacheAge_.push_front(frame);
    cache_.emplace(frame, Cached{std::move(ref), bytes, cacheAge_.begin()});
    cacheBytes_ += bytes;
}

void FfmpegVideoDecoder::clearCache() {
    cache_.clear();
    cacheAge_.clear();
    cacheBytes_ = 0;
}

} // namespace ffmpeg_engine
