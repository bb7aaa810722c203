// Ghost copies, doubles, stale parked tracks, and aircraft in the user's way or in each other's.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <exception>

#include <fmt/format.h>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "live/internal.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "sim/sim.h"

namespace orv::live {

namespace {

namespace af = airportfile;

constexpr double kGroundHeadNm = 0.080994; // 150 m: no aircraft is made this near the user on the ground
constexpr double kFarFromUserM = 500;      // a standing aircraft this far off may still be made
constexpr double kUserSlowKt = 8;          // a user taxiing faster keeps held-back aircraft away
constexpr double kMovedDeg = 1e-8;         // the user moved, for the statics around it
constexpr double kAirGuardAglFt = 500;     // below this the user lands or takes off
constexpr double kAirGuardNm = 1.0;        // what stands on the ground this far ahead goes
constexpr double kAirGuardSideFt = 50;     // within this of the user's line
constexpr double kStaleParkedSeconds = 90; // a parked aircraft with no report this long goes
constexpr double kStaleHeavySeconds = 180; // a heavy one after this

struct CollisionRow {
    double distanceNm, altitudeFt, widthFt;
};
constexpr CollisionRow kRows[] = {{4, 1000, 700}, {6, 3000, 4000}};

bool removing(const LiveAc& ac) {
    return ac.simState == SimState::RemovingFromSim || ac.dropNow || ac.dropSilently || ac.removeWhenCreated;
}

bool isGhostName(std::string_view cs) {
    return !cs.empty() && cs.back() == '_';
}

// `ghost` is `real` with a trailing "_".
bool ghostOf(std::string_view ghost, std::string_view real) {
    return !real.empty() && ghost.size() == real.size() + 1 && isGhostName(ghost) && ghost.starts_with(real);
}

const af::Stand* standOf(std::int32_t number) {
    return number >= 1 && static_cast<std::size_t>(number) <= af::gPark.stands.size()
               ? &af::gPark.stands[static_cast<std::size_t>(number) - 1]
               : nullptr;
}

std::string standName(std::int32_t number) {
    const auto* s = standOf(number);
    return s ? s->id : std::string("?");
}

bool parkedOrPushing(const LiveAc& ac) {
    return ac.phase == Phase::Parked || ac.phase == Phase::Parking || ac.phase == Phase::PushingBack;
}

double secondsSinceReport(const LiveAc& ac) {
    const auto now =
        std::chrono::duration_cast<std::chrono::nanoseconds>(platform::clock().utcNow().time_since_epoch())
            .count() /
        100;
    return static_cast<double>(now - ac.parkedWallClock) / 1e7;
}

// The user on the ground: the first live aircraft on the ground touching it goes; otherwise, when
// the user moved, the first static it would touch.
void groundGuard() {
    auto& e = gEngine;
    const auto& u = e.user;
    const double userHalf = sim::userHalfSpanNm();
    for (auto& ac : e.liveTable)
        if (ac.simState == SimState::Active && ac.onGround &&
            core::distanceNm(ac.lat, ac.lon, u.latitude, u.longitude) < 1.15 * (userHalf + ac.halfSize)) {
            core::log(fmt::format("{:8}: {:8} removed, it would run into the user on the ground",
                                  ac.stand.id ? standName(ac.stand.id) : std::string(), ac.callsign));
            removeAircraftFromSim(ac);
            return;
        }
    if (std::fabs(u.latitude - e.userAtLastGuard.lat) < kMovedDeg &&
        std::fabs(u.longitude - e.userAtLastGuard.lon) < kMovedDeg)
        return;
    e.userAtLastGuard = {u.latitude, u.longitude};
    auto& statics = parking::gParking.statics;
    for (std::size_t i = 0; i < statics.size(); ++i) {
        const auto& a = statics[i];
        if (a.state == 2 && core::distanceNm(a.latitude, a.longitude, u.latitude, u.longitude) <
                                1.1 * (userHalf + refdata::halfSpan(a.type))) {
            parking::removeStaticAircraft(i, "the user is on its place");
            return;
        }
    }
}

// The user low in the air: what stands on its line ahead, then what it would fly into.
void airGuard() {
    auto& e = gEngine;
    const auto& u = e.user;
    if (u.altAboveGround <= kAirGuardAglFt)
        for (auto& ac : e.liveTable) {
            if (ac.simState != SimState::Active || !ac.onGround) continue;
            const double d = core::distanceNm(u.latitude, u.longitude, ac.lat, ac.lon);
            if (d > kAirGuardNm) continue;
            const double x =
                core::angleDiff(u.heading, core::bearingRad(u.latitude, u.longitude, ac.lat, ac.lon));
            if (std::fabs(std::sin(x)) * d * core::kFeetPerNm > kAirGuardSideFt) continue;
            core::log(fmt::format("          {:8} removed, it stands on the user's line", ac.callsign));
            removeAircraftFromSim(ac);
        }
    for (auto& ac : e.liveTable)
        if (ac.simState == SimState::Active && wouldCollide(u, ac.lat, ac.lon, ac.alt, ac.heading, 0)) {
            core::log(fmt::format("          {:8} removed, the user would fly into it", ac.callsign));
            removeAircraftFromSim(ac);
            return;
        }
}

// A live aircraft on the ground that moved: the first static of another callsign it touches goes.
void clearParked(LiveAc& ac) {
    if (ac.landingFlags.rollout || ac.takingOff) return;
    if (ac.clearCheckedPos.lat == ac.lat && ac.clearCheckedPos.lon == ac.lon) return;
    ac.clearCheckedPos = {ac.lat, ac.lon};
    auto& statics = parking::gParking.statics;
    for (std::size_t i = 0; i < statics.size(); ++i) {
        const auto& a = statics[i];
        if (a.state != 2 || a.cs == ac.callsign) continue;
        if (core::distanceNm(a.latitude, a.longitude, ac.lat, ac.lon) <
            1.1 * (ac.halfSize + refdata::halfSpan(a.type))) {
            parking::removeStaticAircraft(i, fmt::format("live {} taxis through it", ac.callsign));
            return;
        }
    }
}

// Parked live aircraft whose reports stopped go: what stands there then comes from the schedule.
void removeStaleParked() {
    if (params::gParams.INITIAL_LOAD_ONLY) return;
    for (auto& ac : gEngine.liveTable) {
        if (ac.simState != SimState::Active || ac.phase != Phase::Parked || ac.parkedWallClock == 0) continue;
        const double seconds = secondsSinceReport(ac);
        const double limit =
            ac.category == refdata::Category::Heavy ? kStaleHeavySeconds : kStaleParkedSeconds;
        if (seconds <= limit) continue;
        core::log(fmt::format("live parked {} at {} removed, no report for {:.0f} s", ac.callsign,
                              standName(ac.stand.id), seconds));
        removeAircraftFromSim(ac);
    }
}

} // namespace

bool inGhostList(std::string_view callsign) {
    const auto& g = gEngine.ghostList;
    return std::find(g.begin(), g.end(), callsign) != g.end();
}

bool ghostExists(std::string_view callsign) {
    if (!isGhostName(callsign)) return false;
    const auto& t = gEngine.liveTable;
    return std::any_of(t.begin(), t.end(),
                       [&](const LiveAc& ac) { return !removing(ac) && ghostOf(callsign, ac.callsign); });
}

void ghostRemove(std::string_view callsign) {
    if (callsign.empty() || isGhostName(callsign)) return;
    auto& e = gEngine;
    for (auto& ac : e.liveTable) {
        if (removing(ac) || !ghostOf(ac.callsign, callsign)) continue;
        if (ac.phase == Phase::Parked)
            core::log(fmt::format("{:8}: {:8} is a ghost and will be removed, continue with {}",
                                  standName(ac.stand.id), ac.callsign, callsign));
        else
            core::log(fmt::format("          {:8} is a ghost and will be removed, continue with {}",
                                  ac.callsign, callsign));
        if (e.ghostList.size() >= kGhostListSize) e.ghostList.erase(e.ghostList.begin());
        if (!inGhostList(ac.callsign)) e.ghostList.push_back(ac.callsign);
        removeAircraftFromSim(ac);
    }
}

bool wouldCollide(const sim::UserData& u, double lat, double lon, double altFt, double headingRad, int row) {
    const auto& r = kRows[row == 0 ? 0 : 1];
    const double d = core::distanceNm(u.latitude, u.longitude, lat, lon);
    if (d > r.distanceNm || std::fabs(u.altitude - altFt) >= r.altitudeFt) return false;
    const double x = core::angleDiff(core::bearingRad(u.latitude, u.longitude, lat, lon), headingRad);
    if (std::cos(x) * d <= 0) return false;
    return std::fabs(std::sin(x)) * d * core::kFeetPerNm <= r.widthFt;
}

bool userProximity(LiveAc& ac) {
    auto& e = gEngine;
    if (!e.userKnown || ac.stream.empty()) return false;
    const Sample& h = ac.stream[0];
    const auto& u = e.user;
    bool drop = false;
    if (gEngine.userOnGround) {
        const double d = core::distanceNm(u.latitude, u.longitude, h.lat, h.lon);
        // Held back while the user flew: it waits until the user stands, and then only a
        // standing aircraft well away from the user is made.
        if (ac.keepDistance)
            drop = u.groundVelocity > kUserSlowKt ||
                   (!h.airborne && !(h.speed <= kUserSlowKt && d * core::kMetresPerNm >= kFarFromUserM));
        if (!drop && params::gParams.COLLISION_USER_GND && !h.airborne && d < kGroundHeadNm) drop = true;
    } else if (params::gParams.COLLISION_USER_AIR) {
        if (!ac.keepDistance && wouldCollide(u, h.lat, h.lon, h.alt, h.track * core::kRadPerDeg, 1))
            ac.keepDistance = true;
        drop = ac.keepDistance;
    }
    if (drop) ac.stream.pop_front();
    return drop;
}

bool standFreeOfLive(std::uint32_t number, std::string_view standId, const LiveAc& ac) {
    for (auto& other : gEngine.liveTable) {
        if (&other == &ac || other.simState != SimState::Active ||
            other.stand.id != static_cast<std::int32_t>(number) ||
            !(other.phase == Phase::Parked || other.phase == Phase::Parking || other.phase == Phase::Birth))
            continue;
        if (other.callsign == ac.callsign) {
            core::log(fmt::format("{:8}: {:8} ac with same callsign {} wants it, remove existing ... ",
                                  standId, other.callsign, ac.callsign));
        } else if (ghostOf(other.callsign, ac.callsign)) {
            core::log(fmt::format("{:8}: {:8} ghost, replace by {}", standId, other.callsign, ac.callsign));
        } else if (ghostOf(ac.callsign, other.callsign) || other.atStand) {
            return false; // the real one, or one that stood there first, keeps it
        } else {
            core::log(fmt::format("{:8}: {:8} removed because another live {} wants the stand ...", standId,
                                  other.callsign, ac.callsign));
        }
        removeAircraftFromSim(other);
    }
    return true;
}

bool clearAdjacent(std::uint32_t number, const LiveAc& ac, bool remove) {
    const auto* s = standOf(static_cast<std::int32_t>(number));
    if (!s) return true;
    bool free = true;
    for (const auto n : s->adjacent) {
        const auto* b = standOf(static_cast<std::int32_t>(n));
        if (!b) continue;
        const double apart = core::distanceNm(s->latitude, s->longitude, b->latitude, b->longitude);
        for (auto& other : gEngine.liveTable) {
            if (&other == &ac || other.simState != SimState::Active || !parkedOrPushing(other) ||
                other.stand.id != static_cast<std::int32_t>(n) || other.callsign == ac.callsign ||
                apart > 1.1 * (ac.halfSize + other.halfSize))
                continue;
            if (!remove) return false;
            core::log(
                fmt::format("{:8}: {:8} removed by parking {} at adjacent and possibly colliding stand {}",
                            b->id, other.callsign, ac.callsign, s->id));
            removeAircraftFromSim(other);
            free = false;
        }
    }
    return remove || free;
}

void checkMaxParked(bool adding) {
    const int most = params::gParams.MAX_PARK_SEL.load(std::memory_order_relaxed);
    if (most == 0 || params::gParams.INITIAL_LOAD_ONLY) return;
    auto& e = gEngine;
    int live = adding ? 1 : 0;
    LiveAc* longest = nullptr;
    for (auto& ac : e.liveTable)
        if (ac.simState == SimState::Active && ac.phase == Phase::Parked) {
            ++live;
            if (!longest || ac.parkedWallClock < longest->parkedWallClock) longest = &ac;
        }
    if (live > most && longest) {
        core::log(fmt::format("{:8}: {} live max park exceeded, removed", standName(longest->stand.id),
                              longest->callsign));
        removeAircraftFromSim(*longest);
        --live;
    }
    auto& statics = parking::gParking.statics;
    const auto standing = std::count_if(statics.begin(), statics.end(),
                                        [](const parking::StaticAc& a) { return a.state != 0; });
    if (standing + live <= most) return;
    // The oldest static is the first still standing: they are kept in the order they were made.
    for (std::size_t i = 0; i < statics.size(); ++i)
        if (statics[i].state == 2) {
            parking::removeStaticAircraft(i, "static max park exceeded");
            return;
        }
}

void sameFlightSweep(const LiveAc& ac) {
    std::string_view cs = ac.callsign;
    while (isGhostName(cs)) cs.remove_suffix(1);
    auto& statics = parking::gParking.statics;
    for (std::size_t i = 0; i < statics.size(); ++i) {
        const auto& a = statics[i];
        if (a.state != 2) continue;
        const bool same = (!ac.registration.empty() && a.reg == ac.registration) ||
                          (!a.cs.empty() && (a.cs == cs || a.cs == ac.flightA || a.cs == ac.flightB));
        if (!same) continue;
        parking::removeStaticAircraft(i, fmt::format("live {} is the same flight", ac.callsign));
        --i;
    }
}

void collisionChecks() {
    try {
        auto& e = gEngine;
        if (!e.userKnown) return;
        if (gEngine.userOnGround) {
            if (params::gParams.COLLISION_USER_GND) groundGuard();
        } else if (params::gParams.COLLISION_USER_AIR) {
            airGuard();
        }
        if (params::gParams.COLLISION_LIVE_PARKED_GND)
            for (auto& ac : e.liveTable)
                if (ac.simState == SimState::Active && ac.onGround &&
                    (ac.phase == Phase::Taxi || ac.phase == Phase::Parking))
                    clearParked(ac);
    } catch (const std::exception& ex) {
        core::log(fmt::format("{} exception {}", "collisionChecks", ex.what()));
    }
}

void duplicatesSweep() {
    try {
        auto& statics = parking::gParking.statics;
        bool removed = false;
        for (const auto& ac : gEngine.liveTable) {
            if (removed) break;
            if (ac.simState != SimState::Active || !ac.onGround) continue;
            const std::string madeUp = ac.callsign + "*";
            for (std::size_t i = 0; i < statics.size() && !removed; ++i) {
                const auto& a = statics[i];
                if (a.state == 0 ||
                    !((!ac.registration.empty() && a.reg == ac.registration) || a.reg == madeUp))
                    continue;
                parking::removeStaticAircraft(i, fmt::format("live {} is the same aircraft", ac.callsign));
                removed = true;
            }
        }
        removeStaleParked();
    } catch (const std::exception& ex) {
        core::log(fmt::format("{} exception {}", "duplicatesSweep", ex.what()));
    }
}

void removeAtReservedStand() {
    try {
        const auto& name = parking::gParking.reservedStand;
        if (name.empty()) return;
        const auto it = std::find_if(af::gPark.stands.begin(), af::gPark.stands.end(),
                                     [&](const af::Stand& s) { return s.id == name; });
        if (it == af::gPark.stands.end()) return;
        auto& statics = parking::gParking.statics;
        for (std::size_t i = 0; i < statics.size(); ++i)
            if (statics[i].state != 0 && statics[i].stand == it->number) {
                parking::removeStaticAircraft(i, "the stand is kept for the user");
                return;
            }
        for (auto& ac : gEngine.liveTable)
            if (ac.simState == SimState::Active && ac.phase == Phase::Parked &&
                ac.stand.id == static_cast<std::int32_t>(it->number)) {
                core::log(
                    fmt::format("{:8}: {:8} removed, the stand is kept for the user", name, ac.callsign));
                removeAircraftFromSim(ac);
                return;
            }
    } catch (const std::exception& ex) {
        core::log(fmt::format("{} exception {}", "removeAtReservedStand", ex.what()));
    }
}

void clearGhosts() {
    gEngine.ghostList.clear();
}

} // namespace orv::live
