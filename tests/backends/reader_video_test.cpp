// Frames read through the back-end readers against FFmpeg itself: for files the ffmpeg
// program makes in every family the readers serve, each frame read as the host reads it
// (PlayFileCache::videoReadRequest) in native pixel format has the MD5 that
// `ffmpeg -f framemd5` prints for it, read in order, in reverse and at random (each from
// a newly opened file), and frames asked for in another format or size match FFmpeg's
// own conversion.
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
const std::string kH264 = "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p";
const std::string kOpenGop = kH264 + " -x264-params open_gop=1";

std::string make(const TempDir& dir, const std::string& name, const std::string& args,
                 const std::string& source = kSource) {
    return ffmpeg_oracle::made(dir, name, source, args);
}

// A copy of `from` made by the ffmpeg program without re-encoding: inputArgs go before the
// input (a cut with -ss, an offset with -itsoffset).
std::string copied(const TempDir& dir, const std::string& name, const std::string& inputArgs, const std::string& from) {
    return ffmpeg_oracle::made(dir, name, inputArgs + " -i " + shellQuote(from), "-c copy");
}

bool streams(const Zn::Ptr<FileReadInstance>& file) {
    auto* f = dynamic_cast<ffmpeg_backend::FfmpegReadInstance*>(file.get());
    return f && f->streamsVideo();
}

class ReaderVideo : public CacheReads {
protected:
    // Every frame in order, in reverse and in a shuffled order, each order from a newly
    // opened file, through the reader the registry picks, which must be `reader`.
    void expectEveryFrame(const std::string& path, const char* reader = "FFmpeg") {
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

// H.264 with B-frames in closed and open groups, in MP4, Matroska and a transport stream
// that does not start at time 0; HEVC (open groups, x265's default); MPEG-2 in MPEG-TS.
TEST_F(ReaderVideo, LongGopCodecsStreamEveryFrameAsFfmpegShowsIt) {
    TempDir dir;
    const std::string closed = make(dir, "closed.mp4", kH264);
    expectEveryFrame(closed);
    EXPECT_TRUE(streams(file(video(clip(closed)))));
    expectEveryFrame(make(dir, "open.mp4", kOpenGop));
    expectEveryFrame(make(dir, "open.mkv", kOpenGop));
    expectEveryFrame(make(dir, "open.ts", kOpenGop + " -output_ts_offset 10"));
    expectEveryFrame(make(dir, "hevc.mkv", "-c:v libx265 -preset ultrafast -x265-params log-level=error:keyint=12:bframes=3 -pix_fmt yuv420p"));
    expectEveryFrame(make(dir, "mpeg2.ts", "-c:v mpeg2video -g 12 -bf 2 -q:v 4 -output_ts_offset 10"));
}

// Frame numbering where timestamps are not simply 0, 1, 2...: variable frame rate (MP4,
// and Matroska's millisecond times), edit lists (a stream-copied cut that starts inside
// a group, an offset), and a transport stream that starts mid-group, whose first packets
// cannot decode.
TEST_F(ReaderVideo, IrregularTimestampsNumberFramesAsFfmpegShowsThem) {
    TempDir dir;
    const std::string vfr = "-vf \"select='not(mod(n\\,3))+not(mod(n\\,7))'\" -fps_mode vfr " + kOpenGop;
    expectEveryFrame(make(dir, "vfr.mp4", vfr));
    expectEveryFrame(make(dir, "vfr.mkv", vfr));

    const std::string source = make(dir, "source.mp4", kOpenGop + " -c:a aac -b:a 64k",
                                    "-f lavfi -i testsrc2=size=176x144:rate=25:duration=3 "
                                    "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 ");
    expectEveryFrame(copied(dir, "cut.mp4", "-ss 1.3", source));
    expectEveryFrame(copied(dir, "cut.mkv", "-ss 1.3", source));
    expectEveryFrame(copied(dir, "offset.mp4", "-itsoffset 0.5", source));

    const std::string ts = make(dir, "whole.ts", kOpenGop + " -bf 2");
    const std::string tail = dir.file("tail.ts");
    ASSERT_EQ(runCommand("tail -c +" + std::to_string(188 * 60 + 1) + " " + shellQuote(ts) + " > " + shellQuote(tail))
                  .exitCode,
              0);
    expectEveryFrame(tail);
}

// A jump decodes only the pictures the frame needs: those of its group that nobody refers
// to are left out. Stepping back from there decodes the stretch behind the frame once and
// serves the next steps from it; playing on after a jump carries on decoding.
TEST_F(ReaderVideo, JumpsLeaveOutPicturesNobodyRefersTo) {
    TempDir dir;
    const std::string path = make(dir, "pyramid.mp4", kH264 + " -g 50 -x264-params b-pyramid=normal",
                                  "-f lavfi -i testsrc2=size=176x144:rate=25:duration=4 ");
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
    ASSERT_EQ(want.size(), 100u);
    const Cookie material = video(clip(path));
    Zn::Ptr<FileReadInstance> f = file(material);
    auto* reader = dynamic_cast<ffmpeg_backend::FfmpegReadInstance*>(f.get());
    ASSERT_TRUE(reader && reader->streamsVideo());
    ASSERT_EQ(frameMd5(material, 47), want[47]);
    const uint64_t jump = reader->picturesDecoded();
    // Decoding every picture up to it would take 48, and more for the decoder's delay.
    EXPECT_LT(jump, 40u);
    for (int k = 46; k >= 30; --k) ASSERT_EQ(frameMd5(material, k), want[size_t(k)]) << "frame " << k;
    const uint64_t back = reader->picturesDecoded() - jump;
    EXPECT_LE(back, 50u); // the stretch from frame 23 to 46 and the references before it, once
    for (int k = 60; k < 70; ++k) ASSERT_EQ(frameMd5(material, k), want[size_t(k)]) << "frame " << k;
    EXPECT_LT(reader->picturesDecoded() - jump - back, 30u);
    std::printf("jump to 47: %llu pictures; 17 steps back: %llu more\n", (unsigned long long)jump,
                (unsigned long long)back);
}

// The same numbering whichever way the file was indexed at open: from an MP4 file's own
// sample tables (with an edit list that starts on a non-key frame; the file is opened for
// video alone), from the container's index (AVI), or by reading the whole file
// (Matroska, MXF, MPEG-TS).
TEST_F(ReaderVideo, ContainerIndexAndWholeFileReadNumberFramesAlike) {
    TempDir dir;
    const std::string source = make(dir, "source.mp4", kOpenGop + " -c:a aac -b:a 64k",
                                    "-f lavfi -i testsrc2=size=176x144:rate=25:duration=3 "
                                    "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=3 ");
    using ffmpeg_engine::IndexSource;
    const std::vector<std::pair<std::string, IndexSource>> files = {
        {copied(dir, "cut.mp4", "-ss 1.3", source), IndexSource::SampleTables},
        {make(dir, "mjpeg.avi", "-c:v mjpeg -q:v 4 -c:a pcm_s16le",
              kSource + "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 "),
         IndexSource::ContainerIndex},
        {make(dir, "h264.mkv", kOpenGop), IndexSource::Scan},
        {make(dir, "mpeg2.mxf", "-c:v mpeg2video -g 12 -bf 2 -q:v 4"), IndexSource::Scan},
        {make(dir, "h264.ts", kOpenGop + " -output_ts_offset 10"), IndexSource::Scan},
    };
    for (const auto& [path, source] : files) {
        expectEveryFrame(path);
        auto* f = dynamic_cast<ffmpeg_backend::FfmpegReadInstance*>(file(video(clip(path))).get());
        ASSERT_TRUE(f) << path;
        EXPECT_EQ(f->mediaIndex().source, source) << path << ": " << f->mediaIndex().scanReason;
    }
}

TEST_F(ReaderVideo, IntraCodecsDecodeThroughTheDecoderRegistry) {
    TempDir dir;
    const std::string prores = make(dir, "prores.mov", "-c:v prores_ks -profile:v 0");
    expectEveryFrame(prores);
    EXPECT_FALSE(streams(file(video(clip(prores)))));
    // DNxHR needs at least 256x120.
    expectEveryFrame(make(dir, "dnxhr.mov", "-c:v dnxhd -profile:v dnxhr_lb -pix_fmt yuv422p",
                          "-f lavfi -i testsrc2=size=256x144:rate=25:duration=1 "));
    expectEveryFrame(make(dir, "mjpeg.avi", "-c:v mjpeg -q:v 4 -pix_fmt yuvj420p"));
    expectEveryFrame(make(dir, "ffv1.mkv", "-c:v ffv1 -level 3 -g 1 -slices 4"));
}

// Every layout and depth ffmpeg writes. Odd widths check that chroma planes round up;
// above 8 bits ffmpeg's own writer rounds odd widths in bytes rather than samples, so
// those use an even width.
TEST_F(ReaderVideo, Y4mLayoutsAndDepths) {
    TempDir dir;
    for (const std::string pixfmt : {"yuv420p", "yuv422p", "yuv444p", "yuv411p", "gray", "yuva444p", "yuv420p10le",
                                     "yuv422p12le", "yuv444p16le", "gray16le"}) {
        const std::string size = pixfmt.find("le") != std::string::npos ? "34x17" : "33x17";
        expectEveryFrame(make(dir, pixfmt + ".y4m", "-pix_fmt " + pixfmt + " -strict -1",
                              "-f lavfi -i testsrc2=size=" + size + ":rate=25:duration=0.6 "),
                         "Y4M");
    }
}

// Frames asked for in another format come out as FFmpeg's own conversion makes them: on
// the streaming road (the file's format), the decoder registry's (the request's format)
// and the Y4M reader's raw frames handed to the registry for conversion. A request of
// another size is scaled as FFmpeg's program scales.
TEST_F(ReaderVideo, FramesInARequestedFormatMatchFfmpegsConversion) {
    TempDir dir;
    const std::string source = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=0.4 ";
    for (const auto& [name, args] : {std::pair<std::string, std::string>{"h264.mp4", "-c:v libx264 -g 5 -pix_fmt yuv422p"},
                                     {"prores.mov", "-c:v prores_ks -profile:v 2"},
                                     {"raw.y4m", "-pix_fmt yuv444p"}}) {
        const std::string path = make(dir, name, args, source);
        const Cookie material = video(clip(path));
        for (const auto& [format, pixFmt] : {std::pair{Zn::Image::kFormatRGB24, "rgb24"}, {Zn::Image::kFormatRGBA32, "rgba"},
                                             {Zn::Image::kFormatGray8, "gray"}, {Zn::Image::kFormatYUV420P, "yuv420p"}}) {
            SCOPED_TRACE(name + " in " + pixFmt);
            PlayFileCache::Shared().closeAll(); // the streaming road decodes in the format the file opened with
            const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path, std::string("-pix_fmt ") + pixFmt);
            ASSERT_GE(want.size(), 8u);
            for (uint32_t k : {0u, 7u, 3u}) {
                Zn::Image::Surface picture;
                EXPECT_EQ(frameMd5(material, int(k), DecodeFormat(176, 144, format), &picture), want[k]) << "frame " << k;
                EXPECT_EQ(picture.getDataFormat(), format);
            }
        }
    }
    const std::string h264 = dir.file("h264.mp4");
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(h264, "-s 88x72 -pix_fmt rgb24");
    ASSERT_GE(want.size(), 3u);
    Zn::Image::Surface small;
    PlayFileCache::Shared().closeAll();
    EXPECT_EQ(frameMd5(video(clip(h264)), 2, DecodeFormat(88, 72, Zn::Image::kFormatRGB24), &small), want[2]);
    EXPECT_EQ(small.getWidth(), 88u);
    EXPECT_EQ(small.getHeight(), 72u);
}
