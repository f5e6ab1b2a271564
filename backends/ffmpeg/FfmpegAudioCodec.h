// The FFmpeg back-end's audio codec for the host's audio decoder registry
// (Zn::AudioDecoderInfo): the Zn::AudioCodecInstance through which the audio reader
// decodes a compressed stream of a file the FFmpeg reader opened.
//
// The audio reader counts a stream in blocks of a fixed number of samples, block b
// holding the samples from b x samples-per-block on. FFmpeg's packets do not fit that:
// Opus and Vorbis packets vary in length, and what a packet contributes depends on
// trimming (encoder delay, edit lists, end padding) that its bytes do not carry. So a
// block of this back-end is a run of samples-per-block decoded samples, and reading it
// names the block: the codec decodes it with the engine's FfmpegAudioDecoder, which finds
// the packets, decodes the codec's pre-roll after a jump (the priming) and trims exactly
// as FFmpeg does. The instance therefore asks for no priming blocks and has no delay: its
// block b is exactly the stream's samples b x samples-per-block onwards.
#pragma once

#include "backends/ffmpeg/FfmpegEngine.h"
#include "host/media/AudioDecoderInfo.h"

#include <memory>
#include <vector>

namespace ffmpeg_backend {

// What the reader passes as a compressed stream's header: the indexed file and the
// stream; its bytes are the codec's extradata.
class FfmpegAudioSetup : public iMemHolder {
public:
    FfmpegAudioSetup(std::shared_ptr<const ffmpeg_engine::MediaIndex> index, int track)
        : index_(std::move(index)), track_(track) {}
    uint8_t* getBuffer() const override { return index_->audio[size_t(track_)].codec->extradata; }
    uint32_t getSize() const override;
    uint32_t getUsed() const override { return getSize(); }
    uint32_t setUsed(uint32_t) override { return getSize(); }

    const std::shared_ptr<const ffmpeg_engine::MediaIndex>& index() const { return index_; }
    int track() const { return track_; }

private:
    std::shared_ptr<const ffmpeg_engine::MediaIndex> index_;
    int track_;
};

// A block's bytes, as the reader's block read gives them: its number.
std::vector<uint8_t> encodeBlock(uint64_t block);

class FfmpegAudioCodec : public Zn::AudioCodecInstance {
public:
    FfmpegAudioCodec(std::unique_ptr<ffmpeg_engine::FfmpegAudioDecoder> decoder, uint32_t samplesPerBlock);
    String name() const override;
    bool producesInterleaved() const override { return !planar_; }
    const uint8_t* getOutput(uint32_t channel) const override;

protected:
    Zn::eAudioResult decode(const uint8_t* data, uint32_t size, uint32_t& samples) override;

private:
    std::unique_ptr<ffmpeg_engine::FfmpegAudioDecoder> decoder_;
    const uint32_t samplesPerBlock_;
    const bool planar_;
    ffmpeg_engine::AudioBlock output_;
};

// Makes FfmpegAudioCodec for streams whose header is an FfmpegAudioSetup.
class FfmpegAudioDecoderFactory : public Zn::iAudioDecoderFactory {
public:
    String name() const override { return "FFmpeg"; }
    bool canDecode(const Aud::Metadata& stream) const override;
    Zn::Ptr<Zn::AudioCodecInstance> createCodec(const Aud::Metadata& stream, const Zn::Ptr<iMemHolder>& header) override;
};

} // namespace ffmpeg_backend
