// eClipRead: the answer to asking for a read of a clip's media (ClipMedia's read requests).
#pragma once

// What asking for a read of a clip's media came to. The values are the host's result codes,
// which is what resultCode gives where a number is wanted.
enum class eClipRead : int {
    kVideoQueued = 0,     // the frame's request is queued (or answered already)
    kAudioCreated = 1,    // the audio request is made, for the caller to queue
    kNotAvailable = 2000, // no such file, frame or channel
    kAudioPastEnd = 2061, // the audio read starts at or past the end of the material
};

constexpr int resultCode(eClipRead result) noexcept { return static_cast<int>(result); }
