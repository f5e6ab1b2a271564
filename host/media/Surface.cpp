#include "host/media/Surface.h"

#include <chrono>

namespace Zn::Image {

namespace {
const Core::Data kNoCore;
constexpr uint32_t kRowAlignment = 64;
} // namespace

Surface Surface::pending() {
    Surface s;
    s.rep_ = Zn::Ptr<Rep>(new Rep);
    return s;
}

Surface Surface::allocate(const Core::Interface& core) {
    Surface s = pending();
    s.allocatePixels(core);
    return s;
}

// Writing into an empty handle gives it a picture of its own, so a default-constructed
// surface can be filled in place.
Surface::Rep& Surface::rep() {
    if (!rep_) rep_ = Zn::Ptr<Rep>(new Rep);
    return *rep_;
}

bool Surface::allocatePixels(const Core::Interface& core) {
    eDataFormat f = core.getDataFormat();
    const PixelLayout& layout = pixelLayout(f);
    if (!layout.planes) return false;
    uint32_t w = core.getWidth(), h = core.getHeight();
    uint32_t strides[kMaxPlanes] = {};
    size_t total = 0;
    for (unsigned p = 0; p < layout.planes; ++p) {
        strides[p] = (minimumStride(f, p, w) + kRowAlignment - 1) & ~(kRowAlignment - 1);
        total += size_t(strides[p]) * planeHeight(f, p, h);
    }
    if (total > 0xFFFFFFFFu) return false;
    Zn::Ptr<iMemHolder> mem(new ByteBufferImpl(uint32_t(total)));
    mem->setUsed(uint32_t(total));
    uint8_t* planes[kMaxPlanes] = {};
    uint8_t* at = mem->getBuffer();
    for (unsigned p = 0; p < layout.planes; ++p) {
        planes[p] = at;
        at += size_t(strides[p]) * planeHeight(f, p, h);
    }
    attachPixels(core, planes, strides, mem);
    return true;
}

void Surface::attachPixels(const Core::Interface& core, uint8_t* const planes[kMaxPlanes],
                           const uint32_t strides[kMaxPlanes], Zn::Ptr<iMemHolder> keepAlive) {
    Rep& r = rep();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.core.copyCoreData(core);
    r.planeCount = 0;
    for (unsigned p = 0; p < kMaxPlanes; ++p) {
        r.planes[p] = planes[p];
        r.strides[p] = strides[p];
        if (planes[p]) r.planeCount = p + 1;
    }
    r.memory = std::move(keepAlive);
}

void Surface::attachContiguous(const Core::Interface& core, uint8_t* base, uint32_t stride0,
                               Zn::Ptr<iMemHolder> keepAlive) {
    uint8_t* planes[kMaxPlanes];
    uint32_t strides[kMaxPlanes];
    splitPlanes(core.getDataFormat(), core.getWidth(), core.getHeight(), base, stride0, planes, strides);
    attachPixels(core, planes, strides, std::move(keepAlive));
}

void Surface::setOrientation(eOrientation o) {
    Rep& r = rep();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.orientation = o;
}

void Surface::setColour(eColourSpace space, eColourRange range) {
    Rep& r = rep();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.colourSpace = space;
    r.colourRange = range;
}

void Surface::finish(eWaitResult state) {
    Rep& r = rep();
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        if (r.state != kWaitTimedOut) return;
        r.state = state;
    }
    r.changed.notify_all();
}

void Surface::set() { finish(kWaitComplete); }

void Surface::fail() { finish(kWaitFailed); }

Surface::eWaitResult Surface::wait(unsigned timeoutMs) const {
    if (!rep_) return kWaitFailed;
    Rep& r = *rep_;
    std::unique_lock<std::mutex> lock(r.mutex);
    auto done = [&] { return r.state != kWaitTimedOut; };
    if (timeoutMs == kInfinite) r.changed.wait(lock, done);
    else r.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), done);
    return r.state;
}

Surface::eWaitResult Surface::state() const {
    if (!rep_) return kWaitFailed;
    std::lock_guard<std::mutex> lock(rep_->mutex);
    return rep_->state;
}

bool Surface::valid() const {
    if (!rep_) return false;
    std::lock_guard<std::mutex> lock(rep_->mutex);
    return rep_->planeCount != 0;
}

const Core::Data& Surface::getCoreData() const { return rep_ ? rep_->core : kNoCore; }
unsigned Surface::planeCount() const { return rep_ ? rep_->planeCount : 0; }
uint8_t* Surface::plane(unsigned p) const { return rep_ && p < kMaxPlanes ? rep_->planes[p] : nullptr; }
uint32_t Surface::stride(unsigned p) const { return rep_ && p < kMaxPlanes ? rep_->strides[p] : 0; }
eOrientation Surface::getOrientation() const { return rep_ ? rep_->orientation : kOrientationNormal; }
eColourSpace Surface::getColourSpace() const { return rep_ ? rep_->colourSpace : kColourSpaceUnknown; }
eColourRange Surface::getColourRange() const { return rep_ ? rep_->colourRange : kColourRangeUnknown; }
Zn::Ptr<iMemHolder> Surface::getMemory() const { return rep_ ? rep_->memory : nullptr; }

} // namespace Zn::Image
