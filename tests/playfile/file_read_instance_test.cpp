// File read instances: the queues an open type gets and gives back through the pools,
// instances without one of the queues, the defaults a back-end inherits, the reader
// registry, and the pools at shutdown.
#include "CacheTestSupport.h"

#include "host/media/AudioResult.h"
#include "host/media/FileReaderInfo.h"
#include "host/media/FileWriterInfo.h"
#include "host/tasks/Logger.h"
#include "host/threads/Shutdown.h"
#include "playfile/requests/AudioReadQueue.h"
#include "playfile/requests/QueuePool.h"
#include "playfile/requests/VideoReadQueue.h"

#include <gtest/gtest.h>

#include <type_traits>

using namespace cache_test;

namespace {

// Empties a pool's idle list for a test and gives the queues back afterwards.
template <class T> struct ParkedPool {
    ParkedPool() {
        while (Pool<T>::instance().idleCount()) parked_.push_back(Pool<T>::take());
    }
    ~ParkedPool() {
        for (auto& q : parked_) Pool<T>::giveBack(std::move(q));
    }

private:
    std::vector<Zn::Ptr<T>> parked_;
};

} // namespace

struct ReadInstance : ::testing::Test { testing_support::TempDir dir; };

TEST_F(ReadInstance, ClosingAFileReturnsItsQueuesAndTheNextOpenTakesThem) {
    ParkedPool<Zn::VideoReadQueue> videoPool;
    ParkedPool<Zn::AudioReadQueue> audioPool;
    const FrameFileLayout layout = cache_test::layout(64, 2, 64);
    std::string path = writeFrameFile(dir, "both.frames", layout);

    auto first = Zn::makePtr<FrameFileReader>(path, DecodeFormat(1), OpenType::kVideoAndAudio, layout);
    Zn::VideoReadQueue* video = first->getVideoQueue().get();
    Zn::AudioReadQueue* audio = first->getAudioQueue().get();
    ASSERT_TRUE(video && audio);
    EXPECT_EQ(Pool<Zn::VideoReadQueue>::instance().idleCount(), 0u);
    first.reset();
    EXPECT_EQ(Pool<Zn::VideoReadQueue>::instance().idleCount(), 1u);
    EXPECT_EQ(Pool<Zn::AudioReadQueue>::instance().idleCount(), 1u);

    auto second = Zn::makePtr<FrameFileReader>(path, DecodeFormat(1), OpenType::kVideoAndAudio, layout);
    EXPECT_EQ(second->getVideoQueue().get(), video);
    EXPECT_EQ(second->getAudioQueue().get(), audio);
}

TEST_F(ReadInstance, AnInstanceWithoutAQueueFailsRequestsOfThatKindAndNothingElse) {
    OpenFile audioOnly(dir, "audio.frames", cache_test::layout(64, 1, 64), OpenType::kAudio);
    EXPECT_FALSE(audioOnly.file->getVideoQueue());
    EXPECT_TRUE(audioOnly.file->getAudioQueue());
    audioOnly.file->purge();
    audioOnly.file->limitUsage();
    RecordingIssuer v;
    auto frame = audioOnly.request(1, &v);
    EXPECT_FALSE(audioOnly.file->queueReadRequest(frame, false));
    EXPECT_EQ(frame->getStatus(), RequestStatus::Failed);
    EXPECT_EQ(v.calls(), 1);
    EXPECT_EQ(audioOnly.reader->reads.load(), 0);

    OpenFile videoOnly(dir, "video.frames");
    EXPECT_FALSE(videoOnly.file->getAudioQueue());
    RecordingIssuer a;
    auto samples = videoOnly.audio(0, 0, 0, 8, &a);
    EXPECT_FALSE(videoOnly.file->queueReadRequest(samples, false));
    EXPECT_EQ(samples->getStatus(), RequestStatus::Failed);
    EXPECT_EQ(a.calls(), 1);
}

namespace {

struct OptionsReader : FrameFileReader {
    using FrameFileReader::FrameFileReader;
    configb getDecodeOptionValues() override {
        configb defaults;
        defaults.set("debayer", "fast");
        defaults.set("gamma", "2.2");
        return defaults;
    }
    void setDecodeOptionValues(const configb& values) override { applied = values; }
    configb applied;
};

} // namespace

TEST_F(ReadInstance, DefaultsAndStoredDecodeOptionsMerge) {
    OpenFile plain(dir, "plain.frames");
    EXPECT_TRUE(plain.file->initDecodeOptionValues(configb::fromText("gamma=1.0")).empty()); // offers none

    auto reader = Zn::makePtr<OptionsReader>(plain.path, DecodeFormat(1), OpenType::kVideo, plain.layout);
    configb stored;
    stored.set("gamma", "1.8");
    stored.set("unknown", "1"); // the back-end does not offer it: dropped
    configb merged = reader->initDecodeOptionValues(stored);
    EXPECT_EQ(merged.toText(), "debayer=fast\ngamma=1.8\n");
    EXPECT_EQ(reader->applied, merged);
}

namespace {

// A back-end that supplies nothing but its name.
struct BareReader : FileReadInstance {
    using FileReadInstance::FileReadInstance;
    String getReaderName() const override { return "bare"; }
};

} // namespace

TEST_F(ReadInstance, ABackEndThatReadsAndExtractsNothingAnswersTheBaseResultsByTheirNumbers) {
    OpenFile plain(dir, "plain.frames");
    auto bare = Zn::makePtr<BareReader>(fromUTF8(plain.path.c_str()), DecodeFormat(1), OpenType(OpenType::kVideo));
    Zn::Ptr<FrameBufferRep> buffer(new FrameBufferRep());
    Zn::Ptr<FileReadInstance> file(bare);
    Zn::Ptr<IndexInfoRep> none;
    auto request = Zn::makePtr<VideoReadRequest>(file, none, 0u, kResultDecoded, DecodeFormat(1), nullptr);
    const auto read = bare->readVideo(buffer, request);
    LoggerHandle log;
    const auto extracted =
        bare->extractFiles(L"/nowhere", L"x", Cookie(), OpenType(OpenType::kVideo), Zn::FileWriterParams(), log);
    bare->readVideo(request);
    // The numbers are what callers store, log and compare; the families stay apart.
    EXPECT_EQ(read, FileReadInstance::kReadFailed);
    EXPECT_EQ(int(read), 3);
    EXPECT_EQ(extracted, FileReadInstance::kExtractNotSupported);
    EXPECT_EQ(int(extracted), 2005);
    EXPECT_EQ(request->getStatus(), RequestStatus::Failed);
    EXPECT_EQ(int(request->getStatus()), 3);
    static_assert(!std::is_convertible_v<FileReadInstance::eReadResult, int>);
    static_assert(!std::is_convertible_v<Zn::eAudioResult, FileReadInstance::eReadResult>);
    static_assert(int(Zn::eAudioResult::kEndedEarly) == 11 && int(FileReadInstance::kReadPending) == 1);
}

TEST(FileReaderInfo, AReaderRegisteredAtAPositionIsFoundThereAndUnregistersOnce) {
    Registered last{Zn::makePtr<FramePlugin>("last")};
    Zn::Ptr<Zn::iFileReader> first(Zn::makePtr<FramePlugin>("first"));
    Zn::FileReaderInfo::registerFileReader(first, 0);
    ASSERT_EQ(Zn::FileReaderInfo::getFileReaders(0).get(), first.get());
    EXPECT_EQ(Zn::FileReaderInfo::getFileReaders(1)->name(), "last");
    EXPECT_TRUE(Zn::FileReaderInfo::unregisterFileReader(first));
    EXPECT_FALSE(Zn::FileReaderInfo::unregisterFileReader(first));
}

TEST(FileReadInstanceDeathTest, AtShutdownThePoolsReleaseIdleQueuesAndStopTakingThemBack) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            testing_support::TempDir dir;
            std::string path = writeFrameFile(dir, "late.frames", FrameFileLayout{});
            auto early = Zn::makePtr<FrameFileReader>(path, DecodeFormat(1), OpenType::kVideo, FrameFileLayout{});
            early.reset(); // its queue is idle now
            auto late = Zn::makePtr<FrameFileReader>(path, DecodeFormat(1), OpenType::kVideo, FrameFileLayout{});
            Shutdown::run(Shutdown::eNormalExit);
            auto& pool = Pool<Zn::VideoReadQueue>::instance();
            bool ok = !pool.isActive() && pool.idleCount() == 0;
            Zn::Ptr<Zn::VideoReadQueue> queue = late->getVideoQueue();
            late.reset(); // not taken back: only this test still holds the queue
            ok = ok && queue.refCount() == 1 && pool.idleCount() == 0;
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
