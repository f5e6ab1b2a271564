// Opening a media file with FFmpeg: choosing its video stream and listing its audio
// streams, then one pass over every packet (demuxing only, no decoding) that builds the
// MediaIndex the decoders work from. (For video alone, a QuickTime/MP4 file's own sample
// tables may stand in for all of it: Options::videoOnly.) Where the container indexes every packet, the pass
// reads none of their payloads (FfmpegContainerIndex.h); elsewhere it reads the file once,
// in large sequential reads. See FfmpegEngine.h for the frame-numbering rule.
#pragma once

#include "backends/ffmpeg/FfmpegIndex.h"

#include <memory>
#include <string>

namespace ffmpeg_engine {

class FfmpegSource {
public:
    struct Options {
        // false: read every packet even where the container indexes them all.
        bool useContainerIndex = true;
        // The caller needs the video alone: a QuickTime/MP4 file's video is then indexed
        // from its sample tables without a demuxer (FfmpegMovSource.h) where they allow,
        // and the index has no audio. Other files are indexed whole as usual.
        bool videoOnly = false;
    };

    // Opens path and indexes it. Fails with a one-line reason ("empty file", "no video or
    // audio stream", FFmpeg's own error text...) rather than throwing; Result::cause holds
    // the errno when the system failed (no descriptor or memory left, a read error).
    static Result<std::shared_ptr<const MediaIndex>> open(const std::string& path);
    static Result<std::shared_ptr<const MediaIndex>> open(const std::string& path, Options options);

private:
    class Scan;
};

} // namespace ffmpeg_engine
