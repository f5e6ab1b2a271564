#include "backends/ffmpeg/FfmpegVideoCodec.h"

#include "backends/ffmpeg/FfmpegIntraFrames.h"
#include "backends/ffmpeg/FfmpegSurfaces.h"
#include "host/os/Config.h"

extern "C" {
#include <libavutil/imgutils.h>
}

#include <algorithm>
#include <cstring>

namespace ffmpeg_backend {

using namespace ffmpeg_engine;

namespace {

std::atomic<uint64_t> picturesDecoded{0};

const AVCodecParameters* parametersOf(const VideoDecompressionInfo& info) {
    auto* setup = dynamic_cast<FfmpegCodecSetup*>(info.extraData.get());
    return setup ? setup->parameters().get() : nullptr;
}

// Codec parameters for frames that another back-end read: what the decompression
// information says about them.
CodecParametersPtr parametersFrom(const VideoDecompressionInfo& info) {
    const AVCodec* codec = avcodec_find_decoder_by_name(info.codec.c_str());
    if (!codec) return nullptr;
    AVCodecParameters* p = avcodec_parameters_alloc();
    if (!p) return nullptr;
    CodecParametersPtr owned(p, CodecParametersDeleter{});
    p->codec_type = AVMEDIA_TYPE_VIDEO;
    p->codec_id = codec->id;
    p->codec_tag = info.codecTag;
    p->width = int(info.core.getWidth());
    p->height = int(info.core.getHeight());
    const AVPixelFormat format = avFormatOf(info.core.getDataFormat());
    if (format != AV_PIX_FMT_NONE) p->format = format;
    const uint32_t extra = info.extraData ? info.extraData->getUsed() : 0;
    if (extra) {
        p->extradata = static_cast<uint8_t*>(av_mallocz(extra + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!p->extradata) return nullptr;
        std::memcpy(p->extradata, info.extraData->getBuffer(), extra);
        p->extradata_size = int(extra);
    }
    return owned;
}

// A decoder for one codec set-up: packets in, surfaces out, on the thread that completes
// the request (the CodecPool gives it to one caller at a time).
class PacketDecoder : public Zn::iDecoder {
public:
    PacketDecoder(String name, std::unique_ptr<FfmpegPacketDecoder> decoder)
        : name_(std::move(name)), decoder_(std::move(decoder)) {}
    String name() const override { return name_; }

protected:
    eDecodeResult decode(Zn::Ptr<FrameBufferRep>& buffer) override {
        Result<FramePtr> picture;
        if (auto* held = dynamic_cast<PacketHolder*>(buffer->getCompressedMemory(0).get()))
            picture = decoder_->decode(held->packet());
        else
            picture = decoder_->decode(buffer->getCompressedData(0), buffer->getCompressedSize(0));
        if (!picture) return kDecodeFailed;
        ++picturesDecoded;
        return deliver(*picture.value, buffer, surfaces_) ? kDecoded : kDecodeFailed;
    }

public:
    static bool deliver(const AVFrame& picture, Zn::Ptr<FrameBufferRep>& buffer, SurfaceMaker& surfaces) {
        Zn::Image::Surface surface;
        std::string error;
        if (!surfaces.fill(picture, buffer->getFormat(), surface, error)) return false;
        surface.setOrientation(buffer->getMetadata().orientation);
        buffer->setSurface(0, surface);
        return true;
    }

private:
    String name_;
    std::unique_ptr<FfmpegPacketDecoder> decoder_;
    SurfaceMaker surfaces_;
};

// Raw pixels of another back-end (Y4M) in another pixel format or size.
class RawConverter : public Zn::iDecoder {
public:
    String name() const override { return "FFmpeg raw"; }

protected:
    eDecodeResult decode(Zn::Ptr<FrameBufferRep>& buffer) override {
        const VideoDecompressionInfo& info = buffer->getVideoDecompressionInfo();
        const Zn::Image::eDataFormat format = info.core.getDataFormat();
        const uint32_t w = info.core.getWidth(), h = info.core.getHeight();
        uint8_t* data = buffer->getCompressedData(0);
        if (!data || buffer->getCompressedSize(0) < Zn::Image::frameBytes(format, w, h)) return kDecodeFailed;
        FramePtr picture = newFrame();
        if (!picture) return kDecodeFailed;
        picture->format = avFormatOf(format);
        picture->width = int(w);
        picture->height = int(h);
        uint8_t* planes[Zn::Image::kMaxPlanes];
        uint32_t strides[Zn::Image::kMaxPlanes];
        Zn::Image::splitPlanes(format, w, h, data, info.bufferFormat.stride, planes, strides);
        for (unsigned p = 0; p < Zn::Image::kMaxPlanes; ++p) {
            picture->data[p] = planes[p];
            picture->linesize[p] = int(strides[p]);
        }
        const FrameBufferMetadata& meta = buffer->getMetadata();
        picture->color_range = meta.colourRange == Zn::Image::kColourRangeFull ? AVCOL_RANGE_JPEG
                               : meta.colourRange == Zn::Image::kColourRangeLimited ? AVCOL_RANGE_MPEG
                                                                                     : AVCOL_RANGE_UNSPECIFIED;
        ++picturesDecoded;
        return PacketDecoder::deliver(*picture, buffer, surfaces_) ? kDecoded : kDecodeFailed;
    }

private:
    SurfaceMaker surfaces_;
};

} // namespace

FfmpegCodecSetup::FfmpegCodecSetup(CodecParametersPtr parameters) : parameters_(std::move(parameters)) {}

uint8_t* FfmpegCodecSetup::getBuffer() const { return parameters_ ? parameters_->extradata : nullptr; }

uint32_t FfmpegCodecSetup::getSize() const {
    return parameters_ && parameters_->extradata ? uint32_t(std::max(parameters_->extradata_size, 0)) : 0;
}

bool FfmpegDecoderFactory::canDecode(const VideoDecompressionInfo& info) const {
    if (info.codec == "raw") return avFormatOf(info.core.getDataFormat()) != AV_PIX_FMT_NONE;
    if (parametersOf(info)) return true;
    return avcodec_find_decoder_by_name(info.codec.c_str()) != nullptr;
}

Zn::Ptr<Zn::iDecoder> FfmpegDecoderFactory::createDecoder(const VideoDecompressionInfo& info) {
    if (info.codec == "raw") return Zn::Ptr<Zn::iDecoder>(new RawConverter);
    CodecParametersPtr parameters;
    if (const AVCodecParameters* own = parametersOf(info)) parameters = copyParameters(own);
    else parameters = parametersFrom(info);
    if (!parameters) return nullptr;
    // The packet decoder works from an index; one that knows only the codec will do.
    auto index = std::make_shared<MediaIndex>();
    index->video.emplace();
    index->video->codec = parameters;
    auto decoder = FfmpegPacketDecoder::open(index, Threading::Slice, decoderThreads());
    if (!decoder) return nullptr;
    return Zn::Ptr<Zn::iDecoder>(new PacketDecoder("FFmpeg " + info.codec, std::move(decoder.value)));
}

uint64_t registeredDecoderPictures() { return picturesDecoded.load(); }

int decoderThreads() {
    const int configured = config_int("FfmpegThreads", 0);
    return configured > 0 ? std::min(configured, 16) : std::min(coreCount(), 16);
}

} // namespace ffmpeg_backend
