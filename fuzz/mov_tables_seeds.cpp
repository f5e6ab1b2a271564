// Seed inputs of the moov reader's fuzz target: QuickTime/MP4 files the ffmpeg program
// makes (B-frames with composition offsets, edit lists or none, open groups, the moov box
// first, PCM in chunks, fragments, a codec left to libavformat), each whole and its moov box alone, so that mutations reach the
// sample tables often.
#include "MadeMedia.h"
#include "backends/ffmpeg/FfmpegMovTables.h"

#include <cstring>
#include <string>
#include <vector>

std::vector<std::string> fuzzSeeds() {
    const std::string video = "-f lavfi -i testsrc2=size=32x24:rate=25:duration=0.4 ";
    const std::string audio = "-f lavfi -i sine=frequency=440:sample_rate=8000:duration=0.4 ";
    const std::string h264 = "-c:v libx264 -preset ultrafast -g 4 -bf 2 ";
    std::vector<std::string> seeds = madeMedia({
        {"h264_aac.mp4", video + audio + h264 + "-c:a aac"},
        {"offset.mp4", "-itsoffset 0.1 " + video + h264},
        {"faststart.mp4", video + h264 + "-movflags +faststart"},
        {"hevc.mp4", video + "-c:v libx265 -preset ultrafast -x265-params log-level=none:bframes=2"},
        {"prores_pcm.mov", video + audio + "-c:v prores_ks -profile:v 0 -c:a pcm_s16le"},
        {"fragmented.mp4", video + h264 + "-movflags +frag_keyframe+empty_moov"},
        {"no_edits.mp4", video + h264 + "-use_editlist 0"},
        {"full_range.mov", video + h264 + "-pix_fmt yuvj422p"},
        {"open_gop.mp4", video + h264 + "-x264-params open_gop=1"},
        {"mpeg4.mp4", video + "-c:v mpeg4 -g 4 -bf 2"},
    });
    const size_t whole = seeds.size();
    for (size_t i = 0; i < whole; ++i) {
        const std::string& file = seeds[i];
        auto read = [&](int64_t pos, void* buf, size_t n) {
            if (pos < 0 || uint64_t(pos) + n > file.size()) return false;
            std::memcpy(buf, file.data() + pos, n);
            return true;
        };
        auto where = ffmpeg_engine::MovTables::findMoov(read, int64_t(file.size()));
        if (where) seeds.push_back(file.substr(size_t(where.value.first), size_t(where.value.second)));
    }
    if (seeds.empty()) seeds.push_back(std::string("\0\0\0\x08moov", 8));
    return seeds;
}
