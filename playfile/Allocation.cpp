// The library's replacement of the eight global allocation operators. Every allocation
// made by the library's code, and by the standard containers it instantiates, comes
// from the host allocator. The allocator is looked up through OS() on every call and
// never cached, so the operators work during static initialisation and after other
// singletons are gone.
#include "host/os/OS.h"

#include <new>

// A release that fails is passed through to the caller. GCC accepts the replacement
// delete operators without noexcept; clang insists on the standard declaration, so a
// clang build ends the program instead (the fuzzing build is the only clang one).
#if defined(__clang__)
#define PLAYFILE_RELEASE_MAY_THROW noexcept
#else
#define PLAYFILE_RELEASE_MAY_THROW noexcept(false)
#endif

void* operator new(std::size_t size) { return OS()->allocator()->allocate(size); }

void operator delete(void* p) PLAYFILE_RELEASE_MAY_THROW {
    if (p) OS()->allocator()->release(p);
}

void* operator new[](std::size_t size) { return ::operator new(size); }

void operator delete[](void* p) PLAYFILE_RELEASE_MAY_THROW { ::operator delete(p); }

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return ::operator new(size, tag);
}

void operator delete(void* p, const std::nothrow_t&) noexcept { ::operator delete(p); }

void operator delete[](void* p, const std::nothrow_t&) noexcept { ::operator delete(p); }
