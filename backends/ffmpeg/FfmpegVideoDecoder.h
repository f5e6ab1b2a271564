// Decoding frames of the indexed video stream by frame number: a seek to the key packet
// the frame's decoding starts from, then decoding forward until exactly that frame comes
// out. The decoder stays where it is between calls, so the next frame in order costs one
// decode, and frames decoded on the way are kept (up to a memory budget) for going back.
#pragma once

#include "backends/ffmpeg/FfmpegDisposable.h"
#include "backends/ffmpeg/FfmpegIndex.h"
#include "backends/ffmpeg/FfmpegPacketCursor.h"

#include <functional>
#include <list>
#include <memory>
#include <unordered_map>

namespace ffmpeg_engine {

struct VideoDecoderOptions {
    // Auto: frame threads for codecs that predict between pictures (sequential decoding
    // of long groups gains most), slice threads for intra-only ones (a single picture is
    // wanted at a time, and frame threads only add delay).
    Threading threading = Threading::Auto;
    int threads = 0; // 0: one per core, at most 16
    // Decoded frames kept for answering again without decoding (stepping back).
    size_t cacheBytes = size_t(96) << 20;
    // When decoding starts or jumps ahead, the packets of pictures before the first one
    // wanted that no other picture refers to (DisposablePictures) are not decoded at all:
    // with B-pyramids about half of a group. Such pictures are then not in the cache; a
    // step back to one decodes the stretch behind it whole (kStepBack).
    bool skipUnneededAfterSeek = true;
};

class FfmpegVideoDecoder {
public:
    static Result<std::unique_ptr<FfmpegVideoDecoder>> open(std::shared_ptr<const MediaIndex> index,
                                                            const VideoDecoderOptions& options = {});
    ~FfmpegVideoDecoder();

    const VideoTrack& track() const { return *track_; }
    int frameCount() const { return track_->frameCount(); }

    // Frame number `frame` (presentation order, from 0) in the decoder's native pixel
    // format: a new reference the caller owns.
    Result<FramePtr> decodeFrame(int frame);

    // Decodes frames first..last and hands each to deliver in order (the picture is valid
    // during the call; take a reference to keep it). Stops early when deliver answers
    // false. A frame that cannot be decoded is skipped; answers the number of frames
    // delivered, and fails only when none could be.
    using Deliver = std::function<bool(int frame, const AVFrame* picture)>;
    Result<int> decodeRange(int first, int last, const Deliver& deliver);

    // Reopens the codec with other threading; the position is lost.
    bool setThreading(Threading threading, int threads, std::string& error);
    Threading threading() const { return resolved_; }
    int threads() const { return threads_; }

    void clearCache();

    struct Stats {
        int64_t picturesDecoded = 0; // pictures that came out of the codec
        int64_t packetsSent = 0;
        int64_t sessions = 0;        // times decoding restarted at a key packet
        int64_t cacheHits = 0;
        int64_t packetsSkipped = 0;  // pictures left undecoded: nobody refers to them
    };
    // decodeFrame takes a frame a little behind the one asked for last, not in the cache,
    // for a step back: the decode from its key packet keeps the frames this far behind it.
    static constexpr int kStepBack = 24;
    const Stats& stats() const { return stats_; }
    const PacketCursor::Stats& cursorStats() const { return cursor_->stats(); }

private:
    FfmpegVideoDecoder() = default;
    bool openCodec(std::string& error);
    // Makes sure the running decode will reach frames first..last intact, restarting at a
    // key packet when it cannot. Pictures before skipFrom may be left out.
    bool prepare(int first, int last, int skipFrom, std::string& error);
    // Starts decoding at packet; pictures before frame skipFrom that nobody refers to are
    // left out (-1: none).
    bool startAt(int packet, int skipFrom, std::string& error);
    // The next frame of ours that comes out of the decoder, intact. Answers its number,
    // -1 when the stream ended (error empty) or failed (error set), or -2 when more than
    // `packetLimit` packets were needed.
    int produce(FramePtr& out, int packetLimit, std::string& error);
    int packetLimitFor(int frame) const;
    // Decodes on until `frame` comes out, keeping frames before it. Null with error empty
    // when it did not come out.
    FramePtr pumpTo(int frame, std::string& error);
    // pumpTo, restarting at earlier key packets when the frame did not come out: some
    // decoders hold a picture back after a seek that they show when decoding from the
    // start (H.264 drops the pictures after a last open-GOP I-frame at the end of the
    // stream), and a key packet may start a recovery period rather than end it.
    FramePtr reach(int frame, std::string& error);

    FramePtr cacheFind(int frame);
    void cacheKeep(int frame, const AVFrame* picture);

    std::shared_ptr<const MediaIndex> index_;
    const VideoTrack* track_ = nullptr;
    VideoDecoderOptions options_;
    std::unique_ptr<PacketCursor> cursor_;
    std::vector<int> keyPackets_; // packets a decode may start at, ascending
    CodecContextPtr codec_;
    PacketPtr packet_;
    std::unique_ptr<DisposablePictures> disposable_;
    Threading resolved_ = Threading::Single;
    int threads_ = 1;

    // The running decode: where it started, the last frame it showed, how it ended.
    int sessionStart_ = -1;
    int lastShown_ = -1;
    int skipBefore_ = -1; // frames before this one may be left undecoded
    int lastAsked_ = -1;  // the frame decodeFrame was asked for last
    bool inputEnded_ = false;
    bool decoderEnded_ = false;

    struct Cached {
        FramePtr picture;
        size_t bytes = 0;
        std::list<int>::iterator age;
    };
    std::unordered_map<int, Cached> cache_;
    std::list<int> cacheAge_; // most recently used first
    size_t cacheBytes_ = 0;

    Stats stats_;
};

} // namespace ffmpeg_engine
