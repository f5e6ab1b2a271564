// Opening a media file with FFmpeg: choosing its video stream and listing its audio
// streams, then one pass over every packet (demuxing only, no decoding) that builds the
// MediaIndex the decoders work from. See FfmpegEngine.h for the frame-numbering rule.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"

#include <memory>
#include <string>

namespace ffmpeg_engine {

class FfmpegSource {
public:
    // Opens path and indexes it. Fails with a one-line reason ("empty file", "no video or
    // audio stream", FFmpeg's own error text...) rather than throwing.
    static Result<std::shared_ptr<const MediaIndex>> open(const std::string& path);

private:
    class Scan;
};

} // namespace ffmpeg_engine
