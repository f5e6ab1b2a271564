// The file input of the indexing pass: large reads, hollow payload ranges, kept errno.
#include "backends/ffmpeg/FfmpegFileInput.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace ffmpeg_engine {

namespace {
// libavformat's own buffer: packets larger than this are read straight into the packet,
// so a hollow payload costs no copy at all.
constexpr int kIoBufferBytes = 32 << 10;
} // namespace

Result<std::unique_ptr<FileInput>> FileInput::open(const std::string& path) {
    using R = Result<std::unique_ptr<FileInput>>;
    std::unique_ptr<FileInput> in(new FileInput);
    do
        in->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    while (in->fd_ < 0 && errno == EINTR);
    if (in->fd_ < 0) {
        const int e = errno;
        return R::fail(std::strerror(e), e);
    }
    struct stat st {};
    if (::fstat(in->fd_, &st) != 0) {
        const int e = errno;
        return R::fail(std::strerror(e), e);
    }
    in->size_ = st.st_size;
    auto* buffer = static_cast<uint8_t*>(av_malloc(kIoBufferBytes));
    if (buffer) in->io_ = avio_alloc_context(buffer, kIoBufferBytes, 0, in.get(), &FileInput::readPacket, nullptr,
                                             &FileInput::seek);
    if (!in->io_) {
        av_free(buffer);
        return R::fail("out of memory", ENOMEM);
    }
    return R::ok(std::move(in));
}

FileInput::~FileInput() {
    if (io_) {
        av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
    if (fd_ >= 0) ::close(fd_);
}

void FileInput::setHollow(std::vector<std::pair<int64_t, int64_t>> ranges) {
    hollow_ = std::move(ranges);
    blockLen_ = 0; // what the block holds may now be hollow
}

std::vector<std::pair<int64_t, int64_t>>::const_iterator FileInput::hollowAt(int64_t pos) const {
    // The first range that ends after pos.
    return std::upper_bound(hollow_.begin(), hollow_.end(), pos,
                            [](int64_t p, const std::pair<int64_t, int64_t>& r) { return p < r.second; });
}

bool FileInput::isHollow(int64_t pos, int64_t size) const {
    if (pos < 0 || size <= 0) return false;
    auto it = hollowAt(pos);
    return it != hollow_.end() && it->first <= pos && pos + size <= it->second;
}

bool FileInput::readAt(int64_t pos, void* buf, size_t n) {
    auto* out = static_cast<uint8_t*>(buf);
    while (n > 0) {
        const ssize_t got = ::pread(fd_, out, n, pos);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) readError_ = errno;
        if (got <= 0) return false;
        bytesRead_ += uint64_t(got);
        out += got;
        pos += got;
        n -= size_t(got);
    }
    return true;
}

void FileInput::keep(int64_t pos, std::shared_ptr<const std::vector<uint8_t>> bytes) {
    kept_ = std::move(bytes);
    keptPos_ = pos;
}

int FileInput::readPacket(void* self, uint8_t* buf, int size) { return static_cast<FileInput*>(self)->read(buf, size); }

int64_t FileInput::seek(void* self, int64_t offset, int whence) {
    auto* in = static_cast<FileInput*>(self);
    int64_t to;
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return in->size_;
    case SEEK_SET: to = offset; break;
    case SEEK_CUR: to = in->pos_ + offset; break;
    case SEEK_END: to = in->size_ + offset; break;
    default: return AVERROR(EINVAL);
    }
    if (to < 0) return AVERROR(EINVAL);
    in->pos_ = to;
    return to;
}

int FileInput::read(uint8_t* buf, int size) {
    if (size <= 0) return 0;
    if (pos_ >= size_) return AVERROR_EOF;
    if (kept_ && pos_ >= keptPos_ && pos_ - keptPos_ < int64_t(kept_->size())) {
        const int n = int(std::min<int64_t>(size, keptPos_ + int64_t(kept_->size()) - pos_));
        std::memcpy(buf, kept_->data() + (pos_ - keptPos_), size_t(n));
        pos_ += n;
        return n;
    }
    auto next = hollowAt(pos_);
    if (next != hollow_.end() && next->first <= pos_) {
        // Nobody looks at these bytes: the packet keeps whatever its buffer held.
        const int n = int(std::min<int64_t>({size, next->second - pos_, size_ - pos_}));
        pos_ += n;
        return n;
    }
    int64_t realEnd = next != hollow_.end() ? std::min(next->first, size_) : size_;
    if (kept_ && keptPos_ > pos_) realEnd = std::min(realEnd, keptPos_);
    const int n = int(std::min<int64_t>(size, realEnd - pos_));
    if (pos_ < blockPos_ || pos_ >= blockPos_ + int64_t(blockLen_)) {
        // Read ahead, up to the next hollow range: more each time the reading goes on
        // where the last block ended.
        nextBlock_ = pos_ == blockPos_ + int64_t(blockLen_) ? std::min(nextBlock_ * 2, kBlockBytes) : kFirstBlockBytes;
        // Not zeroed: only the bytes a read fills are ever touched.
        if (!block_) block_.reset(new (std::nothrow) uint8_t[kBlockBytes]);
        if (!block_) return AVERROR(ENOMEM);
        const size_t want = size_t(std::min<int64_t>(int64_t(nextBlock_), realEnd - pos_));
        ssize_t got;
        do
            got = ::pread(fd_, block_.get(), want, pos_);
        while (got < 0 && errno == EINTR);
        if (got < 0) {
            readError_ = errno;
            return AVERROR(readError_);
        }
        if (got == 0) return AVERROR_EOF; // the file shrank under us
        blockPos_ = pos_;
        blockLen_ = size_t(got);
        bytesRead_ += uint64_t(got);
    }
    const int copied = int(std::min<int64_t>(n, blockPos_ + int64_t(blockLen_) - pos_));
    std::memcpy(buf, block_.get() + (pos_ - blockPos_), size_t(copied));
    pos_ += copied;
    return copied;
}

} // namespace ffmpeg_engine
