// The readers on files that are not what they claim: empty, garbage with a media
// extension, cut short (also in the middle of a frame), damaged in the middle, and Y4M or
// WAV headers with absurd sizes, read as the host reads them (through the play file
// cache). Either the open fails with the "failed to open" line, or every read ends
// (Complete with what could be read, or Failed); never a crash or a hang.
#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"
#include "support/Command.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

using namespace testing_support;
using namespace reader_test;

namespace {

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

std::string readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct Outcome {
    bool opened = false;
    uint32_t frames = 0;
    uint32_t intact = 0;
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
                    const std::string md5 = frameMd5(material, int(k));
                    EXPECT_NE(md5, "timed out") << "frame " << k;
                    if (md5.size() == 32) ++o.intact;
                }
                EXPECT_EQ(frameMd5(material, int(o.frames)), "not available");
                for (uint32_t k = o.frames; k-- > 0;) EXPECT_NE(frameMd5(material, int(k)), "timed out") << "frame " << k;
            } else {
                const uint64_t length = f->getMetadata()->getAudioLength();
                const uint32_t bytes = f->getMetadata()->getAudioMetadata().at(0).getBytesPerDecodedSample();
                for (uint64_t at = 0; at < length; at += 7919) {
                    RequestStatus status;
                    samples(material, at, 7919, bytes, &status);
                    EXPECT_TRUE(status == Complete || status == Failed) << "at " << at;
                }
            }
        }
        return o;
    }
};

} // namespace

TEST_F(ReaderBadInput, EmptyAndGarbageFilesDoNotOpen) {
    TempDir dir;
    std::mt19937 rng(5);
    std::string garbage(20000, '\0');
    for (char& c : garbage) c = char(rng());
    for (const char* name : {"empty.mp4", "empty.y4m", "empty.wav", "noise.mov", "noise.mkv", "noise.y4m", "noise.wav"}) {
        const std::string path = dir.file(name);
        writeBytes(path, std::string(name).starts_with("empty") ? std::string() : garbage);
        EXPECT_FALSE(readEverything(path).opened) << name;
    }
    // Signatures followed by nonsense.
    writeBytes(dir.file("sig.y4m"), "YUV4MPEG2 " + garbage);
    writeBytes(dir.file("sig.wav"), "RIFF\x10\0\0\0WAVE" + garbage);
    EXPECT_FALSE(readEverything(dir.file("sig.y4m")).opened);
    EXPECT_FALSE(readEverything(dir.file("sig.wav")).opened);
}

TEST_F(ReaderBadInput, AbsurdHeaderSizes) {
    TempDir dir;
    const std::string frame = "FRAME\n" + std::string(38016, 'x');
    for (const char* header : {"YUV4MPEG2 W99999999 H144 F25:1\n", "YUV4MPEG2 W32000 H32000 F25:1 C444p16\n",
                               "YUV4MPEG2 W0 H144\n", "YUV4MPEG2 W176 H-144\n", "YUV4MPEG2 W176 H144 Cbogus\n"}) {
        writeBytes(dir.file("absurd.y4m"), header + frame);
        EXPECT_FALSE(readEverything(dir.file("absurd.y4m")).opened) << header;
    }

    // A real WAV file with its header's sizes and counts made absurd one at a time.
    const std::string wavPath = dir.file("real.wav");
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=duration=0.5 -c:a pcm_s16le " + shellQuote(wavPath)));
    const std::string real = readBytes(wavPath);
    const size_t fmt = real.find("fmt "), data = real.find("data");
    ASSERT_NE(fmt, std::string::npos);
    ASSERT_NE(data, std::string::npos);
    // The WAV reader refuses each with a reason; FFmpeg (which may be more lenient) must
    // still never hang on it.
    auto patched = [&](size_t at, const std::string& bytes) {
        std::string copy = real;
        copy.replace(at, bytes.size(), bytes);
        writeBytes(dir.file("absurd.wav"), copy);
        std::string error;
        const bool wavOpened = bool(wav::WavReadInstance::open(DecodeFormat(1), fromUTF8(dir.file("absurd.wav").c_str()),
                                                               OpenType::kAudio, error));
        EXPECT_TRUE(wavOpened || !error.empty());
        readEverything(dir.file("absurd.wav"));
        return wavOpened;
    };
    EXPECT_FALSE(patched(fmt + 10, std::string("\0\0", 2))) << "no channels";
    EXPECT_FALSE(patched(fmt + 10, "\xff\xff")) << "65535 channels";
    EXPECT_FALSE(patched(fmt + 12, "\xff\xff\xff\x7f")) << "absurd sample rate";
    EXPECT_FALSE(patched(fmt + 4, "\xff\xff\xff\x7f")) << "format chunk past the end";
    // A data size past the end: the samples run to the end of the file, and no further.
    const bool longer = patched(data + 4, "\xf0\xff\xff\x7f");
    EXPECT_TRUE(longer);
}

TEST_F(ReaderBadInput, FilesCutShortOrDamagedAnswerWhatCanBeRead) {
    TempDir dir;
    const std::string source = "-f lavfi -i testsrc2=size=176x144:rate=25:duration=1.2 "
                               "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1.2 ";
    struct Case {
        std::string name, args;
    };
    for (const Case& c : {Case{"h264.mkv", "-c:v libx264 -preset veryfast -g 12 -bf 3 -c:a aac"},
                          Case{"h264.ts", "-c:v libx264 -preset veryfast -g 12 -bf 3 -c:a mp2"},
                          Case{"prores.mov", "-c:v prores_ks -profile:v 0 -c:a pcm_s16le -movflags faststart"},
                          Case{"raw.y4m", "-pix_fmt yuv420p -an"},
                          Case{"pcm.wav", "-vn -c:a pcm_s16le"}}) {
        SCOPED_TRACE(c.name);
        const std::string whole = dir.file("whole-" + c.name);
        ASSERT_TRUE(ffmpeg(source + c.args + " " + shellQuote(whole)));
        const std::string bytes = readBytes(whole);
        const Outcome full = readEverything(whole);
        ASSERT_TRUE(full.opened);

        // Cut at 57% (mid-frame for all of them) and at 3 bytes.
        writeBytes(dir.file("cut-" + c.name), bytes.substr(0, bytes.size() * 57 / 100));
        const Outcome cut = readEverything(dir.file("cut-" + c.name));
        if (cut.opened) {
            EXPECT_LE(cut.frames, full.frames);
        }
        writeBytes(dir.file("stub-" + c.name), bytes.substr(0, 3));
        EXPECT_FALSE(readEverything(dir.file("stub-" + c.name)).opened);

        // Noise over a stretch in the middle.
        std::string damaged = bytes;
        std::mt19937 rng(11);
        for (size_t i = damaged.size() / 2; i < damaged.size() / 2 + 3000 && i < damaged.size(); ++i) damaged[i] = char(rng());
        writeBytes(dir.file("damaged-" + c.name), damaged);
        readEverything(dir.file("damaged-" + c.name));
    }
    // A Y4M file cut inside its last frame keeps its complete frames, all intact.
    const std::string y4m = readBytes(dir.file("whole-raw.y4m"));
    writeBytes(dir.file("partial.y4m"), y4m.substr(0, y4m.size() - 1000));
    const Outcome partial = readEverything(dir.file("partial.y4m"));
    EXPECT_EQ(partial.frames, 29u);
    EXPECT_EQ(partial.intact, 29u);
}
