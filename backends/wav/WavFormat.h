// The RIFF WAVE format: parsing of a file's header chunks (PCM 8/16/24/32-bit integer,
// 32/64-bit float, WAVE_FORMAT_EXTENSIBLE, RF64/BW64 for files over 4 GiB, and data
// chunks whose size runs to the end of the file) and the header a writer puts in front
// of its samples. It reads through a callback, so it serves files and memory alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace wav {

inline constexpr uint16_t kFormatPcm = 1;
inline constexpr uint16_t kFormatFloat = 3;
inline constexpr uint16_t kFormatExtensible = 0xFFFE;
inline constexpr unsigned kMaxChannels = 1024;
inline constexpr uint32_t kMaxSampleRate = 8000000;

struct Info {
    uint16_t formatTag = kFormatPcm; // PCM or float, after resolving an extensible header
    bool extensible = false;
    uint16_t channels = 0;
    uint32_t sampleRate = 0;
    uint16_t bitsPerSample = 0; // container bits: 8, 16, 24, 32 or 64
    uint16_t validBits = 0;     // significant bits (extensible headers), else bitsPerSample
    uint16_t blockAlign = 0;    // bytes of one sample frame (all channels)
    uint32_t channelMask = 0;
    bool rf64 = false;
    bool dataRunsToEnd = false; // the data chunk's size was unknown or past the end
    uint64_t dataOffset = 0;
    uint64_t dataBytes = 0;     // whole sample frames only

    bool isFloat() const { return formatTag == kFormatFloat; }
    unsigned bytesPerSample() const { return bitsPerSample / 8u; }
    uint64_t frames() const { return blockAlign ? dataBytes / blockAlign : 0; }
};

// Reads up to n bytes at offset; answers the number read (0 at the end) or -1.
using ReadAt = std::function<int64_t(uint64_t offset, void* buf, size_t n)>;

// Parses the header chunks of a file of fileSize bytes. On failure answers false with a
// one-line reason in error ("not a RIFF WAVE file", "absurd channel count 0", ...).
bool parseHeader(const ReadAt& read, uint64_t fileSize, Info& out, std::string& error);

// The bytes a writer puts before the samples: RIFF (or RF64 when the sizes need it) with
// a format chunk and the data chunk's header, for dataBytes of samples. The header has
// the same length whatever dataBytes is, so a writer can rewrite it in place at the end.
std::vector<uint8_t> makeHeader(const Info& format, uint64_t dataBytes);

} // namespace wav
