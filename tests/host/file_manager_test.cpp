// PosixFileManager on real files: reading through iFile, descriptor release, folder and
// name operations, listing, and replacing the manager behind OS().
#include "host/os/OS.h"
#include "tests/host/file_test_support.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <sys/stat.h>

using namespace file_test;

TEST_F(PosixFiles, ReadsSequentiallyAndAtPositions) {
    writeFile(tmp.file("f"), "0123456789");
    EXPECT_EQ(fm.fileSize(W(tmp.file("f"))), 10);
    EXPECT_EQ(fm.fileSize(W(tmp.path())), -1);
    Zn::Ptr<iFile> f = fm.openForRead(W(tmp.file("f")));
    ASSERT_TRUE(f);
    char buf[16] = {};
    EXPECT_EQ(f->read(buf, 4), 4);
    EXPECT_EQ(f->readAt(8, buf + 4, 16), 2); // short at the end; current position untouched
    EXPECT_EQ(std::string(buf, 6), "012389");
    EXPECT_EQ(f->read(buf, 16), 6);
    EXPECT_EQ(f->read(buf, 16), 0);
    EXPECT_TRUE(f->seek(100));
    EXPECT_EQ(f->read(buf, 1), 0);

    std::ofstream(tmp.file("f"), std::ios::app) << "abc"; // a capture still being written
    EXPECT_EQ(f->size(), 13u);
    EXPECT_TRUE(f->seek(10));
    EXPECT_EQ(f->read(buf, 16), 3);

    ASSERT_EQ(mkfifo(tmp.file("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(fm.openForRead(W(tmp.file("pipe")))); // and does not hang
    EXPECT_FALSE(fm.openForRead(W(tmp.file("missing"))));
    EXPECT_FALSE(fm.openForRead(W(tmp.path())));
}

TEST_F(PosixFiles, DescriptorsAreReleasedWithTheLastReference) {
    writeFile(tmp.file("f"), "x");
    const int before = openDescriptorCount();
    {
        std::vector<Zn::Ptr<iFile>> files;
        for (int i = 0; i < 200; ++i)
            files.push_back(fm.openForRead(W(tmp.file("f"))));
        std::vector<Zn::Ptr<iFile>> copies = files;
        files.clear();
        EXPECT_EQ(openDescriptorCount(), before + 200); // the copies still hold them
    }
    EXPECT_EQ(openDescriptorCount(), before);
}

TEST_F(PosixFiles, RenameCreateAndDelete) {
    writeFile(tmp.file("new"), "new");
    writeFile(tmp.file("old"), "old");
    EXPECT_TRUE(fm.renameFile(W(tmp.file("new")), W(tmp.file("old"))));
    EXPECT_EQ(readFile(tmp.file("old")), "new");
    EXPECT_FALSE(fm.fileExists(W(tmp.file("new"))));
    EXPECT_FALSE(fm.renameFile(W(tmp.file("new")), W(tmp.file("other"))));

    EXPECT_TRUE(fm.createDirectory(W(tmp.file("a/b/c/"))));
    EXPECT_TRUE(fm.isDirectory(W(tmp.file("a/b/c"))));
    EXPECT_TRUE(fm.createDirectory(W(tmp.file("a/b"))));      // already there
    EXPECT_FALSE(fm.createDirectory(W(tmp.file("old/sub")))); // under a file

    EXPECT_FALSE(fm.deleteFile(W(tmp.file("a/b")))); // not empty
    EXPECT_TRUE(fm.deleteFile(W(tmp.file("a/b/c"))));
    EXPECT_TRUE(fm.deleteFile(W(tmp.file("old"))));
    EXPECT_FALSE(fm.deleteFile(W(tmp.file("old"))));
    EXPECT_FALSE(fm.fileExists(W(tmp.file("a/b/c"))));
    EXPECT_TRUE(fm.fileExists(W(tmp.file("a/b"))));
}

TEST_F(PosixFiles, RenameAcrossFileSystemsCopiesKeepsTimesAndRemovesTheSource) {
    std::string other = "/dev/shm/playfile-test-XXXXXX";
    struct stat here, there;
    if (stat("/dev/shm", &there) != 0 || stat(tmp.path().c_str(), &here) != 0 ||
        here.st_dev == there.st_dev || !mkdtemp(other.data()))
        GTEST_SKIP() << "no second file system at /dev/shm";
    std::shared_ptr<void> remove(nullptr, [&](void*) { std::filesystem::remove_all(other); });
    writeFile(tmp.file("clip.mov"), "moved");
    const auto past = std::filesystem::file_time_type(std::chrono::seconds(1200000000)) +
                      std::chrono::nanoseconds(500);
    std::filesystem::last_write_time(tmp.file("clip.mov"), past);
    EXPECT_TRUE(fm.renameFile(W(tmp.file("clip.mov")), W(other + "/clip.mov")));
    EXPECT_FALSE(fm.fileExists(W(tmp.file("clip.mov"))));
    EXPECT_EQ(readFile(other + "/clip.mov"), "moved");
    EXPECT_EQ(std::filesystem::last_write_time(other + "/clip.mov"), past);

    ASSERT_TRUE(fm.createDirectory(W(tmp.file("folder"))));
    EXPECT_FALSE(fm.renameFile(W(tmp.file("folder")), W(other + "/folder")));
    EXPECT_TRUE(fm.isDirectory(W(tmp.file("folder"))));
}

TEST_F(PosixFiles, ListsByPatternSortedWithNonAsciiNames) {
    const std::vector<std::string> names = {
        "clip one.mov", "cl\xC3\xADp two.MOV", "\xE6\x97\xA5\xE6\x9C\xAC.mov",
        ".hidden.mov",  "notes.txt",           "b.mov"};
    for (const std::string& n : names)
        writeFile(tmp.file(n), "x");
    ASSERT_TRUE(fm.createDirectory(W(tmp.file("folder.mov"))));

    EXPECT_EQ(
        fm.listDirectory(W(tmp.path()), L"*.mov"),
        (std::vector<WString>{L"b.mov", L"clip one.mov", L"folder.mov", L"\x65E5\x672C.mov"}));
    EXPECT_EQ(fm.listDirectory(W(tmp.path()), L"cl?p*"),
              (std::vector<WString>{L"clip one.mov", L"cl\xEDp two.MOV"}));
    EXPECT_EQ(fm.listDirectory(W(tmp.path()), L"").size(), names.size() + 1); // hidden too
    EXPECT_TRUE(fm.listDirectory(W(tmp.file("missing")), L"*").empty());
}

TEST(PosixFileManager, ScopedReplacementIsWhatOSAnswers) {
    EXPECT_EQ(OS()->fileManager(), defaultFileManager());
    PosixFileManager a, b;
    {
        ScopedFileManager outer(&a);
        {
            ScopedFileManager inner(&b);
            EXPECT_EQ(OS()->fileManager(), &b);
        }
        EXPECT_EQ(OS()->fileManager(), &a);
    }
    EXPECT_EQ(OS()->fileManager(), defaultFileManager());
}
