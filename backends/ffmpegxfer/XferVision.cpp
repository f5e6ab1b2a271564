// Vision sections, frame-exact. Intra-coded video (ProRes, DNxHD, MJPEG, FFV1, ...) is
// copied packet for packet. Long-GOP video is copied from the first key frame within the
// section on; the frames before it (the head) are re-encoded, as are the frames after the
// last point where the copy can stop cleanly (a tail whose pictures need references from
// beyond the section's end). Re-encoded runs and copied packets meet at key frames, each
// run carrying its own parameter sets in band, so a decoder reads the whole file as one
// stream. Only the video stream is written.
#include "backends/ffmpegxfer/XferCommon.h"
#include "backends/ffmpegxfer/XferEncode.h"

#include <algorithm>
#include <cmath>

namespace ffmpeg_xfer {
namespace {

// The section's geometry in the source stream's time base.
struct Timeline {
    int64_t origin = 0; // presentation time of frame 0
    AVRational rate{0, 1};
    AVRational timeBase{0, 1};

    int64_t frameOf(int64_t pts) const {
        if (pts == AV_NOPTS_VALUE) return -1;
        return int64_t(std::llround(double(pts - origin) * av_q2d(timeBase) * av_q2d(rate)));
    }
    int64_t ptsOf(int64_t frame) const { return origin + av_rescale_q(frame, av_inv_q(rate), timeBase); }
};

class Muxer {
public:
    Outcome open(const std::string& path, const std::string& muxer, const AVStream& source,
                 const AVCodecParameters& par) {
        AVStream* st = nullptr;
        if (Outcome o = file_.create(path, muxer, st); !o.ok()) return o;
        if (avcodec_parameters_copy(st->codecpar, &par) < 0) return Outcome::failed("no memory for the stream");
        // The source's codec tag where the container knows it for the codec (it may carry the
        // codec's profile, as ProRes's does); the container's choice otherwise.
        const AVOutputFormat* format = av_guess_format(muxer.c_str(), nullptr, nullptr);
        const AVCodecTag* const* tags = format ? format->codec_tag : nullptr;
        if (!tags || av_codec_get_id(tags, par.codec_tag) != par.codec_id) st->codecpar->codec_tag = 0;
        st->time_base = source.time_base;
        st->avg_frame_rate = source.avg_frame_rate;
        st->r_frame_rate = source.r_frame_rate;
        st->sample_aspect_ratio = source.sample_aspect_ratio;
        inBase_ = source.time_base;
        return file_.start();
    }
    // Writes the packet with its time stamps moved back by shift (source time base).
    Outcome write(AVPacket& pkt, int64_t shift) {
        if (pkt.pts != AV_NOPTS_VALUE) pkt.pts -= shift;
        if (pkt.dts != AV_NOPTS_VALUE) pkt.dts -= shift;
        av_packet_rescale_ts(&pkt, inBase_, file_.stream().time_base);
        return file_.write(pkt);
    }
    Outcome finish() { return file_.finish(); }

private:
    OutputFile file_;
    AVRational inBase_{1, 1};
};

// Intra-coded frames: every packet is its own picture, so the section's packets are copied.
Outcome copyIntra(const Job& job, AVFormatContext& in, int vs, const Timeline& t, Muxer& out, VisionReport& report) {
    if (int rc = av_seek_frame(&in, vs, t.ptsOf(job.first), AVSEEK_FLAG_BACKWARD); rc < 0)
        av_seek_frame(&in, vs, t.origin, AVSEEK_FLAG_BACKWARD);
    PacketPtr pkt(av_packet_alloc());
    if (!pkt) return Outcome::failed("no memory for a packet");
    const int64_t shift = t.ptsOf(job.first);
    int rc;
    while ((rc = av_read_frame(&in, pkt.get())) >= 0) {
        const bool mine = pkt->stream_index == vs;
        const int64_t frame = mine ? t.frameOf(pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts) : -1;
        if (mine && frame >= job.end) break;
        if (mine && frame >= job.first) {
            if (Outcome o = out.write(*pkt, shift); !o.ok()) return o;
            if (!job.progress(double(++report.copiedFrames) / double(job.end - job.first))) return Outcome::cancelled();
        }
        av_packet_unref(pkt.get());
    }
    if (rc < 0 && rc != AVERROR_EOF) return Outcome::failed("reading the video", rc);
    if (report.copiedFrames != job.end - job.first)
        return Outcome::failed("the source holds " + std::to_string(report.copiedFrames) + " of the section's " +
                               std::to_string(job.end - job.first) + " frames");
    return out.finish();
}

// Reads the packets from the last key frame at or before the section's first frame up to
// the last one whose picture can lie within the section.
Outcome readSection(const Job& job, AVFormatContext& in, int vs, const Timeline& t, std::vector<SourcePacket>& out) {
    const int64_t first = t.ptsOf(job.first), end = t.ptsOf(job.end);
    // Seeking may land after a key frame that has no index entry: step further back until
    // the first packet is a key frame showing a picture no later than the section's first.
    for (int64_t back : {int64_t(0), int64_t(5), int64_t(60), int64_t(-1)}) {
        out.clear();
        const int64_t target = back < 0 ? INT64_MIN : first - av_rescale_q(back, AVRational{1, 1}, t.timeBase);
        if (back < 0) avformat_seek_file(&in, vs, INT64_MIN, t.origin, t.origin, 0);
        else if (av_seek_frame(&in, vs, target, AVSEEK_FLAG_BACKWARD) < 0) continue;
        PacketPtr pkt(av_packet_alloc());
        int rc;
        while (pkt && (rc = av_read_frame(&in, pkt.get())) >= 0) {
            if (pkt->stream_index != vs) {
                av_packet_unref(pkt.get());
                continue;
            }
            if (pkt->dts != AV_NOPTS_VALUE && pkt->dts >= end) break;
            SourcePacket p;
            p.frame = t.frameOf(pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts);
            p.key = pkt->flags & AV_PKT_FLAG_KEY;
            p.packet = std::move(pkt);
            out.push_back(std::move(p));
            pkt.reset(av_packet_alloc());
        }
        if (!pkt) return Outcome::failed("no memory for packets");
        if (!out.empty() && out.front().key && out.front().frame <= job.first) return Outcome::done();
    }
    return Outcome::failed("no key frame found before the section");
}

// The plan of a long-GOP section: head [first, copyFrom) re-encoded; the packets of decode
// indices [key, copyEnd) that show [copyFrom, copyTo) copied; tail [copyTo, end) re-encoded,
// decoding from packet tailStart.
struct Plan {
    size_t key = 0, copyEnd = 0, tailStart = 0;
    int64_t copyFrom = 0, copyTo = 0;
};

// The frames that copying packets [key, stop) shows, from `from` on: a run [from, to) when
// they form one within the section, with nothing outside it among them that a copied
// picture might need. (Pictures shown before the key frame but decoded after it, the
// leading pictures of an open group, are left out: later pictures never refer to them.)
bool copyRun(const std::vector<SourcePacket>& p, size_t key, size_t stop, int64_t from, int64_t end, int64_t& to) {
    std::vector<int64_t> frames;
    for (size_t i = key; i < stop; ++i) {
        if (p[i].frame < from) continue;
        if (p[i].frame >= end) return false;
        frames.push_back(p[i].frame);
    }
    std::sort(frames.begin(), frames.end());
    for (size_t i = 0; i < frames.size(); ++i)
        if (frames[i] != from + int64_t(i)) return false;
    to = from + int64_t(frames.size());
    return !frames.empty();
}

Plan planSection(const Job& job, const std::vector<SourcePacket>& p) {
    Plan plan;
    plan.copyFrom = plan.copyTo = job.end; // nothing copied: all re-encoded as the head
    for (size_t i = 0; i < p.size(); ++i)
        if (p[i].key && p[i].frame >= job.first && p[i].frame < job.end) {
            plan.key = i;
            plan.copyFrom = p[i].frame;
            break;
        }
    if (plan.copyFrom == job.end) return plan;
    // The copy stops at the end of what was read if that is clean, else before the latest
    // key frame where it is.
    std::vector<size_t> stops{p.size()};
    for (size_t i = p.size(); i-- > plan.key + 1;)
        if (p[i].key && p[i].frame > plan.copyFrom) stops.push_back(i);
    for (size_t stop : stops) {
        if (!copyRun(p, plan.key, stop, plan.copyFrom, job.end, plan.copyTo)) continue;
        plan.copyEnd = stop;
        // The tail decodes from the last key frame showing a picture no later than its first.
        plan.tailStart = plan.key;
        for (size_t i = plan.key; i < stop; ++i)
            if (p[i].key && p[i].frame <= plan.copyTo) plan.tailStart = i;
        if (stop < p.size() && p[stop].frame <= plan.copyTo) plan.tailStart = stop;
        return plan;
    }
    plan.copyFrom = plan.copyTo = job.end;
    return plan;
}

// Copied packets of an MP4-style H.264 or HEVC stream go through the filter that puts the
// parameter sets in band before each key frame, like the re-encoded runs carry theirs.
Outcome inBandFilter(const AVStream& st, BsfPtr& out) {
    const AVCodecParameters& par = *st.codecpar;
    const char* name = par.codec_id == AV_CODEC_ID_H264 ? "h264_mp4toannexb"
                       : par.codec_id == AV_CODEC_ID_HEVC ? "hevc_mp4toannexb"
                                                           : nullptr;
    if (!name || par.extradata_size < 1 || par.extradata[0] != 1) return Outcome::done();
    AVBSFContext* bsf = nullptr;
    if (int rc = av_bsf_alloc(av_bsf_get_by_name(name), &bsf); rc < 0) return Outcome::failed(name, rc);
    out.reset(bsf);
    avcodec_parameters_copy(bsf->par_in, &par);
    bsf->time_base_in = st.time_base;
    if (int rc = av_bsf_init(bsf); rc < 0) return Outcome::failed(name, rc);
    return Outcome::done();
}

class LongGopSection {
public:
    LongGopSection(const Job& job, AVFormatContext& in, int vs, const Timeline& t, VisionReport& report)
        : job_(job), in_(in), vs_(vs), t_(t), report_(report) {}

    Outcome run(const std::string& path, const std::string& muxer) {
        const AVStream& st = *in_.streams[vs_];
        if (Outcome o = readSection(job_, in_, vs_, t_, packets_); !o.ok()) return o;
        const Plan plan = planSection(job_, packets_);
        const bool reencodes = plan.copyFrom > job_.first || plan.copyTo < job_.end;
        BsfPtr bsf;
        if (reencodes)
            if (Outcome o = inBandFilter(st, bsf); !o.ok()) return o;
        if (Outcome o = out_.open(path, muxer, st, bsf ? *bsf->par_out : *st.codecpar); !o.ok()) return o;
        if (plan.copyFrom < plan.copyTo) {
            const AVPacket& k = *packets_[plan.key].packet;
            delay_ = k.pts != AV_NOPTS_VALUE && k.dts != AV_NOPTS_VALUE ? k.pts - k.dts : 0;
        }
        if (Outcome o = encodeRun(0, job_.first, plan.copyFrom); !o.ok()) return o;
        if (Outcome o = copy(plan, bsf.get()); !o.ok()) return o;
        if (Outcome o = encodeRun(plan.tailStart, plan.copyTo, job_.end); !o.ok()) return o;
        return out_.finish();
    }

private:
    bool progress() {
        const int64_t done = report_.copiedFrames + report_.encodedFrames;
        return job_.progress(double(done) / double(job_.end - job_.first));
    }

    // Writes a packet of a re-encoded run, or of the copy, keeping decode times increasing:
    // a run's decode times trail its presentation times by the copied stream's reorder delay.
    Outcome write(AVPacket& pkt, bool encoded) {
        if (encoded && pkt.pts != AV_NOPTS_VALUE) pkt.dts = std::min(pkt.pts, std::max(pkt.pts - delay_, lastDts_ + 1));
        if (pkt.dts != AV_NOPTS_VALUE) lastDts_ = pkt.dts;
        return out_.write(pkt, t_.ptsOf(job_.first));
    }

    Outcome encodeRun(size_t start, int64_t from, int64_t to) {
        if (from >= to) return Outcome::done();
        RunEncoder encoder(
            *in_.streams[vs_], [this](int64_t pts) { return t_.frameOf(pts); },
            [this](int64_t frame) { return t_.ptsOf(frame); });
        EncodedRun run;
        Outcome o = encoder.encode(packets_, start, from, to, [this] {
            ++report_.encodedFrames;
            return progress();
        }, run);
        if (!o.ok()) return o;
        for (PacketPtr& p : run.packets)
            if (Outcome w = write(*p, true); !w.ok()) return w;
        return Outcome::done();
    }

    Outcome copy(const Plan& plan, AVBSFContext* bsf) {
        for (size_t i = plan.key; plan.copyFrom < plan.copyTo && i < plan.copyEnd; ++i) {
            SourcePacket& p = packets_[i];
            if (p.frame < plan.copyFrom || p.frame >= plan.copyTo) continue;
            if (!bsf) {
                if (Outcome o = write(*p.packet, false); !o.ok()) return o;
            } else {
                // The filter takes the packet it is given; the tail may still decode this one.
                PacketPtr filtered(av_packet_clone(p.packet.get()));
                if (!filtered) return Outcome::failed("no memory for a packet");
                if (int rc = av_bsf_send_packet(bsf, filtered.get()); rc < 0) return Outcome::failed("filtering", rc);
                while (filtered && av_bsf_receive_packet(bsf, filtered.get()) >= 0) {
                    if (Outcome o = write(*filtered, false); !o.ok()) return o;
                    av_packet_unref(filtered.get());
                }
            }
            ++report_.copiedFrames;
            if (!progress()) return Outcome::cancelled();
        }
        return Outcome::done();
    }

    const Job& job_;
    AVFormatContext& in_;
    const int vs_;
    const Timeline& t_;
    VisionReport& report_;
    std::vector<SourcePacket> packets_;
    Muxer out_;
    int64_t delay_ = 0;
    int64_t lastDts_ = INT64_MIN / 2;
};

} // namespace

Outcome writeVisionSection(const Job& job, const std::string& muxer, VisionReport& report) {
    InputPtr in;
    if (Outcome o = openInput(job.source, in); !o.ok()) return o;
    const int vs = av_find_best_stream(in.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (vs < 0) return Outcome::failed("the source has no video");
    for (unsigned i = 0; i < in->nb_streams; ++i)
        if (int(i) != vs) in->streams[i]->discard = AVDISCARD_ALL;
    const AVStream& st = *in->streams[vs];
    Timeline t;
    t.rate = st.avg_frame_rate.num ? st.avg_frame_rate : st.r_frame_rate;
    t.timeBase = st.time_base;
    t.origin = st.start_time == AV_NOPTS_VALUE ? 0 : st.start_time;
    if (!t.rate.num || !t.rate.den) return Outcome::failed("the video has no frame rate");
    report.width = st.codecpar->width;
    report.height = st.codecpar->height;
    report.frameRate = t.rate;

    const AVCodecDescriptor* d = avcodec_descriptor_get(st.codecpar->codec_id);
    if (d && (d->props & AV_CODEC_PROP_INTRA_ONLY)) {
        Muxer out;
        if (Outcome o = out.open(job.target, muxer, st, *st.codecpar); !o.ok()) return o;
        return copyIntra(job, *in, vs, t, out, report);
    }
    return LongGopSection(job, *in, vs, t, report).run(job.target, muxer);
}

} // namespace ffmpeg_xfer
