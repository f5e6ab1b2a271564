// The video read queue with a real back-end and its real thread: matching and reuse,
// finished requests kept while held, failures, draining at the thread's end (where a
// request nobody holds is dropped unread; that it is not kept either the stress test
// shows).
#include "FrameFileReader.h"

#include "playfile/requests/RequestWaiter.h"
#include "playfile/requests/VideoReadQueue.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace test_backend;

namespace {

struct VideoQueue : ::testing::Test {
    // Closes the reader's gate and queues a request for frame 63 that the thread takes and
    // then waits at the gate with, so that what is queued next stays pending.
    template <class Queue> void holdThread(OpenFile& f, Queue& queue) {
        f.reader->gate.close();
        blocker = f.request(63, &blockerIssuer);
        queue.queueReadRequest(blocker, false);
        ASSERT_TRUE(f.reader->gate.waitForWaiters(1));
    }
    // Queues a request for frame by issuer; the request the queue holds it as.
    static Zn::Ptr<VideoReadRequest> issue(OpenFile& f, uint32_t frame, RecordingIssuer& by) {
        auto r = f.request(frame, &by);
        f.file->queueReadRequest(r, false);
        return r;
    }
    // Queues a request nobody is told about, kept alive by the test; the request the
    // queue holds it as (the first one, when joined).
    VideoReadRequest* queue(OpenFile& f, uint32_t frame, uint32_t width = 16, eResultType type = kResultDecoded,
                            Zn::Ptr<IndexInfoRep> index = nullptr) {
        held.push_back(f.request(frame, nullptr, width, type, index));
        f.file->queueReadRequest(held.back(), false);
        return held.back().get();
    }

    testing_support::TempDir dir;
    std::vector<Zn::Ptr<VideoReadRequest>> held;
    RecordingIssuer blockerIssuer;
    Zn::Ptr<VideoReadRequest> blocker;
};

} // namespace

TEST_F(VideoQueue, EqualRequestJoinsTheFirstAndIsReadOnceForAllItsIssuersEachCalledOnce) {
    OpenFile f(dir, "same.frames");
    holdThread(f, *f.file);
    RecordingIssuer a, b;
    auto r1 = f.request(4, &a);
    auto r2 = f.request(4, &b);
    auto r3 = f.request(4, &a); // a asks again
    VideoReadRequest* first = r1.get();
    for (auto* r : {&r1, &r2, &r3}) EXPECT_TRUE(f.file->queueReadRequest(*r, false));
    EXPECT_TRUE(r2.get() == first && r3.get() == first); // later calls hand back the first request
    EXPECT_EQ(f.file->getVideoQueue()->pendingCount(), 1u);
    f.reader->gate.open();
    ASSERT_TRUE(a.waitForCalls(1));
    ASSERT_TRUE(b.waitForCalls(1));
    EXPECT_EQ(f.reader->readFrames(), (std::vector<uint32_t>{63, 4}));
    EXPECT_EQ(a.buffer().get(), b.buffer().get());
    EXPECT_EQ(a.calls() + b.calls(), 2);
}

TEST_F(VideoQueue, MatchingCoversGroupsAndIndexRunsAndAWiderDecodeServesANarrowerOne) {
    OpenFile f(dir, "grouped.frames", {.groupSize = 4, .extraStreamChannels = {}});
    holdThread(f, *f.file);
    VideoReadRequest* six = queue(f, 6);
    EXPECT_EQ(queue(f, 5), six); // group 4..7 of frame 6
    VideoReadRequest* eight = queue(f, 8);
    EXPECT_NE(eight, six);
    EXPECT_EQ(queue(f, 8, 16), eight); // same width: joins
    EXPECT_EQ(queue(f, 9, 8), eight);  // narrower: joins the wider one
    EXPECT_NE(queue(f, 8, 16, kResultCompressed), eight); // another result type never joins

    OpenFile g(dir, "plain.frames");
    holdThread(g, *g.file);
    VideoReadRequest* narrow = queue(g, 3, 8);
    EXPECT_NE(queue(g, 3, 16), narrow); // a narrower decode cannot serve a wider one
    EXPECT_NE(queue(g, 4, 8), narrow);  // ungrouped: only the frame itself
    VideoReadRequest* indexed = queue(g, 13, 16, kResultDecoded, Zn::Ptr<IndexInfoRep>(new IndexInfoRep(10, 2, 15))); // reads deliver 12..15
    EXPECT_EQ(queue(g, 15), indexed);
    EXPECT_NE(queue(g, 11), indexed);

    f.reader->gate.open();
    g.reader->gate.open();
    ASSERT_TRUE(blockerIssuer.waitForCalls(2));
}

TEST_F(VideoQueue, FinishedRequestServesLaterIssuersAtOnceUntilReleasedByAll) {
    OpenFile f(dir, "finished.frames");
    RecordingIssuer a, b;
    auto r1 = issue(f, 7, a);
    ASSERT_TRUE(a.waitForCalls(1));
    EXPECT_NE(a.thread(), std::this_thread::get_id()); // read on the queue's thread

    auto r2 = issue(f, 7, b);
    EXPECT_EQ(r2.get(), r1.get());
    EXPECT_EQ(b.calls(), 1); // called at once, from this thread
    EXPECT_EQ(b.thread(), std::this_thread::get_id());
    EXPECT_EQ(b.buffer().get(), a.buffer().get());
    EXPECT_EQ(a.calls(), 1); // not again (nor read again: see the frames read below)

    // Released by everybody: dropped by the next queuing (which still matches before it
    // drops), so an equal request after that is read anew.
    Zn::Ptr<FrameBufferRep> frame7 = a.buffer(); // held by a, b, here and the request
    r1.reset();
    r2.reset();
    // The queue's thread lets go of its own references just after the callbacks.
    EXPECT_TRUE(eventually([&] { return frame7.refCount() == 4; }));
    RecordingIssuer c, d;
    auto other = issue(f, 8, c);
    EXPECT_EQ(frame7.refCount(), 3); // the request is gone
    ASSERT_TRUE(c.waitForCalls(1));
    auto again = issue(f, 7, d);
    ASSERT_TRUE(d.waitForCalls(1));
    EXPECT_EQ(f.reader->readFrames(), (std::vector<uint32_t>{7, 8, 7}));
    EXPECT_EQ(f.file->getVideoQueue()->inProgressCount(), 2u);
}

TEST_F(VideoQueue, FailedRequestIsJoinedWithoutACallbackAPendingOneStaysInProgressAndAThrowFails) {
    OpenFile f(dir, "outcomes.frames");
    f.reader->mode = FrameFileReader::kFail;
    RecordingIssuer failer, joiner, a;
    auto failed = issue(f, 3, failer);
    ASSERT_TRUE(failer.waitForCalls(1));
    EXPECT_EQ(failer.status(), RequestStatus::Failed);
    EXPECT_EQ(issue(f, 3, joiner).get(), failed.get());
    EXPECT_EQ(joiner.calls(), 0);

    // A back-end that completes later.
    f.reader->mode = FrameFileReader::kPending;
    auto r = issue(f, 2, a);
    ASSERT_TRUE(eventually([&] { return f.reader->reads.load() == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(r->getStatus(), RequestStatus::InProgress);
    EXPECT_EQ(a.calls(), 0);
    r->requestHasCompleted(RequestStatus::Complete); // the back-end's late completion
    EXPECT_EQ(a.calls(), 1);
    EXPECT_EQ(f.reader->takePendingRequests().size(), 1u);

    testing_support::LogCapture log;
    f.reader->mode = FrameFileReader::kThrow;
    RecordingIssuer b;
    auto thrown = issue(f, 4, b);
    ASSERT_TRUE(b.waitForCalls(1));
    EXPECT_EQ(b.status(), RequestStatus::Failed);
    EXPECT_EQ(log.count("Exception reading frame 4 of \"" + f.path + "\": broken frame\n"), 1u);
}

// The library's waiter looks at the status of the request it holds after queuing: one that
// joined a failed request ends at once, where a callback would never come.
TEST_F(VideoQueue, AWaiterLearnsAJoinedFailureFromTheStatusAndEndsAtOnce) {
    OpenFile f(dir, "waiter.frames");
    auto ask = [&](RequestWaiter& w, uint32_t frame) {
        Zn::Ptr<IndexInfoRep> none;
        auto r = Zn::makePtr<VideoReadRequest>(f.file, none, frame, kResultDecoded, DecodeFormat::getDefault(),
                                               w.getProxy());
        EXPECT_TRUE(w.queue(r));
        return r;
    };
    f.reader->mode = FrameFileReader::kFail;
    RequestWaiter first, joiner;
    auto failed = ask(first, 3);
    ASSERT_TRUE(first.wait(std::chrono::seconds(5)));
    EXPECT_EQ(first.status(), RequestStatus::Failed);
    EXPECT_EQ(ask(joiner, 3).get(), failed.get());
    EXPECT_TRUE(joiner.finished());
    EXPECT_EQ(joiner.status(), RequestStatus::Failed);

    f.reader->mode = FrameFileReader::kRaw;
    joiner.reset();
    auto read = ask(joiner, 5);
    ASSERT_TRUE(joiner.wait(std::chrono::seconds(5)));
    EXPECT_EQ(joiner.status(), RequestStatus::Complete);
    EXPECT_TRUE(Zn::dynamicPtrCast<FrameBufferRep>(joiner.result()));
}

TEST_F(VideoQueue, EndingTheThreadReadsTheWantedRequestsFirst) {
    OpenFile f(dir, "drain.frames");
    auto queue = Zn::makePtr<Zn::VideoReadQueue>();
    holdThread(f, *queue);
    RecordingIssuer wanted;
    auto r2 = f.request(2, &wanted);
    queue->queueReadRequest(r2, false);
    auto r3 = f.request(3, nullptr);
    queue->queueReadRequest(r3, false);
    r3.reset();

    std::atomic<bool> ended{false};
    std::thread ender([&] {
        queue.reset(); // the destructor ends the thread, which drains first
        ended = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(ended.load());
    f.reader->gate.open();
    ender.join();
    EXPECT_EQ(wanted.calls(), 1); // read before the queue was gone
    EXPECT_EQ(f.reader->readFrames(), (std::vector<uint32_t>{63, 2})); // the one nobody holds is not read
}
