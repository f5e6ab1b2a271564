#include "host/core/IdStamp.h"

#include <atomic>

IdStamp IdStamp::make() noexcept {
    static std::atomic<uint64_t> next{1};
    return IdStamp(next.fetch_add(1, std::memory_order_relaxed));
}
