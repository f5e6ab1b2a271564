// Copying through "<name>.partial": whole files under the final name only, a stale
// ".partial" discarded and never renamed into place, another process's ".partial" left
// alone while it writes (the copy waits for it), copies to one destination serialised in
// the process, and nothing left behind by a failure or a cancellation.
#include "host/os/PartialCopy.h"
#include "support/TempDir.h"
#include "tests/host/file_test_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace file_test;
using Zn::PartialCopy;
namespace fs = std::filesystem;

namespace {

std::string patterned(size_t n, char seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = char(seed + (i * 7 + i / 4096) % 61);
    return s;
}

class PartialCopies : public ::testing::Test {
protected:
    void SetUp() override { writeFile(src(), patterned(3 << 20, 'a')); }
    std::string src() const { return tmp.file("src.mov"); }
    std::string dst() const { return tmp.file("dst.mov"); }
    std::string partial() const { return dst() + ".partial"; }
    PartialCopy::Result copy(const iFileManager::ProgressFn& progress = {}) {
        return PartialCopy::copy(W(src()), W(dst()), progress);
    }
    testing_support::TempDir tmp{"playfile-partial"};
};

// A ".partial" locked by another process, as a writer that is still at work holds it.
struct ForeignWriter {
    explicit ForeignWriter(const std::string& path) {
        int ready[2];
        EXPECT_EQ(::pipe(ready), 0);
        pid = ::fork();
        if (pid == 0) {
            int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
            if (fd < 0 || ::flock(fd, LOCK_EX) != 0 || ::write(fd, "busy", 4) != 4) _exit(1);
            char c = 1;
            (void)!::write(ready[1], &c, 1);
            ::pause();
            _exit(0);
        }
        char c;
        EXPECT_EQ(::read(ready[0], &c, 1), 1);
        ::close(ready[0]);
        ::close(ready[1]);
    }
    void end() {
        if (pid <= 0) return;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        pid = -1;
    }
    ~ForeignWriter() { end(); }
    pid_t pid = -1;
};

} // namespace

TEST_F(PartialCopies, TheFileAppearsWholeAndTheProgressEndsAtTheTotal) {
    uint64_t last = 0, calls = 0;
    auto r = copy([&](uint64_t done, uint64_t total) {
        EXPECT_EQ(total, uint64_t(3) << 20);
        EXPECT_GE(done, last);
        last = done;
        ++calls;
        return true;
    });
    EXPECT_EQ(r.rc, iFileManager::eCopyOK);
    EXPECT_FALSE(r.discardedStale);
    EXPECT_EQ(readFile(dst()), readFile(src()));
    EXPECT_FALSE(fs::exists(partial()));
    EXPECT_EQ(last, uint64_t(3) << 20);
    EXPECT_GE(calls, 1u);
}

TEST_F(PartialCopies, FailuresAndCancellationLeaveNeitherTheDestinationNorAPartial) {
    writeFile(dst(), "old");
    struct Case {
        const char* what;
        std::string source;
        std::string destination;
        iFileManager::ProgressFn progress;
        iFileManager::eCopyRC rc;
    } cases[] = {
        {"missing source", tmp.file("nothing.mov"), dst(), {}, iFileManager::eCopyFailed},
        {"a folder as source", tmp.path().string(), dst(), {}, iFileManager::eCopyFailed},
        {"no destination", src(), "", {}, iFileManager::eCopyNoDestination},
        {"missing folder", src(), tmp.file("no/such/dst.mov"), {}, iFileManager::eCopyFailed},
        {"cancelled midway", src(), dst(), [](uint64_t done, uint64_t) { return done == 0; },
         iFileManager::eCopyCancelled},
        {"cancelled at the end", src(), dst(), [](uint64_t done, uint64_t total) { return done < total; },
         iFileManager::eCopyCancelled},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(PartialCopy::copy(W(c.source), W(c.destination), c.progress).rc, c.rc);
        EXPECT_EQ(readFile(dst()), "old");
        EXPECT_FALSE(fs::exists(c.destination + ".partial"));
    }
}

TEST_F(PartialCopies, AFullFileSystemIsNoSpaceAndLeavesNothing) {
    pid_t pid = ::fork();
    if (pid == 0) {
        rlimit limit{1 << 20, 1 << 20};
        if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(90);
        auto r = copy();
        _exit(r.rc == iFileManager::eCopyNoSpace && !fs::exists(partial()) && !fs::exists(dst()) ? 0 : 10 + r.rc);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

// What a writer killed midway leaves: a ".partial" with some of the data and no lock.
TEST_F(PartialCopies, AStalePartialIsDiscardedAndNeverRenamedIntoPlace) {
    writeFile(partial(), std::string(5000, 'z'));
    auto r = copy([](uint64_t, uint64_t) { return false; }); // cancelled before any data
    EXPECT_EQ(r.rc, iFileManager::eCopyCancelled);
    EXPECT_TRUE(r.discardedStale);
    EXPECT_FALSE(fs::exists(partial()));
    EXPECT_FALSE(fs::exists(dst()));

    writeFile(partial(), std::string(5000, 'z'));
    r = copy();
    EXPECT_EQ(r.rc, iFileManager::eCopyOK);
    EXPECT_TRUE(r.discardedStale);
    EXPECT_EQ(readFile(dst()), readFile(src()));
    EXPECT_FALSE(fs::exists(partial()));
}

TEST_F(PartialCopies, AnotherProcesssPartialIsLeftAloneWhileItWrites) {
    ForeignWriter writer(partial());
    // Cancelled while waiting: the other writer's file is untouched.
    int asked = 0;
    auto r = copy([&](uint64_t, uint64_t) { return ++asked < 3; });
    EXPECT_EQ(r.rc, iFileManager::eCopyCancelled);
    EXPECT_EQ(readFile(partial()), "busy");
    EXPECT_FALSE(fs::exists(dst()));

    // Waiting, the copy goes ahead once the writer is gone (its file then being stale).
    std::thread ender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(3 * PartialCopy::kPollMs));
        writer.end();
    });
    r = copy();
    ender.join();
    EXPECT_EQ(r.rc, iFileManager::eCopyOK);
    EXPECT_TRUE(r.discardedStale);
    EXPECT_EQ(readFile(dst()), readFile(src()));
    EXPECT_FALSE(fs::exists(partial()));
}

TEST_F(PartialCopies, CopiesToOneDestinationInOneProcessTakeTurns) {
    writeFile(tmp.file("other.mov"), patterned(2 << 20, 'k'));
    std::atomic<int> inside{0}, most{0};
    // The last call comes with the file whole, just before it is renamed into place.
    auto watch = [&](uint64_t done, uint64_t total) {
        if (done == total) {
            const int now = ++inside;
            if (now > most) most = now;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            --inside;
        }
        return true;
    };
    std::vector<std::thread> threads;
    std::atomic<int> ok{0};
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            const std::string from = i % 2 ? tmp.file("other.mov") : src();
            ok += PartialCopy::copy(W(from), W(dst()), watch).rc == iFileManager::eCopyOK;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(ok.load(), 4);
    EXPECT_EQ(most.load(), 1) << "two copies wrote the destination at once";
    const std::string result = readFile(dst());
    EXPECT_TRUE(result == readFile(src()) || result == readFile(tmp.file("other.mov")));
    EXPECT_FALSE(fs::exists(partial()));
}
