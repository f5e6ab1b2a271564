// The registry of in-memory media and the AVIOContext that reads them.
#include "backends/ffmpeg/FfmpegMemoryMedia.h"

#include "host/threads/PlainMutex.h"

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <map>

namespace ffmpeg_engine {

namespace {

constexpr int kBufferBytes = 32768;

// Guards the registry; held only to look up, add or remove an entry.
PlainMutex g_mutex;
std::map<std::string, std::shared_ptr<const std::string>>& registry() REQUIRES(g_mutex) {
    static std::map<std::string, std::shared_ptr<const std::string>> r;
    return r;
}

std::shared_ptr<const std::string> find(const std::string& name) {
    PlainMutex::Lock lock(g_mutex);
    auto it = registry().find(name);
    return it == registry().end() ? nullptr : it->second;
}

} // namespace

MemoryMedia::MemoryMedia(std::string bytes) : bytes_(std::make_shared<const std::string>(std::move(bytes))) {
    static std::atomic<uint64_t> counter{0};
    name_ = "memory:" + std::to_string(++counter);
    PlainMutex::Lock lock(g_mutex);
    registry()[name_] = bytes_;
}

MemoryMedia::~MemoryMedia() {
    PlainMutex::Lock lock(g_mutex);
    registry().erase(name_);
}

bool isMemoryMedia(const std::string& name, size_t* size) {
    auto bytes = find(name);
    if (bytes && size) *size = bytes->size();
    return bytes != nullptr;
}

std::unique_ptr<MemoryReader> MemoryReader::open(const std::string& name) {
    auto bytes = find(name);
    if (!bytes) return nullptr;
    std::unique_ptr<MemoryReader> r(new MemoryReader(std::move(bytes)));
    auto* buffer = static_cast<unsigned char*>(av_malloc(kBufferBytes));
    if (!buffer) return nullptr;
    r->io_ = avio_alloc_context(buffer, kBufferBytes, 0, r.get(), &MemoryReader::read, nullptr, &MemoryReader::seek);
    if (!r->io_) {
        av_free(buffer);
        return nullptr;
    }
    return r;
}

MemoryReader::~MemoryReader() {
    if (io_) av_freep(&io_->buffer); // the context may have replaced the buffer it was given
    avio_context_free(&io_);
}

int MemoryReader::read(void* self, uint8_t* buffer, int size) {
    auto* r = static_cast<MemoryReader*>(self);
    const int64_t left = int64_t(r->bytes_->size()) - r->pos_;
    if (left <= 0 || size <= 0) return AVERROR_EOF;
    const int n = int(std::min<int64_t>(size, left));
    std::memcpy(buffer, r->bytes_->data() + r->pos_, size_t(n));
    r->pos_ += n;
    return n;
}

int64_t MemoryReader::seek(void* self, int64_t offset, int whence) {
    auto* r = static_cast<MemoryReader*>(self);
    const int64_t size = int64_t(r->bytes_->size());
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return size;
    case SEEK_SET: break;
    case SEEK_CUR: offset = offset > INT64_MAX - r->pos_ ? -1 : offset + r->pos_; break;
    case SEEK_END: offset = offset > INT64_MAX - size ? -1 : offset + size; break;
    default: return AVERROR(EINVAL);
    }
    if (offset < 0) return AVERROR(EINVAL);
    r->pos_ = offset; // past the end reads give end of file
    return offset;
}

} // namespace ffmpeg_engine
