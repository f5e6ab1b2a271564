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
#include <cstring>
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
    std::mt19937_64 rng(n);
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i += 8) {
        uint64_t v = rng();
        std::memcpy(&s[i], &v, std::min<size_t>(8, n - i));
    }
    return s;
}

// Every call is recorded; the copy is asked to stop at call number stopAt (never if 0).
struct ProgressLog {
    std::vector<std::pair<uint64_t, uint64_t>> calls;
    size_t stopAt = 0;
    iFileManager::ProgressFn fn() {
        return [this](uint64_t done, uint64_t total) {
            calls.emplace_back(done, total);
            return calls.size() != stopAt;
        };
    }
    // Non-decreasing, never past the total, ending exactly at it.
    bool wellFormed(uint64_t total) const {
        for (size_t i = 0; i < calls.size(); ++i)
            if (calls[i].second != total || calls[i].first > total || (i && calls[i].first < calls[i - 1].first))
                return false;
        return !calls.empty() && calls.back().first == total;
    }
};

// Whole folder listing, hidden temporaries included.
std::vector<WString> everything(const TempDir& dir) {
    PosixFileManager fm;
    return fm.listDirectory(W(dir.path()), WString());
}

class FileCopy : public testing::TestWithParam<bool> {
protected:
    iFileManager::eCopyRC copy(const std::string& src, const std::string& dst, ProgressLog* log = nullptr,
                               bool overwrite = false, uint64_t chunk = uint64_t(8) << 20) {
        FileCopyOptions options;
        options.useCopyFileRange = GetParam();
        options.chunkBytes = chunk;
        return copyFileSafely(toUTF8(W(src)), toUTF8(W(dst)), log ? log->fn() : nullptr, overwrite, options);
    }
    TempDir tmp;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Kernel, FileCopy, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(Buffered, FileCopy, testing::Values(false));

TEST_P(FileCopy, RoundTripsBytesWithMonotonicProgressAndPermissions) {
    const std::string data = randomBytes((size_t(5) << 20) + 123);
    writeFile(tmp.file("src.mov"), data);
    ASSERT_EQ(chmod(tmp.file("src.mov").c_str(), 0640), 0);
    ProgressLog log;
    ASSERT_EQ(copy(tmp.file("src.mov"), tmp.file("dst.mov"), &log, false, 1 << 20), iFileManager::eCopyOK);
    EXPECT_TRUE(readFile(tmp.file("dst.mov")) == data);
    EXPECT_TRUE(log.wellFormed(data.size()));
    EXPECT_EQ(log.calls.size(), 6u); // five whole chunks, then the end
    struct stat st;
    ASSERT_EQ(stat(tmp.file("dst.mov").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);

    // Overwriting, and an empty file, which still reports its end.
    writeFile(tmp.file("empty"), "");
    ProgressLog emptyLog;
    EXPECT_EQ(copy(tmp.file("empty"), tmp.file("dst.mov"), &emptyLog, true), iFileManager::eCopyOK);
    EXPECT_EQ(readFile(tmp.file("dst.mov")), "");
    EXPECT_EQ(emptyLog.calls, (std::vector<std::pair<uint64_t, uint64_t>>{{0, 0}}));
    EXPECT_EQ(everything(tmp).size(), 3u);
}

TEST_P(FileCopy, SparseFileCopiesFastAndStaysSparse) {
    const uint64_t size = uint64_t(3) << 30;
    {
        int fd = open(tmp.file("sparse").c_str(), O_CREAT | O_WRONLY, 0644);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(ftruncate(fd, off_t(size)), 0);
        ASSERT_EQ(pwrite(fd, "head", 4, 0), 4);
        ASSERT_EQ(pwrite(fd, "middle", 6, off_t(size / 2)), 6);
        close(fd);
    }
    ProgressLog log;
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(copy(tmp.file("sparse"), tmp.file("copy"), &log), iFileManager::eCopyOK);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(log.wellFormed(size));
    struct stat st;
    ASSERT_EQ(stat(tmp.file("copy").c_str(), &st), 0);
    EXPECT_EQ(uint64_t(st.st_size), size);
    EXPECT_LT(st.st_blocks * 512, 4 << 20);
    int fd = open(tmp.file("copy").c_str(), O_RDONLY);
    char buf[6];
    EXPECT_EQ(pread(fd, buf, 4, 0), 4);
    EXPECT_EQ(std::string(buf, 4), "head");
    EXPECT_EQ(pread(fd, buf, 6, off_t(size / 2)), 6);
    EXPECT_EQ(std::string(buf, 6), "middle");
    EXPECT_EQ(pread(fd, buf, 6, off_t(size / 2 - 6)), 6);
    EXPECT_EQ(std::string(buf, 6), std::string(6, '\0'));
    close(fd);
}

TEST_P(FileCopy, CancelledCopyLeavesNothingBehind) {
    writeFile(tmp.file("src"), randomBytes(3 << 20));
    writeFile(tmp.file("kept"), "old");
    for (size_t stopAt : {1, 3}) { // 3 is the final call, done == total
        ProgressLog log;
        log.stopAt = stopAt;
        EXPECT_EQ(copy(tmp.file("src"), tmp.file("dst"), &log, false, 1 << 20), iFileManager::eCopyCancelled);
        EXPECT_EQ(log.calls.size(), stopAt);
        log.calls.clear();
        EXPECT_EQ(copy(tmp.file("src"), tmp.file("kept"), &log, true, 1 << 20), iFileManager::eCopyCancelled);
        EXPECT_EQ(readFile(tmp.file("kept")), "old");
        EXPECT_EQ(everything(tmp), (std::vector<WString>{L"kept", L"src"}));
    }
}

TEST_P(FileCopy, RefusalsLeaveTheDestinationAlone) {
    writeFile(tmp.file("src"), "new");
    writeFile(tmp.file("dst"), "old");
    ASSERT_EQ(mkdir(tmp.file("folder").c_str(), 0755), 0);
    const int descriptors = openDescriptorCount();
    EXPECT_EQ(copy(tmp.file("src"), tmp.file("dst")), iFileManager::eCopyFailed); // no overwrite
    EXPECT_EQ(readFile(tmp.file("dst")), "old");
    EXPECT_EQ(copy(tmp.file("missing"), tmp.file("dst"), nullptr, true), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp.file("folder"), tmp.file("x"), nullptr, true), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp.file("src"), tmp.file("folder"), nullptr, true), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp.file("src"), tmp.file("nowhere/dst")), iFileManager::eCopyFailed);
    EXPECT_EQ(copy(tmp.file("src"), ""), iFileManager::eCopyNoDestination);
    EXPECT_EQ(copy(tmp.file("src"), tmp.file("folder") + "/"), iFileManager::eCopyNoDestination);
    EXPECT_EQ(readFile(tmp.file("dst")), "old");
    EXPECT_EQ(everything(tmp), (std::vector<WString>{L"dst", L"folder", L"src"}));
    EXPECT_EQ(openDescriptorCount(), descriptors);
}

TEST_P(FileCopy, LongNonAsciiNameStillGetsATemporary) {
    std::string name;
    for (int i = 0; i < 124; ++i) name += "\xC3\xA9"; // 248 bytes: the temporary must be cut
    name += ".mov";
    writeFile(tmp.file("src"), "data");
    EXPECT_EQ(copy(tmp.file("src"), tmp.file(name)), iFileManager::eCopyOK);
    EXPECT_EQ(readFile(tmp.file(name)), "data");
}

namespace {

// Runs body in a child process and answers its exit code (or 128 + the signal that
// killed it), so that a resource limit or a mount stays in the child.
int inChild(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

constexpr int kCannotMount = 99;

} // namespace

TEST_P(FileCopy, FileSizeLimitAnswersNoSpaceWithoutPartialFile) {
    writeFile(tmp.file("src"), randomBytes(4 << 20));
    writeFile(tmp.file("dst"), "old");
    int rc = inChild([&] {
        rlimit limit{1 << 20, 1 << 20};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 90;
        // SIGXFSZ keeps its default action (kill): the copy must protect itself.
        int a = copy(tmp.file("src"), tmp.file("new"));
        int b = copy(tmp.file("src"), tmp.file("dst"), nullptr, true);
        sigset_t blocked, pending;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        sigpending(&pending);
        if (sigismember(&blocked, SIGXFSZ) || sigismember(&pending, SIGXFSZ)) return 91;
        return a * 10 + b;
    });
    EXPECT_EQ(rc, iFileManager::eCopyNoSpace * 11);
    EXPECT_EQ(readFile(tmp.file("dst")), "old");
    EXPECT_EQ(everything(tmp), (std::vector<WString>{L"dst", L"src"}));
}

TEST_P(FileCopy, FullFileSystemAnswersNoSpaceWithoutPartialFile) {
    writeFile(tmp.file("src"), randomBytes(4 << 20));
    const std::string mnt = tmp.file("small volume");
    ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
    int rc = inChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("playfile-test", mnt.c_str(), "tmpfs", 0, "size=1m") != 0)
            return kCannotMount;
        writeFile(mnt + "/kept", "old");
        int a = copy(tmp.file("src"), mnt + "/new");
        int b = copy(tmp.file("src"), mnt + "/kept", nullptr, true);
        PosixFileManager fm;
        if (readFile(mnt + "/kept") != "old" || fm.listDirectory(W(mnt), WString()).size() != 1) return 92;
        // The volume questions, on a mount whose name needs escaping in the mount table.
        if (fm.volumeOf(W(mnt + "/not/yet")) != W(mnt)) return 93;
        if (fm.freeSpace(W(mnt)) > (1 << 20) || fm.freeSpace(W(mnt)) < 0) return 94;
        return a * 10 + b;
    });
    if (rc == kCannotMount) GTEST_SKIP() << "cannot mount a private tmpfs here";
    EXPECT_EQ(rc, iFileManager::eCopyNoSpace * 11);
}
