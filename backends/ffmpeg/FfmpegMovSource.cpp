// The video index of a QuickTime/MP4 file from its sample tables: the packets with the
// edit list applied as libavformat's demuxer applies it, the decoder's parameters from
// the sample description, and the first picture decoded to check them.
#include "backends/ffmpeg/FfmpegMovSource.h"

#include "backends/ffmpeg/FfmpegMovBoxes.h"
#include "backends/ffmpeg/FfmpegMovTables.h"
#include "backends/ffmpeg/FfmpegVideoOrder.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/intreadwrite.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ffmpeg_engine {

using mov_boxes::fourcc;

namespace {

// Packets fed to the decoder at open before its first picture must have come out.
constexpr int kFirstPictureLimit = 64;
// libavformat's name for the QuickTime/MP4 demuxer, which MediaIndex::container reports.
constexpr const char* kContainer = "mov,mp4,m4a,3gp,3g2,mj2";

using Parameters = std::unique_ptr<AVCodecParameters, CodecParametersDeleter>;

struct FileHandle {
    int fd = -1;
    ~FileHandle() {
        if (fd >= 0) ::close(fd);
    }
};

bool readFully(int fd, int64_t pos, void* buf, size_t n, int& error) {
    auto* out = static_cast<uint8_t*>(buf);
    for (size_t done = 0; done < n;) {
        const ssize_t r = ::pread(fd, out + done, n - done, pos + int64_t(done));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            error = r < 0 ? errno : 0;
            return false;
        }
        done += size_t(r);
    }
    return true;
}

// The decoder's parameters from the sample description, for the codecs whose description
// this reader knows to be complete; null with the reason otherwise.
Parameters parametersFor(const MovTrackInfo& info, std::string& why) {
    const uint32_t tag = uint32_t(info.format >> 24) | (info.format >> 8 & 0xFF00) | (info.format << 8 & 0xFF0000) |
                         info.format << 24;
    const AVCodecTag* const tables[] = {avformat_get_mov_video_tags(), nullptr};
    const AVCodecID id = av_codec_get_id(tables, tag);
    const MovTrackInfo::Box* config = nullptr;
    switch (id) {
    case AV_CODEC_ID_H264: config = info.extension(fourcc("avcC")); break;
    case AV_CODEC_ID_HEVC: config = info.extension(fourcc("hvcC")); break;
    case AV_CODEC_ID_PRORES:
    case AV_CODEC_ID_DNXHD:
    case AV_CODEC_ID_MJPEG: break;
    default: why = std::string("its ") + avcodec_get_name(id) + " sample description is left to libavformat"; return nullptr;
    }
    if ((id == AV_CODEC_ID_H264 || id == AV_CODEC_ID_HEVC) && (!config || config->body.empty())) {
        why = "its sample description has no decoder configuration";
        return nullptr;
    }
    Parameters par(avcodec_parameters_alloc());
    if (!par) {
        why = "out of memory";
        return nullptr;
    }
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = id;
    par->codec_tag = tag;
    par->width = info.width;
    par->height = info.height;
    par->bits_per_coded_sample = info.depth;
    if (config) {
        par->extradata = static_cast<uint8_t*>(av_mallocz(config->body.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!par->extradata) {
            why = "out of memory";
            return nullptr;
        }
        std::memcpy(par->extradata, config->body.data(), config->body.size());
        par->extradata_size = int(config->body.size());
    }
    // Colour description, as the demuxer reads it: nclx also says the range.
    if (const MovTrackInfo::Box* colr = info.extension(fourcc("colr")); colr && colr->body.size() >= 10) {
        const uint8_t* c = colr->body.data();
        const uint32_t kind = mov_boxes::be32(c);
        if (kind == fourcc("nclx") || kind == fourcc("nclc")) {
            par->color_primaries = AVColorPrimaries(AV_RB16(c + 4));
            par->color_trc = AVColorTransferCharacteristic(AV_RB16(c + 6));
            par->color_space = AVColorSpace(AV_RB16(c + 8));
            if (kind == fourcc("nclx") && colr->body.size() >= 11)
                par->color_range = (c[10] >> 7) ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
        }
    }
    return par;
}

// The track's timing after its edit list: [first, last) of the samples are listed, their
// decode times become `base + decodeTime`, and within the edit presentation times run
// from `start` to `end` (the rest is discarded).
struct EditCut {
    size_t first = 0;
    size_t last = 0;
    int64_t start = INT64_MIN;
    int64_t end = INT64_MAX;
    bool edited = false;
};

// Where libavformat's demuxer starts and ends the listed samples for an edit list of
// empty edits followed by one edit at normal rate: from the last sync sample at or before
// the edit's start in decode time whose presentation time is not after it, to the sync
// sample that ends the edit (the second one with composition offsets, so that trailing
// B-frames belong to it). Without an edit list, every sample. Answers why not when the edit
// list is of another kind.
std::string cutFor(const MovTrackInfo& info, const MovTrackSamples& s, const MovSampleTimes& t, EditCut& cut,
                   int64_t& emptyTime) {
    const size_t n = s.offsets.size();
    cut.last = n;
    if (info.edits.empty()) return {};
    size_t e = 0;
    int64_t empty = 0;
    // Times beyond this are refused, so that sums of them cannot overflow.
    constexpr int64_t kLongest = int64_t(1) << 60;
    while (e < info.edits.size() && info.edits[e].mediaTime == -1 && empty <= kLongest) empty += info.edits[e++].duration;
    if (info.edits.size() - e != 1) return "its edit list has several edits";
    const MovEdit& edit = info.edits[e];
    if (edit.rate != 0x10000) return "its edit plays at another rate";
    if (info.movieTimeScale == 0 || info.timeScale == 0) return "a time scale is 0";
    emptyTime = av_rescale(empty, info.timeScale, info.movieTimeScale);
    const int64_t duration = av_rescale(edit.duration, info.timeScale, info.movieTimeScale);
    if (duration <= 0) return "its edit has no duration";
    if (empty > kLongest || emptyTime < 0 || emptyTime > kLongest || duration > kLongest || edit.mediaTime > kLongest)
        return "its edit list's times are out of range";
    cut.edited = true;
    cut.start = edit.mediaTime;
    cut.end = edit.mediaTime + duration;

    const bool hasOffsets = !s.compositionOffsets.empty();
    auto cts = [&](size_t i) { return t.decodeTimes[i] + (hasOffsets ? s.compositionOffsets[i] : 0); };
    auto it = std::upper_bound(t.decodeTimes.begin(), t.decodeTimes.end(), cut.start);
    int64_t i = int64_t(it - t.decodeTimes.begin()) - 1;
    while (i >= 0 && !t.sync[size_t(i)]) --i;
    for (int64_t j = i; j > 0 && t.decodeTimes[size_t(j)] == t.decodeTimes[size_t(j - 1)]; --j)
        if (t.sync[size_t(j - 1)]) i = j - 1;
    if (hasOffsets)
        while (i >= 0 && !(cts(size_t(i)) <= cut.start && t.sync[size_t(i)])) --i;
    if (i < 0) return "no key frame starts its edit";
    cut.first = size_t(i);
    bool keyAfterEdit = false;
    for (size_t k = cut.first; k < n; ++k) {
        const int64_t duration = k + 1 < n ? t.decodeTimes[k + 1] - t.decodeTimes[k] : cut.end - cut.start;
        if (cts(k) + duration >= cut.end && t.sync[k]) {
            if (!hasOffsets || keyAfterEdit) {
                cut.last = k + 1;
                break;
            }
            keyAfterEdit = true;
        }
    }
    return {};
}

// The track's packets, in decode order, as libavformat's demuxer gives them. Each must lie
// inside the file (fileSize bytes): its bytes are later read by position.
std::string listPackets(const MovTrackInfo& info, const MovTrackSamples& s, const MovSampleTimes& t, int64_t fileSize,
                        VideoTrack& v) {
    const bool hasOffsets = !s.compositionOffsets.empty();
    for (int32_t offset : s.compositionOffsets)
        if (offset < 0) return "it has negative composition offsets";
    EditCut cut;
    int64_t emptyTime = 0;
    if (std::string why = cutFor(info, s, t, cut, emptyTime); !why.empty()) return why;
    int64_t firstShown = INT64_MAX;
    for (size_t k = cut.first; k < cut.last; ++k) {
        const int64_t cts = t.decodeTimes[k] + (hasOffsets ? s.compositionOffsets[k] : 0);
        if (cts >= cut.start && cts < cut.end) firstShown = std::min(firstShown, cts);
    }
    if (firstShown == INT64_MAX) return "its edit shows no sample";
    // Decode times count from the first sample shown, after any empty edits.
    const int64_t shift = cut.edited ? emptyTime - firstShown : 0;
    v.packets.resize(cut.last - cut.first);
    for (size_t k = cut.first; k < cut.last; ++k) {
        VideoPacket& p = v.packets[k - cut.first];
        const int64_t dts = t.decodeTimes[k] + shift;
        const int64_t offset = hasOffsets ? s.compositionOffsets[k] : 0;
        if (s.offsets[k] > fileSize || int64_t(s.sizes[k]) > fileSize - s.offsets[k])
            return "a sample lies past the end of the file";
        if (s.sizes[k] > uint32_t(INT32_MAX)) return "a sample is too large";
        p.key = {dts + offset, dts, s.offsets[k], int32_t(s.sizes[k]), 0, false};
        p.keyFrame = t.sync[k] || v.codecIsIntraOnly;
        p.discard = dts - shift + offset < cut.start || dts - shift + offset >= cut.end;
    }
    return {};
}

// Decodes the first frame's key packet (and more while the decoder has not settled its
// output), and takes the decoder's pixel format, size, shape and reordering delay as the
// track's, as libavformat learns them at open. Only the decoder's settings are wanted,
// so it leaves out the loop filter and stops once they are known.
std::string firstPicture(int fd, VideoTrack& v, AVCodecParameters* par, uint64_t& bytesRead) {
    auto codec = openDecoder(par, Threading::Single, 1);
    if (!codec) return "its decoder does not open: " + codec.error;
    AVCodecContext* ctx = codec.value.get();
    ctx->skip_loop_filter = AVDISCARD_ALL;
    PacketPtr pkt = newPacket();
    FramePtr picture = newFrame();
    if (!pkt || !picture) return "out of memory";
    const int start = v.frames.front().startPacket;
    bool known = false;
    for (int d = start; d < int(v.packets.size()) && d < start + kFirstPictureLimit && !known; ++d) {
        if (int rc = readStoredPacket(fd, v.packets[size_t(d)], pkt.get()); rc < 0)
            return "cannot read its first packets: " + errorText(rc);
        bytesRead += uint64_t(pkt->size);
        const int sent = avcodec_send_packet(ctx, pkt.get());
        known = avcodec_receive_frame(ctx, picture.get()) >= 0 ||
                (sent >= 0 && ctx->pix_fmt != AV_PIX_FMT_NONE && ctx->width > 0 && ctx->height > 0);
    }
    if (!known) {
        avcodec_send_packet(ctx, nullptr);
        known = avcodec_receive_frame(ctx, picture.get()) >= 0;
    }
    if (!known || ctx->pix_fmt == AV_PIX_FMT_NONE || ctx->width <= 0 || ctx->height <= 0)
        return "its first picture does not decode";
    if (avcodec_parameters_from_context(par, ctx) < 0) return "out of memory";
    v.width = par->width;
    v.height = par->height;
    v.sar = par->sample_aspect_ratio;
    v.pixelFormat = ctx->pix_fmt;
    return {};
}

// The video track of the tables, when there is exactly one.
Result<uint32_t> videoTrackOf(const MovTables& tables) {
    int64_t found = -1;
    for (size_t i = 0; i < tables.trackCount(); ++i) {
        auto info = tables.describe(tables.trackId(i));
        if (!info || info.value.handler != fourcc("vide")) continue;
        if (found >= 0) return Result<uint32_t>::fail("it has several video tracks");
        found = tables.trackId(i);
    }
    if (found < 0) return Result<uint32_t>::fail("it has no video track");
    return Result<uint32_t>::ok(uint32_t(found));
}

// Builds v from the tables of one track; empty on success, else why not.
std::string buildTrack(const MovTables& tables, uint32_t id, int64_t fileSize, VideoTrack& v, Parameters& par) {
    auto info = tables.describe(id);
    if (!info) return info.error;
    auto samples = tables.samples(id);
    if (!samples) return samples.error;
    auto times = tables.times(id, samples.value.offsets.size());
    if (!times) return times.error;
    if (info.value.partialSync) return "it has partial sync samples";
    std::string why;
    par = parametersFor(info.value, why);
    if (!par) return why;
    v.stream = info.value.ordinal;
    if (info.value.timeScale == 0 || info.value.timeScale > uint32_t(INT32_MAX)) return "its time scale is out of range";
    v.timeBase = AVRational{1, int(info.value.timeScale)};
    if (times.value.tableSamples > uint64_t(INT32_MAX)) return "its stts table counts too many samples";
    if (times.value.tableDuration > 0)
        av_reduce(&v.frameRate.num, &v.frameRate.den, int64_t(info.value.timeScale) * int64_t(times.value.tableSamples),
                  times.value.tableDuration, INT32_MAX);
    const AVCodecDescriptor* desc = avcodec_descriptor_get(par->codec_id);
    v.codecIsIntraOnly = desc && (desc->props & AV_CODEC_PROP_INTRA_ONLY);
    if (why = listPackets(info.value, samples.value, times.value, fileSize, v); !why.empty()) return why;

    int firstKey = -1;
    for (size_t d = 0; d < v.packets.size() && firstKey < 0; ++d)
        if (v.packets[d].keyFrame) firstKey = int(d);
    if (firstKey < 0) return "it has no key frame";
    PacketOrder order;
    if (orderByTimes(v, firstKey, order)) return "pictures before its first key frame need a probe decode";
    if (!buildFrames(v, order, firstKey, false)) return "it has no frame to show";
    return {};
}

} // namespace

Result<VideoTrack> MovVideoSource::trackOf(const MovTables& tables, int64_t fileSize) {
    using R = Result<VideoTrack>;
    auto id = videoTrackOf(tables);
    if (!id) return R::fail(id.error);
    VideoTrack v;
    Parameters par;
    if (std::string why = buildTrack(tables, id.value, fileSize, v, par); !why.empty()) return R::fail(why);
    v.codec = CodecParametersPtr(par.release(), CodecParametersDeleter());
    return R::ok(std::move(v));
}

int readStoredPacket(int fd, const VideoPacket& packet, AVPacket* pkt) {
    av_packet_unref(pkt);
    const PacketKey& k = packet.key;
    if (k.pos < 0 || k.size < 0) return AVERROR_INVALIDDATA;
    if (int rc = av_new_packet(pkt, k.size); rc < 0) return rc;
    int error = 0;
    if (!readFully(fd, k.pos, pkt->data, size_t(k.size), error)) {
        av_packet_unref(pkt);
        return error ? AVERROR(error) : AVERROR_INVALIDDATA; // a file cut short since it was indexed
    }
    pkt->pts = k.pts;
    pkt->dts = k.dts;
    pkt->pos = k.pos;
    if (packet.keyFrame) pkt->flags |= AV_PKT_FLAG_KEY;
    if (packet.discard) pkt->flags |= AV_PKT_FLAG_DISCARD;
    return 0;
}

Result<std::shared_ptr<const MediaIndex>> MovVideoSource::open(const std::string& path) {
    using R = Result<std::shared_ptr<const MediaIndex>>;
    const auto started = std::chrono::steady_clock::now();
    FileHandle file;
    file.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file.fd < 0) return R::fail(std::string("cannot open the file: ") + std::strerror(errno), errno);
    struct stat st {};
    if (::fstat(file.fd, &st) != 0) return R::fail(std::string("cannot open the file: ") + std::strerror(errno), errno);
    auto index = std::make_shared<MediaIndex>();
    int error = 0;
    auto readAt = [&](int64_t pos, void* buf, size_t n) {
        index->bytesRead += n;
        return readFully(file.fd, pos, buf, n, error);
    };
    auto where = MovTables::findMoov(readAt, int64_t(st.st_size));
    if (error) return R::fail(std::string("cannot read the file: ") + std::strerror(error), error);
    if (!where) return R::fail(where.error);
    auto moov = std::make_shared<std::vector<uint8_t>>(size_t(where.value.second));
    if (!readAt(where.value.first, moov->data(), moov->size()))
        return R::fail(std::string("cannot read the moov box: ") + std::strerror(error ? error : EIO), error);
    auto tables = MovTables::parse(std::move(moov));
    if (!tables) return R::fail(tables.error);
    if (tables.value.fragmented()) return R::fail("the file is fragmented");
    auto track = trackOf(tables.value, int64_t(st.st_size));
    if (!track) return R::fail(track.error);
    VideoTrack& v = track.value;
    Parameters par(avcodec_parameters_alloc());
    if (!par || avcodec_parameters_copy(par.get(), v.codec.get()) < 0) return R::fail("out of memory");
    if (std::string why = firstPicture(file.fd, v, par.get(), index->bytesRead); !why.empty()) return R::fail(why);
    v.codec = CodecParametersPtr(par.release(), CodecParametersDeleter());
    index->path = path;
    index->container = kContainer;
    index->source = IndexSource::SampleTables;
    index->video = std::move(v);
    index->openSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    return R::ok(index);
}

} // namespace ffmpeg_engine
