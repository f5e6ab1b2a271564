// The ".partial" copy: the per-destination gate of this process, the advisory lock on
// the ".partial" file that other processes respect, and the copy into the locked file.
#include "host/os/PartialCopy.h"

#include "host/core/Strings.h"
#include "host/os/DataCopy.h"
#include "host/os/FileCopy.h"
#include "host/threads/PlainMutex.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Zn {
namespace {

using RC = iFileManager::eCopyRC;
using filecopy::rcForErrno;

// The destinations being written by this process. mutex_ guards busy_ only.
class DestinationGate {
public:
    static DestinationGate& instance() {
        static DestinationGate gate;
        return gate;
    }
    // Waits until no other copy of this process writes dst, then claims it. False when
    // keepWaiting answered false first.
    template <class F> bool enter(const std::string& dst, F keepWaiting) {
        PlainMutex::UniqueLock lock(mutex_);
        while (busy_.count(dst)) {
            if (changed_.wait_for(lock.native(), std::chrono::milliseconds(PartialCopy::kPollMs)) ==
                std::cv_status::timeout) {
                lock.unlock();
                if (!keepWaiting()) return false;
                lock.relock();
            }
        }
        busy_.insert(dst);
        return true;
    }
    void leave(const std::string& dst) {
        {
            PlainMutex::Lock lock(mutex_);
            busy_.erase(dst);
        }
        changed_.notify_all();
    }

private:
    PlainMutex mutex_;
    std::condition_variable changed_;
    std::set<std::string> busy_ GUARDED_BY(mutex_);
};

class GateSlot {
public:
    explicit GateSlot(std::string dst) : dst_(std::move(dst)) {}
    ~GateSlot() {
        if (held_) DestinationGate::instance().leave(dst_);
    }
    GateSlot(const GateSlot&) = delete;
    GateSlot& operator=(const GateSlot&) = delete;
    template <class F> bool enter(F keepWaiting) { return held_ = DestinationGate::instance().enter(dst_, keepWaiting); }

private:
    std::string dst_;
    bool held_ = false;
};

// The ".partial" file, open and locked. Until commit() it is removed on every way out,
// while the lock is still held, so that no other writer can take it over half written.
class LockedPartial {
public:
    explicit LockedPartial(std::string path) : path_(std::move(path)) {}
    ~LockedPartial() {
        if (fd_ < 0) return;
        if (!committed_) ::unlink(path_.c_str());
        ::close(fd_); // releases the lock
    }
    LockedPartial(const LockedPartial&) = delete;
    LockedPartial& operator=(const LockedPartial&) = delete;

    // Opens and locks the file, waiting while another process holds it. errno is set
    // when it answers eCopyFailed; eCopyCancelled when keepWaiting answered false.
    template <class F> RC acquire(F keepWaiting, bool& stale) {
        for (;;) {
            int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
            if (fd < 0) return rcForErrno(errno);
            if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
                const int e = errno;
                ::close(fd);
                if (e != EWOULDBLOCK && e != EINTR) return rcForErrno(e);
                if (!keepWaiting()) return iFileManager::eCopyCancelled;
                ::usleep(PartialCopy::kPollMs * 1000);
                continue;
            }
            // The holder before us may have renamed or removed the file we waited on.
            struct stat mine, named;
            if (::fstat(fd, &mine) != 0 || ::lstat(path_.c_str(), &named) != 0 || mine.st_dev != named.st_dev ||
                mine.st_ino != named.st_ino) {
                ::close(fd);
                continue;
            }
            stale = mine.st_size > 0;
            if (stale && ::ftruncate(fd, 0) != 0) {
                const int e = errno;
                ::close(fd);
                return rcForErrno(e);
            }
            fd_ = fd;
            return iFileManager::eCopyOK;
        }
    }
    int fd() const noexcept { return fd_; }
    const std::string& path() const noexcept { return path_; }
    void committed() noexcept { committed_ = true; }

private:
    std::string path_;
    int fd_ = -1;
    bool committed_ = false;
};

void syncFolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

// The file to copy, open for reading.
class Source {
public:
    explicit Source(const std::string& path) : fd_(filecopy::openForReading(path.c_str())) {}
    // The size and mode of a regular file; false for anything else.
    bool regular(uint64_t& size) {
        struct stat st;
        if (fd_.get() < 0 || ::fstat(fd_.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
        size = uint64_t(st.st_size);
        mode_ = st.st_mode & 0777;
        return true;
    }
    int fd() const noexcept { return fd_.get(); }
    mode_t mode() const noexcept { return mode_; }

private:
    filecopy::Descriptor fd_;
    mode_t mode_ = 0644;
};

} // namespace

PartialCopy::Result PartialCopy::copy(const WString& src, const WString& dst, const iFileManager::ProgressFn& progress) {
    Result result;
    if (dst.empty()) {
        result.rc = iFileManager::eCopyNoDestination;
        return result;
    }
    const std::string target(toUTF8(dst).view());
    Source in(std::string(toUTF8(src).view()));
    uint64_t total = 0;
    if (src.empty() || !in.regular(total)) return result;
    auto keepWaiting = [&] { return !progress || progress(0, total); };

    GateSlot slot(target);
    if (!slot.enter(keepWaiting)) {
        result.rc = iFileManager::eCopyCancelled;
        return result;
    }
    LockedPartial partial(target + ".partial");
    result.rc = partial.acquire(keepWaiting, result.discardedStale);
    if (result.rc != iFileManager::eCopyOK) return result;

    {
        filecopy::FileSizeSignalGuard signalGuard;
        const FileCopyOptions options;
        result.rc = filecopy::DataCopier(in.fd(), partial.fd(), total, progress, options).run();
    }
    if (result.rc != iFileManager::eCopyOK) return result;
    // The length, when the source ends in a hole; then everything on the disk before the
    // name changes, so that a crash never leaves a short file under the final name.
    ::fchmod(partial.fd(), in.mode()); // a courtesy: some file systems have no modes
    if (::ftruncate(partial.fd(), off_t(total)) != 0 || ::fsync(partial.fd()) != 0) {
        result.rc = rcForErrno(errno);
        return result;
    }
    if (progress && !progress(total, total)) {
        result.rc = iFileManager::eCopyCancelled;
        return result;
    }
    if (::rename(partial.path().c_str(), target.c_str()) != 0) {
        result.rc = rcForErrno(errno);
        return result;
    }
    partial.committed();
    syncFolderOf(target);
    return result;
}

} // namespace Zn
