#include "backends/ffmpeg/FfmpegSurfaces.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

#include <vector>

namespace ffmpeg_backend {

namespace {

using namespace Zn::Image;

struct FormatPair {
    eDataFormat host;
    AVPixelFormat av;
};

// Host formats and the FFmpeg formats with the same bytes.
constexpr FormatPair kPairs[] = {
    {kFormatGray8, AV_PIX_FMT_GRAY8},
    {kFormatGray16LE, AV_PIX_FMT_GRAY16LE},
    {kFormatRGB24, AV_PIX_FMT_RGB24},
    {kFormatBGR24, AV_PIX_FMT_BGR24},
    {kFormatRGBA32, AV_PIX_FMT_RGBA},
    {kFormatBGRA32, AV_PIX_FMT_BGRA},
    {kFormatARGB32, AV_PIX_FMT_ARGB},
    {kFormatRGB48LE, AV_PIX_FMT_RGB48LE},
    {kFormatRGBA64LE, AV_PIX_FMT_RGBA64LE},
    {kFormatYUV420P, AV_PIX_FMT_YUV420P},
    {kFormatYUV422P, AV_PIX_FMT_YUV422P},
    {kFormatYUV444P, AV_PIX_FMT_YUV444P},
    {kFormatYUV420P10LE, AV_PIX_FMT_YUV420P10LE},
    {kFormatYUV422P10LE, AV_PIX_FMT_YUV422P10LE},
    {kFormatYUV444P10LE, AV_PIX_FMT_YUV444P10LE},
    {kFormatNV12, AV_PIX_FMT_NV12},
    {kFormatUYVY422, AV_PIX_FMT_UYVY422},
    {kFormatYUYV422, AV_PIX_FMT_YUYV422},
    {kFormatGray9LE, AV_PIX_FMT_GRAY9LE},
    {kFormatGray10LE, AV_PIX_FMT_GRAY10LE},
    {kFormatGray12LE, AV_PIX_FMT_GRAY12LE},
    {kFormatYUV410P, AV_PIX_FMT_YUV410P},
    {kFormatYUV411P, AV_PIX_FMT_YUV411P},
    {kFormatYUV440P, AV_PIX_FMT_YUV440P},
    {kFormatYUVA420P, AV_PIX_FMT_YUVA420P},
    {kFormatYUVA422P, AV_PIX_FMT_YUVA422P},
    {kFormatYUVA444P, AV_PIX_FMT_YUVA444P},
    {kFormatYUV420P9LE, AV_PIX_FMT_YUV420P9LE},
    {kFormatYUV422P9LE, AV_PIX_FMT_YUV422P9LE},
    {kFormatYUV444P9LE, AV_PIX_FMT_YUV444P9LE},
    {kFormatYUV420P12LE, AV_PIX_FMT_YUV420P12LE},
    {kFormatYUV422P12LE, AV_PIX_FMT_YUV422P12LE},
    {kFormatYUV444P12LE, AV_PIX_FMT_YUV444P12LE},
    {kFormatYUV420P14LE, AV_PIX_FMT_YUV420P14LE},
    {kFormatYUV422P14LE, AV_PIX_FMT_YUV422P14LE},
    {kFormatYUV444P14LE, AV_PIX_FMT_YUV444P14LE},
    {kFormatYUV420P16LE, AV_PIX_FMT_YUV420P16LE},
    {kFormatYUV422P16LE, AV_PIX_FMT_YUV422P16LE},
    {kFormatYUV444P16LE, AV_PIX_FMT_YUV444P16LE},
    {kFormatYUVA444P10LE, AV_PIX_FMT_YUVA444P10LE},
    {kFormatGBRP, AV_PIX_FMT_GBRP},
    {kFormatGBRP10LE, AV_PIX_FMT_GBRP10LE},
    {kFormatGBRP12LE, AV_PIX_FMT_GBRP12LE},
    {kFormatGBRP16LE, AV_PIX_FMT_GBRP16LE},
    {kFormatGBRAP, AV_PIX_FMT_GBRAP},
    {kFormatP010LE, AV_PIX_FMT_P010LE},
};

// The full-range twins, whose bytes are laid out like the plain formats.
AVPixelFormat withoutJ(AVPixelFormat f) {
    switch (f) {
    case AV_PIX_FMT_YUVJ420P: return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P: return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P: return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P: return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P: return AV_PIX_FMT_YUV411P;
    default: return f;
    }
}

} // namespace

eDataFormat hostFormatOf(AVPixelFormat format) {
    format = withoutJ(format);
    for (const FormatPair& p : kPairs)
        if (p.av == format) return p.host;
    return kFormatUnknown;
}

AVPixelFormat avFormatOf(eDataFormat format) {
    for (const FormatPair& p : kPairs)
        if (p.host == format) return p.av;
    return AV_PIX_FMT_NONE;
}

eDataFormat nativeHostFormat(AVPixelFormat format) {
    eDataFormat own = hostFormatOf(format);
    if (own != kFormatUnknown || format == AV_PIX_FMT_NONE) return own;
    // Let libavutil pick the host format that loses least (bit depth, chroma, alpha).
    std::vector<AVPixelFormat> candidates;
    for (const FormatPair& p : kPairs) candidates.push_back(p.av);
    candidates.push_back(AV_PIX_FMT_NONE);
    AVPixelFormat best = avcodec_find_best_pix_fmt_of_list(candidates.data(), format, 1, nullptr);
    return hostFormatOf(best);
}

eColourRange colourRangeOf(const AVFrame& picture) {
    const AVPixelFormat f = AVPixelFormat(picture.format);
    if (picture.color_range == AVCOL_RANGE_JPEG || withoutJ(f) != f) return kColourRangeFull;
    if (picture.color_range == AVCOL_RANGE_MPEG) return kColourRangeLimited;
    return kColourRangeUnknown;
}

eColourSpace colourSpaceOf(AVColorSpace space) {
    switch (space) {
    case AVCOL_SPC_BT709: return kColourSpaceBT709;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M: return kColourSpaceBT601;
    case AVCOL_SPC_BT2020_NCL:
    case AVCOL_SPC_BT2020_CL: return kColourSpaceBT2020;
    default: return kColourSpaceUnknown;
    }
}

uint32_t FrameHolder::getSize() const {
    size_t total = 0;
    for (const AVBufferRef* b : picture_->buf)
        if (b) total += b->size;
    return uint32_t(std::min<size_t>(total, UINT32_MAX));
}

bool SurfaceMaker::fill(const AVFrame& picture, const DecodeFormat& wanted, Surface& surface, std::string& error) {
    const AVPixelFormat from = AVPixelFormat(picture.format);
    eDataFormat target = kFormatUnknown;
    int width = 0, height = 0;
    if (wanted.isCoreDataSet()) {
        target = wanted.getDataFormat();
        width = int(wanted.getWidth());
        height = int(wanted.getHeight());
    }
    if (!isRawFormat(target)) target = nativeHostFormat(from);
    const AVPixelFormat to = avFormatOf(target);
    if (to == AV_PIX_FMT_NONE) {
        const char* name = av_get_pix_fmt_name(from);
        error = std::string("no host pixel format for ") + (name ? name : "an unknown format");
        return false;
    }
    FramePtr out;
    if (withoutJ(from) == to && (width == 0 || width == picture.width) && (height == 0 || height == picture.height)) {
        out = ffmpeg_engine::refFrame(&picture);
        if (!out) {
            error = "out of memory";
            return false;
        }
    } else {
        auto converted = converter_.convert(picture, to, width, height);
        if (!converted) {
            error = converted.error;
            return false;
        }
        out = std::move(converted.value);
    }
    if (out->linesize[0] < 0 || out->linesize[1] < 0 || out->linesize[2] < 0 || out->linesize[3] < 0) {
        // Rows stored bottom up: surfaces have positive strides, so copy the picture.
        FramePtr upright = ffmpeg_engine::newFrame();
        if (!upright) {
            error = "out of memory";
            return false;
        }
        upright->format = out->format;
        upright->width = out->width;
        upright->height = out->height;
        if (av_frame_get_buffer(upright.get(), 0) < 0 || av_frame_copy(upright.get(), out.get()) < 0) {
            error = "out of memory";
            return false;
        }
        av_frame_copy_props(upright.get(), out.get());
        out = std::move(upright);
    }
    Core::Data core(uint32_t(out->width), uint32_t(out->height), target);
    uint8_t* planes[kMaxPlanes] = {};
    uint32_t strides[kMaxPlanes] = {};
    const unsigned planeCount = pixelLayout(target).planes;
    for (unsigned p = 0; p < planeCount && p < kMaxPlanes; ++p) {
        planes[p] = out->data[p];
        strides[p] = uint32_t(out->linesize[p]);
    }
    const eColourRange range = colourRangeOf(*out);
    const eColourSpace space = colourSpaceOf(out->colorspace);
    surface.attachPixels(core, planes, strides, Zn::Ptr<iMemHolder>(new FrameHolder(std::move(out))));
    surface.setColour(space, range);
    return true;
}

} // namespace ffmpeg_backend
