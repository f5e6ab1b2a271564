// Small pieces every part of the FFmpeg engine uses: owning pointers for the libav*
// objects, the text of an AVERROR code, the result type that carries a one-line reason
// on failure, and opening a demuxer on a file with a time limit on blocking calls.
#pragma once

#include "backends/Result.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ffmpeg_engine {

class MemoryReader;

struct FrameDeleter {
    void operator()(AVFrame* f) const noexcept { av_frame_free(&f); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const noexcept { av_packet_free(&p); }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const noexcept { avcodec_free_context(&c); }
};
struct CodecParametersDeleter {
    void operator()(AVCodecParameters* p) const noexcept { avcodec_parameters_free(&p); }
};

using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using CodecParametersPtr = std::shared_ptr<const AVCodecParameters>;

// A new empty frame or packet; null only when memory runs out.
FramePtr newFrame();
PacketPtr newPacket();
// A new reference to the same pictures or samples (no copy of the data).
FramePtr refFrame(const AVFrame* frame);
// An owned copy of codec parameters, shareable between threads (read-only).
CodecParametersPtr copyParameters(const AVCodecParameters* from);

// The text FFmpeg gives for an error code ("Invalid data found when processing input").
std::string errorText(int averror);

// What a call answers: a value, or an empty value, a one-line reason and the errno.
using backend::Result;

// The errno behind an AVERROR code, 0 when it is one of FFmpeg's own (damaged data...).
int systemCause(int averror);

// Where FFmpeg's own log lines go. FFmpeg prints them on standard error unless told
// otherwise; the back-end hands lines up to maxLevel (AV_LOG_ERROR, AV_LOG_WARNING...) to
// the sink, one complete line per call, from whichever thread logs. A null sink drops them.
using LogSink = std::function<void(int level, const std::string& line)>;
void routeFfmpegLog(int maxLevel, LogSink sink);

// How a decoder spreads its work over threads: Single (one thread), Slice (threads share
// the parts of one picture; no added delay), Frame (threads decode successive pictures;
// more throughput, but each thread adds a picture of delay and a flush costs more).
enum class Threading { Auto, Single, Slice, Frame };
const char* threadingName(Threading t);

// A decoder for the given parameters, opened with the given threading (Auto is not
// resolved here: it means FFmpeg's own choice) and number of threads (0: one per core).
Result<CodecContextPtr> openDecoder(const AVCodecParameters* par, Threading threading, int threads);

// The sample format that the decoder FFmpeg picks for these parameters (the one its own
// program decodes with) puts out. The parameters' format can be another decoder's: a
// probe may decode with a sibling (MP2 in MPEG-TS is probed with the float decoder and
// decoded with the fixed-point one). A decoder that settles its format only on its first
// frame leaves the parameters' format.
AVSampleFormat decoderSampleFormat(const AVCodecParameters* par);

// Cores available to this process (at least 1).
int coreCount();

// A demuxer open on a file. Blocking calls into it (reads, seeks, probing) give up once
// the time limit set with arm() has passed, so a file on a stalled or pathological input
// fails instead of hanging the thread that reads it.
class FileInput;

class Demuxer {
public:
    ~Demuxer();
    Demuxer(const Demuxer&) = delete;
    Demuxer& operator=(const Demuxer&) = delete;

    // Opens path (a file, or media registered in memory: FfmpegMemoryMedia.h).
    // withStreamInfo also runs avformat_find_stream_info (needed once to learn the
    // streams' parameters; later opens of the same file copy them instead).
    static Result<std::unique_ptr<Demuxer>> open(const std::string& path, bool withStreamInfo);
    // The same, reading through input (which the demuxer then owns).
    static Result<std::unique_ptr<Demuxer>> open(const std::string& path, bool withStreamInfo,
                                                 std::unique_ptr<FileInput> input);

    AVFormatContext* context() const { return ctx_; }
    // Allows blocking calls for the given time from now on.
    void arm(std::chrono::milliseconds limit);
    // True when the QuickTime/MP4 demuxer reads this file.
    bool isQuickTime() const;
    // The input given to open, or null.
    FileInput* input() const { return input_.get(); }

private:
    Demuxer() = default;
    static int interruptCallback(void* self);

    AVFormatContext* ctx_ = nullptr;
    std::unique_ptr<FileInput> input_;     // outlives ctx_, whose pb it is
    std::unique_ptr<MemoryReader> memory_; // the input of in-memory media; outlives ctx_
    std::chrono::steady_clock::time_point deadline_{};
};

// How long a single open, seek or scan may block before it is given up.
inline constexpr std::chrono::milliseconds kOpenTimeLimit{60000};
inline constexpr std::chrono::milliseconds kCallTimeLimit{20000};

} // namespace ffmpeg_engine
