// Deleting and renaming a clip's material close its files in the play file cache first,
// so that no reader keeps a deleted or moved file open.
#include "CacheTestSupport.h"

#include "playfile/open/FileReadInstance.h"
#include "playfile/open/PlayUtil.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace cache_test;

TEST_F(ClipTest, DeletingAndRenamingCloseTheFilesInTheCacheFirst) {
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
}
