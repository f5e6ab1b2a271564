// ReaderChoice::open with real readers in the registry: readers that throw are skipped,
// a file is reopened once with the first reader that serves all of the access asked
// for, what only the first reader found is kept, and the lines logged on the way.
#include "CacheTestSupport.h"

#include "playfile/open/ReaderChoice.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace cache_test;

namespace {

struct OpenRead : ::testing::Test {
    testing_support::TempDir dir;
    std::string path = writeFrameFile(dir, "clip.frames", FrameFileLayout());
    WString name = wide(path);
    testing_support::LogCapture log;
};

} // namespace

TEST_F(OpenRead, AReaderThatThrowsIsSkippedAndTheNextOneOpens) {
    auto thrower = Zn::makePtr<FramePlugin>("thrower");
    thrower->throws = true;
    auto good = Zn::makePtr<FramePlugin>("good");
    Registered r{thrower, good};
    EXPECT_TRUE(ReaderChoice::open(name, DecodeFormat(1), OpenType::kVideo, 0));
    EXPECT_EQ(log.count("Exception opening \"" + path + "\"\n"), 1u);
    EXPECT_EQ(log.count("Open \"" + path + "\" with good for video\n"), 1u);
}

TEST_F(OpenRead, AudioFromAVideoReaderIsReopenedOnceWithTheFirstAudioReaderKeepingWhatTheFirstFound) {
    auto video = Zn::makePtr<FramePlugin>("video", OpenType::kVideo);
    video->tweak = [](PlayFileMetadataRep& m) {
        m.setLabel(L"reel 7");
        m.setFrameSizes({100, 400});
    };
    auto audio = Zn::makePtr<FramePlugin>("audio", OpenType::kAudio);
    audio->tweak = [](PlayFileMetadataRep& m) { m.setFrameSizes({0, 250}); };
    auto later = Zn::makePtr<FramePlugin>("later", OpenType::kAudio);
    Registered r{video, audio, later};

    // Stream 5 does not exist: the readers are asked with default stream metadata.
    Zn::Ptr<FileReadInstance> file = ReaderChoice::open(name, DecodeFormat(1), OpenType::kAudio, 5);
    ASSERT_TRUE(file);
    EXPECT_TRUE(video->sawDefaultStream.load());
    EXPECT_EQ(file->getCapabilities(), uint32_t(OpenType::kAudio));
    EXPECT_TRUE(file->getAudioQueue());
    EXPECT_EQ(video->opens.load() + audio->opens.load() + later->opens.load(), 2);
    EXPECT_EQ(log.count("reopen %\"" + path + "\" with audio for audio\n"), 1u);
    EXPECT_EQ(log.count("Open \"" + path + "\" with audio for audio\n"), 1u);
    EXPECT_EQ(file->getMetadata()->getLabel(), WString(L"reel 7"));
    EXPECT_EQ(file->getMetadata()->getFrameSizes(), (FrameSizes{100, 400}));
}

TEST_F(OpenRead, AFailedReopenKeepsTheFirstInstanceAndNoReaderAtAllGivesNull) {
    auto video = Zn::makePtr<FramePlugin>("video", OpenType::kVideo);
    auto audio = Zn::makePtr<FramePlugin>("audio", OpenType::kAudio);
    audio->fails = true;
    {
        Registered r{video, audio};
        Zn::Ptr<FileReadInstance> file = ReaderChoice::open(name, DecodeFormat(1), OpenType::kAudio, 0);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->getCapabilities(), uint32_t(OpenType::kVideo));
        EXPECT_EQ(log.count("PlayUtil::openRead() : failed to open \"" + path + "\"\n"), 1u);
    }
    log.clear();
    EXPECT_FALSE(ReaderChoice::open(name, DecodeFormat(1), OpenType::kVideo, 0));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"PlayUtil::openRead() : failed to open \"" + path + "\"\n"});
}
