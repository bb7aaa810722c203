#include "parking/parking.h"

#include <algorithm>
#include <set>

#include <fmt/format.h>

#include "core/core.h"
#include "params/params.h"

namespace orv::parking {

namespace {

// Written by the worker (reading, refreshing); read by the worker only.
std::vector<ParkAirportEntry> listed;

bool isCode(const std::string& token) {
    return token.size() == 4 && std::all_of(token.begin(), token.end(), [](char c) {
               return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
           });
}

} // namespace

bool checkParkAirports() {
    return true;
}
void followUp() {}
void idleRefresh() {}
void recalculate() {}
void saveUserStand() {}
void reset() {}

bool readMyParkAirports() {
    constexpr std::size_t kManyAirports = 3000;
    listed.clear();
    const fs::path file = core::gPaths.programFolder / "airports" / params::names::kMyParkAirports;
    try {
        std::error_code ec;
        if (!fs::exists(file, ec)) return true; // the list is the user's choice
        std::vector<std::string> lines;
        const auto read = core::readAllLines(file, lines, 64);
        if (std::holds_alternative<std::string>(read))
            throw std::runtime_error(fmt::format("{} not found", file.string()));
        const std::string name = file.filename().string();
        std::set<refdata::AirportCode> seen;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            const std::string line = core::trim(lines[i]);
            if (line.empty()) continue;
            std::vector<std::string> tokens;
            for (const auto& t : core::splitList(line)) tokens.push_back(core::trim(t));
            const std::size_t number = i + 1;
            if (tokens.empty() || tokens.size() > 2 || !isCode(tokens[0])) {
                core::log(fmt::format("{}:{} wrong syntax, skipped", name, number));
                continue;
            }
            const refdata::AirportCode code(tokens[0]);
            if (!seen.insert(code).second) {
                core::log(fmt::format("{}:{} double, skipped", name, number));
                continue;
            }
            const auto* record = refdata::airportRecord(code);
            if (!record) {
                core::log(fmt::format("{}:{} airport {} is unknown", name, number, tokens[0]));
                continue;
            }
            listed.push_back({tokens.size() == 2 ? tokens[1] : std::string(), record->latitude,
                              record->longitude, 0.0, code});
        }
        core::log(fmt::format("\n{:5} park airport{} read from '{}'", listed.size(),
                              listed.size() == 1 ? "" : "s", file.string()));
        if (listed.size() > kManyAirports)
            core::log(
                fmt::format("Warning: There are a lot of airports ({}), that will cost {} much cpu time "
                            "and may cause stutters",
                            listed.size(), core::kAppName));
        return true;
    } catch (const std::exception& e) {
        core::log(fmt::format("{} exception: {}", "readMyParkAirports", e.what()));
        return false;
    }
}

const std::vector<ParkAirportEntry>& parkAirports() {
    return listed;
}

std::optional<double> refreshDistances(core::LatLon user) {
    if (listed.empty()) return std::nullopt;
    for (auto& e : listed) e.distance = core::distanceNm(user, {e.latitude, e.longitude});
    std::stable_sort(listed.begin(), listed.end(), [](const ParkAirportEntry& a, const ParkAirportEntry& b) {
        return a.distance < b.distance;
    });
    return listed.front().distance;
}

} // namespace orv::parking
