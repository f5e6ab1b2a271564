// Copying a file's data regions between two descriptors, and the small pieces every copy
// needs (see DataCopy.h).
#include "host/os/DataCopy.h"

#include "host/os/FileCopy.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace filecopy {

namespace {

using RC = iFileManager::eCopyRC;

// Fallback buffer when the kernel cannot copy between the two files itself.
constexpr size_t kBufferBytes = size_t(1) << 20;

} // namespace

RC rcForErrno(int e) noexcept {
    return (e == ENOSPC || e == EDQUOT || e == EFBIG) ? iFileManager::eCopyNoSpace
                                                      : iFileManager::eCopyFailed;
}

int openForReading(const char* path) noexcept {
    for (;;) {
        int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

void Descriptor::reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

FileSizeSignalGuard::FileSizeSignalGuard() noexcept {
    sigemptyset(&set_);
    sigaddset(&set_, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &set_, &previous_);
    wasPending_ = pending();
}

FileSizeSignalGuard::~FileSizeSignalGuard() {
    int saved = errno;
    // The signal is directed at this thread, so it is still there for sigwait to take,
    // which then returns at once.
    int signal = 0;
    if (!wasPending_ && pending()) sigwait(&set_, &signal);
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    errno = saved;
}

bool FileSizeSignalGuard::pending() noexcept {
    sigset_t p;
    return sigpending(&p) == 0 && sigismember(&p, SIGXFSZ) == 1;
}

DataCopier::DataCopier(int in, int out, uint64_t total, const iFileManager::ProgressFn& progress,
                       const FileCopyOptions& options) noexcept
    : in_(in), out_(out), total_(total), progress_(progress), chunk_(std::max<uint64_t>(options.chunkBytes, 1)),
      useCopyFileRange_(options.useCopyFileRange) {}

DataCopier::~DataCopier() = default;

RC DataCopier::run() {
    uint64_t off = 0;
    bool holesKnown = true;
    while (off < total_) {
        uint64_t dataEnd = total_;
        if (holesKnown) {
            off_t data = ::lseek(in_, off_t(off), SEEK_DATA);
            if (data < 0 && errno == ENXIO) {
                data = off_t(total_); // nothing but a hole up to the end
            } else if (data < 0) {
                holesKnown = false; // the file system cannot tell: copy everything
                data = off_t(off);
            }
            uint64_t dataStart = std::min<uint64_t>(uint64_t(data), total_);
            if (dataStart > off) {
                off = dataStart; // the hole stays a hole: the temporary is never written there
                if (!report(off)) return iFileManager::eCopyCancelled;
                continue;
            }
            if (holesKnown) {
                off_t hole = ::lseek(in_, off_t(off), SEEK_HOLE);
                if (hole > off_t(off)) dataEnd = std::min<uint64_t>(uint64_t(hole), total_);
            }
        }
        while (off < dataEnd) {
            uint64_t n = std::min(chunk_, dataEnd - off);
            RC rc = copyRange(off, n);
            if (rc != iFileManager::eCopyOK) return rc;
            writeBehind(off, n);
            off += n;
            if (!report(off)) return iFileManager::eCopyCancelled;
        }
    }
    // A source that shrank while it was copied would leave zeros where its tail was.
    struct stat st;
    if (::fstat(in_, &st) != 0 || uint64_t(st.st_size) < total_)
        return iFileManager::eCopyFailed;
    return iFileManager::eCopyOK;
}

// The call with done == total is made by the caller once all the data is written, so
// that "finished" is reported once and can still be cancelled before the copy is kept.
bool DataCopier::report(uint64_t done) const {
    if (done >= total_ || !progress_) return true;
    return progress_(done, total_);
}

// Starts writing the chunk just copied to the disk, so that the disk works while the
// copy goes on and the closing sync has little left to do. Errors show up at that sync.
void DataCopier::writeBehind(uint64_t off, uint64_t n) noexcept {
    ::sync_file_range(out_, off_t(off), off_t(n), SYNC_FILE_RANGE_WRITE);
}

RC DataCopier::copyRange(uint64_t off, uint64_t n) {
    uint64_t done = 0;
    while (done < n) {
        if (useCopyFileRange_) {
            loff_t inOff = loff_t(off + done), outOff = loff_t(off + done);
            ssize_t got = ::copy_file_range(in_, &inOff, out_, &outOff, size_t(n - done), 0);
            if (got > 0) {
                done += uint64_t(got);
                continue;
            }
            if (got < 0 && errno == EINTR) continue;
            // 0 before the expected end is either a source that shrank or a file
            // system that only pretends to support the call; the buffered path below
            // tells the two apart.
            if (got == 0 || errno == EXDEV || errno == ENOSYS || errno == EOPNOTSUPP ||
                errno == ENOTSUP || errno == EINVAL) {
                useCopyFileRange_ = false;
                continue;
            }
            return rcForErrno(errno);
        }
        if (!buffer_) {
            buffer_.reset(new (std::nothrow) char[kBufferBytes]);
            if (!buffer_) return iFileManager::eCopyFailed;
        }
        size_t want = size_t(std::min<uint64_t>(kBufferBytes, n - done));
        ssize_t got = ::pread(in_, buffer_.get(), want, off_t(off + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return iFileManager::eCopyFailed; // unreadable, or shrank under us
        RC rc = writeAll(buffer_.get(), size_t(got), off + done);
        if (rc != iFileManager::eCopyOK) return rc;
        done += uint64_t(got);
    }
    return iFileManager::eCopyOK;
}

RC DataCopier::writeAll(const char* p, size_t n, uint64_t at) {
    // A write that fills the disk returns short first; the next one says why.
    while (n > 0) {
        ssize_t put = ::pwrite(out_, p, n, off_t(at));
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return rcForErrno(errno);
        if (put == 0) return iFileManager::eCopyNoSpace;
        p += put;
        n -= size_t(put);
        at += uint64_t(put);
    }
    return iFileManager::eCopyOK;
}

} // namespace filecopy
