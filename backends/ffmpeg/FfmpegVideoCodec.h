// The FFmpeg back-end's video decoder for the host's decoder registry (Zn::DecoderInfo):
// it turns the compressed frames that intra-only files are read as (ProRes, DNxHD, MJPEG,
// FFV1, raw video in a container) into pictures when their read request completes, and
// converts raw pixels that other back-ends read (codec "raw") into another pixel format
// or size. Decoders are pooled by the host's CodecPool, one caller at a time each.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"
#include "host/media/DecoderInfo.h"
#include "host/media/MemHolder.h"

#include <atomic>
#include <cstdint>
#include <vector>

namespace ffmpeg_backend {

// The set-up of a stream's codec, carried as the frames' extraData: its bytes are the
// codec's extradata (so the host's "same decoder" test compares them), and it keeps the
// whole parameter set for making a decoder exactly as the file's own.
class FfmpegCodecSetup : public iMemHolder {
public:
    explicit FfmpegCodecSetup(ffmpeg_engine::CodecParametersPtr parameters);
    uint8_t* getBuffer() const override;
    uint32_t getSize() const override;
    uint32_t getUsed() const override { return getSize(); }
    uint32_t setUsed(uint32_t) override { return getSize(); }
    const ffmpeg_engine::CodecParametersPtr& parameters() const { return parameters_; }

private:
    ffmpeg_engine::CodecParametersPtr parameters_;
};

class FfmpegDecoderFactory : public Zn::iDecoderFactory {
public:
    String name() const override { return "FFmpeg"; }
    bool canDecode(const VideoDecompressionInfo& info) const override;
    Zn::Ptr<Zn::iDecoder> createDecoder(const VideoDecompressionInfo& info) override;
};

// Pictures decoded (or raw frames converted) by this back-end's registered decoders since
// the process started: what the tests and benchmarks count decodes with.
uint64_t registeredDecoderPictures();

// Decoder threads for FFmpeg's codecs: the configuration key "FfmpegThreads" (0, the
// default, is one per core, at most 16).
int decoderThreads();

} // namespace ffmpeg_backend
