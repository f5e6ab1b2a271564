// The Y4M writer: what it writes is what FFmpeg reads back; and the writer registry. (The
// WAV writer is checked through the play file cache by the writing tests.)
#include "FfmpegOracle.h"
#include "backends/wav/WavWriter.h"
#include "backends/y4m/Y4mWriter.h"
#include "host/core/Strings.h"
#include "support/Command.h"
#include "support/PatternFrames.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace testing_support;

TEST(Y4mWriter, FramesReadBackByFfmpegWithTheSamePixels) {
    TempDir dir;
    y4m::Y4mFileWriter writer;
    Zn::FileWriterParams params;
    params.core.setCoreData(35, 17, Zn::Image::kFormatYUV420P);
    params.rateNum = 30000;
    params.rateDen = 1001;
    ASSERT_TRUE(writer.accepts(params));
    WString name = fromUTF8(dir.file("clip.y4m").c_str());
    Zn::Ptr<Zn::FileWriteInstance> out;
    ASSERT_EQ(writer.create(name, params, out), 1);
    const std::string written = writePatternFrames(*out, Zn::Image::kFormatYUV420P, 35, 17, 3);
    // A frame of another size is refused.
    EXPECT_EQ(out->writeFrame(patternFrame(Zn::Image::kFormatYUV420P, 36, 17, 0), 3), 0);
    EXPECT_EQ(out->close(), 1);

    EXPECT_TRUE(ffmpeg_oracle::decodedFrames(dir.file("clip.y4m"), "yuv420p") == written);
    EXPECT_EQ(ffmpeg_oracle::probe(dir.file("clip.y4m"), "stream=r_frame_rate"), "r_frame_rate=30000/1001\n");
}

TEST(Writers, RegistryPicksTheFirstWriterThatAcceptsAndListsItsExtensions) {
    Zn::Ptr<Zn::iFileWriter> y(new y4m::Y4mFileWriter), w(new wav::WavFileWriter);
    Zn::FileWriterInfo::registerFileWriter(y);
    Zn::FileWriterInfo::registerFileWriter(w);
    Zn::FileWriterParams audio;
    audio.kind = Zn::FileWriterParams::kAudio;
    audio.audio = Aud::Metadata(44100, 2, 2);
    // The back-ends may have registered their own writers already (other tests load them).
    ASSERT_TRUE(Zn::FileWriterInfo::getFileWriterFor(audio));
    EXPECT_STREQ(Zn::FileWriterInfo::getFileWriterFor(audio)->name().c_str(), "WAV");
    ASSERT_EQ(Zn::FileWriterInfo::getExtensionsForFormat(audio).size(), 1u);
    EXPECT_EQ(Zn::FileWriterInfo::getExtensionsForFormat(audio)[0], L"wav");
    Zn::FileWriterParams odd;
    // Compressed frames: no writer re-wraps a bitstream (RGB would now go to FFmpeg's FFV1).
    odd.core.setCoreData(16, 16, Zn::Image::kFormatCompressed);
    EXPECT_EQ(Zn::FileWriterInfo::getFileWriterFor(odd), nullptr);
    EXPECT_TRUE(Zn::FileWriterInfo::getExtensionsForFormat(odd).empty());
    Zn::FileWriterInfo::unregisterFileWriter(y);
    Zn::FileWriterInfo::unregisterFileWriter(w);
}
