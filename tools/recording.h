// Traffic recordings: real tracks turned into the traffic lines RealTraffic sends.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace orv::tools {

// One point of one aircraft, in the units of a traffic line.
struct TrackPoint {
    std::uint32_t hexid = 0;
    double timestamp = 0.0; // seconds since the epoch
    double latitude = 0.0, longitude = 0.0;
    double altitude = 0.0; // feet; 0 on the ground
    bool onGround = false;
    double groundSpeed = 0.0;
    std::optional<double> track;
    double verticalSpeed = 0.0;
    std::string callsign, type, registration, category, messageType = "adsb_icao";
    std::optional<double> trueAirspeed, roll, trueHeading;
    std::optional<double> groundPressureAltitude; // feet, what the transponder read on the ground
};

// One line in the wire format: 29 comma-separated fields, "null" for unknown texts.
std::string trafficLine(const TrackPoint& p);

struct OpenSkyOptions {
    std::vector<std::string> callsigns;       // empty: all
    std::map<std::string, std::string> types; // callsign -> ICAO type designator
    std::string defaultType;                  // for callsigns without one
};

// A readsb "globe history" trace, or an array of OpenSky state rows. Throws on a malformed input.
// With `geoidFt`, airborne altitudes are the geometric (GNSS) ones plus that undulation: height
// above the sea rather than the pressure altitude, which is off by the day's QNH.
std::vector<TrackPoint> readsbPoints(const nlohmann::json& trace, std::optional<double> geoidFt = {});
// Rows as an array of objects, or as columns (an object of field -> {row -> value}).
std::vector<TrackPoint> openSkyPoints(const nlohmann::json& rows, const OpenSkyOptions& options);

// Fills what the source left out (speeds from positions, altitudes from neighbours), sorts by time.
void completeTracks(std::vector<TrackPoint>& points);

int convertMain(const std::vector<std::string>& args);
// Reference files: the airport directory as XML from its compact sources, and the command
// that writes the encrypted files into a program folder's input folder.
std::string airportsXml(const std::filesystem::path& airportsCsv, const std::filesystem::path& standCountsCsv,
                        std::size_t& skipped);
std::string dbaseXml(const std::filesystem::path& sourceFolder);
std::string aigRegcodesXml(const std::filesystem::path& source);
int liveriesMain(const std::vector<std::string>& args);
int refdataMain(const std::vector<std::string>& args);
// Lines of a small source file without comments (#) and blank lines, split at commas.
std::vector<std::vector<std::string>> readRows(const std::filesystem::path& file, bool header);
// The made-up demo fleet: registrations with their airline and type.
struct FleetAircraft {
    std::string reg, airline, type;
    bool cargo = false;
};
std::vector<FleetAircraft> demoFleet(const std::filesystem::path& sourceFolder);
// Stock airport files from the stand lists, the data site's tree, and a loopback server for it.
int airportsMain(const std::string& command, const std::vector<std::string>& args);
// A Community/Official-like scenery tree of `files` BGL files (see tools/scenery.cpp).
struct SceneryAirport {
    std::string code;
    std::filesystem::path bgl;
};
struct SceneryTree {
    std::vector<SceneryAirport> airports;
    int files = 0;
};
std::uint32_t packIcao(std::string_view code);
SceneryTree writeSceneryTree(const std::filesystem::path& out, const std::filesystem::path& dataFolder,
                             int files);
int sceneryMain(const std::vector<std::string>& args);
// Sends a recording's lines as UDP datagrams at their recorded pace (for demos and trials).

} // namespace orv::tools
