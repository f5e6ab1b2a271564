#include "playfile/Configuration.h"

#include "host/os/Config.h"

namespace PlayfileConfig {

int read(const Key& key) { return config_int(key.name, key.defaultValue); }

int numReaderThreads() {
    static const int value = read(kNumReaderThreads);
    return value;
}

int readPollDelay() {
    static const int value = read(kReadPollDelay);
    return value;
}

int numAudioStreamsToPlay() {
    static const int value = read(kNumAudioStreamsToPlay);
    return value;
}

namespace {
// Reads the three load-time keys when the library is loaded.
[[maybe_unused]] const int g_loadTimeKeys = numReaderThreads() + readPollDelay() + numAudioStreamsToPlay();
} // namespace

} // namespace PlayfileConfig
