#include "host/media/AudioDecoderInfo.h"

#include "host/os/Log.h"

#include <algorithm>
#include <exception>

namespace Zn {

int AudioCodecInstance::decodeAudioStream(const uint8_t* data, uint32_t size, uint32_t& samples) {
    samples = 0;
    try {
        return decode(data, size, samples);
    } catch (const std::exception& e) {
        LogBoth("Audio decoder %s failed: %s\n", name().c_str(), e.what());
    } catch (...) {
        LogBoth("Audio decoder %s failed\n", name().c_str());
    }
    samples = 0;
    return 0;
}

// Never destroyed: audio may still be decoded while the process exits.
AudioDecoderInfo& AudioDecoderInfo::instance() {
    static AudioDecoderInfo* info = new AudioDecoderInfo;
    return *info;
}

Zn::Ptr<AudioCodecInstance> AudioDecoderInfo::getDecodersFor(const Aud::Metadata& stream,
                                                             const Zn::Ptr<iMemHolder>& header) {
    for (const auto& factory : instance().factories()) {
        Zn::Ptr<AudioCodecInstance> made;
        try {
            if (!factory->canDecode(stream)) continue;
            made = factory->createCodec(stream, header);
        } catch (const std::exception& e) {
            LogBoth("Audio decoder %s failed: %s\n", factory->name().c_str(), e.what());
        } catch (...) {
            LogBoth("Audio decoder %s failed\n", factory->name().c_str());
        }
        if (made) return made;
    }
    return nullptr;
}

void AudioDecoderInfo::registerFactory(Zn::Ptr<iAudioDecoderFactory> factory, int position) {
    if (!factory) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (position < 0 || size_t(position) >= factories_.size())
        factories_.push_back(std::move(factory));
    else
        factories_.insert(factories_.begin() + position, std::move(factory));
}

bool AudioDecoderInfo::unregisterFactory(const Zn::Ptr<iAudioDecoderFactory>& factory) {
    Zn::Ptr<iAudioDecoderFactory> dropped; // released after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find(factories_.begin(), factories_.end(), factory);
    if (it == factories_.end()) return false;
    dropped = std::move(*it);
    factories_.erase(it);
    return true;
}

unsigned AudioDecoderInfo::numFactories() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unsigned(factories_.size());
}

std::vector<Zn::Ptr<iAudioDecoderFactory>> AudioDecoderInfo::factories() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return factories_;
}

} // namespace Zn
