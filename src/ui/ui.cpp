#include "ui/ui.h"

namespace orv::ui {

namespace {
std::atomic<int> indicators[static_cast<int>(Indicator::Count)];
std::atomic<std::uint64_t> repaints[4];
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

void refreshCounters() noexcept {
    repaint(Region::Counters);
}
void enableControls() noexcept {}
void handleCommands() {}
void clearCounters() noexcept {}

} // namespace orv::ui
