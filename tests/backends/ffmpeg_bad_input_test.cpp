// The FFmpeg engine on files that are not what they claim, for what the readers' tests
// through the play file cache do not see: the reason a file fails to open, and FFmpeg's
// own complaints about a damaged file reaching the log sink a line at a time while the
// frames around the damage still decode.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <random>

using namespace testing_support;
using namespace ffmpeg_engine;

TEST(FfmpegBadInput, MissingFoldersAndEmptyFilesFailToOpenWithAReason) {
    TempDir dir;
    EXPECT_EQ(FfmpegSource::open(dir.file("nothing-here.mp4")).error, "file not found");
    EXPECT_EQ(FfmpegSource::open(dir.path().string()).error, "not a regular file");
    writeFile(dir.file("empty.mp4"), "");
    EXPECT_EQ(FfmpegSource::open(dir.file("empty.mp4")).error, "empty file");
}

TEST(FfmpegBadInput, DamageInTheMiddleIsReportedAndSurvived) {
    TempDir dir;
    std::mt19937 rng(7);
    for (const char* name : {"damaged.mkv", "damaged.mp4"}) {
        SCOPED_TRACE(name);
        const std::string path = dir.file(name);
        ASSERT_TRUE(ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=25:duration=2 "
                           "-c:v libx264 -preset veryfast -g 12 -bf 2 -pix_fmt yuv420p " + shellQuote(path)));
        std::string bytes = readFile(path);
        for (size_t i = bytes.size() / 2; i < bytes.size() / 2 + 6000; ++i) bytes[i] = char(rng());
        writeFile(path, bytes);
        std::vector<std::string> complaints;
        routeFfmpegLog(AV_LOG_ERROR, [&](int level, const std::string& line) {
            EXPECT_LE(level, AV_LOG_ERROR);
            complaints.push_back(line);
        });
        int decoded = 0;
        auto index = FfmpegSource::open(path);
        ASSERT_TRUE(index) << index.error;
        auto d = FfmpegVideoDecoder::open(index.value);
        ASSERT_TRUE(d) << d.error;
        for (int k = 0; k < index.value->video->frameCount(); ++k) {
            auto f = d.value->decodeFrame(k);
            if (f) ++decoded;
            else EXPECT_FALSE(f.error.empty());
        }
        routeFfmpegLog(AV_LOG_QUIET, nullptr);
        EXPECT_GT(decoded, 0);
        EXPECT_FALSE(complaints.empty());
        for (const std::string& line : complaints) EXPECT_EQ(line.find('\n'), std::string::npos);
    }
}
