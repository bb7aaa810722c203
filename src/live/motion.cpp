// Motion on the ground and at the change between ground and air. For now an aircraft goes
// straight from sample to sample at the pace of its samples: no curves, no stands, no flare.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>
#include <gsl/narrow>

#include "app/app.h"
#include "live/engine.h"

namespace orv::live {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

// Moves a value toward a target by at most `step`.
double toward(double value, double target, double step) {
    return value + std::clamp(target - value, -step, step);
}

} // namespace

// Ground and air meet at a sample: the wheels touch, or leave the ground.
void lf_groundAirChange(LiveAc& ac) {
    const Sample& s0 = ac.stream[0];
    if (!ac.onGround && !s0.airborne) {
        ac.onGround = true;
        ac.landing = false;
        gf_setPhase(ac, Phase::Taxi);
        lf_setGear(ac, true);
    } else if (ac.onGround && s0.airborne) {
        ac.onGround = false;
        ac.turningInPlace = false;
        gf_setPhase(ac, Phase::TakeOff);
        gf_setPhase(ac, Phase::Flying);
    }
}

double lf_groundAltitude(const LiveAc& ac) {
    const double ground = ac.groundAltitude ? *ac.groundAltitude : currentAirportElevation().value_or(0.0);
    return ground + ac.cgHeight;
}

void nextPosGround(LiveAc& ac) {
    auto& st = ac.stream;
    if (st[1].stationary) {
        lf_nextTimeGround(ac);
        return;
    }
    const double d = gf_distanceNmOf(ac.lat, ac.lon, st[1].lat, st[1].lon);
    const double dt = std::round(d * 360000.0 / lf_avgSpeed(ac));
    st[1].tick = lf_retime(ac, gEngine.tick + gsl::narrow<std::int32_t>(std::max(dt, 25.0)));
}

void lf_nextTimeGround(LiveAc& ac) {
    // A wait keeps its recorded time, but never lies in the past.
    ac.stream[1].tick = std::max(ac.stream[1].tick, gEngine.tick);
}

void lf_setGroundSegment(LiveAc& ac, std::int32_t) {
    const Sample& s1 = ac.stream[1];
    ac.dAlt = 0;
    ac.dHeading = 0;
    ac.turningInPlace = true; // the nose follows the bearing to the next sample
    ac.vsTarget = 0;
    ac.tasTarget = s1.speed;
}

void lf_setAirSegment(LiveAc& ac, std::int32_t dt) {
    const Sample& s1 = ac.stream[1];
    const double targetAlt = s1.airborne ? s1.alt : lf_groundAltitude(ac);
    if (!s1.airborne) ac.landing = true;
    ac.dAlt = (targetAlt - ac.alt) / dt;
    ac.dHeading = std::clamp(gf_angleDiff(ac.heading, ac.targetHeading) / dt, -ac.turnRate, ac.turnRate);
    ac.vsTarget = ac.dAlt * 6000.0;
    ac.tasTarget = s1.tas > 0 ? s1.tas : s1.speed;
}

bool checkExtendingSituations(LiveAc& ac, Sample& s) {
    auto& st = ac.stream;
    if (st.empty()) {
        gf_log(fmt::format("{} empty sz?", "checkExtendingSituations"));
        return true;
    }
    if (ac.extrapolateCount > 0) {
        // Real data again. A point behind a flying aircraft is a stale echo, not a resumption.
        if (!ac.onGround &&
            std::fabs(gf_angleDiff(ac.heading, gf_bearingRad(ac.lat, ac.lon, s.lat, s.lon))) >= 100 * kDeg)
            return false;
        ac.extrapolateCount = 0;
        ac.earlyLimit = ac.lateLimit = 3000;
        st.truncate(1); // the made-up points give way to the real one
        st[0].tick = gEngine.tick + 1;
        ac.holding = false;
    }
    return true;
}

void lf_takeOffChecks(LiveAc&, Sample&) {}

bool lf_parkAtSpawn(LiveAc&) {
    return false;
}

bool lf_arrived(LiveAc&) {
    return false;
}

bool lf_userProximity(LiveAc&) {
    return false;
}

void lf_setOnGroundFlags(LiveAc& ac) {
    ac.onGround = true;
    lf_setGear(ac, true);
}

void lf_attitude(LiveAc& ac) {
    const auto& c = gf_categoryData(ac.category);
    if (ac.onGround) {
        ac.alt = lf_groundAltitude(ac);
        return;
    }
    ac.alt += ac.dAlt;
    const double vs = ac.vsTarget < 0 ? std::max(ac.vsTarget, -3000.0) / 2 : std::min(ac.vsTarget, 2400.0);
    ac.pitch = toward(ac.pitch, -0.05236 - vs / 600.0 * 2.2 * kDeg, c.maxPitchRate);
    // A coordinated turn: the bank that gives this turn rate at this speed; right turns bank negative.
    const double omega = ac.dHeading * 100.0, v = std::max(ac.tas, 60.0) * 0.514444;
    const double bank = std::clamp(-std::atan(v * omega / 9.80665), -c.maxBank, c.maxBank);
    ac.bank = toward(ac.bank, bank, c.maxBankRate);
}

bool lf_evaluateCurve(LiveAc&, double&) {
    return false;
}

} // namespace orv::live
