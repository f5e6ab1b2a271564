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
Result<std::vector<ContainerIndexPlan::Payload>> listedPayloads(const AVStream* s, bool needKey) {
    using R = Result<std::vector<ContainerIndexPlan::Payload>>;
    const int n = avformat_index_get_entries_count(s);
    if (n <= 0) return R::fail("the container lists no packets of the " + streamName(s) + " stream");
    if (s->nb_frames != n)
        return R::fail("the container's index lists " + std::to_string(n) + " packets of the " + streamName(s) +
                       " stream, its header " + std::to_string(s->nb_frames));
    std::vector<ContainerIndexPlan::Payload> out;
    out.reserve(size_t(n));
    bool anyKey = false;
    for (int i = 0; i < n; ++i) {
        const AVIndexEntry* e = avformat_index_get_entry(const_cast<AVStream*>(s), i);
        if (!e || e->pos < 0 || e->size <= 0 || e->timestamp == AV_NOPTS_VALUE)
            return R::fail("the container's index of the " + streamName(s) + " stream has incomplete entries");
        anyKey |= (e->flags & AVINDEX_KEYFRAME) != 0;
        out.push_back({.pos = e->pos,
                       .timestamp = e->timestamp,
                       .size = e->size,
                       .key = (e->flags & AVINDEX_KEYFRAME) != 0,
                       .discard = (e->flags & AVINDEX_DISCARD_FRAME) != 0});
    }
    if (needKey && !anyKey) return R::fail("the container's index marks no key frame");
    return R::ok(std::move(out));
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
    plan.expected_.resize(ctx->nb_streams);
    plan.met_.assign(ctx->nb_streams, 0);
    plan.mayVouch_.assign(ctx->nb_streams, 0);
    plan.vouched_.assign(ctx->nb_streams, 0);
    plan.needed_.assign(ctx->nb_streams, int(kVouchingPackets));
    plan.shift_.assign(ctx->nb_streams, 0);

    plan.unreadFrom_.assign(ctx->nb_streams, kNone);
    if (video >= 0) {
        const AVStream* s = ctx->streams[video];
        if (!passedUnparsed(family, s->codecpar))
            return R::fail("the demuxer reads the " + streamName(s) + " stream's packets from their bytes");
        auto listed = listedPayloads(s, true);
        if (!listed) return R::fail(listed.error);
        // The first key packet stays real: the order probe may need its bytes.
        size_t firstKey = 0;
        while (firstKey < listed.value.size() && !listed.value[firstKey].key) ++firstKey;
        plan.expected_[size_t(video)] = std::move(listed.value);
        plan.unreadFrom_[size_t(video)] = firstKey + 1;
        if (family != Family::QuickTime) plan.videoNote_ = "the container's index gives no presentation times";
        else if (!tables) plan.videoNote_ = "the moov box was not read";
        else plan.videoNote_ = plan.predictVideo(s, *tables, int(firstKey) + headPackets + 1);
    }
    for (int a : audio) {
        const AVStream* s = ctx->streams[a];
        // PCM is read for real: it is small, and its bytes are checked against the file.
        if (isPcm(s->codecpar)) continue;
        if (!passedUnparsed(family, s->codecpar))
            return R::fail("the demuxer reads the " + streamName(s) + " stream's packets from their bytes");
        auto listed = listedPayloads(s, false);
        if (!listed) return R::fail(listed.error);
        // Sample counts must follow from the sizes alone (not from the packets' durations).
        bool fromSizes = family == Family::QuickTime;
        for (Payload& p : listed.value) {
            p.samples = av_get_audio_frame_duration2(s->codecpar, p.size);
            fromSizes = fromSizes && p.samples > 0;
        }
        plan.mayVouch_[size_t(a)] = fromSizes;
        plan.expected_[size_t(a)] = std::move(listed.value);
        plan.unreadFrom_[size_t(a)] = 0;
    }
    if (std::string why = plan.leaveUnread(plan.headEnd()); !why.empty()) return R::fail(why);
    return R::ok(std::move(plan));
}

int64_t ContainerIndexPlan::headEnd() const {
    // Where every stream the index predicts has given its vouching packets, with room to
    // spare; the whole file while some stream passes through the demuxer.
    int64_t end = 0;
    for (size_t s = 0; s < expected_.size(); ++s) {
        if (unreadFrom_[s] == kNone) continue;
        if (!mayVouch_[s]) return INT64_MAX;
        const size_t last = std::min(2 * size_t(needed_[s]) + 16, expected_[s].size() - 1);
        end = std::max(end, expected_[s][last].pos + expected_[s][last].size + payloadOffset_);
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
    auto byPos = [](const Payload& a, const Payload& b) { return a.pos < b.pos; };
    std::vector<std::span<const Payload>> streams;
    std::vector<std::vector<Payload>> sorted;
    for (size_t s = 0; s < expected_.size(); ++s) {
        if (unreadFrom_[s] == kNone) continue;
        std::span<const Payload> list = std::span<const Payload>(expected_[s]).subspan(unreadFrom_[s]);
        if (!std::is_sorted(list.begin(), list.end(), byPos)) {
            sorted.emplace_back(list.begin(), list.end());
            std::sort(sorted.back().begin(), sorted.back().end(), byPos);
            list = sorted.back();
        }
        streams.push_back(list);
    }
    std::vector<size_t> at(streams.size(), 0);
    for (;;) {
        size_t best = streams.size();
        for (size_t k = 0; k < streams.size(); ++k)
            if (at[k] < streams[k].size() && streams[k][at[k]].pos < limit &&
                (best == streams.size() || streams[k][at[k]].pos < streams[best][at[best]].pos))
                best = k;
        if (best == streams.size()) return {};
        const Payload& p = streams[best][at[best]++];
        const int64_t begin = p.pos + payloadOffset_;
        if (!hollow_.empty() && begin < hollow_.back().second) return "the container's index lists overlapping packets";
        if (!hollow_.empty() && begin == hollow_.back().second) hollow_.back().second = begin + p.size;
        else hollow_.emplace_back(begin, begin + p.size);
    }
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
    std::vector<Payload>& list = expected_[size_t(s->index)];
    constexpr int64_t kTimeLimit = int64_t(1) << 60;
    int64_t hint = 0;
    int64_t last = INT64_MIN;
    for (Payload& p : list) {
        const int64_t at = samples.value.sampleAt(p.pos, p.size, hint);
        if (at < 0) return "a video packet at byte " + std::to_string(p.pos) + " is not in the track's sample tables";
        if (p.timestamp < last) return "the video's decode times go back";
        if (p.timestamp > kTimeLimit || p.timestamp < -kTimeLimit) return "the video's times are out of range";
        p.cts = cts.empty() ? 0 : cts[size_t(at)];
        hint = at + 1;
        last = p.timestamp;
    }
    mayVouch_[size_t(s->index)] = 1;
    predictedVideo_ = s->index;
    needed_[size_t(s->index)] = std::max(needed, int(kVouchingPackets));
    return {};
}

void ContainerIndexPlan::meet(const AVPacket* pkt) {
    const int s = pkt->stream_index;
    if (!mismatch_.empty() || s < 0 || size_t(s) >= expected_.size() || expected_[size_t(s)].empty()) return;
    const auto& list = expected_[size_t(s)];
    size_t& at = met_[size_t(s)];
    if (at >= list.size()) {
        mismatch_ = "stream " + std::to_string(s) + " has more packets than its index lists";
        return;
    }
    const Payload& want = list[at++];
    if (pkt->pos != want.pos + payloadOffset_ || pkt->size != want.size)
        mismatch_ = "packet " + std::to_string(at - 1) + " of stream " + std::to_string(s) + " is not where the index puts it";
}

bool ContainerIndexPlan::vouches(const AVPacket* pkt) {
    const int s = pkt->stream_index;
    if (!mismatch_.empty() || s < 0 || size_t(s) >= mayVouch_.size() || !mayVouch_[size_t(s)]) return false;
    const size_t at = met_[size_t(s)] - 1; // meet() has counted this packet
    const Payload& want = expected_[size_t(s)][at];
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
    return ++vouched_[size_t(s)] == needed_[size_t(s)] && at + 1 < expected_[size_t(s)].size();
}

void ContainerIndexPlan::listedPacket(int stream, size_t i, AVPacket* pkt) const {
    const Payload& p = expected_[size_t(stream)][i];
    pkt->stream_index = stream;
    pkt->dts = p.timestamp;
    pkt->pts = p.timestamp + p.cts + shift_[size_t(stream)];
    pkt->pos = p.pos + payloadOffset_;
    pkt->size = p.size;
    pkt->data = nullptr;
    pkt->flags = (p.key ? AV_PKT_FLAG_KEY : 0) | (p.discard ? AV_PKT_FLAG_DISCARD : 0);
    const auto& list = expected_[size_t(stream)];
    pkt->duration = i + 1 < list.size() ? list[i + 1].timestamp - p.timestamp : 0;
}

std::string ContainerIndexPlan::verdict() const {
    if (!mismatch_.empty()) return mismatch_;
    for (size_t s = 0; s < expected_.size(); ++s)
        if (met_[s] != expected_[s].size())
            return "stream " + std::to_string(s) + " has " + std::to_string(met_[s]) + " of the " +
                   std::to_string(expected_[s].size()) + " packets its index lists";
    return {};
}

} // namespace ffmpeg_engine
