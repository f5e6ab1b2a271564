// The Y4M and WAV writers: what they write is what FFmpeg reads back.
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
    std::string written;
    for (int n = 0; n < 3; ++n) {
        Zn::Image::Surface f = patternFrame(Zn::Image::kFormatYUV420P, 35, 17, n);
        written += packedBytes(f);
        ASSERT_EQ(out->writeFrame(f, n), 1);
    }
    // A frame of another size is refused.
    EXPECT_EQ(out->writeFrame(patternFrame(Zn::Image::kFormatYUV420P, 36, 17, 0), 3), 0);
    EXPECT_EQ(out->close(), 1);

    EXPECT_TRUE(runCommand("ffmpeg -nostdin -loglevel error -i " + shellQuote(dir.file("clip.y4m")) +
                           " -f rawvideo -").out == written);
    EXPECT_NE(runCommand("ffprobe -v error -show_entries stream=r_frame_rate -of csv=p=0 " +
                         shellQuote(dir.file("clip.y4m"))).out.find("30000/1001"),
              std::string::npos);
}

TEST(WavWriter, BlocksAppendAndTheHeaderIsFinishedOnClose) {
    TempDir dir;
    wav::WavFileWriter writer;
    Zn::FileWriterParams params;
    params.kind = Zn::FileWriterParams::kAudio;
    params.audio = Aud::Metadata(48000, 1, 3);
    ASSERT_TRUE(writer.accepts(params));
    Zn::Ptr<Zn::FileWriteInstance> out;
    ASSERT_EQ(writer.create(fromUTF8(dir.file("s.wav").c_str()), params, out), 1);
    std::string all;
    static RequestStatus last = Queued;
    for (int block = 0; block < 3; ++block) {
        Zn::Ptr<iMemHolder> samples(new ByteBufferImpl(300 * 3));
        for (uint32_t i = 0; i < 900; ++i) samples->getBuffer()[i] = uint8_t(i * 13 + block);
        samples->setUsed(900);
        all.append(reinterpret_cast<const char*>(samples->getBuffer()), 900);
        ASSERT_EQ(out->writeAudio(samples, [](RequestStatus s) { last = s; }), 1);
        EXPECT_EQ(last, Complete);
    }
    Zn::Ptr<iMemHolder> partial(new ByteBufferImpl(4, true)); // not whole sample frames
    partial->setUsed(4);
    EXPECT_EQ(out->writeAudio(partial, [](RequestStatus s) { last = s; }), 0);
    EXPECT_EQ(last, Failed);
    ASSERT_EQ(out->close(), 1);
    std::string decoded = runCommand("ffmpeg -nostdin -loglevel error -i " + shellQuote(dir.file("s.wav")) +
                                     " -f s24le -").out;
    EXPECT_EQ(decoded.size(), all.size());
    EXPECT_TRUE(decoded == all);
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
