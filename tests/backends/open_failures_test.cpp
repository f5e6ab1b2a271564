// Why an open failed, as the real readers tell the play file cache: a failure that passes
// (the process ran out of descriptors) is not remembered and the file opens once they are
// back; idle files give their descriptors back when an open runs short; a damaged file is
// remembered as failed, as ever.
#include "FfmpegOracle.h"
#include "ReaderTestSupport.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace testing_support;
using namespace reader_test;

namespace {

// Takes every descriptor the process may still open, under a soft limit lowered to a
// little above the descriptors in use, and gives them back (and the limit) when released.
class DescriptorHog {
public:
    DescriptorHog() {
        ::getrlimit(RLIMIT_NOFILE, &saved_);
        int highest = 0;
        for (int fd = 0; fd < 4096; ++fd)
            if (::fcntl(fd, F_GETFD) >= 0) highest = fd;
        rlimit lowered = saved_;
        lowered.rlim_cur = rlim_t(highest + 64);
        ::setrlimit(RLIMIT_NOFILE, &lowered);
        for (;;) {
            const int fd = ::dup(0);
            if (fd < 0) {
                exhausted_ = errno == EMFILE;
                break;
            }
            held_.push_back(fd);
        }
    }
    ~DescriptorHog() { release(); }
    void release() {
        for (int fd : held_) ::close(fd);
        held_.clear();
        ::setrlimit(RLIMIT_NOFILE, &saved_);
    }
    bool exhausted() const { return exhausted_; }

private:
    rlimit saved_{};
    std::vector<int> held_;
    bool exhausted_ = false;
};

// UBSan's check of an object's dynamic type tests memory through a pipe: with no
// descriptor left it takes every checked object for invalid.
constexpr bool kSanitizersNeedDescriptors =
#if defined(__SANITIZE_ADDRESS__)
    true;
#else
    false;
#endif
constexpr const char* kSkipWhy = "the sanitizers of this build need descriptors of their own, which the test takes away";

class OpenFailures : public CacheReads {
protected:

    static Zn::Ptr<FileReadInstance> open(PlayFileCache& cache, const std::string& path, OpenType type) {
        return cache.open(fromUTF8(path.c_str()), Cookie(), DecodeFormat(1), type, 0);
    }
    std::string media(const TempDir& dir, const std::string& name) {
        return ffmpeg_oracle::made(dir, name,
                                   "-f lavfi -i testsrc2=size=64x48:rate=25:duration=0.4 "
                                   "-f lavfi -i sine=frequency=440:sample_rate=48000:duration=0.4 ",
                                   "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -c:a aac -b:a 32k");
    }
};

} // namespace

TEST_F(OpenFailures, RunningOutOfDescriptorsIsNotRemembered) {
    if (kSanitizersNeedDescriptors) GTEST_SKIP() << kSkipWhy;
    TempDir dir;
    const std::string path = media(dir, "clip.mp4");
    PlayFileCache cache(2, 8);
    {
        LogCapture log;
        DescriptorHog hog;
        ASSERT_TRUE(hog.exhausted());
        EXPECT_FALSE(open(cache, path, OpenType::kVideo));
        hog.release();
        EXPECT_EQ(log.count("Failed to open " + path + " for now: too many open files\n"), 1u);
        EXPECT_EQ(log.count("Failed to open " + path + "\n"), 0u);
    }
    EXPECT_FALSE(cache.isCorrupt(fromUTF8(path.c_str()), OpenType::kVideo));
    EXPECT_EQ(cache.failedOpenCount(), 0u);
    EXPECT_EQ(cache.statistics().passingFailures, 1u);
    EXPECT_TRUE(open(cache, path, OpenType::kVideo)) << "the second open, with descriptors free again";
}

// Opened for audio, a file keeps a demuxer (a descriptor) for each compressed stream: the
// idle ones are what an open short of descriptors closes before it tries again.
TEST_F(OpenFailures, IdleFilesGiveBackTheirDescriptorsWhenAnOpenRunsShort) {
    if (kSanitizersNeedDescriptors) GTEST_SKIP() << kSkipWhy;
    TempDir dir;
    PlayFileCache cache(2, 8);
    for (int i = 0; i < 4; ++i) ASSERT_TRUE(open(cache, media(dir, "idle" + std::to_string(i) + ".mp4"), OpenType::kAudio));
    const std::string path = media(dir, "next.mp4");
    ASSERT_EQ(cache.openFileCount(), 4u);
    DescriptorHog hog;
    ASSERT_TRUE(hog.exhausted());
    LogCapture log;
    EXPECT_TRUE(open(cache, path, OpenType::kAudio));
    hog.release();
    EXPECT_EQ(log.count("Too many open files opening " + path + ": closing idle files and trying again\n"), 1u);
    EXPECT_EQ(cache.openFileCount(), 1u);
    EXPECT_EQ(cache.failedOpenCount(), 0u);
}

TEST_F(OpenFailures, ADamagedFileIsStillRemembered) {
    TempDir dir;
    const std::string good = media(dir, "good.mp4");
    std::string bytes = readFile(good);
    // The header's boxes cut short: no reader can make sense of it.
    const std::string path = dir.file("damaged.mp4");
    writeFile(path, bytes.substr(0, 40) + std::string(4000, '\x5a'));
    PlayFileCache cache(2, 8);
    LogCapture log;
    EXPECT_FALSE(open(cache, path, OpenType::kVideo));
    EXPECT_FALSE(open(cache, path, OpenType::kVideo));
    EXPECT_EQ(log.count("Failed to open " + path + "\n"), 1u);
    EXPECT_TRUE(cache.isCorrupt(fromUTF8(path.c_str()), OpenType::kVideo));
    EXPECT_EQ(cache.statistics().refusedOpens, 1u);
}
