// The play headers of new vision and sound files.
#include "playfile/header/PlayPriv.h"

#include <cmath>

namespace {
WString nameOf(const Zn::Ptr<PlayFile>& file) { return file ? file->getFileName() : WString(); }
} // namespace

void PlayPriv::make_vision_header(Zn::Ptr<PlayFile> file, ShotVideoMetadata const& meta, SAV_HEADER* out) {
    const Zn::DigitalVideoFormat* format = Zn::DigitalVideoFormats::findByUID(meta.getVideoFormatUID());
    const double fps = Zn::getFramesPerSecond(meta.getFrameRate());
    // Only exactly 25 frames per second is PAL: 24, 30 and 50 all say NTSC, as readers
    // of these headers have always been told.
    const char* visionType = std::fabs(fps - 25.0) < 1e-6 ? "PAL" : "NTSC";
    unsigned width = 0, height = 0;
    if (format && format->sizeDivisor) {
        width = unsigned(format->pixelWidth) / unsigned(format->sizeDivisor);
        height = unsigned(format->pixelHeight) / unsigned(format->sizeDivisor);
    }
    *out = make_header("vision", "data", fps, fps, 0, 0.0, 0.0, 0.0, 0, 0, visionType, int(width), int(height),
                       nameOf(file), -1, 0, "both", -1);
}

void PlayPriv::make_audio_header(Zn::Ptr<PlayFile> file, SAV_HEADER* out, double sample_rate, int bytes_per_sample) {
    *out = make_header("sound", "linear_uncompressed", sample_rate, sample_rate, 0, 0.0, 0.0, 0.0, bytes_per_sample, 1,
                       "unknown", 0, 0, nameOf(file), -1, 0, "", -1);
}
