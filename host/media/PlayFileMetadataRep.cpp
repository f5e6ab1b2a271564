#include "host/media/PlayFileMetadataRep.h"

uint32_t PlayFileMetadataRep::getTotalChannels() const noexcept {
    uint32_t total = 0;
    for (const auto& m : audio_) total += m.getNumChannels();
    return total;
}
