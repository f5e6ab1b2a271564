// The cache as the host uses it, by the clips of a real project: frame and audio reads
// counted from the material's start, channels mapped onto audio streams, reads past the
// ends, closing a clip's files, the entry points, pre-opening, the small PlayUtil
// questions about a clip's media, and deleting and renaming a clip's material (which
// close its files first, so that no reader keeps a deleted or moved file open).
#include "CacheTestSupport.h"

#include "host/media/AudioMetadata.h"
#include "host/project/MaterialInfo.h"
#include "playfile/EntryPoints.h"
#include "playfile/open/PlayUtil.h"
#include "playfile/requests/AudioReadRequest.h"
#include "playfile/requests/PreOpen.h"
#include "playfile/requests/VideoReadRequest.h"
#include "support/LogCapture.h"

#include <gtest/gtest.h>

using namespace cache_test;

namespace {

struct Clips : ClipTest {
    // Reads a frame through the cache; the first pixel of the frame read, or -1.
    int readFrame(PlayFileCache& cache, const Cookie& material, int frame, int* rc = nullptr) {
        RecordingIssuer issuer;
        Zn::Ptr<VideoReadRequest> request;
        int status = cache.videoReadRequest(request, material, frame, false, kResultDecoded, DecodeFormat(1),
                                            issuer.getProxy());
        if (rc) *rc = status;
        if (status != PlayFileCache::kVideoQueued || !issuer.waitForCalls(1) || issuer.status() != RequestStatus::Complete) return -1;
        return issuer.buffer()->getSurface(0).plane(0)[0];
    }
};

} // namespace

TEST_F(Clips, FramesCountFromTheMaterialStartAndReadsOutsideTheFileAreRefused) {
    Cookie moving = clip("moving", layout(10)), still = clip("still", layout(1));
    ASSERT_TRUE(MaterialInfo::set_start_offset(video(moving), 6)); // fields: 3 frames
    PlayFileCache cache(2, 4);
    EXPECT_EQ(readFrame(cache, video(moving), 2), pixelOf(5, 0, 0));
    for (int outside : {-4, 7}) { // frame 7 is the file's frame 10 of 10
        int rc = 0;
        EXPECT_EQ(readFrame(cache, video(moving), outside, &rc), -1);
        EXPECT_EQ(rc, PlayFileCache::kNotAvailable) << outside;
    }
    EXPECT_EQ(readFrame(cache, video(still), 25), pixelOf(0, 0, 0));
    EXPECT_EQ(cache.getSampleCount(video(moving)), 10u);
}

TEST_F(Clips, AudioChannelsMapOntoTheStreamsAndReadsStopAtTheEndOfTheFile) {
    FrameFileLayout streams = layout(4, 2, 1000);
    streams.extraStreamChannels = {3};
    Cookie c = clip("sound", streams, 5);
    ASSERT_TRUE(MaterialInfo::set_start_offset(sound(c, 1), 10)); // samples
    PlayFileCache cache(2, 4);
    Zn::Ptr<AudioReadRequest> request;
    auto ask = [&](int channel, uint64_t start, uint32_t count, bool noOffset = false) {
        return cache.audioReadRequest(request, sound(c, channel), start, count, kProxyLevelHighRes, nullptr, noOffset);
    };

    ASSERT_EQ(ask(4, 0, 100, true), PlayFileCache::kAudioCreated);
    EXPECT_EQ(std::pair(request->stream, request->channel), std::pair(1u, 1u));

    // (That the samples read are those of the request the stress test shows.)
    ASSERT_EQ(ask(1, 900, 200), PlayFileCache::kAudioCreated);
    EXPECT_EQ(std::pair(request->start, request->count), std::pair(uint64_t(910), 90u));
    EXPECT_EQ(cache.getSampleCount(sound(c, 1)), 1000u);

    testing_support::LogCapture log;
    EXPECT_EQ(ask(1, 990, 10), PlayFileCache::kAudioPastEnd);
    EXPECT_EQ(ask(0, 0, 10), PlayFileCache::kNotAvailable);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Audio Read request failed: The audio read starts past the end of the material\n",
                                        "Audio Read request failed: The material is not available for reading\n"}));
}

TEST(CodecFrames, ReadsOfCompressedAudioAreWidenedToWholeCodecFrames) {
    EXPECT_EQ(PlayFileCache::codecFrameReadLength(0, 4096, 1152), 9u * 4096);
    EXPECT_EQ(PlayFileCache::codecFrameReadLength(0, 4096, 960), 15u * 4096);
    EXPECT_EQ(PlayFileCache::codecFrameReadLength(0, 4096, 4099), 16u * 4096); // at most 16 blocks
    EXPECT_EQ(PlayFileCache::codecFrameReadLength(100, 1000, 1024), 1948u); // ends at 2048
    EXPECT_EQ(PlayFileCache::codecFrameReadLength(48, 1000, 1048), 1000u);  // ends on a boundary
}

TEST_F(Clips, ClosingAnEditClosesEveryChannelsFileAndTheLibraryReopensAfterExit) {
    Cookie c = clip("both", layout(8, 2, 100), 2);
    PlayFileCache& cache = PlayFileCache::Shared();
    playfile_close_all_files();
    ASSERT_TRUE(cache.open(video(c), DecodeFormat(1), 0));
    ASSERT_TRUE(cache.open(sound(c, 2), DecodeFormat(1), 0));
    EXPECT_EQ(cache.openFileCount(), 2u);
    playfile_close_files(convertCookie(c, 'E', Cookie::kNoIndex), kMediaHighRes);
    EXPECT_EQ(cache.openFileCount(), 0u);

    EXPECT_EQ(readFrame(cache, video(c), 3), pixelOf(3, 0, 0));
    playfile_exit();
    EXPECT_EQ(cache.openFileCount(), 0u);
    EXPECT_EQ(readFrame(cache, video(c), 4), pixelOf(4, 0, 0));
    EXPECT_EQ(plugin->opens.load(), 4);
    playfile_close_all_files();
}

TEST_F(Clips, PreOpeningLandsTheFileInTheCacheAndAnOpenFileAnswersAtOnce) {
    Cookie c = clip("early", layout(8)), gone = clip("gone", layout(8));
    std::filesystem::remove(tmp.path() / "gone.frames");
    ASSERT_TRUE(playfile_init());
    auto first = Zn::PreOpenRequest::create(video(c), DecodeFormat(1));
    auto missing = Zn::PreOpenRequest::create(video(gone), DecodeFormat(1));
    EXPECT_TRUE(eventually([&] { return first->isDone() && missing->isDone(); }));
    EXPECT_EQ(first->getState(), Zn::PreOpenRequest::kOpen);
    EXPECT_EQ(missing->getState(), Zn::PreOpenRequest::kFailed);
    EXPECT_EQ(PlayFileCache::Shared().isOpen(video(c), DecodeFormat(1)), first->getFile());

    auto again = Zn::PreOpenRequest::create(video(c), DecodeFormat(1));
    EXPECT_EQ(again->getState(), Zn::PreOpenRequest::kOpen);
    EXPECT_EQ(plugin->opens.load(), 1);
    first = again = nullptr;
    playfile_close_all_files();
}

TEST_F(Clips, AnImportedClipKeepsItsAudioMetadataAndItsSizeIsCounted) {
    Cookie c = clip("metadata", layout(2, 2, 50), 2);
    EXPECT_TRUE(PlayUtil::checkAudioMetadata(c));
    EditPtr edit;
    ASSERT_TRUE(edit.i_open(c));
    std::vector<Aud::Metadata> stored = Aud::metadataFromText(edit->getAudioMetadata());
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_EQ(stored[0], Aud::Metadata(48000, 2, 2, Aud::kSampleInt, 50));
    EXPECT_FALSE(PlayUtil::checkImageData(c, PlayFileMetadataRep(WString())));

    size_t total = 5;
    PlayUtil::get_total_size(video(c), &total);
    EXPECT_EQ(total, 5u + 16 * 8 * 2 + 50 * 2 * 2);
    playfile_close_all_files();
}

TEST_F(Clips, DeletingAndRenamingCloseTheFilesInTheCacheFirst) {
    PlayFileCache& cache = PlayFileCache::Shared();
    const Cookie doomed = clip("doomed", layout(4)), moved = clip("moved", layout(4));
    const Cookie renamed{moved.type(), moved.id1(), moved.id2() + 77, moved.index()};
    const std::string doomedPath = project_test::U(SystemCache::findFileForCookie(video(doomed)));
    const std::string movedPath = project_test::U(SystemCache::findFileForCookie(video(moved)));
    ASSERT_TRUE(cache.open(video(doomed), DecodeFormat(1), 0));
    ASSERT_TRUE(cache.open(video(moved), DecodeFormat(1), 0));
    const unsigned open = cache.openFileCount();

    // A reader still holding the instance keeps it alive, but the cache lets it go.
    Zn::Ptr<FileReadInstance> held = cache.isOpen(video(doomed), DecodeFormat(1));
    ASSERT_TRUE(held);
    EXPECT_EQ(PlayUtil::deletePlayFile(video(doomed), kMediaHighRes), 1);
    EXPECT_FALSE(cache.isOpen(video(doomed), DecodeFormat(1)));
    EXPECT_EQ(cache.openFileCount(), open - 1);
    EXPECT_FALSE(std::filesystem::exists(doomedPath));
    held = nullptr;

    // The frame file's name does not carry the clip's identifier: it stays where it is and
    // only its record moves, after the cache has closed it.
    EXPECT_EQ(cache.renameMediaFile(moved, renamed), 1);
    EXPECT_FALSE(cache.isOpen(video(moved), DecodeFormat(1)));
    EXPECT_EQ(cache.openFileCount(), open - 2);
    EXPECT_TRUE(std::filesystem::exists(movedPath));
    EXPECT_EQ(project_test::U(SystemCache::findFileForCookie(video(renamed))), movedPath);
    EXPECT_FALSE(SystemCache::fileExists(video(moved)));
    EXPECT_TRUE(cache.open(video(renamed), DecodeFormat(1), 0));
    playfile_close_all_files();
}
