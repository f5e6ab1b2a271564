// File read instances: the queues an open type gets and gives back through the pools,
// instances without one of the queues, the defaults a back-end inherits, the reader
// registry, and the pools at shutdown.
#include "FrameFileReader.h"

#include "host/media/FileReaderInfo.h"
#include "host/threads/Shutdown.h"
#include "playfile/requests/AudioReadQueue.h"
#include "playfile/requests/QueuePool.h"
#include "playfile/requests/VideoReadQueue.h"

#include <gtest/gtest.h>

using namespace test_backend;

namespace {

// Empties a pool's idle list for a test and gives the queues back afterwards.
template <class T> class ParkedPool {
public:
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

TEST(FileReadInstance, ClosingAFileReturnsItsQueuesAndTheNextOpenTakesThem) {
    testing_support::TempDir dir;
    ParkedPool<Zn::VideoReadQueue> videoPool;
    ParkedPool<Zn::AudioReadQueue> audioPool;
    FrameFileLayout layout;
    layout.audioChannels = 2;
    layout.audioSamples = 64;
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
    EXPECT_EQ(Pool<Zn::VideoReadQueue>::instance().idleCount(), 0u);

    // The recycled queues work for the new file.
    RecordingIssuer v, a;
    Zn::Ptr<FileReadInstance> file(second);
    Zn::Ptr<IndexInfoRep> none;
    auto frame = Zn::makePtr<VideoReadRequest>(file, none, 3, kResultDecoded, DecodeFormat(1), v.getProxy());
    file->queueReadRequest(frame, false);
    AudioRequest ar;
    ar.count = 8;
    auto samples = Zn::makePtr<AudioReadRequest>(file, ar, 1, a.getProxy());
    file->queueReadRequest(samples, false);
    ASSERT_TRUE(v.waitForCalls(1));
    ASSERT_TRUE(a.waitForCalls(1));
    EXPECT_EQ(v.buffer()->getSurface(0).plane(0)[0], pixelOf(3, 0, 0));
    file->purge();
}

TEST(FileReadInstance, AnInstanceWithoutAQueueFailsRequestsOfThatKindAndNothingElse) {
    testing_support::TempDir dir;
    FrameFileLayout layout;
    layout.audioChannels = 1;
    layout.audioSamples = 64;
    OpenFile audioOnly(dir, "audio.frames", layout, OpenType::kAudio);
    EXPECT_FALSE(audioOnly.file->getVideoQueue());
    EXPECT_TRUE(audioOnly.file->getAudioQueue());
    audioOnly.file->purge();
    audioOnly.file->limitUsage();
    RecordingIssuer v;
    auto frame = audioOnly.request(1, &v);
    EXPECT_FALSE(audioOnly.file->queueReadRequest(frame, false));
    EXPECT_EQ(frame->getStatus(), Failed);
    EXPECT_EQ(v.calls(), 1);
    EXPECT_EQ(audioOnly.reader->reads.load(), 0);

    OpenFile videoOnly(dir, "video.frames");
    EXPECT_FALSE(videoOnly.file->getAudioQueue());
    RecordingIssuer a;
    auto samples = videoOnly.audio(0, 0, 0, 8, &a);
    EXPECT_FALSE(videoOnly.file->queueReadRequest(samples, false));
    EXPECT_EQ(samples->getStatus(), Failed);
    EXPECT_EQ(a.calls(), 1);
}

namespace {

class OptionsReader : public FrameFileReader {
public:
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

TEST(FileReadInstance, DefaultsAndStoredDecodeOptionsMerge) {
    testing_support::TempDir dir;
    OpenFile plain(dir, "plain.frames");
    EXPECT_TRUE(plain.file->getDecodeOptions(plain.file).empty());
    EXPECT_TRUE(plain.file->initDecodeOptionValues(configb::fromText("gamma=1.0")).empty());
    EXPECT_EQ(plain.file->getLastUse(), UINT64_MAX);

    auto reader = Zn::makePtr<OptionsReader>(plain.path, DecodeFormat(1), OpenType::kVideo, plain.layout);
    configb stored;
    stored.set("gamma", "1.8");
    stored.set("unknown", "1"); // the back-end does not offer it: dropped
    configb merged = reader->initDecodeOptionValues(stored);
    EXPECT_EQ(merged.toText(), "debayer=fast\ngamma=1.8\n");
    EXPECT_EQ(reader->applied, merged);
}

namespace {

// Opens ".frames" files for video, as a registered back-end would.
class FrameFileOpener : public Zn::iFileReader {
public:
    String name() const override { return "frames"; }
    bool accepts(const WString& fileName, OpenType type) override {
        return fileName.endsWith(L".frames") && !type.hasAudio();
    }
    Zn::Ptr<FileReadInstance> open(const DecodeFormat& format, const WString& fileName, OpenType type) override {
        std::string path(fileName.begin(), fileName.end());
        return Zn::makePtr<FrameFileReader>(path, format, type, FrameFileLayout{});
    }
    unsigned capabilities(const DecodeFormat&, OpenType, const PlayFileMetadataRep&, const Aud::Metadata&,
                          Zn::ReaderDetails&) override {
        return OpenType::kVideo;
    }
};

} // namespace

TEST(FileReaderInfo, RegisteredReadersAreFoundInOrderAndOpenFiles) {
    testing_support::TempDir dir;
    std::string path = writeFrameFile(dir, "reg.frames", FrameFileLayout{});
    Zn::Ptr<Zn::iFileReader> opener(new FrameFileOpener);
    Zn::FileReaderInfo::registerFileReader(opener, 0);
    ASSERT_EQ(Zn::FileReaderInfo::getFileReaders(0).get(), opener.get());

    Zn::Ptr<FileReadInstance> file;
    for (unsigned i = 0; i < Zn::FileReaderInfo::getNumFileReaders() && !file; ++i) {
        Zn::Ptr<Zn::iFileReader> r = Zn::FileReaderInfo::getFileReaders(uint8_t(i));
        if (r->accepts(wide(path), OpenType::kVideo)) file = r->open(DecodeFormat(1), wide(path), OpenType::kVideo);
    }
    ASSERT_TRUE(file);
    EXPECT_EQ(file->getReaderName(), "frames");
    EXPECT_TRUE(Zn::FileReaderInfo::unregisterFileReader(opener));
    EXPECT_FALSE(Zn::FileReaderInfo::unregisterFileReader(opener));
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
