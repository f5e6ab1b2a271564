// Samples of one audio stream by sample position, where position 0 is the first sample
// FFmpeg itself outputs when it decodes the stream from its start (priming and encoder
// delay already removed, end padding too). Plain PCM is read straight from the file by
// byte position; everything else is decoded from a few packets before the wanted one
// (the codec's pre-roll) after a seek, and keeps decoding forward for the next read.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"
#include "backends/ffmpeg/FfmpegPacketCursor.h"
#include "backends/ffmpeg/FfmpegPcm.h"

#include <memory>
#include <vector>

struct SwrContext;

namespace ffmpeg_engine {

// Samples in the decoder's native format: planar formats have one plane per channel,
// interleaved ones a single plane.
struct AudioBlock {
    AVSampleFormat format = AV_SAMPLE_FMT_NONE;
    int channels = 0;
    int sampleRate = 0;
    int64_t start = 0; // position of the first sample
    int64_t count = 0; // samples per channel
    std::vector<std::vector<uint8_t>> planes;
};

class FfmpegAudioDecoder {
public:
    // The decoder of audio track `track` (0 for the index's first audio stream).
    static Result<std::unique_ptr<FfmpegAudioDecoder>> open(std::shared_ptr<const MediaIndex> index, int track);
    ~FfmpegAudioDecoder();

    const AudioTrack& track() const { return *track_; }
    int64_t totalSamples() const { return track_->totalSamples; }
    AVSampleFormat nativeFormat() const { return track_->sampleFormat; }

    // Reads up to count samples from start in the native format. Answers how many were
    // read: fewer than asked at the end of the stream, or where the file stops early.
    Result<int64_t> read(int64_t start, int64_t count, AudioBlock& out);
    // The same converted to interleaved `format` (AV_SAMPLE_FMT_S16, _S32, _FLT, _DBL...).
    Result<int64_t> readInterleaved(int64_t start, int64_t count, AVSampleFormat format, std::vector<uint8_t>& out);

    struct Stats {
        int64_t seeks = 0;
        int64_t packetsDecoded = 0;
        int64_t misplaced = 0; // decoded frames whose size or place differed from the index
    };
    const Stats& stats() const { return stats_; }

private:
    FfmpegAudioDecoder() = default;
    bool openCodec(std::string& error);
    Result<int64_t> readPcm(int64_t start, int64_t count, AudioBlock& out);
    Result<int64_t> readDecoded(int64_t start, int64_t count, AudioBlock& out);
    // Where a decode that must deliver position intact starts.
    int firstPacketFor(int64_t position) const;
    bool startAt(int64_t position, std::string& error);
    // The next decoded frame and its position; false at the end (error set on failure).
    bool nextFrame(std::string& error);
    void copyOut(const AVFrame& frame, int64_t frameStart, int64_t from, int64_t to, AudioBlock& out) const;

    std::shared_ptr<const MediaIndex> index_;
    const AudioTrack* track_ = nullptr;
    PcmLayout pcm_;
    int64_t prerollSamples_ = 0; // decoded before the first wanted sample after a seek
    int fd_ = -1;
    std::unique_ptr<PacketCursor> cursor_;
    CodecContextPtr codec_;
    PacketPtr packet_;
    SwrContext* swr_ = nullptr;
    AVSampleFormat swrOut_ = AV_SAMPLE_FMT_NONE;

    // The running decode: the last frame that came out and where it starts.
    FramePtr held_;
    int64_t heldStart_ = -1;
    int64_t nextStart_ = -1; // where the frame after it starts; -1 without a running decode
    bool inputEnded_ = false;
    bool ended_ = false;
    bool sessionFirst_ = false; // the next packet is the first after a seek

    Stats stats_;
};

} // namespace ffmpeg_engine
