// The few functions of the index itself: a packet's fingerprint and a frame's group.
#include "backends/ffmpeg/FfmpegIndex.h"

#include <algorithm>

namespace ffmpeg_engine {

uint32_t packetDigest(const AVPacket* pkt) {
    uint32_t h = 2166136261u;
    auto mix = [&](const uint8_t* p, int n) {
        for (int i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
    };
    if (!pkt->data || pkt->size <= 0) return h;
    const int head = std::min(pkt->size, 32);
    mix(pkt->data, head);
    const int tail = std::min(pkt->size - head, 32);
    mix(pkt->data + pkt->size - tail, tail);
    return h;
}

std::pair<int, int> VideoTrack::groupOf(int frame) const {
    const int first = groupFirst[size_t(frame)];
    int last = frame;
    while (last + 1 < frameCount() && groupFirst[size_t(last + 1)] == first) ++last;
    return {first, last};
}
} // namespace ffmpeg_engine
