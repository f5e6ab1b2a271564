// Media held in memory, opened by name as if it were a file: every demuxer the engine opens
// on the name reads the bytes through a custom AVIOContext (seekable, its size known). The
// fuzz target of the back-end's open path feeds its inputs this way. What reads a file
// directly rather than through a demuxer (the check that PCM packets lie in the file as
// stored) does not apply to such media: their PCM is decoded like any other codec.
#pragma once

extern "C" {
#include <libavformat/avio.h>
}

#include <cstdint>
#include <memory>
#include <string>

namespace ffmpeg_engine {

// Registers bytes under a name of its own ("memory:N") for as long as it lives.
class MemoryMedia {
public:
    explicit MemoryMedia(std::string bytes);
    ~MemoryMedia();
    MemoryMedia(const MemoryMedia&) = delete;
    MemoryMedia& operator=(const MemoryMedia&) = delete;
    const std::string& name() const { return name_; }
    size_t size() const { return bytes_->size(); }

private:
    std::string name_;
    std::shared_ptr<const std::string> bytes_;
};

// One reader of registered media: the AVIOContext a demuxer reads through, and where it
// stands. Keeps the bytes alive even when the registration ends first.
class MemoryReader {
public:
    // Null when nothing is registered under name.
    static std::unique_ptr<MemoryReader> open(const std::string& name);
    ~MemoryReader();
    MemoryReader(const MemoryReader&) = delete;
    MemoryReader& operator=(const MemoryReader&) = delete;
    AVIOContext* io() const { return io_; }

private:
    explicit MemoryReader(std::shared_ptr<const std::string> bytes) : bytes_(std::move(bytes)) {}
    static int read(void* self, uint8_t* buffer, int size);
    static int64_t seek(void* self, int64_t offset, int whence);

    std::shared_ptr<const std::string> bytes_;
    int64_t pos_ = 0;
    AVIOContext* io_ = nullptr;
};

// Whether name is registered media (and its size in bytes).
bool isMemoryMedia(const std::string& name, size_t* size = nullptr);

} // namespace ffmpeg_engine
