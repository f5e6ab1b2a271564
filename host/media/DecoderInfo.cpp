#include "host/media/DecoderInfo.h"

#include "host/media/CodecPool.h"
#include "host/os/Log.h"

#include <exception>

namespace Zn {

iDecoder::eDecodeResult iDecoder::decodeFrame(Zn::Ptr<FrameBufferRep>& buffer) {
    if (!buffer) return kDecodeFailed;
    eDecodeResult rc;
    try {
        rc = decode(buffer);
    } catch (const std::exception& e) {
        LogBoth("Decoder %s failed: %s\n", name().c_str(), e.what());
        return kDecodeFailed;
    } catch (...) {
        LogBoth("Decoder %s failed\n", name().c_str());
        return kDecodeFailed;
    }
    if (rc == kDecoded && buffer->getDecompressionState() != FrameBufferRep::kDecompressed)
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
    for (const auto& factory : instance().factories_.snapshot()) {
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

} // namespace Zn
