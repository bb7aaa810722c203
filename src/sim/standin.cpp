// A stand-in for the simulator until the SimConnect client is built: it reports a running
// simulator with the user parked where --user-at says, and the one-second event.
#include <atomic>
#include <charconv>
#include <thread>

#include <fmt/format.h>

#include "app/app.h"
#include "platform/platform.h"
#include "sim/sim.h"

namespace orv::sim {

namespace {
std::atomic<bool> running{false};
std::thread thread;
std::optional<UserPosition> position;

std::optional<UserPosition> parseUserAt(const std::string& text) {
    const auto comma = text.find(',');
    if (comma == std::string::npos) return std::nullopt;
    UserPosition p;
    const char* b = text.data();
    if (std::from_chars(b, b + comma, p.latitude).ec != std::errc{}) return std::nullopt;
    if (std::from_chars(b + comma + 1, b + text.size(), p.longitude).ec != std::errc{}) return std::nullopt;
    return p;
}
} // namespace

void startClient() {
    stopClient();
    position = parseUserAt(gOptions.userAt);
    if (!position)
        gf_log(fmt::format("No simulator link yet; user position '{}' not usable", gOptions.userAt));
    running = true;
    gRun.simRunning = position.has_value();
    thread = std::thread([] {
        auto& clock = platform::clock();
        auto next = clock.steadyNow() + std::chrono::seconds(1);
        while (running) {
            clock.sleepFor(std::chrono::milliseconds(20));
            if (clock.steadyNow() >= next) {
                next += std::chrono::seconds(1);
                gRun.secondElapsed = true;
            }
        }
    });
}

void stopClient() {
    running = false;
    if (thread.joinable()) thread.join();
}

void requestUserOnGround() {}
std::optional<UserPosition> userPosition() {
    return position;
}
bool userTitleKnown() {
    return true;
}
void clearLists() {}
void reset() {
    gRun.simRunning = false;
}

std::string installPath() {
    return gOptions.userAt.empty() ? std::string() : std::string("(simulator stand-in)");
}

bool createFlightPlanFolder() {
    return true;
}
std::string removeFlightPlanFolder() {
    return {};
}

} // namespace orv::sim
