// Which payloads the indexing pass may leave unread, and the check that it met them all.
#include "backends/ffmpeg/FfmpegContainerIndex.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace ffmpeg_engine {

namespace {

enum class Family { QuickTime, Avi, Other };

Family familyOf(const AVFormatContext* ctx) {
    const std::string_view name = ctx->iformat->name;
    if (name.find("mov") != std::string_view::npos) return Family::QuickTime;
    if (name == "avi") return Family::Avi;
    return Family::Other;
}

// Codecs whose packets these demuxers hand on exactly as the index lists them, without
// looking into their bytes (no parser splits, joins or flags them).
bool passedUnparsed(Family family, const AVCodecParameters* par) {
    switch (par->codec_id) {
    case AV_CODEC_ID_MJPEG:
    case AV_CODEC_ID_FFV1:
    case AV_CODEC_ID_DNXHD:
    case AV_CODEC_ID_PRORES:
    case AV_CODEC_ID_HUFFYUV:
    case AV_CODEC_ID_FFVHUFF:
    case AV_CODEC_ID_UTVIDEO:
        return true;
    case AV_CODEC_ID_H264:
    case AV_CODEC_ID_HEVC:
    case AV_CODEC_ID_VP9:
    case AV_CODEC_ID_AV1:
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
    case AV_CODEC_ID_ALAC:
        return family == Family::QuickTime;
    default:
        return false;
    }
}

bool isPcm(const AVCodecParameters* par) {
    return std::string_view(avcodec_get_name(par->codec_id)).starts_with("pcm_");
}

std::string streamName(const AVStream* s) { return avcodec_get_name(s->codecpar->codec_id); }

// Every entry of the stream, checked for a usable position, size and time. Fails with the
// reason the index cannot stand in for the packets.
Result<size_t> checkEntries(const AVStream* s, bool needKey, size_t& firstKey) {
    using R = Result<size_t>;
    const int n = avformat_index_get_entries_count(s);
    if (n <= 0) return R::fail("the container lists no packets of the " + streamName(s) + " stream");
    if (s->nb_frames != n)
        return R::fail("the container's index lists " + std::to_string(n) + " packets of the " + streamName(s) +
                       " stream, its header " + std::to_string(s->nb_frames));
    firstKey = size_t(n);
    for (int i = 0; i < n; ++i) {
        const AVIndexEntry* e = avformat_index_get_entry(const_cast<AVStream*>(s), i);
        if (!e || e->pos < 0 || e->size <= 0 || e->timestamp == AV_NOPTS_VALUE)
            return R::fail("the container's index of the " + streamName(s) + " stream has incomplete entries");
        if ((e->flags & AVINDEX_KEYFRAME) && firstKey == size_t(n)) firstKey = size_t(i);
    }
    if (needKey && firstKey == size_t(n)) return R::fail("the container's index marks no key frame");
    return R::ok(size_t(n));
}

} // namespace

bool ContainerIndexPlan::mayIndex(const AVFormatContext* ctx) {
    const Family family = familyOf(ctx);
    if (family == Family::Other) return false;
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVCodecParameters* par = ctx->streams[i]->codecpar;
        const bool media = par->codec_type == AVMEDIA_TYPE_VIDEO || par->codec_type == AVMEDIA_TYPE_AUDIO;
        if (media && !passedUnparsed(family, par) && !isPcm(par)) return false;
    }
    return true;
}

Result<ContainerIndexPlan> ContainerIndexPlan::make(AVFormatContext* ctx, int video, const std::vector<int>& audio,
                                                    int headPackets, const MovTables* tables) {
    using R = Result<ContainerIndexPlan>;
    const Family family = familyOf(ctx);
    if (family == Family::Other) return R::fail(std::string("the ") + ctx->iformat->name + " container has no index of every packet");
    ContainerIndexPlan plan;
    plan.payloadOffset_ = family == Family::Avi ? 8 : 0;
    plan.listed_.assign(ctx->nb_streams, nullptr);
    plan.count_.assign(ctx->nb_streams, 0);
    plan.met_.assign(ctx->nb_streams, 0);
    plan.mayVouch_.assign(ctx->nb_streams, 0);
    plan.vouched_.assign(ctx->nb_streams, 0);
    plan.needed_.assign(ctx->nb_streams, int(kVouchingPackets));
    plan.shift_.assign(ctx->nb_streams, 0);

    plan.unreadFrom_.assign(ctx->nb_streams, kNone);
    // Takes a stream's index as it is; else says why the file must be read whole.
    auto takeIndex = [&](const AVStream* s, bool isVideo, size_t& firstKey) -> std::string {
        if (!passedUnparsed(family, s->codecpar))
            return "the demuxer reads the " + streamName(s) + " stream's packets from their bytes";
        auto listed = checkEntries(s, isVideo, firstKey);
        if (!listed) return listed.error;
        plan.listed_[size_t(s->index)] = s;
        plan.count_[size_t(s->index)] = listed.value;
        return {};
    };
    if (video >= 0) {
        const AVStream* s = ctx->streams[video];
        size_t firstKey = 0;
        if (std::string why = takeIndex(s, true, firstKey); !why.empty()) return R::fail(why);
        // The first key packet stays real: the order probe may need its bytes.
        plan.unreadFrom_[size_t(video)] = firstKey + 1;
        if (family != Family::QuickTime) plan.videoNote_ = "the container's index gives no presentation times";
        else if (!tables) plan.videoNote_ = "the moov box was not read";
        else plan.videoNote_ = plan.predictVideo(s, *tables, int(firstKey) + headPackets + 1);
    }
    for (int a : audio) {
        const AVStream* s = ctx->streams[a];
        // PCM is read for real: it is small, and its bytes are checked against the file.
        // The demuxer then reads on to the end, so every other payload is left unread.
        if (isPcm(s->codecpar)) {
            plan.toTheEnd_ = true;
            continue;
        }
        size_t firstKey = 0;
        if (std::string why = takeIndex(s, false, firstKey); !why.empty()) return R::fail(why);
        plan.unreadFrom_[size_t(a)] = 0;
        // Sample counts must follow from the sizes alone (not from the packets' durations).
        bool fromSizes = family == Family::QuickTime;
        for (size_t i = 0; i < plan.count_[size_t(a)] && fromSizes; ++i)
            fromSizes = av_get_audio_frame_duration2(s->codecpar, plan.entry(a, i).size) > 0;
        plan.mayVouch_[size_t(a)] = fromSizes;
    }
    if (std::string why = plan.leaveUnread(plan.headEnd()); !why.empty()) return R::fail(why);
    return R::ok(std::move(plan));
}

int64_t ContainerIndexPlan::headEnd() const {
    // Where every stream the index predicts has given its vouching packets, with room to
    // spare; the whole file while some stream passes through the demuxer.
    if (toTheEnd_) return INT64_MAX;
    int64_t end = 0;
    for (size_t s = 0; s < listed_.size(); ++s) {
        if (unreadFrom_[s] == kNone) continue;
        if (!mayVouch_[s]) return INT64_MAX;
        const Payload last = entry(int(s), std::min(2 * size_t(needed_[s]) + 16, count_[s] - 1));
        end = std::max(end, last.pos + last.size + payloadOffset_);
    }
    return end;
}

bool ContainerIndexPlan::widenHollow() {
    if (!stale_ || hollowLimit_ == INT64_MAX) return false;
    if (std::string why = leaveUnread(INT64_MAX); !why.empty() && mismatch_.empty()) mismatch_ = why;
    return true;
}

std::string ContainerIndexPlan::leaveUnread(int64_t limit) {
    // Each stream's payloads in file order (a copy sorted by position where they are not),
    // then merged into one sorted list of ranges, adjoining ones joined.
    hollow_.clear();
    hollowLimit_ = limit;
    struct Cursor {
        int stream = 0;
        size_t at = 0, end = 0;
        std::vector<Payload> sorted; // the stream's entries by position, when out of order
        Payload head;
    };
    std::vector<Cursor> cursors;
    for (size_t s = 0; s < listed_.size(); ++s) {
        if (unreadFrom_[s] == kNone || unreadFrom_[s] >= count_[s]) continue;
        Cursor c{int(s), unreadFrom_[s], count_[s], {}, {}};
        int64_t last = INT64_MIN;
        bool inOrder = true;
        for (size_t i = c.at; i < c.end && inOrder; ++i) {
            const int64_t pos = entry(c.stream, i).pos;
            if (pos >= limit) break;
            inOrder = pos >= last;
            last = pos;
        }
        if (!inOrder) {
            for (size_t i = c.at; i < c.end; ++i) c.sorted.push_back(entry(c.stream, i));
            std::sort(c.sorted.begin(), c.sorted.end(), [](const Payload& a, const Payload& b) { return a.pos < b.pos; });
            c.at = 0;
            c.end = c.sorted.size();
        }
        c.head = c.sorted.empty() ? entry(c.stream, c.at) : c.sorted[0];
        cursors.push_back(std::move(c));
    }
    for (;;) {
        Cursor* best = nullptr;
        for (Cursor& c : cursors)
            if (c.at < c.end && c.head.pos < limit && (!best || c.head.pos < best->head.pos)) best = &c;
        if (!best) return {};
        const int64_t begin = best->head.pos + payloadOffset_;
        const int64_t end = begin + best->head.size;
        if (++best->at < best->end) best->head = best->sorted.empty() ? entry(best->stream, best->at) : best->sorted[best->at];
        if (!hollow_.empty() && begin < hollow_.back().second) return "the container's index lists overlapping packets";
        if (!hollow_.empty() && begin == hollow_.back().second) hollow_.back().second = end;
        else hollow_.emplace_back(begin, end);
    }
}

ContainerIndexPlan::Payload ContainerIndexPlan::entry(int stream, size_t i) const {
    Payload p;
    const AVIndexEntry* e = avformat_index_get_entry(const_cast<AVStream*>(listed_[size_t(stream)]), int(i));
    if (!e) return p; // only when the index changed under the pass, which meet() reports
    p.pos = e->pos;
    p.timestamp = e->timestamp;
    p.size = e->size;
    p.key = (e->flags & AVINDEX_KEYFRAME) != 0;
    p.discard = (e->flags & AVINDEX_DISCARD_FRAME) != 0;
    if (stream == predictedVideo_) p.cts = cts_[i];
    return p;
}

std::string ContainerIndexPlan::predictVideo(const AVStream* s, const MovTables& tables, int needed) {
    auto samples = tables.samples(uint32_t(s->id));
    if (!samples) return samples.error;
    const std::vector<int32_t>& cts = samples.value.compositionOffsets;
    // libavformat leaves a packet's times as the demuxer gives them as long as decode times
    // never go back, except that a codec other than H.264 or HEVC said not to reorder has
    // its dts set to its pts when composition offsets make them differ.
    const AVCodecID codec = s->codecpar->codec_id;
    if (codec != AV_CODEC_ID_H264 && codec != AV_CODEC_ID_HEVC && s->codecpar->video_delay == 0 && !cts.empty())
        return "the video has composition offsets but no reordering delay";
    constexpr int64_t kTimeLimit = int64_t(1) << 60;
    std::vector<int32_t> offsets(count_[size_t(s->index)]);
    int64_t hint = 0;
    int64_t last = INT64_MIN;
    for (size_t i = 0; i < offsets.size(); ++i) {
        const Payload p = entry(s->index, i);
        const int64_t at = samples.value.sampleAt(p.pos, p.size, hint);
        if (at < 0) return "a video packet at byte " + std::to_string(p.pos) + " is not in the track's sample tables";
        if (p.timestamp < last) return "the video's decode times go back";
        if (p.timestamp > kTimeLimit || p.timestamp < -kTimeLimit) return "the video's times are out of range";
        offsets[i] = cts.empty() ? 0 : cts[size_t(at)];
        hint = at + 1;
        last = p.timestamp;
    }
    cts_ = std::move(offsets);
    mayVouch_[size_t(s->index)] = 1;
    predictedVideo_ = s->index;
    needed_[size_t(s->index)] = std::max(needed, int(kVouchingPackets));
    return {};
}

void ContainerIndexPlan::meet(const AVPacket* pkt) {
    const int s = pkt->stream_index;
    if (!mismatch_.empty() || s < 0 || size_t(s) >= listed_.size() || !listed_[size_t(s)]) return;
    size_t& at = met_[size_t(s)];
    if (at >= count_[size_t(s)]) {
        mismatch_ = "stream " + std::to_string(s) + " has more packets than its index lists";
        return;
    }
    if (size_t(avformat_index_get_entries_count(listed_[size_t(s)])) != count_[size_t(s)]) {
        mismatch_ = "the index of stream " + std::to_string(s) + " changed while it was read";
        return;
    }
    const Payload want = entry(s, at++);
    if (pkt->pos != want.pos + payloadOffset_ || pkt->size != want.size)
        mismatch_ = "packet " + std::to_string(at - 1) + " of stream " + std::to_string(s) + " is not where the index puts it";
}

bool ContainerIndexPlan::vouches(const AVPacket* pkt) {
    const int s = pkt->stream_index;
    if (!mismatch_.empty() || s < 0 || size_t(s) >= mayVouch_.size() || !mayVouch_[size_t(s)]) return false;
    const size_t at = met_[size_t(s)] - 1; // meet() has counted this packet
    const Payload want = entry(s, at);
    // libavformat shifts decode times back by its largest negative composition offset;
    // the first packet shows by how much.
    if (s == predictedVideo_ && vouched_[size_t(s)] == 0 && pkt->pts != AV_NOPTS_VALUE && pkt->pts > INT64_MIN / 2 && pkt->pts < INT64_MAX / 2)
        shift_[size_t(s)] = pkt->pts - want.timestamp - want.cts;
    const bool asListed = pkt->pts == want.timestamp + want.cts + shift_[size_t(s)] && pkt->dts == want.timestamp &&
                          bool(pkt->flags & AV_PKT_FLAG_KEY) == want.key &&
                          bool(pkt->flags & AV_PKT_FLAG_DISCARD) == want.discard && (at == 0 || pkt->side_data_elems == 0);
    if (!asListed) {
        mayVouch_[size_t(s)] = 0;
        stale_ = true;
        return false;
    }
    return ++vouched_[size_t(s)] == needed_[size_t(s)] && at + 1 < count_[size_t(s)];
}

void ContainerIndexPlan::listedPacket(int stream, size_t i, AVPacket* pkt) const {
    const Payload p = entry(stream, i);
    pkt->stream_index = stream;
    pkt->dts = p.timestamp;
    pkt->pts = p.timestamp + p.cts + shift_[size_t(stream)];
    pkt->pos = p.pos + payloadOffset_;
    pkt->size = p.size;
    pkt->data = nullptr;
    pkt->flags = (p.key ? AV_PKT_FLAG_KEY : 0) | (p.discard ? AV_PKT_FLAG_DISCARD : 0);
    pkt->duration = 0;
}

std::string ContainerIndexPlan::verdict() const {
    if (!mismatch_.empty()) return mismatch_;
    for (size_t s = 0; s < listed_.size(); ++s) {
        if (listed_[s] && size_t(avformat_index_get_entries_count(listed_[s])) != count_[s])
            return "the index of stream " + std::to_string(s) + " changed while it was read";
        if (met_[s] != count_[s])
            return "stream " + std::to_string(s) + " has " + std::to_string(met_[s]) + " of the " +
                   std::to_string(count_[s]) + " packets its index lists";
    }
    return {};
}

} // namespace ffmpeg_engine
