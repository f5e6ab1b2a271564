// The FFmpeg back-end's plug-in entry: registers the file reader (last of the back-ends,
// since it accepts anything), the video decoder and the audio codec, and sends FFmpeg's
// own error lines to the host's log file rather than to standard error.
#include "backends/ffmpeg/FfmpegBackend.h"

#include "backends/ffmpeg/FfmpegAudioCodec.h"
#include "backends/ffmpeg/FfmpegReader.h"
#include "backends/ffmpeg/FfmpegVideoCodec.h"
#include "host/media/BackendPlugins.h"
#include "host/os/Log.h"

#include <mutex>

namespace ffmpeg_backend {

void registerBackend() {
    static std::once_flag once;
    std::call_once(once, [] {
        ffmpeg_engine::routeFfmpegLog(AV_LOG_ERROR, [](int, const std::string& line) { Log("FFmpeg: %s\n", line.c_str()); });
        Zn::FileReaderInfo::registerFileReader(Zn::makePtr<FfmpegFileReader>());
        Zn::DecoderInfo::instance().registerFactory(Zn::makePtr<FfmpegDecoderFactory>());
        Zn::AudioDecoderInfo::instance().registerFactory(Zn::makePtr<FfmpegAudioDecoderFactory>());
    });
}

} // namespace ffmpeg_backend

extern "C" __attribute__((visibility("default"))) const PlayfileBackendEntry* playfile_backend_entry() {
    static const PlayfileBackendEntry entry{kPlayfileBackendAbi, "FFmpeg", 90, &ffmpeg_backend::registerBackend};
    return &entry;
}
