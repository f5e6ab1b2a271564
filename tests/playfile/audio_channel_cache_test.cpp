// The audio channel cache on its own: which requests a block holds, and the buffers and
// views it answers with.
#include "playfile/audio/AudioChannelCache.h"

#include <gtest/gtest.h>

namespace {

AudioRequest request(uint32_t stream, uint32_t channel, uint64_t start, uint32_t count) {
    return {.stream = stream, .channel = channel, .start = start, .count = count};
}

// channels buffers of 16-bit samples, channel c's sample i holding c * 1000 + i; the
// list's count (listCount) is smaller than what the buffers hold.
Aud::StreamBufferList block(uint32_t channels, uint32_t samples, uint32_t listCount) {
    Aud::StreamBufferList list;
    for (uint32_t c = 0; c < channels; ++c) {
        Zn::Ptr<iMemHolder> mem(new ByteBufferImpl(samples * 2));
        for (uint32_t i = 0; i < samples; ++i)
            reinterpret_cast<uint16_t*>(mem->getBuffer())[i] = uint16_t(c * 1000 + i);
        mem->setUsed(samples * 2);
        list.add(Aud::StreamBuffer(mem, 1, samples, 0, 7));
    }
    list.setSampleCount(listCount);
    return list;
}

} // namespace

TEST(AudioChannelCache, HoldsOnlyRequestsWhollyInsideTheLastBlockOfTheirStream) {
    AudioChannelCache cache;
    EXPECT_FALSE(cache.contains(request(0, 0, 0, 1)));
    cache.addBuffers(0, 1000, block(2, 100, 100));
    EXPECT_TRUE(cache.contains(request(0, 1, 1000, 100)));
    EXPECT_TRUE(cache.contains(request(0, 0, 1099, 1)));
    EXPECT_FALSE(cache.contains(request(0, 0, 1050, 51))); // starts inside, ends after
    EXPECT_FALSE(cache.contains(request(0, 0, 999, 10)));
    EXPECT_FALSE(cache.contains(request(1, 0, 1000, 10))); // another stream

    cache.addBuffers(0, 5000, block(2, 10, 10)); // one block per stream
    EXPECT_FALSE(cache.contains(request(0, 0, 1000, 10)));
    // A lookup for a stream never filled makes an empty entry, which holds nothing.
    EXPECT_TRUE(cache.getResult(request(3, 0, 0, 1), 2).empty());
    EXPECT_FALSE(cache.contains(request(3, 0, 0, 1)));
}

TEST(AudioChannelCache, AnswersWithTheCachedBufferOrAViewIntoIt) {
    AudioChannelCache cache;
    Aud::StreamBufferList list = block(3, 64, 48);
    uint8_t* channel1 = list[1].getData();
    cache.addBuffers(2, 480, list);

    Aud::StreamBuffer same = cache.getResult(request(2, 1, 480, 16), 2);
    EXPECT_EQ(same.getData(), channel1);
    EXPECT_EQ(same.getSampleCount(), 48u); // the list's count, given to every buffer

    Aud::StreamBuffer view = cache.getResult(request(2, 1, 490, 16), 2);
    EXPECT_EQ(view.getData(), channel1 + 20);
    EXPECT_EQ(view.getSampleCount(), 38u);
    EXPECT_EQ(view.getUsedBytes(), 128u - 20u); // to the end of the cached bytes
    EXPECT_EQ(view.getFlags(), 7);
    EXPECT_EQ(view.getMemory()->setUsed(4), 0u); // a view's length is fixed
    EXPECT_EQ(view.getUsedBytes(), 108u);
    EXPECT_TRUE(cache.getResult(request(2, 3, 480, 16), 2).empty()); // no channel 3

    cache.addBuffers(2, 0, block(3, 8, 8)); // the view keeps its part alive
    EXPECT_EQ(reinterpret_cast<const uint16_t*>(view.getData())[0], 1010);
}
