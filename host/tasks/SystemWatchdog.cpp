// The watchdog's beat, life support count and the Escape flag.
#include "host/tasks/SystemWatchdog.h"

#include <chrono>

static_assert(std::atomic<bool>::is_always_lock_free, "Escape is set from a signal handler");

std::atomic<bool> g_esc_pressed{false};

namespace {

std::atomic<int> g_lifeSupport{0};

int64_t nowMs() noexcept {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// The process counts as beating from its start.
std::atomic<int64_t> g_lastBeatMs{nowMs()};

} // namespace

void SystemWatchdog::beginLifeSupport() noexcept { g_lifeSupport.fetch_add(1, std::memory_order_acq_rel); }

void SystemWatchdog::endLifeSupport() noexcept {
    // Leaving life support counts as a beat: the work that held it has just returned.
    g_lastBeatMs.store(nowMs(), std::memory_order_release);
    g_lifeSupport.fetch_sub(1, std::memory_order_acq_rel);
}

bool SystemWatchdog::isOnLifeSupport() noexcept { return lifeSupportCount() > 0; }

int SystemWatchdog::lifeSupportCount() noexcept { return g_lifeSupport.load(std::memory_order_acquire); }

void SystemWatchdog::heartbeat() noexcept { g_lastBeatMs.store(nowMs(), std::memory_order_release); }

bool SystemWatchdog::isHung(unsigned limitMs) noexcept {
    if (isOnLifeSupport()) return false;
    return nowMs() - g_lastBeatMs.load(std::memory_order_acquire) > int64_t(limitMs);
}
