// The FFmpeg back-end's file reader: any file libavformat opens, indexed at open so that
// frame k and sample position s mean what FFmpeg's own program shows (FfmpegEngine.h).
//
// Video takes one of two roads, chosen by the stream:
// - long-GOP video streams: the reader is a StreamingDecodeReader whose "Decode" thread
//   decodes runs of frames with an FfmpegVideoDecoder; FrameRanges (below) answers the run
//   for a frame. Frames come out in the file's decode format (native when none is set).
// - intra-only video (every frame decodes on its own) is read as compressed packets on the
//   video queue's thread; the request decodes them on completion through the decoder this
//   back-end registers with Zn::DecoderInfo, in the request's format, on a worker of
//   FfmpegCompletionPool so that frames queued ahead decode side by side.
// When an issuer's requests come in order, the reader queues requests of its own ahead of
// them (read-ahead), which the queue then hands to the issuer's requests for the same
// frames: for intra-only video the next few frames, for long-GOP video the frame a run
// ahead, so that the next run is decoded while the issuer takes the frames of this one.
// Audio goes through the audio reader (Zn::AudioReader): plain PCM streams as samples read
// by position (FfmpegAudioDecoder reads them straight from the file), compressed ones
// through FfmpegAudioCodec (see FfmpegAudioCodec.h for what its blocks are).
#pragma once

#include "backends/ffmpeg/FfmpegEngine.h"
#include "backends/ffmpeg/FfmpegSurfaces.h"
#include "backends/ffmpeg/FfmpegVideoCodec.h"
#include "host/media/FileReaderInfo.h"
#include "playfile/audio/AudioReader.h"
#include "playfile/open/StreamingDecodeReader.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

namespace ffmpeg_backend {

// Which frames a streaming read decodes together with a frame. Playing on (the frame
// right after the last run) decodes a run of kChunk frames ahead. A jump gets the frame
// alone: the decoder then leaves out the pictures on the way that nobody refers to, about
// half of a group with B-pyramids. Stepping back (a frame at most kChunk before the last
// run) gets the frames behind it, from its group's start or kBackward frames back, so that
// the steps that follow are served from the run. Runs stay short so that two slots of
// decoded pictures stay small in memory: with runs of 4, playing 1080p H.264 peaks below
// FFmpeg's own program at the same speed (measured: 88 MB against 92 MB; runs of 8 took
// 113 MB and were no faster).
//
// Called only under the streaming reader's slot lock, which guards runFirst_ and nextFrame_.
class FrameRanges : public iVariableFrameRateHandler {
public:
    static constexpr int64_t kChunk = 4;
    static constexpr int64_t kBackward = 24;

    explicit FrameRanges(std::shared_ptr<const ffmpeg_engine::MediaIndex> index) : index_(std::move(index)) {}
    void getFrameRange(uint32_t frame, int64_t& first, int64_t& end) override;

private:
    std::shared_ptr<const ffmpeg_engine::MediaIndex> index_;
    int64_t runFirst_ = 0;  // the first frame of the last run answered
    int64_t nextFrame_ = 0; // the frame after it
};

// Locks: the FileReadInstance lock guards the packet reader of the intra-only road (taken
// on the video queue's thread around reading a packet). aheadMutex_ guards the read-ahead
// (lastQueued_, ahead_); it is a leaf lock, taken in queueReadRequest on the issuer's
// thread and in purge, and released before anything is queued. The audio reader's lock
// (taken by Zn::AudioReader::readAudio on the audio queue's thread) guards pcm_, the
// decoders of the plain streams. The video decoder and its SurfaceMaker belong to the
// "Decode" thread alone; the index is immutable.
//
// Read-ahead requests refer to this file (as every request does) while it holds them, so
// a file left with some is kept alive until purge() releases them; the play file cache
// purges a file before it lets it go.
class FfmpegReadInstance : public StreamingDecodeReader, public Zn::AudioReader {
public:
    // Opens and indexes the file; null with a reason when FFmpeg cannot read it or it has
    // no stream of the kind asked for, and the errno in cause when the system failed.
    static Zn::Ptr<FfmpegReadInstance> open(const DecodeFormat& format, const WString& fileName, OpenType type,
                                            std::string& error, int& cause);
    ~FfmpegReadInstance() override;

    String getReaderName() const override { return "FFmpeg"; }
    void ZnFileIxCache_open(Zn::Ptr<IndexInfoRep>& index, unsigned frame) override;
    bool queueReadRequest(Zn::Ptr<VideoReadRequest>& request, bool flag) override;
    using StreamingDecodeReader::queueReadRequest;
    eReadResult readVideo(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) override;
    using StreamingDecodeReader::readVideo;
    void readAudio(Zn::Ptr<AudioReadRequest>& request) override;
    void purge() override;

    // Frames queued ahead of an issuer reading an intra-only file in order.
    static constexpr uint32_t kReadAhead = 3;

    const ffmpeg_engine::MediaIndex& mediaIndex() const { return *index_; }
    // True when video goes through the "Decode" thread (long-GOP), false for intra-only.
    bool streamsVideo() const { return longGop_; }
    // Pictures that came out of this file's streaming decoder.
    uint64_t picturesDecoded() const { return streamedPictures_.load(); }

protected:
    eReadResult decodeFrames(Zn::Ptr<FrameBufferRep>& buffer, uint32_t frame) override;
    eReadResult readVideoStreaming(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) override;
    eResult readAudioSamples(uint32_t stream, uint64_t position, uint32_t samples, uint8_t* into,
                         uint32_t& delivered) override;
    eResult readAudioBlock(uint32_t stream, uint64_t block, std::vector<uint8_t>& data) override;

private:
    FfmpegReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type,
                       std::shared_ptr<const ffmpeg_engine::MediaIndex> index);
    void describe();
    eReadResult decodeRun(Zn::Ptr<FrameBufferRep>& slot, uint32_t first);
    eReadResult readPacket(Zn::Ptr<FrameBufferRep>& buffer, uint32_t frame);

    const std::shared_ptr<const ffmpeg_engine::MediaIndex> index_;
    const bool longGop_;
    std::atomic<uint64_t> streamedPictures_{0};

    // The "Decode" thread's.
    std::unique_ptr<ffmpeg_engine::FfmpegVideoDecoder> decoder_;
    SurfaceMaker surfaces_;

    // Under the FileReadInstance lock.
    std::unique_ptr<ffmpeg_engine::FfmpegPacketReader> packets_;
    Zn::Ptr<FfmpegCodecSetup> setup_;

    std::mutex aheadMutex_;
    int64_t lastQueued_ = -2; // the frame an issuer queued last
    std::vector<Zn::Ptr<VideoReadRequest>> ahead_;

    std::vector<std::unique_ptr<ffmpeg_engine::FfmpegAudioDecoder>> pcm_;
    ffmpeg_engine::AudioBlock pcmBlock_;
};

// The registry entry: accepts any file (it is registered last), opens FfmpegReadInstance,
// and serves video when the file has a video stream and audio when it has audio streams.
class FfmpegFileReader : public Zn::iFileReader {
public:
    String name() const override { return "FFmpeg"; }
    bool accepts(const WString& fileName, OpenType type) override;
    Zn::Ptr<FileReadInstance> open(const DecodeFormat& format, const WString& fileName, OpenType type) override;
    Opened openFile(const DecodeFormat& format, const WString& fileName, OpenType type) override;
    unsigned capabilities(const DecodeFormat& format, OpenType type, const PlayFileMetadataRep& metadata,
                          const Aud::Metadata& stream, Zn::ReaderDetails& details) override;
};

} // namespace ffmpeg_backend
