// The audio read queue with a real back-end: read order, dropping, deferred wakes served
// by the poll, draining at the thread's end.
#include "FrameFileReader.h"

#include "playfile/Configuration.h"
#include "playfile/requests/AudioReadQueue.h"

#include <gtest/gtest.h>

using namespace test_backend;

namespace {

FrameFileLayout audioLayout() {
    FrameFileLayout layout;
    layout.frames = 0;
    layout.audioChannels = 4;
    layout.audioSamples = 4096;
    return layout;
}

} // namespace

TEST(AudioQueue, ReadsForwardsByStartThenChannelAndDeliversTheChannelsSamples) {
    testing_support::TempDir dir;
    OpenFile f(dir, "order.frames", audioLayout(), OpenType::kAudio);
    f.reader->gate.close();
    RecordingIssuer first;
    auto blocker = f.audio(0, 0, 0, 16, &first);
    f.file->queueReadRequest(blocker, false);
    ASSERT_TRUE(f.reader->gate.waitForWaiters(1));

    RecordingIssuer a, b, c, d;
    auto r1 = f.audio(0, 1, 1000, 32, &a);
    auto r2 = f.audio(0, 3, 0, 32, &b);
    auto r3 = f.audio(0, 0, 1000, 32, &c);
    auto r4 = f.audio(0, 1, 1000, 8, &d); // equal key: after r1
    for (auto* r : {&r1, &r2, &r3, &r4}) EXPECT_TRUE(f.file->queueReadRequest(*r, false));
    EXPECT_EQ(f.file->getAudioQueue()->pendingCount(), 4u);
    f.reader->gate.open();
    ASSERT_TRUE(d.waitForCalls(1));
    using Read = std::pair<uint64_t, uint32_t>;
    EXPECT_EQ(f.reader->audioOrder(),
              (std::vector<Read>{{0, 0}, {0, 3}, {1000, 0}, {1000, 1}, {1000, 1}}));
    EXPECT_EQ(r4->getStatus(), Complete);
    ASSERT_EQ(r1->getUsed(), 64u);
    const int16_t* samples = reinterpret_cast<const int16_t*>(r1->getBuffer());
    EXPECT_EQ(samples[0], sampleOf(1000, 1));
    EXPECT_EQ(samples[31], sampleOf(1031, 1));
    EXPECT_EQ(a.calls() + b.calls() + c.calls() + d.calls(), 4);
}

TEST(AudioQueue, ReleasedRequestIsNotReadAndDeferredOneWaitsForThePoll) {
    testing_support::TempDir dir;
    OpenFile f(dir, "poll.frames", audioLayout(), OpenType::kAudio);
    f.reader->gate.close();
    RecordingIssuer first;
    auto blocker = f.audio(0, 0, 0, 16, &first);
    f.file->queueReadRequest(blocker, false);
    ASSERT_TRUE(f.reader->gate.waitForWaiters(1));
    RecordingIssuer gone;
    auto dropped = f.audio(0, 2, 0, 16, &gone);
    f.file->queueReadRequest(dropped, false);
    dropped.reset();
    f.reader->gate.open();
    ASSERT_TRUE(first.waitForCalls(1));

    // Deferred: nothing wakes the thread, its poll finds the request.
    RecordingIssuer late;
    auto deferred = f.audio(0, 1, 100, 16, &late);
    auto start = std::chrono::steady_clock::now();
    f.file->queueReadRequest(deferred, true);
    ASSERT_TRUE(late.waitForCalls(1));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_LT(waited, std::chrono::milliseconds(PlayfileConfig::readPollDelay() * 4 + 100));
    using Read = std::pair<uint64_t, uint32_t>;
    EXPECT_EQ(f.reader->audioOrder(), (std::vector<Read>{{0, 0}, {100, 1}}));
    EXPECT_EQ(gone.calls(), 0);
}

TEST(AudioQueue, EndingTheThreadReadsTheWantedRequestsFirst) {
    testing_support::TempDir dir;
    OpenFile f(dir, "drain.frames", audioLayout(), OpenType::kAudio);
    auto queue = Zn::makePtr<Zn::AudioReadQueue>();
    f.reader->gate.close();
    RecordingIssuer first, wanted;
    auto r1 = f.audio(0, 0, 0, 16, &first);
    queue->queueReadRequest(r1, false);
    ASSERT_TRUE(f.reader->gate.waitForWaiters(1));
    auto r2 = f.audio(0, 1, 0, 16, &wanted);
    queue->queueReadRequest(r2, true);
    auto r3 = f.audio(0, 2, 0, 16, nullptr);
    queue->queueReadRequest(r3, true);
    r3.reset();
    std::thread ender([&] { queue.reset(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    f.reader->gate.open();
    ender.join();
    EXPECT_EQ(wanted.calls(), 1);
    EXPECT_EQ(f.reader->audioOrder().size(), 2u);
}
