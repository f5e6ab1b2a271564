// Many issuer threads queue overlapping video and audio requests on several files for a
// couple of seconds, while another thread trims and purges the files and replaces them
// with fresh instances (so queues go back to the pools and are taken again). Every request
// an issuer still holds must call it exactly once with the right frame or samples; no
// issuer is called twice; afterwards no request is left in a queue and no file is left
// open.
#include "FrameFileReader.h"

#include "playfile/requests/AudioReadQueue.h"
#include "playfile/requests/VideoReadQueue.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>

using namespace test_backend;

namespace {

constexpr auto kDuration = std::chrono::seconds(2);
constexpr int kIssuers = 8;
constexpr int kFiles = 3;
constexpr uint32_t kFrameRange = 12; // small, so requests overlap

// One issue of one request; called twice counts as a violation when it goes.
struct Ticket : RecordingIssuer {
    explicit Ticket(std::atomic<int>& violations) : violations(violations) {}
    ~Ticket() override {
        detachProxy();
        if (calls() > 1) ++violations;
    }
    std::atomic<int>& violations;
};

struct Outstanding {
    std::unique_ptr<Ticket> ticket;
    Zn::Ptr<VideoReadRequest> video;
    Zn::Ptr<AudioReadRequest> audio;
    uint32_t frame = 0;
    bool grouped = false;
};

struct Shared {
    std::mutex mutex; // guards files
    Zn::Ptr<FileReadInstance> files[kFiles];
    FrameFileLayout layouts[kFiles];
    std::string paths[kFiles];
    std::atomic<bool> stop{false};
    std::atomic<int> violations{0}; // an issuer called twice
    std::atomic<int> lost{0};       // a held request whose issuer was never called
    std::atomic<int> wrong{0};      // a callback with the wrong status or data
    std::atomic<long> issued{0};

    Zn::Ptr<FileReadInstance> file(int i) {
        std::lock_guard<std::mutex> l(mutex);
        return files[i];
    }
    Zn::Ptr<FileReadInstance> open(int i) {
        return Zn::makePtr<FrameFileReader>(paths[i], DecodeFormat(1),
                                            i == 2 ? OpenType::kVideoAndAudio : OpenType::kVideo, layouts[i]);
    }
};

// Counts a held request whose issuer is never called as lost, one called with a wrong
// status or data as wrong.
void check(Shared& s, Outstanding& o) {
    const bool called = o.ticket->waitForCalls(1, std::chrono::seconds(10));
    const bool failed = o.ticket->status() != RequestStatus::Complete;
    if (!called) {
        ++s.lost;
    } else if (o.audio) {
        const int16_t* samples = reinterpret_cast<const int16_t*>(o.audio->getBuffer());
        s.wrong += failed || !samples || samples[0] != sampleOf(o.audio->start, o.audio->channel);
    } else {
        auto buffer = o.ticket->buffer();
        Zn::Image::Surface surface = buffer ? buffer->getSurface(0) : Zn::Image::Surface();
        s.wrong += failed || !surface.valid() || (!o.grouped && surface.plane(0)[5] != pixelOf(o.frame, 5, 0));
    }
}

void issuer(Shared& s, unsigned seed) {
    std::mt19937 rng(seed);
    std::deque<Outstanding> held;
    std::deque<std::unique_ptr<Ticket>> released; // kept a while: a late second call would show
    while (!s.stop.load()) {
        int i = int(rng() % kFiles);
        Zn::Ptr<FileReadInstance> file = s.file(i);
        Outstanding o;
        o.ticket = std::make_unique<Ticket>(s.violations);
        if (i == 2 && rng() % 3 == 0) {
            AudioRequest ar{.channel = uint32_t(rng() % 2), .start = rng() % 4000, .count = 64};
            o.audio = Zn::makePtr<AudioReadRequest>(file, ar, 1, o.ticket->getProxy());
            file->queueReadRequest(o.audio, rng() % 4 == 0);
        } else {
            o.frame = rng() % kFrameRange;
            o.grouped = s.layouts[i].groupSize > 0;
            DecodeFormat format;
            format.setCoreData(rng() % 2 ? 16 : 8, 8, Zn::Image::kFormatGray8);
            Zn::Ptr<IndexInfoRep> none;
            o.video = Zn::makePtr<VideoReadRequest>(file, none, o.frame, kResultDecoded, format,
                                                    o.ticket->getProxy());
            file->queueReadRequest(o.video, false);
        }
        ++s.issued;
        if (rng() % 5 == 0) {
            // Not wanted any more: it may be dropped unread, or served through another.
            released.push_back(std::move(o.ticket));
            if (released.size() > 256) released.pop_front();
            continue;
        }
        held.push_back(std::move(o));
        if (held.size() > 8) {
            check(s, held.front());
            held.pop_front();
        }
    }
    for (auto& o : held) check(s, o);
}

void keeper(Shared& s) {
    std::mt19937 rng(99);
    int round = 0;
    while (!s.stop.load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        int i = int(rng() % kFiles);
        Zn::Ptr<FileReadInstance> file = s.file(i);
        if (++round % 10 == 0) file->purge();
        else file->limitUsage();
        if (round % 25 == 0) {
            // Close and reopen: the old instance goes once its requests are done.
            Zn::Ptr<FileReadInstance> fresh = s.open(i);
            {
                std::lock_guard<std::mutex> l(s.mutex);
                std::swap(s.files[i], fresh);
            }
            fresh->purge();
        }
    }
}

} // namespace

TEST(ReadQueueStress, OverlappingRequestsFromManyThreadsLoseNothingAndLeakNothing) {
    testing_support::TempDir dir;
    int aliveBefore = FrameFileReader::alive.load();
    {
        Shared s;
        s.layouts[1].groupSize = 4;
        s.layouts[2].audioChannels = 2;
        s.layouts[2].audioSamples = 8192;
        for (int i = 0; i < kFiles; ++i) {
            s.paths[i] = writeFrameFile(dir, "stress" + std::to_string(i) + ".frames", s.layouts[i]);
            s.files[i] = s.open(i);
        }
        testing_support::inThreads(kIssuers + 2, [&](int t) {
            if (t < kIssuers) issuer(s, unsigned(t + 1));
            else if (t == kIssuers) keeper(s);
            else std::this_thread::sleep_for(kDuration), s.stop = true; // the clock
        });

        EXPECT_GT(s.issued.load(), 1000);
        std::printf("%ld requests issued\n", s.issued.load());
        EXPECT_EQ(s.lost.load(), 0);
        EXPECT_EQ(s.wrong.load(), 0);
        EXPECT_EQ(s.violations.load(), 0);

        for (int i = 0; i < kFiles; ++i) {
            Zn::Ptr<FileReadInstance> file = s.file(i);
            auto& video = file->getVideoQueue();
            // Requests nobody wants are dropped as the thread reaches them.
            EXPECT_TRUE(eventually([&] { return video->pendingCount() == 0; }));
            file->limitUsage();
            EXPECT_EQ(video->inProgressCount(), 0u);
            if (auto& audio = file->getAudioQueue()) {
                EXPECT_TRUE(eventually([&] { return audio->pendingCount() == 0; }));
            }
            file->purge();
        }
    }
    // Replaced instances whose last requests finished after they were purged are let go by
    // their queue's next idle poll: every instance is destroyed.
    EXPECT_TRUE(eventually([&] { return FrameFileReader::alive.load() == aliveBefore; }));
}
