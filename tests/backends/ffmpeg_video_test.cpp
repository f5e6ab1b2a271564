// The FFmpeg engine's video against FFmpeg itself: for files made by the ffmpeg program in
// every family the back-end must read, every frame decoded in order, in reverse and at
// random has the MD5 that `ffmpeg -f framemd5` prints for the same frame number.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace testing_support;
using namespace ffmpeg_engine;

namespace {

// Small pictures with detail in every plane and motion, so every frame differs.
const std::string kSource = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=2 ";

std::shared_ptr<const MediaIndex> openIndex(const std::string& path) {
    auto index = FfmpegSource::open(path);
    EXPECT_TRUE(index) << path << ": " << index.error;
    return index ? index.value : nullptr;
}

std::string md5Of(FfmpegVideoDecoder& d, int frame) {
    auto picture = d.decodeFrame(frame);
    if (!picture) return "failed: " + picture.error;
    return pictureMd5(*picture.value);
}

// Every frame in order, in reverse and at random, each from a fresh decoder: in reverse
// and at random without the frame cache, so that each read seeks and decodes.
void expectEveryFrame(const std::string& path, VideoDecoderOptions options = {}) {
    SCOPED_TRACE(path);
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
    ASSERT_FALSE(want.empty());
    auto index = openIndex(path);
    ASSERT_TRUE(index && index->video);
    ASSERT_EQ(index->video->frameCount(), int(want.size()));
    const int n = int(want.size());

    auto inOrder = FfmpegVideoDecoder::open(index, options);
    ASSERT_TRUE(inOrder) << inOrder.error;
    for (int k = 0; k < n; ++k) ASSERT_EQ(md5Of(*inOrder.value, k), want[size_t(k)]) << "in order, frame " << k;
    EXPECT_EQ(inOrder.value->stats().sessions, 1) << "reading in order never restarts";

    options.cacheBytes = 0;
    auto reverse = FfmpegVideoDecoder::open(index, options);
    ASSERT_TRUE(reverse) << reverse.error;
    for (int k = n - 1; k >= 0; --k) ASSERT_EQ(md5Of(*reverse.value, k), want[size_t(k)]) << "in reverse, frame " << k;

    auto random = FfmpegVideoDecoder::open(index, options);
    ASSERT_TRUE(random) << random.error;
    std::mt19937 rng(20240607);
    for (int i = 0; i < 40; ++i) {
        const int k = int(rng() % unsigned(n));
        ASSERT_EQ(md5Of(*random.value, k), want[size_t(k)]) << "at random, frame " << k;
    }
}

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kSource) {
    const std::string path = dir.file(name);
    EXPECT_TRUE(ffmpeg(source + args + " " + shellQuote(path))) << name;
    return path;
}

} // namespace

TEST(FfmpegVideo, H264WithBFramesInMp4MkvAndTransportStream) {
    TempDir dir;
    const std::string closed = "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p";
    const std::string open = closed + " -x264-params open_gop=1";
    expectEveryFrame(make(dir, "closed.mp4", closed));
    expectEveryFrame(make(dir, "closed.mkv", closed));
    expectEveryFrame(make(dir, "open.mp4", open));
    expectEveryFrame(make(dir, "open.mkv", open));
    expectEveryFrame(make(dir, "open.ts", open + " -output_ts_offset 10"));
}

TEST(FfmpegVideo, HevcAndMpeg2) {
    TempDir dir;
    expectEveryFrame(make(dir, "hevc.mkv", "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12:min-keyint=12:bframes=3 -pix_fmt yuv420p"));
    expectEveryFrame(make(dir, "hevc.mp4", "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12:min-keyint=12:bframes=3:open-gop=1 -pix_fmt yuv420p -tag:v hvc1"));
    expectEveryFrame(make(dir, "mpeg2.ts", "-c:v mpeg2video -g 12 -bf 2 -q:v 4 -output_ts_offset 10"));
}

TEST(FfmpegVideo, IntraCodecs) {
    TempDir dir;
    expectEveryFrame(make(dir, "prores.mov", "-c:v prores_ks -profile:v 0"));
    // DNxHR needs at least 256x120.
    expectEveryFrame(make(dir, "dnxhr.mov", "-c:v dnxhd -profile:v dnxhr_lb -pix_fmt yuv422p",
                          "-f lavfi -i testsrc2=size=256x144:rate=25:duration=1 "));
    expectEveryFrame(make(dir, "mjpeg.avi", "-c:v mjpeg -q:v 4 -pix_fmt yuvj420p"));
    expectEveryFrame(make(dir, "ffv1.mkv", "-c:v ffv1 -level 3 -g 1 -slices 4"));
    expectEveryFrame(make(dir, "raw.y4m", "-pix_fmt yuv420p"));
}

// Frame numbering where timestamps are not simply 0, 1, 2...: variable frame rate, edit
// lists (a stream-copied cut, an offset), and a transport stream that starts mid-group.
TEST(FfmpegVideo, TimestampsThatAreNotRegular) {
    TempDir dir;
    const std::string h264 = "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p -x264-params open_gop=1";
    const std::string vfr = "-vf \"select='not(mod(n\\,3))+not(mod(n\\,7))'\" -fps_mode vfr " + h264;
    expectEveryFrame(make(dir, "vfr.mp4", vfr));
    expectEveryFrame(make(dir, "vfr.mkv", vfr));

    const std::string withAudio = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=3 "
                                  "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 ";
    const std::string source = make(dir, "source.mp4", h264 + " -c:a aac -b:a 64k", withAudio);
    const std::string cut = dir.file("cut.mp4");
    ASSERT_TRUE(ffmpeg("-ss 1.3 -i " + shellQuote(source) + " -c copy " + shellQuote(cut)));
    expectEveryFrame(cut);
    const std::string cutMkv = dir.file("cut.mkv");
    ASSERT_TRUE(ffmpeg("-ss 1.3 -i " + shellQuote(source) + " -c copy " + shellQuote(cutMkv)));
    expectEveryFrame(cutMkv);
    const std::string offset = dir.file("offset.mp4");
    ASSERT_TRUE(ffmpeg("-itsoffset 0.5 -i " + shellQuote(source) + " -c copy " + shellQuote(offset)));
    expectEveryFrame(offset);

    // A recording that begins in the middle of a group: the first packets cannot decode.
    const std::string ts = make(dir, "whole.ts", h264 + " -bf 2");
    const std::string tail = dir.file("tail.ts");
    ASSERT_EQ(runCommand("tail -c +" + std::to_string(188 * 60 + 1) + " " + shellQuote(ts) + " > " +
                         shellQuote(tail)).exitCode, 0);
    expectEveryFrame(tail);
}
