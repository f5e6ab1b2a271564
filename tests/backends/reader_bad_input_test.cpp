// The readers on files that are not what they claim: empty, garbage with a media
// extension, cut short (also in the middle of a frame), damaged in the middle, and WAV
// headers with absurd sizes, read as the host reads them (through the play file
// cache). Either the open fails with the "failed to open" line, or every read ends
// (Complete with what could be read, or Failed); never a crash or a hang. What a cut file
// still shows, it shows as FFmpeg does.
#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"
#include "support/Command.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace testing_support;
using namespace reader_test;

namespace {

struct Outcome {
    bool opened = false;
    uint32_t frames = 0;
    std::vector<std::string> md5s; // of the frames read in order ("failed" where none came)
    size_t sampleBytes = 0;
    uint32_t intact() const {
        return uint32_t(std::count_if(md5s.begin(), md5s.end(), [](const std::string& m) { return m.size() == 32; }));
    }
};

class ReaderBadInput : public CacheReads {
protected:
    // Opens the file for video and for audio and reads everything it claims to hold,
    // counting the frames that came out intact. An open that fails must say so.
    Outcome readEverything(const std::string& path) {
        Outcome o;
        SCOPED_TRACE(path);
        // The same name is written again by some tests: the cache must look at it anew.
        PlayFileCache::Shared().remove(fromUTF8(path.c_str()));
        PlayFileCache::Shared().reOpen(fromUTF8(path.c_str()));
        const Cookie c = clip(path, 2);
        for (const Cookie& material : {video(c), sound(c, 1)}) {
            LogCapture log;
            Zn::Ptr<FileReadInstance> f = file(material);
            if (!f) {
                EXPECT_EQ(log.count("PlayUtil::openRead() : failed to open \"" + path + "\"\n"), 1u);
                continue;
            }
            o.opened = true;
            if (material.type() == 'V') {
                o.frames = f->getMetadata()->getFrameCount();
                for (uint32_t k = 0; k < o.frames; ++k) {
                    o.md5s.push_back(frameMd5(material, int(k)));
                    EXPECT_NE(o.md5s.back(), "timed out") << "frame " << k;
                }
                EXPECT_EQ(frameMd5(material, int(o.frames)), "not available");
                for (uint32_t k = o.frames; k-- > 0;) EXPECT_NE(frameMd5(material, int(k)), "timed out") << "frame " << k;
            } else {
                const uint64_t length = f->getMetadata()->getAudioLength();
                const uint32_t bytes = f->getMetadata()->getAudioMetadata().at(0).getBytesPerDecodedSample();
                for (uint64_t at = 0; at < length; at += 7919) {
                    RequestStatus status;
                    o.sampleBytes += samples(material, at, 7919, bytes, &status).size();
                    EXPECT_TRUE(status == RequestStatus::Complete || status == RequestStatus::Failed) << "at " << at;
                }
            }
        }
        return o;
    }
    Outcome readAs(const std::string& path, const std::string& bytes) {
        writeFile(path, bytes);
        return readEverything(path);
    }
};

} // namespace

TEST_F(ReaderBadInput, EmptyAndGarbageFilesDoNotOpen) {
    TempDir dir;
    std::mt19937 rng(5);
    std::string garbage(200000, '\0');
    for (char& c : garbage) c = char(rng());
    for (const std::string ext : {"mp4", "mov", "mkv", "ts", "avi", "mpg", "y4m", "wav", "mp3", "m4a", "ogg", "aac"}) {
        EXPECT_FALSE(readAs(dir.file("empty." + ext), "").opened) << ext;
        // Random bytes may pass for raw MP3 or AAC frames to a demuxer; then whatever it
        // found must read without harm.
        const bool opened = readAs(dir.file("noise." + ext), garbage).opened;
        EXPECT_TRUE(!opened || ext == "mp3" || ext == "aac") << ext;
    }
    // Signatures followed by nonsense.
    EXPECT_FALSE(readAs(dir.file("sig.y4m"), "YUV4MPEG2 " + garbage).opened);
    EXPECT_FALSE(readAs(dir.file("sig.wav"), std::string("RIFF\x10\0\0\0WAVE", 12) + garbage).opened);
}

// (Hostile Y4M headers are refused by the parser before any reader allocates.)
TEST_F(ReaderBadInput, AbsurdWavHeaderSizes) {
    TempDir dir;
    // A real WAV file with its header's sizes and counts made absurd one at a time.
    const std::string wavPath = dir.file("real.wav");
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=duration=0.5 -c:a pcm_s16le " + shellQuote(wavPath)));
    const std::string real = readFile(wavPath);
    const size_t fmt = real.find("fmt "), data = real.find("data");
    ASSERT_NE(fmt, std::string::npos);
    ASSERT_NE(data, std::string::npos);
    // The WAV reader refuses each with a reason; FFmpeg (which may be more lenient) must
    // still never hang on it.
    auto patched = [&](size_t at, const std::string& bytes) {
        std::string copy = real;
        readAs(dir.file("absurd.wav"), copy.replace(at, bytes.size(), bytes));
        auto opened = wav::WavReadInstance::open(DecodeFormat(1), fromUTF8(dir.file("absurd.wav").c_str()), OpenType::kAudio);
        const bool wavOpened = bool(opened.value);
        EXPECT_TRUE(wavOpened || !opened.error.empty());
        return wavOpened;
    };
    EXPECT_FALSE(patched(fmt + 10, std::string("\0\0", 2))) << "no channels";
    EXPECT_FALSE(patched(fmt + 10, "\xff\xff")) << "65535 channels";
    EXPECT_FALSE(patched(fmt + 12, "\xff\xff\xff\x7f")) << "absurd sample rate";
    EXPECT_FALSE(patched(fmt + 4, "\xff\xff\xff\x7f")) << "format chunk past the end";
    // A data size past the end: the samples run to the end of the file, and no further.
    EXPECT_TRUE(patched(data + 4, "\xf0\xff\xff\x7f"));
}

TEST_F(ReaderBadInput, FilesCutShortOrDamagedAnswerWhatCanBeRead) {
    TempDir dir;
    const std::string source = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=1.2 "
                               "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1.2 ";
    const std::string h264 = "-c:v libx264 -preset veryfast -g 12 -bf 3 -pix_fmt yuv420p ";
    for (const auto& [name, args] : std::vector<std::pair<std::string, std::string>>{
             {"moov-last.mp4", h264 + "-c:a aac"}, {"faststart.mp4", h264 + "-c:a aac -movflags +faststart"},
             {"h264.mkv", h264 + "-c:a libopus"}, {"h264.ts", h264 + "-c:a mp2"}, {"mpeg2.ts", "-c:v mpeg2video -g 12 -c:a mp2"},
             {"prores.mov", "-c:v prores_ks -profile:v 0 -c:a pcm_s16le -movflags faststart"},
             {"raw.y4m", "-pix_fmt yuv420p -an"}, {"pcm.wav", "-vn -c:a pcm_s16le"}, {"sound.mp3", "-vn -c:a libmp3lame"}}) {
        SCOPED_TRACE(name);
        const std::string whole = dir.file("whole-" + name);
        ASSERT_TRUE(ffmpeg(source + args + " " + shellQuote(whole)));
        const std::string bytes = readFile(whole);
        const Outcome full = readEverything(whole);
        ASSERT_TRUE(full.opened);

        // Cut at 57%, in the middle of a frame: the file's index at its end is gone, or
        // what is there reads as FFmpeg reads it.
        const std::string cut = dir.file("cut-" + name);
        const Outcome o = readAs(cut, bytes.substr(0, bytes.size() * 57 / 100));
        EXPECT_EQ(o.opened, name != "moov-last.mp4");
        if (o.opened) {
            EXPECT_LE(o.frames, full.frames);
            EXPECT_LE(o.sampleBytes, full.sampleBytes);
            EXPECT_GT(o.frames + o.sampleBytes, 0u);
            // A frame whose packet is cut or lost fails alone: every picture FFmpeg shows
            // comes out, in order. A picture decoded from damaged data is concealment,
            // which in FFmpeg differs with its threading: those it shows alike with one
            // thread and with several must be the same here.
            std::vector<std::string> shown;
            for (const std::string& m : o.md5s)
                if (m.size() == 32) shown.push_back(m);
            const auto want = o.frames ? ffmpeg_oracle::frameMd5s(cut) : std::vector<std::string>();
            const auto single = o.frames ? ffmpeg_oracle::frameMd5s(cut, "", "-threads 1") : std::vector<std::string>();
            ASSERT_EQ(shown.size(), want.size());
            ASSERT_EQ(single.size(), want.size());
            for (size_t k = 0; k < want.size(); ++k)
                EXPECT_TRUE(want[k] != single[k] || shown[k] == want[k]) << "frame " << k;
        }
        EXPECT_FALSE(readAs(dir.file("stub-" + name), bytes.substr(0, 3)).opened);

        // Noise over a stretch in the middle.
        std::string damaged = bytes;
        std::mt19937 rng(11);
        for (size_t i = damaged.size() / 2; i < damaged.size() / 2 + 3000 && i < damaged.size(); ++i) damaged[i] = char(rng());
        readAs(dir.file("damaged-" + name), damaged);
    }
    // A Y4M file cut inside its last frame keeps its complete frames, all intact.
    const std::string y4m = readFile(dir.file("whole-raw.y4m"));
    const Outcome partial = readAs(dir.file("partial.y4m"), y4m.substr(0, y4m.size() - 1000));
    EXPECT_EQ(partial.frames, 29u);
    EXPECT_EQ(partial.intact(), 29u);
}
