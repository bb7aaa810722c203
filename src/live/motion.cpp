// Motion on the ground (curves, speed changes, push-back, pull-out) and the moments the feed
// says little about: rotation, climb-out, approach configuration, flare, touchdown, roll-out.
#include <algorithm>
#include <chrono>
#include <cmath>

#include <fmt/format.h>
#include <gsl/narrow>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "core/geo.h"
#include "live/internal.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"

namespace orv::live {

namespace {

constexpr double kTicksPerMinute = 6000.0; // feet per minute over this: feet per tick

bool samePlace(const Sample& a, const Sample& b) {
    return std::fabs(a.lat - b.lat) < 1e-8 && std::fabs(a.lon - b.lon) < 1e-8;
}

double sampleDistanceNm(const Sample& a, const Sample& b) {
    return core::distanceNm(a.lat, a.lon, b.lat, b.lon);
}

std::int64_t wallTime100ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(platform::clock().utcNow().time_since_epoch())
               .count() /
           100;
}

bool rotorcraft(const LiveAc& ac) {
    return ac.category == refdata::Category::Rotorcraft;
}

void clampsDecay(LiveAc& ac) {
    ac.earlyLimit = std::max(1000, ac.earlyLimit - 100);
    ac.lateLimit = std::max(1000, ac.lateLimit - 100);
}

void setClamps(LiveAc& ac, std::int32_t early, std::int32_t late) {
    ac.earlyLimit = early;
    ac.lateLimit = late;
}

// The feed's vertical speed across the stream, for the "is it really climbing" tests.
double vsSum(const LiveAc& ac) {
    double sum = 0;
    for (std::size_t i = 0; i < ac.stream.size(); ++i) sum += ac.stream[i].vs;
    return sum;
}

double agl(const LiveAc& ac) {
    return ac.heightAgl;
}

std::int32_t roundTicks(double v) {
    // A round time must be a whole number of ticks; anything else is a fault worth a log line.
    return gsl::narrow<std::int32_t>(std::round(v));
}

} // namespace

// ---- Geometry of curves and turns ------------------------------------------------------------

bool curvePoint(const LiveAc& ac, double t, double& lat, double& lon, double& tangent) {
    if (!ac.curve || !(t >= 0.0 && t <= 1.0)) return false;
    const GroundCurve& c = *ac.curve;
    const double u = 1.0 - t;
    const double cx = c.controlX, cy = c.controlY, ex = c.endX, ey = c.endY;
    const double x = 2 * u * t * cx + t * t * ex;
    const double y = 2 * u * t * cy + t * t * ey;
    tangent = std::atan2(2 * t * (ex - cx) + 2 * u * cx, 2 * t * (ey - cy) + 2 * u * cy);
    if (tangent < 0) tangent += 2 * core::kPi;
    const LatLonPos at = fromXY(c.origin, x, y);
    lat = at.lat, lon = at.lon;
    return true;
}

bool evaluateCurve(LiveAc& ac, double& tangent) {
    double lat = 0, lon = 0;
    if (!ac.curve || !curvePoint(ac, ac.curve->t, lat, lon, tangent)) return false;
    ac.lat = lat, ac.lon = lon;
    return true;
}

double nextTurn(const LiveAc& ac) {
    const auto& st = ac.stream;
    if (st.size() < 3) return 0;
    return core::angleDiff(ac.heading, core::bearingRad(st[1].lat, st[1].lon, st[2].lat, st[2].lon)) /
           core::kRadPerDeg;
}

void prepareCurve(LiveAc& ac) {
    auto& st = ac.stream;
    if (st.size() < 3) return;
    if (st[2].speed == 0) st[2].speed = (st[0].speed + st[1].speed) / 2;
    GroundCurve c;
    c.origin = {ac.lat, ac.lon};
    double cornerX = 0, cornerY = 0;
    toXY(ac.lat, ac.lon, st[1].lat, st[1].lon, cornerX, cornerY);
    toXY(ac.lat, ac.lon, st[2].lat, st[2].lon, c.endX, c.endY);
    // The control point is set beyond the corner so that the curve passes through the corner's
    // report itself: a control point on the corner would cut a quarter of the way inside it.
    c.controlX = 2 * cornerX - c.endX / 2;
    c.controlY = 2 * cornerY - c.endY / 2;
    ac.curve = c;
    st.erase(1);
}

void splitSegment(LiveAc& ac) {
    auto& st = ac.stream;
    if (st.size() < 2) return;
    Sample m = st[1];
    const Sample &a = st[0], &b = st[1];
    m.lat = (a.lat + b.lat) / 2, m.lon = (a.lon + b.lon) / 2;
    m.speed = (a.speed + b.speed) / 2, m.alt = (a.alt + b.alt) / 2;
    m.tick = static_cast<std::int32_t>(std::lround((static_cast<double>(a.tick) + b.tick) / 2.0));
    m.stationary = false;
    m.airborne = m.alt > 0;
    m.feedTime = a.feedTime > 0 && b.feedTime > 0 ? (a.feedTime + b.feedTime) / 2 : 0;
    // Insert as element 1: take element 0 off, put the middle and it back in front.
    const Sample head = st[0];
    st.pop_front();
    st.push_front(m);
    st.push_front(head);
}

void checkSpeedChange(LiveAc& ac) {
    const auto& st = ac.stream;
    if (st.size() < 2) return;
    const double s0 = st[0].speed, s1 = st[1].speed;
    if ((s0 > 0 || s1 > 0) && std::fabs(s0 - s1) > 5 &&
        sampleDistanceNm(st[0], st[1]) * core::kMetresPerNm >= 100.0)
        splitSegment(ac);
}

void setNextTick(LiveAc& ac, std::int32_t dt) {
    auto& st = ac.stream;
    std::int32_t w = gEngine.tick + dt;
    if (ac.extrapolateCount < 1) {
        const std::int32_t t = st[1].tick;
        w = std::clamp(w, t - ac.earlyLimit, t + ac.lateLimit);
    }
    st[1].tick = speedCap(ac, std::max(w, gEngine.tick));
}

void nextTimeGround(LiveAc& ac) {
    auto& st = ac.stream;
    if (st.size() < 2) return;
    if (st[1].stationary) {
        std::int32_t gap = st[1].tick - st[0].tick;
        gap = gap < 0 ? 25 : std::max(gap, 25);
        setNextTick(ac, std::max(st[0].tick - gEngine.tick + gap, 25));
        return;
    }
    ac.currentTurnRate = ac.turnRate;
    const double distance = core::distanceNm(ac.lat, ac.lon, st[1].lat, st[1].lon);
    double speed = avgSpeed(ac);
    // Ground speeds in the feed are often stale: when the points' own spacing says otherwise by
    // more than half, the points are believed, so the aircraft neither races nor stops.
    if (st[0].feedTime > 0 && st[1].feedTime > st[0].feedTime) {
        const double measured = sampleDistanceNm(st[0], st[1]) / (st[1].feedTime - st[0].feedTime) * 3600.0;
        if (measured >= 1.0 && (speed > 2 * measured || speed < measured / 2)) speed = measured;
    }
    const std::int32_t ticks = std::max(roundTicks(distance * 360000.0 / speed), 25);
    const bool curve = ac.curve.has_value();
    if (curve || ac.turningInPlace) {
        const double angle = ac.turningInPlace ? ac.turnAngle : ac.curveAngle;
        // The turn time in the record's units: degrees over radians a tick, as the rates were tuned.
        const double turn = std::max(std::round(angle / ac.currentTurnRate / 100.0), 1.0);
        const double r = ticks / turn;
        if (angle > 0 && distance > 0) {
            if (angle <= 45) {
                if (r >= 1.2) {
                    const double m =
                        std::min({r, r * 10.0 / angle, r * 30.0 / (distance * core::kMetresPerNm)});
                    if (m > 0) ac.currentTurnRate *= 1.0 / m;
                } else if (r > 0) {
                    ac.currentTurnRate *= 1.0 / r;
                }
            } else {
                ac.currentTurnRate *= std::min(r, std::min(angle, 90.0) / 30.0);
                if (angle >= 90) {
                    ac.earlyLimit = std::max(ac.earlyLimit, 2000);
                    ac.lateLimit = std::max(ac.lateLimit, 2000);
                }
            }
        }
    }
    setNextTick(ac, ticks);
}

// ---- Stands: leaving them --------------------------------------------------------------------

namespace {

// The radius of the aircraft's stand in nm; none without a stand.
std::optional<double> standRadius(const LiveAc& ac) {
    if (ac.stand.id == 0) return std::nullopt;
    return ac.halfSize;
}

Sample sampleAt(const LiveAc& ac, double lat, double lon, double speed, std::int32_t tick) {
    Sample s = ac.stream.empty() ? Sample{} : ac.stream[0];
    s.lat = lat, s.lon = lon, s.alt = 0, s.speed = s.tas = speed, s.tick = tick;
    s.airborne = false, s.stationary = false;
    return s;
}

void offset(double lat, double lon, double bearing, double nm, double& outLat, double& outLon) {
    outLat = lat + nm / 60.0 * std::cos(bearing);
    outLon = lon + nm / 60.0 * std::sin(bearing) / std::max(std::cos(lat * core::kRadPerDeg), 1e-6);
}

} // namespace

void pullOut(LiveAc& ac) {
    ac.pushRequested = false;
    ac.extrapolateCount = 0;
    double lat = 0, lon = 0;
    offset(ac.stand.pos.lat, ac.stand.pos.lon, ac.stand.heading, 2 * ac.halfSize, lat, lon);
    const double d = core::distanceNm(ac.lat, ac.lon, lat, lon);
    auto& st = ac.stream;
    st[0].speed = ac.standSpeed;
    const Sample target =
        sampleAt(ac, lat, lon, ac.standSpeed, gEngine.tick + roundTicks(d / ac.standSpeed * 360000.0));
    st.truncate(1);
    st.push_back(target);
    setPhase(ac, Phase::Taxi);
    ac.targetHeading = ac.heading;
    setLights(ac.objectId, true, true, false, true, false, true, false);
    gEngine.out.events.push_back({ac.objectId, sim::kEngineAutoStart, 0});
    setThrottle(ac, 0);
    setFlaps(ac, 1);
    core::log(fmt::format("{:8}: {:8} pulling out", ac.callsign, ac.registration));
}

void pushBack(LiveAc& ac) {
    ac.pushRequested = false;
    ac.extrapolateCount = 0;
    const double b = ac.stand.heading + core::kPi;
    const auto radius = standRadius(ac);
    if (!radius) return;
    auto& st = ac.stream;
    double lat1 = 0, lon1 = 0;
    offset(ac.lat, ac.lon, b, 2.5 * *radius, lat1, lon1);
    st[0].speed = ac.standSpeed;
    ac.targetHeading = ac.heading;
    const double d = core::distanceNm(ac.lat, ac.lon, lat1, lon1);
    const std::int32_t t = roundTicks(d / ac.standSpeed * 360000.0);
    st.truncate(1);
    st.push_back(sampleAt(ac, lat1, lon1, ac.standSpeed, gEngine.tick + t));
    splitSegment(ac);
    // The tail swings to one side at the end of the push: the two candidate points.
    double lat2 = 0, lon2 = 0, lat3 = 0, lon3 = 0;
    offset(lat1, lon1, b + core::kPi / 2, ac.halfSize, lat2, lon2);
    offset(lat1, lon1, b - core::kPi / 2, ac.halfSize, lat3, lon3);
    // Timed from element 1 (the middle of the push after the split), so the tail swings after P1.
    const Sample& e1 = st[1];
    const auto tailTick = [&](double lat, double lon) {
        const double dd = core::distanceNm(e1.lat, e1.lon, lat, lon);
        return gEngine.tick + t / 2 + roundTicks(dd / ac.standSpeed * 360000.0);
    };
    ac.pushTailSample = sampleAt(ac, lat2, lon2, ac.standSpeed, tailTick(lat2, lon2));
    st.push_back(sampleAt(ac, lat3, lon3, ac.standSpeed, tailTick(lat3, lon3)));
    setLights(ac.objectId, true, true, false, true, false, true, false);
    setPhase(ac, Phase::PushingBack);
    ac.pushCounter = 2;
}

void leaveStand(LiveAc& ac, Sample& s) {
    s.stationary = false;
    ac.pushRequested = true;
    if (ac.previousPhase == Phase::Parked) return;
    if (ac.extrapolateCount > 0 && ac.phase == Phase::Parked) {
        if (ac.landingFlags.justLanded) {
            const double parkedFor = static_cast<double>(wallTime100ns() - ac.parkedWallClock) / 1e7;
            const double towLimit = ac.category == refdata::Category::Heavy     ? 3600
                                    : ac.category == refdata::Category::Large   ? 1500
                                    : ac.category == refdata::Category::Buzjets ? 900
                                                                                : 0;
            ac.towed = parkedFor < towLimit;
            ac.landingFlags.justLanded = false;
        }
        ac.stream[0].tick = gEngine.tick + 1;
        ac.extrapolateCount = 0;
        setClamps(ac, 3000, ac.takingOff ? 5000 : 3000);
    }
    ac.atStand = false;
    setPhase(ac, Phase::Parked);
}

// ---- The ground ------------------------------------------------------------------------------

void nextPosGround(LiveAc& ac) {
    auto& st = ac.stream;
    switch (ac.phase) {
    case Phase::PushingBack:
        --ac.pushCounter;
        if (ac.pushCounter == 1) {
            if (ac.turnPlanned) {
                if (ac.turnLeft) st.back() = ac.pushTailSample;
                prepareCurve(ac);
                ac.curveStep = 1.0 / std::max(std::round(90.0 / ac.currentTurnRate / 100.0), 1.0);
                ac.curveAngle = 90;
            } else if (st.size() > 2) {
                st.pop_back();
            }
            nextTimeGround(ac);
            return;
        }
        if (ac.pushCounter < 1) {
            ac.targetHeading = ac.heading;
            gEngine.out.events.push_back({ac.objectId, sim::kEngineAutoStart, 0});
            setThrottle(ac, 0);
            setFlaps(ac, 1);
            setPhase(ac, Phase::PushedBack);
            ac.pushCounter = 1;
            ac.maxPushDistance = 900;
            ac.extrapolateCount = 0;
            ac.pushRequested = false;
        }
        nextTimeGround(ac);
        return;
    case Phase::Parked:
        setClamps(ac, 3000, ac.takingOff ? 5000 : 3000);
        if (ac.pushRequested) {
            const double toLast =
                core::bearingRad(ac.stand.pos.lat, ac.stand.pos.lon, st.back().lat, st.back().lon);
            const double d = std::round(core::angleDiff(ac.stand.heading, toLast) / core::kRadPerDeg);
            if (std::fabs(d) < 90)
                pullOut(ac);
            else
                pushBack(ac);
            return;
        }
        break;
    default:
        break;
    }
    if (st.size() >= 2 && !st[1].stationary) {
        if (st.size() >= 3 && !st[2].stationary) {
            const double a = std::fabs(nextTurn(ac));
            if (a <= 3) {
                checkSpeedChange(ac);
            } else if (a > 45 && sampleDistanceNm(st[0], st[1]) > 0.026998 && st[0].speed <= 43 &&
                       st[1].tick - st[0].tick >= 600) {
                splitSegment(ac);
            } else if (a <= 160) {
                if (!samePlace(st[0], st[2])) {
                    prepareCurve(ac);
                    ac.curveAngle = a;
                } else {
                    checkSpeedChange(ac);
                }
            } else {
                checkSpeedChange(ac);
            }
        } else if (st.size() >= 3) {
            checkSpeedChange(ac);
        } else if (ac.extrapolateCount < 1) {
            const double s0 = st[0].speed, s1 = st[1].speed;
            if ((s0 > 0 || s1 > 0) && std::fabs(s0 - s1) > 5 &&
                sampleDistanceNm(st[0], st[1]) * core::kMetresPerNm >= 100.0)
                splitSegment(ac);
        }
        if (!ac.curve) {
            ac.turnAngle = std::fabs(core::angleDiff(ac.heading, ac.targetHeading)) / core::kRadPerDeg;
            ac.turningInPlace = ac.turnAngle > 3;
        }
    }
    // A stop at the end of the stream may be at a stand.
    if (!st.empty() && st.back().stationary && ac.phase == Phase::Taxi) {
        const bool fromStand =
            !ac.towed && (ac.previousPhase == Phase::Parked || ac.previousPhase == Phase::PushingBack ||
                          ac.previousPhase == Phase::PushedBack);
        if (!fromStand) {
            if (ac.extrapolateCount >= 1)
                try2Park(ac, ac.landingFlags.justLanded);
            else if (st.size() > 1 && st[1].speed <= 5 &&
                     core::distanceNm(ac.lat, ac.lon, st.back().lat, st.back().lon) <= 0.018898)
                try2Park(ac, false);
        }
    }
    nextTimeGround(ac);
}

void setGroundSegment(LiveAc& ac, std::int32_t) {
    auto& st = ac.stream;
    if (ac.phase == Phase::Flying || ac.phase == Phase::Parked) setPhase(ac, Phase::Taxi);
    const double s0 = st[0].speed, s1 = st.size() > 1 ? st[1].speed : 0;
    if (ac.takingOff) {
        if (rotorcraft(ac))
            setThrottle(ac, 4);
        else if (s0 >= 25 || s1 >= 30)
            setThrottle(ac, 4);
        else if (s0 >= 20 || s1 >= 25)
            setThrottle(ac, 2);
        else if (s0 >= 15 || s1 >= 20)
            setThrottle(ac, 1);
        else
            setThrottle(ac, 0);
    } else if (ac.landingFlags.rollout) {
        if (std::fabs(core::angleDiff(ac.landingFlags.rolloutHeading, ac.heading)) >= 15 * core::kRadPerDeg) {
            // Off the runway: the landing is over.
            setFlaps(ac, 0);
            ac.landingFlags.rollout = false;
            setThrottle(ac, rotorcraft(ac) ? 4 : 0);
            setSpoilers(ac, false);
            setReverser(ac, 0, 0);
            setLights(ac.objectId, true, true, false, true, false, true, true);
        } else if (std::max(s0, s1) <= 90) {
            setSpoilers(ac, false);
            if (ac.controls.spoilersState != 0 || ac.controls.flapsIndex != 1) setReverser(ac, 0, 0);
            setFlaps(ac, 1);
        }
    } else {
        setThrottle(ac, rotorcraft(ac) ? 4 : 0);
    }
    if (!ac.landingFlags.rollout && !ac.takingOff) clampsDecay(ac);
    if (ac.landingFlags.flareStage == 0 && ac.phase != Phase::TakeOff) {
        ac.pitch = ac.groundPitch;
        ac.bank = 0;
        ac.delta.pitch = ac.delta.bank = 0;
    }
    if (ac.curve.has_value() && st.size() > 1) ac.curveStep = 1.0 / std::max(st[1].tick - gEngine.tick, 25);
    ac.delta.alt = 0;
    ac.delta.vsTarget = 0;
    ac.delta.tasTarget = ac.phase == Phase::PushingBack ? -s1 : s1;
    // The rotation test.
    if (ac.takingOff && ac.phase != Phase::TakeOff && s0 >= 43 && st.size() > 1) {
        const double rotateSpeed = categoryData(ac.category).rotateSpeed;
        bool someLow = false, allReady = true, anyGround = false;
        for (std::size_t i = 1; i < st.size(); ++i) {
            someLow = someLow || st[i].vs <= 256;
            allReady = allReady && st[i].airborne && st[i].speed >= rotateSpeed;
            anyGround = anyGround || !st[i].airborne;
        }
        const std::int32_t dt = std::max(st[1].tick - gEngine.tick, 25);
        if (someLow) {
            if (allReady) {
                ac.delta.alt = ac.maxClimbStep;
                rotate(ac);
            }
        } else {
            ac.delta.alt = anyGround ? ac.maxClimbStep : std::max(st[1].alt - ac.alt, 0.1) / dt;
            rotate(ac);
        }
    }
}

// ---- Take-off --------------------------------------------------------------------------------

void prepareTakeOff(LiveAc& ac) {
    if (ac.towed) core::log(fmt::format("towed aircraft takes-off? {}", describeAc(ac)));
    ac.takingOff = true;
    setThrottle(ac, 0);
    setSpoilers(ac, false);
    setFlaps(ac, 1);
    ac.landingFlags.landing = ac.landingFlags.justLanded = ac.landingFlags.goAround = false;
    setLights(ac.objectId, true, true, true, true, true, true, false);
    ac.lateLimit = 5000;
    ac.earlyLimit = 3000;
}

void rotate(LiveAc& ac) {
    ac.rotateCounter = std::max(ac.rotateTicks, 1);
    ac.delta.pitch = (ac.rotatePitch - ac.pitch) / ac.rotateCounter;
    ac.bank = 0;
    const bool touchAndGo = ac.landingFlags.rollout;
    if (!ac.takingOff) prepareTakeOff(ac);
    setPhase(ac, Phase::TakeOff);
    ac.delta.heading = 0;
    ac.curve.reset();
    ac.turningInPlace = false;
    if (touchAndGo) {
        ac.landingFlags.rollout = false;
        setThrottle(ac, 4);
        setSpoilers(ac, true);
        setFlaps(ac, 1);
    }
}

namespace {

// A take-off run in the data: the last points and the new one go on along one line, each step
// forward. A stale speed, or positions jumping about a stand, make no run however fast they say.
constexpr double kRunSlowingShare = 0.9; // a run whose speed falls below this share is slowing down
constexpr double kTaxiKt = 30;
constexpr double kRunMinM = 150; // five reports along a straight line this long at least

bool takeOffRunInData(const LiveAc& ac, const Sample& s) {
    const auto& st = ac.stream;
    if (st.size() < 4) return false;
    const Sample* p[5] = {&st[st.size() - 4], &st[st.size() - 3], &st[st.size() - 2], &st.back(), &s};
    double first = 0, runM = 0;
    for (int i = 0; i < 4; ++i) {
        const double stepM = sampleDistanceNm(*p[i], *p[i + 1]) * 1852.0;
        if (stepM < 5.0) return false;
        runM += stepM;
        const double b = core::bearingRad(p[i]->lat, p[i]->lon, p[i + 1]->lat, p[i + 1]->lon);
        if (i == 0)
            first = b;
        else if (std::fabs(core::angleDiff(first, b)) > 15 * core::kRadPerDeg)
            return false;
    }
    // And it gathers speed: a roll-out on the same straight line slows down.
    const auto kt = [](const Sample& a, const Sample& b) {
        return b.feedTime > a.feedTime ? sampleDistanceNm(a, b) / (b.feedTime - a.feedTime) * 3600.0 : -1.0;
    };
    const double early = kt(*p[0], *p[1]), late = kt(*p[3], *p[4]);
    return runM >= kRunMinM && (early < 0 || late < 0 || late >= kRunSlowingShare * early);
}

} // namespace

void takeOffChecks(LiveAc& ac, Sample& s) {
    if (!ac.onGround || ac.simState != SimState::Active || ac.stream.empty()) return;
    const Sample& last = ac.stream.back();
    if (ac.takingOff) {
        // A run the data give up (back to taxi speed on the ground, still before rotation) was no
        // take-off: the aircraft taxis on instead of leaving the ground.
        if (ac.phase == Phase::Taxi && !s.airborne && !last.airborne && s.speed < kTaxiKt &&
            last.speed < kTaxiKt) {
            ac.takingOff = false;
            setThrottle(ac, 0);
            setLights(ac.objectId, true, true, false, true, false, true, true);
        }
        return;
    }
    if (ac.landingFlags.rollout) {
        if (last.airborne && s.airborne) {
            setPhase(ac, Phase::Taxi);
            ac.takingOff = true;
            setThrottle(ac, 3);
            setSpoilers(ac, true);
            setFlaps(ac, 1);
            ac.landingFlags.landing = ac.landingFlags.justLanded = ac.landingFlags.goAround = false;
            setLights(ac.objectId, true, true, true, true, true, true, false);
            setClamps(ac, 3000, 5000);
        }
        return;
    }
    // A report in the air at a standstill is no lift-off: a wrong altitude or flag.
    const bool liftOff = s.airborne && (s.speed >= 43 || last.airborne);
    if (ac.phase == Phase::Taxi &&
        (liftOff || (last.speed >= 43 && s.speed >= 43 && takeOffRunInData(ac, s)))) {
        prepareTakeOff(ac);
    }
}

// ---- Samples in ------------------------------------------------------------------------------

namespace {

constexpr double kSettleSpotM = 2.0; // reports this close together are one spot
constexpr int kSettleReports = 3;    // and this many of them in a row a spot the data settled on
constexpr double kSettleMoveM = 3.0; // farther than this from where the aircraft waits, it moves there
constexpr double kSettleSpeedKt = 3.0;
constexpr double kCreepOnWithinDeg = 20; // a creep this close to the way it was going goes on

// The data came to rest a few metres from where the aircraft waits (the last creep to a stand or
// a holding point, or a stand whose reports flipped to another spot): instead of another wait
// where it stands, the aircraft moves there at a walking pace.
bool settledElsewhere(LiveAc& ac, Sample& s, const Sample& last) {
    const double fromSpotM = core::distanceNm(s.lat, s.lon, ac.settleSpot.lat, ac.settleSpot.lon) * 1852.0;
    if (ac.settleReports > 0 && fromSpotM < kSettleSpotM) {
        ++ac.settleReports;
    } else {
        ac.settleSpot = {s.lat, s.lon};
        ac.settleReports = 1;
    }
    const double awayM = core::distanceNm(last.lat, last.lon, ac.settleSpot.lat, ac.settleSpot.lon) * 1852.0;
    if (ac.settleReports < kSettleReports || awayM <= kSettleMoveM) return false;
    s.lat = ac.settleSpot.lat, s.lon = ac.settleSpot.lon;
    s.track = core::bearingRad(last.lat, last.lon, s.lat, s.lon) / core::kRadPerDeg;
    s.speed = kSettleSpeedKt;
    s.stationary = false;
    ac.settleReports = 0;
    return true;
}

} // namespace

bool filterSample(LiveAc& ac, Sample& s) {
    if (ac.stream.empty()) return true;
    const Sample& last = ac.stream.back();
    s.stationary = samePlace(s, last);
    if (rotorcraft(ac)) return true;
    // An aeroplane on the ground that is said to be in the air at a walking pace has a wrong
    // altitude or flag in that report: it is set aside, not climbed to.
    if (s.airborne && ac.simState == SimState::Active && ac.onGround && !ac.takingOff && s.speed < 43 &&
        last.speed < 43)
        return false;
    const bool flying = s.airborne || (ac.simState == SimState::Active && !ac.onGround);
    if (s.stationary) {
        if (flying) return false;
        if (ac.takingOff && s.speed > 0 && last.speed >= 30) return false;
        s.speed = 0;
        return true;
    }
    if (std::fabs(s.lat - last.lat) < 0.00015 && std::fabs(s.lon - last.lon) < 0.00015) {
        if (flying) return false;
        if (ac.takingOff && s.speed > 0 && last.speed >= 50) return false;
        if (settledElsewhere(ac, s, last)) return true;
        // A few metres more along the way it was going is the end of its taxi, not jitter.
        const auto& st = ac.stream;
        const bool moving = st.size() >= 2 ? !last.stationary && !samePlace(st[st.size() - 2], last)
                                           : ac.phase == Phase::Taxi && ac.simState == SimState::Active;
        const double way = st.size() >= 2 ? core::bearingRad(st[st.size() - 2].lat, st[st.size() - 2].lon,
                                                             last.lat, last.lon)
                                          : ac.heading;
        if (moving && std::fabs(core::angleDiff(way, core::bearingRad(last.lat, last.lon, s.lat, s.lon))) <
                          kCreepOnWithinDeg * core::kRadPerDeg)
            return true;
        // A creep of a few metres is a wait where it stands.
        const std::int32_t tick = s.tick;
        const double time = s.track;
        s = last;
        s.tick = tick;
        s.track = time;
        s.speed = 0;
        s.stationary = true;
        return true;
    }
    if (s.speed > 0) return true;
    if (!ac.takingOff && !s.airborne) return true;
    return last.speed < 50;
}

bool checkNewPosDuringLanding(LiveAc& ac, Sample& s) {
    auto& st = ac.stream;
    if (st.empty()) {
        core::log(fmt::format("{} empty sz?", "checkNewPosDuringLanding"));
        return true;
    }
    if (samePlace(s, st.back())) {
        // A roll-out that ends at a standstill says so by repeating its last place; without those
        // reports the aircraft would roll on, made-up point after made-up point.
        if (!ac.landingFlags.rollout || s.airborne || s.speed > 0) return false;
        ac.extrapolateCount = 0;
        s.stationary = true;
        return true;
    }
    // Behind means against the way the reports were going, not against where the aircraft points
    // now: it is half a minute behind them, and a turn off the runway is no report from behind.
    const auto off = [&](std::size_t i) {
        const Sample& from = st[i];
        const double way = i >= 1 && !samePlace(st[i - 1], from)
                               ? core::bearingRad(st[i - 1].lat, st[i - 1].lon, from.lat, from.lon)
                               : ac.heading;
        return std::fabs(core::angleDiff(way, core::bearingRad(from.lat, from.lon, s.lat, s.lon))) /
               core::kRadPerDeg;
    };
    if (st.size() >= 2) {
        const std::size_t size = st.size();
        if (off(st.size() - 1) >= 90) {
            st.pop_back();
            if (size >= 3 && st.size() >= 2 && off(st.size() - 1) >= 90) st.pop_back();
        }
    } else {
        const double d = off(st.size() - 1);
        if (ac.landingFlags.landing) {
            if (d >= 90) return false;
        } else if (d >= 150) {
            if (ac.extrapolateCount > 0) return false;
            Sample now = st[0];
            now.lat = ac.lat, now.lon = ac.lon, now.alt = ac.alt;
            now.tick = gEngine.tick + 1;
            st.clear();
            st.push_back(now);
        }
    }
    ac.extrapolateCount = 0;
    s.stationary = samePlace(s, st.back());
    if (s.speed > st.back().speed && s.speed > 40) s.speed = st.back().speed;
    return true;
}

bool checkExtendingSituations(LiveAc& ac, Sample& s) {
    auto& st = ac.stream;
    if (st.empty()) {
        core::log(fmt::format("{} empty sz?", "checkExtendingSituations"));
        return true;
    }
    switch (ac.phase) {
    case Phase::Parked:
    case Phase::Parking: {
        // One parked at its spawn judges the reports of its stand while the simulator makes it,
        // or a few metres of scatter around the stand would set it taxiing before it is there.
        if (ac.simState != SimState::Active && !(ac.phase == Phase::Parked && ac.stand.id != 0)) break;
        ac.atStand = true;
        const double d = core::distanceNm(s.lat, s.lon, ac.stand.pos.lat, ac.stand.pos.lon);
        const double limit = ac.previousPhase == Phase::Parking ? 2 * 0.0458963 : 0.0458963;
        if (d <= limit) {
            ac.parkedWallClock = wallTime100ns();
            if (ac.stand.distanceCount == 0 && ac.stand.firstDistance == 0) {
                ac.stand.firstDistance = ac.stand.lastDistance = std::max(d, 1e-9);
                ac.stand.distanceCount = 0;
                ac.pushRequested = false;
                return false;
            }
            if (d >= ac.stand.lastDistance + 0.00161987) {
                ac.stand.lastDistance = d;
                ++ac.stand.distanceCount;
                if ((ac.stand.distanceCount >= 3 && d - ac.stand.firstDistance >= ac.halfSize * 0.5) ||
                    d - ac.stand.firstDistance > ac.halfSize) {
                    leaveStand(ac, s);
                    return true;
                }
            } else if (d <= ac.stand.lastDistance - 0.00161987) {
                ac.stand.distanceCount = 0;
            }
            ac.pushRequested = false;
            return false;
        }
        if (ac.phase == Phase::Parking) {
            setPhase(ac, Phase::Taxi);
            s.stationary = false;
            return true;
        }
        if (d <= 0.107991) {
            leaveStand(ac, s);
            return true;
        }
        removeAircraftFromSim(ac);
        return false;
    }
    case Phase::PushingBack:
        if (ac.pushCounter == 2 && !params::gParams.STRAIGHT_PBS_ONLY.load(std::memory_order_relaxed)) {
            double angle = 0;
            if (s.hasTrueHeading)
                angle = core::angleDiff(ac.heading, s.trueHeading);
            else if (s.track != 0)
                angle = core::angleDiff(ac.heading, s.track * core::kRadPerDeg);
            if (s.hasTrueHeading || s.track != 0) {
                ac.turnLeft = angle > 0;
                ac.turnPlanned = true;
            }
        }
        return false;
    case Phase::PushedBack: {
        const double d = core::distanceNm(ac.lat, ac.lon, s.lat, s.lon);
        if (!(d > 2.75 * ac.halfSize && d > ac.maxPushDistance) && !(d > 6 * ac.halfSize)) {
            if (!ac.holding) ac.holdStartTick = gEngine.tick;
            ac.holding = true;
            ac.maxPushDistance = d;
            return false;
        }
        s.stationary = false;
        if (ac.extrapolateCount > 0) st[0].tick = gEngine.tick + 1;
        setClamps(ac, 1000, 1000);
        ac.turnPlanned = false;
        ac.pushCounter = 0;
        setPhase(ac, Phase::Taxi);
        ac.stand.pos = {};
        ac.stand.id = 0;
        ac.stand.cargo = false;
        ac.holding = false;
        return true;
    }
    default:
        break;
    }
    if (ac.landingFlags.landing || ac.landingFlags.rollout) return checkNewPosDuringLanding(ac, s);
    if (!filterSample(ac, s)) return false;
    if (ac.extrapolateCount > 0) {
        // Real data again. A point behind a flying aircraft is a stale echo, not a resumption.
        if (!ac.onGround &&
            std::fabs(core::angleDiff(ac.heading, core::bearingRad(ac.lat, ac.lon, s.lat, s.lon))) >=
                100 * core::kRadPerDeg)
            return false;
        ac.extrapolateCount = 0;
        setClamps(ac, 3000, 3000);
        st.truncate(1); // the made-up points give way to the real one
        st[0].tick = gEngine.tick + 1;
        ac.holding = false;
    }
    return true;
}

// ---- The air ---------------------------------------------------------------------------------

double landingVs(const LiveAc& ac) {
    const auto& st = ac.stream;
    // The decoder has made the altitudes true ones, so the weather no longer steepens the descent.
    if (agl(ac) > 100 && st.size() >= 2) return std::min((st[0].vs + st[1].vs) / 2, -601.0);
    return -600;
}

bool dropAhead(LiveAc& ac, std::size_t k) {
    auto& st = ac.stream;
    if (k - 1 >= st.size() || !st[k - 1].airborne) return false;
    for (std::size_t n = 0; n < k - 2 && st.size() >= 3; ++n) st.erase(1);
    const double d = core::distanceNm(ac.lat, ac.lon, st[1].lat, st[1].lon);
    st[1].tick = retime(ac, gEngine.tick + std::max(roundTicks(d * 360000.0 / avgSpeed(ac)), 25));
    const std::int32_t dt = std::max(st[1].tick - gEngine.tick, 25);
    const double r = (st[1].alt - ac.alt) / dt;
    ac.delta.alt = r > 0 ? std::min(r, ac.maxClimbStep) : 0;
    return true;
}

void lowApproach(LiveAc& ac) {
    command(ac.objectId, sim::kCabinLights, 0);
    const auto airport = currentAirport();
    const bool near =
        airport && core::distanceNm(ac.lat, ac.lon, airport->latitude, airport->longitude) <= 10.0;
    const double vs = ac.delta.vsTarget;
    if (vs <= -250 && !ac.landingFlags.landing && near) {
        setThrottle(ac, rotorcraft(ac) ? 4 : 1);
        setFlaps(ac, 3);
        setGear(ac, true);
        queueRoute(ac);
        ac.landingFlags.landing = true;
        ac.landingFlags.goAround = false;
        ac.stand.id = 0;
        ac.rotateCounter = 1;
        setClamps(ac, 3000, ac.takingOff ? 5000 : 3000);
    } else if (vs > -250 && (vs > 600 || (ac.landingFlags.landing && !near))) {
        if (!ac.landingFlags.goAround) {
            clampsDecay(ac);
            setThrottle(ac, 4);
            setGear(ac, false);
            setFlaps(ac, 0);
            ac.landingFlags.goAround = true;
            ac.landingFlags.flareStage = 0;
            ac.landingFlags.landing = false;
        }
    }
}

void lowAltitude(LiveAc& ac) {
    if (!ac.below10000) {
        ac.below10000 = true;
        ac.above10000 = false;
        setLights(ac.objectId, true, true, true, true, true, true, true);
    }
    const bool big = ac.category == refdata::Category::Buzjets || ac.category == refdata::Category::Large ||
                     ac.category == refdata::Category::Heavy;
    const double limit = big ? 2050 : 625;
    const double vs = ac.delta.vsTarget;
    if (agl(ac) > limit) {
        clampsDecay(ac);
        command(ac.objectId, sim::kCabinLights, 1);
        ac.takingOff = ac.landingFlags.landing = false;
        if (vs <= -250 && ac.controls.throttleIndex == 3) setThrottle(ac, rotorcraft(ac) ? 4 : 2);
        if (vs > 400 && ac.controls.throttleIndex == 4) setThrottle(ac, rotorcraft(ac) ? 4 : 3);
        if (agl(ac) >= 2400) {
            setGear(ac, false);
            setFlaps(ac, 0);
        } else if (vs <= 100) {
            if (agl(ac) < 2000) { // the approach bands are heights above the airport, not altitudes
                if (ac.controls.flapsIndex == 0 || ac.controls.flapsIndex == 4)
                    setFlaps(ac, 1);
                else if (ac.controls.flapsIndex == 1)
                    setFlaps(ac, 2);
            } else if (ac.controls.flapsIndex == 0 || ac.controls.flapsIndex == 4) {
                setFlaps(ac, 1);
            }
        }
        return;
    }
    lowApproach(ac);
}

void setAirSegment(LiveAc& ac, std::int32_t dt) {
    auto& st = ac.stream;
    if (ac.phase != Phase::TakeOff && ac.phase != Phase::Flying) setPhase(ac, Phase::Flying);
    ac.delta.tasTarget = st[1].tas;
    ac.delta.vsTarget = st[1].vs;
    const bool a0 = st[0].airborne, a1 = st[1].airborne;
    const double alt1 = st[1].alt;
    const auto descend = [&] {
        // With true altitudes the field's elevation is a fair aim whatever the weather.
        if (const auto airport = currentAirport()) {
            ac.delta.alt = (airport->elevation + ac.cgHeight - ac.alt) / dt;
        } else {
            st[1].vs = ac.delta.vsTarget = -601.0;
            ac.delta.alt = -601.0 / kTicksPerMinute;
        }
        setGear(ac, true);
    };
    if (ac.landingFlags.flareStage == 0) {
        if (a0 && a1) {
            if (ac.landingFlags.landing) {
                if (alt1 == ac.alt && agl(ac) <= 1000 && st[0].vs + st[1].vs <= 100) {
                    const double v = landingVs(ac);
                    st[1].vs = v;
                    ac.delta.alt = v / kTicksPerMinute;
                } else {
                    ac.delta.alt = (alt1 - ac.alt) / dt;
                }
            } else {
                // Only a climb-out keeps climbing low down whatever the points say; a low circuit
                // after a touch-and-go follows them down.
                const double r = (alt1 - ac.alt) / dt;
                ac.delta.alt = ac.phase == Phase::TakeOff && agl(ac) <= 1000
                                   ? std::min(ac.maxClimbStep, std::max(r, 0.2))
                                   : std::min(r, ac.maxClimbStep);
            }
        } else if (a0 && !a1) {
            descend();
        } else if (!a0 && a1) {
            const double r = (alt1 - ac.alt) / dt;
            ac.delta.alt = r > 0 ? std::min(r, ac.maxClimbStep) : 0;
        } else {
            if (ac.landingFlags.landing || vsSum(ac) <= 100) {
                const double v = landingVs(ac);
                st[1].vs = ac.delta.vsTarget = v;
                ac.delta.alt = v / kTicksPerMinute;
            } else {
                bool dropped = false;
                for (std::size_t k = 3; k <= std::min<std::size_t>(st.size() - 1, 10) && !dropped; ++k)
                    dropped = dropAhead(ac, k);
                if (!dropped) {
                    st[1].vs = std::max(st[1].vs, 601.0);
                    ac.delta.alt = st[1].vs / kTicksPerMinute;
                }
            }
            setGear(ac, true);
        }
        // Pitch follows the vertical speed.
        const double v = st[1].vs > 0 ? std::min(st[1].vs, 2400.0) : std::max(st[1].vs, -3000.0) * 0.5;
        const double target = -3 * core::kRadPerDeg - v / 600.0 * 2.2 * core::kRadPerDeg;
        const double rate = categoryData(ac.category).maxPitchRate;
        ac.delta.pitch = std::clamp((target - ac.pitch) / dt, -rate, rate);
    }
    // Heading and bank.
    const auto& c = categoryData(ac.category);
    double diff;
    if (st[1].hasTrueHeading && st[1].hasBank && agl(ac) < (ac.landingFlags.landing ? 2000 : 1000))
        diff = core::angleDiff(ac.heading, st[1].trueHeading);
    else if (st.size() >= 3)
        diff = nextTurn(ac) * core::kRadPerDeg;
    else
        diff = core::angleDiff(ac.heading, ac.targetHeading);
    ac.delta.heading = diff / dt;
    if (st[1].hasBank) {
        ac.delta.bank = (st[1].bank - ac.bank) / dt;
    } else {
        const double wanted = -std::clamp(diff, -c.maxBank, c.maxBank);
        ac.delta.bank = std::clamp((wanted - ac.bank) / dt, -c.maxBankRate, c.maxBankRate);
    }
    // The altitude bands.
    if (st[0].alt >= 10000) {
        if (!ac.above10000) {
            ac.above10000 = true;
            ac.below10000 = false;
            setLights(ac.objectId, true, true, false, false, false, false, true);
            setThrottle(ac, rotorcraft(ac) ? 4 : 3);
            setGear(ac, false);
            setFlaps(ac, 0);
        }
    } else {
        lowAltitude(ac);
    }
}

// ---- Each tick -------------------------------------------------------------------------------

void attitude(LiveAc& ac) {
    const auto& c = categoryData(ac.category);
    if (ac.phase == Phase::TakeOff) {
        // The take-off run: rotate, lift off, and climb away with a gradually growing step.
        if (ac.rotateCounter > -1000) --ac.rotateCounter;
        if (ac.rotateCounter >= 1) {
            ac.onGround = false;
            ac.pitch = std::max(ac.pitch + ac.delta.pitch, ac.rotatePitch);
            return;
        }
        ac.bank += std::clamp(ac.delta.bank, -c.maxBankRate, c.maxBankRate);
        const double pitchStep = (ac.climbPitch - ac.rotatePitch) / std::max(ac.liftoffTicks, 1);
        ac.pitch = std::max(ac.pitch + pitchStep, ac.climbPitch);
        const std::int32_t n = ac.rotateCounter;
        double step = ac.delta.alt;
        if (n > -100)
            step /= 10;
        else if (n > -200)
            step /= 5;
        else if (n > -300)
            step *= 0.5;
        if (n == -300) setGear(ac, false);
        ac.alt += step;
        if (ac.pitch <= ac.climbPitch && agl(ac) >= 800) {
            setThrottle(ac, rotorcraft(ac) ? 4 : 3);
            setPhase(ac, Phase::Flying);
            ac.rotateCounter = 1;
        }
        return;
    }
    if (ac.landingFlags.derotating) {
        ac.pitch = std::min(ac.pitch + ac.delta.pitch, ac.groundPitch);
        ac.bank += ac.delta.bank;
        if (ac.pitch >= ac.groundPitch || ac.delta.pitch <= 0) {
            ac.pitch = ac.groundPitch;
            ac.bank = 0;
            ac.landingFlags.derotating = false;
            ac.landingFlags.flareStage = 0;
        }
        return;
    }
    if (ac.onGround) return;
    if (ac.landingFlags.landing && agl(ac) <= 400) {
        // The flare: four stages by height, each a gentler sink.
        const double h = ac.cgHeight;
        double height = agl(ac);
        if (ac.landingFlags.flareStage == 0) {
            if (!ac.airportElevation)
                if (const auto airport = currentAirport()) ac.airportElevation = airport->elevation;
            if (ac.airportElevation) height = std::min(height, ac.alt - *ac.airportElevation);
        }
        struct Stage {
            double above, step, vs;
        };
        constexpr Stage kStages[] = {
            {30, -0.1, -601}, {20, -0.075, -450}, {10, -0.05, -300}, {3, -0.025, -150}};
        if (ac.landingFlags.flareStage < 4 && height <= h + kStages[ac.landingFlags.flareStage].above) {
            const auto& stage = kStages[ac.landingFlags.flareStage];
            if (ac.landingFlags.flareStage == 0)
                ac.delta.pitch = (-4 * core::kRadPerDeg - ac.pitch) / std::max(ac.flareTicks, 1);
            if (ac.landingFlags.flareStage == 2) setThrottle(ac, 0);
            ac.delta.alt = stage.step;
            if (!ac.stream.empty()) ac.stream[0].vs = stage.vs;
            ac.delta.vsTarget = stage.vs;
            ++ac.landingFlags.flareStage;
        }
    }
    if (ac.landingFlags.flareStage > 0) {
        ac.pitch = std::max(ac.pitch + ac.delta.pitch, -4 * core::kRadPerDeg);
        ac.alt += ac.delta.alt;
    } else {
        ac.pitch += ac.delta.pitch;
        ac.alt += ac.delta.alt;
    }
    ac.bank = std::clamp(ac.bank + ac.delta.bank, -c.maxBank, c.maxBank);
    ac.pitch = std::clamp(ac.pitch, -30 * core::kRadPerDeg, 15 * core::kRadPerDeg);
    // Never below the ground while coming down to it.
    if (ac.landingFlags.landing && ac.groundAltitude) ac.alt = std::max(ac.alt, groundAltitude(ac));
}

void inRangeReport(LiveAc& ac, bool simOnGround, double groundAlt, double heightAgl) {
    ac.groundAltitude = groundAlt;
    if (simOnGround && !ac.onGround && ac.rotateCounter <= 1 && ac.simState != SimState::RemovingFromSim &&
        ac.phase != Phase::TakeOff) {
        if (ac.landingFlags.flareStage > 0 || ac.landingFlags.landing) {
            ac.landingFlags.derotating = ac.landingFlags.rollout = true;
            ac.landingFlags.rolloutHeading = ac.heading;
            ac.landingFlags.landing = false;
            ac.landingFlags.justLanded = true;
            queueRoute(ac);
            setSpoilers(ac, true);
            setReverser(ac, 100, ac.reverseThrust ? -100 : 100);
            const std::int32_t n = ac.derotateTicks;
            if (n > 0) {
                ac.delta.bank = -ac.bank / n;
                ac.delta.pitch = (ac.groundPitch - ac.pitch) / n;
            } else {
                core::log(fmt::format("{} ! onGround slots {:.1f}", describeAc(ac), ac.heightAgl));
                ac.delta.bank = 0;
            }
        }
        ac.onGround = true;
        ac.delta.alt = 0;
        ac.rotateCounter = 1;
    }
    ac.heightAgl = heightAgl;
    if (ac.onGround || ac.rotateCounter >= 2) ac.alt = groundAlt + ac.cgHeight;
}

double groundAltitude(const LiveAc& ac) {
    const auto airport = currentAirport();
    const double ground = ac.groundAltitude ? *ac.groundAltitude : airport ? airport->elevation : 0.0;
    return ground + ac.cgHeight;
}

// ---- Stands (they come with the airport files) -------------------------------------------------

namespace {

namespace af = airportfile;

constexpr double kStretchNm = 0.010799;   // 20 m: a stand this near takes the aircraft, too small or not
constexpr double kUserStandNm = 0.029698; // 55 m
constexpr double kOptionNm = 0.045896;    // 85 m: a stand whose schedule names the aircraft
constexpr double kFitNm = 0.000972;       // 1.8 m: how much larger than the stand the aircraft may be
constexpr double kOneMetreNm = 0.00054;
constexpr double kArrivedNm = 0.00108;     // 2 m
constexpr double kSpawnCreepNm = 0.018898; // 35 m

bool namesAircraft(const af::StandOption& o, const LiveAc& ac) {
    return o.number != 0 && o.real == 1 &&
           (o.cs == ac.callsign || o.cs2 == ac.callsign ||
            (o.airline == ac.airlineCode && o.type == ac.modelCode));
}

// The stand an aircraft at (lat, lon) would park on: the nearest within `maxNm` that it fits (or
// one within 20 m, widened to it), else one within 85 m whose schedule names it.
af::Stand* closestStand(double lat, double lon, const LiveAc& ac, double maxNm, bool useOptions) {
    af::Stand *best = nullptr, *option = nullptr;
    double bestNm = 1e9, optionNm = 1e9;
    bool stretched = false;
    for (auto& s : af::gPark.stands) {
        const double d = core::distanceNm(lat, lon, s.latitude, s.longitude);
        const bool fit = ac.halfSize - s.radiusNm <= kFitNm;
        if (d <= maxNm && d < bestNm && (fit || d <= kStretchNm)) {
            best = &s, bestNm = d, stretched = !fit;
            useOptions = false;
            continue;
        }
        if (useOptions && d <= kOptionNm && d < optionNm && fit && !ac.callsign.empty() &&
            std::any_of(s.options.begin(), s.options.end(),
                        [&](const af::StandOption& o) { return namesAircraft(o, ac); }))
            option = &s, optionNm = d;
    }
    af::Stand* r = best ? best : option;
    if (!r || r->heli != (ac.category == refdata::Category::Rotorcraft)) return nullptr;
    if (r == best && stretched) {
        r->radiusChange = true;
        r->radiusNm = ac.halfSize - kOneMetreNm;
        ++af::gPark.updateCount;
    }
    return r;
}

// The user's own stand and the one kept for the user are never taken.
bool usersStand(const af::Stand& s) {
    if (!parking::gParking.reservedStand.empty() && s.id == parking::gParking.reservedStand) return true;
    const auto& u = gEngine.user;
    return gEngine.userKnown && parking::userStand({u.latitude, u.longitude}, u.altAboveGround < 5.0) == s.id;
}

af::LearnedAircraft learned(const LiveAc& ac) {
    af::LearnedAircraft a;
    a.reg = ac.registration, a.cs = ac.callsign;
    a.airline = ac.airlineCode, a.type = ac.modelCode;
    a.longStay = ac.stand.cargo;
    a.heavy = ac.category == refdata::Category::Heavy;
    return a;
}

void takeStand(LiveAc& ac, const af::Stand& s) {
    ac.stand = {};
    ac.stand.pos = {s.latitude, s.longitude};
    ac.stand.heading = s.headingRad;
    ac.stand.id = static_cast<std::int32_t>(s.number);
    ac.stand.cargo = s.cargo;
}

void drive2Stand(LiveAc& ac, LatLonPos target) {
    auto& st = ac.stream;
    Sample& last = st.back();
    const double d = core::distanceNm(last.lat, last.lon, target.lat, target.lon);
    const double speed = ac.standSpeed > 0 ? ac.standSpeed : 5.0;
    const auto t = static_cast<std::int32_t>(std::max(std::round(d * 360000.0 / speed), 100.0));
    Sample s = last;
    s.lat = target.lat, s.lon = target.lon, s.alt = ac.alt;
    s.speed = s.tas = speed;
    s.track = ac.stand.heading * core::kDegPerRad;
    s.vs = 0;
    s.tick = st.front().tick + t;
    s.airborne = false;
    s.stationary = d < 1e-7;
    s.bank = ac.bank, s.hasBank = true;
    last.speed = speed;
    st.push_back(s);
    s.speed = s.tas = 0;
    s.stationary = true;
    s.tick += 50;
    st.push_back(s);
    ac.targetHeading = ac.stand.heading;
    if (ac.extrapolateCount >= 1) {
        ac.extrapolateCount = 0;
        setClamps(ac, 3000, ac.takingOff ? 5000 : 3000);
    }
}

} // namespace

bool try2Park(LiveAc& ac, bool justLanded) {
    auto& st = ac.stream;
    if (st.empty()) {
        core::log(fmt::format("{} empty sz?", "try2Park"));
        return false;
    }
    const Sample& last = st.back();
    if (ac.lastCheckedPos.lat == last.lat && ac.lastCheckedPos.lon == last.lon) return false;
    ac.lastCheckedPos = {last.lat, last.lon};
    af::Stand* s = closestStand(last.lat, last.lon, ac, justLanded ? kUserStandNm : kStretchNm, justLanded);
    if (!s || usersStand(*s) || !standFreeOfLive(s->number, s->id, ac)) return false;
    clearAdjacent(s->number, ac, true);
    parking::clearStaticsFor(s->number, ac.halfSize);
    takeStand(ac, *s);
    while (st.size() > 1) st.pop_back();
    setPhase(ac, Phase::Parking);
    drive2Stand(ac, ac.stand.pos);
    return true;
}

bool parkAtSpawn(LiveAc& ac) {
    auto& st = ac.stream;
    if (af::gPark.stands.empty() || st.empty()) return false;
    const auto airport = currentAirport();
    if (!airport || core::distanceNm(st[0].lat, st[0].lon, airport->latitude, airport->longitude) > 5.0)
        return false;
    Sample head = st[0];
    if (!head.stationary) {
        if (st.size() < 2 || st[1].speed > 5 ||
            core::distanceNm(head.lat, head.lon, st.back().lat, st.back().lon) > kSpawnCreepNm)
            return false;
        head = st.back();
    }
    af::Stand* s = closestStand(head.lat, head.lon, ac, kUserStandNm, head.stationary);
    if (!s || usersStand(*s)) return false;
    if (!standFreeOfLive(s->number, s->id, ac) || !clearAdjacent(s->number, ac, false)) {
        ac.dropNow = true;
        return false;
    }
    parking::clearStaticsFor(s->number, ac.halfSize);
    takeStand(ac, *s);
    while (st.size() > 1) st.pop_back();
    st[0].lat = s->latitude, st[0].lon = s->longitude;
    st[0].stationary = true;
    st[0].speed = st[0].tas = 0;
    ac.parkedWallClock = wallTime100ns();
    af::addRealStandOption(s->number, learned(ac), af::LearnKind::FoundAtSpawn, af::nowDayHalfHour());
    checkMaxParked(true);
    return true;
}

bool arrived(LiveAc& ac) {
    const double d = core::distanceNm(ac.lat, ac.lon, ac.stand.pos.lat, ac.stand.pos.lon);
    if (d > kArrivedNm) {
        setPhase(ac, Phase::Taxi);
        return false;
    }
    setPhase(ac, Phase::Parked);
    if (ac.towed) core::log(fmt::format("          towed aircraft {} parks", ac.callsign));
    ac.stream[0].stationary = true;
    ac.parkedWallClock = wallTime100ns();
    ac.stand.firstDistance = ac.stand.lastDistance = 0;
    ac.stand.distanceCount = 0;
    setParkedLights(ac);
    const auto* s = ac.stand.id >= 1 && static_cast<std::size_t>(ac.stand.id) <= af::gPark.stands.size()
                        ? &af::gPark.stands[static_cast<std::size_t>(ac.stand.id) - 1]
                        : nullptr;
    core::log(fmt::format("{:8}: {:8} arrived at stand", s ? s->id : std::string("?"), ac.callsign));
    queueRoute(ac);
    af::addRealStandOption(static_cast<std::uint32_t>(ac.stand.id), learned(ac), af::LearnKind::Arrival,
                           af::nowDayHalfHour());
    checkMaxParked(false);
    return true;
}

void setOnGroundFlags(LiveAc& ac) {
    ac.onGround = true;
    setGear(ac, true);
}

} // namespace orv::live
