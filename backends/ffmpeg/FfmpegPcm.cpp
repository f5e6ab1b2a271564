// Stored PCM to the sample format of FFmpeg's PCM decoders.
#include "backends/ffmpeg/FfmpegPcm.h"

#include <cstring>

namespace ffmpeg_engine {

PcmLayout pcmLayout(AVCodecID codec) {
    switch (codec) {
    case AV_CODEC_ID_PCM_U8: return {AV_SAMPLE_FMT_U8, 1, false, false};
    case AV_CODEC_ID_PCM_S8: return {AV_SAMPLE_FMT_U8, 1, false, true};
    case AV_CODEC_ID_PCM_S16LE: return {AV_SAMPLE_FMT_S16, 2, false, false};
    case AV_CODEC_ID_PCM_S16BE: return {AV_SAMPLE_FMT_S16, 2, true, false};
    case AV_CODEC_ID_PCM_S24LE: return {AV_SAMPLE_FMT_S32, 3, false, false};
    case AV_CODEC_ID_PCM_S24BE: return {AV_SAMPLE_FMT_S32, 3, true, false};
    case AV_CODEC_ID_PCM_S32LE: return {AV_SAMPLE_FMT_S32, 4, false, false};
    case AV_CODEC_ID_PCM_S32BE: return {AV_SAMPLE_FMT_S32, 4, true, false};
    case AV_CODEC_ID_PCM_F32LE: return {AV_SAMPLE_FMT_FLT, 4, false, false};
    case AV_CODEC_ID_PCM_F32BE: return {AV_SAMPLE_FMT_FLT, 4, true, false};
    case AV_CODEC_ID_PCM_F64LE: return {AV_SAMPLE_FMT_DBL, 8, false, false};
    case AV_CODEC_ID_PCM_F64BE: return {AV_SAMPLE_FMT_DBL, 8, true, false};
    default: return {};
    }
}

void convertPcm(const PcmLayout& layout, const uint8_t* in, size_t samples, uint8_t* out) {
    const int b = layout.storedBytes;
    if (layout.storedBytes == 3) {
        // 24-bit samples go to the top three bytes of a 32-bit word, as FFmpeg delivers them.
        auto* o = reinterpret_cast<uint32_t*>(out);
        for (size_t i = 0; i < samples; ++i, in += 3) {
            uint32_t v = layout.bigEndian ? (uint32_t(in[0]) << 24 | uint32_t(in[1]) << 16 | uint32_t(in[2]) << 8)
                                          : (uint32_t(in[2]) << 24 | uint32_t(in[1]) << 16 | uint32_t(in[0]) << 8);
            std::memcpy(o + i, &v, 4);
        }
        return;
    }
    if (!layout.bigEndian) {
        std::memcpy(out, in, samples * size_t(b));
        if (layout.flipSign)
            for (size_t i = 0; i < samples; ++i) out[i] ^= 0x80;
        return;
    }
    for (size_t i = 0; i < samples; ++i, in += b, out += b)
        for (int k = 0; k < b; ++k) out[k] = in[b - 1 - k];
}

} // namespace ffmpeg_engine
