#include "backends/ffmpeg/FfmpegReader.h"

#include "backends/ffmpeg/FfmpegAudioCodec.h"
#include "backends/ffmpeg/FfmpegCompletionPool.h"

#include "host/core/Strings.h"
#include "host/os/Config.h"
#include "host/os/Log.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"

#include <algorithm>
#include <cstring>

namespace ffmpeg_backend {

using namespace ffmpeg_engine;

void FrameRanges::getFrameRange(uint32_t frame, int64_t& first, int64_t& end) {
    const VideoTrack& v = *index_->video;
    const int64_t f = frame;
    if (f >= v.frameCount()) {
        first = f;
        end = f + 1;
        return;
    }
    if (f == nextFrame_) {
        first = f;
        end = std::min<int64_t>(f + kChunk, v.frameCount());
    } else if (f < runFirst_ && f >= runFirst_ - kChunk) {
        // Just behind the last run: stepping back, so the run reaches back too.
        first = std::max<int64_t>(v.groupStart(int(f)), f - kBackward + 1);
        end = f + 1;
    } else {
        first = f;
        end = f + 1;
    }
    runFirst_ = first;
    nextFrame_ = end;
}

FfmpegReadInstance::FfmpegReadInstance(const WString& fileName, const DecodeFormat& format, OpenType type,
                                       std::shared_ptr<const MediaIndex> index)
    : StreamingDecodeReader(fileName, format, type), Zn::AudioReader(getMetadata()->getAudioMetadata()),
      index_(std::move(index)),
      longGop_(index_->video && !index_->video->codecIsIntraOnly && !index_->video->allFramesKey) {
    describe();
    // A file opened for video only reads no audio: its audio decoders (each with a demuxer
    // of its own) are not made.
    for (size_t s = 0; s < index_->audio.size() && type.hasAudio(); ++s) {
        if (!index_->audio[s].plainPcm)
            initAudioCodec(unsigned(s), Zn::makePtr<FfmpegAudioSetup>(index_, int(s)));
    }
}

FfmpegReadInstance::~FfmpegReadInstance() { endStreamDecode(); }

namespace {

// One line on how the file was indexed, and what the open covered.
void logIndexing(const WString& fileName, const MediaIndex& index) {
    const double ms = index.openSeconds * 1e3;
    const auto bytes = static_cast<unsigned long long>(index.bytesRead);
    if (index.source == IndexSource::SampleTables)
        Log("FFmpeg indexed the video of \"%ls\" from its sample tables in %.1f ms (%llu bytes read; no demuxer, "
            "audio not indexed)\n",
            fileName.c_str(), ms, bytes);
    else if (index.source == IndexSource::ContainerIndex)
        Log("FFmpeg indexed \"%ls\" from the container's index in %.1f ms (%llu bytes read)%s%s%s%s\n", fileName.c_str(),
            ms, bytes, index.indexNote.empty() ? "" : "; every video packet demuxed: ", index.indexNote.c_str(),
            index.tablesNote.empty() ? "" : "; not from its sample tables: ", index.tablesNote.c_str());
    else
        Log("FFmpeg indexed \"%ls\" by reading the whole file in %.1f ms (%llu bytes read): %s%s%s\n", fileName.c_str(),
            ms, bytes, index.scanReason.c_str(), index.tablesNote.empty() ? "" : "; not from its sample tables: ",
            index.tablesNote.c_str());
}

} // namespace

Zn::Ptr<FfmpegReadInstance> FfmpegReadInstance::open(const DecodeFormat& format, const WString& fileName,
                                                     OpenType type, std::string& error, int& cause) {
    // Opened for video alone, the file's audio is not indexed: a later open for audio
    // indexes it then.
    FfmpegSource::Options options;
    options.videoOnly = type == OpenType::kVideo;
    auto opened = FfmpegSource::open(toUTF8(fileName).c_str(), options);
    if (!opened) {
        error = opened.error;
        cause = opened.cause;
        return nullptr;
    }
    const MediaIndex& index = *opened.value;
    logIndexing(fileName, index);
    const bool video = index.video && index.video->frameCount() > 0;
    const bool audio = !index.audio.empty();
    const bool served = (type.hasVideo() && video) || (type.hasAudio() && audio) || (type == OpenType::kNone && (video || audio));
    if (!served) {
        error = type.hasVideo() ? "no video stream" : "no audio stream";
        return nullptr;
    }
    return Zn::Ptr<FfmpegReadInstance>(new FfmpegReadInstance(fileName, format, type, opened.value));
}

void FfmpegReadInstance::describe() {
    PlayFileMetadataRep& meta = *getMetadata();
    if (const auto& v = index_->video; v && v->frameCount() > 0) {
        meta.setFrameCount(uint32_t(v->frameCount()));
        meta.setVideoStreamCount(1);
        meta.setNativeFormat(Zn::Image::Core::Data(uint32_t(v->width), uint32_t(v->height),
                                                   nativeHostFormat(v->pixelFormat)));
        meta.setVideoCodec(avcodec_get_name(v->codec->codec_id));
        if (v->frameRate.num > 0 && v->frameRate.den > 0)
            meta.setFrameRate(FrameRate{uint32_t(v->frameRate.num), uint32_t(v->frameRate.den)});
        FrameSizes sizes;
        sizes.typical = uint32_t(std::max(v->packets.front().key.size, 0));
        for (const VideoPacket& p : v->packets) sizes.largest = std::max(sizes.largest, uint32_t(std::max(p.key.size, 0)));
        meta.setFrameSizes(sizes);
        if (longGop_) {
            // Runs vary in length, so the frame-range handler answers them; the group size
            // only has to say "more than one frame at a time".
            int longest = 2;
            for (int k = 0; k < v->frameCount();) {
                const auto [first, last] = v->groupOf(k);
                longest = std::max(longest, last - first + 1);
                k = std::max(last + 1, k + 1);
            }
            setStreamMetadata(Zn::makePtr<StreamMetadata>(false, uint16_t(std::min(longest, 65535))));
            setFrameRangeHandler(Zn::makePtr<FrameRanges>(index_));
        }
    }
    std::vector<Aud::Metadata> streams;
    for (const AudioTrack& t : index_->audio) {
        Aud::Metadata m;
        const AVSampleFormat packed = av_get_packed_sample_fmt(t.sampleFormat);
        const int bytes = std::max(av_get_bytes_per_sample(packed), 1);
        m.sampleRate = uint32_t(t.sampleRate);
        m.channels = uint32_t(t.channels);
        m.bytesPerSample = m.bytesPerDecodedSample = uint32_t(bytes);
        m.bitsPerSample = t.codec->bits_per_raw_sample > 0 ? uint32_t(t.codec->bits_per_raw_sample) : uint32_t(bytes * 8);
        m.sampleType = packed == AV_SAMPLE_FMT_FLT || packed == AV_SAMPLE_FMT_DBL ? Aud::kSampleFloat : Aud::kSampleInt;
        m.compressed = !t.plainPcm;
        if (m.compressed) {
            // The samples most packets decode to (the first and last may differ).
            int typical = 0;
            for (size_t i = t.packets.size() > 2 ? 1 : 0; i < t.packets.size() && !typical; ++i) typical = t.packets[i].decoded;
            m.samplesPerBlock = uint32_t(std::max(typical, 0));
        }
        m.length = uint64_t(std::max<int64_t>(t.totalSamples, 0));
        m.codec = avcodec_get_name(t.codec->codec_id);
        m.streamIndex = t.stream;
        if (t.codec->extradata_size > 0)
            m.codecSetup = Zn::Ptr<iMemHolder>(new ByteBufferImpl(t.codec->extradata, uint32_t(t.codec->extradata_size)));
        streams.push_back(std::move(m));
    }
    if (!streams.empty()) meta.setAudioLength(streams.front().length);
    meta.setAudioMetadata(std::move(streams));
}

void FfmpegReadInstance::ZnFileIxCache_open(Zn::Ptr<IndexInfoRep>& index, unsigned frame) {
    const auto& v = index_->video;
    if (!v || frame >= unsigned(v->frameCount())) return;
    const VideoFrame& f = v->frames[frame];
    const VideoPacket& p = v->packets[size_t(f.packet)];
    const uint32_t base = uint32_t(v->groupStart(int(frame)));
    // One read delivers the frame itself: the run is the frame alone.
    index = Zn::makePtr<IndexInfoRep>(base, frame - base, frame, uint64_t(std::max<int64_t>(p.key.pos, 0)),
                                      uint32_t(std::max(p.key.size, 0)), f.isKey());
}

bool FfmpegReadInstance::queueReadRequest(Zn::Ptr<VideoReadRequest>& request, bool flag) {
    if (!request || !getVideoQueue() || !index_->video) return StreamingDecodeReader::queueReadRequest(request, flag);
    const int64_t frame = request->getFrame();
    const int64_t frames = index_->video->frameCount();
    // Intra-only: the next frames, to decode side by side. Long-GOP: the frame a run
    // ahead, whose read starts the next run as soon as the decoding one is done, so that
    // the decode thread does not wait for the issuer between runs.
    const int64_t from = longGop_ ? frame + FrameRanges::kChunk : frame + 1;
    const int64_t to = longGop_ ? from : frame + int64_t(kReadAhead);
    std::vector<Zn::Ptr<VideoReadRequest>> queueNow;
    std::vector<Zn::Ptr<VideoReadRequest>> released; // let go after the lock
    {
        std::lock_guard<std::mutex> lock(aheadMutex_);
        // In order: the frame after the last one, or one of those already queued ahead.
        const bool inOrder = frame > lastQueued_ && frame <= lastQueued_ + 1 + int64_t(kReadAhead);
        lastQueued_ = frame;
        auto kept = ahead_.begin();
        for (auto& r : ahead_) {
            if (inOrder && int64_t(r->getFrame()) > frame) *kept++ = std::move(r);
            else released.push_back(std::move(r));
        }
        ahead_.erase(kept, ahead_.end());
        for (int64_t f = from; inOrder && f <= to && f < frames; ++f) {
            if (std::any_of(ahead_.begin(), ahead_.end(), [&](const auto& r) { return r->getFrame() == f; })) continue;
            Zn::Ptr<IndexInfoRep> index;
            ZnFileIxCache_open(index, uint32_t(f));
            Zn::Ptr<FileReadInstance> self = request->getFile();
            auto ahead = Zn::makePtr<VideoReadRequest>(self, index, uint32_t(f), request->getResultType(),
                                                       static_cast<const DecodeFormat&>(*request), nullptr);
            ahead_.push_back(ahead);
            queueNow.push_back(std::move(ahead));
        }
    }
    const bool queued = StreamingDecodeReader::queueReadRequest(request, flag);
    // The queue may answer with an equal request it already had (the issuer's own); the one
    // kept in ahead_ was then never queued and only waits to be let go.
    for (auto& r : queueNow) StreamingDecodeReader::queueReadRequest(r, false);
    return queued;
}

void FfmpegReadInstance::purge() {
    std::vector<Zn::Ptr<VideoReadRequest>> released;
    {
        std::lock_guard<std::mutex> lock(aheadMutex_);
        released.swap(ahead_);
        lastQueued_ = -2;
    }
    released.clear();
    StreamingDecodeReader::purge();
}

FileReadInstance::eReadResult FfmpegReadInstance::readVideo(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) {
    if (longGop_) return StreamingDecodeReader::readVideo(out, request);
    eReadResult rc;
    {
        CriticalSection::Lock lock(FileReadInstance::getLock());
        out = Zn::makePtr<FrameBufferRep>(getDecodeFormat(), request->getIndexInfo(), request->getFrame());
        rc = readPacket(out, request->getFrame());
    }
    // The request decodes the packet as it completes: on a worker, so that the frames
    // queued behind this one are read and decoded meanwhile.
    if (rc == kReadDone && FfmpegCompletionPool::complete(request, out)) return kReadPending;
    return rc;
}

FileReadInstance::eReadResult FfmpegReadInstance::readVideoStreaming(Zn::Ptr<FrameBufferRep>& out, Zn::Ptr<VideoReadRequest>& request) {
    // A frame past the end would make a run of its own that only fails.
    if (!index_->video || request->getFrame() >= unsigned(index_->video->frameCount())) {
        out = Zn::makePtr<FrameBufferRep>(request->getFrame(), Zn::Image::Surface());
        return kReadFailed;
    }
    return StreamingDecodeReader::readVideoStreaming(out, request);
}

FileReadInstance::eReadResult FfmpegReadInstance::decodeFrames(Zn::Ptr<FrameBufferRep>& buffer, uint32_t frame) {
    if (buffer->isStreaming()) return decodeRun(buffer, frame);
    return readPacket(buffer, frame);
}

FileReadInstance::eReadResult FfmpegReadInstance::decodeRun(Zn::Ptr<FrameBufferRep>& slot, uint32_t first) {
    const int frames = index_->video ? index_->video->frameCount() : 0;
    const int last = int(std::min<int64_t>(int64_t(first) + slot->getNumFrames() - 1, frames - 1));
    if (!decoder_ && int(first) <= last) {
        VideoDecoderOptions options;
        options.threads = decoderThreads();
        // The slots keep what was decoded; the decoder's own store only has to cover
        // stepping back a little past them.
        options.cacheBytes = size_t(config_int("FfmpegFrameCacheMB", 32)) << 20;
        auto opened = FfmpegVideoDecoder::open(index_, options);
        if (opened) decoder_ = std::move(opened.value);
        else Log("FFmpeg cannot decode \"%ls\": %s\n", getFileName().c_str(), opened.error.c_str());
    }
    bool ok = false;
    if (decoder_ && int(first) <= last) {
        auto decoded = decoder_->decodeRange(int(first), last, [&](int k, const AVFrame* picture) {
            // Counted before the picture is handed out, so whoever sees it sees the count.
            streamedPictures_.store(uint64_t(decoder_->stats().picturesDecoded));
            Zn::Image::Surface surface = slot->getSurface(uint32_t(k) - first);
            std::string error;
            if (surfaces_.fill(*picture, slot->getFormat(), surface, error)) surface.set();
            else surface.fail();
            return true;
        });
        ok = bool(decoded);
        streamedPictures_.store(uint64_t(decoder_->stats().picturesDecoded));
    }
    // Nobody may wait for ever on a frame that did not come out.
    for (uint32_t i = 0; i < slot->getNumFrames(); ++i) {
        Zn::Image::Surface s = slot->getSurface(i);
        if (s.state() == Zn::Image::Surface::kWaitTimedOut) s.fail();
    }
    return ok ? kReadDone : kReadFailed;
}

FileReadInstance::eReadResult FfmpegReadInstance::readPacket(Zn::Ptr<FrameBufferRep>& buffer, uint32_t frame) {
    const auto& v = index_->video;
    if (!v || frame >= unsigned(v->frameCount())) return kReadFailed;
    if (!packets_) {
        auto opened = FfmpegPacketReader::open(index_);
        if (!opened) {
            Log("FFmpeg cannot read \"%ls\": %s\n", getFileName().c_str(), opened.error.c_str());
            return kReadFailed;
        }
        packets_ = std::move(opened.value);
        setup_ = Zn::makePtr<FfmpegCodecSetup>(v->codec);
    }
    auto packet = packets_->readPacket(int(frame));
    if (!packet) return kReadFailed;
    buffer->setCompressedData(0, Zn::Ptr<iMemHolder>(new PacketHolder(std::move(packet.value))));
    VideoDecompressionInfo& info = buffer->getVideoDecompressionInfo();
    info.codec = avcodec_get_name(v->codec->codec_id);
    info.codecTag = v->codec->codec_tag;
    info.core.setCoreData(uint32_t(v->width), uint32_t(v->height), nativeHostFormat(v->pixelFormat));
    info.extraData = setup_;
    buffer->getMetadata().image.setCoreData(uint32_t(v->width), uint32_t(v->height), Zn::Image::kFormatCompressed);
    buffer->setDecompressComplete(FrameBufferRep::kCompressed);
    return kReadDone;
}

void FfmpegReadInstance::readAudio(Zn::Ptr<AudioReadRequest>& request) { Zn::AudioReader::readAudio(request); }

Zn::AudioReader::eResult FfmpegReadInstance::readAudioSamples(uint32_t stream, uint64_t position, uint32_t samples, uint8_t* into,
                                         uint32_t& delivered) {
    delivered = 0;
    if (stream >= index_->audio.size()) return kFailed;
    if (pcm_.size() < index_->audio.size()) pcm_.resize(index_->audio.size());
    if (!pcm_[stream]) {
        auto opened = FfmpegAudioDecoder::open(index_, int(stream));
        if (!opened) return kFailed;
        pcm_[stream] = std::move(opened.value);
    }
    auto read = pcm_[stream]->read(int64_t(position), int64_t(samples), pcmBlock_);
    if (!read) return kFailed;
    // Plain PCM comes interleaved, in the layout the stream's metadata gives.
    const size_t bytes = size_t(read.value) * size_t(pcmBlock_.channels) * size_t(av_get_bytes_per_sample(pcmBlock_.format));
    if (read.value > 0 && !av_sample_fmt_is_planar(pcmBlock_.format) && pcmBlock_.planes[0].size() >= bytes)
        std::memcpy(into, pcmBlock_.planes[0].data(), bytes);
    else if (read.value > 0)
        return kFailed;
    delivered = uint32_t(read.value);
    return kSuccess;
}

Zn::AudioReader::eResult FfmpegReadInstance::readAudioBlock(uint32_t stream, uint64_t block, std::vector<uint8_t>& data) {
    if (stream >= index_->audio.size()) return kFailed;
    const uint32_t perBlock = getMetadata()->getAudioMetadata()[stream].getSamplesPerBlock();
    if (!perBlock || block * perBlock >= uint64_t(index_->audio[stream].totalSamples)) return kEndedEarly;
    data = encodeBlock(block);
    return kSuccess;
}

bool FfmpegFileReader::accepts(const WString&, OpenType) { return true; }

Zn::Ptr<FileReadInstance> FfmpegFileReader::open(const DecodeFormat& format, const WString& fileName, OpenType type) {
    return openFile(format, fileName, type).file;
}

Zn::iFileReader::Opened FfmpegFileReader::openFile(const DecodeFormat& format, const WString& fileName, OpenType type) {
    std::string error;
    int cause = 0;
    Opened result;
    result.file = FfmpegReadInstance::open(format, fileName, type, error, cause);
    if (result.file) {
        result.outcome = eOpenOutcome::kOpened;
    } else {
        result.outcome = openOutcomeOfErrno(cause);
        Log("FFmpeg cannot open \"%ls\": %s\n", fileName.c_str(), error.c_str());
    }
    return result;
}

unsigned FfmpegFileReader::capabilities(const DecodeFormat&, OpenType, const PlayFileMetadataRep& metadata,
                                        const Aud::Metadata&, Zn::ReaderDetails& details) {
    unsigned bits = 0;
    if (metadata.getVideoStreamCount() > 0) bits |= OpenType::kVideo;
    if (metadata.getAudioStreamCount() > 0) bits |= OpenType::kAudio;
    details.videoStreams = metadata.getVideoStreamCount();
    details.audioStreams = metadata.getAudioStreamCount();
    details.codec = metadata.getVideoStreamCount() ? metadata.getVideoCodec()
                    : metadata.getAudioStreamCount() ? metadata.getAudioMetadata().front().codec
                                                     : String();
    return bits;
}

} // namespace ffmpeg_backend
