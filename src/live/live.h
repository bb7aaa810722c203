// The live aircraft engine: the frame that runs 100 times a second on the worker.
#pragma once

#include <cstdint>

namespace orv::live {

void reserveContainers(); // before the loop starts: nothing in the frame allocates
void engineFrame();       // one 10 ms frame
void drainEvents();       // simulator events while paused
void removeAtReservedStand();
void routeQueueStep(); // one hexid of the route queue per second
void publishCallsignLookup();
void collisionChecks();
void duplicatesSweep();
void clearGhosts();
void removeAllLive(); // every live aircraft out of the simulator, as when RealTraffic goes
void writeObjectIdList();
void reset();

// What the frame has taken from the traffic queue so far (status display).
std::uint64_t samplesTaken() noexcept;

} // namespace orv::live
