// De-interleaving of every sample width against a plain reference, over channel counts
// and lengths that reach the fixed-count loops, the general one, whole tiles and the
// samples after the last tile.
#include "host/media/AudioInterleaver.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

TEST(AudioInterleaver, SplitsEveryWidthAndChannelCountLikeThePlainLoop) {
    for (uint32_t bytes : {1u, 2u, 3u, 4u, 8u})
        for (uint32_t channels : {1u, 2u, 3u, 5u, 6u, 8u})
            for (uint32_t samples : {1u, 63u, 64u, 200u}) {
                std::vector<uint8_t> src(size_t(samples) * channels * bytes);
                for (size_t i = 0; i < src.size(); ++i)
                    src[i] = uint8_t(i * 131 + (i >> 8));
                // One block for all channels, so a write past a channel's end lands in the
                // next channel's first sample and shows.
                std::vector<uint8_t> out(size_t(samples) * channels * bytes + 1, 0xEE);
                std::vector<uint8_t*> dst(channels);
                for (uint32_t c = 0; c < channels; ++c)
                    dst[c] = out.data() + size_t(c) * samples * bytes;
                AudioInterleaver::deinterleave(src.data(), channels, bytes, samples, dst.data());
                for (uint32_t c = 0; c < channels; ++c)
                    for (uint32_t i = 0; i < samples; ++i)
                        ASSERT_EQ(std::memcmp(dst[c] + size_t(i) * bytes,
                                              &src[(size_t(i) * channels + c) * bytes], bytes),
                                  0)
                            << bytes << " bytes, " << channels << " channels, " << samples
                            << " samples, channel " << c << " sample " << i;
                EXPECT_EQ(out.back(), 0xEE);
            }
}

TEST(AudioInterleaver, MakesOneBufferPerChannelAndIgnoresATrailingPartSample) {
    const uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 99};
    Aud::StreamBufferList out;
    ASSERT_TRUE(AudioInterleaver::deinterleaveAudio(Aud::Metadata(44100, 2, 3),
                                                    new ByteBufferImpl(bytes, sizeof bytes), out));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out.getSampleCount(), 2u);
    EXPECT_EQ(out[1].getUsedBytes(), 6u);
    const uint8_t right[] = {4, 5, 6, 10, 11, 12};
    EXPECT_EQ(std::memcmp(out[1].getData(), right, 6), 0);
}
