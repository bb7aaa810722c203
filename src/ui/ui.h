// The user interface: what the front end (the null window, the web page) does with the status
// fields that logic fills, and the commands it posts.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "refdata/refdata.h"

namespace orv::ui {

void refreshCounters() noexcept;
void enableControls() noexcept;
void handleCommands(); // what commands asked of the worker, run on it each second
void clearCounters() noexcept;

// ---- The status snapshot ----------------------------------------------------------------------
// The worker fills one each second from the engine's data; any thread reads a copy of the newest,
// so no request ever touches the aircraft or waits on the engine.

template <std::size_t N>
struct FixedText {
    std::array<char, N> bytes{};
    void set(std::string_view s) noexcept {
        const auto n = std::min(s.size(), N - 1);
        s.copy(bytes.data(), n);
        bytes[n] = '\0';
    }
    std::string_view view() const noexcept { return bytes.data(); }
};

struct AircraftView {
    std::uint32_t hexid = 0;
    FixedText<9> callsign;
    FixedText<5> type;
    FixedText<13> registration;
    FixedText<96> title;
    double lat = 0, lon = 0, altFt = 0, headingDeg = 0;
    float dataAgeS = -1; // seconds since its last report; -1: a static aircraft
    std::int8_t liveryStep = -1;
    std::uint8_t phase = 0, simState = 0;
    std::uint32_t stand = 0; // the stand number a live aircraft is parked on; 0: none
    bool isStatic = false, onGround = false;
};

// Free, a static on it, a live aircraft parked on it, or kept for the user.
enum class StandState : std::uint8_t { Free = 0, Static = 1, Live = 2, Reserved = 3 };
struct StandView {
    FixedText<48> id;
    double lat = 0, lon = 0, headingDeg = 0, radiusM = 0;
    StandState state = StandState::Free;
};

struct StatusSnapshot {
    std::uint64_t sequence = 0;
    std::int64_t utcSeconds = 0;
    std::string version, simulator, userTitle, nearestAirport, rtEdition, message, error;
    std::string parkAirport, parkQuality, reservedStand;
    std::array<int, 4> indicators{}; // traffic, weather, simulator, RealTraffic
    int qnh = 0;
    bool userKnown = false, userOnGround = false;
    double userLat = 0, userLon = 0, userAltFt = 0, userHeadingDeg = 0;
    std::uint64_t lines = 0, queued = 0, dropped = 0, ignored = 0, failed = 0, taken = 0;
    std::uint32_t active = 0, buffered = 0, creating = 0, leaving = 0;
    std::size_t liveries = 0, airportFiles = 0, statics = 0, planned = 0;
    std::uint64_t liveryFilesDone = 0, liveryFilesFound = 0;
    bool airportScanRunning = false;
    int scanFoldersDone = 0, scanFoldersTotal = 0, scanFilesRead = 0, scanAirports = 0;
    std::vector<AircraftView> aircraft;
    std::vector<StandView> stands;
    std::vector<refdata::Runway> runways; // the park airport's
    void reserve(std::size_t aircraftRoom, std::size_t standRoom);
};

// The worker's part: fill a snapshot from the program's state and publish it.
// Without `withAircraft` (before the engine runs) the aircraft and stands stay empty.
void fillSnapshot(StatusSnapshot& s, bool withAircraft = true);
void publishSnapshot(bool withAircraft = true);
// The newest published snapshot into `out`; false when none was published yet.
bool copySnapshot(StatusSnapshot& out);
// The snapshot as JSON: the status, and with `withMap` the aircraft and stands.
void appendSnapshotJson(std::string& out, const StatusSnapshot& s, bool withMap);
// One aircraft's record as JSON, or empty when the snapshot has none of that hexid.
std::string aircraftJson(const StatusSnapshot& s, std::uint32_t hexid);

// ---- Settings and commands --------------------------------------------------------------------

struct CommandResult {
    bool ok = false;
    std::string message; // the line the message area shows
};
// Every setting with its control: kind, value, allowed values or range, label, group, enabled.
std::string settingsJson();
// A setting changed by the user, by its parameter's name, with the rules and messages of its control.
CommandResult changeSetting(std::string_view name, std::string_view value);
// A button or other command by its name ("Unblock", "Block", "Now", "Flush static", "Re-read",
// "Check park airports", "Scan liveries", "Scan airports").
CommandResult runCommand(std::string_view name, std::string_view argument = {});

// ---- The web front end ------------------------------------------------------------------------

struct WebOptions {
    std::string address = "127.0.0.1";
    int port = 8610; // 0: any free port
    bool enabled = true;
    bool openBrowser = true;
};
// Starts the server on a thread of its own; the address it listens on ("http://127.0.0.1:8610/"),
// or empty with the reason logged when it could not listen.
std::string startWebServer(const WebOptions& options);
void stopWebServer();
// The per-run token that state-changing requests must carry (the served page has it).
std::string webToken();

} // namespace orv::ui
