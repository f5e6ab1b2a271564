// Packing, hashing and converting decoded pictures.
#include "backends/ffmpeg/FfmpegPicture.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/md5.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace ffmpeg_engine {

int packedSize(AVPixelFormat format, int width, int height) {
    return av_image_get_buffer_size(format, width, height, 1);
}

std::vector<uint8_t> packPicture(const AVFrame& picture) {
    const auto format = AVPixelFormat(picture.format);
    const int size = packedSize(format, picture.width, picture.height);
    if (size <= 0) return {};
    std::vector<uint8_t> bytes(static_cast<size_t>(size));
    const int rc = av_image_copy_to_buffer(bytes.data(), size, picture.data, picture.linesize, format, picture.width,
                                           picture.height, 1);
    if (rc < 0) return {};
    bytes.resize(size_t(rc));
    return bytes;
}

std::string md5Hex(const void* data, size_t size) {
    uint8_t sum[16];
    AVMD5* md5 = av_md5_alloc();
    if (!md5) return {};
    av_md5_init(md5);
    // av_md5_update takes an int length in FFmpeg 5.1; feed large buffers in pieces.
    const auto* p = static_cast<const uint8_t*>(data);
    while (size > 0) {
        const size_t piece = std::min<size_t>(size, size_t(1) << 30);
        av_md5_update(md5, p, int(piece));
        p += piece;
        size -= piece;
    }
    av_md5_final(md5, sum);
    av_free(md5);
    static const char hex[] = "0123456789abcdef";
    std::string out(32, '0');
    for (int i = 0; i < 16; ++i) {
        out[size_t(2 * i)] = hex[sum[i] >> 4];
        out[size_t(2 * i + 1)] = hex[sum[i] & 15];
    }
    return out;
}

std::string pictureMd5(const AVFrame& picture) {
    const std::vector<uint8_t> bytes = packPicture(picture);
    return bytes.empty() ? std::string() : md5Hex(bytes.data(), bytes.size());
}

PictureConverter::PictureConverter(int swsFlags) : flags_(swsFlags) {}

PictureConverter::~PictureConverter() { sws_freeContext(sws_); }

Result<FramePtr> PictureConverter::convert(const AVFrame& source, AVPixelFormat format, int width, int height) {
    using R = Result<FramePtr>;
    const auto from = AVPixelFormat(source.format);
    if (width <= 0) width = source.width;
    if (height <= 0) height = source.height;
    if (from == format && width == source.width && height == source.height) {
        FramePtr same = refFrame(&source);
        return same ? R::ok(std::move(same)) : R::fail("out of memory");
    }
    if (!sws_isSupportedInput(from)) return R::fail(std::string("cannot convert from ") + av_get_pix_fmt_name(from));
    if (!sws_isSupportedOutput(format)) {
        const char* name = av_get_pix_fmt_name(format);
        return R::fail(std::string("cannot convert to ") + (name ? name : "an unknown format"));
    }
    sws_ = sws_getCachedContext(sws_, source.width, source.height, from, width, height, format, flags_, nullptr,
                                nullptr, nullptr);
    if (!sws_) return R::fail("cannot set up the conversion");

    // The picture's own colour matrix and range, as FFmpeg's scale filter takes them.
    int *inTable, *outTable, srcFull = 0, dstFull = 0, brightness, contrast, saturation;
    if (sws_getColorspaceDetails(sws_, &inTable, &srcFull, &outTable, &dstFull, &brightness, &contrast,
                                 &saturation) >= 0) {
        // libswscale maps a matrix left unset to its default (BT.601), as the filter does.
        const int* table = sws_getCoefficients(int(source.colorspace));
        if (source.color_range == AVCOL_RANGE_JPEG || source.color_range == AVCOL_RANGE_MPEG)
            srcFull = source.color_range == AVCOL_RANGE_JPEG;
        sws_setColorspaceDetails(sws_, table, srcFull, table, dstFull, brightness, contrast, saturation);
    }

    FramePtr out = newFrame();
    if (!out) return R::fail("out of memory");
    out->format = format;
    out->width = width;
    out->height = height;
    if (av_frame_get_buffer(out.get(), 0) < 0) return R::fail("out of memory");
    if (sws_scale(sws_, source.data, source.linesize, 0, source.height, out->data, out->linesize) != height)
        return R::fail("the conversion failed");
    av_frame_copy_props(out.get(), &source);
    const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(format);
    out->color_range = (desc && (desc->flags & AV_PIX_FMT_FLAG_RGB)) || dstFull ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    return R::ok(std::move(out));
}

} // namespace ffmpeg_engine
