// Reference-counted memory: iMemHolder is anything that holds a block of bytes with a
// used length (compressed frames, audio samples, pixels); ByteBufferImpl is the one that
// owns its bytes. Views on part of another holder derive from iMemHolder too.
#pragma once

#include "host/core/RefCount.h"

#include <cstdint>

class iMemHolder : public iObject {
public:
    // The first byte, or null when the holder has no storage.
    virtual uint8_t* getBuffer() const = 0;
    // Bytes of storage.
    virtual uint32_t getSize() const = 0;
    // Bytes of it that hold data.
    virtual uint32_t getUsed() const = 0;
    // Sets the used length (at most the size) and answers the length now in force.
    virtual uint32_t setUsed(uint32_t used) = 0;
};

// Owned bytes, aligned for vector code (64 bytes), with a used length. The storage never
// moves or grows, so pointers into it stay valid for the holder's life. Not locked: the
// writer fills it before handing it on.
class ByteBufferImpl : public iMemHolder {
public:
    static constexpr uint32_t kAlignment = 64;

    // size bytes of storage, none used; zeroFill clears them.
    explicit ByteBufferImpl(uint32_t size, bool zeroFill = false);
    // A copy of the bytes, all used.
    ByteBufferImpl(const void* data, uint32_t size);
    ~ByteBufferImpl() override;
    ByteBufferImpl(const ByteBufferImpl&) = delete;
    ByteBufferImpl& operator=(const ByteBufferImpl&) = delete;

    uint8_t* getBuffer() const override { return data_; }
    uint32_t getSize() const override { return size_; }
    uint32_t getUsed() const override { return used_; }
    uint32_t setUsed(uint32_t used) override { return used_ = used < size_ ? used : size_; }

private:
    void* raw_ = nullptr;
    uint8_t* data_ = nullptr;
    uint32_t size_ = 0;
    uint32_t used_ = 0;
};
