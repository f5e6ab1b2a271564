// Volume questions: the mount table parser, mount points, free space and I/O unit,
// mounted-volume names and remote locations (by configured prefix and by mount type).
#include "host/os/FileQueryScope.h"
#include "host/os/MountTable.h"
#include "host/os/MountWatch.h"
#include "tests/host/file_test_support.h"

#include <cstdlib>
#include <memory>
#include <cerrno>
#include <cstring>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

using namespace file_test;

namespace {
// Sets an environment variable until the answer is dropped.
std::shared_ptr<void> scopedEnv(const char* name, const std::string& value) {
    setenv(name, value.c_str(), 1);
    return std::shared_ptr<void>(nullptr, [name](void*) { unsetenv(name); });
}
} // namespace

TEST(MountTable, ParsesEscapesOptionalFieldsAndFindsTheHoldingMount) {
    const char* text = "22 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
                       "garbage line\n"
                       "30 22 0:40 / /media/my\\040card rw master:3 shared:9 - vfat /dev/sdb1 rw\n"
                       "31 22 0:41 / /media/my rw - tmpfs none rw\n"
                       "32 22 0:42 / /net/home rw - fuse.sshfs user@host:/home rw\n"
                       "33 22 0:43 / /net/home rw - nfs4 server:/home rw\n";
    MountTable t = MountTable::parse(text);
    ASSERT_EQ(t.entries().size(), 5u);
    EXPECT_EQ(t.entries()[1].device, makedev(0, 40));
    EXPECT_EQ(t.mountHolding("/media/my card/clip.mov")->mountPoint, "/media/my card");
    EXPECT_EQ(t.mountHolding("/media/my")->fsType, "tmpfs");
    EXPECT_EQ(t.mountHolding("/media/mystery")->mountPoint, "/"); // not under "/media/my"
    EXPECT_EQ(t.mountHolding("/net/home/a")->fsType, "nfs4");     // the later mount hides
    EXPECT_EQ(t.mountOfDevice(makedev(0, 42))->source, "user@host:/home");
    EXPECT_EQ(t.mountHolding("relative"), nullptr);
}

TEST(MountTable, ClassifiesNetworkMounts) {
    auto fuse = [](const char* type, const char* source) {
        return isNetworkFuse(MountEntry{0, "/m", type, source});
    };
    EXPECT_TRUE(fuse("fuse.sshfs", "user@host:") && fuse("fuse", "sshfs#u@h:/"));
    EXPECT_FALSE(fuse("fuseblk", "/dev/sdb1") || fuse("fuse.bindfs", "/srv") ||
                 fuse("fuse.sshfsx", "x"));
    EXPECT_FALSE(fuse("nfs", "server:/")); // network, but not FUSE
    EXPECT_TRUE(isNetworkFsMagic(0x6969) && isNetworkFsMagic(0xFF534D42));
    EXPECT_TRUE(isNetworkFsMagic((unsigned long)(long)(int32_t)0xFE534D42)); // sign-extended word
    EXPECT_FALSE(isNetworkFsMagic(0xEF53) || isNetworkFsMagic(kFuseSuperMagic));
}

TEST_F(PosixFiles, VolumeQuestionsAcceptPathsThatDoNotExistYet) {
    const WString missing = W(tmp.file("not/yet/clip.mov"));
    EXPECT_EQ(fm.volumeOf(L"/"), L"/");
    EXPECT_EQ(fm.volumeOf(missing), fm.volumeOf(W(tmp.path())));
    EXPECT_TRUE(fm.isDirectory(fm.volumeOf(missing)));
    EXPECT_EQ(fm.volumeStorageUnit(missing), fm.volumeStorageUnit(W(tmp.path())));
    EXPECT_GE(fm.volumeStorageUnit(missing), 512u);
    EXPECT_GT(fm.freeSpace(missing), 0);
    EXPECT_EQ(fm.freeSpace(WString()), -1);
}

TEST(PosixFileManager, MapsMountedNamesFromTheTableAndTheEnvironment) {
    PosixFileManager fm;
    fm.setMountedName(L"CARD", L"/media/card/");
    fm.setMountedName(L"ROOT", L"/");
    EXPECT_EQ(fm.mapMountedName(L"vol:CARD/clips/a.mov"), L"/media/card/clips/a.mov");
    EXPECT_EQ(fm.mapMountedName(L"vol:CARD"), L"/media/card");
    EXPECT_EQ(fm.mapMountedName(L"vol:ROOT/x"), L"/x");
    EXPECT_EQ(fm.mapMountedName(L"vol:CARDS/x"), L"vol:CARDS/x");
    EXPECT_EQ(fm.mapMountedName(L"vol:/x"), L"vol:/x");
    EXPECT_EQ(fm.mapMountedName(L"/plain/vol:CARD"), L"/plain/vol:CARD");

    auto env = scopedEnv("PLAYFILE_VOLUMES", "CARD=/env/card:NAS=/mnt/n\xC3\xA4s");
    EXPECT_EQ(fm.mapMountedName(L"vol:NAS/p"), L"/mnt/n\xE4s/p");
    EXPECT_EQ(fm.mapMountedName(L"vol:CARD/p"), L"/media/card/p"); // the table comes first
    fm.setMountedName(L"CARD", WString());
    EXPECT_EQ(fm.mapMountedName(L"vol:CARD/p"), L"/env/card/p");
}

TEST_F(PosixFiles, RemoteByConfiguredPrefixOrEnvironment) {
    ASSERT_EQ(mkdir(tmp.file("net").c_str(), 0755), 0);
    ASSERT_EQ(mkdir(tmp.file("network").c_str(), 0755), 0);
    EXPECT_FALSE(fm.isRemoteLocation(W(tmp.path()))); // local disk or tmpfs
    fm.addRemotePrefix(W(tmp.file("net/")));
    EXPECT_TRUE(fm.isRemoteLocation(W(tmp.file("net"))));
    EXPECT_TRUE(fm.isRemoteLocation(W(tmp.file("net/show/reel 1/clip.mov")))); // not there yet
    EXPECT_FALSE(fm.isRemoteLocation(W(tmp.file("network/clip.mov"))));

    // A link into the prefix leads there, even to a file not written yet.
    ASSERT_EQ(symlink(tmp.file("net").c_str(), tmp.file("shortcut").c_str()), 0);
    EXPECT_TRUE(fm.isRemoteLocation(W(tmp.file("shortcut/new.mov"))));

    PosixFileManager fresh;
    EXPECT_FALSE(fresh.isRemoteLocation(W(tmp.file("network/x"))));
    auto env = scopedEnv("PLAYFILE_REMOTE_PREFIXES", "/elsewhere::" + tmp.file("network"));
    EXPECT_TRUE(fresh.isRemoteLocation(W(tmp.file("network/x"))));
    EXPECT_FALSE(fresh.isRemoteLocation(W(tmp.file("net/x"))));
}

// A real mount made by the test: the cached mount table is read again when the mounts
// change (the new mount holds its files at once, and stops holding them once gone), and
// not read again for each question while nothing changes.
TEST_F(PosixFiles, MountTableFollowsARealMountAndIsReadOnlyWhenItChanges) {
    const std::string point = tmp.file("mounted");
    ASSERT_EQ(mkdir(point.c_str(), 0755), 0);
    const WString inside = W(point + "/clip.mov");
    const WString before = fm.volumeOf(inside);
    if (::mount("playfile-test", point.c_str(), "tmpfs", 0, "size=1m") != 0)
        GTEST_SKIP() << "mount(2) of a tmpfs refused: " << std::strerror(errno);
    struct Unmount {
        std::string at;
        ~Unmount() { ::umount2(at.c_str(), MNT_DETACH); }
    } unmount{point};

    EXPECT_EQ(fm.volumeOf(inside), W(point));
    EXPECT_FALSE(fm.isRemoteLocation(inside)); // tmpfs is local
    const uint64_t generation = MountWatch::shared().generation();
    for (int i = 0; i < 1000; ++i) fm.isRemoteLocation(inside);
    // Other programs on the machine may mount meanwhile; a re-read per question would
    // show as a thousand.
    EXPECT_LT(MountWatch::shared().generation() - generation, 10u);
    {
        auto env = scopedEnv("PLAYFILE_REMOTE_PREFIXES", point);
        EXPECT_TRUE(fm.isRemoteLocation(inside));
        ASSERT_EQ(symlink(point.c_str(), tmp.file("alias").c_str()), 0);
        EXPECT_TRUE(fm.isRemoteLocation(W(tmp.file("alias/clip.mov")))); // by its resolved name
    }
    ASSERT_EQ(::umount2(point.c_str(), 0), 0);
    EXPECT_EQ(fm.volumeOf(inside), before);
    EXPECT_GT(MountWatch::shared().generation(), generation);

    // Within one query the table is looked at once: a mount made meanwhile is seen by
    // the next query.
    uint64_t inQuery = 0;
    {
        FileQueryScope query;
        inQuery = MountWatch::shared().generation();
        ASSERT_EQ(::mount("playfile-test", point.c_str(), "tmpfs", 0, "size=1m"), 0);
        EXPECT_EQ(fm.volumeOf(inside), before);
        EXPECT_EQ(MountWatch::shared().generation(), inQuery);
    }
    EXPECT_EQ(fm.volumeOf(inside), W(point));
    EXPECT_GT(MountWatch::shared().generation(), inQuery);
}

// Within one query a file is looked at once; the next query sees what changed. Scopes
// nest, the outermost one counting.
TEST_F(PosixFiles, AQueryLooksAtEachFileOnceAndTheNextSeesChanges) {
    const std::string file = tmp.file("clip.mov");
    writeFile(file, "12345");
    {
        FileQueryScope query;
        EXPECT_TRUE(fm.fileExists(W(file)));
        { FileQueryScope inner; }
        ASSERT_EQ(unlink(file.c_str()), 0);
        EXPECT_TRUE(fm.fileExists(W(file))) << "as first seen in this query";
        EXPECT_EQ(fm.fileSize(W(file)), 5);
        // Past the paths a query keeps, a file is looked at again.
        for (int i = 0; i < 16; ++i) fm.fileExists(W(tmp.file("other" + std::to_string(i))));
        EXPECT_FALSE(fm.fileExists(W(file)));
        writeFile(file, "1");
    }
    EXPECT_EQ(fm.fileSize(W(file)), 1);
    ASSERT_EQ(unlink(file.c_str()), 0);
    EXPECT_FALSE(fm.fileExists(W(file)));
    FileQueryScope next;
    EXPECT_FALSE(fm.fileExists(W(file)));
}
