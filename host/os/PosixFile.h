// iFile over a POSIX file descriptor: sequential reads from a current position and
// positioned reads that leave it alone. The descriptor is closed with the last reference.
#pragma once

#include "host/os/FileManager.h"

class PosixFile final : public iFile {
public:
    // Takes ownership of fd, an open, readable descriptor.
    PosixFile(int fd, const WString& name) noexcept : fd_(fd), name_(name) {}
    ~PosixFile() override;
    PosixFile(const PosixFile&) = delete;
    PosixFile& operator=(const PosixFile&) = delete;

    // read, seek and position share one current position and are for one reader at a
    // time; readAt may be called from any number of threads at once.
    int64_t read(void* buf, uint64_t n) override;
    int64_t readAt(uint64_t offset, void* buf, uint64_t n) override;
    bool seek(uint64_t offset) override;
    uint64_t position() const override { return position_; }
    // Asked of the file system on each call, so that a file still being written (a
    // capture in progress) is seen growing.
    uint64_t size() const override;
    const WString& name() const override { return name_; }

private:
    int fd_;
    WString name_;
    uint64_t position_ = 0;
};
