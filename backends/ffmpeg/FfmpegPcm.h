// Plain PCM as stored in files, and its conversion to the sample format FFmpeg's own PCM
// decoders deliver (native byte order; 24-bit samples in the top of 32-bit words; signed
// 8-bit made unsigned), so that samples read straight from the file by byte position are
// the same bytes the decoder would have produced.
#pragma once

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/samplefmt.h>
}

#include <cstddef>
#include <cstdint>

namespace ffmpeg_engine {

struct PcmLayout {
    AVSampleFormat output = AV_SAMPLE_FMT_NONE; // what the decoder delivers (interleaved)
    int storedBytes = 0;                        // bytes of one sample in the file
    bool bigEndian = false;
    bool flipSign = false; // signed 8-bit stored, unsigned delivered
};

// The layout of a PCM codec this engine reads without a decoder; storedBytes 0 otherwise.
PcmLayout pcmLayout(AVCodecID codec);

// Converts `samples` stored samples (all channels counted) at `in` to the output format.
void convertPcm(const PcmLayout& layout, const uint8_t* in, size_t samples, uint8_t* out);

} // namespace ffmpeg_engine
