#include "playfile/open/OpenType.h"

#include <cstdio>

const char* OpenType::asString(OpenType type) noexcept {
    switch (uint32_t(type)) {
    case kNone: return "none";
    case kVideo: return "video";
    case kAudio: return "audio";
    case kVideoAndAudio: return "video+audio";
    }
    // Bits the library does not define; printed rather than hidden.
    static thread_local char text[16];
    std::snprintf(text, sizeof text, "0x%x", unsigned(uint32_t(type)));
    return text;
}
