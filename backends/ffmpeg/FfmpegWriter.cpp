// Writing video through libavcodec and libavformat: the container header at creation,
// frames queued to an encoding thread, the encoder drained and the trailer written on
// close.
#include "backends/ffmpeg/FfmpegWriter.h"

#include "backends/ffmpeg/FfmpegCommon.h"
#include "host/core/Strings.h"
#include "host/os/Log.h"
#include "host/threads/PlainMutex.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <thread>

namespace ffmpeg_backend {

namespace {

using ffmpeg_engine::FramePtr;
using ffmpeg_engine::PacketPtr;
using ffmpeg_engine::CodecContextPtr;
using ffmpeg_engine::errorText;

constexpr unsigned kDefaultQueueFrames = 40;

AVPixelFormat avFormatOf(Zn::Image::eDataFormat f) {
    using namespace Zn::Image;
    switch (f) {
    case kFormatGray8: return AV_PIX_FMT_GRAY8;
    case kFormatGray16LE: return AV_PIX_FMT_GRAY16LE;
    case kFormatRGB24: return AV_PIX_FMT_RGB24;
    case kFormatBGR24: return AV_PIX_FMT_BGR24;
    case kFormatRGBA32: return AV_PIX_FMT_RGBA;
    case kFormatBGRA32: return AV_PIX_FMT_BGRA;
    case kFormatARGB32: return AV_PIX_FMT_ARGB;
    case kFormatRGB48LE: return AV_PIX_FMT_RGB48LE;
    case kFormatRGBA64LE: return AV_PIX_FMT_RGBA64LE;
    case kFormatYUV420P: return AV_PIX_FMT_YUV420P;
    case kFormatYUV422P: return AV_PIX_FMT_YUV422P;
    case kFormatYUV444P: return AV_PIX_FMT_YUV444P;
    case kFormatYUV420P10LE: return AV_PIX_FMT_YUV420P10LE;
    case kFormatYUV422P10LE: return AV_PIX_FMT_YUV422P10LE;
    case kFormatYUV444P10LE: return AV_PIX_FMT_YUV444P10LE;
    case kFormatNV12: return AV_PIX_FMT_NV12;
    case kFormatUYVY422: return AV_PIX_FMT_UYVY422;
    case kFormatYUYV422: return AV_PIX_FMT_YUYV422;
    default: return AV_PIX_FMT_NONE;
    }
}

// The encoder and muxer the parameters name; false when this writer does not make them.
struct Choice {
    const char* encoder = nullptr;
    const char* muxer = nullptr;
    const wchar_t* extension = nullptr;
};

bool choose(const Zn::FileWriterParams& p, Choice& c) {
    const bool mov = p.container == "mov" || p.container == "quicktime";
    const bool mkv = p.container == "matroska" || p.container == "mkv";
    if (!p.container.empty() && !mov && !mkv) return false;
    if (p.codec.empty()) c.encoder = mov ? "prores_ks" : "ffv1";
    else if (p.codec == "ffv1") c.encoder = "ffv1";
    else if (p.codec == "prores" || p.codec == "prores_ks") c.encoder = "prores_ks";
    else return false;
    const bool isProres = std::strcmp(c.encoder, "prores_ks") == 0;
    // QuickTime has no FFV1 sample entry; Matroska carries both.
    if (mov && !isProres) return false;
    const bool useMov = mov || (!mkv && isProres);
    c.muxer = useMov ? "mov" : "matroska";
    c.extension = useMov ? L"mov" : L"mkv";
    return true;
}

AVPixelFormat encoderFormatFor(const AVCodec* codec, AVPixelFormat in, const configb& options) {
    if (options.in("pix_fmt")) return av_get_pix_fmt(options.get("pix_fmt").c_str());
    if (!codec->pix_fmts) return in;
    for (const AVPixelFormat* f = codec->pix_fmts; *f != AV_PIX_FMT_NONE; ++f)
        if (*f == in) return in;
    return avcodec_find_best_pix_fmt_of_list(codec->pix_fmts, in, 0, nullptr);
}

// One file being encoded.
//
// Lock: mutex_ guards queue_, spare_, stopping_ and error_. It is a leaf lock, held only to
// move frames in and out of the lists (the encoder, the muxer and libswscale are called
// without it), so it may be taken with any lock of the caller held. The caller's thread (writeFrame, close) and the encoding thread take it.
// Only the encoding thread touches the encoder and the muxer once the thread runs; only
// the caller's thread touches sws_.
class FfmpegWriteInstance : public Zn::FileWriteInstance {
public:
    FfmpegWriteInstance(const WString& name, const Zn::FileWriterParams& params)
        : FileWriteInstance(name, params) {}
    ~FfmpegWriteInstance() override {
        close();
        sws_freeContext(sws_);
        if (out_) {
            if (out_->pb && !(out_->oformat->flags & AVFMT_NOFILE)) avio_closep(&out_->pb);
            avformat_free_context(out_);
        }
    }

    // Sets up the encoder and the container and writes the container header.
    bool open(const Choice& choice) {
        const auto& params = getParams();
        inFormat_ = avFormatOf(params.core.getDataFormat());
        const AVCodec* codec = avcodec_find_encoder_by_name(choice.encoder);
        if (!codec || inFormat_ == AV_PIX_FMT_NONE) return false;
        configb options = params.options;
        encFormat_ = encoderFormatFor(codec, inFormat_, options);
        options.erase("pix_fmt");
        queueFrames_ = unsigned(std::max<int64_t>(1, options.getInt("queue_frames", kDefaultQueueFrames)));
        options.erase("queue_frames");
        if (encFormat_ == AV_PIX_FMT_NONE) return false;

        const std::string path = toUTF8(getFileName()).str();
        if (avformat_alloc_output_context2(&out_, nullptr, choice.muxer, path.c_str()) < 0 || !out_) return false;

        enc_.reset(avcodec_alloc_context3(codec));
        if (!enc_) return false;
        enc_->codec_type = AVMEDIA_TYPE_VIDEO;
        enc_->width = int(params.core.getWidth());
        enc_->height = int(params.core.getHeight());
        enc_->pix_fmt = encFormat_;
        enc_->time_base = AVRational{params.rateDen > 0 ? params.rateDen : 1, params.rateNum > 0 ? params.rateNum : 25};
        enc_->framerate = AVRational{enc_->time_base.den, enc_->time_base.num};
        enc_->sample_aspect_ratio = AVRational{1, 1};
        enc_->gop_size = 1; // every frame a key frame: editing codecs are read frame by frame
        // FFmpeg's program encodes with a thread per core unless told otherwise; a library
        // caller gets one thread by default, so ask for the program's behaviour.
        enc_->thread_count = 0;
        if (std::strcmp(choice.encoder, "ffv1") == 0) {
            // Version 3 is the one with slices, and so the one that encodes on several threads.
            if (!options.in("level")) options.set("level", String("3"));
            if (!options.in("slicecrc")) options.set("slicecrc", String("1"));
        }
        if (out_->oformat->flags & AVFMT_GLOBALHEADER) enc_->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

        AVDictionary* dict = nullptr;
        for (const auto& [key, value] : options) av_dict_set(&dict, key.c_str(), value.c_str(), 0);
        int rc = avcodec_open2(enc_.get(), codec, &dict);
        // An option the encoder did not take is most likely misspelt: better no file than
        // a file made with settings nobody asked for.
        const AVDictionaryEntry* unused = av_dict_get(dict, "", nullptr, AV_DICT_IGNORE_SUFFIX);
        if (rc >= 0 && unused) LogBoth("FFmpeg writer: option %s not known to the encoder\n", unused->key);
        av_dict_free(&dict);
        if (rc < 0) return fail("opening the encoder", rc);
        if (unused) return false;

        stream_ = avformat_new_stream(out_, nullptr);
        if (!stream_) return false;
        stream_->time_base = enc_->time_base;
        stream_->avg_frame_rate = enc_->framerate;
        stream_->r_frame_rate = enc_->framerate;
        if ((rc = avcodec_parameters_from_context(stream_->codecpar, enc_.get())) < 0) return fail("parameters", rc);
        if (!(out_->oformat->flags & AVFMT_NOFILE) && (rc = avio_open(&out_->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0)
            return fail("creating the file", rc);
        if ((rc = avformat_write_header(out_, nullptr)) < 0) return fail("writing the container header", rc);
        packet_ = ffmpeg_engine::newPacket();
        if (!packet_) return false;
        thread_ = std::thread([this] { encodeLoop(); });
        return true;
    }

    unsigned pendingFrames() const override { return pending_.load(std::memory_order_acquire); }

    int writeFrame(const Zn::Image::Surface& image, int) override {
        const auto& core = getParams().core;
        if (!thread_.joinable() || !image.valid() || image.getDataFormat() != core.getDataFormat() ||
            image.getWidth() != core.getWidth() || image.getHeight() != core.getHeight())
            return 0;
        FramePtr frame = takeSpare();
        if (!frame || !fill(*frame, image)) return 0;
        frame->pts = nextPts_;
        PlainMutex::UniqueLock lock(mutex_);
        // The queue is bounded: a caller that does not look at pendingFrames() waits here
        // for the encoder rather than filling memory.
        spaceFreed_.wait(lock.native(),
                         [&]() REQUIRES(mutex_) { return queue_.size() < queueFrames_ || error_; });
        if (error_) return 0;
        queue_.push_back(std::move(frame));
        ++nextPts_;
        pending_.fetch_add(1, std::memory_order_acq_rel);
        frameQueued_.notify_one();
        return 1;
    }

    int close() override {
        if (closed_) return closeResult_;
        closed_ = true;
        if (thread_.joinable()) {
            {
                PlainMutex::Lock lock(mutex_);
                stopping_ = true;
            }
            frameQueued_.notify_one();
            thread_.join();
        }
        PlainMutex::Lock lock(mutex_); // uncontended: the encoding thread has ended
        if (out_ && out_->pb && !(out_->oformat->flags & AVFMT_NOFILE)) {
            if (avio_closep(&out_->pb) < 0) error_ = true;
        }
        closeResult_ = (!error_ && enc_ && stream_) ? 1 : 0;
        return closeResult_;
    }

private:
    bool fail(const char* what, int averror) {
        LogBoth("FFmpeg writer: %s: %s\n", what, errorText(averror).c_str());
        return false;
    }

    // A frame for the encoder's format and size: a spare one the encoder no longer holds,
    // else a new one.
    FramePtr takeSpare() {
        {
            PlainMutex::Lock lock(mutex_);
            while (!spare_.empty()) {
                FramePtr f = std::move(spare_.back());
                spare_.pop_back();
                if (av_frame_is_writable(f.get())) return f;
            }
        }
        FramePtr f = ffmpeg_engine::newFrame();
        if (!f) return nullptr;
        f->format = encFormat_;
        f->width = enc_->width;
        f->height = enc_->height;
        if (av_frame_get_buffer(f.get(), 0) < 0) return nullptr;
        return f;
    }

    // Copies or converts the surface's pixels into the frame.
    bool fill(AVFrame& frame, const Zn::Image::Surface& image) {
        const uint8_t* src[4] = {};
        int srcStride[4] = {};
        for (unsigned p = 0; p < image.planeCount() && p < 4; ++p) {
            src[p] = image.plane(p);
            srcStride[p] = int(image.stride(p));
        }
        if (inFormat_ == encFormat_) {
            av_image_copy(frame.data, frame.linesize, src, srcStride, encFormat_, frame.width, frame.height);
            return true;
        }
        sws_ = sws_getCachedContext(sws_, frame.width, frame.height, inFormat_, frame.width, frame.height, encFormat_,
                                    SWS_BICUBIC, nullptr, nullptr, nullptr);
        if (!sws_) return false;
        return sws_scale(sws_, src, srcStride, 0, frame.height, frame.data, frame.linesize) == frame.height;
    }

    void encodeLoop() {
        pthread_setname_np(pthread_self(), "FfmpegWrite");
        for (;;) {
            FramePtr frame;
            {
                PlainMutex::UniqueLock lock(mutex_);
                frameQueued_.wait(lock.native(),
                                  [&]() REQUIRES(mutex_) { return !queue_.empty() || stopping_; });
                if (queue_.empty()) break;
                frame = std::move(queue_.front());
                queue_.pop_front();
            }
            spaceFreed_.notify_one();
            bool ok = !encoderFailed_ && encode(frame.get());
            PlainMutex::Lock lock(mutex_);
            if (!ok) {
                // Nothing more gets written: what is pending now is only what is queued.
                error_ = true;
                pending_.store(unsigned(queue_.size()), std::memory_order_release);
                spaceFreed_.notify_all();
            }
            spare_.push_back(std::move(frame));
        }
        if (!encoderFailed_) encode(nullptr); // drain what the encoder still holds
        int rc = av_write_trailer(out_);
        PlainMutex::Lock lock(mutex_);
        if (encoderFailed_ || rc < 0) error_ = true;
        pending_.store(0, std::memory_order_release);
    }

    // Sends one frame (null: the end) and writes the packets that come out; each packet is
    // one frame done.
    bool encode(AVFrame* frame) {
        int rc = avcodec_send_frame(enc_.get(), frame);
        if (rc < 0) {
            encoderFailed_ = true;
            return fail("encoding", rc);
        }
        for (;;) {
            rc = avcodec_receive_packet(enc_.get(), packet_.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
            if (rc < 0) {
                encoderFailed_ = true;
                return fail("encoding", rc);
            }
            av_packet_rescale_ts(packet_.get(), enc_->time_base, stream_->time_base);
            packet_->stream_index = stream_->index;
            rc = av_interleaved_write_frame(out_, packet_.get());
            pending_.fetch_sub(1, std::memory_order_acq_rel);
            if (rc < 0) {
                encoderFailed_ = true;
                return fail("writing", rc);
            }
        }
    }

    // Set up by open() before the thread starts; then the encoder, muxer and packet belong
    // to the encoding thread until close() has joined it.
    AVFormatContext* out_ = nullptr;
    AVStream* stream_ = nullptr;
    CodecContextPtr enc_;
    PacketPtr packet_;
    AVPixelFormat inFormat_ = AV_PIX_FMT_NONE;
    AVPixelFormat encFormat_ = AV_PIX_FMT_NONE;
    unsigned queueFrames_ = kDefaultQueueFrames;
    bool encoderFailed_ = false; // the encoding thread's own

    // The caller's thread's.
    SwsContext* sws_ = nullptr;
    int64_t nextPts_ = 0;
    bool closed_ = false;
    int closeResult_ = 0;

    std::atomic<unsigned> pending_{0};
    std::thread thread_;

    PlainMutex mutex_;
    std::condition_variable frameQueued_; // the encoding thread waits on it
    std::condition_variable spaceFreed_;  // writeFrame waits on it when the queue is full
    std::deque<FramePtr> queue_ GUARDED_BY(mutex_);
    std::vector<FramePtr> spare_ GUARDED_BY(mutex_);
    bool stopping_ GUARDED_BY(mutex_) = false;
    bool error_ GUARDED_BY(mutex_) = false;
};

} // namespace

bool FfmpegFileWriter::accepts(const Zn::FileWriterParams& p) const {
    Choice c;
    if (p.kind != Zn::FileWriterParams::kVideo || !choose(p, c)) return false;
    if (avFormatOf(p.core.getDataFormat()) == AV_PIX_FMT_NONE) return false;
    if (p.core.getWidth() == 0 || p.core.getHeight() == 0 || p.rateNum <= 0 || p.rateDen <= 0) return false;
    return avcodec_find_encoder_by_name(c.encoder) != nullptr;
}

std::vector<WString> FfmpegFileWriter::extensions(const Zn::FileWriterParams& params) const {
    Choice c;
    if (!choose(params, c)) return {};
    return {WString(c.extension)};
}

int FfmpegFileWriter::create(const WString& fileName, Zn::FileWriterParams& params,
                             Zn::Ptr<Zn::FileWriteInstance>& out) {
    Choice c;
    if (!accepts(params) || !choose(params, c)) return 0;
    Zn::Ptr<FfmpegWriteInstance> w(new FfmpegWriteInstance(fileName, params));
    if (!w->open(c)) {
        w = nullptr;
        ::unlink(toUTF8(fileName).c_str());
        return 0;
    }
    out = w;
    return 1;
}

} // namespace ffmpeg_backend
