// The data part of a file copy, shared by the single copy and the copy batch (FileCopy.h):
// copying a source's data regions into an open destination (copy_file_range where the
// kernel can, a large buffer otherwise, holes left as holes), plus the small pieces every
// copy needs: the result code of an errno, an owned descriptor, and the guard that turns a
// file-size limit into an error instead of a fatal signal. Internal to host/os.
#pragma once

#include "host/os/FileManager.h"

#include <csignal>
#include <cstdint>
#include <memory>

struct FileCopyOptions;

namespace filecopy {

// eCopyNoSpace for a full disk, a quota or a size limit; eCopyFailed for anything else.
iFileManager::eCopyRC rcForErrno(int e) noexcept;

// Opens a file for reading, retrying on EINTR; -1 with errno set on failure.
int openForReading(const char* path) noexcept;

class Descriptor {
public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    Descriptor(Descriptor&& o) noexcept : fd_(o.release()) {}
    Descriptor& operator=(Descriptor&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = o.release();
        }
        return *this;
    }
    int get() const noexcept { return fd_; }
    int release() noexcept {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset() noexcept;

private:
    int fd_;
};

// Blocks SIGXFSZ on this thread for the guard's life, and swallows the one a write past
// RLIMIT_FSIZE raised (the kernel directs it at the writing thread), so that the write's
// EFBIG reaches us instead of the signal's default action killing the process.
class FileSizeSignalGuard {
public:
    FileSizeSignalGuard() noexcept;
    ~FileSizeSignalGuard();
    FileSizeSignalGuard(const FileSizeSignalGuard&) = delete;
    FileSizeSignalGuard& operator=(const FileSizeSignalGuard&) = delete;

private:
    static bool pending() noexcept;
    sigset_t set_;
    sigset_t previous_;
    bool wasPending_ = false;
};

// Walks the source's data regions and copies them in chunks, reporting progress after
// each chunk (never the final done == total call, which the caller makes once the copy
// is where it belongs). Each chunk is handed to the disk as it is written (write-behind),
// so that the disk works while the copy goes on and a later sync has little left to do.
class DataCopier {
public:
    DataCopier(int in, int out, uint64_t total, const iFileManager::ProgressFn& progress,
               const FileCopyOptions& options) noexcept;
    ~DataCopier();
    DataCopier(const DataCopier&) = delete;
    DataCopier& operator=(const DataCopier&) = delete;

    // eCopyOK when every byte is copied and the source did not shrink meanwhile.
    iFileManager::eCopyRC run();

private:
    bool report(uint64_t done) const;
    void writeBehind(uint64_t off, uint64_t n) noexcept;
    iFileManager::eCopyRC copyRange(uint64_t off, uint64_t n);
    iFileManager::eCopyRC writeAll(const char* p, size_t n, uint64_t at);

    int in_;
    int out_;
    uint64_t total_;
    const iFileManager::ProgressFn& progress_;
    uint64_t chunk_;
    bool useCopyFileRange_;
    std::unique_ptr<char[]> buffer_;
};

} // namespace filecopy
