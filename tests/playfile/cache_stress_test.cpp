// The cache under load and at its limits: eight threads read frames and audio of twelve
// clips through a cache of at most four idle files, while some of them trim, purge and
// close files, for a few seconds; and five hundred clips played one after another with a
// low limit on open descriptors, every descriptor of a media file released on close.
#include "CacheTestSupport.h"

#include "host/os/Log.h"
#include "playfile/EntryPoints.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/VideoReadRequest.h"
#include "support/Threads.h"

#include <gtest/gtest.h>

#include <random>
#include <sys/resource.h>

using namespace cache_test;

namespace {

// Open descriptors of this process whose target is a frame file.
int mediaDescriptors() {
    int n = 0;
    std::error_code ec;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        std::string target = std::filesystem::read_symlink(fd.path(), ec).string();
        n += !ec && target.ends_with(".frames");
    }
    return n;
}

} // namespace

using CacheStress = ClipTest;

TEST_F(CacheStress, EightThreadsReadTwelveClipsThroughFourIdleFiles) {
    constexpr int kThreads = 8, kClips = 12;
    constexpr uint32_t kFrames = 24, kSamples = 4800;
    std::vector<Cookie> clips;
    for (int i = 0; i < kClips; ++i) clips.push_back(clip("s" + std::to_string(i), layout(kFrames, 2, kSamples), 2));
    PlayFileCache cache(2, 4);
    // Tens of thousands of opens each log a line; the log file keeps them.
    Logging::setConsole(false);
    std::atomic<bool> stop{false};
    std::atomic<long> reads{0}, wrong{0}, lost{0};

    auto work = [&](unsigned seed) {
        std::mt19937 rng(seed);
        while (!stop.load()) {
            const Cookie& c = clips[rng() % kClips];
            RecordingIssuer w;
            unsigned pick = rng() % 100;
            if (pick < 45) {
                // Frame kFrames is past the end: refused, nothing queued.
                int frame = int(rng() % (kFrames + 1));
                Zn::Ptr<VideoReadRequest> r;
                int rc = cache.videoReadRequest(r, video(c), frame, false, kResultDecoded, DecodeFormat(1), w.getProxy());
                if (rc != (frame < int(kFrames) ? PlayFileCache::kVideoQueued : PlayFileCache::kNotAvailable)) ++wrong;
                else if (rc != PlayFileCache::kVideoQueued) continue;
                else if (!w.waitForCalls(1, std::chrono::seconds(20))) ++lost;
                else if (w.status() != RequestStatus::Complete || w.buffer()->getSurface(0).plane(0)[5] != pixelOf(frame, 5, 0)) ++wrong;
            } else if (pick < 95) {
                unsigned channel = 1 + rng() % 2;
                uint64_t start = rng() % kSamples;
                Zn::Ptr<AudioReadRequest> r;
                if (cache.audioReadRequest(r, sound(c, channel), start, 1 + rng() % 64, kProxyLevelHighRes,
                                           w.getProxy(), true) != PlayFileCache::kAudioCreated) ++wrong;
                else if (!r->getFile()->queueReadRequest(r, false) || !w.waitForCalls(1, std::chrono::seconds(20))) ++lost;
                else if (w.status() != RequestStatus::Complete ||
                         reinterpret_cast<const int16_t*>(r->getBuffer())[0] != sampleOf(start, channel - 1))
                    ++wrong;
            } else if (pick < 97) {
                cache.purge();
            } else if (pick < 99) {
                cache.limitUsage();
            } else {
                cache.close(c, kMediaAll);
            }
            ++reads;
        }
    };
    testing_support::inThreads(kThreads + 1, [&](int i) {
        if (i < kThreads) work(17u + i);
        else std::this_thread::sleep_for(std::chrono::milliseconds(2500)), stop = true; // the clock
    });
    Logging::setConsole(true);

    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(lost.load(), 0);
    EXPECT_GT(reads.load(), 100);
    EXPECT_GT(cache.statistics().evictions, 0u);
    EXPECT_EQ(cache.statistics().failedOpens, 0u);
    std::printf("%ld reads\n%s", reads.load(), cache.statisticsReport().c_str());
    // Idle files go back to the limits.
    EXPECT_TRUE(eventually([&] {
        cache.limitUsage(cache.getMaxSize());
        return cache.openFileCount() <= cache.getMaxSize();
    }));
    EXPECT_TRUE(eventually([&] {
        cache.limitUsage();
        return cache.openFileCount() <= cache.getMinSize();
    }));
    cache.closeAll();
    EXPECT_TRUE(eventually([] { return FrameFileReader::alive.load() == 0; }));
}

TEST_F(CacheStress, FiveHundredClipsPlayWithALowDescriptorLimitAndCloseReleasesEveryFile) {
    std::vector<Cookie> clips;
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(clips.emplace_back(clip("h" + std::to_string(i), layout(2))).valid());

    struct Limit {
        Limit() {
            getrlimit(RLIMIT_NOFILE, &saved);
            rlimit low = saved;
            low.rlim_cur = std::min<rlim_t>(256, saved.rlim_cur);
            setrlimit(RLIMIT_NOFILE, &low);
        }
        ~Limit() { setrlimit(RLIMIT_NOFILE, &saved); }
        rlimit saved;
    } limit;

    PlayFileCache& cache = PlayFileCache::Shared();
    playfile_close_all_files();
    int most = 0;
    for (size_t i = 0; i < clips.size(); ++i) {
        RecordingIssuer w;
        Zn::Ptr<VideoReadRequest> r;
        ASSERT_EQ(cache.videoReadRequest(r, video(clips[i]), 1, false, kResultDecoded, DecodeFormat(1), w.getProxy()),
                  PlayFileCache::kVideoQueued)
            << "clip " << i;
        ASSERT_TRUE(w.waitForCalls(1));
        ASSERT_EQ(w.status(), RequestStatus::Complete);
        if (i % 25 == 0) most = std::max(most, mediaDescriptors());
    }
    EXPECT_LE(most, int(cache.getMaxSize()) + 2);
    EXPECT_EQ(cache.statistics().failedOpens, 0u);
    playfile_close_all_files();
    EXPECT_TRUE(eventually([] { return mediaDescriptors() == 0; }));
}
