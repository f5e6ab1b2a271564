// The FFmpeg engine's audio API beyond what the readers use (their samples against
// FFmpeg's are checked through the play file cache): interleaved reads converted to
// another sample format, and native blocks with a plane per channel.
#include "FfmpegOracle.h"
#include "backends/ffmpeg/FfmpegEngine.h"
#include "support/Command.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace testing_support;
using namespace ffmpeg_engine;

TEST(FfmpegAudio, InterleavedReadsInAnotherFormatAndPlanarBlocks) {
    TempDir dir;
    const std::string path = dir.file("aac.m4a");
    ASSERT_TRUE(ffmpeg("-f lavfi -i sine=frequency=440:sample_rate=48000:duration=1 "
                       "-f lavfi -i anoisesrc=d=1:c=pink:r=48000:a=0.1:seed=6 -filter_complex amerge=inputs=2 "
                       "-c:a aac -aac_pns 0 -b:a 96k " + shellQuote(path)));
    auto index = FfmpegSource::open(path);
    ASSERT_TRUE(index) << index.error;
    auto d = FfmpegAudioDecoder::open(index.value, 0);
    ASSERT_TRUE(d) << d.error;
    ASSERT_EQ(d.value->nativeFormat(), AV_SAMPLE_FMT_FLTP);
    // FFmpeg's program converts planar float to 16 bits without dither, as libswresample does.
    const std::string want = ffmpeg_oracle::decodedSamples(path, 0, "s16le");
    const int64_t total = d.value->totalSamples();
    ASSERT_EQ(total, int64_t(want.size() / 4));
    for (const auto& [start, count] : {std::pair<int64_t, int64_t>{0, total}, {12345, 3001}, {total - 5, 10}}) {
        std::vector<uint8_t> got;
        auto r = d.value->readInterleaved(start, count, AV_SAMPLE_FMT_S16, got);
        ASSERT_TRUE(r) << r.error;
        ASSERT_EQ(r.value, std::min(count, total - start)) << start;
        EXPECT_EQ(std::memcmp(got.data(), want.data() + start * 4, size_t(r.value) * 4), 0) << start;
    }
    std::vector<uint8_t> none;
    auto past = d.value->readInterleaved(total, 10, AV_SAMPLE_FMT_S16, none);
    EXPECT_TRUE(past && past.value == 0);

    AudioBlock block;
    auto r = d.value->read(1000, 500, block);
    ASSERT_TRUE(r && r.value == 500);
    EXPECT_EQ(block.planes.size(), 2u);
    EXPECT_EQ(block.start, 1000);
    EXPECT_EQ(block.count, 500);
}
