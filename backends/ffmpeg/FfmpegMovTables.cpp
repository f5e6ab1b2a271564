// Reading a QuickTime/MP4 file's moov box: the top-level walk, the box tree down to each
// track's sample tables, and their expansion into one entry per sample.
#include "backends/ffmpeg/FfmpegMovTables.h"

#include "backends/ffmpeg/FfmpegMovBoxes.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace ffmpeg_engine {

using namespace mov_boxes;

namespace {

bool mayStartFile(uint32_t type) {
    for (uint32_t t : {fourcc("ftyp"), fourcc("moov"), fourcc("mdat"), fourcc("free"), fourcc("skip"), fourcc("wide"),
                       fourcc("pnot"), fourcc("uuid")})
        if (type == t) return true;
    return false;
}

// Stores a table box's body in slot, refusing a second box of the same kind.
std::string keep(std::optional<Bytes>& slot, Bytes body, const char* name) {
    if (slot) return std::string("a track has two ") + name + " boxes";
    slot = body;
    return {};
}

// The sizes of a track's samples, from stsz (a common size, or one 32-bit entry each) or
// stz2 (4, 8 or 16 bits each).
struct SampleSizes {
    uint32_t count = 0;
    uint32_t common = 0;
    const uint8_t* table = nullptr;
    unsigned bits = 32;
    uint32_t operator[](uint32_t i) const {
        if (common) return common;
        switch (bits) {
        case 4: return (table[i / 2] >> (i % 2 ? 0 : 4)) & 0x0F;
        case 8: return table[i];
        case 16: return uint32_t(table[2 * size_t(i)]) << 8 | table[2 * size_t(i) + 1];
        default: return be32(table + 4 * size_t(i));
        }
    }
};

Result<SampleSizes> readSizes(const std::optional<Bytes>& stsz, const std::optional<Bytes>& stz2) {
    using R = Result<SampleSizes>;
    SampleSizes s;
    if (stsz) {
        if (stsz->size() < 12) return R::fail("the stsz box is truncated");
        s.common = be32(stsz->data() + 4);
        s.count = be32(stsz->data() + 8);
        s.table = stsz->data() + 12;
        if (!s.common && !holds(*stsz, 12, s.count, 4)) return R::fail("the stsz table runs past its box");
    } else {
        if (stz2->size() < 12) return R::fail("the stz2 box is truncated");
        s.bits = (*stz2)[7];
        s.count = be32(stz2->data() + 8);
        s.table = stz2->data() + 12;
        if (s.bits != 4 && s.bits != 8 && s.bits != 16) return R::fail("the stz2 box has an unknown field size");
        if ((uint64_t(s.count) * s.bits + 7) / 8 > stz2->size() - 12) return R::fail("the stz2 table runs past its box");
    }
    if (s.count == 0) return R::fail("the track has no samples");
    if (s.count > MovTables::kMaxSamples) return R::fail("the track has more samples than this reader takes");
    return R::ok(s);
}

// The sample-to-chunk runs, checked: they start at chunk 1, in increasing chunks, each
// with samples, all of the one sample description.
Result<Bytes> readRuns(Bytes stsc) {
    using R = Result<Bytes>;
    if (stsc.size() < 8) return R::fail("the stsc box is truncated");
    const uint32_t runs = be32(stsc.data() + 4);
    if (runs == 0 || !holds(stsc, 8, runs, 12)) return R::fail("the stsc table is empty or runs past its box");
    Bytes table = stsc.subspan(8, size_t(runs) * 12);
    for (uint32_t r = 0; r < runs; ++r) {
        const uint8_t* e = table.data() + 12 * size_t(r);
        const bool ordered = r == 0 ? be32(e) == 1 : be32(e) > be32(e - 12);
        if (!ordered || be32(e + 4) == 0 || be32(e + 8) != 1)
            return R::fail("the stsc table is irregular (chunk order, empty chunks or several descriptions)");
    }
    return R::ok(table);
}

// Each sample's composition offset, as libavformat reads them: entries counted as signed
// numbers (those of no samples are skipped), offsets signed whatever the box version.
std::string readCompositionOffsets(Bytes ctts, size_t samples, std::vector<int32_t>& out) {
    if (ctts.size() < 8) return "the ctts box is truncated";
    const uint32_t entries = be32(ctts.data() + 4);
    if (!holds(ctts, 8, entries, 8)) return "the ctts table runs past its box";
    out.reserve(samples);
    for (uint32_t i = 0; i < entries && out.size() < samples; ++i) {
        const uint8_t* e = ctts.data() + 8 + 8 * size_t(i);
        const auto count = int32_t(be32(e));
        const auto offset = int32_t(be32(e + 4));
        // libavformat drops the whole table over an offset this large (except in the last
        // two entries); its packets then have no composition offsets.
        if (std::llabs(int64_t(offset)) > (int64_t(1) << 28) && uint64_t(i) + 2 < entries)
            return "the ctts table has offsets out of range";
        if (count <= 0) continue;
        out.insert(out.end(), std::min<size_t>(size_t(count), samples - out.size()), offset);
    }
    if (out.size() < samples) return "the ctts table covers fewer samples than the track holds";
    return {};
}

} // namespace

int64_t MovTrackSamples::sampleAt(int64_t pos, int64_t size, int64_t hint) const {
    const auto n = int64_t(offsets.size());
    if (hint >= 0 && hint < n && offsets[size_t(hint)] == pos && sizes[size_t(hint)] == size) return hint;
    if (byOffset_.empty()) {
        for (auto it = std::lower_bound(offsets.begin(), offsets.end(), pos); it != offsets.end() && *it == pos; ++it)
            if (sizes[size_t(it - offsets.begin())] == size) return it - offsets.begin();
        return -1;
    }
    auto it = std::lower_bound(byOffset_.begin(), byOffset_.end(), pos,
                               [&](uint32_t s, int64_t p) { return offsets[s] < p; });
    for (; it != byOffset_.end() && offsets[*it] == pos; ++it)
        if (sizes[*it] == size) return *it;
    return -1;
}

Result<std::pair<int64_t, int64_t>> MovTables::findMoov(const ReadAt& read, int64_t fileSize) {
    using R = Result<std::pair<int64_t, int64_t>>;
    int64_t pos = 0;
    for (int boxes = 0; fileSize - pos >= 8; ++boxes) {
        if (boxes == kMaxTopLevelBoxes) return R::fail("too many top-level boxes before the moov box");
        uint8_t bytes[16];
        const size_t n = size_t(std::min<int64_t>(16, fileSize - pos));
        if (!read(pos, bytes, n)) return R::fail("cannot read the file's boxes");
        Header h;
        if (!readHeader(Bytes(bytes, n), h)) return R::fail("a top-level box has a malformed header");
        if (boxes == 0 && !mayStartFile(h.type)) return R::fail("not a QuickTime/MP4 file");
        const uint64_t size = h.size == 0 ? uint64_t(fileSize - pos) : h.size;
        if (size > uint64_t(fileSize - pos)) return R::fail("a top-level box runs past the end of the file");
        if (h.type == fourcc("moov")) {
            if (int64_t(size) > kMaxMoovBytes) return R::fail("the moov box is larger than this reader takes");
            return R::ok({pos, int64_t(size)});
        }
        if (h.type == fourcc("moof")) return R::fail("the file is fragmented");
        pos += int64_t(size);
    }
    return R::fail("the file has no moov box");
}

Result<MovTables> MovTables::parse(std::shared_ptr<const std::vector<uint8_t>> moov) {
    using R = Result<MovTables>;
    if (!moov) return R::fail("no moov box");
    const Bytes all(moov->data(), moov->size());
    Header h;
    if (!readHeader(all, h) || h.type != fourcc("moov") || (h.size != 0 && h.size != all.size()))
        return R::fail("not a whole moov box");
    MovTables tables;
    tables.moov_ = std::move(moov);
    Children children(all.subspan(h.length));
    uint32_t type = 0;
    Bytes body;
    std::string error;
    int traks = 0;
    while (children.next(type, body, error)) {
        if (type == fourcc("mvex")) tables.fragmented_ = true;
        if (type == fourcc("mvhd")) {
            const size_t at = !body.empty() && body[0] == 1 ? 20 : 12; // after the times of version 1 or 0
            if (body.size() < at + 4) return R::fail("the mvhd box is truncated");
            tables.movieTimeScale_ = be32(body.data() + at);
        }
        if (type != fourcc("trak")) continue;
        if (std::string why = tables.parseTrak(body, traks++); !why.empty()) return R::fail(why);
    }
    if (!error.empty()) return R::fail(error);
    return R::ok(std::move(tables));
}

std::string MovTables::parseTrak(Bytes trak, int ordinal) {
    Track track;
    track.ordinal = ordinal;
    bool hasId = false;
    Children children(trak);
    uint32_t type = 0;
    Bytes body;
    std::string error;
    while (children.next(type, body, error)) {
        if (type == fourcc("tkhd")) {
            const size_t at = !body.empty() && body[0] == 1 ? 20 : 12; // after the times of version 1 or 0
            if (body.size() < at + 4) return "a tkhd box is truncated";
            track.id = be32(body.data() + at);
            hasId = true;
        } else if (type == fourcc("mdia")) {
            if (std::string why = parseMdia(body, track); !why.empty()) return why;
        } else if (type == fourcc("edts")) {
            Children edits(body);
            Bytes elst;
            while (edits.next(type, elst, error))
                if (type == fourcc("elst"))
                    if (std::string why = keep(track.elst, elst, "elst"); !why.empty()) return why;
        }
        if (!error.empty()) return error;
    }
    if (!error.empty()) return error;
    if (hasId) tracks_.push_back(track);
    return {};
}

std::string MovTables::parseMdia(Bytes mdia, Track& track) {
    Children media(mdia);
    uint32_t type = 0;
    Bytes inner;
    std::string error;
    while (media.next(type, inner, error)) {
        std::string why;
        if (type == fourcc("mdhd")) why = keep(track.mdhd, inner, "mdhd");
        if (type == fourcc("hdlr")) why = keep(track.hdlr, inner, "hdlr");
        if (!why.empty()) return why;
        if (type != fourcc("minf")) continue;
        Children info(inner);
        Bytes stbl;
        while (info.next(type, stbl, error))
            if (type == fourcc("stbl"))
                if (std::string why = parseStbl(stbl, track); !why.empty()) return why;
    }
    return error;
}

std::string MovTables::parseStbl(Bytes stbl, Track& track) {
    Children children(stbl);
    uint32_t type = 0;
    Bytes body;
    std::string error;
    while (children.next(type, body, error)) {
        std::string why;
        switch (type) {
        case fourcc("stsd"): why = keep(track.stsd, body, "stsd"); break;
        case fourcc("stsz"): why = keep(track.stsz, body, "stsz"); break;
        case fourcc("stz2"): why = keep(track.stz2, body, "stz2"); break;
        case fourcc("stsc"): why = keep(track.stsc, body, "stsc"); break;
        case fourcc("stco"): why = keep(track.stco, body, "stco"); break;
        case fourcc("co64"): why = keep(track.co64, body, "co64"); break;
        case fourcc("ctts"): why = keep(track.ctts, body, "ctts"); break;
        case fourcc("stts"): why = keep(track.stts, body, "stts"); break;
        case fourcc("stss"): why = keep(track.stss, body, "stss"); break;
        case fourcc("stps"): why = keep(track.stps, body, "stps"); break;
        default: break;
        }
        if (!why.empty()) return why;
    }
    return error;
}

const MovTables::Track* MovTables::track(uint32_t trackId, std::string& error) const {
    const Track* found = nullptr;
    for (const Track& t : tracks_) {
        if (t.id != trackId) continue;
        if (found) {
            error = "two tracks have the ID " + std::to_string(trackId);
            return nullptr;
        }
        found = &t;
    }
    if (!found) error = "the moov box has no track " + std::to_string(trackId);
    return found;
}

Result<MovTrackSamples> MovTables::samples(uint32_t trackId) const {
    using R = Result<MovTrackSamples>;
    std::string error;
    const Track* track = this->track(trackId, error);
    if (!track) return R::fail(error);
    const Track& t = *track;
    if (!t.stsd || !t.stsc || t.stco.has_value() == t.co64.has_value() || t.stsz.has_value() == t.stz2.has_value())
        return R::fail("the track's sample tables are incomplete");
    if (t.stsd->size() < 8 || be32(t.stsd->data() + 4) != 1) return R::fail("the track has several sample descriptions");
    auto sizes = readSizes(t.stsz, t.stz2);
    if (!sizes) return R::fail(sizes.error);
    auto runs = readRuns(*t.stsc);
    if (!runs) return R::fail(runs.error);
    const Bytes chunks = t.stco ? *t.stco : *t.co64;
    const unsigned offsetBytes = t.stco ? 4 : 8;
    if (chunks.size() < 8) return R::fail("the chunk offset box is truncated");
    const uint32_t chunkCount = be32(chunks.data() + 4);
    if (!holds(chunks, 8, chunkCount, offsetBytes)) return R::fail("the chunk offset table runs past its box");

    // Chunk by chunk, each run's samples per chunk, until every sample has its place.
    MovTrackSamples out;
    const uint32_t n = sizes.value.count;
    out.offsets.reserve(n);
    out.sizes.reserve(n);
    const size_t runCount = runs.value.size() / 12;
    size_t run = 0;
    for (uint32_t c = 0; c < chunkCount && out.offsets.size() < n; ++c) {
        while (run + 1 < runCount && uint64_t(c) + 1 >= be32(runs.value.data() + 12 * (run + 1))) ++run;
        const uint32_t perChunk = be32(runs.value.data() + 12 * run + 4);
        const uint8_t* entry = chunks.data() + 8 + size_t(c) * offsetBytes;
        const uint64_t chunkPos = offsetBytes == 4 ? be32(entry) : be64(entry);
        if (chunkPos > uint64_t(std::numeric_limits<int64_t>::max() / 2)) return R::fail("a chunk offset is out of range");
        auto pos = int64_t(chunkPos);
        for (uint32_t j = 0; j < perChunk && out.offsets.size() < n; ++j) {
            const uint32_t size = sizes.value[uint32_t(out.offsets.size())];
            out.offsets.push_back(pos);
            out.sizes.push_back(size);
            pos += size; // at most 2^24 samples of under 2^32 bytes: no overflow from 2^62
        }
    }
    if (t.ctts)
        if (std::string why = readCompositionOffsets(*t.ctts, out.offsets.size(), out.compositionOffsets); !why.empty())
            return R::fail(why);
    if (!std::is_sorted(out.offsets.begin(), out.offsets.end())) {
        out.byOffset_.resize(out.offsets.size());
        for (uint32_t i = 0; i < out.byOffset_.size(); ++i) out.byOffset_[i] = i;
        std::stable_sort(out.byOffset_.begin(), out.byOffset_.end(),
                         [&](uint32_t a, uint32_t b) { return out.offsets[a] < out.offsets[b]; });
    }
    return R::ok(std::move(out));
}

} // namespace ffmpeg_engine
