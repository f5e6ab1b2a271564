// The FFmpeg back-end's file writer: video frames encoded with an intra-frame editing
// codec into a standard container, FFV1 in Matroska (lossless) or ProRes in QuickTime.
//
// Parameters: codec "ffv1" or "prores" (empty: FFV1, or ProRes when the container is
// "mov"), container "matroska"/"mkv" or "mov" (empty: the codec's usual one). Options are
// handed to the encoder as FFmpeg options ("threads", "slices", "level", "profile", ...),
// except two that the writer takes itself: "pix_fmt" (the encoder's pixel format; by
// default the frames' own when the encoder takes it, else the closest one it does) and
// "queue_frames" (how many frames may wait for the encoder, default 40).
//
// Frames are copied, or converted with libswscale when the encoder wants another pixel
// format, on the caller's thread, and encoded and written on a thread of the writer's
// own; pendingFrames() counts the frames accepted but not yet encoded.
#pragma once

#include "host/media/FileWriterInfo.h"

namespace ffmpeg_backend {

class FfmpegFileWriter : public Zn::iFileWriter {
public:
    String name() const override { return "FFmpeg"; }
    bool accepts(const Zn::FileWriterParams& params) const override;
    std::vector<WString> extensions(const Zn::FileWriterParams& params) const override;
    int create(const WString& fileName, Zn::FileWriterParams& params, Zn::Ptr<Zn::FileWriteInstance>& out) override;
};

} // namespace ffmpeg_backend
