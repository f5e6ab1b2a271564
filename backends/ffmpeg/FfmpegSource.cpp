// Opening and indexing a file: stream choice, the packet pass and the video's frames (the
// audio packets' sample positions are in FfmpegSourceAudio.cpp).
#include "backends/ffmpeg/FfmpegSource.h"

#include "backends/ffmpeg/FfmpegMemoryMedia.h"
#include "backends/ffmpeg/FfmpegMovSource.h"
#include "backends/ffmpeg/FfmpegPcm.h"
#include "backends/ffmpeg/FfmpegSourceScan.h"
#include "backends/ffmpeg/FfmpegVideoOrder.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fcntl.h>
#include <numeric>
#include <string_view>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace ffmpeg_engine {

namespace {

constexpr size_t kHeadBytes = size_t(64) << 20;
// Consecutive "try again" answers from the demuxer before the scan gives up.
constexpr int kMaxRetries = 200;

// Reads the moov box of a QuickTime/MP4 file once, keeping its bytes in the input for the
// demuxer (which then reads them from memory), and parses its sample tables.
Result<MovTables> readMovTables(FileInput& input) {
    auto readAt = [&](int64_t pos, void* buf, size_t n) { return input.readAt(pos, buf, n); };
    auto where = MovTables::findMoov(readAt, input.size());
    if (!where) return Result<MovTables>::fail(where.error);
    auto bytes = std::make_shared<std::vector<uint8_t>>(size_t(where.value.second));
    if (!input.readAt(where.value.first, bytes->data(), bytes->size()))
        return Result<MovTables>::fail("cannot read the moov box");
    input.keep(where.value.first, bytes);
    return MovTables::parse(std::move(bytes));
}

} // namespace

Result<std::unique_ptr<FileInput>> openInput(const std::string& path) {
    if (isMemoryMedia(path)) return Result<std::unique_ptr<FileInput>>::ok(nullptr);
    return FileInput::open(path);
}

Result<std::shared_ptr<const MediaIndex>> FfmpegSource::open(const std::string& path) { return open(path, Options{}); }

Result<std::shared_ptr<const MediaIndex>> FfmpegSource::open(const std::string& path, Options options) {
    std::string tablesNote;
    if (options.videoOnly && options.useContainerIndex && !isMemoryMedia(path)) {
        auto fromTables = MovVideoSource::open(path);
        if (fromTables || fromTables.cause) return fromTables;
        tablesNote = fromTables.error;
    }
    Scan scan(options, {}, tablesNote);
    auto r = scan.run(path);
    if (r || scan.rescanReason().empty()) return r;
    options.useContainerIndex = false;
    Scan whole(options, scan.rescanReason(), tablesNote);
    return whole.run(path);
}

Result<std::shared_ptr<const MediaIndex>> FfmpegSource::Scan::run(const std::string& path) {
    const auto started = std::chrono::steady_clock::now();
    path_ = path;
    index_->path = path;
    index_->tablesNote = tablesNote_;
    size_t inMemory = 0;
    struct stat st {};
    if (isMemoryMedia(path, &inMemory)) {
        if (inMemory == 0) return R::fail("empty file");
    } else {
        if (path.empty() || ::stat(path.c_str(), &st) != 0) return R::fail("file not found");
        if (!S_ISREG(st.st_mode)) return R::fail("not a regular file");
        if (st.st_size == 0) return R::fail("empty file");
    }

    auto input = openInput(path);
    if (!input) return R::fail("cannot open the file: " + input.error, input.cause);
    input_ = input.value.get();
    if (input_ && options_.useContainerIndex && rescanReason_.empty()) {
        auto tables = readMovTables(*input_);
        if (tables) movTables_ = std::move(tables.value);
        else movError_ = tables.error;
    }
    auto opened = Demuxer::open(path, false, std::move(input.value));
    if (!opened) return R::fail("not a media file FFmpeg can read (" + opened.error + ")", opened.cause);
    demux_ = std::move(opened.value);
    AVFormatContext* ctx = demux_->context();
    index_->container = ctx->iformat->name;
    // Packets the container indexes pass as stored: no parser looks into bytes that may
    // go unread. (Read whole, a file is demuxed as FFmpeg's own program does it.)
    tablesAllowed_ =
        input_ && options_.useContainerIndex && rescanReason_.empty() && ContainerIndexPlan::mayIndex(ctx);
    if (tablesAllowed_) ctx->flags |= AVFMT_FLAG_NOPARSE;
    demux_->arm(kOpenTimeLimit);
    if (const int rc = avformat_find_stream_info(ctx, nullptr); rc < 0)
        return R::fail("not a media file FFmpeg can read (cannot read the streams: " + errorText(rc) + ")",
                       systemCause(rc));
    demux_->arm(kCallTimeLimit);

    std::string error;
    if (!chooseStreams(error)) return R::fail(error);
    planPass();
    readPackets();
    index_->bytesRead = input_ ? input_->bytesRead() : uint64_t(inMemory);
    if (const int e = input_ ? input_->readError() : 0)
        return R::fail(std::string("cannot read the file: ") + std::strerror(e), e);
    if (plan_) {
        rescanReason_ = plan_->verdict();
        if (!rescanReason_.empty()) return R::fail(rescanReason_);
        index_->source = IndexSource::ContainerIndex;
    }

    if (index_->video && !finishVideo()) {
        if (headUnread_) {
            rescanReason_ = "the head of the video stream could not be read";
            return R::fail(rescanReason_);
        }
        if (systemCause_) return R::fail("cannot open the file again to order its pictures", systemCause_);
        index_->video.reset();
    }
    for (size_t i = 0; i < index_->audio.size(); ++i) finishAudio(index_->audio[i], i);
    std::erase_if(index_->audio, [](const AudioTrack& a) { return a.totalSamples <= 0; });
    if (!index_->video && index_->audio.empty()) {
        if (!index_->scanWarning.empty()) return R::fail("no readable frames or samples (" + index_->scanWarning + ")");
        return R::fail("no readable frames or samples");
    }
    index_->openSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return R::ok(index_);
}

bool FfmpegSource::Scan::chooseStreams(std::string& error) {
    AVFormatContext* ctx = demux_->context();
    audioSlot_.assign(ctx->nb_streams, -1);

    // The video stream FFmpeg itself would pick, unless it is only a cover picture.
    int best = av_find_best_stream(ctx, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    auto usableVideo = [&](int i) {
        const AVStream* s = ctx->streams[i];
        return s->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(s->disposition & AV_DISPOSITION_ATTACHED_PIC) &&
               s->codecpar->width > 0 && s->codecpar->height > 0 && avcodec_find_decoder(s->codecpar->codec_id);
    };
    if (best < 0 || !usableVideo(best)) {
        best = -1;
        for (unsigned i = 0; i < ctx->nb_streams && best < 0; ++i)
            if (usableVideo(int(i))) best = int(i);
    }
    if (best >= 0) {
        const AVStream* s = ctx->streams[best];
        VideoTrack v;
        v.stream = best;
        v.codec = copyParameters(s->codecpar);
        v.timeBase = s->time_base;
        v.frameRate = s->avg_frame_rate.num > 0 ? s->avg_frame_rate : s->r_frame_rate;
        v.sar = s->codecpar->sample_aspect_ratio;
        v.width = s->codecpar->width;
        v.height = s->codecpar->height;
        v.pixelFormat = AVPixelFormat(s->codecpar->format);
        const AVCodecDescriptor* desc = avcodec_descriptor_get(s->codecpar->codec_id);
        v.codecIsIntraOnly = desc && (desc->props & AV_CODEC_PROP_INTRA_ONLY);
        if (!v.codec) {
            error = "out of memory";
            return false;
        }
        index_->video = std::move(v);
    }

    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        const AVStream* s = ctx->streams[i];
        const AVCodecParameters* par = s->codecpar;
        if (par->codec_type != AVMEDIA_TYPE_AUDIO || par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0 ||
            !avcodec_find_decoder(par->codec_id))
            continue;
        AudioTrack a;
        a.stream = int(i);
        a.codec = copyParameters(par);
        a.timeBase = s->time_base;
        a.sampleRate = par->sample_rate;
        a.channels = par->ch_layout.nb_channels;
        a.sampleFormat = decoderSampleFormat(par);
        if (!a.codec) {
            error = "out of memory";
            return false;
        }
        audioSlot_[i] = int(index_->audio.size());
        index_->audio.push_back(std::move(a));
    }
    if (!index_->video && index_->audio.empty()) {
        error = "no video or audio stream";
        return false;
    }
    pcmUsable_.resize(index_->audio.size());
    for (size_t i = 0; i < index_->audio.size(); ++i)
        pcmUsable_[i] = pcmLayout(index_->audio[i].codec->codec_id).storedBytes > 0;
    vorbis_.resize(index_->audio.size());
    for (size_t i = 0; i < index_->audio.size(); ++i) {
        const AVCodecParameters* par = index_->audio[i].codec.get();
        if (par->codec_id == AV_CODEC_ID_VORBIS && par->extradata_size > 0)
            vorbis_[i].reset(av_vorbis_parse_init(par->extradata, par->extradata_size));
    }
    pcmRunEnd_.assign(index_->audio.size(), -1);
    for (unsigned i = 0; i < ctx->nb_streams; ++i) {
        bool used = (index_->video && index_->video->stream == int(i)) || audioSlot_[i] >= 0;
        ctx->streams[i]->discard = used ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    return true;
}

// Where the container indexes every packet, the pass reads none of their payloads.
void FfmpegSource::Scan::planPass() {
    if (!rescanReason_.empty()) {
        index_->scanReason = rescanReason_;
        return;
    }
    if (!options_.useContainerIndex) {
        index_->scanReason = "asked to read every packet";
        return;
    }
    if (!tablesAllowed_) {
        index_->scanReason = std::string("the ") + index_->container + " file has no index of every packet it holds";
        return;
    }
    std::vector<int> audio;
    for (const AudioTrack& a : index_->audio) audio.push_back(a.stream);
    const int video = index_->video ? index_->video->stream : -1;
    auto plan = ContainerIndexPlan::make(demux_->context(), video, audio, kHeadLookahead,
                                         movTables_ ? &*movTables_ : nullptr);
    if (!plan) {
        index_->scanReason = plan.error;
        return;
    }
    plan_ = std::move(plan.value);
    index_->indexNote = plan_->videoNote();
    if (!movError_.empty() && !index_->indexNote.empty()) index_->indexNote += " (" + movError_ + ")";
    input_->setHollow(plan_->hollow());
    if (index_->video) index_->video->packets.reserve(plan_->listedCount(index_->video->stream));
    for (AudioTrack& a : index_->audio) a.packets.reserve(plan_->listedCount(a.stream));
}

void FfmpegSource::Scan::readPackets() {
    AVFormatContext* ctx = demux_->context();
    PacketPtr pkt = newPacket();
    if (!pkt) return;
    int retries = 0;
    for (;;) {
        demux_->arm(kCallTimeLimit);
        int rc = av_read_frame(ctx, pkt.get());
        if (rc == AVERROR(EAGAIN)) {
            if (++retries > kMaxRetries) {
                index_->scanWarning = "the demuxer kept asking to try again";
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        retries = 0;
        if (rc < 0) {
            if (rc != AVERROR_EOF) index_->scanWarning = "reading stopped early: " + errorText(rc);
            break;
        }
        const int s = pkt->stream_index;
        const bool hollow = plan_ && input_->isHollow(pkt->pos, pkt->size);
        if (plan_) plan_->meet(pkt.get());
        if (index_->video && s == index_->video->stream)
            addVideoPacket(pkt.get(), hollow);
        else if (s >= 0 && size_t(s) < audioSlot_.size() && audioSlot_[size_t(s)] >= 0)
            addAudioPacket(index_->audio[size_t(audioSlot_[size_t(s)])], pkt.get(), hollow);
        if (plan_ && plan_->vouches(pkt.get())) {
            // The rest of this stream comes from the index: the demuxer skips it.
            ctx->streams[s]->discard = AVDISCARD_ALL;
            fromIndex_.push_back(s);
        }
        if (plan_ && plan_->widenHollow()) input_->setHollow(plan_->hollow());
        av_packet_unref(pkt.get());
        if (fromIndex_.size() == index_->audio.size() + (index_->video ? 1 : 0)) break;
    }
    for (int s : fromIndex_) {
        const bool video = index_->video && s == index_->video->stream;
        AudioTrack* track = video ? nullptr : &index_->audio[size_t(audioSlot_[size_t(s)])];
        for (size_t i = video ? index_->video->packets.size() : track->packets.size(); i < plan_->listedCount(s); ++i) {
            plan_->listedPacket(s, i, pkt.get());
            if (video) addVideoPacket(pkt.get(), true);
            else addAudioPacket(*track, pkt.get(), true);
        }
        plan_->metAll(s);
        av_packet_unref(pkt.get());
    }
}

void FfmpegSource::Scan::addVideoPacket(AVPacket* pkt, bool hollow) {
    VideoTrack& v = *index_->video;
    VideoPacket p;
    p.key = {pkt->pts, pkt->dts, pkt->pos, pkt->size, hollow ? 0 : packetDigest(pkt), !hollow};
    // Containers need not flag every picture of an intra-only codec; each one is a key.
    p.keyFrame = (pkt->flags & AV_PKT_FLAG_KEY) || v.codecIsIntraOnly;
    p.discard = pkt->flags & AV_PKT_FLAG_DISCARD;
    const int d = int(v.packets.size());
    if (p.keyFrame && firstKey_ < 0) firstKey_ = d;
    v.packets.push_back(p);
    const bool keep = (firstKey_ < 0 || d <= firstKey_ + kHeadLookahead) && headBytes_ < kHeadBytes;
    if (keep && !v.codecIsIntraOnly && pkt->buf) { // (packets taken from the index come after the head)
        PacketPtr copy = newPacket();
        if (copy && av_packet_ref(copy.get(), pkt) >= 0) {
            headBytes_ += size_t(pkt->size);
            head_.push_back(std::move(copy));
            headHollow_.push_back(hollow);
        }
    }
}

// The bytes of the head packets the pass left unread, read now that the probe needs them:
// where the container indexes its packets, a packet's payload is the file's bytes at its
// position.
bool FfmpegSource::Scan::readHollowHead() {
    for (size_t i = 0; i < head_.size(); ++i) {
        if (!headHollow_[i]) continue;
        AVPacket* pkt = head_[i].get();
        if (pkt->pos < 0 || av_packet_make_writable(pkt) < 0) return false;
        if (fd_ < 0) fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0 || ::pread(fd_, pkt->data, size_t(pkt->size), pkt->pos) != ssize_t(pkt->size)) return false;
        index_->bytesRead += uint64_t(pkt->size);
        headHollow_[i] = 0;
    }
    return true;
}


// Decodes the whole video stream once to learn its presentation order; only for streams
// whose packets carry no presentation times although the codec reorders pictures.
std::vector<int> FfmpegSource::Scan::decodeOrderOfWholeStream() {
    const VideoTrack& v = *index_->video;
    OrderProbe probe;
    auto input = openInput(path_);
    if (!input) {
        systemCause_ = input.cause;
        return {};
    }
    auto opened = Demuxer::open(path_, true, std::move(input.value));
    if (!opened) systemCause_ = opened.cause;
    if (!opened || !probe.open(v.codec.get())) return {};
    AVFormatContext* ctx = opened.value->context();
    for (unsigned i = 0; i < ctx->nb_streams; ++i)
        ctx->streams[i]->discard = int(i) == v.stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    PacketPtr pkt = newPacket();
    int d = 0;
    while (pkt && d < int(v.packets.size())) {
        opened.value->arm(kCallTimeLimit);
        int rc = av_read_frame(ctx, pkt.get());
        if (rc == AVERROR(EAGAIN)) continue;
        if (rc < 0) break;
        if (pkt->stream_index == v.stream) probe.feed(pkt.get(), d++);
        av_packet_unref(pkt.get());
    }
    probe.finish();
    return probe.outputs;
}

// Turns the packets into frames (FfmpegVideoOrder.h). The order comes from the packets'
// times, or from one decoding pass when they carry none although the codec reorders.
bool FfmpegSource::Scan::finishVideo() {
    VideoTrack& v = *index_->video;
    if (v.packets.empty()) return false;
    const int firstKey = firstKey_ >= 0 ? firstKey_ : 0;
    bool missingPts = false;
    for (const VideoPacket& p : v.packets) missingPts |= !p.discard && p.key.pts == AV_NOPTS_VALUE;
    const AVCodecDescriptor* desc = avcodec_descriptor_get(v.codec->codec_id);
    const bool mayReorder = v.codec->video_delay > 0 || (desc && (desc->props & AV_CODEC_PROP_REORDER));

    PacketOrder order;
    if (missingPts && !v.codecIsIntraOnly && mayReorder) {
        const std::vector<int> outputs = decodeOrderOfWholeStream();
        if (outputs.empty()) return false;
        // The decoder showed what it showed; keys before the first shown picture are moot.
        orderByOutputs(outputs, v.packets.size(), order);
        v.orderFromDecoder = true;
    } else if (orderByTimes(v, firstKey, order)) {
        if (!readHollowHead()) {
            headUnread_ = true;
            return false;
        }
        includeProbed(v, head_, order);
    }
    // Packed B-frames: the decoder's pictures are in step with the packets only when it
    // decodes from the very start, so every frame decodes from there.
    const bool fromStartOnly = hasPackedBFrames(v.codec.get(), head_);
    head_.clear();
    headHollow_.clear();
    return buildFrames(v, order, firstKey, fromStartOnly);
}

} // namespace ffmpeg_engine
