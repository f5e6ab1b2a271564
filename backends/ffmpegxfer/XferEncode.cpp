// Re-encoding runs of long-GOP frames: decoding from a key frame, the encoder's settings
// taken from the source stream, draining the encoder's packets.
#include "backends/ffmpegxfer/XferEncode.h"

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

namespace ffmpeg_xfer {
namespace {

// Codec options that keep a re-encoded frame visually the source's (well above 45 dB PSNR)
// while staying within the codec's profile, and quick enough for a head of a group.
void qualityOptions(AVCodecContext& enc, AVDictionary** options) {
    const std::string name = enc.codec->name;
    if (name == "libx264" || name == "libx264rgb") {
        av_dict_set(options, "crf", "8", 0);
        av_dict_set(options, "preset", "veryfast", 0);
    } else if (name == "libx265") {
        av_dict_set(options, "crf", "8", 0);
        av_dict_set(options, "preset", "fast", 0);
        av_dict_set(options, "x265-params", "log-level=error", 0);
    } else {
        // Quantiser-driven codecs (MPEG-2, MPEG-4 part 2, ...): the finest quantiser.
        enc.flags |= AV_CODEC_FLAG_QSCALE;
        enc.global_quality = FF_QP2LAMBDA;
        enc.qmin = 1;
        enc.qmax = 2;
    }
}

bool encoderTakes(const AVCodec& codec, AVPixelFormat format) {
    if (!codec.pix_fmts) return true;
    for (const AVPixelFormat* p = codec.pix_fmts; *p != AV_PIX_FMT_NONE; ++p)
        if (*p == format) return true;
    return false;
}

} // namespace

RunEncoder::RunEncoder(const AVStream& stream, std::function<int64_t(int64_t)> frameOf,
                       std::function<int64_t(int64_t)> ptsOf)
    : stream_(stream), frameOf_(std::move(frameOf)), ptsOf_(std::move(ptsOf)) {}

Outcome RunEncoder::openDecoder(CodecPtr& dec) const {
    const AVCodec* codec = avcodec_find_decoder(stream_.codecpar->codec_id);
    if (!codec) return Outcome::failed("FFmpeg has no decoder for the video");
    dec.reset(avcodec_alloc_context3(codec));
    if (!dec || avcodec_parameters_to_context(dec.get(), stream_.codecpar) < 0)
        return Outcome::failed("no memory for the video decoder");
    dec->pkt_timebase = stream_.time_base;
    dec->thread_count = 0; // as many as the machine has: a run decodes a whole group
    if (int rc = avcodec_open2(dec.get(), codec, nullptr); rc < 0) return Outcome::failed("opening the decoder", rc);
    return Outcome::done();
}

Outcome RunEncoder::openEncoder(const AVCodecContext& dec, const AVFrame& frame, CodecPtr& enc) const {
    const AVCodecParameters& par = *stream_.codecpar;
    const AVCodec* codec = avcodec_find_encoder(par.codec_id);
    if (!codec) return Outcome::failed(std::string("FFmpeg has no encoder for ") + avcodec_get_name(par.codec_id));
    if (!encoderTakes(*codec, AVPixelFormat(frame.format)))
        return Outcome::failed(std::string(codec->name) + " cannot encode pictures in " +
                               av_get_pix_fmt_name(AVPixelFormat(frame.format)));
    enc.reset(avcodec_alloc_context3(codec));
    if (!enc) return Outcome::failed("no memory for the encoder");
    enc->width = frame.width;
    enc->height = frame.height;
    enc->pix_fmt = AVPixelFormat(frame.format);
    // Counted in frames: some codecs (MPEG-2) take only a frame rate's time base.
    enc->framerate = stream_.avg_frame_rate.num ? stream_.avg_frame_rate : stream_.r_frame_rate;
    enc->time_base = av_inv_q(enc->framerate);
    enc->sample_aspect_ratio = frame.sample_aspect_ratio.num ? frame.sample_aspect_ratio : par.sample_aspect_ratio;
    enc->color_range = dec.color_range;
    enc->color_primaries = dec.color_primaries;
    enc->color_trc = dec.color_trc;
    enc->colorspace = dec.colorspace;
    enc->chroma_sample_location = dec.chroma_sample_location;
    enc->field_order = par.field_order;
    enc->profile = par.profile;
    enc->level = par.level;
    enc->bit_rate = par.bit_rate;
    enc->max_b_frames = 0;
    enc->gop_size = 1 << 20; // one group: the run's first frame is its only key frame
    enc->thread_count = 0;
    AVDictionary* options = nullptr;
    qualityOptions(*enc, &options);
    int rc = avcodec_open2(enc.get(), codec, &options);
    av_dict_free(&options);
    if (rc < 0) return Outcome::failed((std::string("opening the ") + codec->name + " encoder").c_str(), rc);
    return Outcome::done();
}

Outcome RunEncoder::receive(AVCodecContext& enc, EncodedRun& out) const {
    for (;;) {
        PacketPtr pkt(av_packet_alloc());
        if (!pkt) return Outcome::failed("no memory for a packet");
        int rc = avcodec_receive_packet(&enc, pkt.get());
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return Outcome::done();
        if (rc < 0) return Outcome::failed("encoding", rc);
        // Back from frame numbers to the source's time stamps.
        if (pkt->pts != AV_NOPTS_VALUE) pkt->pts = ptsOf_(pkt->pts);
        if (pkt->dts != AV_NOPTS_VALUE) pkt->dts = ptsOf_(pkt->dts);
        pkt->duration = 0;
        out.packets.push_back(std::move(pkt));
    }
}

Outcome RunEncoder::encode(const std::vector<SourcePacket>& packets, size_t start, int64_t from, int64_t to,
                           const std::function<bool()>& progress, EncodedRun& out) {
    CodecPtr dec, enc;
    if (Outcome o = openDecoder(dec); !o.ok()) return o;
    FramePtr frame(av_frame_alloc());
    if (!frame) return Outcome::failed("no memory for a picture");
    int64_t next = from; // the next frame wanted
    // Takes the decoder's pictures; the ones of the run go to the encoder.
    auto take = [&]() -> Outcome {
        int rc;
        while ((rc = avcodec_receive_frame(dec.get(), frame.get())) >= 0) {
            const int64_t shown = frameOf_(frame->best_effort_timestamp);
            if (shown >= next && shown < to) {
                if (!enc)
                    if (Outcome o = openEncoder(*dec, *frame, enc); !o.ok()) return o;
                frame->pts = shown;
                frame->pict_type = AV_PICTURE_TYPE_NONE; // the encoder chooses its own
                if (int e = avcodec_send_frame(enc.get(), frame.get()); e < 0) return Outcome::failed("encoding", e);
                if (Outcome o = receive(*enc, out); !o.ok()) return o;
                next = shown + 1;
                ++out.frames;
                if (!progress()) return Outcome::cancelled();
            }
            av_frame_unref(frame.get());
        }
        return rc == AVERROR(EAGAIN) || rc == AVERROR_EOF ? Outcome::done() : Outcome::failed("decoding", rc);
    };
    for (size_t i = start; i < packets.size() && next < to; ++i) {
        int rc = avcodec_send_packet(dec.get(), packets[i].packet.get());
        if (rc < 0 && rc != AVERROR_INVALIDDATA) return Outcome::failed("decoding", rc);
        if (Outcome o = take(); !o.ok()) return o;
    }
    if (next < to) {
        avcodec_send_packet(dec.get(), nullptr);
        if (Outcome o = take(); !o.ok()) return o;
    }
    if (next < to || !enc) return Outcome::failed("the video ends before frame " + std::to_string(next));
    avcodec_send_frame(enc.get(), nullptr);
    return receive(*enc, out);
}

} // namespace ffmpeg_xfer
