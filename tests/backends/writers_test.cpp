// The Y4M and WAV writers: what they write is what FFmpeg reads back.
#include "backends/wav/WavWriter.h"
#include "backends/y4m/Y4mWriter.h"
#include "host/core/Strings.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

using namespace testing_support;

namespace {

// A frame whose every byte depends on its position and the frame number.
Zn::Image::Surface patternFrame(Zn::Image::eDataFormat f, uint32_t w, uint32_t h, int n) {
    Zn::Image::Surface s = Zn::Image::Surface::allocate(Zn::Image::Core::Data(w, h, f));
    for (unsigned p = 0; p < s.planeCount(); ++p) {
        const uint32_t rowBytes = Zn::Image::minimumStride(f, p, w);
        for (uint32_t y = 0; y < Zn::Image::planeHeight(f, p, h); ++y)
            for (uint32_t x = 0; x < rowBytes; ++x) s.plane(p)[y * s.stride(p) + x] = uint8_t(x * 3 + y * 7 + p * 50 + n);
    }
    s.set();
    return s;
}

std::string packedMd5(const Zn::Image::Surface& s) {
    std::string bytes;
    for (unsigned p = 0; p < s.planeCount(); ++p) {
        const uint32_t rowBytes = Zn::Image::minimumStride(s.getDataFormat(), p, s.getWidth());
        for (uint32_t y = 0; y < Zn::Image::planeHeight(s.getDataFormat(), p, s.getHeight()); ++y)
            bytes.append(reinterpret_cast<const char*>(s.plane(p) + y * s.stride(p)), rowBytes);
    }
    TempDir dir;
    std::ofstream(dir.file("f.raw"), std::ios::binary) << bytes;
    std::string out = runCommand("md5sum " + shellQuote(dir.file("f.raw"))).out;
    return out.substr(0, 32);
}

} // namespace

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
    std::vector<std::string> expected;
    for (int n = 0; n < 3; ++n) {
        Zn::Image::Surface f = patternFrame(Zn::Image::kFormatYUV420P, 35, 17, n);
        expected.push_back(packedMd5(f));
        ASSERT_EQ(out->writeFrame(f, n), 1);
    }
    // A frame of another size is refused.
    EXPECT_EQ(out->writeFrame(patternFrame(Zn::Image::kFormatYUV420P, 36, 17, 0), 3), 0);
    EXPECT_EQ(out->close(), 1);

    std::string md5 = runCommand("ffmpeg -nostdin -loglevel error -i " + shellQuote(dir.file("clip.y4m")) +
                                 " -f framemd5 -").out;
    for (const std::string& e : expected) EXPECT_NE(md5.find(e), std::string::npos) << md5;
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
