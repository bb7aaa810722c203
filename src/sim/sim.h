// The simulator link: the SimConnect client thread, the simulator's folders, flight plans.
#pragma once

#include <optional>
#include <string>

namespace orv::sim {

struct UserPosition {
    double latitude = 0.0;
    double longitude = 0.0;
    double altitude = 0.0;
    bool onGround = true;
};

// Starts the client thread; it sets simRunning and the user position once the simulator
// answers, and secondElapsed on the simulator's one-second event.
void startClient();
void stopClient();
void requestUserOnGround();
std::optional<UserPosition> userPosition();
bool userTitleKnown();
void clearLists(); // positions and commands waiting for the simulator
void reset();

// Where the simulator's packages lie; empty when none was found.
std::string installPath();

bool createFlightPlanFolder();
std::string removeFlightPlanFolder(); // empty on success, else the reason

} // namespace orv::sim
