// Reads the packets of one stream of an indexed file, each tagged with its place in the
// MediaIndex, and can be placed before any indexed packet. Seeking in FFmpeg lands near a
// time, not on a packet (one group early in QuickTime files with B-frames, one frame
// early in Y4M, anywhere in MPEG-TS), so after every seek the cursor reads forward and
// recognises packets by position, presentation time and size until it meets the one it
// was asked for; when a seek lands past it, it tries a byte seek and then the start.
// The video of an index built from a QuickTime/MP4 file's sample tables is read without a
// demuxer: each packet straight from the file at its position (FfmpegMovSource.h).
// Each decoder owns its cursor (and with it its own demuxer): not shared between threads.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"

#include <functional>
#include <memory>
#include <vector>

namespace ffmpeg_engine {

class PacketCursor {
public:
    // Keys of the stream's packets in decode order, as the index holds them.
    using KeyAt = std::function<const PacketKey&(int)>;

    static Result<std::unique_ptr<PacketCursor>> open(std::shared_ptr<const MediaIndex> index, int stream,
                                                      int packetCount, KeyAt keyAt);
    ~PacketCursor();
    PacketCursor(const PacketCursor&) = delete;
    PacketCursor& operator=(const PacketCursor&) = delete;

    // Places the cursor so that the next packet read is packet target. Free when the
    // cursor is already there; otherwise a seek and a forward read.
    bool seekTo(int target, std::string& error);
    // The next packet of the stream. Answers 1 with the packet and its index (-1 when it is
    // not one the index knows), 0 at the end, or a negative AVERROR.
    int next(AVPacket* pkt, int& index);
    // The index the next packet is expected to have.
    int position() const { return next_; }

    struct Stats {
        int64_t seeks = 0;          // seekTo calls that needed a seek
        int64_t packetsSkipped = 0; // read after a seek before the target
        int64_t fallbacks = 0;      // seeks that had to be repeated another way
    };
    const Stats& stats() const { return stats_; }

private:
    PacketCursor() = default;
    int identify(const AVPacket* pkt) const;
    bool matches(const AVPacket* pkt, int index) const;
    int readOwn(AVPacket* pkt);
    bool seekByTime(int packet);
    bool seekByByte(int64_t pos);
    // After a seek: reads until target. false when it landed past it or lost its way.
    bool readUpTo(int target);

    std::shared_ptr<const MediaIndex> index_;
    std::unique_ptr<Demuxer> demux_; // null when packets are read by position
    int fd_ = -1;                    // the file, when they are
    int stream_ = -1;
    int count_ = 0;
    KeyAt keyAt_;
    bool seekByPts_ = true;
    std::vector<std::pair<int64_t, int>> byPos_; // sorted (pos, index)
    std::vector<std::pair<int64_t, int>> byPts_; // sorted (pts, index)
    PacketPtr pending_; // the target packet, read while looking for it
    int pendingIndex_ = -1;
    int next_ = 0;
    Stats stats_;
};

} // namespace ffmpeg_engine
