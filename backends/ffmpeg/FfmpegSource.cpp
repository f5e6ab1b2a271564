// Opening and indexing a file: stream choice, the packet scan, the frame order and key
// packets of the video stream, and the sample positions of each audio stream.
#include "backends/ffmpeg/FfmpegSource.h"

#include "backends/ffmpeg/FfmpegContainerIndex.h"
#include "backends/ffmpeg/FfmpegFileInput.h"
#include "backends/ffmpeg/FfmpegMemoryMedia.h"
#include "backends/ffmpeg/FfmpegPcm.h"

extern "C" {
#include <libavcodec/vorbis_parser.h>
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

// Packets after the first key packet kept in memory for the head probe (below).
constexpr int kHeadLookahead = 48;
constexpr size_t kHeadBytes = size_t(64) << 20;
// Consecutive "try again" answers from the demuxer before the scan gives up.
constexpr int kMaxRetries = 200;

uint32_t readLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// The demuxer's input for path: none for media held in memory (the demuxer reads it from
// there), else a FileInput.
Result<std::unique_ptr<FileInput>> openInput(const std::string& path) {
    if (isMemoryMedia(path)) return Result<std::unique_ptr<FileInput>>::ok(nullptr);
    return FileInput::open(path);
}

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

// Samples (at 48 kHz) in an Opus packet, from its table-of-contents byte (RFC 6716, 3.1).
int opusSamples(const uint8_t* data, int size) {
    if (size < 1) return 0;
    static constexpr int kSilk[] = {480, 960, 1920, 2880};
    static constexpr int kCelt[] = {120, 240, 480, 960};
    const int config = data[0] >> 3;
    int frame;
    if (config < 12) frame = kSilk[config & 3];
    else if (config < 16) frame = (config & 1) ? 960 : 480;
    else frame = kCelt[config & 3];
    int frames;
    switch (data[0] & 3) {
    case 0: frames = 1; break;
    case 1:
    case 2: frames = 2; break;
    default: frames = size >= 2 ? (data[1] & 0x3F) : 0; break;
    }
    return frame * frames;
}

// Samples the decoder makes of one packet, before any trimming.
int audioPacketSamples(const AVCodecParameters* par, AVRational tb, const AVPacket* pkt) {
    if (par->codec_id == AV_CODEC_ID_OPUS) {
        int n = opusSamples(pkt->data, pkt->size);
        if (n > 0) return n;
    }
    // Exact for fixed-size frames (AAC, MP3, AC-3, PCM...), whatever the container says.
    int n = av_get_audio_frame_duration2(const_cast<AVCodecParameters*>(par), pkt->size);
    if (n > 0) return n;
    if (pkt->duration > 0 && par->sample_rate > 0)
        return int(av_rescale_q(pkt->duration, tb, AVRational{1, par->sample_rate}));
    return 0;
}

// How many packets before the wanted one a decoder needs to be in the same state as after
// decoding from the start: overlapped transforms need one, MP3's bit reservoir reaches back
// up to 511 bytes, Opus asks for 80 ms.
int prerollPacketsFor(const AVCodecParameters* par, int typicalSamples) {
    switch (par->codec_id) {
    case AV_CODEC_ID_FLAC:
    case AV_CODEC_ID_ALAC:
    case AV_CODEC_ID_WAVPACK:
        return 0;
    case AV_CODEC_ID_MP3:
        return 10;
    case AV_CODEC_ID_OPUS: {
        int preroll = std::max(par->seek_preroll, 3840);
        int per = std::max(typicalSamples, 120);
        return (preroll + per - 1) / per + 1;
    }
    case AV_CODEC_ID_AAC:
        return 3;
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
    case AV_CODEC_ID_MP2:
    case AV_CODEC_ID_VORBIS:
        return 2;
    default:
        // PCM needs none; anything else gets a few packets to be safe.
        return std::string_view(avcodec_get_name(par->codec_id)).starts_with("pcm_") ? 0 : 4;
    }
}

// MPEG-4 Part 2 written by DivX/Xvid in "packed" mode stores a B-frame inside the packet
// of the following P-frame and sends an empty placeholder later; the decoder then shows
// pictures one packet late, and where that shift starts depends on where decoding began.
// Such streams say so in their user data ("DivX503b1393p": the trailing 'p').
bool hasPackedBFrames(const AVCodecParameters* par, const std::vector<PacketPtr>& head) {
    if (par->codec_id != AV_CODEC_ID_MPEG4) return false;
    static constexpr char kTag[] = "DivX";
    for (size_t i = 0; i < head.size() && i < 8; ++i) {
        const uint8_t* data = head[i]->data;
        const int size = head[i]->size;
        for (int at = 0; at + 4 < size; ++at) {
            if (std::memcmp(data + at, kTag, 4) != 0) continue;
            int k = at + 4;
            while (k < size && (std::isdigit(data[k]) || data[k] == 'b')) ++k;
            if (k < size && data[k] == 'p') return true;
        }
    }
    return false;
}

// Sorts items that are nearly in order already (pictures in decode order, which
// reordering moves by a few places) by a strict total order: by insertion while that
// stays cheap, else by a full sort.
template <class Less> void sortNearlySorted(std::vector<int>& items, Less less) {
    const size_t budget = 16 * items.size() + 64;
    size_t moves = 0;
    for (size_t i = 1; i < items.size(); ++i) {
        const int x = items[i];
        size_t j = i;
        for (; j > 0 && less(x, items[j - 1]) && moves < budget; --j, ++moves) items[j] = items[j - 1];
        items[j] = x;
        if (moves >= budget) {
            std::sort(items.begin(), items.end(), less);
            return;
        }
    }
}

// Decodes packets with a single-threaded decoder, their pts replaced by their decode
// index, and records which packets' pictures come out and in what order.
class OrderProbe {
public:
    bool open(const AVCodecParameters* par) {
        auto r = openDecoder(par, Threading::Single, 1);
        if (!r) return false;
        ctx_ = std::move(r.value);
        frame_ = newFrame();
        return frame_ != nullptr;
    }
    void feed(AVPacket* pkt, int decodeIndex) {
        pkt->pts = decodeIndex;
        pkt->dts = AV_NOPTS_VALUE;
        for (int tries = 0; tries < 2; ++tries) {
            int rc = avcodec_send_packet(ctx_.get(), pkt);
            receive();
            if (rc != AVERROR(EAGAIN)) break;
        }
    }
    void finish() {
        avcodec_send_packet(ctx_.get(), nullptr);
        receive();
    }
    std::vector<int> outputs;

private:
    void receive() {
        while (avcodec_receive_frame(ctx_.get(), frame_.get()) >= 0) {
            if (frame_->pts != AV_NOPTS_VALUE) outputs.push_back(int(frame_->pts));
            av_frame_unref(frame_.get());
        }
    }
    CodecContextPtr ctx_;
    FramePtr frame_;
};

} // namespace

class FfmpegSource::Scan {
public:
    // rescanReason: why an earlier pass over the container's index was given up, if it was.
    Scan(Options options, std::string rescanReason) : options_(options), rescanReason_(std::move(rescanReason)) {}
    ~Scan() {
        if (fd_ >= 0) ::close(fd_);
    }
    Result<std::shared_ptr<const MediaIndex>> run(const std::string& path);
    // After a failed run: the container's index misled the pass, so read the whole file.
    const std::string& rescanReason() const { return rescanReason_; }

private:
    using R = Result<std::shared_ptr<const MediaIndex>>;

    bool chooseStreams(std::string& error);
    void planPass();
    void readPackets();
    void addVideoPacket(AVPacket* pkt, bool hollow);
    void addAudioPacket(AudioTrack& track, AVPacket* pkt, bool hollow);
    void checkPcmBytes(AudioTrack& track, const AVPacket* pkt);
    bool finishVideo();
    bool readHollowHead();
    std::vector<int> decodeOrderOfWholeStream();
    void finishAudio(AudioTrack& track, size_t slot);

    const Options options_;
    std::string rescanReason_;
    std::string path_;
    std::unique_ptr<Demuxer> demux_;
    FileInput* input_ = nullptr; // demux_'s
    std::optional<ContainerIndexPlan> plan_; // set when the pass leaves payloads unread
    std::optional<MovTables> movTables_; // a QuickTime/MP4 file's sample tables, when read
    std::string movError_; // why they were not, when they were not
    bool tablesAllowed_ = false; // the container may be indexed from its tables (no parsers)
    bool headUnread_ = false; // the head probe needed packets that could not be read
    std::vector<int> fromIndex_; // streams whose later packets came from the index
    int systemCause_ = 0; // errno of a system failure after the first pass (no descriptor...)
    std::shared_ptr<MediaIndex> index_ = std::make_shared<MediaIndex>();
    std::vector<int> audioSlot_; // per stream of the file: its place in index_->audio, or -1
    std::vector<bool> pcmUsable_; // per audio track: PCM whose bytes seen in the file match the packets
    std::vector<int64_t> pcmRunEnd_;
    // Vorbis packets vary in length with the block sizes on either side of them; FFmpeg's
    // Vorbis parser knows them from the stream's setup header.
    struct VorbisParserFree {
        void operator()(AVVorbisParseContext* p) const { av_vorbis_parse_free(&p); }
    };
    std::vector<std::unique_ptr<AVVorbisParseContext, VorbisParserFree>> vorbis_;
    int fd_ = -1;

    // The first packets of the video stream, kept for the head probe.
    std::vector<PacketPtr> head_;
    std::vector<char> headHollow_; // per packet of head_: its bytes were not read (yet)
    size_t headBytes_ = 0;
    int firstKey_ = -1;
};

Result<std::shared_ptr<const MediaIndex>> FfmpegSource::open(const std::string& path) { return open(path, Options{}); }

Result<std::shared_ptr<const MediaIndex>> FfmpegSource::open(const std::string& path, Options options) {
    Scan scan(options, {});
    auto r = scan.run(path);
    if (r || scan.rescanReason().empty()) return r;
    options.useContainerIndex = false;
    Scan whole(options, scan.rescanReason());
    return whole.run(path);
}

Result<std::shared_ptr<const MediaIndex>> FfmpegSource::Scan::run(const std::string& path) {
    const auto started = std::chrono::steady_clock::now();
    path_ = path;
    index_->path = path;
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

void FfmpegSource::Scan::addAudioPacket(AudioTrack& a, AVPacket* pkt, bool hollow) {
    AudioPacket p;
    p.key = {pkt->pts, pkt->dts, pkt->pos, pkt->size, hollow ? 0 : packetDigest(pkt), !hollow};
    p.discard = pkt->flags & AV_PKT_FLAG_DISCARD;
    const size_t slot = size_t(&a - index_->audio.data());
    if (vorbis_[slot]) {
        // The decoder shows nothing for the first packet: it only primes the overlap.
        const int n = av_vorbis_parse_frame(vorbis_[slot].get(), pkt->data, pkt->size);
        p.decoded = a.packets.empty() ? 0 : std::max(0, n);
    } else {
        p.decoded = audioPacketSamples(a.codec.get(), a.timeBase, pkt);
    }
    size_t sideSize = 0;
    if (const uint8_t* side = pkt->side_data_elems ? av_packet_get_side_data(pkt, AV_PKT_DATA_SKIP_SAMPLES, &sideSize) : nullptr;
        side && sideSize >= 10) {
        p.skipStart = int32_t(std::min<uint32_t>(readLE32(side), INT32_MAX));
        p.skipEnd = int32_t(std::min<uint32_t>(readLE32(side + 4), INT32_MAX));
    }
    a.packets.push_back(p);
    checkPcmBytes(a, pkt);
}

// Plain PCM is read later straight from the file at the packets' byte positions; make sure
// those positions really hold the packets' bytes (some containers give the position of a
// block header instead of its payload).
void FfmpegSource::Scan::checkPcmBytes(AudioTrack& a, const AVPacket* pkt) {
    const size_t slot = size_t(&a - index_->audio.data());
    if (!pcmUsable_[slot]) return;
    if (pkt->pos < 0 || pkt->size <= 0) {
        pcmUsable_[slot] = false;
        return;
    }
    if (pkt->pos == pcmRunEnd_[slot]) {
        pcmRunEnd_[slot] = pkt->pos + pkt->size;
        return;
    }
    pcmRunEnd_[slot] = pkt->pos + pkt->size;
    if (fd_ < 0) fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        pcmUsable_[slot] = false;
        return;
    }
    const size_t n = std::min<size_t>(64, size_t(pkt->size));
    uint8_t buf[64];
    if (::pread(fd_, buf, n, pkt->pos) != ssize_t(n) || std::memcmp(buf, pkt->data, n) != 0 ||
        ::pread(fd_, buf, n, pkt->pos + pkt->size - int64_t(n)) != ssize_t(n) ||
        std::memcmp(buf, pkt->data + pkt->size - n, n) != 0)
        pcmUsable_[slot] = false;
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

// Turns the packets into frames. A frame is one the decoder shows when the whole stream is
// decoded from its start, exactly as FFmpeg's own command-line program numbers them:
//  - packets the demuxer marks for discarding (before an edit list's start) show nothing;
//  - the presentation order is the order of the packets' presentation times;
//  - a frame decodes intact from the last key packet at or before it in decode order whose
//    presentation time is not later than its own: leading pictures of an open GOP (after
//    the key packet in decode order, before it in presentation) need the previous group;
//  - before the first key packet (and leading pictures of it) whether the decoder shows a
//    picture depends on the codec, so a short probe decode of the head settles it; those
//    frames decode only from the very first packet.
bool FfmpegSource::Scan::finishVideo() {
    VideoTrack& v = *index_->video;
    const int n = int(v.packets.size());
    if (n == 0) return false;

    std::vector<int64_t> order(size_t(n), 0);
    bool missingPts = false;
    for (const VideoPacket& p : v.packets) missingPts |= !p.discard && p.key.pts == AV_NOPTS_VALUE;
    std::vector<char> included(size_t(n), 0);
    std::vector<char> certain(size_t(n), 0);
    int firstKey = firstKey_ >= 0 ? firstKey_ : 0;

    const AVCodecDescriptor* desc = avcodec_descriptor_get(v.codec->codec_id);
    const bool mayReorder = v.codec->video_delay > 0 || (desc && (desc->props & AV_CODEC_PROP_REORDER));
    if (missingPts && !v.codecIsIntraOnly && mayReorder) {
        std::vector<int> outputs = decodeOrderOfWholeStream();
        if (outputs.empty()) return false;
        std::fill(order.begin(), order.end(), INT64_MAX);
        for (size_t rank = 0; rank < outputs.size(); ++rank) {
            int d = outputs[rank];
            if (d >= 0 && d < n && order[size_t(d)] == INT64_MAX) {
                order[size_t(d)] = int64_t(rank);
                included[size_t(d)] = certain[size_t(d)] = 1;
            }
        }
        v.orderFromDecoder = true;
        // The decoder showed what it showed; keys before the first shown picture are moot.
    } else {
        int64_t last = 0;
        for (int d = 0; d < n; ++d) {
            const PacketKey& k = v.packets[size_t(d)].key;
            int64_t t = k.pts != AV_NOPTS_VALUE ? k.pts : k.dts != AV_NOPTS_VALUE ? k.dts : last + 1;
            order[size_t(d)] = last = t;
        }
        bool needProbe = false;
        for (int d = 0; d < n; ++d) {
            const VideoPacket& p = v.packets[size_t(d)];
            certain[size_t(d)] = d >= firstKey && order[size_t(d)] >= order[size_t(firstKey)];
            included[size_t(d)] = !p.discard && certain[size_t(d)];
            needProbe |= !p.discard && !certain[size_t(d)];
        }
        if (needProbe && !readHollowHead()) {
            headUnread_ = true;
            return false;
        }
        if (needProbe) {
            OrderProbe probe;
            if (probe.open(v.codec.get())) {
                for (size_t d = 0; d < head_.size(); ++d) probe.feed(head_[d].get(), int(d));
                probe.finish();
                for (int d : probe.outputs)
                    if (d >= 0 && d < n && !v.packets[size_t(d)].discard) included[size_t(d)] = 1;
            }
        }
    }
    // Packed B-frames: the decoder's pictures are in step with the packets only when it
    // decodes from the very start, so every frame decodes from there.
    const bool fromStartOnly = hasPackedBFrames(v.codec.get(), head_);
    head_.clear();
    headHollow_.clear();

    // The key packet each frame's decoding starts from.
    std::vector<int32_t> start(size_t(n), 0);
    std::vector<int> keys;
    keys.reserve(size_t(n) / 8);
    for (int d = 0; d < n; ++d) {
        const VideoPacket& p = v.packets[size_t(d)];
        if (d >= firstKey && (p.keyFrame || d == firstKey)) keys.push_back(d);
        if (!included[size_t(d)] || !certain[size_t(d)] || keys.empty() || fromStartOnly) continue;
        auto it = keys.rbegin();
        while (it != keys.rend() && order[size_t(*it)] > order[size_t(d)]) ++it;
        start[size_t(d)] = it == keys.rend() ? 0 : *it;
    }

    std::vector<int> shown;
    shown.reserve(size_t(n));
    for (int d = 0; d < n; ++d)
        if (included[size_t(d)]) shown.push_back(d);
    sortNearlySorted(shown, [&](int a, int b) {
        return order[size_t(a)] < order[size_t(b)] || (order[size_t(a)] == order[size_t(b)] && a < b);
    });
    v.frames.clear();
    v.frames.reserve(shown.size());
    for (int d : shown) {
        VideoPacket& p = v.packets[size_t(d)];
        p.frame = int32_t(v.frames.size());
        VideoFrame f;
        f.pts = p.key.pts != AV_NOPTS_VALUE && !v.orderFromDecoder ? p.key.pts : order[size_t(d)];
        f.packet = d;
        f.startPacket = start[size_t(d)];
        v.frames.push_back(f);
    }
    v.groupFirst.resize(v.frames.size());
    v.allFramesKey = !v.frames.empty();
    for (size_t i = 0; i < v.frames.size(); ++i) {
        const bool same = i > 0 && v.frames[i].startPacket == v.frames[i - 1].startPacket;
        v.groupFirst[i] = same ? v.groupFirst[i - 1] : int32_t(i);
        v.allFramesKey &= v.frames[i].isKey();
    }
    return !v.frames.empty();
}

// Samples a decoder drops from the start of its output of its own accord, before any
// trimming the demuxer asks for: the Opus decoder takes the pre-skip from its header.
static int64_t decoderInitialSkip(const AVCodecParameters* par) {
    if (par->codec_id == AV_CODEC_ID_OPUS && par->extradata_size >= 19 &&
        std::memcmp(par->extradata, "OpusHead", 8) == 0)
        return int64_t(par->extradata[10]) | int64_t(par->extradata[11]) << 8;
    return 0;
}

// Places every packet in the decoded sample stream the way libavcodec trims it: a skip at
// the start (priming, encoder delay) may run over several packets and is taken before a
// packet's discard flag drops what is left, a discard at the end applies only when it
// fits the packet, and discarded packets give nothing.
void FfmpegSource::Scan::finishAudio(AudioTrack& a, size_t slot) {
    int64_t pos = 0;
    a.initialSkip = int32_t(decoderInitialSkip(a.codec.get()));
    int64_t pendingSkip = a.initialSkip;
    // Only Opus's preroll depends on how long its packets typically are.
    const bool typicalMatters = a.codec->codec_id == AV_CODEC_ID_OPUS;
    std::vector<int> sizes;
    bool anyDecoded = false;
    for (AudioPacket& p : a.packets) {
        if (p.skipStart || p.skipEnd) pendingSkip = p.skipStart;
        p.outStart = pos;
        p.outCount = 0;
        if (p.decoded <= 0) continue;
        anyDecoded = true;
        if (typicalMatters) sizes.push_back(p.decoded);
        int64_t out = p.decoded;
        if (pendingSkip >= out) {
            pendingSkip -= out;
            continue;
        }
        out -= pendingSkip;
        p.trimmedStart = int32_t(pendingSkip);
        pendingSkip = 0;
        if (p.discard) continue;
        if (p.skipEnd > 0 && p.skipEnd <= out) out -= p.skipEnd;
        p.outCount = int32_t(out);
        pos += out;
    }
    a.totalSamples = pos;
    if (!sizes.empty()) std::nth_element(sizes.begin(), sizes.begin() + sizes.size() / 2, sizes.end());
    if (anyDecoded) a.prerollPackets = prerollPacketsFor(a.codec.get(), sizes.empty() ? 0 : sizes[sizes.size() / 2]);

    const PcmLayout layout = pcmLayout(a.codec->codec_id);
    a.bytesPerFrame = layout.storedBytes * a.channels;
    bool pcm = layout.storedBytes > 0 && pcmUsable_[slot] && a.sampleFormat == layout.output &&
               (a.codec->block_align == 0 || a.codec->block_align == a.bytesPerFrame);
    for (const AudioPacket& p : a.packets)
        pcm = pcm && !p.discard && !p.skipStart && !p.skipEnd && p.key.pos >= 0 && p.key.size % a.bytesPerFrame == 0;
    a.plainPcm = pcm;
    if (!pcm) return;
    for (const AudioPacket& p : a.packets) {
        const int64_t samples = p.key.size / a.bytesPerFrame;
        if (!a.pcmRuns.empty()) {
            PcmRun& r = a.pcmRuns.back();
            if (r.pos + r.samples * a.bytesPerFrame == p.key.pos) {
                r.samples += samples;
                continue;
            }
        }
        a.pcmRuns.push_back({p.outStart, p.key.pos, samples});
    }
}

uint32_t packetDigest(const AVPacket* pkt) {
    uint32_t h = 2166136261u;
    auto mix = [&](const uint8_t* p, int n) {
        for (int i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
    };
    if (!pkt->data || pkt->size <= 0) return h;
    const int head = std::min(pkt->size, 32);
    mix(pkt->data, head);
    const int tail = std::min(pkt->size - head, 32);
    mix(pkt->data + pkt->size - tail, tail);
    return h;
}

std::pair<int, int> VideoTrack::groupOf(int frame) const {
    const int first = groupFirst[size_t(frame)];
    int last = frame;
    while (last + 1 < frameCount() && groupFirst[size_t(last + 1)] == first) ++last;
    return {first, last};
}

} // namespace ffmpeg_engine
