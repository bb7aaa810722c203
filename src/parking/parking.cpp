#include "parking/parking.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <set>

#include <fmt/format.h>

#include "core/core.h"
#include "params/params.h"
#include "sim/sim.h"

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

namespace {

namespace af = airportfile;

// The stand under the user, cached while the user stays put.
struct UserStandCache {
    double latitude = 1000, longitude = 1000;
    bool onGround = false;
    std::string stand;
} userStandCache;

constexpr double kUserStandNm = 0.029697624190064796; // 55 m

fs::path parkAirportsFile() {
    return core::gPaths.programFolder / "airports" / params::names::kMyParkAirports;
}

// Writes the head of the list back to the file: its line first, the others sorted, no doubles.
void updateParkAirportsFile() {
    if (listed.empty()) return;
    const auto& head = listed.front();
    const std::string code(head.code.view());
    const std::string line =
        head.reservedStand.empty() ? code : fmt::format("{},{}", code, head.reservedStand);
    const fs::path file = parkAirportsFile();
    const std::string name = file.filename().string();
    std::vector<std::string> lines;
    std::error_code ec;
    if (!fs::exists(file, ec)) {
        fs::create_directories(file.parent_path(), ec);
        if (core::writeText(line, file, true)) core::log(fmt::format("{} created with {}", name, line));
        return;
    }
    (void)core::readAllLines(file, lines, 64);
    bool found = false;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto tokens = core::splitList(lines[i]);
        if (!tokens.empty() && core::trim(tokens[0]) == code) {
            if (!found) core::log(fmt::format("{}:{} updated stand", name, i + 1));
            lines[i].clear();
            found = true;
        }
    }
    if (!found) core::log(fmt::format("{}:{} new entry", name, lines.size() + 1));
    std::vector<std::string> rest;
    for (auto& l : lines)
        if (!core::trim(l).empty()) rest.push_back(core::trim(l));
    std::sort(rest.begin(), rest.end());
    rest.erase(std::unique(rest.begin(), rest.end()), rest.end());
    std::string text = line;
    for (const auto& l : rest) text += "\n" + l;
    if (!core::writeText(text, file, true)) core::log(fmt::format("Failed to write {}", file.string()));
}

void searchParkAirport(const sim::UserPosition& user) {
    auto& P = gParking;
    if (user.onGround) {
        const auto closest = refdata::closestAirport(user.latitude, user.longitude);
        if (!closest) {
            core::log("User aircraft on the ground, no RT supported airport in sight");
            return;
        }
        const auto text = fmt::format("User aircraft on the ground at {}", closest->code.view());
        if (!af::hasApf(closest->code)) {
            core::log(text + ", no airport file found");
            return;
        }
        core::log(text);
        if (!setParkAirport(closest->code)) return;
    } else {
        if (listed.empty()) return;
        const auto& head = listed.front();
        if (head.distance > params::parameter<params::IntParameter>("AIRP_RANGE").value ||
            user.altitude > params::gParams.AIRP_HEIGHT.load())
            return;
        if (!setParkAirport(head.code)) return;
        core::log(fmt::format("{} in sight at {:.1F} nm", head.code.view(), head.distance));
    }
    P.pendingLoad = true;
    core::log("Calculating static parked aircraft ...");
}

} // namespace

std::string userStand(core::LatLon user, bool onGround) {
    auto& c = userStandCache;
    if (c.latitude == user.latitude && c.longitude == user.longitude && c.onGround == onGround)
        return c.stand;
    c = {user.latitude, user.longitude, onGround, {}};
    if (!onGround) return {};
    double best = kUserStandNm;
    for (const auto& s : af::gPark.stands) {
        const double d = core::distanceNm(user.latitude, user.longitude, s.latitude, s.longitude);
        if (d <= best) best = d, c.stand = s.id;
    }
    return c.stand;
}

bool setParkAirport(const refdata::AirportCode& code) {
    const auto* record = refdata::airportRecord(code);
    if (!record) {
        af::gPark.code = {};
        return false;
    }
    af::gPark.code = code;
    af::gPark.position = {record->latitude, record->longitude};
    core::log(fmt::format("\nThe park airport is {}", code.view()));
    return true;
}

std::string readParkedFile() {
    auto& P = gParking;
    af::gPark.stands.clear();
    const auto xml = af::findApf(af::gPark.code);
    if (xml.empty()) return fmt::format("{} {} not found", "readParkedFile", af::gPark.code.view());
    af::gPark.airport = {};
    if (auto err = af::readApf(xml); !err.empty()) return err;
    std::string under;
    if (const auto user = sim::userPosition())
        under = userStand({user->latitude, user->longitude}, user->onGround);
    if (!listed.empty() && listed.front().code == af::gPark.code) {
        if (!under.empty() && under != listed.front().reservedStand) {
            listed.front().reservedStand = under;
            updateParkAirportsFile();
        }
    } else if (!under.empty()) {
        listed.insert(listed.begin(), {under, af::gPark.position.latitude, af::gPark.position.longitude, 0.0,
                                       af::gPark.code});
        updateParkAirportsFile();
    }
    af::gPark.stands.shrink_to_fit();
    af::gPark.updateCount = 0;
    P.reservedStand.clear();
    if (!listed.empty() && listed.front().code == af::gPark.code) {
        const auto& r = listed.front().reservedStand;
        if (std::any_of(af::gPark.stands.begin(), af::gPark.stands.end(),
                        [&](const af::Stand& s) { return s.id == r; }))
            P.reservedStand = r;
    }
    return {};
}

void parkAirportTick(bool) {
    auto& P = gParking;
    if (P.loading && P.stack.empty()) P.loading = false;
    if (P.pendingLoad) {
        P.pendingLoad = false;
        if (auto err = readParkedFile(); !err.empty()) {
            core::log(err);
            leaveParkAirport();
        } else {
            calcStatics();
        }
        return;
    }
    const auto user = sim::userPosition();
    if (!user || (std::fabs(user->latitude) < 0.0001 && std::fabs(user->longitude) < 0.0001)) return;
    refreshDistances({user->latitude, user->longitude});
    if (af::gPark.code.empty()) {
        searchParkAirport(*user);
        return;
    }
    if (user->onGround) return;
    const double distance = core::distanceNm({user->latitude, user->longitude}, af::gPark.position);
    const bool inSight = distance <= params::parameter<params::IntParameter>("AIRP_RANGE").value &&
                         user->altitude <= params::gParams.AIRP_HEIGHT.load();
    if (inSight) {
        if (listed.empty() || listed.front().code == af::gPark.code) return;
        const auto& head = listed.front();
        if (head.distance <= params::parameter<params::IntParameter>("AIRP_RANGE").value &&
            head.distance < distance) {
            core::log(
                fmt::format("\n{} {} is in sight ({:.1F} nm), parked aircraft at {} will be removed first",
                            core::timeText(), head.code.view(), head.distance, af::gPark.code.view()));
            leaveParkAirport();
        }
        return;
    }
    core::log(fmt::format("\n{} {} is out of sight ({:.1F} nm), parked aircraft will be removed",
                          core::timeText(), af::gPark.code.view(), distance));
    leaveParkAirport();
}

bool checkParkAirports() {
    const std::string before = gParking.reservedStand;
    if (!readMyParkAirports()) return false;
    if (!af::gPark.code.empty() && !listed.empty() && listed.front().code == af::gPark.code &&
        listed.front().reservedStand != before) {
        core::log(
            fmt::format("reserved stand changed from '{}' to '{}'", before, listed.front().reservedStand));
        gParking.reservedStand = listed.front().reservedStand;
        return false;
    }
    return true;
}

namespace {
std::mutex statusLock;
ParkStatus published; // guarded by statusLock
} // namespace

void publishStatus() {
    ParkStatus s;
    if (!af::gPark.code.empty()) {
        s.airport = std::string(af::gPark.code.view());
        s.quality = af::qualityText(af::gPark.qfReal, af::gPark.qfSoft);
        s.reservedStand = gParking.reservedStand;
        for (const auto& a : gParking.statics) s.statics += a.state == 2;
        s.planned = gParking.planned;
        s.percentage = gParking.shownPercentage;
    }
    std::lock_guard lock(statusLock);
    published = std::move(s);
}

ParkStatus parkStatus() {
    std::lock_guard lock(statusLock);
    return published;
}

void followUp() {
    publishStatus();
}
void idleRefresh() {
    parkAirportTick();
    publishStatus();
}
void recalculate() {
    if (params::gParams.INITIAL_LOAD_ONLY) return;
    adjustStatics();
}
void saveUserStand() {}
void reset() {
    gParking.reset();
    userStandCache = {};
    publishStatus();
}

bool readMyParkAirports() {
    constexpr std::size_t kManyAirports = 3000;
    listed.clear();
    const fs::path file = parkAirportsFile();
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
