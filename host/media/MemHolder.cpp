#include "host/media/MemHolder.h"

#include <cstring>
#include <new>

ByteBufferImpl::ByteBufferImpl(uint32_t size, bool zeroFill) : size_(size) {
    // Aligned by hand on top of the plain allocation operator, so the bytes come from the
    // same allocator as everything else the process allocates.
    raw_ = ::operator new(size_t(size) + kAlignment);
    uintptr_t p = reinterpret_cast<uintptr_t>(raw_);
    data_ = reinterpret_cast<uint8_t*>((p + kAlignment - 1) & ~uintptr_t(kAlignment - 1));
    if (zeroFill && size) std::memset(data_, 0, size);
}

ByteBufferImpl::ByteBufferImpl(const void* data, uint32_t size) : ByteBufferImpl(size) {
    if (size) std::memcpy(data_, data, size);
    used_ = size;
}

ByteBufferImpl::~ByteBufferImpl() { ::operator delete(raw_); }
