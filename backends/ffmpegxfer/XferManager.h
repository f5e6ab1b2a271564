// FfmpegXferManager: the file-transfer manager of the FFmpeg transfer plug-in. It takes
// sound and vision extractions of any file FFmpeg reads and writes the section as the
// destination material's file on the destination drive: sound as a WAV file in the
// source's sample format, vision in a container of the source's kind with intra-coded
// frames copied as they are and long-GOP video cut at exact frames (see XferVision.cpp).
//
// The file is written under a temporary name beside its final name and renamed into place
// only when complete, with its play header; a failure or a cancellation takes the
// temporary file away again, so nothing half-written is ever found under a material name.
// It holds no state between calls: extractions may run on several threads at once.
#pragma once

#include "host/media/FileXferManager.h"

namespace ffmpeg_xfer {

class FfmpegXferManager final : public iFileXferManager {
public:
    WString getName() const override { return WString(L"FFmpeg transfer"); }
    bool acceptsExtraction(const FileXferSpec& xfer) override;
    eExtractResult extract(const FileXferSpec& xfer, LoggerHandle& log) override;
};

} // namespace ffmpeg_xfer
