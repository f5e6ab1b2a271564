// Seed inputs of the FFmpeg fuzz target: small real files of the containers and codecs the
// back-end serves, made with the ffmpeg program when the seeds are asked for (nothing
// binary is kept in the tree). Files ffmpeg cannot make here are left out.
#include "MadeMedia.h"

#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    const std::string video = "-f lavfi -i testsrc2=size=32x24:rate=25:duration=0.12 ";
    const std::string audio = "-f lavfi -i sine=frequency=440:sample_rate=8000:duration=0.12 ";
    const std::vector<std::pair<std::string, std::string>> files = {
        {"h264_aac.mp4", video + audio + "-c:v libx264 -preset ultrafast -bf 2 -c:a aac"},
        {"prores_pcm.mov", video + audio + "-c:v prores_ks -profile:v 0 -c:a pcm_s16le"},
        {"hevc_opus.mkv", video + audio + "-c:v libx265 -preset ultrafast -x265-params log-level=none -c:a libopus -ar 48000"},
        {"mjpeg_mp3.avi", video + audio + "-c:v mjpeg -c:a libmp3lame"},
        {"mpeg2_mp2.ts", video + audio + "-c:v mpeg2video -bf 2 -c:a mp2 -ar 48000"},
        {"vp9_vorbis.webm", video + audio + "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -c:a libvorbis"},
        {"flac.flac", audio + "-c:a flac"},
        {"s16.wav", audio + "-c:a pcm_s16le"},
        {"raw.h264", video + "-c:v libx264 -preset ultrafast"},
    };
    std::vector<std::string> seeds = madeMedia(files);
    if (seeds.empty()) seeds.push_back(std::string("\0\0\0\x1c" "ftypisom", 12));
    return seeds;
}
