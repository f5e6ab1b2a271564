// The FFmpeg engine on files that are not what they claim: empty, missing, garbage with a
// media extension, truncated (also in the middle of a frame), damaged in the middle. The
// open fails with a reason, or the reads answer what could be read and fail the rest;
// never a crash or a hang (the test's time limit stands guard).
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <cstdio>
#include <random>

using namespace testing_support;
using namespace ffmpeg_engine;

namespace {

void writeBytes(const std::string& path, const std::vector<char>& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

std::vector<char> readBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

struct Outcome {
    bool opened = false;
    std::string openError;
    int frames = 0;
    int framesDecoded = 0;
    int64_t samplesRead = 0;
};

// Opens the file and reads everything it claims to hold, every way the engine offers:
// frames in order and backwards, packets, and every audio track in pieces. Every failure
// must come with a reason.
Outcome readEverything(const std::string& path) {
    Outcome o;
    auto index = FfmpegSource::open(path);
    if (!index) {
        o.openError = index.error;
        EXPECT_FALSE(index.error.empty());
        return o;
    }
    o.opened = true;
    if (index.value->video) {
        o.frames = index.value->video->frameCount();
        auto d = FfmpegVideoDecoder::open(index.value);
        if (d) {
            for (int k = 0; k < o.frames; ++k) {
                auto f = d.value->decodeFrame(k);
                if (f) {
                    ++o.framesDecoded;
                } else {
                    EXPECT_FALSE(f.error.empty());
                }
            }
            for (int k = o.frames - 1; k >= 0; k -= 3) {
                auto f = d.value->decodeFrame(k);
                EXPECT_TRUE(f || !f.error.empty());
            }
        }
        auto reader = FfmpegPacketReader::open(index.value);
        if (reader)
            for (int k = o.frames - 1; k >= 0; k -= 5) (void)reader.value->readPacket(k);
    }
    for (size_t t = 0; t < index.value->audio.size(); ++t) {
        auto a = FfmpegAudioDecoder::open(index.value, int(t));
        if (!a) continue;
        AudioBlock block;
        const int64_t total = a.value->totalSamples();
        for (int64_t at = 0; at < total; at += 7919) {
            auto r = a.value->read(at, 7919, block);
            if (r) o.samplesRead += r.value;
            else EXPECT_FALSE(r.error.empty());
        }
        (void)a.value->read(total / 2, total, block);
    }
    return o;
}

const std::string kAv = "-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 "
                        "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 ";

} // namespace

TEST(FfmpegBadInput, MissingEmptyAndGarbageFilesFailToOpen) {
    TempDir dir;
    auto missing = FfmpegSource::open(dir.file("nothing-here.mp4"));
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.error, "file not found");
    EXPECT_EQ(FfmpegSource::open(dir.path().string()).error, "not a regular file");

    std::mt19937 rng(99);
    std::vector<char> garbage(200000);
    for (char& c : garbage) c = char(rng());
    for (const char* ext : {"mp4", "mov", "mkv", "ts", "avi", "mp3", "wav", "y4m", "m4a", "ogg", "aac", "mpg"}) {
        SCOPED_TRACE(ext);
        const std::string empty = dir.file(std::string("empty.") + ext);
        writeBytes(empty, {});
        auto e = FfmpegSource::open(empty);
        EXPECT_FALSE(e);
        EXPECT_EQ(e.error, "empty file");

        const std::string junk = dir.file(std::string("junk.") + ext);
        writeBytes(junk, garbage);
        const Outcome o = readEverything(junk);
        // Random bytes may pass for raw MP3 or AAC frames to a demuxer; then whatever it
        // found must read without harm. Mostly the open fails, with a reason.
        if (!o.opened) std::printf("junk.%s: %s\n", ext, o.openError.c_str());
    }
}

TEST(FfmpegBadInput, TruncatedFilesGiveWhatIsThere) {
    TempDir dir;
    const std::string h264 = "-c:v libx264 -preset veryfast -g 12 -bf 2 -pix_fmt yuv420p ";
    struct Case { const char* name; std::string args; };
    for (const Case& c : {Case{"moov-last.mp4", h264 + "-c:a aac"}, Case{"faststart.mp4", h264 + "-c:a aac -movflags +faststart"},
                          Case{"video.mkv", h264 + "-c:a libopus"}, Case{"video.ts", "-c:v mpeg2video -g 12 -c:a mp2"},
                          Case{"prores.mov", "-c:v prores_ks -c:a pcm_s16le -movflags +faststart"}, Case{"raw.y4m", "-map 0:v -pix_fmt yuv420p"},
                          Case{"sound.wav", "-map 1:a -c:a pcm_s16le"}, Case{"sound.mp3", "-map 1:a -c:a libmp3lame"}}) {
        const std::string whole = dir.file(std::string("whole-") + c.name);
        ASSERT_TRUE(ffmpeg(kAv + c.args + " " + shellQuote(whole))) << c.name;
        const std::vector<char> bytes = readBytes(whole);
        const Outcome full = readEverything(whole);
        ASSERT_TRUE(full.opened) << c.name << ": " << full.openError;
        // Cut at a third and at two thirds plus an odd byte: in the middle of a frame.
        for (size_t cutAt : {bytes.size() / 3 + 7, 2 * bytes.size() / 3 + 1001}) {
            SCOPED_TRACE(std::string(c.name) + " cut at " + std::to_string(cutAt));
            const std::string cut = dir.file("cut-" + std::to_string(cutAt) + "-" + c.name);
            writeBytes(cut, std::vector<char>(bytes.begin(), bytes.begin() + std::ptrdiff_t(cutAt)));
            const Outcome o = readEverything(cut);
            if (std::string(c.name) == "moov-last.mp4") {
                EXPECT_FALSE(o.opened) << "the index of the file is at its end";
                continue;
            }
            ASSERT_TRUE(o.opened) << o.openError;
            EXPECT_LE(o.frames, full.frames);
            EXPECT_LE(o.samplesRead, full.samplesRead);
            EXPECT_GT(o.frames + o.samplesRead, 0);
            // What the engine shows of a cut file, it shows as FFmpeg does.
            if (o.frames > 0) {
                const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(cut);
                auto index = FfmpegSource::open(cut);
                auto d = FfmpegVideoDecoder::open(index.value);
                ASSERT_TRUE(d);
                const int n = std::min<int>(o.frames, int(want.size())) - 1; // the last may be partial
                for (int k = 0; k < n; ++k) {
                    auto f = d.value->decodeFrame(k);
                    ASSERT_TRUE(f) << "frame " << k << ": " << f.error;
                    EXPECT_EQ(pictureMd5(*f.value), want[size_t(k)]) << "frame " << k;
                }
            }
        }
    }
}

TEST(FfmpegBadInput, DamageInTheMiddleIsSurvived) {
    TempDir dir;
    std::mt19937 rng(7);
    for (const char* name : {"damaged.mkv", "damaged.ts", "damaged.mp4", "damaged.avi"}) {
        SCOPED_TRACE(name);
        const std::string path = dir.file(name);
        ASSERT_TRUE(ffmpeg(kAv + "-c:v libx264 -preset veryfast -g 12 -bf 2 -pix_fmt yuv420p -c:a mp2 " +
                           shellQuote(path)));
        std::vector<char> bytes = readBytes(path);
        for (size_t i = bytes.size() / 2; i < bytes.size() / 2 + 6000; ++i) bytes[i] = char(rng());
        writeBytes(path, bytes);
        std::vector<std::string> complaints;
        routeFfmpegLog(AV_LOG_ERROR, [&](int level, const std::string& line) {
            EXPECT_LE(level, AV_LOG_ERROR);
            complaints.push_back(line);
        });
        const Outcome o = readEverything(path);
        routeFfmpegLog(AV_LOG_QUIET, nullptr);
        EXPECT_TRUE(o.opened) << o.openError;
        EXPECT_GT(o.framesDecoded, 0);
        // FFmpeg's own account of the damage reaches the sink, a line at a time.
        EXPECT_FALSE(complaints.empty());
        for (const std::string& line : complaints) EXPECT_EQ(line.find('\n'), std::string::npos);
    }
}
