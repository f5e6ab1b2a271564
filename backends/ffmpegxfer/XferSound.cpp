// Sound sections: the samples of one audio stream from the first sample of the section to
// its end, decoded exactly as FFmpeg decodes them (priming and padding dropped as the codec
// says) and written as a WAV file in the stream's own sample format: PCM stays bit for bit
// what it was, compressed audio is written in the format its decoder gives.
#include "backends/ffmpegxfer/XferCommon.h"

#include <algorithm>
#include <cstring>

namespace ffmpeg_xfer {
namespace {

struct PcmKind {
    AVCodecID codec;
    int bytes;     // bytes per sample as written
    int skipBytes; // low bytes of each decoded sample dropped (24-bit audio decoded into 32 bits)
};

bool pcmKindOf(AVSampleFormat format, int rawBits, PcmKind& out) {
    switch (av_get_packed_sample_fmt(format)) {
    case AV_SAMPLE_FMT_U8: out = {AV_CODEC_ID_PCM_U8, 1, 0}; return true;
    case AV_SAMPLE_FMT_S16: out = {AV_CODEC_ID_PCM_S16LE, 2, 0}; return true;
    case AV_SAMPLE_FMT_S32:
        out = rawBits == 24 ? PcmKind{AV_CODEC_ID_PCM_S24LE, 3, 1} : PcmKind{AV_CODEC_ID_PCM_S32LE, 4, 0};
        return true;
    case AV_SAMPLE_FMT_FLT: out = {AV_CODEC_ID_PCM_F32LE, 4, 0}; return true;
    case AV_SAMPLE_FMT_DBL: out = {AV_CODEC_ID_PCM_F64LE, 8, 0}; return true;
    default: return false;
    }
}

// The stream that holds the channel (1-based, counting the audio streams' channels in
// order), or -1.
int streamOfChannel(const AVFormatContext& in, unsigned channel) {
    unsigned before = 0;
    for (unsigned i = 0; i < in.nb_streams; ++i) {
        const AVCodecParameters* p = in.streams[i]->codecpar;
        if (p->codec_type != AVMEDIA_TYPE_AUDIO) continue;
        const unsigned n = unsigned(p->ch_layout.nb_channels);
        if (channel > before && channel <= before + n) return int(i);
        before += n;
    }
    return -1;
}

class WavOut {
public:
    Outcome open(const std::string& path, const AVCodecContext& dec, const PcmKind& kind, int rawBits) {
        kind_ = kind;
        channels_ = dec.ch_layout.nb_channels;
        AVStream* st = nullptr;
        if (Outcome o = file_.create(path, "wav", st); !o.ok()) return o;
        st->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        st->codecpar->codec_id = kind.codec;
        st->codecpar->sample_rate = dec.sample_rate;
        st->codecpar->bits_per_coded_sample = kind.bytes * 8;
        st->codecpar->bits_per_raw_sample = rawBits ? rawBits : kind.bytes * 8;
        st->codecpar->block_align = kind.bytes * channels_;
        st->codecpar->bit_rate = int64_t(dec.sample_rate) * kind.bytes * 8 * channels_;
        if (av_channel_layout_copy(&st->codecpar->ch_layout, &dec.ch_layout) < 0)
            return Outcome::failed("no memory for the channel layout");
        st->time_base = AVRational{1, dec.sample_rate};
        return file_.start();
    }
    bool isOpen() const noexcept { return file_.started(); }

    // Writes samples [from, from + count) of the frame, interleaved.
    Outcome write(const AVFrame& frame, int from, int count) {
        const int in = av_get_bytes_per_sample(AVSampleFormat(frame.format));
        const bool planar = av_sample_fmt_is_planar(AVSampleFormat(frame.format));
        PacketPtr pkt(av_packet_alloc());
        if (!pkt || av_new_packet(pkt.get(), count * channels_ * kind_.bytes) < 0)
            return Outcome::failed("no memory for samples");
        uint8_t* out = pkt->data;
        for (int i = from; i < from + count; ++i)
            for (int c = 0; c < channels_; ++c) {
                const uint8_t* s = planar ? frame.extended_data[c] + size_t(i) * in
                                          : frame.extended_data[0] + (size_t(i) * channels_ + c) * in;
                std::memcpy(out, s + kind_.skipBytes, size_t(kind_.bytes));
                out += kind_.bytes;
            }
        pkt->pts = pkt->dts = written_;
        pkt->duration = count;
        written_ += count;
        return file_.write(*pkt);
    }
    Outcome finish() { return file_.finish(); }

private:
    OutputFile file_;
    PcmKind kind_{};
    int channels_ = 0;
    int64_t written_ = 0;
};

// Decodes the stream and writes the section's samples.
class SoundSection {
public:
    SoundSection(const Job& job, AVFormatContext& in, int stream) : job_(job), in_(in), stream_(stream) {}

    Outcome run(SoundFormat& format) {
        const AVStream* st = in_.streams[stream_];
        const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
        if (!codec) return Outcome::failed("FFmpeg has no decoder for the sound");
        dec_.reset(avcodec_alloc_context3(codec));
        if (!dec_ || avcodec_parameters_to_context(dec_.get(), st->codecpar) < 0)
            return Outcome::failed("no memory for the sound decoder");
        dec_->pkt_timebase = st->time_base;
        if (int rc = avcodec_open2(dec_.get(), codec, nullptr); rc < 0) return Outcome::failed("opening the decoder", rc);
        seekNearFirst(*st);

        PacketPtr pkt(av_packet_alloc());
        frame_.reset(av_frame_alloc());
        if (!pkt || !frame_) return Outcome::failed("no memory for decoding");
        int rc = 0;
        while (position_ < job_.end && (rc = av_read_frame(&in_, pkt.get())) >= 0) {
            if (pkt->stream_index == stream_) rc = avcodec_send_packet(dec_.get(), pkt.get());
            av_packet_unref(pkt.get());
            if (rc < 0 && rc != AVERROR_INVALIDDATA) return Outcome::failed("decoding the sound", rc);
            if (Outcome o = drain(); !o.ok()) return o;
        }
        if (rc < 0 && rc != AVERROR_EOF) return Outcome::failed("reading the sound", rc);
        if (position_ < job_.end) {
            avcodec_send_packet(dec_.get(), nullptr);
            if (Outcome o = drain(); !o.ok()) return o;
        }
        if (!out_.isOpen() || written_ < job_.end - job_.first)
            return Outcome::failed("the sound ends before the section does");
        format.sampleRate = dec_->sample_rate;
        format.bytesPerSample = kind_.bytes;
        return out_.finish();
    }

private:
    // Linear PCM is found by its time stamps; anything else is decoded from its start, as
    // only that counts samples exactly as FFmpeg's own decode does (priming included).
    void seekNearFirst(const AVStream& st) {
        const AVCodecDescriptor* d = avcodec_descriptor_get(st.codecpar->codec_id);
        if (!d || std::strncmp(d->name, "pcm_", 4) != 0 || st.codecpar->sample_rate <= 0) return;
        const int64_t origin = st.start_time == AV_NOPTS_VALUE ? 0 : st.start_time;
        const int64_t ts = origin + av_rescale_q(job_.first, AVRational{1, st.codecpar->sample_rate}, st.time_base);
        if (av_seek_frame(&in_, stream_, ts, AVSEEK_FLAG_BACKWARD) >= 0) {
            seekedFrom_ = origin;
            positionFromPts_ = true;
        }
    }

    Outcome drain() {
        int rc;
        while ((rc = avcodec_receive_frame(dec_.get(), frame_.get())) >= 0) {
            Outcome o = take(*frame_);
            av_frame_unref(frame_.get());
            if (!o.ok()) return o;
        }
        return rc == AVERROR(EAGAIN) || rc == AVERROR_EOF ? Outcome::done() : Outcome::failed("decoding the sound", rc);
    }

    Outcome take(const AVFrame& f) {
        if (positionFromPts_ && f.pts != AV_NOPTS_VALUE) {
            const AVRational tb = in_.streams[stream_]->time_base;
            position_ = av_rescale_q(f.pts - seekedFrom_, tb, AVRational{1, f.sample_rate});
            positionFromPts_ = false;
        }
        const int64_t from = std::max(position_, job_.first), to = std::min(position_ + f.nb_samples, job_.end);
        if (to > from) {
            if (!out_.isOpen()) {
                if (!pcmKindOf(AVSampleFormat(f.format), dec_->bits_per_raw_sample, kind_))
                    return Outcome::failed("the sound's sample format has no WAV form");
                if (Outcome o = out_.open(job_.target, *dec_, kind_, dec_->bits_per_raw_sample); !o.ok()) return o;
            }
            if (Outcome o = out_.write(f, int(from - position_), int(to - from)); !o.ok()) return o;
            written_ += to - from;
            if (!job_.progress(double(written_) / double(job_.end - job_.first))) return Outcome::cancelled();
        }
        position_ += f.nb_samples;
        return Outcome::done();
    }

    const Job& job_;
    AVFormatContext& in_;
    const int stream_;
    CodecPtr dec_;
    FramePtr frame_;
    WavOut out_;
    PcmKind kind_{};
    int64_t position_ = 0; // the sample number of the next decoded sample
    int64_t written_ = 0;
    int64_t seekedFrom_ = 0;
    bool positionFromPts_ = false;
};

} // namespace

Outcome writeSoundSection(const Job& job, SoundFormat& format) {
    InputPtr in;
    if (Outcome o = openInput(job.source, in); !o.ok()) return o;
    const int stream = streamOfChannel(*in, job.channel);
    if (stream < 0) return Outcome::failed("the source has no sound channel " + std::to_string(job.channel));
    for (unsigned i = 0; i < in->nb_streams; ++i)
        if (int(i) != stream) in->streams[i]->discard = AVDISCARD_ALL;
    return SoundSection(job, *in, stream).run(format);
}

} // namespace ffmpeg_xfer
