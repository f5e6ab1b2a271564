// Zn::Image::Surface: one picture, as a handle that copies share. A surface may be handed
// out before its picture exists (a frame still being decoded on another thread): holders
// wait() for it, and the writer attaches the pixels and calls set() (or fail()). The pixels
// are either owned (allocated by the surface) or borrowed from memory that something else
// keeps alive, such as the compressed-data block of a frame buffer that already holds raw
// pixels.
#pragma once

#include "host/core/RefCount.h"
#include "host/media/ImageCore.h"
#include "host/media/MemHolder.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Zn::Image {

class Surface {
public:
    // What wait() answers; the decompression states of a frame buffer use the same numbers.
    enum class eWaitResult : int {
        kWaitTimedOut = 0,
        kWaitComplete = 3,
        kWaitFailed = 4,
    };
    using enum eWaitResult;
    static constexpr unsigned kInfinite = 0xFFFFFFFFu;

    // An empty surface: no picture, nothing to wait for (wait answers kWaitFailed at once).
    Surface() noexcept = default;
    // A picture still to come: waiters block until set() or fail().
    static Surface pending();
    // A pending surface with owned pixels for the format, rows padded to 64 bytes.
    static Surface allocate(const Core::Interface& core);

    // Writer side. These may run while other threads wait; the picture's fields must not
    // be read by other threads until wait() answered kWaitComplete.
    //
    // Attaches owned pixels for the format (replacing any earlier ones).
    bool allocatePixels(const Core::Interface& core);
    // Borrows pixels laid out in planes; keepAlive (may be null) is held as long as the
    // surface, so the pixels stay valid.
    void attachPixels(const Core::Interface& core, uint8_t* const planes[kMaxPlanes],
                      const uint32_t strides[kMaxPlanes], Zn::Ptr<iMemHolder> keepAlive);
    // Borrows one contiguous raw image whose first plane has rows of stride0 bytes.
    void attachContiguous(const Core::Interface& core, uint8_t* base, uint32_t stride0,
                          Zn::Ptr<iMemHolder> keepAlive);
    void setOrientation(eOrientation o);
    void setColour(eColourSpace space, eColourRange range);
    // Marks the picture complete and releases every waiter. Setting a surface that has
    // already completed or failed changes nothing.
    void set();
    // Marks the picture as never coming and releases every waiter.
    void fail();

    // Reader side.
    //
    // Waits up to timeoutMs (0 polls, kInfinite waits without limit) and answers
    // kWaitComplete, kWaitFailed or kWaitTimedOut.
    eWaitResult wait(unsigned timeoutMs = kInfinite) const;
    eWaitResult state() const;
    // True when the surface holds a picture (pixels are attached).
    bool valid() const;
    bool empty() const noexcept { return !rep_; }
    // True when both handles share one picture.
    bool sameAs(const Surface& o) const noexcept { return rep_ && rep_ == o.rep_; }

    const Core::Data& getCoreData() const;
    uint32_t getWidth() const { return getCoreData().getWidth(); }
    uint32_t getHeight() const { return getCoreData().getHeight(); }
    eDataFormat getDataFormat() const { return getCoreData().getDataFormat(); }
    uint32_t getBitsPerComponent() const { return getCoreData().getBitsPerComponent(); }
    uint32_t getBitsPerPixel() const { return getCoreData().getBitsPerPixel(); }
    unsigned planeCount() const;
    uint8_t* plane(unsigned p) const;
    uint32_t stride(unsigned p) const;
    eOrientation getOrientation() const;
    eColourSpace getColourSpace() const;
    eColourRange getColourRange() const;
    // The memory behind the pixels (owned or kept alive), null when they are borrowed
    // without a holder.
    Zn::Ptr<iMemHolder> getMemory() const;

private:
    // The shared picture. mutex guards state and is the writer's publication point: the
    // fields are written under it and waiters read them after taking it in wait(). It is a
    // leaf lock: nothing else is taken while it is held.
    struct Rep : iObject {
        mutable std::mutex mutex;
        mutable std::condition_variable changed;
        eWaitResult state = kWaitTimedOut;
        Core::Data core;
        uint8_t* planes[kMaxPlanes] = {};
        uint32_t strides[kMaxPlanes] = {};
        unsigned planeCount = 0;
        Zn::Ptr<iMemHolder> memory;
        eOrientation orientation = kOrientationNormal;
        eColourSpace colourSpace = kColourSpaceUnknown;
        eColourRange colourRange = kColourRangeUnknown;
    };
    void finish(eWaitResult state);
    Rep& rep();

    Zn::Ptr<Rep> rep_;
};

} // namespace Zn::Image
