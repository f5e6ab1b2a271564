// Copying files: exact bytes, progress, sparse files, cancellation, a full disk or a size
// limit, and the rule that a failed copy never leaves anything under the destination.
// Parameterised on whether the kernel copies (copy_file_range) or a buffer does.
#include "host/os/FileCopy.h"
#include "host/os/PosixFileManager.h"
#include "support/TempDir.h"
#include "tests/host/file_test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace file_test;
using testing_support::TempDir;

namespace {

std::string randomBytes(size_t n) {
    std::independent_bits_engine<std::mt19937, 8, unsigned> rng{unsigned(n)};
    std::string s(n, '\0');
    for (char& c : s)
        c = char(rng());
    return s;
}

using Calls = std::vector<std::pair<uint64_t, uint64_t>>;

// Non-decreasing, never past the total, ending exactly at it.
bool wellFormed(const Calls& calls, uint64_t total) {
    for (size_t i = 0; i < calls.size(); ++i)
        if (calls[i].second != total || calls[i].first > total ||
            (i && calls[i].first < calls[i - 1].first))
            return false;
    return !calls.empty() && calls.back().first == total;
}

class FileCopy : public testing::TestWithParam<bool> {
protected:
    // Records progress in calls_ and cancels at call number stopAt (never if 0).
    int copy(const std::string& src, const std::string& dst, bool overwrite = false,
             size_t stopAt = 0) {
        calls_.clear();
        FileCopyOptions options;
        options.useCopyFileRange = GetParam();
        options.chunkBytes = 1 << 20;
        auto progress = [&](uint64_t done, uint64_t total) {
            calls_.emplace_back(done, total);
            return calls_.size() != stopAt;
        };
        return copyFileSafely(toUTF8(W(src)), toUTF8(W(dst)), progress, overwrite, options);
    }
    // The whole folder, hidden temporaries included.
    std::vector<WString> everything() {
        return PosixFileManager().listDirectory(W(tmp_.path()), WString());
    }

    TempDir tmp_;
    Calls calls_;
};

// Runs body in a child process, so that a resource limit or a mount stays there; answers
// its exit code, or 128 + the signal that killed it.
int inChild(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

constexpr int kNoSpaceTwice = iFileManager::eCopyNoSpace * 11;

} // namespace

INSTANTIATE_TEST_SUITE_P(Kernel, FileCopy, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(Buffered, FileCopy, testing::Values(false));

TEST_P(FileCopy, RoundTripsBytesWithMonotonicProgressAndPermissions) {
    const std::string data = randomBytes((size_t(5) << 20) + 123);
    writeFile(tmp_.file("src.mov"), data);
    ASSERT_EQ(chmod(tmp_.file("src.mov").c_str(), 0640), 0);
    ASSERT_EQ(copy(tmp_.file("src.mov"), tmp_.file("dst.mov")), iFileManager::eCopyOK);
    EXPECT_TRUE(readFile(tmp_.file("dst.mov")) == data);
    EXPECT_TRUE(wellFormed(calls_, data.size()));
    EXPECT_EQ(calls_.size(), 6u); // five whole chunks, then the end once
    struct stat st;
    ASSERT_EQ(stat(tmp_.file("dst.mov").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);

    writeFile(tmp_.file("empty"), ""); // still reports its end; overwrites
    EXPECT_EQ(copy(tmp_.file("empty"), tmp_.file("dst.mov"), true), iFileManager::eCopyOK);
    EXPECT_EQ(readFile(tmp_.file("dst.mov")), "");
    EXPECT_EQ(calls_, (Calls{{0, 0}}));

    std::string longName; // 248 bytes: the temporary's name has to be shortened
    for (int i = 0; i < 124; ++i)
        longName += "\xC3\xA9";
    EXPECT_EQ(copy(tmp_.file("src.mov"), tmp_.file(longName + ".mov")), iFileManager::eCopyOK);
    EXPECT_EQ(everything().size(), 4u);
}

TEST_P(FileCopy, SparseFileCopiesFastAndStaysSparse) {
    const off_t size = off_t(3) << 30;
    int fd = open(tmp_.file("sparse").c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_TRUE(fd >= 0 && ftruncate(fd, size) == 0 && pwrite(fd, "head", 4, 0) == 4 &&
                pwrite(fd, "middle", 6, size / 2) == 6 && close(fd) == 0);
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(copy(tmp_.file("sparse"), tmp_.file("copy")), iFileManager::eCopyOK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(wellFormed(calls_, uint64_t(size)));
    struct stat st;
    ASSERT_EQ(stat(tmp_.file("copy").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, size);
    EXPECT_LT(st.st_blocks * 512, 4 << 20);
    fd = open(tmp_.file("copy").c_str(), O_RDONLY);
    auto at = [&](off_t off, size_t n) {
        std::string s(n, '?');
        return pread(fd, s.data(), n, off) == ssize_t(n) ? s : std::string();
    };
    EXPECT_EQ(at(0, 4), "head");
    EXPECT_EQ(at(size / 2 - 2, 8), std::string(2, '\0') + "middle");
    EXPECT_EQ(at(size - 2, 2), std::string(2, '\0'));
    close(fd);
}

TEST_P(FileCopy, CancelledCopyLeavesNothingBehind) {
    writeFile(tmp_.file("src"), randomBytes(3 << 20));
    writeFile(tmp_.file("kept"), "old");
    for (size_t stopAt : {1, 3}) { // 3 is the final call, done == total
        EXPECT_EQ(copy(tmp_.file("src"), tmp_.file("dst"), false, stopAt),
                  iFileManager::eCopyCancelled);
        EXPECT_EQ(calls_.size(), stopAt);
        EXPECT_EQ(copy(tmp_.file("src"), tmp_.file("kept"), true, stopAt),
                  iFileManager::eCopyCancelled);
        EXPECT_EQ(readFile(tmp_.file("kept")), "old");
        EXPECT_EQ(everything(), (std::vector<WString>{L"kept", L"src"}));
    }
}

TEST_P(FileCopy, RefusalsLeaveTheDestinationAlone) {
    writeFile(tmp_.file("src"), "new");
    writeFile(tmp_.file("dst"), "old");
    ASSERT_EQ(mkdir(tmp_.file("folder").c_str(), 0755), 0);
    const int descriptors = openDescriptorCount();
    EXPECT_EQ(copy(tmp_.file("src"), tmp_.file("dst")), iFileManager::eCopyFailed); // no overwrite
    EXPECT_EQ(copy(tmp_.file("missing"), tmp_.file("dst"), true), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp_.file("folder"), tmp_.file("x"), true), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp_.file("src"), tmp_.file("folder"), true), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp_.file("src"), tmp_.file("nowhere/dst")), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp_.file("src"), ""), iFileManager::eCopyNoDestination);
    EXPECT_EQ(copy(tmp_.file("src"), tmp_.file("folder") + "/"), iFileManager::eCopyNoDestination);
    EXPECT_EQ(readFile(tmp_.file("dst")), "old");
    EXPECT_EQ(everything(), (std::vector<WString>{L"dst", L"folder", L"src"}));
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST_P(FileCopy, FileSizeLimitAnswersNoSpaceWithoutPartialFile) {
    writeFile(tmp_.file("src"), randomBytes(4 << 20));
    writeFile(tmp_.file("dst"), "old");
    int rc = inChild([&] {
        rlimit limit{1 << 20, 1 << 20};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 90;
        // SIGXFSZ keeps its default action (kill): the copy has to protect itself, and
        // leave the signal neither blocked nor pending.
        int rc = copy(tmp_.file("src"), tmp_.file("new")) * 10 +
                 copy(tmp_.file("src"), tmp_.file("dst"), true);
        sigset_t blocked, pending;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        sigpending(&pending);
        return sigismember(&blocked, SIGXFSZ) || sigismember(&pending, SIGXFSZ) ? 91 : rc;
    });
    EXPECT_EQ(rc, kNoSpaceTwice);
    EXPECT_EQ(readFile(tmp_.file("dst")), "old");
    EXPECT_EQ(everything(), (std::vector<WString>{L"dst", L"src"}));
}

TEST_P(FileCopy, FullFileSystemAnswersNoSpaceWithoutPartialFile) {
    writeFile(tmp_.file("src"), randomBytes(4 << 20));
    const std::string mnt = tmp_.file("small volume");
    ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
    constexpr int kCannotMount = 99;
    int rc = inChild([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("playfile-test", mnt.c_str(), "tmpfs", 0, "size=1m") != 0)
            return kCannotMount;
        writeFile(mnt + "/kept", "old");
        int rc =
            copy(tmp_.file("src"), mnt + "/new") * 10 + copy(tmp_.file("src"), mnt + "/kept", true);
        PosixFileManager fm;
        if (readFile(mnt + "/kept") != "old" || fm.listDirectory(W(mnt), WString()).size() != 1)
            return 92;
        // Volume questions on a mount whose name the mount table escapes.
        if (fm.volumeOf(W(mnt + "/not/yet")) != W(mnt)) return 93;
        if (fm.freeSpace(W(mnt)) > (1 << 20) || fm.freeSpace(W(mnt)) < 0) return 94;
        return rc;
    });
    if (rc == kCannotMount) GTEST_SKIP() << "cannot mount a private tmpfs here";
    EXPECT_EQ(rc, kNoSpaceTwice);
}
