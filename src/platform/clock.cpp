#include "platform/platform.h"

#include <thread>

namespace orv::platform {

void SystemClock::sleepUntil(SteadyTime target) {
    std::this_thread::sleep_until(target);
}

VirtualClock::VirtualClock(UtcTime utcStart) : utcStart_(utcStart) {}

SteadyTime VirtualClock::steadyNow() {
    return SteadyTime{std::chrono::nanoseconds{elapsedNs_.load(std::memory_order_acquire)}};
}

UtcTime VirtualClock::utcNow() {
    return utcStart_ + std::chrono::duration_cast<UtcTime::duration>(
                           std::chrono::nanoseconds{elapsedNs_.load(std::memory_order_acquire)});
}

void VirtualClock::sleepUntil(SteadyTime target) {
    // Several threads may sleep on one virtual clock: time only ever moves forward.
    const auto t = target.time_since_epoch().count();
    auto now = elapsedNs_.load(std::memory_order_acquire);
    while (t > now && !elapsedNs_.compare_exchange_weak(now, t, std::memory_order_acq_rel)) {
    }
    if (onAdvance) onAdvance(steadyNow());
}

void VirtualClock::advance(std::chrono::nanoseconds d) {
    elapsedNs_.fetch_add(d.count(), std::memory_order_acq_rel);
}

namespace {
SystemClock systemClock;
std::atomic<Clock*> current{&systemClock};
} // namespace

Clock& clock() {
    return *current.load(std::memory_order_acquire);
}
void setClock(Clock* c) {
    current.store(c ? c : &systemClock, std::memory_order_release);
}

} // namespace orv::platform
