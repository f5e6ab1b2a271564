#include "host/media/FrameBufferRep.h"

#include <cstring>

bool VideoDecompressionInfo::sameDecoderAs(const VideoDecompressionInfo& o) const {
    if (codec != o.codec || codecTag != o.codecTag || !core.coreDataEquals(o.core)) return false;
    uint32_t a = extraData ? extraData->getUsed() : 0;
    uint32_t b = o.extraData ? o.extraData->getUsed() : 0;
    if (a != b) return false;
    return a == 0 || std::memcmp(extraData->getBuffer(), o.extraData->getBuffer(), a) == 0;
}

FrameBufferRep::FrameBufferRep() = default;

FrameBufferRep::FrameBufferRep(const DecodeFormat& format, Zn::Ptr<IndexInfoRep> index, uint32_t frame)
    : format_(format), index_(std::move(index)), firstFrame_(frame), surfaces_(1), data_(1) {}

FrameBufferRep::FrameBufferRep(const DecodeFormat& format, uint32_t firstFrame, uint32_t numFrames,
                               bool streaming)
    : format_(format), firstFrame_(firstFrame), streaming_(streaming), data_(numFrames) {
    surfaces_.reserve(numFrames);
    for (uint32_t i = 0; i < numFrames; ++i) surfaces_.push_back(Zn::Image::Surface::pending());
}

FrameBufferRep::FrameBufferRep(uint32_t frame, const Zn::Image::Surface& surface)
    : firstFrame_(frame), surfaces_(1, surface), data_(1) {}

Zn::Image::Surface FrameBufferRep::getSurface(uint32_t i) const {
    return i < surfaces_.size() ? surfaces_[i] : Zn::Image::Surface();
}

void FrameBufferRep::setSurface(uint32_t i, const Zn::Image::Surface& s) {
    if (i < surfaces_.size()) surfaces_[i] = s;
}

void FrameBufferRep::setCompressedData(uint32_t i, Zn::Ptr<iMemHolder> data) {
    if (i < data_.size()) data_[i] = std::move(data);
}

uint8_t* FrameBufferRep::getCompressedData(uint32_t i) const {
    return i < data_.size() && data_[i] ? data_[i]->getBuffer() : nullptr;
}

uint32_t FrameBufferRep::getCompressedSize(uint32_t i) const {
    return i < data_.size() && data_[i] ? data_[i]->getUsed() : 0;
}

const Zn::Ptr<iMemHolder>& FrameBufferRep::getCompressedMemory(uint32_t i) const {
    static const Zn::Ptr<iMemHolder> none;
    return i < data_.size() ? data_[i] : none;
}

bool FrameBufferRep::isCompressedFormat() const noexcept { return !data_.empty() && data_[0]; }

void FrameBufferRep::setDecompressComplete(int32_t state) {
    state_.store(state, std::memory_order_release);
    if (state != kDecompressed && state != kDecompressFailed) return;
    for (auto& s : surfaces_) {
        if (s.empty()) continue;
        if (state == kDecompressed) s.set();
        else s.fail();
    }
}
