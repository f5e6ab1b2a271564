// MD5 digests of pictures and samples, so that `playfile frames --md5` and `playfile audio
// --md5` can be set beside what `ffmpeg -f framemd5` and FFmpeg's decoded samples hash to.
// The program links no FFmpeg of its own (the back-ends are plug-ins), hence this small
// implementation of RFC 1321.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tool {

class Md5 {
public:
    Md5();
    void add(const void* data, size_t bytes);
    // The digest in lower-case hexadecimal; the object is spent afterwards.
    std::string hex();

private:
    void block(const uint8_t* p);
    uint32_t state_[4];
    uint64_t length_ = 0;
    uint8_t pending_[64];
    size_t pendingBytes_ = 0;
};

} // namespace tool
