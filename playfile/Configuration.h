// The configuration keys the library reads from the host's configuration store, with
// their defaults and when each is read:
//
//   key                      default  read
//   "playfileCacheSizeMin"   2        on the first call of PlayFileCache::Shared()
//   "playfileCacheSizeMax"   4        on the first call of PlayFileCache::Shared()
//   "numReaderThreads"       4        when the library is loaded
//   "ReadPollDelay"          50       when the library is loaded
//   "NumAudioStreamsToPlay"  99       when the library is loaded
//   "max_audio_chans_in_shot" 32      on every use
//
// A value read once is kept until the library is loaded again; later changes of the
// stored value are deliberately not seen.
#pragma once

#include "playfile/Export.h"

namespace PlayfileConfig {

struct Key {
    const char* name;
    int defaultValue;
};

inline constexpr Key kCacheSizeMin{"playfileCacheSizeMin", 2};
inline constexpr Key kCacheSizeMax{"playfileCacheSizeMax", 4};
inline constexpr Key kNumReaderThreads{"numReaderThreads", 4};
inline constexpr Key kReadPollDelay{"ReadPollDelay", 50};
inline constexpr Key kNumAudioStreamsToPlay{"NumAudioStreamsToPlay", 99};
inline constexpr Key kMaxAudioChansInShot{"max_audio_chans_in_shot", 32};

// Reads the key from the store now.
PLAYFILE_API int read(const Key& key);

// The load-time values. They are read by a static initialiser of the library; a call
// made earlier in static initialisation reads them then, so no caller sees a value that
// is not yet set.
PLAYFILE_API int numReaderThreads();
PLAYFILE_API int readPollDelay();
PLAYFILE_API int numAudioStreamsToPlay();

// Read afresh on every call.
inline int maxAudioChansInShot() { return read(kMaxAudioChansInShot); }

} // namespace PlayfileConfig
