// What the parts of the FFmpeg transfer plug-in share: owning pointers for the libav*
// objects, the job an extraction is (its source, the section, where it writes, how it
// reports progress and learns of cancellation) and the outcome of a step.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

#include "host/core/LightweightString.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ffmpeg_xfer {

template <auto Free> struct AvFree {
    template <class T> void operator()(T* p) const noexcept { Free(&p); }
};
using FramePtr = std::unique_ptr<AVFrame, AvFree<av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, AvFree<av_packet_free>>;
using CodecPtr = std::unique_ptr<AVCodecContext, AvFree<avcodec_free_context>>;
using BsfPtr = std::unique_ptr<AVBSFContext, AvFree<av_bsf_free>>;
using InputPtr = std::unique_ptr<AVFormatContext, AvFree<avformat_close_input>>;

// How a step ended. Failures carry a one-line reason for the task's log.
struct Outcome {
    enum eKind { eDone, eFailed, eCancelled };
    eKind kind = eDone;
    std::string reason;

    static Outcome done() { return {}; }
    static Outcome failed(std::string why) { return {eFailed, std::move(why)}; }
    static Outcome cancelled() { return {eCancelled, {}}; }
    // A failure naming the FFmpeg call and its error text.
    static Outcome failed(const char* what, int averror);
    bool ok() const noexcept { return kind == eDone; }
};

// One extraction as the writers see it.
struct Job {
    std::string source;     // the source file (UTF-8 path)
    std::string target;     // the file to write (a temporary name; the caller renames it)
    int64_t first = 0;      // first sample or frame of the section
    int64_t end = 0;        // end sample or frame (exclusive)
    // Called with the fraction done; false when the extraction is to stop.
    std::function<bool(double)> progress;
};

// A file written through a muxer with one stream: create makes the container and its
// stream (which the caller then describes), start opens the file and writes the header,
// finish writes the trailer and closes it. Destroyed unfinished, it closes the file,
// which the caller then removes.
class OutputFile {
public:
    OutputFile() = default;
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    Outcome create(const std::string& path, const std::string& muxer, AVStream*& stream);
    Outcome start();
    // Writes a packet of the stream, its time stamps in the stream's time base.
    Outcome write(AVPacket& pkt);
    Outcome finish();
    bool started() const noexcept { return ctx_ && ctx_->pb; }
    const AVStream& stream() const noexcept { return *ctx_->streams[0]; }

private:
    AVFormatContext* ctx_ = nullptr;
    std::string path_;
};

// Opens a file for demuxing with its streams probed.
Outcome openInput(const std::string& path, InputPtr& out);

// What a sound section wrote: the file's sample rate and bytes per sample, for its header.
struct SoundFormat {
    double sampleRate = 0;
    int bytesPerSample = 0;
};

// Writes the section's samples of every audio stream of the source as one WAV file holding
// all their channels in order (the material's channels 1..n), in the streams' own sample
// format; streams that differ in rate or sample format are refused. (XferSound.cpp)
Outcome writeSoundSection(const Job& job, SoundFormat& format);

// What a vision section wrote, for the log and the header.
struct VisionReport {
    int64_t copiedFrames = 0;
    int64_t encodedFrames = 0;
    int width = 0, height = 0;
    AVRational frameRate{0, 1};
};

// Writes the section's frames of the first video stream into a container of the source's
// kind (XferVision.cpp). The container's extension is chosen by containerFor.
Outcome writeVisionSection(const Job& job, const std::string& muxer, VisionReport& report);

// The muxer and file extension a vision section of the source is written with.
struct Container {
    std::string muxer;
    std::string extension;
};
Container containerFor(const AVFormatContext& input, const AVCodecParameters& video);

std::string utf8(const WString& text);

} // namespace ffmpeg_xfer
