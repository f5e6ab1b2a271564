// Sound sections: the samples of every audio stream from the first sample of the section to
// its end, decoded exactly as FFmpeg decodes them (priming and padding dropped as the codec
// says) and written as one WAV file in the streams' own sample format, their channels in the
// order the material counts them: PCM stays bit for bit what it was, compressed audio is
// written in the format its decoder gives.
#include "backends/ffmpegxfer/XferCommon.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

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

// The source's audio streams in file order: their channels, counted in that order, are the
// material's channels.
std::vector<int> audioStreams(const AVFormatContext& in) {
    std::vector<int> out;
    for (unsigned i = 0; i < in.nb_streams; ++i)
        if (in.streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) out.push_back(int(i));
    return out;
}

class WavOut {
public:
    // The layout is the stream's own when there is one stream; several streams' channels
    // together have no layout but their order.
    Outcome open(const std::string& path, int rate, const AVChannelLayout* layout, int channels, const PcmKind& kind,
                 int rawBits) {
        frameBytes_ = kind.bytes * channels;
        AVStream* st = nullptr;
        if (Outcome o = file_.create(path, "wav", st); !o.ok()) return o;
        st->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
        st->codecpar->codec_id = kind.codec;
        st->codecpar->sample_rate = rate;
        st->codecpar->bits_per_coded_sample = kind.bytes * 8;
        st->codecpar->bits_per_raw_sample = rawBits ? rawBits : kind.bytes * 8;
        st->codecpar->block_align = frameBytes_;
        st->codecpar->bit_rate = int64_t(rate) * frameBytes_ * 8;
        if (layout) {
            if (av_channel_layout_copy(&st->codecpar->ch_layout, layout) < 0)
                return Outcome::failed("no memory for the channel layout");
        } else {
            av_channel_layout_uninit(&st->codecpar->ch_layout);
            st->codecpar->ch_layout.order = AV_CHANNEL_ORDER_UNSPEC;
            st->codecpar->ch_layout.nb_channels = channels;
        }
        st->time_base = AVRational{1, rate};
        return file_.start();
    }

    bool isOpen() const noexcept { return file_.started(); }

    // Writes `count` samples of every channel, interleaved in `data`.
    Outcome write(const uint8_t* data, int count) {
        PacketPtr pkt(av_packet_alloc());
        if (!pkt || av_new_packet(pkt.get(), count * frameBytes_) < 0) return Outcome::failed("no memory for samples");
        std::memcpy(pkt->data, data, size_t(count) * size_t(frameBytes_));
        pkt->pts = pkt->dts = written_;
        pkt->duration = count;
        written_ += count;
        return file_.write(*pkt);
    }
    Outcome finish() { return file_.finish(); }

private:
    OutputFile file_;
    int frameBytes_ = 0;
    int64_t written_ = 0;
};

// One audio stream being decoded: its decoder, its form (taken from its first frame, as
// some decoders learn their channels and rate only then), where its next sample is, and the
// section's samples it has given that are not written yet (its channels interleaved, as
// written).
struct StreamDecode {
    int index = -1;
    CodecPtr dec;
    int channels = 0; // 0 until the first frame
    int rate = 0;
    AVSampleFormat format = AV_SAMPLE_FMT_NONE; // packed
    PcmKind kind{};
    int64_t position = 0; // the sample number of the next decoded sample
    int64_t seekedFrom = 0;
    bool positionFromPts = false;
    std::vector<uint8_t> pending;
};

// Decodes every audio stream and writes the section's samples of all their channels, the
// streams' channels one after the other, as one file.
class SoundSection {
public:
    // seek: linear PCM may be found by its time stamps rather than decoded from the start.
    SoundSection(const Job& job, AVFormatContext& in, bool seek) : job_(job), in_(in), seek_(seek) {}
    // After a failed run: the seek landed past the section's start in some stream, so the
    // section is to be decoded from the file's start.
    bool missedStart() const noexcept { return missedStart_; }

    Outcome run(SoundFormat& format) {
        for (int index : audioStreams(in_))
            if (Outcome o = openDecoder(index); !o.ok()) return o;
        if (streams_.empty()) return Outcome::failed("the source has no sound");
        if (seek_) seekNearFirst();

        PacketPtr pkt(av_packet_alloc());
        frame_.reset(av_frame_alloc());
        if (!pkt || !frame_) return Outcome::failed("no memory for decoding");
        int rc = 0;
        while (!allPastEnd() && (rc = av_read_frame(&in_, pkt.get())) >= 0) {
            StreamDecode* s = streamFor(pkt->stream_index);
            if (s) rc = avcodec_send_packet(s->dec.get(), pkt.get());
            av_packet_unref(pkt.get());
            if (!s) continue;
            if (rc < 0 && rc != AVERROR_INVALIDDATA) return Outcome::failed("decoding the sound", rc);
            if (Outcome o = drain(*s); !o.ok()) return o;
            if (Outcome o = flush(); !o.ok()) return o;
        }
        if (rc < 0 && rc != AVERROR_EOF) return Outcome::failed("reading the sound", rc);
        for (StreamDecode& s : streams_)
            if (s.position < job_.end) {
                avcodec_send_packet(s.dec.get(), nullptr);
                if (Outcome o = drain(s); !o.ok()) return o;
            }
        if (Outcome o = flush(); !o.ok()) return o;
        if (!out_.isOpen() || written_ < job_.end - job_.first)
            return Outcome::failed("the sound ends before the section does");
        format.sampleRate = streams_.front().rate;
        format.bytesPerSample = streams_.front().kind.bytes;
        return out_.finish();
    }

private:
    Outcome openDecoder(int index) {
        const AVStream* st = in_.streams[index];
        const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
        if (!codec) return Outcome::failed("FFmpeg has no decoder for the sound");
        StreamDecode s;
        s.index = index;
        s.dec.reset(avcodec_alloc_context3(codec));
        if (!s.dec || avcodec_parameters_to_context(s.dec.get(), st->codecpar) < 0)
            return Outcome::failed("no memory for the sound decoder");
        s.dec->pkt_timebase = st->time_base;
        if (int rc = avcodec_open2(s.dec.get(), codec, nullptr); rc < 0) return Outcome::failed("opening the decoder", rc);
        streams_.push_back(std::move(s));
        return Outcome::done();
    }

    // The file takes the streams' common rate and sample format, once every stream has
    // given a frame: streams that differ in either cannot share it without converting.
    Outcome openOutput() {
        const StreamDecode& first = streams_.front();
        int channels = 0;
        for (const StreamDecode& s : streams_) {
            if (s.rate != first.rate || s.format != first.format || s.kind.codec != first.kind.codec)
                return Outcome::failed("the sound's streams differ in sample rate or sample format");
            channels += s.channels;
        }
        return out_.open(job_.target, first.rate, streams_.size() == 1 ? &first.dec->ch_layout : nullptr, channels,
                         first.kind, first.dec->bits_per_raw_sample);
    }

    // Takes the stream's form from its first frame; later frames must keep it.
    Outcome formOf(StreamDecode& s, const AVFrame& f) {
        const AVSampleFormat packed = av_get_packed_sample_fmt(AVSampleFormat(f.format));
        if (s.channels == 0) {
            if (f.ch_layout.nb_channels <= 0 || f.sample_rate <= 0) return Outcome::failed("the sound has no channels");
            if (!pcmKindOf(packed, s.dec->bits_per_raw_sample, s.kind))
                return Outcome::failed("the sound's sample format has no WAV form");
            s.channels = f.ch_layout.nb_channels;
            s.rate = f.sample_rate;
            s.format = packed;
        }
        if (f.ch_layout.nb_channels != s.channels || f.sample_rate != s.rate || packed != s.format)
            return Outcome::failed("the sound's format changes within the stream");
        return Outcome::done();
    }

    StreamDecode* streamFor(int index) {
        for (StreamDecode& s : streams_)
            if (s.index == index) return &s;
        return nullptr;
    }
    bool allPastEnd() const {
        for (const StreamDecode& s : streams_)
            if (s.position < job_.end) return false;
        return true;
    }

    // Linear PCM is found by its time stamps; anything else is decoded from its start, as
    // only that counts samples exactly as FFmpeg's own decode does (priming included). The
    // seek is by the first stream; every stream then takes its place from its first frame's
    // time stamp (a stream whose first frame comes after the section's start fails the run,
    // before anything is written: see missedStart). Time stamps coarser than a sample (a
    // Matroska file's milliseconds) cannot place a frame exactly: such files are decoded
    // from the start too.
    void seekNearFirst() {
        for (const StreamDecode& s : streams_) {
            const AVStream& st = *in_.streams[s.index];
            const AVCodecParameters& p = *st.codecpar;
            const AVCodecDescriptor* d = avcodec_descriptor_get(p.codec_id);
            if (!d || std::strncmp(d->name, "pcm_", 4) != 0 || p.sample_rate <= 0 || st.time_base.num <= 0 ||
                int64_t(st.time_base.den) % (int64_t(st.time_base.num) * p.sample_rate) != 0)
                return;
        }
        const AVStream& st = *in_.streams[streams_.front().index];
        const int64_t origin = st.start_time == AV_NOPTS_VALUE ? 0 : st.start_time;
        const int64_t ts = origin + av_rescale_q(job_.first, AVRational{1, st.codecpar->sample_rate}, st.time_base);
        if (av_seek_frame(&in_, streams_.front().index, ts, AVSEEK_FLAG_BACKWARD) < 0) return;
        for (StreamDecode& s : streams_) {
            const AVStream& own = *in_.streams[s.index];
            s.seekedFrom = own.start_time == AV_NOPTS_VALUE ? 0 : own.start_time;
            s.positionFromPts = true;
        }
    }

    Outcome drain(StreamDecode& s) {
        int rc;
        while ((rc = avcodec_receive_frame(s.dec.get(), frame_.get())) >= 0) {
            Outcome o = take(s, *frame_);
            av_frame_unref(frame_.get());
            if (!o.ok()) return o;
        }
        return rc == AVERROR(EAGAIN) || rc == AVERROR_EOF ? Outcome::done() : Outcome::failed("decoding the sound", rc);
    }

    // Keeps the frame's samples that fall in the section, in the form written.
    Outcome take(StreamDecode& s, const AVFrame& f) {
        if (s.positionFromPts && f.pts != AV_NOPTS_VALUE) {
            const AVRational tb = in_.streams[s.index]->time_base;
            s.position = av_rescale_q(f.pts - s.seekedFrom, tb, AVRational{1, f.sample_rate});
            s.positionFromPts = false;
            if (s.position > job_.first) {
                missedStart_ = true;
                return Outcome::failed("the seek passed the section's start");
            }
        }
        if (Outcome o = formOf(s, f); !o.ok()) return o;
        const int64_t from = std::max(s.position, job_.first), to = std::min(s.position + f.nb_samples, job_.end);
        const int in = av_get_bytes_per_sample(AVSampleFormat(f.format));
        const bool planar = av_sample_fmt_is_planar(AVSampleFormat(f.format));
        for (int64_t i = from - s.position; i < to - s.position; ++i)
            for (int c = 0; c < s.channels; ++c) {
                const uint8_t* p = planar ? f.extended_data[c] + size_t(i) * size_t(in)
                                          : f.extended_data[0] + (size_t(i) * size_t(s.channels) + size_t(c)) * size_t(in);
                s.pending.insert(s.pending.end(), p + s.kind.skipBytes, p + s.kind.skipBytes + s.kind.bytes);
            }
        s.position += f.nb_samples;
        return Outcome::done();
    }

    // Writes the samples that every stream has given, interleaving the streams' channels.
    Outcome flush() {
        size_t count = SIZE_MAX;
        for (const StreamDecode& s : streams_)
            count = s.channels ? std::min(count, s.pending.size() / bytesOf(s)) : 0;
        if (count == 0) return Outcome::done();
        if (!out_.isOpen())
            if (Outcome o = openOutput(); !o.ok()) return o;
        std::vector<uint8_t> buffer;
        if (streams_.size() == 1) {
            buffer.swap(streams_.front().pending);
        } else {
            buffer.reserve(count * frameBytes());
            for (size_t i = 0; i < count; ++i)
                for (const StreamDecode& s : streams_) {
                    const size_t n = bytesOf(s);
                    buffer.insert(buffer.end(), s.pending.begin() + ptrdiff_t(i * n), s.pending.begin() + ptrdiff_t((i + 1) * n));
                }
            for (StreamDecode& s : streams_)
                s.pending.erase(s.pending.begin(), s.pending.begin() + ptrdiff_t(count * bytesOf(s)));
        }
        if (Outcome o = out_.write(buffer.data(), int(count)); !o.ok()) return o;
        written_ += int64_t(count);
        if (!job_.progress(double(written_) / double(job_.end - job_.first))) return Outcome::cancelled();
        return Outcome::done();
    }
    size_t frameBytes() const {
        size_t n = 0;
        for (const StreamDecode& s : streams_) n += bytesOf(s);
        return n;
    }
    // Bytes of one sample of all the stream's channels, as written.
    static size_t bytesOf(const StreamDecode& s) { return size_t(s.channels) * size_t(s.kind.bytes); }

    const Job& job_;
    AVFormatContext& in_;
    std::vector<StreamDecode> streams_;
    FramePtr frame_;
    WavOut out_;
    int64_t written_ = 0;
    const bool seek_;
    bool missedStart_ = false;
};

} // namespace

Outcome writeSoundSection(const Job& job, SoundFormat& format) {
    for (bool seek : {true, false}) {
        InputPtr in;
        if (Outcome o = openInput(job.source, in); !o.ok()) return o;
        for (unsigned i = 0; i < in->nb_streams; ++i)
            if (in->streams[i]->codecpar->codec_type != AVMEDIA_TYPE_AUDIO) in->streams[i]->discard = AVDISCARD_ALL;
        SoundSection section(job, *in, seek);
        Outcome o = section.run(format);
        if (!section.missedStart()) return o;
    }
    return Outcome::failed("the section's start cannot be found");
}

} // namespace ffmpeg_xfer
