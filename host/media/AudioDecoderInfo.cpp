#include "host/media/AudioDecoderInfo.h"

#include "host/os/Log.h"

#include <exception>

namespace Zn {

eAudioResult AudioCodecInstance::decodeAudioStream(const uint8_t* data, uint32_t size, uint32_t& samples) {
    samples = 0;
    try {
        return decode(data, size, samples);
    } catch (const std::exception& e) {
        LogBoth("Audio decoder %s failed: %s\n", name().c_str(), e.what());
    } catch (...) {
        LogBoth("Audio decoder %s failed\n", name().c_str());
    }
    samples = 0;
    return kFailed;
}

// Never destroyed: audio may still be decoded while the process exits.
AudioDecoderInfo& AudioDecoderInfo::instance() {
    static AudioDecoderInfo* info = new AudioDecoderInfo;
    return *info;
}

Zn::Ptr<AudioCodecInstance> AudioDecoderInfo::getDecodersFor(const Aud::Metadata& stream,
                                                             const Zn::Ptr<iMemHolder>& header) {
    for (const auto& factory : instance().factories_.snapshot()) {
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

} // namespace Zn
