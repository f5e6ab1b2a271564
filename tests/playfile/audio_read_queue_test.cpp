// The audio read queue with a real back-end: read order, deferred wakes served by the
// poll, draining at the thread's end (dropping what nobody holds). The samples a read
// delivers the stress tests check.
#include "FrameFileReader.h"

#include "playfile/Configuration.h"
#include "playfile/requests/AudioReadQueue.h"

#include <gtest/gtest.h>

using namespace test_backend;
using Read = std::pair<uint64_t, uint32_t>;

namespace {

struct AudioQueue : ::testing::Test {
    // Closes the reader's gate and queues a read of channel 0 at 0 that the thread takes
    // and then waits at the gate with, so that what is queued next stays pending.
    template <class Queue> void holdThread(Queue& queue) {
        f.reader->gate.close();
        queue.queueReadRequest(blocker, false);
        ASSERT_TRUE(f.reader->gate.waitForWaiters(1));
    }

    testing_support::TempDir dir;
    OpenFile f{dir, "audio.frames", FrameFileLayout{.frames = 0, .audioChannels = 4, .audioSamples = 4096, .extraStreamChannels = {}},
               OpenType::kAudio};
    RecordingIssuer first;
    Zn::Ptr<AudioReadRequest> blocker = f.audio(0, 0, 0, 16, &first);
};

} // namespace

TEST_F(AudioQueue, ReadsForwardsByStartThenChannel) {
    holdThread(*f.file);
    RecordingIssuer a, b, c, d;
    auto r1 = f.audio(0, 1, 1000, 32, &a);
    auto r2 = f.audio(0, 3, 0, 32, &b);
    auto r3 = f.audio(0, 0, 1000, 32, &c);
    auto r4 = f.audio(0, 1, 1000, 8, &d); // equal key: after r1
    for (auto* r : {&r1, &r2, &r3, &r4}) EXPECT_TRUE(f.file->queueReadRequest(*r, false));
    EXPECT_EQ(f.file->getAudioQueue()->pendingCount(), 4u);
    f.reader->gate.open();
    ASSERT_TRUE(d.waitForCalls(1));
    EXPECT_EQ(f.reader->audioOrder(), (std::vector<Read>{{0, 0}, {0, 3}, {1000, 0}, {1000, 1}, {1000, 1}}));
    EXPECT_EQ(r4->getStatus(), RequestStatus::Complete);
    EXPECT_EQ(a.calls() + b.calls() + c.calls() + d.calls(), 4);
}

TEST_F(AudioQueue, ADeferredRequestWaitsForThePoll) {
    f.file->queueReadRequest(blocker, false);
    ASSERT_TRUE(first.waitForCalls(1));
    // Deferred: nothing wakes the thread, its poll finds the request.
    RecordingIssuer late;
    auto deferred = f.audio(0, 1, 100, 16, &late);
    auto start = std::chrono::steady_clock::now();
    f.file->queueReadRequest(deferred, true);
    ASSERT_TRUE(late.waitForCalls(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::milliseconds(PlayfileConfig::readPollDelay() * 4 + 100));
    EXPECT_EQ(f.reader->audioOrder(), (std::vector<Read>{{0, 0}, {100, 1}}));
}

TEST_F(AudioQueue, EndingTheThreadReadsTheWantedRequestsFirst) {
    auto queue = Zn::makePtr<Zn::AudioReadQueue>();
    holdThread(*queue);
    RecordingIssuer wanted;
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
    EXPECT_EQ(f.reader->audioOrder().size(), 2u); // the one nobody holds is not read
}
