#include "live/live.h"

#include <array>
#include <atomic>

#include "app/app.h"
#include "feed/feed.h"
#include "sim/sim.h"

namespace orv::live {

namespace {
std::atomic<std::uint64_t> taken{0};
// Reused every frame so that taking samples never allocates.
std::array<TrafficSample, 2> frameSamples;
} // namespace

void reserveContainers() {}

void engineFrame() {
    // Until aircraft records exist the frame only keeps the queue flowing: two samples a frame.
    const auto n = gf_takeTraffic(frameSamples.data(), frameSamples.size());
    taken.fetch_add(n, std::memory_order_relaxed);
    // The user's position every second; the client only tries its lock, so the frame never waits.
    if (gRun.engineTick.fetch_add(1, std::memory_order_relaxed) % 100 == 0) sim::requestUserPosition();
}

void drainEvents() {}
void removeAtReservedStand() {}
void routeQueueStep() {}
void publishCallsignLookup() {}
void collisionChecks() {}
void duplicatesSweep() {}
void clearGhosts() {}
void removeAllLive() {}
void writeObjectIdList() {}
void reset() {
    taken = 0;
}

std::uint64_t samplesTaken() noexcept {
    return taken.load(std::memory_order_relaxed);
}

} // namespace orv::live
