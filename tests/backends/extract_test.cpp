// Extraction of material sections through the FFmpeg transfer plug-in: the section in
// samples and frames with its edge results, the new files decoded through the library
// against FFmpeg's own decode of the source (intra codecs and PCM bit for bit, long-GOP
// video bit for bit from the first copied key frame, its re-encoded frames at 45 dB or
// better), and failed or cancelled extractions that leave nothing behind.
#include "backends/ffmpegxfer/XferBackend.h"
#include "host/media/PluginResources.h"
#include "host/project/MaterialInfo.h"
#include "host/tasks/BackgroundTask.h"
#include "host/tasks/Logger.h"
#include "host/tasks/TaskLog.h"
#include "playfile/tasks/FileXfer.h"
#include "support/LogCapture.h"

#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"

#include <cmath>
#include <filesystem>

namespace {

using namespace project_test;
using testing_support::LogCapture;
namespace fs = std::filesystem;

// PSNR of two pictures of 8-bit samples, in dB (infinite when equal).
double psnr(const std::string& a, const std::string& b) {
    if (a.size() != b.size() || a.empty()) return 0;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        const double d = double(uint8_t(a[i])) - double(uint8_t(b[i]));
        sum += d * d;
    }
    return sum == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 * double(a.size()) / sum);
}

class Extract : public reader_test::CacheReads {
protected:
    void SetUp() override {
        CacheReads::SetUp();
        ffmpeg_xfer::registerBackend();
    }

    // A source of `seconds` at 25 frames per second, 256 x 144, made by ffmpeg.
    std::string media(const std::string& name, const std::string& codec, double seconds = 2) {
        return ffmpeg_oracle::made(tmp, name,
                                   "-f lavfi -i testsrc2=size=256x144:rate=25:duration=" + std::to_string(seconds),
                                   codec);
    }
    std::string tone(const std::string& name, const std::string& codec) {
        return ffmpeg_oracle::made(tmp, name, "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2", "-ac 2 " + codec);
    }

    // A new clip number for the destination material.
    static Cookie newClip() { return ProjectImporter::newClipCookie(); }

    // Runs get_extract for [start, end) of the source material into the destination's.
    // The result as its number, as the cases list it.
    static int extract(const Cookie& source, const Cookie& destination, double start, double end,
                       FileXferSpec* out = nullptr) {
        FileXferSpec xfer;
        xfer.source = source;
        xfer.destination = destination;
        xfer.start = start;
        xfer.end = end;
        xfer.videoMetadata = ShotVideoMetadata(Zn::Image::FormatUID{}, Zn::kFrameRate25);
        LoggerHandle log;
        const int rc = int(xfer.get_extract(log));
        if (out) *out = xfer;
        return rc;
    }

    // Every file in the drive's folders whose name holds the material's cookie text.
    std::vector<std::string> filesOf(const Cookie& material) const {
        std::vector<std::string> out;
        const std::string text = material.asString().c_str();
        for (const char* folder : {"video", "sound"}) {
            std::error_code ec;
            for (const auto& e : fs::directory_iterator(driveRoot / folder, ec))
                if (e.path().filename().string().find(text.substr(1)) != std::string::npos)
                    out.push_back(e.path().filename().string());
        }
        return out;
    }
};

TEST_F(Extract, SectionsBecomeFramesAndSamplesWithTheirMargins) {
    const Cookie clip = importClip("tone", tone("tone.wav", "-c:a pcm_s16le"), 2);
    struct Case {
        char type;
        double start, end;
        int64_t first;
        int32_t last;
    } cases[] = {
        {'V', 0.2, 1.0, 5, 25},        // exactly 1.0 s at 25 frames per second: frame 25
        {'V', 0.2, 0.99999999, 5, 25}, // floating error below a frame boundary is absorbed
        {'V', 0.0398, 0.0798, 0, 1},
        {'S', 0.5, 1.0, 24000, 48000},
        {'S', 0.25, 0.9999999999, 12000, 48000},
    };
    for (const Case& c : cases) {
        FileXferSpec xfer;
        xfer.source = c.type == 'V' ? video(clip) : sound(clip, 1);
        xfer.videoMetadata = ShotVideoMetadata(Zn::Image::FormatUID{}, Zn::kFrameRate25);
        xfer.start = c.start;
        xfer.end = c.end;
        EXPECT_EQ(xfer.get_extract_samples(), 1);
        EXPECT_EQ(xfer.firstSample, c.first) << c.type << " " << c.start;
        EXPECT_EQ(xfer.endSample, c.last) << c.type << " " << c.end;
    }
    EXPECT_EQ(FileXferSpec::get_soundfile_sample_rate(sound(clip, 1)), 48000u);
    EXPECT_EQ(FileXferSpec().destinationDrive, DriveId('A')); // the drive for rendered material
    EXPECT_EQ(FileXferSpec().marker, -1);
}

TEST_F(Extract, SectionsOutsideTheSourceAnswerWithoutExtracting) {
    const Cookie clip = importClip("tone", tone("tone.wav", "-c:a pcm_s16le"), 2);
    const std::string name = sound(clip, 1).asString().c_str();
    struct Case {
        double start, end;
        int result;
        std::string line; // logged once
    } cases[] = {
        {-2.0, 5.0, 1, "get_extract: file '" + name + "' needs 2 seconds black padding\n"},
        {-3.0, -1.0, 1, "get_extract: requested section before start\n"},
        {1.0, 1.0, 2059, ""},
        {1.5, 1.0, 2059, ""},
    };
    for (const Case& c : cases) {
        LogCapture log;
        const Cookie dest = sound(newClip(), 1);
        EXPECT_EQ(extract(sound(clip, 1), dest, c.start, c.end), c.result) << c.start;
        if (!c.line.empty()) EXPECT_EQ(log.count(c.line), 1u) << c.line;
        EXPECT_FALSE(SystemCache::fileExists(dest));
        EXPECT_TRUE(filesOf(dest).empty());
    }
    LogCapture log;
    FileXferSpec xfer;
    xfer.source = convertCookie(clip, 'I', 0);
    xfer.start = 0;
    xfer.end = 1;
    LoggerHandle handle;
    EXPECT_EQ(xfer.get_extract(handle), FileXferSpec::kExtractFailed);
    EXPECT_EQ(log.count("get_extract_samples(): Unknown Cookie type"), 1u);
}

// The start offset moves a sound section; its end is held to the file's length.
TEST_F(Extract, SoundIsTheSourcesSamplesFromItsOffsetInItsOwnFormat) {
    struct Case {
        const char* name;
        const char* codec;
        const char* raw;      // FFmpeg's raw form of the decoded samples
        const char* newCodec; // what the new WAV file holds
        int bytes;            // bytes per raw sample
        bool pcm;             // its length is exactly the 2 s made (AAC's last frame is padded)
    } cases[] = {
        {"s16.wav", "-c:a pcm_s16le", "s16le", "pcm_s16le", 2, true},
        {"s24.mov", "-c:a pcm_s24le", "s32le", "pcm_s24le", 4, true},
        {"aac.m4a", "-c:a aac", "f32le", "pcm_f32le", 4, false},
    };
    for (const Case& c : cases) {
        const std::string path = tone(c.name, c.codec);
        const Cookie clip = importClip(c.name, path, 2);
        ASSERT_TRUE(MaterialInfo::set_start_offset(sound(clip, 1), 100));
        const std::string source = ffmpeg_oracle::decodedSamples(path, 0, c.raw);
        const size_t frameBytes = size_t(c.bytes) * 2;
        for (auto [start, end, first, last] : {std::tuple{0.5, 1.0, 24100, 48100}, std::tuple{1.5, 3.0, 72100, 96000}}) {
            if (!c.pcm && end > 2) continue;
            const Cookie dest = newClip();
            FileXferSpec xfer;
            ASSERT_EQ(extract(sound(clip, 1), sound(dest, 1), start, end, &xfer), 1) << c.name;
            EXPECT_EQ(xfer.firstSample, first);
            EXPECT_EQ(xfer.endSample, last) << c.name;
            const std::string made = U(SystemCache::findFileForCookie(sound(dest, 1)));
            EXPECT_NE(testing_support::runCommand("ffprobe -v error -show_entries stream=codec_name -of csv=p=0 " +
                                    testing_support::shellQuote(made))
                          .out.find(c.newCodec),
                      std::string::npos)
                << c.name;
            EXPECT_EQ(ffmpeg_oracle::decodedSamples(made, 0, c.raw),
                      source.substr(size_t(first) * frameBytes, size_t(last - first) * frameBytes))
                << c.name << " from " << start;
            EXPECT_FALSE(MaterialInfo::read_header(sound(dest, 1)).empty());
            EXPECT_TRUE(fs::exists(fs::path(made).replace_extension(".hdr")));
        }
    }
}

// Sound spread over several audio streams (a mono and a stereo one here, of different
// tones) becomes one file with all their channels in order: each channel is its stream's
// samples of the section, and reads back through the library as the source's channel does.
TEST_F(Extract, EveryAudioStreamsChannelsAreExtractedInOrder) {
    struct Case {
        const char* name;
        const char* codec;
        const char* raw; // FFmpeg's raw form of the decoded samples
        int bytes;       // bytes per raw sample
        int stored;      // bytes per sample as the library gives the new WAV file's
        int decoded;     // and the source's (24-bit samples come in 32 from FFmpeg)
    } cases[] = {
        {"streams.mov", "-c:a pcm_s24le", "s32le", 4, 3, 4},
        {"streams.mkv", "-c:a pcm_s16le", "s16le", 2, 2, 2},
    };
    const int64_t first = 24000, last = 60000; // 0.5 s to 1.25 s at 48 kHz
    for (const Case& c : cases) {
        const std::string path = ffmpeg_oracle::made(
            tmp, c.name,
            "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=2 -f lavfi -i "
            "aevalsrc='sin(2*PI*660*t)|0.5*sin(2*PI*990*t)':s=48000:d=2",
            "-map 0 -map 1 " + std::string(c.codec));
        const Cookie clip = importClip(c.name, path, 3);
        const Cookie dest = newClip();
        ASSERT_EQ(extract(sound(clip, 1), sound(dest, 1), 0.5, 1.25), 1) << c.name;
        const std::string made = U(SystemCache::findFileForCookie(sound(dest, 1)));
        const std::string got = ffmpeg_oracle::decodedSamples(made, 0, c.raw);
        ASSERT_EQ(got.size(), size_t(last - first) * 3 * size_t(c.bytes)) << c.name;
        // The source's channels in the material's order: stream 0's one, stream 1's two.
        std::vector<std::string> want;
        for (int stream : {0, 1}) {
            const std::string decoded = ffmpeg_oracle::decodedSamples(path, stream, c.raw);
            const int channels = stream == 0 ? 1 : 2;
            for (int ch = 0; ch < channels; ++ch) {
                std::string one;
                for (int64_t i = first; i < last; ++i)
                    one += decoded.substr((size_t(i) * size_t(channels) + size_t(ch)) * size_t(c.bytes), size_t(c.bytes));
                want.push_back(one);
            }
        }
        for (size_t ch = 0; ch < 3; ++ch) {
            std::string one;
            for (size_t i = 0; i < size_t(last - first); ++i)
                one += got.substr((i * 3 + ch) * size_t(c.bytes), size_t(c.bytes));
            EXPECT_TRUE(one == want[ch]) << c.name << " channel " << ch + 1;
        }
        MaterialFilename file = SystemCache::findEntryForCookie(sound(dest, 1))->getFile().getMaterialFilename();
        for (uint8_t ch = 2; ch <= 3; ++ch) ASSERT_EQ(SystemCache::addFile(sound(dest, ch), file, 0), 1);
        for (uint8_t ch = 1; ch <= 3; ++ch) {
            const std::string back = samples(sound(dest, ch), 0, uint32_t(last - first), uint32_t(c.stored));
            EXPECT_EQ(back.size(), size_t(last - first) * size_t(c.stored)) << c.name << " channel " << int(ch);
            const std::string source =
                samples(sound(clip, ch), uint64_t(first), uint32_t(last - first), uint32_t(c.decoded));
            std::string same; // the source's samples without the low bytes FFmpeg adds
            for (size_t at = 0; at + size_t(c.decoded) <= source.size(); at += size_t(c.decoded))
                same += source.substr(at + size_t(c.decoded - c.stored), size_t(c.stored));
            EXPECT_TRUE(back == same)
                << c.name << " channel " << int(ch);
        }
    }
}

// Intra-coded frames are copied: the new file decodes through the library to exactly the
// source's frames of the section, in the same codec.
TEST_F(Extract, IntraFramesAreCopiedPacketForPacket) {
    struct Case {
        const char* name;
        const char* codec;
        const char* codecName;
    } cases[] = {
        {"prores.mov", "-c:v prores_ks -profile:v 1", "prores"},
        {"dnxhr.mov", "-c:v dnxhd -profile:v dnxhr_lb -pix_fmt yuv422p", "dnxhd"},
        {"mjpeg.avi", "-c:v mjpeg -pix_fmt yuvj420p", "mjpeg"},
        {"ffv1.mkv", "-c:v ffv1", "ffv1"},
    };
    for (const Case& c : cases) {
        const std::string path = media(c.name, c.codec, 1.2);
        const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
        const Cookie clip = importClip(c.name, path, 0);
        const Cookie dest = newClip();
        ASSERT_EQ(extract(video(clip), video(dest), 0.32, 0.92), 1) << c.name;
        const std::string made = U(SystemCache::findFileForCookie(video(dest)));
        EXPECT_NE(ffmpeg_oracle::probe(made, "stream=codec_name").find(std::string("codec_name=") + c.codecName),
                  std::string::npos);
        ASSERT_EQ(file(video(dest))->getMetadata()->getFrameCount(), 15u) << c.name;
        for (int k = 0; k < 15; ++k) EXPECT_EQ(frameMd5(video(dest), k), want[size_t(8 + k)]) << c.name << " " << k;
    }
}

// Long-GOP video: copied from the first key frame in the section; the frames before it,
// and after the last clean cut, re-encoded in the same codec.
TEST_F(Extract, LongGopSectionsAreCutAtTheExactFrames) {
    struct Case {
        const char* name;
        const char* codec;
        int firstKey; // the first key frame at or after frame 13
    } cases[] = {
        {"h264.mp4", "-c:v libx264 -g 10 -bf 2 -x264-params scenecut=0 -pix_fmt yuv420p", 20},
        {"hevc.mp4", "-c:v libx265 -g 10 -x265-params scenecut=0:log-level=error -pix_fmt yuv420p", 20},
        {"mpeg2.ts", "-c:v mpeg2video -g 10 -bf 2", 21},
    };
    for (const Case& c : cases) {
        const std::string path = media(c.name, c.codec);
        const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
        const std::string pictures = ffmpeg_oracle::decodedFrames(path, "yuv420p");
        const size_t pictureBytes = 256 * 144 * 3 / 2;
        ASSERT_EQ(pictures.size(), pictureBytes * 50) << c.name;
        const Cookie clip = importClip(c.name, path, 0);
        const Cookie dest = newClip();
        ASSERT_EQ(extract(video(clip), video(dest), 0.52, 1.48), 1) << c.name; // frames 13 to 36
        const std::string made = U(SystemCache::findFileForCookie(video(dest)));
        EXPECT_EQ(ffmpeg_oracle::probe(made, "stream=codec_name"), ffmpeg_oracle::probe(path, "stream=codec_name"));
        ASSERT_EQ(file(video(dest))->getMetadata()->getFrameCount(), 24u) << c.name;
        for (int k = 0; k < 24; ++k) {
            Zn::Image::Surface picture;
            const std::string md5 = frameMd5(video(dest), k, DecodeFormat(1), &picture);
            const int from = 13 + k;
            if (from >= c.firstKey && from < c.firstKey + 5) EXPECT_EQ(md5, want[size_t(from)]) << c.name << " " << from;
            if (md5 == want[size_t(from)]) continue;
            EXPECT_GE(psnr(testing_support::packedBytes(picture), pictures.substr(size_t(from) * pictureBytes, pictureBytes)),
                      45.0)
                << c.name << " frame " << from;
        }
    }
}

// A section from key frame to key frame is a copy of the packets, nothing re-encoded.
TEST_F(Extract, KeyFrameToKeyFrameIsAPureCopy) {
    const std::string path = media("h264.mp4", "-c:v libx264 -g 10 -bf 2 -x264-params scenecut=0 -pix_fmt yuv420p");
    const std::vector<std::string> want = ffmpeg_oracle::frameMd5s(path);
    const Cookie clip = importClip("h264", path, 0);
    const Cookie dest = newClip();
    ASSERT_EQ(extract(video(clip), video(dest), 0.4, 1.2), 1);
    ASSERT_EQ(file(video(dest))->getMetadata()->getFrameCount(), 20u);
    for (int k = 0; k < 20; ++k) EXPECT_EQ(frameMd5(video(dest), k), want[size_t(10 + k)]) << k;
}

// An extraction run as a background task, which may ask itself to stop before it starts.
class ExtractionTask final : public BackgroundTaskBase {
public:
    ExtractionTask(Cookie source, Cookie destination, bool cancel)
        : source_(source), destination_(destination), cancel_(cancel) {}
    int result = -1;

protected:
    void run() override {
        if (cancel_) setStatus(eCancelled);
        FileXferSpec xfer;
        xfer.source = source_;
        xfer.destination = destination_;
        xfer.start = 0.2;
        xfer.end = 1.5;
        xfer.videoMetadata = ShotVideoMetadata(Zn::Image::FormatUID{}, Zn::kFrameRate25);
        LoggerHandle log(getLog());
        result = int(xfer.get_extract(log));
    }

private:
    Cookie source_, destination_;
    bool cancel_;
};

TEST_F(Extract, ProgressGoesToTheTasksLog) {
    const Cookie clip = importClip("h264", media("h264.mp4", "-c:v libx264 -g 10 -pix_fmt yuv420p"), 0);
    auto task = Zn::makePtr<ExtractionTask>(video(clip), video(newClip()), false);
    task->execute();
    EXPECT_EQ(task->result, 1);
    EXPECT_DOUBLE_EQ(task->getLog()->getProgress().fraction, 1.0);
    const auto lines = task->getLog()->getEntries();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(U(lines.front().text).rfind("Extracting frames 5 to 37 of ", 0), 0u) << U(lines.front().text);
}

TEST_F(Extract, FailedAndInterruptedExtractionsLeaveNothing) {
    const Cookie clip = importClip("h264", media("h264.mp4", "-c:v libx264 -g 10 -pix_fmt yuv420p"), 0);
    {   // Cancelled through the task's status.
        LogCapture log;
        const Cookie dest = video(newClip());
        auto task = Zn::makePtr<ExtractionTask>(video(clip), dest, true);
        task->execute();
        EXPECT_EQ(task->result, 3);
        EXPECT_EQ(log.count("playfile_extract: *** Interrupted ***\n"), 1u);
        EXPECT_FALSE(SystemCache::fileExists(dest));
        EXPECT_TRUE(MaterialInfo::read_header(dest).empty());
        EXPECT_TRUE(filesOf(dest).empty());
    }
    {   // The new file cannot be written: a folder stands where its temporary name goes.
        LogCapture log;
        const Cookie dest = video(newClip());
        const std::string base = U(getMaterialFilenameForCookie(dest, DriveId('A')).getOsPath());
        fs::create_directories(base + ".mp4.partial");
        EXPECT_EQ(extract(video(clip), dest, 0.2, 1.5), 0);
        EXPECT_EQ(log.count("playfile_extract: *** Error copying file ***\n"), 1u);
        EXPECT_FALSE(SystemCache::fileExists(dest));
        EXPECT_FALSE(fs::exists(base + ".mp4"));
        EXPECT_FALSE(fs::exists(base + ".hdr"));
    }
    {   // No plug-in takes it.
        const auto plugins = Zn::PluginResources::list(Zn::kFileXferPluginResource);
        for (const auto& p : plugins) Zn::PluginResources::remove(Zn::kFileXferPluginResource, p);
        LogCapture log;
        const Cookie dest = video(newClip());
        EXPECT_EQ(extract(video(clip), dest, 0.2, 1.5), 0);
        EXPECT_EQ(log.count("playfile_extract: *** Error copying file ***\n"), 1u);
        EXPECT_FALSE(SystemCache::fileExists(dest));
        for (const auto& p : plugins) Zn::PluginResources::add(Zn::kFileXferPluginResource, p);
    }
    {   // The source is gone.
        LogCapture log;
        const Cookie missing = importClip("gone", tmp.file("gone.mov"), 0);
        EXPECT_EQ(extract(video(missing), video(newClip()), 0.2, 1.5), 0);
        EXPECT_EQ(log.count("PlayFile::extract(): Unable to open input material file\n"), 1u);
    }
}

} // namespace
