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
    std::vector<std::string> callsigns; // when given, only these aircraft's lines are fed
    std::vector<std::string> titles;    // the container titles the simulator can create
    std::size_t maxObjects = 1000;
    std::int32_t qnh = 1013; // hPa, as the weather datagrams would give it
    // A flood of made-up MD-82s of no known operator over the recording (a large type without a
    // generic paint, so no installed livery may show them: they load the feed and the engine
    // without taking the real aircraft's place in the simulator): `aircraft` of them 20-35 nm from the
    // airport, `linesPerSecond` lines between the two times (virtual seconds).
    struct Burst {
        double fromSeconds = 0, toSeconds = 0;
        int linesPerSecond = 0;
        int aircraft = 500;
    } burst;
    // Static parking at the airport, ticked as the program's loop ticks it, on a virtual clock
    // that starts at `utcStart`; the user parks at `user` and may later fly its path away.
    struct Parking {
        bool on = false;
        std::int64_t utcStart = 1738717920; // Wednesday 5 Feb 2025 01:12 UTC
        emu::UserScript user;
        std::function<void(double seconds)> onSecond; // after each second's ticks
    } parking;
    // Called after every engine frame with the virtual time (tests look at the engine here).
    std::function<void(double seconds)> onFrame;
};

// A line as it was fed: the virtual time it went into the decoder, and where it said the aircraft was.
struct FedLine {
    double at = 0;
    std::uint32_t hexid = 0;
    std::string callsign;
    double latitude = 0, longitude = 0, altitudeFt = 0, groundSpeed = 0;
    bool onGround = false;
};

// A live aircraft that parked on a stand of the park airport, and how exactly it stands there.
struct Parked {
    std::string tail, stand;
    double offM = 0, offDeg = 0; // from the stand's point and heading, where it last stood
    bool atSpawn = false;        // found there when it was made, rather than arriving
};

struct Result {
    std::vector<emu::ObjectRecord> objects; // every object the simulator made, with what it saw
    std::vector<Parked> parked;
    std::vector<FedLine> fed;
    double airportElevationFt = 0;
    std::vector<std::string> noMatch; // aircraft no installed livery may show, as the log lists them
    std::string error;                // empty when the run went through
};

// Needs the reference data and the livery store loaded. Leaves the engine and client reset.
Result run(const Config& config);

// ---- The motion report: what the simulator was shown, against the recorded track --------------

struct Runway {
    std::string airport, name; // "12R/30L"
    double lat1 = 0, lon1 = 0, lat2 = 0, lon2 = 0;
};
// Lines "airport,end,lat,lon,end,lat,lon"; '#' starts a comment. Throws on a broken file.
std::vector<Runway> readRunways(const std::filesystem::path& file);

struct AircraftMotion {
    std::string tail;
    std::uint32_t hexid = 0;
    double maxStepNm = 0, maxStepKt = 0; // the largest move between two positions, and as a speed
    double maxStepGroundKt = 0;          // the same, on the ground only
    double maxStepGroundT = 0;           // and when (virtual seconds)
    double maxFedSpeedKt = 0;            // the fastest the recording says it went
    double maxTurnGroundDegS = 0, maxTurnAirDegS = 0, maxBankGroundDeg = 0, maxBankAirDeg = 0;
    // Distance from each recorded point to where the aircraft was shown 30 s after it came.
    double meanGroundM = 0, p95GroundM = 0, meanAirM = 0, p95AirM = 0;
    std::size_t groundPoints = 0, airPoints = 0;
    // The path alone, whatever the timing: how close the aircraft came to each recorded point.
    double pathP95GroundM = 0, pathP95AirM = 0, pathMaxM = 0;
    bool touchedDown = false;
    double touchdownT = 0, touchdownLat = 0, touchdownLon = 0, touchdownCentreLineM = 0;
    std::string touchdownRunway;
    bool cameToRest = false;
    double restT = 0, restLat = 0, restLon = 0;
};
std::vector<AircraftMotion> motionReport(const Result& result, const std::vector<Runway>& runways);
std::string formatReport(const std::vector<AircraftMotion>& report);
std::string formatParked(const std::vector<Parked>& parked);

// ---- Fidelity: the bars every aircraft of a real recording must clear ---------------------

struct Fidelity {
    std::string scenario, tail;
    std::uint32_t hexid = 0;
    int objects = 0;
    double groundStepKt = 0, robustGroundKt = 0; // fastest shown ground step; robust recorded speed
    double groundPathP95M = 0, jitterP95M = 0;   // shown path against the data's own jitter
    bool dataOnGround = false;                   // the recording never leaves the ground
    double highestAboveAirportFt = 0;            // what the simulator was shown
    double airSteepestFpm = 0;                   // its steepest second in the air
    double drivenWhileDataStandM = 0;            // shown on the ground in minutes whose reports' median stood
    int airBobs = 0; // how often its climb turned into a descent or back, in 3 s steps
    bool dataEndAtRest = false;
    double restOffM = -1; // from the last recorded point; -1: never at rest
    bool landing = false;
    double touchdownCentreLineM = -1;
    std::vector<std::string> broken; // the bars it breaks, with the figures
    std::string why;                 // why a bar does not apply, in the data's or the rules' words
};
std::vector<Fidelity> fidelity(const std::string& scenario, const Config& config, const Result& result,
                               const std::vector<Runway>& runways);
std::string formatFidelity(const std::vector<Fidelity>& lines);
// Every shown position between two virtual times, and the lines fed from 30 s before (for the delay).
std::string formatTrack(const Result& result, double from, double to);

// A program folder at `work` with the encrypted reference files of `input`, and the livery store
// of a Community folder; returns the titles the emulated simulator can create. Throws on failure.
std::vector<std::string> prepareHome(const std::filesystem::path& input,
                                     const std::filesystem::path& community,
                                     const std::filesystem::path& work);

// `orvelline-scenario FILE... [--report] [--fidelity]`: scenarios described by JSON files, run on
// virtual time; with --fidelity a table of the bars, and exit code 1 when one is broken.
int scenarioMain(const std::vector<std::string>& args, const std::filesystem::path& programFolder);

} // namespace orv::scenario
