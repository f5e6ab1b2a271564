#include "backends/ffmpeg/FfmpegAudioCodec.h"

#include <algorithm>

namespace ffmpeg_backend {

using namespace ffmpeg_engine;

uint32_t FfmpegAudioSetup::getSize() const {
    const AVCodecParameters* p = index_->audio[size_t(track_)].codec.get();
    return p->extradata ? uint32_t(std::max(p->extradata_size, 0)) : 0;
}

std::vector<uint8_t> encodeBlock(uint64_t block) {
    std::vector<uint8_t> bytes(8);
    for (int i = 0; i < 8; ++i) bytes[size_t(i)] = uint8_t(block >> (8 * i));
    return bytes;
}

FfmpegAudioCodec::FfmpegAudioCodec(std::unique_ptr<FfmpegAudioDecoder> decoder, uint32_t samplesPerBlock)
    : decoder_(std::move(decoder)), samplesPerBlock_(samplesPerBlock),
      planar_(av_sample_fmt_is_planar(decoder_->nativeFormat())) {}

String FfmpegAudioCodec::name() const {
    return String("FFmpeg ") + avcodec_get_name(decoder_->track().codec->codec_id);
}

const uint8_t* FfmpegAudioCodec::getOutput(uint32_t channel) const {
    const size_t plane = planar_ ? channel : 0;
    return plane < output_.planes.size() ? output_.planes[plane].data() : nullptr;
}

Zn::eAudioResult FfmpegAudioCodec::decode(const uint8_t* data, uint32_t size, uint32_t& samples) {
    samples = 0;
    if (!data || size != 8) return kFailed;
    uint64_t block = 0;
    for (int i = 0; i < 8; ++i) block |= uint64_t(data[i]) << (8 * i);
    const int64_t start = int64_t(block * samplesPerBlock_);
    if (start >= decoder_->totalSamples()) return kEndedEarly;
    auto read = decoder_->read(start, samplesPerBlock_, output_);
    if (!read) return kFailed;
    if (read.value == 0) return kEndedEarly;
    samples = uint32_t(read.value);
    return kSuccess;
}

bool FfmpegAudioDecoderFactory::canDecode(const Aud::Metadata& stream) const {
    return stream.isCompressedFormat() && avcodec_find_decoder_by_name(stream.codec.c_str()) != nullptr;
}

Zn::Ptr<Zn::AudioCodecInstance> FfmpegAudioDecoderFactory::createCodec(const Aud::Metadata& stream,
                                                                      const Zn::Ptr<iMemHolder>& header) {
    auto* setup = dynamic_cast<FfmpegAudioSetup*>(header.get());
    if (!setup || !stream.getSamplesPerBlock()) return nullptr;
    auto decoder = FfmpegAudioDecoder::open(setup->index(), setup->track());
    if (!decoder) return nullptr;
    return Zn::Ptr<Zn::AudioCodecInstance>(new FfmpegAudioCodec(std::move(decoder.value), stream.getSamplesPerBlock()));
}

} // namespace ffmpeg_backend
