#include "host/media/DecoderInfo.h"

#include "host/media/CodecPool.h"
#include "host/os/Log.h"

#include <algorithm>
#include <exception>

namespace Zn {

int iDecoder::decodeFrame(Zn::Ptr<FrameBufferRep>& buffer) {
    if (!buffer) return 0;
    int rc;
    try {
        rc = decode(buffer);
    } catch (const std::exception& e) {
        LogBoth("Decoder %s failed: %s\n", name().c_str(), e.what());
        return 0;
    } catch (...) {
        LogBoth("Decoder %s failed\n", name().c_str());
        return 0;
    }
    if (rc == 1 && buffer->getDecompressionState() != FrameBufferRep::kDecompressed)
        buffer->setDecompressComplete(FrameBufferRep::kDecompressed);
    return rc;
}

// Never destroyed: frames may still be decoded while the process exits.
DecoderInfo& DecoderInfo::instance() {
    static DecoderInfo* info = new DecoderInfo;
    return *info;
}

Zn::Ptr<iDecoder> DecoderInfo::getDecoderFor(const VideoDecompressionInfo& info) {
    if (Zn::Ptr<iDecoder> pooled = CodecPool::instance().take(info)) return pooled;
    for (const auto& factory : instance().factories()) {
        if (!factory->canDecode(info)) continue;
        Zn::Ptr<iDecoder> made;
        try {
            made = factory->createDecoder(info);
        } catch (const std::exception& e) {
            LogBoth("Decoder %s failed: %s\n", factory->name().c_str(), e.what());
        } catch (...) {
            LogBoth("Decoder %s failed\n", factory->name().c_str());
        }
        if (!made) continue;
        CodecPool::instance().add(info, made);
        return made;
    }
    return nullptr;
}

void DecoderInfo::registerFactory(Zn::Ptr<iDecoderFactory> factory, int position) {
    if (!factory) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (position < 0 || size_t(position) >= factories_.size()) factories_.push_back(std::move(factory));
    else factories_.insert(factories_.begin() + position, std::move(factory));
}

bool DecoderInfo::unregisterFactory(const Zn::Ptr<iDecoderFactory>& factory) {
    Zn::Ptr<iDecoderFactory> dropped; // released after the lock
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find(factories_.begin(), factories_.end(), factory);
    if (it == factories_.end()) return false;
    dropped = std::move(*it);
    factories_.erase(it);
    return true;
}

unsigned DecoderInfo::numFactories() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unsigned(factories_.size());
}

std::vector<Zn::Ptr<iDecoderFactory>> DecoderInfo::factories() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return factories_;
}

} // namespace Zn
