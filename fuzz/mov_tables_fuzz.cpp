// Fuzz target for the FFmpeg back-end's moov reader: the top-level walk over a file held
// in memory, the parse of its moov box (and of the input itself taken as one), each
// track's samples, description and timing, and the video index built from them. Nothing
// may crash or hang; a refusal says why; what comes out keeps its promises (one size and
// one place per sample, offsets for all or none of them, each sample found again where it
// lies, one decode time and sync flag per sample, frames that name packets of the file).
#include "backends/ffmpeg/FfmpegMovSource.h"
#include "backends/ffmpeg/FfmpegMovTables.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace ffmpeg_engine;

namespace {

void checkVideo(const MovTables& tables, int64_t fileSize) {
    auto v = MovVideoSource::trackOf(tables, fileSize);
    if (!v) {
        if (v.error.empty()) std::abort();
        return;
    }
    const VideoTrack& t = v.value;
    if (t.frames.empty() || t.frames.size() > t.packets.size() || !t.codec) std::abort();
    for (const VideoPacket& p : t.packets)
        if (p.key.pos < 0 || p.key.size < 0 || p.key.pos + p.key.size > fileSize) std::abort();
    for (const VideoFrame& f : t.frames)
        if (f.packet < 0 || size_t(f.packet) >= t.packets.size() || f.startPacket < 0 || f.startPacket > f.packet ||
            t.packets[size_t(f.packet)].discard)
            std::abort();
}

void checkTables(std::shared_ptr<const std::vector<uint8_t>> moov, int64_t fileSize) {
    auto tables = MovTables::parse(std::move(moov));
    if (!tables) {
        if (tables.error.empty()) std::abort();
        return;
    }
    for (size_t t = 0; t < tables.value.trackCount(); ++t) {
        auto s = tables.value.samples(tables.value.trackId(t));
        if (!s) {
            if (s.error.empty()) std::abort();
            continue;
        }
        const MovTrackSamples& x = s.value;
        if (x.sizes.size() != x.offsets.size() || x.offsets.size() > MovTables::kMaxSamples) std::abort();
        if (!x.compositionOffsets.empty() && x.compositionOffsets.size() != x.offsets.size()) std::abort();
        auto info = tables.value.describe(tables.value.trackId(t));
        if (!info && info.error.empty()) std::abort();
        auto times = tables.value.times(tables.value.trackId(t), x.offsets.size());
        if (!times && times.error.empty()) std::abort();
        if (times) {
            const MovSampleTimes& m = times.value;
            if (m.decodeTimes.empty() || m.decodeTimes.size() != x.offsets.size() || m.sync.size() != x.offsets.size())
                std::abort();
            if (!std::is_sorted(m.decodeTimes.begin(), m.decodeTimes.end()) || m.end < m.decodeTimes.back()) std::abort();
        }
        for (size_t i = 0; i < x.offsets.size(); i += 1 + x.offsets.size() / 16) {
            const int64_t at = x.sampleAt(x.offsets[i], x.sizes[i], -1);
            if (at < 0 || x.offsets[size_t(at)] != x.offsets[i] || x.sizes[size_t(at)] != x.sizes[i]) std::abort();
        }
    }
    checkVideo(tables.value, fileSize);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto read = [&](int64_t pos, void* buf, size_t n) {
        if (pos < 0 || uint64_t(pos) > size || n > size - size_t(pos)) return false;
        std::memcpy(buf, data + pos, n);
        return true;
    };
    auto where = MovTables::findMoov(read, int64_t(size));
    if (!where && where.error.empty()) std::abort();
    if (where) {
        if (where.value.first < 0 || where.value.second < 8 || uint64_t(where.value.first + where.value.second) > size)
            std::abort();
        checkTables(std::make_shared<std::vector<uint8_t>>(data + where.value.first,
                                                           data + where.value.first + where.value.second),
                    int64_t(size));
    }
    checkTables(std::make_shared<std::vector<uint8_t>>(data, data + size), int64_t(size));
    return 0;
}
