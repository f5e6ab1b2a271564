// When the library reads each configuration key.
#include "host/os/Config.h"
#include "playfile/Configuration.h"

#include <gtest/gtest.h>

TEST(Configuration, LoadTimeKeysKeepTheValueReadWhenTheLibraryWasLoaded) {
    // The test program sets nothing before load, so the defaults were read.
    setConfigValue("ReadPollDelay", 7);
    setConfigValue("numReaderThreads", 1);
    setConfigValue("NumAudioStreamsToPlay", 2);
    EXPECT_EQ(PlayfileConfig::readPollDelay(), 50);
    EXPECT_EQ(PlayfileConfig::numReaderThreads(), 4);
    EXPECT_EQ(PlayfileConfig::numAudioStreamsToPlay(), 99);
    clearConfigValue("ReadPollDelay");
    clearConfigValue("numReaderThreads");
    clearConfigValue("NumAudioStreamsToPlay");
}

TEST(Configuration, MaxAudioChannelsInShotIsReadOnEveryUse) {
    EXPECT_EQ(PlayfileConfig::maxAudioChansInShot(), 32);
    setConfigValue("max_audio_chans_in_shot", 0);
    EXPECT_EQ(PlayfileConfig::maxAudioChansInShot(), 0);
    clearConfigValue("max_audio_chans_in_shot");
    EXPECT_EQ(PlayfileConfig::maxAudioChansInShot(), 32);
}
