// The library's allocation operators route every request to the host allocator.
#include "support/Allocators.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <new>
#include <vector>

using testing_support::CountingAllocator;
using testing_support::FailingAllocator;

namespace {

// The library's own definitions, looked up in the library itself: in a sanitizer build
// the process-wide operators belong to the sanitizer runtime, but the library's calls
// still reach these. Converts to the function pointer it initializes.
struct LibrarySymbol {
    const char* mangled;
    template <class Fn> operator Fn() const {
        static void* lib = dlopen("libplayfile.so.0", RTLD_LAZY | RTLD_NOLOAD);
        EXPECT_NE(lib, nullptr) << dlerror();
        void* sym = lib ? dlsym(lib, mangled) : nullptr;
        EXPECT_NE(sym, nullptr) << mangled;
        return reinterpret_cast<Fn>(sym);
    }
};

struct Operators {
    void* (*newScalar)(size_t) = LibrarySymbol{"_Znwm"};
    void* (*newArray)(size_t) = LibrarySymbol{"_Znam"};
    void (*deleteScalar)(void*) = LibrarySymbol{"_ZdlPv"};
    void (*deleteArray)(void*) = LibrarySymbol{"_ZdaPv"};
    void* (*newScalarNothrow)(size_t, const std::nothrow_t&) = LibrarySymbol{"_ZnwmRKSt9nothrow_t"};
    void* (*newArrayNothrow)(size_t, const std::nothrow_t&) = LibrarySymbol{"_ZnamRKSt9nothrow_t"};
    void (*deleteScalarNothrow)(void*, const std::nothrow_t&) = LibrarySymbol{"_ZdlPvRKSt9nothrow_t"};
    void (*deleteArrayNothrow)(void*, const std::nothrow_t&) = LibrarySymbol{"_ZdaPvRKSt9nothrow_t"};
};

} // namespace

TEST(Allocation, AllEightOperatorsReachTheHostAllocator) {
    Operators ops;
    CountingAllocator counting;
    {
        ScopedAllocator scope(&counting);
        ops.deleteScalar(ops.newScalar(16));
        ops.deleteArray(ops.newArray(32));
        ops.deleteScalarNothrow(ops.newScalarNothrow(48, std::nothrow), std::nothrow);
        ops.deleteArrayNothrow(ops.newArrayNothrow(64, std::nothrow), std::nothrow);
        ops.deleteScalar(nullptr); // releasing null reaches nobody
    }
    EXPECT_EQ(counting.allocations.load(), 4u);
    EXPECT_EQ(counting.releases.load(), 4u);
    EXPECT_EQ(counting.bytesAllocated.load(), 16u + 32 + 48 + 64);
}

TEST(Allocation, NothrowFormsAnswerNullAndThrowingFormsAndReleasePassTheFailureThrough) {
    Operators ops;
    FailingAllocator failing;
    failing.failSize = 12345;
    ScopedAllocator scope(&failing);
    EXPECT_EQ(ops.newScalarNothrow(12345, std::nothrow), nullptr);
    EXPECT_EQ(ops.newArrayNothrow(12345, std::nothrow), nullptr);
    EXPECT_THROW(ops.newScalar(12345), std::bad_alloc);
    EXPECT_THROW(ops.newArray(12345), std::bad_alloc);
    EXPECT_EQ(failing.failures.load(), 4);
    void* p = ops.newScalar(24); // other sizes still work
    ASSERT_NE(p, nullptr);
    // And an exception from release is propagated.
    failing.failRelease = p;
    EXPECT_THROW(ops.deleteScalar(p), FailingAllocator::ReleaseError);
    failing.failRelease = nullptr;
    ops.deleteScalar(p);
}

TEST(Allocation, TheAllocatorIsLookedUpOnEveryCall) {
    Operators ops;
    CountingAllocator first;
    CountingAllocator second;
    {
        ScopedAllocator scope(&first);
        void* a = ops.newScalar(10);
        {
            ScopedAllocator inner(&second);
            ops.deleteScalar(ops.newScalar(20));
        }
        ops.deleteScalar(a);
    }
    EXPECT_EQ(second.allocations.load(), 1u);
    EXPECT_EQ(first.allocations.load(), 1u);
    EXPECT_EQ(first.releases.load(), 1u);
}

#ifndef PLAYFILE_SANITIZED
TEST(Allocation, StandardContainersInAProcessThatLoadsTheLibraryUseTheHostAllocator) {
    CountingAllocator counting;
    {
        ScopedAllocator scope(&counting);
        std::vector<int> v;
        for (int i = 0; i < 100; ++i) v.push_back(i);
        auto* single = new int(5);
        delete single;
    }
    EXPECT_GE(counting.allocations.load(), 2u);
    EXPECT_EQ(counting.allocations.load(), counting.releases.load());
}
#endif
