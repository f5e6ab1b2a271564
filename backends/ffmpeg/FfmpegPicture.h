// Pictures out of the decoders: packing a picture's planes into one buffer without
// padding (the exact bytes `ffmpeg -f framemd5` hashes for its pixel format), MD5 sums of
// bytes, and conversion to another pixel format or size with libswscale.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"

#include <cstdint>
#include <string>
#include <vector>

struct SwsContext;

namespace ffmpeg_engine {

// The picture's planes one after the other, each row without padding (alignment 1), with
// the palette for paletted formats: av_image_copy_to_buffer's layout. Empty on failure.
std::vector<uint8_t> packPicture(const AVFrame& picture);
// Bytes packPicture answers for a picture of this format and size (-1 when impossible).
int packedSize(AVPixelFormat format, int width, int height);

// Lower-case hexadecimal MD5 of bytes (libavutil's md5).
std::string md5Hex(const void* data, size_t size);
// The MD5 `ffmpeg -f framemd5` prints for the picture in its own pixel format.
std::string pictureMd5(const AVFrame& picture);

// Converts pictures to a requested pixel format and size. Colour handling follows FFmpeg's
// scale filter: the picture's own matrix and range in; RGB out at full range; YUV and
// gray out at the range they came in. Keeps its libswscale context between pictures of
// the same geometry. One thread at a time.
class PictureConverter {
public:
    explicit PictureConverter(int swsFlags = 4 /* SWS_BICUBIC, as FFmpeg's program */);
    ~PictureConverter();
    PictureConverter(const PictureConverter&) = delete;
    PictureConverter& operator=(const PictureConverter&) = delete;

    // A new picture in format (and width x height, 0 keeping the source's size). A picture
    // already in that format and size comes back as a reference, not a copy.
    Result<FramePtr> convert(const AVFrame& source, AVPixelFormat format, int width = 0, int height = 0);

private:
    SwsContext* sws_ = nullptr;
    int flags_;
};

} // namespace ffmpeg_engine
