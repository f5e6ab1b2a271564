// Fuzz target for the FFmpeg back-end's open path over media held in memory: the index
// built at open, the metadata the file reader gives the library, the first frames and the
// first samples of each audio track. Nothing may crash; what is read stays within what the
// index promised.
#include "backends/ffmpeg/FfmpegEngine.h"
#include "backends/ffmpeg/FfmpegMemoryMedia.h"
#include "backends/ffmpeg/FfmpegReader.h"
#include "host/core/Strings.h"

#include <algorithm>
#include <cstdlib>
#include <string>

using namespace ffmpeg_engine;

namespace {

// Inputs beyond this say nothing more about the open path and only slow the search.
constexpr size_t kMaxInput = size_t(1) << 20;

void readFirstFrames(const std::shared_ptr<const MediaIndex>& index) {
    if (!index->video) return;
    VideoDecoderOptions options;
    options.threading = Threading::Single;
    options.cacheBytes = size_t(8) << 20;
    auto decoder = FfmpegVideoDecoder::open(index, options);
    if (!decoder) return;
    const int frames = std::min(index->video->frameCount(), 3);
    for (int k = 0; k < frames; ++k) {
        auto picture = decoder.value->decodeFrame(k);
        if (picture && (!picture.value || picture.value->width <= 0 || picture.value->height <= 0)) std::abort();
    }
}

void readFirstSamples(const std::shared_ptr<const MediaIndex>& index) {
    for (size_t t = 0; t < std::min<size_t>(index->audio.size(), 2); ++t) {
        auto decoder = FfmpegAudioDecoder::open(index, int(t));
        if (!decoder) continue;
        AudioBlock block;
        auto got = decoder.value->read(0, 4096, block);
        if (got && (got.value < 0 || got.value > 4096 || got.value > decoder.value->totalSamples())) std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = (routeFfmpegLog(AV_LOG_QUIET, nullptr), true);
    (void)quiet;
    if (size > kMaxInput) return 0;
    MemoryMedia media(std::string(reinterpret_cast<const char*>(data), size));
    auto index = FfmpegSource::open(media.name());
    if (!index) {
        if (index.error.empty()) std::abort(); // a refusal always says why
        return 0;
    }
    std::string error;
    int cause = 0;
    auto reader = ffmpeg_backend::FfmpegReadInstance::open(DecodeFormat::getDefault(), fromUTF8(media.name().c_str()),
                                                           OpenType::kVideoAndAudio, error, cause);
    if (reader) {
        const PlayFileMetadataRep& meta = *reader->getMetadata();
        if (index.value->video && meta.getFrameCount() != uint32_t(std::max(index.value->video->frameCount(), 0)))
            std::abort();
        if (meta.getAudioMetadata().size() > index.value->audio.size()) std::abort();
        reader->purge();
    }
    readFirstFrames(index.value);
    readFirstSamples(index.value);
    return 0;
}
