// The play file cache by file name, with real readers in the registry: failures
// remembered until reOpen or a product change, eviction of the least recently used idle
// file only, files held by requests surviving purge, one open per file however many
// threads ask, different files opened in parallel, and limits fixed at first use.
#include "CacheTestSupport.h"

#include "host/os/Config.h"
#include "host/os/Product.h"
#include "playfile/requests/VideoReadRequest.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace cache_test;

namespace {

struct Cache : ::testing::Test {
    WString file(const std::string& name) { return wide(writeFrameFile(dir, name, FrameFileLayout())); }
    Zn::Ptr<FileReadInstance> open(const WString& name, OpenType type = OpenType::kVideo) {
        return cache.open(name, Cookie(), DecodeFormat(1), type, 0);
    }
    // The names reportUsage lists, in its order.
    std::vector<std::string> listed() {
        testing_support::LogCapture log;
        cache.reportUsage();
        std::vector<std::string> lines = log.lines();
        return std::vector<std::string>(lines.begin() + std::min<size_t>(2, lines.size()), lines.end());
    }
    std::string line(const WString& name) { return "      " + toUTF8(name).str() + "\n"; }

    testing_support::TempDir dir;
    Zn::Ptr<FramePlugin> plugin = Zn::makePtr<FramePlugin>("frames");
    Registered registered{plugin};
    PlayFileCache cache{2, 4};
};

} // namespace

TEST_F(Cache, AFailedFileIsNotTriedAgainUntilReOpenOrAProductChange) {
    testing_support::LogCapture log;
    WString name = file("bad.frames");
    plugin->fails = true;
    EXPECT_FALSE(open(name));
    EXPECT_FALSE(open(name));
    EXPECT_EQ(plugin->opens.load(), 1);
    EXPECT_EQ(log.count("Failed to open " + toUTF8(name).str() + "\n"), 1u);
    EXPECT_TRUE(cache.isCorrupt(name, OpenType::kVideo));
    EXPECT_FALSE(cache.isCorrupt(name, OpenType::kVideoAndAudio));

    plugin->fails = false;
    cache.closeAll(); // keeps the failure
    EXPECT_FALSE(open(name));
    cache.reOpen(name);
    EXPECT_TRUE(open(name));
    EXPECT_EQ(plugin->opens.load(), 2);

    plugin->fails = true;
    EXPECT_FALSE(open(name, OpenType::kAudio));
    plugin->fails = false;
    EXPECT_FALSE(open(name, OpenType::kAudio));
    Zn::setProduct(WString(L"product ") + Zn::WStringFromInteger(getpid()));
    EXPECT_TRUE(open(name, OpenType::kAudio));

    // A file that is not there is not a failure of the file.
    EXPECT_FALSE(open(wide(dir.file("missing.frames"))));
    EXPECT_EQ(cache.failedOpenCount(), 0u);
}

TEST_F(Cache, IdleFilesAreClosedLeastRecentlyUsedFirstAndFilesInUseNever) {
    std::vector<WString> names;
    for (int i = 0; i < 6; ++i) names.push_back(file("f" + std::to_string(i) + ".frames"));
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(open(names[i]));
    EXPECT_EQ(cache.openFileCount(), 5u); // trimmed to 4 before the fifth was added
    EXPECT_TRUE(open(names[0]));          // used again: f1 is now the oldest
    Zn::Ptr<FileReadInstance> held = open(names[1]);
    held->setLastUse(0); // and stays the oldest while in use

    EXPECT_TRUE(open(names[5]));
    EXPECT_EQ(listed(), (std::vector<std::string>{line(names[0]), line(names[1]), line(names[3]), line(names[4]),
                                                  line(names[5])}));
    EXPECT_EQ(cache.statistics().evictions, 1u);
    cache.purge();
    EXPECT_EQ(listed(), std::vector<std::string>{line(names[1])});
}

TEST_F(Cache, OfIdleFilesUsedEquallyLongAgoTheFirstInKeyOrderGoes) {
    WString a = file("a.frames"), b = file("b.frames");
    open(b)->setLastUse(7);
    open(a, OpenType::kAudio)->setLastUse(7);
    open(a, OpenType::kVideo)->setLastUse(7);
    EXPECT_TRUE(cache.removeOldestEntry());
    EXPECT_EQ(cache.openFileCount(), 2u);
    testing_support::LogCapture log;
    cache.reportUsage();
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"PlayFileCache\n\n", "   2 files open\n", line(a), line(b)}));
    // (a, audio) stayed: (a, video) came first in key order.
    EXPECT_EQ(open(a, OpenType::kAudio)->getOpenType(), OpenType(OpenType::kAudio));
    EXPECT_EQ(plugin->opens.load(), 3);
}

TEST_F(Cache, AFileHeldByAPendingRequestIsNotClosedEvenByPurge) {
    Zn::Ptr<FileReadInstance> file = open(this->file("busy.frames"));
    auto* reader = static_cast<FrameFileReader*>(file.get());
    reader->gate.close();
    RecordingIssuer issuer;
    Zn::Ptr<IndexInfoRep> none;
    auto request = Zn::makePtr<VideoReadRequest>(file, none, 2u, kResultDecoded, DecodeFormat(1), issuer.getProxy());
    file->queueReadRequest(request, false);
    ASSERT_TRUE(reader->gate.waitForWaiters(1));
    file.reset();
    cache.purge();
    EXPECT_EQ(cache.openFileCount(), 1u);
    reader->gate.open();
    ASSERT_TRUE(issuer.waitForCalls(1));
    EXPECT_EQ(issuer.status(), RequestStatus::Complete);
    request.reset();
    EXPECT_TRUE(eventually([&] {
        ReclaimableRegistry::purgeAll(); // as the host does under memory pressure
        return cache.openFileCount() == 0;
    }));
}

TEST_F(Cache, AFileIsOpenedOnceHoweverManyThreadsAskAndDifferentFilesOpenInParallel) {
    WString shared = file("shared.frames");
    plugin->gate.close();
    std::vector<Zn::Ptr<FileReadInstance>> got(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([&, i] { got[i] = open(shared); });
    ASSERT_TRUE(plugin->gate.waitForWaiters(1));
    while (cache.statistics().misses < 8) std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // let them reach the access queue
    plugin->gate.open();
    for (auto& t : threads) t.join();
    EXPECT_EQ(plugin->opens.load(), 1);
    for (auto& f : got) EXPECT_TRUE(f && f == got[0]);
    EXPECT_GT(cache.statistics().accessWaitNs, 0u);

    threads.clear();
    plugin->gate.close();
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, name = file("p" + std::to_string(i) + ".frames")] { EXPECT_TRUE(open(name)); });
    EXPECT_TRUE(plugin->gate.waitForWaiters(3)); // three opens under way at once
    plugin->gate.open();
    for (auto& t : threads) t.join();
    EXPECT_EQ(plugin->opens.load(), 4);
}

TEST(CacheLimits, AValueChangedAfterTheFirstUseOfTheSharedCacheIsNotSeen) {
    const unsigned max = PlayFileCache::Shared().getMaxSize();
    setConfigValue("playfileCacheSizeMax", int(max) + 5);
    EXPECT_EQ(PlayFileCache::Shared().getMaxSize(), max);
    clearConfigValue("playfileCacheSizeMax");
}
