// The state of one indexing pass of FfmpegSource::open, shared by the files that
// implement it: FfmpegSource.cpp (streams, the packet pass, the video's frames) and
// FfmpegSourceAudio.cpp (each audio packet's place in the decoded sample stream).
#pragma once

#include "backends/ffmpeg/FfmpegContainerIndex.h"
#include "backends/ffmpeg/FfmpegFileInput.h"
#include "backends/ffmpeg/FfmpegSource.h"

extern "C" {
#include <libavcodec/vorbis_parser.h>
}

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ffmpeg_engine {

// Packets after the first key packet kept in memory for the head probe (FfmpegVideoOrder.h).
constexpr int kHeadLookahead = 48;

// The demuxer's input for path: none for media held in memory (the demuxer reads it from
// there), else a FileInput.
Result<std::unique_ptr<FileInput>> openInput(const std::string& path);

class FfmpegSource::Scan {
public:
    // rescanReason: why an earlier pass over the container's index was given up, if it was.
    // tablesNote: why the file's sample tables could not stand in for the pass, if they were tried.
    Scan(Options options, std::string rescanReason, std::string tablesNote)
        : options_(options), rescanReason_(std::move(rescanReason)), tablesNote_(std::move(tablesNote)) {}
    ~Scan() {
        if (fd_ >= 0) ::close(fd_);
    }
    Result<std::shared_ptr<const MediaIndex>> run(const std::string& path);
    // After a failed run: the container's index misled the pass, so read the whole file.
    const std::string& rescanReason() const { return rescanReason_; }

private:
    using R = Result<std::shared_ptr<const MediaIndex>>;

    bool chooseStreams(std::string& error);
    void planPass();
    void readPackets();
    void addVideoPacket(AVPacket* pkt, bool hollow);
    void addAudioPacket(AudioTrack& track, AVPacket* pkt, bool hollow);
    void checkPcmBytes(AudioTrack& track, const AVPacket* pkt);
    bool finishVideo();
    bool readHollowHead();
    std::vector<int> decodeOrderOfWholeStream();
    void finishAudio(AudioTrack& track, size_t slot);

    const Options options_;
    std::string rescanReason_;
    const std::string tablesNote_;
    std::string path_;
    std::unique_ptr<Demuxer> demux_;
    FileInput* input_ = nullptr; // demux_'s
    std::optional<ContainerIndexPlan> plan_; // set when the pass leaves payloads unread
    std::optional<MovTables> movTables_; // a QuickTime/MP4 file's sample tables, when read
    std::string movError_; // why they were not, when they were not
    bool tablesAllowed_ = false; // the container may be indexed from its tables (no parsers)
    bool headUnread_ = false; // the head probe needed packets that could not be read
    std::vector<int> fromIndex_; // streams whose later packets came from the index
    int systemCause_ = 0; // errno of a system failure after the first pass (no descriptor...)
    std::shared_ptr<MediaIndex> index_ = std::make_shared<MediaIndex>();
    std::vector<int> audioSlot_; // per stream of the file: its place in index_->audio, or -1
    std::vector<bool> pcmUsable_; // per audio track: PCM whose bytes seen in the file match the packets
    std::vector<int64_t> pcmRunEnd_;
    // Vorbis packets vary in length with the block sizes on either side of them; FFmpeg's
    // Vorbis parser knows them from the stream's setup header.
    struct VorbisParserFree {
        void operator()(AVVorbisParseContext* p) const { av_vorbis_parse_free(&p); }
    };
    std::vector<std::unique_ptr<AVVorbisParseContext, VorbisParserFree>> vorbis_;
    int fd_ = -1;

    // The first packets of the video stream, kept for the head probe.
    std::vector<PacketPtr> head_;
    std::vector<char> headHollow_; // per packet of head_: its bytes were not read (yet)
    size_t headBytes_ = 0;
    int firstKey_ = -1;
};

} // namespace ffmpeg_engine
