// The moov reader's view of one track beyond where its samples lie: what the track is
// (handler, time scales, edit list, sample description) and when each sample is decoded
// (stts) and whether it is a sync sample (stss). Every read is bounds-checked.
#include "backends/ffmpeg/FfmpegMovBoxes.h"
#include "backends/ffmpeg/FfmpegMovTables.h"

#include <limits>

namespace ffmpeg_engine {

using namespace mov_boxes;

namespace {

// Offset of a field after the creation and modification times of a versioned box.
size_t afterTimes(Bytes body) { return !body.empty() && body[0] == 1 ? 20 : 12; }

std::string readEdits(Bytes elst, std::vector<MovEdit>& out) {
    if (elst.size() < 8) return "the elst box is truncated";
    const bool wide = elst[0] == 1;
    const uint32_t count = be32(elst.data() + 4);
    const unsigned entryBytes = wide ? 20 : 12;
    if (!holds(elst, 8, count, entryBytes)) return "the elst table runs past its box";
    out.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = elst.data() + 8 + size_t(i) * entryBytes;
        MovEdit edit;
        if (wide) {
            const uint64_t duration = be64(e);
            if (duration > uint64_t(std::numeric_limits<int64_t>::max() / 4)) return "an edit's duration is out of range";
            edit.duration = int64_t(duration);
            edit.mediaTime = int64_t(be64(e + 8));
            edit.rate = int32_t(be32(e + 16));
        } else {
            edit.duration = be32(e);
            edit.mediaTime = int32_t(be32(e + 4));
            edit.rate = int32_t(be32(e + 8));
        }
        if (edit.mediaTime < -1) return "an edit starts at a negative media time";
        out.push_back(edit);
    }
    return {};
}

// The sample description's format, size and extensions (visual descriptions only carry
// the latter two).
std::string readDescription(Bytes stsd, MovTrackInfo& info) {
    if (stsd.size() < 8 || be32(stsd.data() + 4) != 1) return "the track has several sample descriptions";
    Children entries(stsd.subspan(8));
    Bytes entry;
    std::string error;
    if (!entries.next(info.format, entry, error)) return error.empty() ? "the sample description is truncated" : error;
    if (info.handler != fourcc("vide")) return {};
    constexpr size_t kVisualFields = 78; // reserved, reference index, QuickTime's fields, size, depth...
    if (entry.size() < kVisualFields) return "the visual sample description is truncated";
    info.width = uint16_t(entry[24] << 8 | entry[25]);
    info.height = uint16_t(entry[26] << 8 | entry[27]);
    info.depth = uint16_t(entry[74] << 8 | entry[75]);
    Children extensions(entry.subspan(kVisualFields));
    MovTrackInfo::Box box;
    while (extensions.next(box.type, box.body, error)) info.extensions.push_back(box);
    return error;
}

} // namespace

const MovTrackInfo::Box* MovTrackInfo::extension(uint32_t type) const {
    for (const Box& b : extensions)
        if (b.type == type) return &b;
    return nullptr;
}

Result<MovTrackInfo> MovTables::describe(uint32_t trackId) const {
    using R = Result<MovTrackInfo>;
    std::string error;
    const Track* t = track(trackId, error);
    if (!t) return R::fail(error);
    MovTrackInfo info;
    info.ordinal = t->ordinal;
    info.movieTimeScale = movieTimeScale_;
    if (!t->mdhd || !t->hdlr || !t->stsd) return R::fail("the track's description is incomplete");
    const size_t at = afterTimes(*t->mdhd);
    if (t->mdhd->size() < at + 4) return R::fail("the mdhd box is truncated");
    info.timeScale = be32(t->mdhd->data() + at);
    if (t->hdlr->size() < 12) return R::fail("the hdlr box is truncated");
    info.handler = be32(t->hdlr->data() + 8);
    if (t->elst) {
        info.hasEditList = true;
        if (std::string why = readEdits(*t->elst, info.edits); !why.empty()) return R::fail(why);
    }
    if (std::string why = readDescription(*t->stsd, info); !why.empty()) return R::fail(why);
    info.partialSync = t->stps.has_value();
    return R::ok(std::move(info));
}

Result<MovSampleTimes> MovTables::times(uint32_t trackId, size_t samples) const {
    using R = Result<MovSampleTimes>;
    std::string error;
    const Track* t = track(trackId, error);
    if (!t) return R::fail(error);
    if (samples == 0) return R::fail("the track has no samples");
    if (!t->stts || t->stts->size() < 8) return R::fail("the track has no stts table");
    const Bytes stts = *t->stts;
    const uint32_t entries = be32(stts.data() + 4);
    if (!holds(stts, 8, entries, 8)) return R::fail("the stts table runs past its box");
    MovSampleTimes out;
    out.decodeTimes.reserve(samples);
    int64_t dts = 0;
    bool covered = false;
    for (uint32_t i = 0; i < entries; ++i) {
        const uint32_t count = be32(stts.data() + 8 + 8 * size_t(i));
        const uint32_t delta = be32(stts.data() + 12 + 8 * size_t(i));
        if (delta > uint32_t(std::numeric_limits<int32_t>::max())) return R::fail("the stts table has a negative duration");
        out.tableSamples += count;
        out.tableDuration += int64_t(count) * delta;
        if (out.tableDuration > (int64_t(1) << 62)) return R::fail("the stts table's durations are out of range");
        for (uint32_t k = 0; k < count && out.decodeTimes.size() < samples; ++k, dts += delta) out.decodeTimes.push_back(dts);
        if (out.decodeTimes.size() == samples && !covered) {
            out.end = dts;
            covered = true;
        }
    }
    if (!covered) return R::fail("the stts table covers fewer samples than the track holds");

    out.sync.assign(samples, t->stss ? 0 : 1);
    if (t->stss) {
        if (t->stss->size() < 8) return R::fail("the stss box is truncated");
        const uint32_t count = be32(t->stss->data() + 4);
        if (!holds(*t->stss, 8, count, 4)) return R::fail("the stss table runs past its box");
        if (count == 0) return R::fail("the stss table lists no sync sample");
        uint32_t last = 0;
        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t number = be32(t->stss->data() + 8 + 4 * size_t(i));
            if (number <= last) return R::fail("the stss table is out of order or counts from 0");
            if (number > samples) return R::fail("the stss table names a sample the track does not hold");
            out.sync[number - 1] = 1;
            last = number;
        }
    }
    return R::ok(std::move(out));
}

} // namespace ffmpeg_engine
