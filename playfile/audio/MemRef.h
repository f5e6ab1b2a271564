// MemRef: a view on part of another memory holder, so that a cached audio block can be
// handed out from a sample position on without copying. The view keeps its source alive
// for as long as it lives; its length is fixed when it is made.
#pragma once

#include "host/media/MemHolder.h"

#include <cstdint>

class MemRef : public iMemHolder {
public:
    MemRef(Zn::Ptr<iMemHolder> source, uint32_t offset, uint32_t size)
        : source_(std::move(source)), offset_(offset), size_(size) {}

    // The source's bytes from offset on, or null when the source has no storage.
    uint8_t* getBuffer() const override {
        uint8_t* base = source_ ? source_->getBuffer() : nullptr;
        return base ? base + offset_ : nullptr;
    }
    uint32_t getSize() const override { return size_; }
    uint32_t getUsed() const override { return size_; }
    // A view is as long as it was made: nothing changes, and 0 is answered.
    uint32_t setUsed(uint32_t) override { return 0; }

    const Zn::Ptr<iMemHolder>& getSource() const noexcept { return source_; }
    uint32_t getOffset() const noexcept { return offset_; }

private:
    const Zn::Ptr<iMemHolder> source_;
    const uint32_t offset_;
    const uint32_t size_;
};
