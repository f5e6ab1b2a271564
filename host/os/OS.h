// OS(): the host's operating-system service object. It hands out the allocator, the file
// manager, thread events and mutexes, sleeping, a processor count and atomic operations.
// The allocator and the file manager are replaceable at run time, so that a test can
// install one that fails for the duration of a test (ScopedAllocator, ScopedFileManager).
#pragma once

#include "host/core/RefCount.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class iThreadEvent;
class iMutex;
class iCriticalSection;
class iFileManager;

// Raw memory for the library's allocation operators. allocate throws std::bad_alloc
// (or whatever the allocator chooses) on failure; release may throw too, and callers
// let that through.
class iAllocator {
public:
    virtual void* allocate(size_t bytes) = 0;
    virtual void release(void* p) = 0;

protected:
    ~iAllocator() = default;
};

// The default allocator: the C heap.
class HeapAllocator final : public iAllocator {
public:
    void* allocate(size_t bytes) override;
    void release(void* p) override;
};

class OSServices {
public:
    constexpr OSServices() noexcept = default;

    // The allocator in force. Never null.
    iAllocator* allocator() const noexcept;
    // Installs an allocator (null restores the heap) and returns the previous one.
    // Memory must be released by the allocator that gave it, so a replacement normally
    // forwards to the previous one for everything it does not deliberately fail.
    iAllocator* setAllocator(iAllocator* a) noexcept;

    // The file manager in force. Never null.
    iFileManager* fileManager() const noexcept;
    iFileManager* setFileManager(iFileManager* fm) noexcept;

    // A thread event: auto-reset (one waiter released per set, then clear) unless
    // manualReset; initially set when initialState is true.
    Zn::Ptr<iThreadEvent> createThreadEvent(bool manualReset = false, bool initialState = false) const;
    // A re-entrant mutex; the name is for diagnostics only.
    Zn::Ptr<iMutex> createMutex(const char* name) const;
    // A re-entrant critical section held through a reference.
    Zn::Ptr<iCriticalSection> createCriticalSection() const;

    void sleep(unsigned milliseconds) const;
    // Processors this process may run on (at least 1).
    unsigned processorCount() const noexcept;
    // Files (descriptors) this process may have open at once: the soft RLIMIT_NOFILE, read
    // on every call; 0 when there is no limit or it cannot be read.
    uint64_t openFileLimit() const noexcept;

    static bool atomicCompareExchange(std::atomic<int32_t>& v, int32_t expected, int32_t x) noexcept {
        return v.compare_exchange_strong(expected, x);
    }

private:
    std::atomic<iAllocator*> allocator_{nullptr};
    std::atomic<iFileManager*> fileManager_{nullptr};
};

// The process's service object. Usable from static initialisation to process exit: it
// lives in static storage, is constant-initialised and never destroyed.
OSServices* OS() noexcept;

// Installs an allocator for a scope and restores the previous one at its end.
class ScopedAllocator {
public:
    explicit ScopedAllocator(iAllocator* a) noexcept : prev_(OS()->setAllocator(a)) {}
    ~ScopedAllocator() { OS()->setAllocator(prev_); }
    ScopedAllocator(const ScopedAllocator&) = delete;
    ScopedAllocator& operator=(const ScopedAllocator&) = delete;

private:
    iAllocator* prev_;
};

class ScopedFileManager {
public:
    explicit ScopedFileManager(iFileManager* fm) noexcept : prev_(OS()->setFileManager(fm)) {}
    ~ScopedFileManager() { OS()->setFileManager(prev_); }
    ScopedFileManager(const ScopedFileManager&) = delete;
    ScopedFileManager& operator=(const ScopedFileManager&) = delete;

private:
    iFileManager* prev_;
};
