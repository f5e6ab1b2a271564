// Placing a demuxer before a given packet, whatever the container's seeking precision.
#include "backends/ffmpeg/FfmpegPacketCursor.h"

#include "backends/ffmpeg/FfmpegMovSource.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <thread>
#include <unistd.h>

namespace ffmpeg_engine {

namespace {
// Packets the demuxer may give that the index does not know (a partial packet right after
// a seek) before the cursor concludes it has lost its way.
constexpr int kMaxStrangers = 256;
} // namespace

Result<std::unique_ptr<PacketCursor>> PacketCursor::open(std::shared_ptr<const MediaIndex> index, int stream,
                                                         int packetCount, KeyAt keyAt) {
    using R = Result<std::unique_ptr<PacketCursor>>;
    if (index->source == IndexSource::SampleTables && index->video && index->video->stream == stream) {
        std::unique_ptr<PacketCursor> c(new PacketCursor);
        c->fd_ = ::open(index->path.c_str(), O_RDONLY | O_CLOEXEC);
        if (c->fd_ < 0) return R::fail(std::string("cannot open the file again: ") + std::strerror(errno), errno);
        c->index_ = std::move(index);
        c->stream_ = stream;
        c->count_ = packetCount;
        c->keyAt_ = std::move(keyAt);
        return R::ok(std::move(c));
    }
    auto opened = Demuxer::open(index->path, false);
    if (!opened) return R::fail("cannot open the file again: " + opened.error);
    AVFormatContext* ctx = opened.value->context();
    const bool isVideo = index->video && index->video->stream == stream;
    const AVCodecParameters* known = isVideo ? index->video->codec.get() : nullptr;
    for (const AudioTrack& a : index->audio)
        if (a.stream == stream) known = a.codec.get();
    auto sameStream = [&] {
        return known && stream >= 0 && unsigned(stream) < ctx->nb_streams &&
               ctx->streams[stream]->codecpar->codec_id == known->codec_id;
    };
    // Formats whose streams appear while reading (MPEG-TS), or whose header only guesses
    // the codec (raw MPEG video), are probed the same way as at open, so that the packets
    // come out exactly as they were indexed.
    if ((ctx->ctx_flags & AVFMTCTX_NOHEADER) || !sameStream()) {
        opened.value->arm(kOpenTimeLimit);
        int rc = avformat_find_stream_info(ctx, nullptr);
        if (rc < 0) return R::fail("cannot read the streams: " + errorText(rc));
    }
    if (!sameStream()) return R::fail("the file no longer has the stream it had when opened");
    for (unsigned i = 0; i < ctx->nb_streams; ++i)
        ctx->streams[i]->discard = int(i) == stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;

    std::unique_ptr<PacketCursor> c(new PacketCursor);
    c->index_ = std::move(index);
    c->demux_ = std::move(opened.value);
    c->stream_ = stream;
    c->count_ = packetCount;
    c->keyAt_ = std::move(keyAt);
    // QuickTime files are sought by presentation time (by decode time a seek lands one
    // group early when there are B-frames), Matroska only has presentation times; other
    // demuxers search decode times.
    const std::string name = ctx->iformat->name;
    c->seekByPts_ = c->demux_->isQuickTime() || name.find("matroska") != std::string::npos;
    c->byPos_.reserve(size_t(packetCount));
    c->byPts_.reserve(size_t(packetCount));
    for (int i = 0; i < packetCount; ++i) {
        const PacketKey& k = c->keyAt_(i);
        if (k.pos >= 0) c->byPos_.emplace_back(k.pos, i);
        if (k.pts != AV_NOPTS_VALUE) c->byPts_.emplace_back(k.pts, i);
    }
    // Both are nearly always in order already (packets in file order, pictures reordered
    // by a few places at most).
    if (!std::is_sorted(c->byPos_.begin(), c->byPos_.end())) std::sort(c->byPos_.begin(), c->byPos_.end());
    if (!std::is_sorted(c->byPts_.begin(), c->byPts_.end())) std::sort(c->byPts_.begin(), c->byPts_.end());
    c->pending_ = newPacket();
    if (!c->pending_) return R::fail("out of memory");
    return R::ok(std::move(c));
}

PacketCursor::~PacketCursor() {
    if (fd_ >= 0) ::close(fd_);
}

bool PacketCursor::matches(const AVPacket* pkt, int index) const {
    if (index < 0 || index >= count_) return false;
    const PacketKey& k = keyAt_(index);
    if (k.size != pkt->size || (k.hasDigest && k.digest != packetDigest(pkt))) return false;
    bool compared = false;
    if (k.pos >= 0 && pkt->pos >= 0) {
        if (k.pos != pkt->pos) return false;
        compared = true;
    }
    if (k.pts != AV_NOPTS_VALUE && pkt->pts != AV_NOPTS_VALUE) {
        if (k.pts != pkt->pts) return false;
        compared = true;
    }
    if (!compared && k.dts != AV_NOPTS_VALUE && pkt->dts != AV_NOPTS_VALUE) return k.dts == pkt->dts;
    return compared;
}

int PacketCursor::identify(const AVPacket* pkt) const {
    if (matches(pkt, next_)) return next_;
    auto search = [&](const std::vector<std::pair<int64_t, int>>& table, int64_t value) {
        auto it = std::lower_bound(table.begin(), table.end(), std::make_pair(value, -1));
        for (; it != table.end() && it->first == value; ++it)
            if (matches(pkt, it->second)) return it->second;
        return -1;
    };
    if (pkt->pos >= 0) {
        int i = search(byPos_, pkt->pos);
        if (i >= 0) return i;
    }
    if (pkt->pts != AV_NOPTS_VALUE) return search(byPts_, pkt->pts);
    return -1;
}

// The next packet of our stream straight from the demuxer.
int PacketCursor::readOwn(AVPacket* pkt) {
    int retries = 0;
    for (;;) {
        demux_->arm(kCallTimeLimit);
        int rc = av_read_frame(demux_->context(), pkt);
        if (rc == AVERROR(EAGAIN) && ++retries < 200) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        if (rc < 0) return rc;
        if (pkt->stream_index == stream_) return 0;
        av_packet_unref(pkt);
    }
}

int PacketCursor::next(AVPacket* pkt, int& index) {
    if (fd_ >= 0) {
        if (next_ < 0 || next_ >= count_) return 0;
        const int rc = readStoredPacket(fd_, index_->video->packets[size_t(next_)], pkt);
        if (rc < 0) return rc;
        pkt->stream_index = stream_;
        index = next_++;
        return 1;
    }
    if (pendingIndex_ >= 0) {
        av_packet_move_ref(pkt, pending_.get());
        index = pendingIndex_;
        next_ = pendingIndex_ + 1;
        pendingIndex_ = -1;
        return 1;
    }
    int rc = readOwn(pkt);
    if (rc == AVERROR_EOF) return 0;
    if (rc < 0) return rc;
    index = identify(pkt);
    if (index >= 0) next_ = index + 1;
    return 1;
}

bool PacketCursor::seekByTime(int packet) {
    const PacketKey& k = keyAt_(packet);
    int64_t ts = seekByPts_ || k.dts == AV_NOPTS_VALUE ? k.pts : k.dts;
    if (ts == AV_NOPTS_VALUE) ts = k.dts;
    if (ts == AV_NOPTS_VALUE) return false;
    demux_->arm(kCallTimeLimit);
    return av_seek_frame(demux_->context(), stream_, ts, AVSEEK_FLAG_BACKWARD) >= 0;
}

bool PacketCursor::seekByByte(int64_t pos) {
    const AVInputFormat* f = demux_->context()->iformat;
    if (pos < 0 || (f->flags & AVFMT_NO_BYTE_SEEK)) return false;
    demux_->arm(kCallTimeLimit);
    return av_seek_frame(demux_->context(), stream_, pos, AVSEEK_FLAG_BYTE) >= 0;
}

bool PacketCursor::readUpTo(int target) {
    PacketPtr pkt = newPacket();
    if (!pkt) return false;
    int strangers = 0;
    for (;;) {
        if (readOwn(pkt.get()) < 0) return false;
        // Nothing is expected after a seek: look the packet up from scratch.
        next_ = -1;
        const int i = identify(pkt.get());
        if (i == target) {
            av_packet_unref(pending_.get());
            av_packet_move_ref(pending_.get(), pkt.get());
            pendingIndex_ = target;
            next_ = target;
            return true;
        }
        av_packet_unref(pkt.get());
        if (i > target) return false;
        if (i < 0 && ++strangers > kMaxStrangers) return false;
        if (i >= 0) ++stats_.packetsSkipped;
    }
}

bool PacketCursor::seekTo(int target, std::string& error) {
    if (target < 0 || target >= count_) {
        error = "packet " + std::to_string(target) + " does not exist";
        return false;
    }
    if (pendingIndex_ == target || (pendingIndex_ < 0 && next_ == target)) return true;
    ++stats_.seeks;
    if (fd_ >= 0) {
        next_ = target;
        return true;
    }
    pendingIndex_ = -1;
    av_packet_unref(pending_.get());
    const PacketKey& k = keyAt_(target);
    if (seekByTime(target) && readUpTo(target)) return true;
    ++stats_.fallbacks;
    if (seekByByte(k.pos) && readUpTo(target)) return true;
    // From the start: slow, but it always gets there when the file reads as it did.
    if ((seekByTime(0) || seekByByte(keyAt_(0).pos)) && readUpTo(target)) return true;
    error = "cannot reach packet " + std::to_string(target) + " of stream " + std::to_string(stream_);
    next_ = -1;
    return false;
}

} // namespace ffmpeg_engine
