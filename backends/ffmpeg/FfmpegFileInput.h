// A file handed to libavformat through an AVIOContext of our own, for indexing a file at
// open. Reads go to the file in blocks that grow while the reading goes on in order (to
// kBlockBytes), so that a pass over the whole file is one sequential read in big pieces
// while the scattered reads of a header stay small. Byte ranges marked hollow (packet payloads nobody will look
// at, known from the container's own tables) are answered without reading them: their
// bytes in the packets are left as they are, and the demuxer never notices. One range may
// be kept in memory (a QuickTime moov box, read once for our own use): the demuxer's reads
// of it are served from there instead of the file. The errno of a
// failed open or read is kept, so that a storage failure can be told from a damaged file.
// Belongs to one thread.
#pragma once

#include "backends/ffmpeg/FfmpegCommon.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ffmpeg_engine {

class FileInput {
public:
    // Bytes asked of the file at once: the first read after a jump, and at most.
    static constexpr size_t kFirstBlockBytes = size_t(64) << 10;
    static constexpr size_t kBlockBytes = size_t(2) << 20;

    // Opens path for reading; fails with the errno in Result::cause.
    static Result<std::unique_ptr<FileInput>> open(const std::string& path);
    ~FileInput();
    FileInput(const FileInput&) = delete;
    FileInput& operator=(const FileInput&) = delete;

    // The context to put in AVFormatContext::pb (owned here).
    AVIOContext* io() const { return io_; }
    int64_t size() const { return size_; }

    // From now on, bytes inside these [begin, end) ranges are not read. Sorted, disjoint.
    void setHollow(std::vector<std::pair<int64_t, int64_t>> ranges);
    // True when [pos, pos + size) lies inside one hollow range: its bytes were not read.
    bool isHollow(int64_t pos, int64_t size) const;
    // Reads n bytes at pos straight from the file (counted in bytesRead); false when they
    // cannot all be read (readError then says why, if the system failed).
    bool readAt(int64_t pos, void* buf, size_t n);
    // From now on, reads of [pos, pos + bytes->size()) are answered from bytes.
    void keep(int64_t pos, std::shared_ptr<const std::vector<uint8_t>> bytes);
    // Bytes really read from the file.
    uint64_t bytesRead() const { return bytesRead_; }
    // The errno of the last failed read, 0 when none failed.
    int readError() const { return readError_; }

private:
    FileInput() = default;
    static int readPacket(void* self, uint8_t* buf, int size);
    static int64_t seek(void* self, int64_t offset, int whence);
    int read(uint8_t* buf, int size);
    // The hollow range holding pos, or the first after it.
    std::vector<std::pair<int64_t, int64_t>>::const_iterator hollowAt(int64_t pos) const;

    int fd_ = -1;
    int64_t size_ = 0;
    int64_t pos_ = 0;
    AVIOContext* io_ = nullptr;
    std::unique_ptr<uint8_t[]> block_; // kBlockBytes; file bytes [blockPos_, blockPos_ + blockLen_)
    int64_t blockPos_ = -1;
    size_t blockLen_ = 0;
    std::vector<std::pair<int64_t, int64_t>> hollow_;
    std::shared_ptr<const std::vector<uint8_t>> kept_; // the file's bytes from keptPos_
    int64_t keptPos_ = 0;
    size_t nextBlock_ = kFirstBlockBytes;
    uint64_t bytesRead_ = 0;
    int readError_ = 0;
};

} // namespace ffmpeg_engine
