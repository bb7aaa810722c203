// Scenario runs: the engine, the simulator client over an in-memory pipe, the emulated simulator
// and a traffic recording fed straight into the decoder, all on virtual time in one thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "emulator.h"

namespace orv::scenario {

struct Config {
    std::filesystem::path recording; // traffic lines, one per recorded point, in time order
    std::string airport;             // ICAO: the user is parked there and it is the current airport
    double fromSeconds = 0;          // recording time (from its first line) that is virtual time 0
    double toSeconds = 1e12;         // lines after this recording time are not fed
    double runSeconds = 60;          // virtual seconds to run
    // Each aircraft's first line at virtual time 0: flights of different days fly together.
    bool overlayFlights = false;
    std::vector<std::string> titles; // the container titles the simulator can create
    std::size_t maxObjects = 1000;
    // Called after every engine frame with the virtual time (tests look at the engine here).
    std::function<void(double seconds)> onFrame;
};

// A line as it was fed: the virtual time it went into the decoder, and where it said the aircraft was.
struct FedLine {
    double at = 0;
    std::uint32_t hexid = 0;
    double latitude = 0, longitude = 0, altitudeFt = 0;
    bool onGround = false;
};

struct Result {
    std::vector<emu::ObjectRecord> objects; // every object the simulator made, with what it saw
    std::vector<FedLine> fed;
    std::string error; // empty when the run went through
};

// Needs the reference data and the livery store loaded. Leaves the engine and client reset.
Result run(const Config& config);

} // namespace orv::scenario
