// Indexing a file from the container's own index. Where the container lists every packet
// of a stream with its byte position and size (MP4/MOV sample tables, AVI idx1 and OpenDML
// indexes: what libavformat holds as the stream's index entries once the header is read),
// the payload bytes are never read: those byte ranges are hollow in the FileInput. The
// indexing pass asks the demuxer for the first packets of each stream, so that times,
// flags, edit lists and trimming come out exactly as FFmpeg gives them; once a stream's
// packets have come exactly as the index predicts them, the rest are taken from the index
// without the demuxer. The pass checks that it met exactly the listed packets; anything
// else and the file is read whole after all.
//
// Which streams the index predicts: QuickTime audio whose sample counts follow from the
// packets' sizes, and QuickTime video when the file's own sample tables (FfmpegMovTables.h)
// give each entry its composition offset, which libavformat's entries lack. The other
// streams of an indexed file (AVI, PCM) still pass through the demuxer, payloads unread.
//
// Formats whose index lists only some packets (Matroska cues name clusters and key
// frames), none (MPEG-TS/PS, elementary streams, Ogg; MXF index tables are not exposed
// as index entries), and streams whose packets the demuxer parses from their bytes are
// read whole.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"
#include "backends/ffmpeg/FfmpegMovTables.h"

#include <cstdint>
#include <span>
#include <utility>
#include <vector>

namespace ffmpeg_engine {

class ContainerIndexPlan {
public:
    // Whether a demuxer whose header has been read (before its stream info) may be indexed
    // this way: a container that indexes every packet, holding only streams whose packets
    // need no parser. The stream info and the pass must then run without parsers
    // (AVFMT_FLAG_NOPARSE): a parser would look into bytes that are not read.
    static bool mayIndex(const AVFormatContext* ctx);

    struct Payload {
        int64_t pos = 0;
        int64_t timestamp = 0;
        int32_t size = 0;
        int32_t cts = 0; // video: composition offset; pts is timestamp + cts + the stream's shift
        bool key = false;
        bool discard = false;
    };
    // Audio packets of a stream the demuxer has shown to give exactly as the index lists
    // them before the rest are taken from the index.
    static constexpr size_t kVouchingPackets = 8;

    // The plan for a demuxer whose header (and stream info) has been read: the streams in
    // use are video (-1 for none) and audio. The first key packet of the video stream
    // stays real; the video is taken from the index only after the demuxer has given
    // headPackets packets after it (the head a probe may decode) as predicted. tables: the
    // file's moov tables, when they were read. Fails with the reason when the file must be
    // read whole. (Packets the stream-info probe already read come with their bytes all
    // the same.)
    static Result<ContainerIndexPlan> make(AVFormatContext* ctx, int video, const std::vector<int>& audio,
                                           int headPackets, const MovTables* tables);
    // Why the video stream's packets all go through the demuxer although the container
    // indexes them; empty when the index predicts them.
    const std::string& videoNote() const { return videoNote_; }

    // The byte ranges left unread, sorted and merged. While every stream is predicted,
    // they reach only a little past the head the demuxer gives.
    const std::vector<std::pair<int64_t, int64_t>>& hollow() const { return hollow_; }
    // After a stream stopped vouching (its packets now all pass through the demuxer): the
    // ranges are widened to the whole file; true when they changed.
    bool widenHollow();

    // Checks a packet of the pass against the index, in the order the demuxer gives them.
    void meet(const AVPacket* pkt);
    // Empty when the pass met every listed packet and nothing else; else what went wrong.
    std::string verdict() const;

    // A stream the index predicts depends on the index alone: once the demuxer has given
    // its first packets (kVouchingPackets of audio, the head of video) exactly as their
    // entries say (times, flags, no side data after the first), the rest need not come
    // through the demuxer. Called with each packet after meet(); true when pkt was the last
    // one needed: the stream may then be discarded in the demuxer and its remaining
    // packets taken with listedPacket().
    bool vouches(const AVPacket* pkt);
    // The stream's listed packet i as the demuxer gives it, without payload or duration
    // (the sizes of the audio the index predicts give their sample counts).
    void listedPacket(int stream, size_t i, AVPacket* pkt) const;
    size_t listedCount(int stream) const { return count_[size_t(stream)]; }
    // Counts the stream's packets from the demuxer's last one on as met: they were taken
    // with listedPacket().
    void metAll(int stream) { met_[size_t(stream)] = count_[size_t(stream)]; }

private:
    // Entry i of the stream's index, read from libavformat's own (not copied: a long file
    // has many).
    Payload entry(int stream, size_t i) const;
    // Gives each entry of the video stream its composition offset from the file's tables
    // and lets the stream vouch after needed packets; else says why not.
    std::string predictVideo(const AVStream* s, const MovTables& tables, int needed);
    // Sets hollow_ to the unread payloads before limit; fails when two overlap.
    std::string leaveUnread(int64_t limit);
    int64_t headEnd() const;

    static constexpr size_t kNone = SIZE_MAX;

    std::vector<std::pair<int64_t, int64_t>> hollow_;
    std::vector<const AVStream*> listed_; // per stream of the file: its index; null: not checked
    std::vector<size_t> count_;           // per stream: entries in its index
    std::vector<int32_t> cts_;            // per entry of the predicted video: its composition offset
    std::vector<size_t> met_;
    std::vector<char> mayVouch_; // per stream: audio whose packets depend on the index alone
    std::vector<int> vouched_;   // per stream: the first packets that came as listed
    std::vector<int> needed_;    // per stream: packets to come as listed before it vouches
    std::vector<int64_t> shift_; // per stream: pts less timestamp and cts (libavformat's dts shift)
    std::vector<size_t> unreadFrom_; // per stream: its first entry left unread; kNone: read all
    int64_t hollowLimit_ = INT64_MAX; // hollow_ covers the payloads before this position
    bool stale_ = false;              // a stream stopped vouching: hollow_ may be too short
    bool toTheEnd_ = false;           // a stream in use always passes through the demuxer
    int predictedVideo_ = -1;    // the video stream predictVideo() accepted
    std::string videoNote_;
    int payloadOffset_ = 0; // bytes between an entry's position and its payload (AVI: 8)
    std::string mismatch_;
};

} // namespace ffmpeg_engine
