// The frames of a video track from its packets: their presentation order, the pictures
// shown ahead of the first key packet, and the key packet each frame decodes from.
#include "backends/ffmpeg/FfmpegVideoOrder.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace ffmpeg_engine {

namespace {

// Sorts items that are nearly in order already (pictures in decode order, which
// reordering moves by a few places) by a strict total order: by insertion while that
// stays cheap, else by a full sort.
template <class Less> void sortNearlySorted(std::vector<int>& items, Less less) {
    const size_t budget = 16 * items.size() + 64;
    size_t moves = 0;
    for (size_t i = 1; i < items.size(); ++i) {
        const int x = items[i];
        size_t j = i;
        for (; j > 0 && less(x, items[j - 1]) && moves < budget; --j, ++moves) items[j] = items[j - 1];
        items[j] = x;
        if (moves >= budget) {
            std::sort(items.begin(), items.end(), less);
            return;
        }
    }
}

// The key packet each frame's decoding starts from, per packet.
std::vector<int32_t> startPackets(const VideoTrack& v, const PacketOrder& o, int firstKey, bool fromStartOnly) {
    const int n = int(v.packets.size());
    std::vector<int32_t> start(size_t(n), 0);
    std::vector<int> keys;
    keys.reserve(size_t(n) / 8);
    for (int d = 0; d < n; ++d) {
        const VideoPacket& p = v.packets[size_t(d)];
        if (d >= firstKey && (p.keyFrame || d == firstKey)) keys.push_back(d);
        if (!o.included[size_t(d)] || !o.certain[size_t(d)] || keys.empty() || fromStartOnly) continue;
        auto it = keys.rbegin();
        while (it != keys.rend() && o.order[size_t(*it)] > o.order[size_t(d)]) ++it;
        start[size_t(d)] = it == keys.rend() ? 0 : *it;
    }
    return start;
}

} // namespace

bool orderByTimes(const VideoTrack& v, int firstKey, PacketOrder& o) {
    const size_t n = v.packets.size();
    o.order.assign(n, 0);
    o.included.assign(n, 0);
    o.certain.assign(n, 0);
    int64_t last = 0;
    for (size_t d = 0; d < n; ++d) {
        const PacketKey& k = v.packets[d].key;
        const int64_t t = k.pts != AV_NOPTS_VALUE ? k.pts : k.dts != AV_NOPTS_VALUE ? k.dts : last + 1;
        o.order[d] = last = t;
    }
    bool needProbe = false;
    for (size_t d = 0; d < n; ++d) {
        const VideoPacket& p = v.packets[d];
        o.certain[d] = int(d) >= firstKey && o.order[d] >= o.order[size_t(firstKey)];
        o.included[d] = !p.discard && o.certain[d];
        needProbe |= !p.discard && !o.certain[d];
    }
    return needProbe;
}

void orderByOutputs(const std::vector<int>& outputs, size_t packets, PacketOrder& o) {
    o.order.assign(packets, INT64_MAX);
    o.included.assign(packets, 0);
    o.certain.assign(packets, 0);
    for (size_t rank = 0; rank < outputs.size(); ++rank) {
        const int d = outputs[rank];
        if (d >= 0 && size_t(d) < packets && o.order[size_t(d)] == INT64_MAX) {
            o.order[size_t(d)] = int64_t(rank);
            o.included[size_t(d)] = o.certain[size_t(d)] = 1;
        }
    }
}

void includeProbed(const VideoTrack& v, const std::vector<PacketPtr>& head, PacketOrder& o) {
    OrderProbe probe;
    if (!probe.open(v.codec.get())) return;
    for (size_t d = 0; d < head.size(); ++d) probe.feed(head[d].get(), int(d));
    probe.finish();
    for (int d : probe.outputs)
        if (d >= 0 && size_t(d) < v.packets.size() && !v.packets[size_t(d)].discard) o.included[size_t(d)] = 1;
}

bool hasPackedBFrames(const AVCodecParameters* par, const std::vector<PacketPtr>& head) {
    if (par->codec_id != AV_CODEC_ID_MPEG4) return false;
    static constexpr char kTag[] = "DivX";
    for (size_t i = 0; i < head.size() && i < 8; ++i) {
        const uint8_t* data = head[i]->data;
        const int size = head[i]->size;
        for (int at = 0; at + 4 < size; ++at) {
            if (std::memcmp(data + at, kTag, 4) != 0) continue;
            int k = at + 4;
            while (k < size && (std::isdigit(data[k]) || data[k] == 'b')) ++k;
            if (k < size && data[k] == 'p') return true;
        }
    }
    return false;
}

bool buildFrames(VideoTrack& v, const PacketOrder& o, int firstKey, bool fromStartOnly) {
    const int n = int(v.packets.size());
    const std::vector<int32_t> start = startPackets(v, o, firstKey, fromStartOnly);
    std::vector<int> shown;
    shown.reserve(size_t(n));
    for (int d = 0; d < n; ++d)
        if (o.included[size_t(d)]) shown.push_back(d);
    sortNearlySorted(shown, [&](int a, int b) {
        return o.order[size_t(a)] < o.order[size_t(b)] || (o.order[size_t(a)] == o.order[size_t(b)] && a < b);
    });
    v.frames.clear();
    v.frames.reserve(shown.size());
    for (int d : shown) {
        VideoPacket& p = v.packets[size_t(d)];
        p.frame = int32_t(v.frames.size());
        VideoFrame f;
        f.pts = p.key.pts != AV_NOPTS_VALUE && !v.orderFromDecoder ? p.key.pts : o.order[size_t(d)];
        f.packet = d;
        f.startPacket = start[size_t(d)];
        v.frames.push_back(f);
    }
    v.groupFirst.resize(v.frames.size());
    v.allFramesKey = !v.frames.empty();
    for (size_t i = 0; i < v.frames.size(); ++i) {
        const bool same = i > 0 && v.frames[i].startPacket == v.frames[i - 1].startPacket;
        v.groupFirst[i] = same ? v.groupFirst[i - 1] : int32_t(i);
        v.allFramesKey &= v.frames[i].isKey();
    }
    return !v.frames.empty();
}

bool OrderProbe::open(const AVCodecParameters* par) {
    auto r = openDecoder(par, Threading::Single, 1);
    if (!r) return false;
    ctx_ = std::move(r.value);
    frame_ = newFrame();
    return frame_ != nullptr;
}

void OrderProbe::feed(AVPacket* pkt, int decodeIndex) {
    pkt->pts = decodeIndex;
    pkt->dts = AV_NOPTS_VALUE;
    for (int tries = 0; tries < 2; ++tries) {
        int rc = avcodec_send_packet(ctx_.get(), pkt);
        receive();
        if (rc != AVERROR(EAGAIN)) break;
    }
}

void OrderProbe::finish() {
    avcodec_send_packet(ctx_.get(), nullptr);
    receive();
}

void OrderProbe::receive() {
    while (avcodec_receive_frame(ctx_.get(), frame_.get()) >= 0) {
        if (frame_->pts != AV_NOPTS_VALUE) outputs.push_back(int(frame_->pts));
        av_frame_unref(frame_.get());
    }
}

} // namespace ffmpeg_engine
