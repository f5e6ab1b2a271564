// Zn::eAudioResult: how one step of reading or decoding audio went. The same numbers serve
// a back-end's raw reads, a codec's decode and the audio reader's own steps, so they are
// one type. A back-end or codec may answer a failure number of its own (any value not
// listed); it is reported by number in the reader's log line.
#pragma once

namespace Zn {

enum class eAudioResult : int {
    kFailed = 0,
    kSuccess = 1,
    kEndedEarly = 11, // the data ended before the request was filled; what came is kept
};

// Success, including data that ended early.
constexpr bool succeeded(eAudioResult r) noexcept {
    return r == eAudioResult::kSuccess || r == eAudioResult::kEndedEarly;
}

} // namespace Zn
