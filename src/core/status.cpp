#include "core/core.h"

namespace orv::core {

namespace {
// Written by any thread, read by the front end: relaxed atomics, no lock.
std::atomic<int> indicators[static_cast<int>(Indicator::Count)];
std::atomic<std::uint64_t> repaints[static_cast<int>(Region::All) + 1];
} // namespace

void setIndicator(Indicator which, int value) noexcept {
    indicators[static_cast<int>(which)].store(value, std::memory_order_relaxed);
}
int indicator(Indicator which) noexcept {
    return indicators[static_cast<int>(which)].load(std::memory_order_relaxed);
}

void repaint(Region region) noexcept {
    repaints[static_cast<int>(region)].fetch_add(1, std::memory_order_relaxed);
}
std::uint64_t repaintCount(Region region) noexcept {
    return repaints[static_cast<int>(region)].load(std::memory_order_relaxed);
}

} // namespace orv::core
