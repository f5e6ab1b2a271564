// Owning pointers, error texts and the time-limited demuxer shared by the FFmpeg engine.
#include "backends/ffmpeg/FfmpegCommon.h"

#include "backends/ffmpeg/FfmpegFileInput.h"
#include "backends/ffmpeg/FfmpegMemoryMedia.h"
#include "host/threads/PlainMutex.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <thread>

namespace ffmpeg_engine {

FramePtr newFrame() { return FramePtr(av_frame_alloc()); }

PacketPtr newPacket() { return PacketPtr(av_packet_alloc()); }

FramePtr refFrame(const AVFrame* frame) {
    FramePtr copy = newFrame();
    if (!copy || !frame || av_frame_ref(copy.get(), frame) < 0) return nullptr;
    return copy;
}

CodecParametersPtr copyParameters(const AVCodecParameters* from) {
    AVCodecParameters* p = avcodec_parameters_alloc();
    if (!p) return nullptr;
    if (avcodec_parameters_copy(p, from) < 0) {
        avcodec_parameters_free(&p);
        return nullptr;
    }
    return CodecParametersPtr(p, CodecParametersDeleter{});
}

int systemCause(int averror) {
    // AVERROR(e) is -e for errno values; FFmpeg's own codes are large tags.
    return averror < 0 && averror > -4096 ? -averror : 0;
}

std::string errorText(int averror) {
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(averror, buf, sizeof buf) < 0) return "error " + std::to_string(averror);
    return buf;
}

namespace {
PlainMutex logMutex; // guards logSink; a leaf lock, held to replace or call the sink
LogSink logSink GUARDED_BY(logMutex);

void logCallback(void* avcl, int level, const char* format, va_list args) {
    if (level > av_log_get_level()) return;
    char line[1024];
    int prefix = 1;
    va_list copy;
    va_copy(copy, args);
    av_log_format_line2(avcl, level, format, copy, line, sizeof line, &prefix);
    va_end(copy);
    std::string text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    PlainMutex::Lock lock(logMutex);
    if (logSink && !text.empty()) logSink(level, text);
}
} // namespace

void routeFfmpegLog(int maxLevel, LogSink sink) {
    PlainMutex::Lock lock(logMutex);
    logSink = std::move(sink);
    av_log_set_level(maxLevel);
    av_log_set_callback(&logCallback);
}

const char* threadingName(Threading t) {
    switch (t) {
    case Threading::Auto: return "auto";
    case Threading::Single: return "single";
    case Threading::Slice: return "slice";
    case Threading::Frame: return "frame";
    }
    return "?";
}

int coreCount() {
    unsigned n = std::thread::hardware_concurrency();
    return int(std::clamp(n, 1u, 64u));
}

Result<CodecContextPtr> openDecoder(const AVCodecParameters* par, Threading threading, int threads) {
    using R = Result<CodecContextPtr>;
    if (!par) return R::fail("no codec parameters");
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    if (!codec) return R::fail(std::string("no decoder for codec ") + avcodec_get_name(par->codec_id));
    CodecContextPtr ctx(avcodec_alloc_context3(codec));
    if (!ctx) return R::fail("out of memory");
    int rc = avcodec_parameters_to_context(ctx.get(), par);
    if (rc < 0) return R::fail("bad codec parameters: " + errorText(rc));
    if (threads <= 0) threads = std::min(coreCount(), 16);
    switch (threading) {
    case Threading::Auto:
        ctx->thread_count = 0;
        break;
    case Threading::Single:
        ctx->thread_count = 1;
        break;
    case Threading::Slice:
        ctx->thread_count = threads;
        ctx->thread_type = FF_THREAD_SLICE;
        break;
    case Threading::Frame:
        ctx->thread_count = threads;
        ctx->thread_type = FF_THREAD_FRAME;
        break;
    }
    rc = avcodec_open2(ctx.get(), codec, nullptr);
    if (rc < 0) return R::fail(std::string("cannot open the ") + codec->name + " decoder: " + errorText(rc));
    return R::ok(std::move(ctx));
}

AVSampleFormat decoderSampleFormat(const AVCodecParameters* par) {
    const AVSampleFormat given = par ? AVSampleFormat(par->format) : AV_SAMPLE_FMT_NONE;
    auto decoder = openDecoder(par, Threading::Single, 1);
    if (!decoder || decoder.value->sample_fmt == AV_SAMPLE_FMT_NONE) return given;
    return decoder.value->sample_fmt;
}

Demuxer::~Demuxer() {
    if (ctx_) avformat_close_input(&ctx_);
    input_.reset();
}

int Demuxer::interruptCallback(void* self) {
    auto* d = static_cast<Demuxer*>(self);
    return std::chrono::steady_clock::now() > d->deadline_ ? 1 : 0;
}

void Demuxer::arm(std::chrono::milliseconds limit) {
    deadline_ = std::chrono::steady_clock::now() + limit;
}

bool Demuxer::isQuickTime() const {
    return ctx_ && ctx_->iformat && std::strstr(ctx_->iformat->name, "mov") != nullptr;
}

Result<std::unique_ptr<Demuxer>> Demuxer::open(const std::string& path, bool withStreamInfo) {
    return open(path, withStreamInfo, nullptr);
}

Result<std::unique_ptr<Demuxer>> Demuxer::open(const std::string& path, bool withStreamInfo,
                                               std::unique_ptr<FileInput> input) {
    using R = Result<std::unique_ptr<Demuxer>>;
    std::unique_ptr<Demuxer> d(new Demuxer);
    d->ctx_ = avformat_alloc_context();
    if (!d->ctx_) return R::fail("out of memory", ENOMEM);
    d->ctx_->interrupt_callback.callback = &Demuxer::interruptCallback;
    d->ctx_->interrupt_callback.opaque = d.get();
    d->arm(kOpenTimeLimit);
    // Media held in memory is read from there whatever input was offered.
    d->memory_ = MemoryReader::open(path);
    if (d->memory_) {
        d->ctx_->pb = d->memory_->io();
        d->ctx_->flags |= AVFMT_FLAG_CUSTOM_IO;
    } else if (input) {
        d->input_ = std::move(input);
        d->ctx_->pb = d->input_->io();
        d->ctx_->flags |= AVFMT_FLAG_CUSTOM_IO;
    }
    AVFormatContext* ctx = d->ctx_;
    int rc = avformat_open_input(&ctx, path.c_str(), nullptr, nullptr);
    if (rc < 0) {
        d->ctx_ = nullptr; // avformat_open_input frees the context on failure
        return R::fail(errorText(rc), systemCause(rc));
    }
    if (withStreamInfo) {
        rc = avformat_find_stream_info(d->ctx_, nullptr);
        if (rc < 0) return R::fail("cannot read the streams: " + errorText(rc), systemCause(rc));
    }
    d->arm(kCallTimeLimit);
    return R::ok(std::move(d));
}

} // namespace ffmpeg_engine
