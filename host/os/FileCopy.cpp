// Copying a file through a temporary beside the destination: data regions are copied with
// copy_file_range (or read/write through a large buffer where the kernel cannot), holes are
// skipped, the copied data is written to the disk behind the copy, and the temporary is
// synced and renamed onto the destination only when everything worked.
#include "host/os/FileCopy.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using RC = iFileManager::eCopyRC;

// Fallback buffer when the kernel cannot copy between the two files itself.
constexpr size_t kBufferBytes = size_t(1) << 20;
// Longest file name most Linux file systems accept, in bytes.
constexpr size_t kNameMax = 255;
// ".XXXXXX" plus the leading dot of the temporary's name.
constexpr size_t kTempDecoration = 8;

RC rcForErrno(int e) {
    return (e == ENOSPC || e == EDQUOT || e == EFBIG) ? iFileManager::eCopyNoSpace
                                                      : iFileManager::eCopyFailed;
}

class Descriptor {
public:
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const noexcept { return fd_; }

private:
    int fd_;
};

// The temporary under construction: removed on every path that does not commit it.
class TempFile {
public:
    TempFile() = default;
    ~TempFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty() && !kept_) ::unlink(path_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    bool create(std::string pattern) {
        fd_ = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (fd_ < 0) return false;
        path_ = std::move(pattern);
        return true;
    }
    int fd() const noexcept { return fd_; }
    const std::string& path() const noexcept { return path_; }
    // Close errors matter: a network file system may report a failed write only here.
    bool close() noexcept {
        int rc = ::close(fd_);
        fd_ = -1;
        return rc == 0;
    }
    void keep() noexcept { kept_ = true; }

private:
    int fd_ = -1;
    std::string path_;
    bool kept_ = false;
};

// Blocks SIGXFSZ on this thread for the guard's life, and swallows the one a write past
// RLIMIT_FSIZE raised (the kernel directs it at the writing thread), so that the write's
// EFBIG reaches us instead of the signal's default action killing the process.
class FileSizeSignalGuard {
public:
    FileSizeSignalGuard() noexcept {
        sigemptyset(&set_);
        sigaddset(&set_, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &set_, &previous_);
        wasPending_ = pending();
    }
    ~FileSizeSignalGuard() {
        int saved = errno;
        // The signal is directed at this thread, so it is still there for sigwait to
        // take, which then returns at once.
        int signal = 0;
        if (!wasPending_ && pending()) sigwait(&set_, &signal);
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        errno = saved;
    }
    FileSizeSignalGuard(const FileSizeSignalGuard&) = delete;
    FileSizeSignalGuard& operator=(const FileSizeSignalGuard&) = delete;

private:
    static bool pending() noexcept {
        sigset_t p;
        return sigpending(&p) == 0 && sigismember(&p, SIGXFSZ) == 1;
    }
    sigset_t set_;
    sigset_t previous_;
    bool wasPending_ = false;
};

// The data part of a copy: walks the source's data regions and copies them in chunks.
class DataCopier {
public:
    DataCopier(int in, int out, uint64_t total, const iFileManager::ProgressFn& progress,
               const FileCopyOptions& options) noexcept
        : in_(in), out_(out), total_(total), progress_(progress),
          chunk_(std::max<uint64_t>(options.chunkBytes, 1)),
          useCopyFileRange_(options.useCopyFileRange) {}

    RC run() {
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

    // The call with done == total is made by the caller once the copy is on disk, so
    // that "finished" is reported once and can still be cancelled before the rename.
    bool report(uint64_t done) const {
        if (done >= total_ || !progress_) return true;
        return progress_(done, total_);
    }

private:
    // Starts writing the chunk just copied to the disk, so that the disk works while the
    // copy goes on and the closing fsync has little left to do. Errors show up at that fsync.
    void writeBehind(uint64_t off, uint64_t n) noexcept {
        ::sync_file_range(out_, off_t(off), off_t(n), SYNC_FILE_RANGE_WRITE);
    }

    RC copyRange(uint64_t off, uint64_t n) {
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

    RC writeAll(const char* p, size_t n, uint64_t at) {
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

    int in_;
    int out_;
    uint64_t total_;
    const iFileManager::ProgressFn& progress_;
    uint64_t chunk_;
    bool useCopyFileRange_;
    std::unique_ptr<char[]> buffer_;
};

// The temporary's name: ".<dst's name>.XXXXXX" in dst's folder, the name shortened (on a
// UTF-8 character boundary) when the whole would be longer than a file name may be.
std::string temporaryPattern(const std::string& folderPrefix, const std::string& name) {
    size_t keep = std::min(name.size(), kNameMax - kTempDecoration);
    while (keep > 0 && keep < name.size() &&
           (static_cast<unsigned char>(name[keep]) & 0xC0) == 0x80)
        --keep;
    return folderPrefix + "." + name.substr(0, keep) + ".XXXXXX";
}

// Puts the finished temporary under dst's name. Without overwrite the name must still be
// free at this moment, not only when the copy started.
bool commit(const std::string& tmp, const std::string& dst, bool overwrite) {
    if (overwrite) return ::rename(tmp.c_str(), dst.c_str()) == 0;
    if (::renameat2(AT_FDCWD, tmp.c_str(), AT_FDCWD, dst.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != ENOTSUP) return false;
    // No RENAME_NOREPLACE here (NFS, some FUSE): a hard link also refuses an existing name.
    if (::link(tmp.c_str(), dst.c_str()) == 0) {
        ::unlink(tmp.c_str());
        return true;
    }
    if (errno == EEXIST) return false;
    // No hard links either (FAT, exFAT): check, then rename.
    struct stat st;
    if (::lstat(dst.c_str(), &st) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::rename(tmp.c_str(), dst.c_str()) == 0;
}

// Makes the rename itself durable. A failure here does not undo a copy already in place.
void syncFolder(const std::string& folder) {
    int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

int openForReading(const char* path) {
    for (;;) {
        int fd = ::open(path, O_RDONLY | O_CLOEXEC);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

} // namespace

iFileManager::eCopyRC copyFileSafely(const String& src, const String& dst,
                                     const iFileManager::ProgressFn& progress, bool overwrite,
                                     const FileCopyOptions& options) {
    std::string target(dst.view());
    size_t slash = target.rfind('/');
    std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    if (name.empty()) return iFileManager::eCopyNoDestination; // "" or a folder ("/a/b/")
    std::string folderPrefix =
        slash == std::string::npos ? std::string() : target.substr(0, slash + 1);

    if (src.empty()) return iFileManager::eCopyFailed;
    Descriptor in(openForReading(src.c_str()));
    if (in.get() < 0) return iFileManager::eCopyFailed;
    struct stat srcSt;
    if (::fstat(in.get(), &srcSt) != 0 || !S_ISREG(srcSt.st_mode)) return iFileManager::eCopyFailed;

    // Refused before any work is done; commit() checks again in case dst appears meanwhile.
    // The name itself is what gets replaced, so a link there counts as taken, and is
    // replaced rather than written through.
    struct stat dstSt;
    if (::lstat(target.c_str(), &dstSt) == 0 && (!overwrite || S_ISDIR(dstSt.st_mode)))
        return iFileManager::eCopyFailed;

    FileSizeSignalGuard signalGuard;
    TempFile tmp;
    if (!tmp.create(temporaryPattern(folderPrefix, name))) return rcForErrno(errno);

    const uint64_t total = uint64_t(srcSt.st_size);
    DataCopier copier(in.get(), tmp.fd(), total, progress, options);
    RC rc = copier.run();
    if (rc != iFileManager::eCopyOK) return rc;
    // Sets the length when the source ends in a hole, which nothing was written to.
    if (::ftruncate(tmp.fd(), off_t(total)) != 0) return rcForErrno(errno);

    // Permissions and times are a courtesy: file systems without them (FAT, some network
    // shares) refuse, and the copy is still good.
    ::fchmod(tmp.fd(), srcSt.st_mode & 0777);
    if (options.keepTimes) {
        const std::array times{srcSt.st_atim, srcSt.st_mtim};
        ::futimens(tmp.fd(), times.data());
    }
    if (::fsync(tmp.fd()) != 0) return rcForErrno(errno);
    if (!tmp.close()) return rcForErrno(errno);

    if (progress && !progress(total, total)) return iFileManager::eCopyCancelled;
    if (!commit(tmp.path(), target, overwrite)) return rcForErrno(errno);
    tmp.keep();
    syncFolder(folderPrefix.empty() ? std::string(".") : folderPrefix);
    return iFileManager::eCopyOK;
}

iFileManager::eCopyRC copyFileData(int in, int out, uint64_t total, const iFileManager::ProgressFn& progress,
                                   const FileCopyOptions& options) {
    FileSizeSignalGuard signalGuard;
    return DataCopier(in, out, total, progress, options).run();
}
