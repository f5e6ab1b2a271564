// The process-wide service object and its default allocator.
#include "host/os/OS.h"

#include <cstdlib>
#include <new>
#include <sched.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

iFileManager* defaultFileManager() noexcept; // PosixFileManager.cpp

namespace {
HeapAllocator g_heap;
constinit OSServices g_os;
} // namespace

void* HeapAllocator::allocate(size_t bytes) {
    void* p = std::malloc(bytes ? bytes : 1);
    if (!p) throw std::bad_alloc();
    return p;
}

void HeapAllocator::release(void* p) { std::free(p); }

OSServices* OS() noexcept { return &g_os; }

iAllocator* OSServices::allocator() const noexcept {
    iAllocator* a = allocator_.load(std::memory_order_acquire);
    return a ? a : &g_heap;
}

iAllocator* OSServices::setAllocator(iAllocator* a) noexcept {
    iAllocator* prev = allocator_.exchange(a == &g_heap ? nullptr : a, std::memory_order_acq_rel);
    return prev ? prev : &g_heap;
}

iFileManager* OSServices::fileManager() const noexcept {
    iFileManager* fm = fileManager_.load(std::memory_order_acquire);
    return fm ? fm : defaultFileManager();
}

iFileManager* OSServices::setFileManager(iFileManager* fm) noexcept {
    iFileManager* prev = fileManager_.exchange(fm, std::memory_order_acq_rel);
    return prev ? prev : defaultFileManager();
}

void OSServices::sleep(unsigned milliseconds) const {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

uint64_t OSServices::openFileLimit() const noexcept {
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 0;
    return uint64_t(limit.rlim_cur);
}

unsigned OSServices::processorCount() const noexcept {
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        int n = CPU_COUNT(&set);
        if (n > 0) return unsigned(n);
    }
    long n = sysconf(_SC_NPROCESSORS_ONLN);
    return n > 0 ? unsigned(n) : 1u;
}
