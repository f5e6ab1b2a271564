// The sample tables of a QuickTime/MP4 file, read from its moov box by a small reader of
// our own. libavformat lists a track's samples as index entries once it has read the
// header (position, size, decode time, key and discard flags, edit lists applied), but
// not their composition offsets (ctts): only its demuxer adds those, packet by packet.
// These tables give each sample's byte position, size and composition offset, so the
// index entries can be completed without demuxing a long file.
//
// Every read is bounds-checked: a box that runs past its parent or the file, a table
// longer than its box, counts that overflow or promise more samples than kMaxSamples are
// refused with a reason (the caller then demuxes as before); nothing is allocated beyond
// what the box's own bytes can hold. Fragmented files (mvex) are refused: their samples
// live in moof boxes after the header.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace ffmpeg_engine {

// Reads n bytes at pos of a file into buf; false when they cannot all be read.
using ReadAt = std::function<bool(int64_t pos, void* buf, size_t n)>;

// The samples of one track, in decode order (the order of its sample tables).
struct MovTrackSamples {
    std::vector<int64_t> offsets;            // byte position of each sample
    std::vector<uint32_t> sizes;             // its size in bytes
    std::vector<int32_t> compositionOffsets; // its ctts offset; empty when the track has no ctts
    // The sample stored at pos with this size; -1 when there is none. hint: the sample
    // expected there (the one after the last found), tried first.
    int64_t sampleAt(int64_t pos, int64_t size, int64_t hint) const;

private:
    friend class MovTables;
    std::vector<uint32_t> byOffset_; // samples sorted by offset, when offsets are not in order
};

class MovTables {
public:
    // Caps that keep a hostile file from asking for large allocations.
    static constexpr int64_t kMaxMoovBytes = int64_t(64) << 20;
    static constexpr uint32_t kMaxSamples = 1u << 24;
    static constexpr int kMaxTopLevelBoxes = 4096;

    // Where the moov box lies among the file's top-level boxes: {position, size}, header
    // included. Reads only the boxes' headers. Fails when the file does not start like a
    // QuickTime/MP4 file or has no complete moov box.
    static Result<std::pair<int64_t, int64_t>> findMoov(const ReadAt& read, int64_t fileSize);

    // Parses a whole moov box (header included). The bytes are shared, not copied: the
    // tables point into them.
    static Result<MovTables> parse(std::shared_ptr<const std::vector<uint8_t>> moov);

    // The samples of the track with this ID (tkhd's track_ID, which libavformat gives as
    // AVStream::id). Fails when the track is missing or its tables are incomplete,
    // inconsistent or of a kind this reader does not follow (several sample descriptions).
    Result<MovTrackSamples> samples(uint32_t trackId) const;

    bool fragmented() const { return fragmented_; }
    size_t trackCount() const { return tracks_.size(); }
    uint32_t trackId(size_t i) const { return tracks_[i].id; }

private:
    using Bytes = std::span<const uint8_t>;
    struct Track {
        uint32_t id = 0;
        std::optional<Bytes> stsd, stsz, stz2, stsc, stco, co64, ctts; // the boxes' bodies
    };
    std::string parseTrak(Bytes body);
    std::string parseStbl(Bytes body, Track& track);

    std::shared_ptr<const std::vector<uint8_t>> moov_;
    std::vector<Track> tracks_;
    bool fragmented_ = false;
};

} // namespace ffmpeg_engine
