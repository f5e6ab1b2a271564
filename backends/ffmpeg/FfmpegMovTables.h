// The sample tables of a QuickTime/MP4 file, read from its moov box by a small reader of
// our own (the tracks' descriptions and timing: FfmpegMovTrack.cpp). libavformat lists a track's samples as index entries once it has read the
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

// One entry of a track's edit list (elst).
struct MovEdit {
    int64_t duration = 0;    // in the movie's time scale (mvhd)
    int64_t mediaTime = 0;   // where it starts in the track's time scale; -1: an empty edit
    int32_t rate = 0x10000;  // 16.16 fixed point
};

// What a track holds and how its times are counted: its handler, time scales, edit list
// and its one sample description.
struct MovTrackInfo {
    int ordinal = 0;             // its place among the moov box's tracks (libavformat's stream index)
    uint32_t handler = 0;        // hdlr's handler type ('vide', 'soun'...)
    uint32_t timeScale = 0;      // mdhd
    uint32_t movieTimeScale = 0; // mvhd
    bool hasEditList = false;
    std::vector<MovEdit> edits;
    uint32_t format = 0; // the sample description's type ('avc1', 'apch'...)
    uint16_t width = 0;  // of a visual sample description
    uint16_t height = 0;
    uint16_t depth = 0;
    struct Box {
        uint32_t type = 0;
        std::span<const uint8_t> body;
    };
    std::vector<Box> extensions; // the boxes inside a visual sample description (avcC, colr...)
    bool partialSync = false;    // the track has a stps table (sync samples besides stss)
    // The extension of this type, if the description has one.
    const Box* extension(uint32_t type) const;
};

// How each sample of a track is timed: its decode time (stts) and whether it is a sync
// sample (stss; all are when the track has no stss).
struct MovSampleTimes {
    std::vector<int64_t> decodeTimes; // per sample, in the track's time scale, from 0
    std::vector<char> sync;           // per sample
    int64_t end = 0;                  // the decode time after the last sample
    // The whole stts table's sum of sample counts and of their durations.
    uint64_t tableSamples = 0;
    int64_t tableDuration = 0;
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

    // The track's description; fails when the track is missing, its description is not
    // one whole box or its edit list, time scale or handler boxes are malformed.
    Result<MovTrackInfo> describe(uint32_t trackId) const;
    // The decode times and sync flags of the track's first `samples` samples; fails when
    // the tables do not cover them, or are damaged (a sync sample out of order or range).
    Result<MovSampleTimes> times(uint32_t trackId, size_t samples) const;

    bool fragmented() const { return fragmented_; }
    size_t trackCount() const { return tracks_.size(); }
    uint32_t trackId(size_t i) const { return tracks_[i].id; }

private:
    using Bytes = std::span<const uint8_t>;
    struct Track {
        uint32_t id = 0;
        int ordinal = 0;
        std::optional<Bytes> stsd, stsz, stz2, stsc, stco, co64, ctts; // the boxes' bodies
        std::optional<Bytes> stts, stss, stps, elst, mdhd, hdlr;
    };
    const Track* track(uint32_t trackId, std::string& error) const;
    std::string parseTrak(Bytes body, int ordinal);
    std::string parseMdia(Bytes body, Track& track);
    std::string parseStbl(Bytes body, Track& track);

    std::shared_ptr<const std::vector<uint8_t>> moov_;
    std::vector<Track> tracks_;
    bool fragmented_ = false;
    uint32_t movieTimeScale_ = 0;
};

} // namespace ffmpeg_engine
