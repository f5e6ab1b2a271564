// Seed inputs of the FFmpeg fuzz target: small real files of the containers and codecs the
// back-end serves, made with the ffmpeg program when the seeds are asked for (nothing
// binary is kept in the tree). Files ffmpeg cannot make here are left out.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    namespace fs = std::filesystem;
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
    std::error_code ec;
    std::string pattern = (fs::temp_directory_path(ec) / "playfile-fuzz-seeds-XXXXXX").string();
    std::vector<std::string> seeds;
    if (!::mkdtemp(pattern.data())) return {std::string("\0\0\0\x1c" "ftypisom", 12)};
    const fs::path dir = pattern;
    for (const auto& [name, args] : files) {
        const fs::path out = dir / name;
        const std::string command = "ffmpeg -nostdin -hide_banner -loglevel quiet -y " + args + " '" + out.string() + "'";
        if (std::system(command.c_str()) != 0) continue;
        std::ifstream in(out, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    fs::remove_all(dir, ec);
    if (seeds.empty()) seeds.push_back(std::string("\0\0\0\x1c" "ftypisom", 12));
    return seeds;
}
