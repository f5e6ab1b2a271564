// Reading a file through its descriptor with pread, so that the current position is ours
// and positioned reads from several threads do not disturb each other.
#include "host/os/PosixFile.h"

#include <cerrno>
#include <cstdint>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// One pread asks for at most this much; Linux moves at most ~2 GiB per call anyway.
constexpr uint64_t kMaxSyscallBytes = uint64_t(1) << 30;
constexpr uint64_t kMaxOffset = uint64_t(INT64_MAX);
} // namespace

PosixFile::~PosixFile() {
    // Linux releases the descriptor even when close reports an error (EINTR included),
    // so it is never retried: that could close a descriptor another thread just opened.
    if (fd_ >= 0) ::close(fd_);
}

int64_t PosixFile::readAt(uint64_t offset, void* buf, uint64_t n) {
    if (offset > kMaxOffset) return -1;
    if (n > kMaxOffset - offset) n = kMaxOffset - offset;
    // Keep reading after a short read: network file systems and signals cut reads short
    // well before the end of the file.
    uint64_t done = 0;
    auto* out = static_cast<char*>(buf);
    while (done < n) {
        size_t want = size_t(n - done < kMaxSyscallBytes ? n - done : kMaxSyscallBytes);
        ssize_t got = ::pread(fd_, out + done, want, off_t(offset + done));
        if (got < 0) {
            if (errno == EINTR) continue;
            return done > 0 ? int64_t(done) : -1;
        }
        if (got == 0) break;
        done += uint64_t(got);
    }
    return int64_t(done);
}

int64_t PosixFile::read(void* buf, uint64_t n) {
    int64_t got = readAt(position_, buf, n);
    if (got > 0) position_ += uint64_t(got);
    return got;
}

bool PosixFile::seek(uint64_t offset) {
    // Past the end is allowed, as with lseek: reads there answer 0.
    if (offset > kMaxOffset) return false;
    position_ = offset;
    return true;
}

uint64_t PosixFile::size() const {
    struct stat st;
    if (::fstat(fd_, &st) != 0) return 0;
    return uint64_t(st.st_size);
}
