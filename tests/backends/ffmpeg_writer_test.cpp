// The FFmpeg writer: what it encodes is what FFmpeg decodes back, frames in other pixel
// formats are converted on the way, and its queue to the encoder stays bounded.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegWriter.h"
#include "host/core/Strings.h"
#include "support/Command.h"
#include "support/PatternFrames.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace testing_support;
using namespace ffmpeg_oracle;
using Zn::Image::eDataFormat;

namespace {

Zn::FileWriterParams videoParams(eDataFormat f, uint32_t w, uint32_t h, const char* codec, const char* container) {
    Zn::FileWriterParams p;
    p.core.setCoreData(w, h, f);
    p.codec = codec;
    p.container = container;
    return p;
}

} // namespace

TEST(FfmpegWriter, Ffv1InMatroskaIsLosslessFrameForFrame) {
    TempDir dir;
    ffmpeg_backend::FfmpegFileWriter writer;
    for (eDataFormat f : {Zn::Image::kFormatYUV422P10LE, Zn::Image::kFormatRGB24}) {
        // RGB24 is not one of FFV1's formats: the writer converts it losslessly to one that is.
        Zn::FileWriterParams params = videoParams(f, 66, 38, "ffv1", "matroska");
        params.rateNum = 30000;
        params.rateDen = 1001;
        ASSERT_TRUE(writer.accepts(params));
        ASSERT_EQ(writer.extensions(params).at(0), L"mkv");
        std::string path = dir.file(std::string("clip-") + Zn::Image::formatName(f) + ".mkv");
        Zn::Ptr<Zn::FileWriteInstance> out;
        ASSERT_EQ(writer.create(fromUTF8(path.c_str()), params, out), 1);
        std::string written = writePatternFrames(*out, f, 66, 38, 7);
        // A frame of another size is refused, and nothing of it reaches the file.
        EXPECT_EQ(out->writeFrame(patternFrame(f, 64, 38, 0), 7), 0);
        ASSERT_EQ(out->close(), 1);
        EXPECT_EQ(out->pendingFrames(), 0u);
        EXPECT_TRUE(decodedFrames(path, Zn::Image::formatName(f)) == written) << Zn::Image::formatName(f);
        EXPECT_NE(probe(path, "stream=codec_name,r_frame_rate").find("codec_name=ffv1\nr_frame_rate=30000/1001"),
                  std::string::npos);
    }
}

TEST(FfmpegWriter, ProresInQuickTimeFromEightBitFramesThroughLibswscale) {
    TempDir dir;
    ffmpeg_backend::FfmpegFileWriter writer;
    Zn::FileWriterParams params = videoParams(Zn::Image::kFormatYUV420P, 128, 72, "prores", "");
    ASSERT_TRUE(writer.accepts(params));
    ASSERT_EQ(writer.extensions(params).at(0), L"mov");
    std::string path = dir.file("clip.mov");
    Zn::Ptr<Zn::FileWriteInstance> out;
    ASSERT_EQ(writer.create(fromUTF8(path.c_str()), params, out), 1);
    // Flat frames: ProRes is lossy, but on flat areas it comes back within a step or two.
    std::string written;
    for (int i = 0; i < 4; ++i) {
        Zn::Image::Surface s = Zn::Image::Surface::allocate(params.core);
        for (unsigned p = 0; p < 3; ++p)
            for (uint32_t y = 0; y < Zn::Image::planeHeight(params.core.getDataFormat(), p, 72); ++y)
                memset(s.plane(p) + y * s.stride(p), p == 0 ? 40 + 30 * i : 128 - 10 * i + 20 * p,
                       Zn::Image::minimumStride(params.core.getDataFormat(), p, 128));
        s.set();
        written += packedBytes(s);
        ASSERT_EQ(out->writeFrame(s, i), 1);
    }
    ASSERT_EQ(out->close(), 1);
    EXPECT_NE(probe(path, "stream=codec_name,pix_fmt").find("codec_name=prores\npix_fmt=yuv422p10le"),
              std::string::npos);
    std::string back = decodedFrames(path, "yuv420p");
    ASSERT_EQ(back.size(), written.size());
    int worst = 0;
    for (size_t i = 0; i < back.size(); ++i) worst = std::max(worst, std::abs(int(uint8_t(back[i])) - int(uint8_t(written[i]))));
    EXPECT_LE(worst, 2);
}

TEST(FfmpegWriter, QueueToTheEncoderIsBoundedAndDrainsOnClose) {
    TempDir dir;
    ffmpeg_backend::FfmpegFileWriter writer;
    Zn::FileWriterParams params = videoParams(Zn::Image::kFormatYUV420P, 640, 360, "ffv1", "mkv");
    params.options.set("queue_frames", int64_t(2));
    params.options.set("threads", int64_t(1));
    std::string path = dir.file("q.mkv");
    Zn::Ptr<Zn::FileWriteInstance> out;
    ASSERT_EQ(writer.create(fromUTF8(path.c_str()), params, out), 1);
    unsigned most = 0;
    for (int i = 0; i < 12; ++i) {
        ASSERT_EQ(out->writeFrame(patternFrame(params.core.getDataFormat(), 640, 360, i), i), 1);
        most = std::max(most, out->pendingFrames());
    }
    // Two waiting and one in the encoder at most; and the encoder does run behind.
    EXPECT_LE(most, 3u);
    EXPECT_GE(most, 1u);
    ASSERT_EQ(out->close(), 1);
    EXPECT_EQ(out->pendingFrames(), 0u);
    EXPECT_EQ(probe(path, "stream=nb_read_frames -count_frames"), "nb_read_frames=12\n");
}

TEST(FfmpegWriter, RefusesWhatItCannotMake) {
    ffmpeg_backend::FfmpegFileWriter writer;
    EXPECT_FALSE(writer.accepts(videoParams(Zn::Image::kFormatYUV420P, 64, 64, "ffv1", "mov")));
    EXPECT_FALSE(writer.accepts(videoParams(Zn::Image::kFormatYUV420P, 64, 64, "h264", "")));
    EXPECT_FALSE(writer.accepts(videoParams(Zn::Image::kFormatYUV420P, 64, 64, "", "avi")));
    EXPECT_FALSE(writer.accepts(videoParams(Zn::Image::kFormatCompressed, 64, 64, "ffv1", "")));
    Zn::FileWriterParams audio = Zn::FileWriterParams::forAudio(Aud::Metadata(48000, 1, 2));
    EXPECT_FALSE(writer.accepts(audio));
    // Without a codec or container it makes FFV1 in Matroska.
    EXPECT_EQ(writer.extensions(videoParams(Zn::Image::kFormatRGBA32, 8, 8, "", "")).at(0), L"mkv");
    // A bad or unknown encoder option fails the creation and leaves no file.
    TempDir dir;
    for (const char* key : {"slices", "slicez"}) {
        Zn::FileWriterParams bad = videoParams(Zn::Image::kFormatYUV420P, 64, 64, "ffv1", "");
        bad.options.set(key, String("lots"));
        Zn::Ptr<Zn::FileWriteInstance> out;
        EXPECT_EQ(writer.create(fromUTF8(dir.file("bad.mkv").c_str()), bad, out), 0) << key;
        EXPECT_FALSE(std::filesystem::exists(dir.file("bad.mkv")));
    }
}
