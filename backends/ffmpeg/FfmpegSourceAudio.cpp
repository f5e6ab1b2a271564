// Indexing the audio streams at open: the samples each packet gives (Opus from its
// table of contents, Vorbis from its block sizes, the rest from FFmpeg's frame sizes), the
// trimming at either end, the decoder's pre-roll after a seek, and plain PCM read by byte
// position.
#include "backends/ffmpeg/FfmpegPcm.h"
#include "backends/ffmpeg/FfmpegSourceScan.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace ffmpeg_engine {

namespace {

uint32_t readLE32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
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


// Samples a decoder drops from the start of its output of its own accord, before any
// trimming the demuxer asks for: the Opus decoder takes the pre-skip from its header.
int64_t decoderInitialSkip(const AVCodecParameters* par) {
    if (par->codec_id == AV_CODEC_ID_OPUS && par->extradata_size >= 19 &&
        std::memcmp(par->extradata, "OpusHead", 8) == 0)
        return int64_t(par->extradata[10]) | int64_t(par->extradata[11]) << 8;
    return 0;
}

} // namespace

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

} // namespace ffmpeg_engine
