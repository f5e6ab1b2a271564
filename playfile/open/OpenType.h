// OpenType: the kind of access wanted from a media file, as a bit set: 1 video, 2 audio,
// 3 both. It keys the cache of open files together with the file name and decides which
// read queues a file read instance gets.
#pragma once

#include "playfile/Export.h"

#include <cstdint>

class PLAYFILE_API OpenType {
public:
    enum eBits : uint32_t {
        kNone = 0,
        kVideo = 1,
        kAudio = 2,
        kVideoAndAudio = 3,
    };

    constexpr OpenType(uint32_t bits = kNone) noexcept : bits_(bits) {}
    constexpr operator uint32_t() const noexcept { return bits_; }

    constexpr bool hasVideo() const noexcept { return (bits_ & kVideo) != 0; }
    constexpr bool hasAudio() const noexcept { return (bits_ & kAudio) != 0; }
    // True when every bit of wanted is in this set.
    constexpr bool hasAll(uint32_t wanted) const noexcept { return (bits_ & wanted) == wanted; }

    // The printable name for log lines: "none", "video", "audio", "video+audio", or the
    // number for anything else.
    static const char* asString(OpenType type) noexcept;

private:
    uint32_t bits_;
};
