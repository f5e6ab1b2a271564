// Frames read through the back-end readers against FFmpeg itself: for files the ffmpeg
// program makes in every family the readers serve, each frame read as the host reads it
// (PlayFileCache::videoReadRequest) in native pixel format has the MD5 that
// `ffmpeg -f framemd5` prints for it, read in order, in reverse and at random (each from
// a newly opened file), and frames asked for in another format match FFmpeg's own
// conversion.
#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"
#include "backends/ffmpeg/FfmpegReader.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

using namespace testing_support;
using namespace reader_test;

namespace {

const std::string kSource = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=2 ";

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kSource) {
    const std::string path = dir.file(name);
    EXPECT_TRUE(ffmpeg(source + args + " " + shellQuote(path))) << name;
    return path;
}

bool streams(const Zn::Ptr<FileReadInstance>& file) {
    auto* f = dynamic_cast<ffmpeg_backend::FfmpegReadInstance*>(file.get());
    return f && f->streamsVideo();
}

class ReaderVideo : public CacheReads {
protected:
    // Every frame in order, in reverse and in a shuffled order, each order from a newly
    // opened file, through the reader the registry picks, which must be `reader`.
    void expectEveryFrame(const std::string& path, const char* reader) {
        SCOPED_TRACE(path);
        const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
        ASSERT_FALSE(want.empty());
        const int n = int(want.size());
        const Cookie material = video(clip(path));
        std::vector<int> inOrder(static_cast<size_t>(n)), reverse, shuffled;
        std::iota(inOrder.begin(), inOrder.end(), 0);
        reverse.assign(inOrder.rbegin(), inOrder.rend());
        shuffled = inOrder;
        std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
        for (const auto* order : {&inOrder, &reverse, &shuffled}) {
            PlayFileCache::Shared().closeAll();
            Zn::Ptr<FileReadInstance> f = file(material);
            ASSERT_TRUE(f);
            EXPECT_STREQ(f->getReaderName().c_str(), reader);
            ASSERT_EQ(f->getMetadata()->getFrameCount(), uint32_t(n));
            for (int k : *order) ASSERT_EQ(frameMd5(material, k), want[size_t(k)]) << "frame " << k;
        }
    }
};

} // namespace

TEST_F(ReaderVideo, LongGopCodecsStreamEveryFrameAsFfmpegShowsIt) {
    TempDir dir;
    const std::string h264 = "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p";
    const std::string closed = make(dir, "closed.mp4", h264);
    expectEveryFrame(closed, "FFmpeg");
    EXPECT_TRUE(streams(file(video(clip(closed)))));
    expectEveryFrame(make(dir, "open.mkv", h264 + " -x264-params open_gop=1"), "FFmpeg");
    expectEveryFrame(make(dir, "hevc.mkv", "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12:bframes=3 -pix_fmt yuv420p"), "FFmpeg");
    expectEveryFrame(make(dir, "mpeg2.ts", "-c:v mpeg2video -g 12 -bf 2 -q:v 4"), "FFmpeg");
    // Variable frame rate: frames kept at irregular times.
    expectEveryFrame(make(dir, "vfr.mp4", "-vf \"select='not(mod(n\\,3))+not(mod(n\\,7))'\" -fps_mode vfr " + h264), "FFmpeg");
}

TEST_F(ReaderVideo, IntraCodecsDecodeThroughTheDecoderRegistry) {
    TempDir dir;
    const std::string prores = make(dir, "prores.mov", "-c:v prores_ks -profile:v 0");
    expectEveryFrame(prores, "FFmpeg");
    EXPECT_FALSE(streams(file(video(clip(prores)))));
    expectEveryFrame(make(dir, "dnxhr.mov", "-c:v dnxhd -profile:v dnxhr_lb -pix_fmt yuv422p",
                          "-f lavfi -i testsrc2=size=256x144:rate=25:duration=1 "),
                     "FFmpeg");
    expectEveryFrame(make(dir, "mjpeg.avi", "-c:v mjpeg -q:v 4 -pix_fmt yuvj420p"), "FFmpeg");
    expectEveryFrame(make(dir, "ffv1.mkv", "-c:v ffv1 -level 3 -g 1 -slices 4"), "FFmpeg");
}

TEST_F(ReaderVideo, Y4mLayoutsAndDepths) {
    TempDir dir;
    const std::string shortSource = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=0.6 ";
    for (const char* pixfmt : {"yuv420p", "yuv422p", "yuv444p", "gray", "yuv420p10le", "yuv444p12le", "gray16le"})
        expectEveryFrame(make(dir, std::string(pixfmt) + ".y4m", std::string("-pix_fmt ") + pixfmt + " -strict -1", shortSource),
                         "Y4M");
}

// Frames asked for in RGB come out as FFmpeg's own conversion makes them: on the
// streaming road (the file's format), the decoder registry's (the request's format) and
// the Y4M reader's raw frames handed to the registry for conversion.
TEST_F(ReaderVideo, FramesInARequestedFormatMatchFfmpegsConversion) {
    TempDir dir;
    const std::string source = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=0.4 ";
    const DecodeFormat rgb(176, 144, Zn::Image::kFormatRGB24);
    for (const auto& [name, args] : {std::pair<std::string, std::string>{"h264.mp4", "-c:v libx264 -g 5 -pix_fmt yuv420p"},
                                     {"prores.mov", "-c:v prores_ks -profile:v 2"},
                                     {"raw.y4m", "-pix_fmt yuv420p"}}) {
        const std::string path = make(dir, name, args, source);
        const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path, "-pix_fmt rgb24");
        ASSERT_GE(want.size(), 8u) << name;
        const Cookie material = video(clip(path));
        for (uint32_t k : {0u, 7u, 3u}) {
            Zn::Image::Surface picture;
            const std::string md5 = frameMd5(material, int(k), rgb, &picture);
            EXPECT_EQ(picture.getDataFormat(), Zn::Image::kFormatRGB24) << name;
            EXPECT_EQ(md5, want[k]) << name << " frame " << k;
        }
    }
}
