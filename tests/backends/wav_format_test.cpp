// RIFF WAVE headers: written headers parse back (RF64 past 4 GiB), data that runs to the
// end, and broken headers. (Files ffmpeg writes in every sample format are read through
// the play file cache by the reader tests.)
#include "backends/wav/WavFormat.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

bool parseBytes(const std::vector<uint8_t>& bytes, wav::Info& info, std::string& error) {
    wav::ReadAt read = [&](uint64_t offset, void* buf, size_t n) -> int64_t {
        if (offset >= bytes.size()) return 0;
        size_t take = std::min(n, bytes.size() - size_t(offset));
        std::memcpy(buf, bytes.data() + offset, take);
        return int64_t(take);
    };
    return wav::parseHeader(read, bytes.size(), info, error);
}

void put(std::vector<uint8_t>& v, size_t at, uint32_t x, int bytes = 4) {
    for (int i = 0; i < bytes; ++i) v[at + i] = uint8_t(x >> (8 * i));
}

wav::Info format(uint16_t channels, uint32_t rate, uint16_t bits) {
    wav::Info f;
    f.channels = channels;
    f.sampleRate = rate;
    f.bitsPerSample = bits;
    f.blockAlign = uint16_t(channels * bits / 8);
    return f;
}

} // namespace

TEST(WavFormat, WrittenHeadersParseBackAndSwitchToRf64PastFourGigabytes) {
    const wav::Info f = format(8, 48000, 24);
    auto small = wav::makeHeader(f, 240);
    auto large = wav::makeHeader(f, 5ull << 30);
    EXPECT_EQ(small.size(), large.size()); // rewritable in place
    EXPECT_EQ(std::memcmp(small.data(), "RIFF", 4), 0);
    EXPECT_EQ(std::memcmp(large.data(), "RF64", 4), 0);

    std::vector<uint8_t> file(small);
    file.resize(small.size() + 240);
    wav::Info back;
    std::string error;
    ASSERT_TRUE(parseBytes(file, back, error)) << error;
    EXPECT_TRUE(back.extensible);
    EXPECT_EQ(back.frames(), 10u);

    // Only the header of the large file: its data is said to run 5 GiB, more than is
    // there, so what is there is read.
    ASSERT_TRUE(parseBytes(large, back, error)) << error;
    EXPECT_TRUE(back.rf64);
    EXPECT_EQ(back.dataBytes, 0u);
}

TEST(WavFormat, DataOfUnknownSizeOrCutShortRunsToTheEndInWholeFrames) {
    auto header = wav::makeHeader(format(2, 44100, 16), 400);
    std::vector<uint8_t> file(header);
    file.resize(header.size() + 402); // 100 frames and half of another
    size_t sizeAt = header.size() - 4;
    for (uint32_t said : {0u, 0xFFFFFFFFu, 4000u}) {
        put(file, sizeAt, said);
        wav::Info info;
        std::string error;
        ASSERT_TRUE(parseBytes(file, info, error)) << error;
        EXPECT_TRUE(info.dataRunsToEnd) << said;
        EXPECT_EQ(info.frames(), 100u) << said;
    }
}

TEST(WavFormat, BrokenHeadersAreRefusedWithAReason) {
    const auto good = wav::makeHeader(format(2, 48000, 16), 16);
    const size_t fmtAt = 12 + 36 + 8; // RIFF header, JUNK chunk, fmt chunk header
    auto with = [&](size_t at, uint32_t value, int bytes) {
        std::vector<uint8_t> v(good);
        v.resize(good.size() + 16);
        put(v, at, value, bytes);
        return v;
    };
    struct Case { std::vector<uint8_t> bytes; std::string reason; };
    for (const Case& c : std::vector<Case>{
             {{}, "not a RIFF WAVE file"},
             {std::vector<uint8_t>(good.begin(), good.begin() + 20), "no format chunk"},
             {with(fmtAt + 2, 0, 2), "absurd channel count 0"},
             {with(fmtAt + 4, 0, 4), "absurd sample rate 0"},
             {with(fmtAt + 14, 12, 2), "unsupported sample size of 12 bits"},
             {with(fmtAt + 0, 85, 2), "unsupported WAVE format tag 85 (only PCM and float)"},
             {with(fmtAt + 12, 3, 2), "block size 3 does not match 2 channels of 16 bits"},
         }) {
        wav::Info info;
        std::string error;
        EXPECT_FALSE(parseBytes(c.bytes, info, error)) << c.reason;
        EXPECT_EQ(error, c.reason);
    }
}
