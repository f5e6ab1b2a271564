// Which media of a clip a call is about: the clip's own (high-resolution) material, its
// proxy media, or both; and the level of media an audio read is made from.
#pragma once

#include <cstdint>

// A bit set.
enum eMediaTypes : uint32_t {
    kMediaNone = 0,
    kMediaHighRes = 1,
    kMediaProxy = 2,
    kMediaAll = 3,
};

// The media an audio read comes from; its value is the mode of the decode format the read
// opens the file with (DecodeFormat::eMode).
enum eProxyLevel : int32_t {
    kProxyLevelHighRes = 1,
    kProxyLevelProxy = 2,
};
