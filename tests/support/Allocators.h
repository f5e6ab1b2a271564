// Host allocators for tests: one that counts, one that fails on request. Both forward
// everything else to the allocator that was in force when they were made, so memory
// is always released by the allocator that gave it.
#pragma once

#include "host/os/OS.h"

#include <atomic>
#include <cstddef>
#include <new>

namespace testing_support {

class CountingAllocator : public iAllocator {
public:
    CountingAllocator() : next_(OS()->allocator()) {}
    void* allocate(size_t bytes) override {
        allocations.fetch_add(1, std::memory_order_relaxed);
        bytesAllocated.fetch_add(bytes, std::memory_order_relaxed);
        return next_->allocate(bytes);
    }
    void release(void* p) override {
        releases.fetch_add(1, std::memory_order_relaxed);
        next_->release(p);
    }
    std::atomic<size_t> allocations{0};
    std::atomic<size_t> releases{0};
    std::atomic<size_t> bytesAllocated{0};

private:
    iAllocator* next_;
};

// Throws std::bad_alloc for every request of exactly failSize bytes (or of every size
// from failFrom on), and an ReleaseError for the one pointer named by failRelease.
class FailingAllocator : public iAllocator {
public:
    struct ReleaseError {};
    FailingAllocator() : next_(OS()->allocator()) {}
    void* allocate(size_t bytes) override {
        if (bytes == failSize || bytes >= failFrom) {
            failures.fetch_add(1);
            throw std::bad_alloc();
        }
        return next_->allocate(bytes);
    }
    void release(void* p) override {
        if (p && p == failRelease) throw ReleaseError{};
        next_->release(p);
    }
    size_t failSize = size_t(-1);
    size_t failFrom = size_t(-1);
    void* failRelease = nullptr;
    std::atomic<int> failures{0};

private:
    iAllocator* next_;
};

} // namespace testing_support
