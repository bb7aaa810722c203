// Real recordings through the whole chain: decoder, engine, simulator client, emulated simulator.
#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <set>

#include <fmt/ranges.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/geo.h"
#include "emulator.h"
#include "feed/feed.h"
#include "live/internal.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "program_home.h"
#include "scenario.h"
#include "support.h"

namespace orv {
namespace {

constexpr std::uint32_t kN899DN = 11298587; // hex ac671b

class ScenarioTest : public test::ProgramHome {};

// Where the object was at a time, linearly between the positions the simulator was given.
struct Where {
    double latitude, longitude, altitudeFt;
};
std::optional<Where> positionAt(const emu::ObjectRecord& o, double t) {
    const auto& p = o.positions;
    const auto after =
        std::lower_bound(p.begin(), p.end(), t, [](const auto& r, double x) { return r.t < x; });
    if (after == p.begin() || after == p.end()) return std::nullopt;
    const auto& a = *(after - 1);
    const auto& b = *after;
    const double f = b.t > a.t ? (t - a.t) / (b.t - a.t) : 0;
    return Where{a.latitude + f * (b.latitude - a.latitude), a.longitude + f * (b.longitude - a.longitude),
                 a.altitudeFt + f * (b.altitudeFt - a.altitudeFt)};
}

TEST_F(ScenarioTest, KmspApproachOfN899dn) {
    scenario::Config c;
    c.recording = recording("kmsp-n899dn.rttfc");
    c.airport = "KMSP";
    c.fromSeconds = 13400; // DAL1812 enters the 40 nm circle
    c.toSeconds = 13400 + 600;
    c.runSeconds = 600 + 30 + 120;
    c.titles = titles;
    std::vector<live::SimState> states;
    c.onFrame = [&](double) {
        const live::LiveAc* ac = live::findByHexid(kN899DN);
        if (ac && (states.empty() || states.back() != ac->simState)) states.push_back(ac->simState);
    };
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");

    EXPECT_TRUE(log.contains("=0= AIG Boeing 737-900 Delta Air Lines N899DN")) << log.text();
    ASSERT_EQ(r.objects.size(), 1u) << "created once";
    const auto& o = r.objects[0];
    EXPECT_EQ(o.title, "AIG Boeing 737-900 Delta Air Lines N899DN");
    EXPECT_EQ(o.tail, "DAL1812");
    EXPECT_TRUE(o.released);
    using S = live::SimState;
    EXPECT_EQ(states, (std::vector<S>{S::Buffer, S::Adding2Sim, S::Active, S::RemovingFromSim}));

    // Lights and engines in their order once the object exists: two toggles, then the airborne set.
    std::vector<std::string> names;
    for (const auto& e : o.events)
        if (e.name != "ReleaseControl" && !e.name.starts_with("FREEZE")) names.push_back(e.name);
    const std::vector<std::string> expected = {"ALL_LIGHTS_TOGGLE",  "ALL_LIGHTS_TOGGLE", "ENGINE_AUTO_START",
                                               "SPOILERS_SET",       "NAV_LIGHTS_SET",    "BEACON_LIGHTS_SET",
                                               "LANDING_LIGHTS_SET", "TAXI_LIGHTS_SET",   "STROBES_SET",
                                               "LOGO_LIGHTS_SET",    "CABIN_LIGHTS_SET"};
    ASSERT_GE(names.size(), expected.size());
    EXPECT_EQ(std::vector<std::string>(names.begin(), names.begin() + expected.size()), expected);

    // Thirty seconds behind: each fed point is passed close by, about 3000 ticks after it came.
    std::vector<double> delays;
    double worst = 0, worstAlt = 0;
    for (const auto& f : r.fed) {
        if (f.at < 60 || f.at > 600 - 30) continue; // after the start, before extrapolation
        double best = 1e9, bestT = 0, altDiff = 0;
        for (double t = f.at + 10; t <= f.at + 50; t += 0.05)
            if (const auto p = positionAt(o, t)) {
                const double d = core::distanceNm({p->latitude, p->longitude}, {f.latitude, f.longitude});
                if (d < best) best = d, bestT = t, altDiff = std::fabs(p->altitudeFt - f.altitudeFt);
            }
        delays.push_back(bestT - f.at);
        worst = std::max(worst, best);
        worstAlt = std::max(worstAlt, altDiff);
    }
    ASSERT_GT(delays.size(), 50u);
    std::sort(delays.begin(), delays.end());
    EXPECT_NEAR(delays[delays.size() / 2], 30.0, 2.0) << "median delay";
    EXPECT_GE(delays.front(), 20.0);
    EXPECT_LE(delays.back(), 40.0);
    EXPECT_LT(worst, 0.05) << "nm from a fed point at the closest";
    EXPECT_LT(worstAlt, 100.0) << "feet from a fed point's altitude there";

    // The data end: up to 8 steps of 8 s in the air, then the object goes.
    ASSERT_GE(o.removedAt, 0.0);
    EXPECT_GT(o.removedAt, 600 + 30);
    EXPECT_LT(o.removedAt, 600 + 30 + 8 * 8 + 10);
}

// A flood of lines over the recording: the queue stays bounded, the engine keeps up, and the real
// aircraft is created and flown as it is without the flood.
TEST_F(ScenarioTest, KmspApproachThroughABurst) {
    struct Case {
        int linesPerSecond;
        double seconds;
    };
    double baselineCreated = -1;
    for (const Case c : {Case{0, 0}, Case{5000, 30}, Case{20000, 10}}) {
        SCOPED_TRACE(fmt::format("{} lines/s for {} s", c.linesPerSecond, c.seconds));
        scenario::Config cfg;
        cfg.recording = recording("kmsp-n899dn.rttfc");
        cfg.airport = "KMSP";
        cfg.fromSeconds = 13400; // DAL1812 enters the 40 nm circle
        cfg.toSeconds = 13400 + 150;
        cfg.runSeconds = 150;
        cfg.titles = titles;
        cfg.burst = {5, 5 + c.seconds, c.linesPerSecond, 400};
        std::size_t mostWaiting = 0, waitingAfter = 0;
        cfg.onFrame = [&](double t) {
            const auto n = feed::gTraffic.trafficQueue.size();
            mostWaiting = std::max(mostWaiting, n);
            if (t > cfg.burst.toSeconds + 1) waitingAfter = std::max(waitingAfter, n);
        };
        const auto r = scenario::run(cfg);
        ASSERT_EQ(r.error, "");
        const auto o = std::find_if(r.objects.begin(), r.objects.end(),
                                    [](const emu::ObjectRecord& x) { return x.tail == "DAL1812"; });
        ASSERT_NE(o, r.objects.end()) << "DAL1812 created";
        if (c.linesPerSecond == 0) {
            baselineCreated = o->createdAt;
            continue;
        }
        EXPECT_NEAR(o->createdAt, baselineCreated, 2.0) << "created on time";
        EXPECT_LE(mostWaiting, feed::SampleRing::kCapacity);
        EXPECT_LT(waitingAfter, 50u) << "the backlog is gone a second after the burst";
        // Every point fed after the burst is passed about 30 s after it came.
        for (const auto& f : r.fed) {
            if (f.hexid != kN899DN || f.at < cfg.burst.toSeconds || f.at > 150 - 35) continue;
            double best = 1e9;
            for (double t = f.at + 25; t <= f.at + 35; t += 0.05)
                if (const auto p = positionAt(*o, t))
                    best = std::min(best,
                                    core::distanceNm({p->latitude, p->longitude}, {f.latitude, f.longitude}));
            EXPECT_LT(best, 0.05) << "fed at " << f.at;
        }
    }
}

std::vector<scenario::Runway> runways() {
    return scenario::readRunways(fs::path(ORV_SOURCE_DIR) / "data/recordings/runways.csv");
}

// The names of the client events an object received, in order, without the client's own
// bookkeeping (freezes, control releases).
std::vector<std::string> eventNames(const emu::ObjectRecord& o) {
    std::vector<std::string> names;
    for (const auto& e : o.events)
        if (e.name != "ReleaseControl" && !e.name.starts_with("FREEZE"))
            names.push_back(fmt::format("{} {}", e.name, e.data));
    return names;
}

// Whether `wanted` occur in `names` in this order (others may lie between).
bool inOrder(const std::vector<std::string>& names, const std::vector<std::string>& wanted) {
    auto it = names.begin();
    for (const auto& w : wanted) {
        it = std::find(it, names.end(), w);
        if (it == names.end()) return false;
        ++it;
    }
    return true;
}

double metres(double lat1, double lon1, double lat2, double lon2) {
    return core::distanceNm({lat1, lon1}, {lat2, lon2}) * 1852.0;
}

// A run and its motion report, printed for the log of the test.
struct Run {
    scenario::Result result;
    std::vector<scenario::AircraftMotion> report;
};
Run runAndReport(const scenario::Config& c) {
    Run run{scenario::run(c), {}};
    if (run.result.error.empty()) run.report = scenario::motionReport(run.result, runways());
    std::printf("%s", scenario::formatReport(run.report).c_str());
    return run;
}

constexpr double kG11Lat = 44.880425, kG11Lon = -93.209817; // gate G11, from the stand list

TEST_F(ScenarioTest, KmspLandingTaxiToG11) {
    scenario::Config c;
    c.recording = recording("kmsp-n899dn.rttfc");
    c.airport = "KMSP";
    c.fromSeconds = 14000; // 5 minutes before touchdown on 12R
    c.toSeconds = 14500;   // at gate G11
    c.runSeconds = 500 + 30 + 300;
    c.titles = titles;
    const auto [r, report] = runAndReport(c);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(report.size(), 1u);
    const auto& m = report[0];

    // On the runway it really used, near where the real one touched down (its first point at
    // runway height), on the simulator's own ground flag.
    ASSERT_TRUE(m.touchedDown);
    EXPECT_EQ(m.touchdownRunway, "KMSP 12R/30L");
    EXPECT_LT(m.touchdownCentreLineM, 10.0);
    EXPECT_LT(metres(m.touchdownLat, m.touchdownLon, 44.884506, -93.226580), 500.0);
    // Then rolls out, taxis and stops at G11, about where the recording stops.
    ASSERT_TRUE(m.cameToRest);
    const double realStop = metres(44.880384, -93.209900, kG11Lat, kG11Lon);
    EXPECT_LT(metres(m.restLat, m.restLon, kG11Lat, kG11Lon), realStop + 15.0);
    EXPECT_LT(m.restT, 500 + 30 + 30);
    // Smooth: no step faster than the aircraft's speed, no ground turn faster than a Large turns.
    EXPECT_LE(m.maxStepKt, 1.1 * m.maxFedSpeedKt);
    EXPECT_LE(m.maxTurnGroundDegS, 3 * 7.0);
    EXPECT_LE(m.maxBankGroundDeg, 1.0);
    EXPECT_LE(m.maxBankAirDeg, 30.0);
    EXPECT_LT(m.pathP95AirM, 10.0);
    EXPECT_LT(m.pathP95GroundM, 15.0);
    EXPECT_LT(m.p95AirM, 700.0) << "30 s behind within the clamps";
    EXPECT_EQ(r.objects[0].throttle1, 0) << "reversers stowed after the roll-out";
    // Configured for landing, then spoilers at touchdown, flaps up and landing lights and strobes off
    // the runway; each light only when it changes.
    EXPECT_TRUE(inOrder(eventNames(r.objects[0]),
                        {"FLAPS_SET 16383", "GEAR_SET 1", "SPOILERS_SET 16383", "FLAPS_SET 3072",
                         "FLAPS_SET 0", "LANDING_LIGHTS_SET 0", "STROBES_SET 0"}))
        << fmt::format("{}", fmt::join(eventNames(r.objects[0]), ", "));
}

TEST_F(ScenarioTest, KmspDeparture) {
    scenario::Config c;
    c.recording = recording("kmsp-n899dn.rttfc");
    c.airport = "KMSP";
    c.fromSeconds = 23000; // DAL2418 pushed back from G11, about to taxi to 12L
    c.toSeconds = 23700;
    c.runSeconds = 700 + 30 + 60;
    c.titles = titles;
    std::vector<live::Phase> phases;
    double mostNoseUp = 0;
    c.onFrame = [&](double) {
        const live::LiveAc* ac = live::findByHexid(kN899DN);
        if (!ac) return;
        if (phases.empty() || phases.back() != ac->phase) phases.push_back(ac->phase);
        mostNoseUp = std::min(mostNoseUp, ac->pitch);
    };
    const auto [r, report] = runAndReport(c);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(report.size(), 1u);
    const auto& m = report[0];
    using P = live::Phase;
    EXPECT_EQ(phases, (std::vector<P>{P::Birth, P::Taxi, P::TakeOff, P::Flying}));
    // Rotation to the climb pitch of a Large (-16.5 degrees, varied by 5 %).
    EXPECT_LT(mostNoseUp, -15.0 * core::kRadPerDeg);
    EXPECT_GT(mostNoseUp, -18.0 * core::kRadPerDeg);
    EXPECT_FALSE(m.touchedDown);
    // Catching up a late take-off is allowed a quarter more than the recorded speed, and 10 kt.
    EXPECT_LE(m.maxStepKt, 1.25 * m.maxFedSpeedKt + 12);
    EXPECT_LE(m.maxTurnGroundDegS, 3 * 7.0);
    EXPECT_LT(m.pathP95AirM, 10.0);
    EXPECT_LT(m.pathP95GroundM, 15.0);
    // Taxi lights and one flap stage, take-off lights, full power on the roll, gear up after lift-off,
    // then climb power, and clean above 2,400 ft.
    const auto names = eventNames(r.objects[0]);
    EXPECT_TRUE(inOrder(names, {"TAXI_LIGHTS_SET 1", "FLAPS_SET 3072", "LANDING_LIGHTS_SET 1",
                                "STROBES_SET 1", "THROTTLE_SET 16383", "GEAR_SET 0", "THROTTLE_SET 11468"}))
        << fmt::format("{}", fmt::join(names, ", "));
    EXPECT_TRUE(inOrder(names, {"THROTTLE_SET 16383", "GEAR_SET 0", "FLAPS_SET 0"}));
}

// Real tracks with outliers and gaps: a departure that starts on the ground, and an approach
// whose data end in the air.
TEST_F(ScenarioTest, NoisyRecordingsMakeNoJumps) {
    for (const char* name : {"lszh-noisy-ground.rttfc", "lszh-noisy-landing.rttfc"}) {
        SCOPED_TRACE(name);
        scenario::Config c;
        c.recording = recording(name);
        c.airport = "LSZH";
        c.runSeconds = 1000;
        c.titles = titles;
        const auto [r, report] = runAndReport(c);
        ASSERT_EQ(r.error, "");
        ASSERT_EQ(report.size(), 1u);
        const auto& m = report[0];
        // The recordings' outliers reach 759 kt; the aircraft never moves faster than an airliner
        // at these heights, nor turns faster than it can.
        EXPECT_LT(m.maxStepKt, 420.0);
        EXPECT_LT(m.maxStepGroundKt, 300.0);
        EXPECT_LE(m.maxTurnGroundDegS, 3 * 7.0);
        EXPECT_LT(m.maxTurnAirDegS, 15.0);
        EXPECT_LT(m.pathMaxM, 50.0);
    }
}

// Three flights of different days at LSZH, overlaid: they are in the simulator together, each
// hexid as one object at a time.
TEST_F(ScenarioTest, LszhFlightsTogether) {
    scenario::Config c;
    c.recording = recording("lszh-3flights.rttfc");
    c.airport = "LSZH";
    c.overlayFlights = true;
    c.runSeconds = 950;
    c.titles = titles;
    std::size_t mostAtOnce = 0;
    c.onFrame = [&](double) {
        std::size_t active = 0;
        std::set<std::uint32_t> hexids;
        for (const auto& ac : live::gEngine.liveTable) {
            active += ac.simState == live::SimState::Active;
            EXPECT_TRUE(hexids.insert(ac.hexid).second) << "one record per hexid";
        }
        mostAtOnce = std::max(mostAtOnce, active);
    };
    const auto [r, report] = runAndReport(c);
    ASSERT_EQ(r.error, "");
    EXPECT_EQ(mostAtOnce, 3u);
    for (const auto& m : report) {
        SCOPED_TRACE(m.tail);
        // The path goes past every recorded point, on the ground and in the air: no shortcut, no
        // race ahead on a stale speed, no stop while the real aircraft moves.
        EXPECT_LT(m.pathP95GroundM, 15.0);
        EXPECT_LT(m.pathP95AirM, 15.0);
        EXPECT_LT(m.p95GroundM, 300.0) << "on the ground, 30 s behind within a few seconds";
        // No jump: never faster than the fastest the recording itself claims (its take-off
        // rolls hold position outliers of up to 404 kt), and never faster than the type turns.
        EXPECT_LE(m.maxStepKt, 1.1 * m.maxFedSpeedKt);
        EXPECT_LE(m.maxTurnGroundDegS, 3 * 7.0 + 0.5);
        EXPECT_LE(m.maxBankGroundDeg, 1.0);
    }
}

} // namespace
} // namespace orv

namespace orv {
namespace {

std::string runCommand(const std::string& command, int& status) {
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, p)) > 0;) out.append(buffer, n);
    status = pclose(p);
    return out;
}

// The same runs from the command line, for diagnosis of a recording.
TEST(ScenarioCommand, RunsAFileAndReports) {
    int status = -1;
    const std::string program = ORV_SCENARIO;
    const std::string file = std::string(ORV_SOURCE_DIR) + "/data/scenarios/lszh-together.json";
    const auto out = runCommand(program + " " + file + " --report 2>&1", status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("3 objects created"), std::string::npos) << out;
    EXPECT_NE(out.find("CAI3208 'AIG Boeing 737-800 Corendon Airlines' created at"), std::string::npos)
        << out;
    EXPECT_NE(out.find("path past the recorded points"), std::string::npos) << out;
    const auto missing = runCommand(program + " /nonexistent/scenario.json 2>&1", status);
    EXPECT_NE(status, 0);
    EXPECT_NE(missing.find("cannot be opened"), std::string::npos) << missing;
}

} // namespace
} // namespace orv

namespace orv {
namespace {

// LSZH runway 14/32 for made-up approaches and circuits: places along its centre line from the
// threshold of 14 (side: metres to the left of it), or north and east of that threshold.
struct Lszh14 {
    static constexpr double kLat = 47.483090, kLon = 8.534713, kLat32 = 47.461296, kLon32 = 8.564453;
    static constexpr double kElevationFt = 1417;
    const double k = std::cos(kLat * core::kRadPerDeg);
    const double dx = (kLon32 - kLon) * 111120 * k, dy = (kLat32 - kLat) * 111120,
                 length = std::hypot(dx, dy);
    const double headingDeg = std::atan2(dx, dy) / core::kRadPerDeg; // about 137
    double lat(double along, double side = 0) const {
        return kLat + (dy * along - dx * side) / length / 111120;
    }
    double lon(double along, double side = 0) const {
        return kLon + (dx * along + dy * side) / length / (111120 * k);
    }
    double latNorth(double north) const { return kLat + north / 111120; }
    double lonEast(double east) const { return kLon + east / (111120 * k); }
    // How far a place lies off the centre line, either side.
    double offLineM(double latitude, double longitude) const {
        const double north = (latitude - kLat) * 111120, east = (longitude - kLon) * 111120 * k;
        return std::fabs(north * dx - east * dy) / length;
    }
};

// A made-up report, in the recordings' line format.
struct MadeUp {
    std::uint32_t hexid = 4992001;
    const char *callsign = "SWR123", *type = "A320", *category = "null";
    double t = 0, lat = 0, lon = 0, altitudeFt = 0, vsFpm = 0, kt = 0, trackDeg = 0;
    bool onGround = true;
};
std::string rttfc(const MadeUp& m) {
    return fmt::format(
        "RTTFC,{},{:.6f},{:.6f},{:.0f},{:.0f},{},{:.1f},{:.1f},{},{},null,null,null,{:.2f},adsb,"
        "null,adsb_icao,{:.0f},-1,-1,-1,-1,-1,-1,-1,{:.0f},none,{}\n",
        m.hexid, m.lat, m.lon, m.altitudeFt, m.vsFpm, m.onGround ? 1 : 0, m.trackDeg, m.kt, m.callsign,
        m.type, 1.7e9 + m.t, m.altitudeFt, m.vsFpm, m.category);
}

// Made-up reports run at LSZH for `seconds` of virtual time.
Run runMadeUp(const fs::path& file, const std::string& text, double seconds,
              const std::vector<std::string>& titles, int qnh = 1013) {
    test::writeBytes(file, text);
    scenario::Config c;
    c.recording = file;
    c.airport = "LSZH";
    c.runSeconds = seconds;
    c.qnh = qnh;
    c.titles = titles;
    return runAndReport(c);
}

// A made-up taxi at LSZH, 15 kt due north, one report a second, where the feed fails: `silent`
// seconds from 60 s on either repeat the last position (`frozen`) or say nothing; then the reports
// go on from where the aircraft really is, and it stops at 60 s after that and stays.
std::string taxiWithAHole(double silent, bool frozen) {
    const double startLat = 47.4500, mPerS = 15 * 1852.0 / 3600.0;
    std::string text;
    const auto line = [&](double t, double metres, double kt) {
        text += rttfc({.t = t, .lat = startLat + metres / 111120.0, .lon = 8.5600, .kt = kt});
    };
    const double moveEnd = 60 + silent + 60;
    for (double t = 0; t <= moveEnd + 60; t += 1) {
        if (t > 60 && t < 60 + silent) {
            if (frozen) line(t, 60 * mPerS, 15);
        } else {
            line(t, std::min(t, moveEnd) * mPerS, t < moveEnd ? 15 : 0);
        }
    }
    return text;
}

TEST_F(ScenarioTest, AFeedThatFreezesOrFallsSilentOnTheGroundIsCaughtUp) {
    struct Case {
        const char* name;
        double silent;
        bool frozen;
    };
    for (const auto& k : {Case{"frozen for 45 s", 45, true}, Case{"silent for 3 minutes", 180, false}}) {
        SCOPED_TRACE(k.name);
        const auto [r, report] = runMadeUp(dir.path() / "hole.rttfc", taxiWithAHole(k.silent, k.frozen),
                                           60 + k.silent + 120 + 30 + 60, titles);
        ASSERT_EQ(r.error, "");
        ASSERT_EQ(r.objects.size(), 1u) << "caught up with, not made again";
        const auto& m = report[0];
        EXPECT_LE(m.maxStepGroundKt, 40.0);
        EXPECT_LT(r.objects[0].now.altitudeFt, 1500.0) << "never in the air";
        ASSERT_TRUE(m.cameToRest);
        const auto& last = r.fed.back();
        EXPECT_LT(metres(m.restLat, m.restLon, last.latitude, last.longitude), 5.0);
    }
}

// The last report is the one that says where it stopped, even when the thinning of points along
// a straight line would have had no use for it: the data end 14 s after a report, at 2 kt.
TEST_F(ScenarioTest, TheLastReportOfASlowCreepIsWhereItRests) {
    const double startLat = 47.4500, mPerS = 10 * 1852.0 / 3600.0;
    std::string text;
    double along = 0;
    const auto line = [&](double t, double kt) {
        text += rttfc({.hexid = 4992002,
                       .callsign = "SWR124",
                       .t = t,
                       .lat = startLat + along / 111120.0,
                       .lon = 8.5600,
                       .kt = kt});
    };
    for (double t = 0; t <= 60; t += 1, along += mPerS) line(t, 10);
    for (double t = 74; t < 74 + 3 * 14; t += 14) {
        along += 14 * 2 * 1852.0 / 3600.0;
        line(t, 2);
    }
    const auto [r, report] = runMadeUp(dir.path() / "creep.rttfc", text, 116 + 30 + 90, titles);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(report.size(), 1u);
    ASSERT_TRUE(report[0].cameToRest);
    const auto& last = r.fed.back();
    EXPECT_LT(metres(report[0].restLat, report[0].restLon, last.latitude, last.longitude), 5.0);
}

// A parked aircraft heard by multilateration: its reports scatter tens of metres about the stand
// for 30 minutes, with strays of 100 m, a speed and track frozen at nonsense, and two reports in
// the air; then it taxis off, cleanly. It stays on its stand as one object the whole time (longer
// than an aircraft without reports is kept), and follows the taxi when it comes.
TEST_F(ScenarioTest, AParkedAircraftWhoseReportsScatterStaysOnItsStand) {
    const double standLat = 47.4520, standLon = 8.5610, k = std::cos(standLat * core::kRadPerDeg);
    std::mt19937 rng(17);
    std::normal_distribution<double> jitter(0.0, 25.0);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::string text;
    const auto line = [&](double t, double east, double north, double kt, bool air = false) {
        text += rttfc({.hexid = 4992003,
                       .callsign = "SWR125",
                       .t = t,
                       .lat = standLat + north / 111120.0,
                       .lon = standLon + east / (111120.0 * k),
                       .altitudeFt = air ? 1125.0 : 0.0,
                       .kt = kt,
                       .trackDeg = air || kt > 100 ? 468.2 : 90.0,
                       .onGround = !air});
    };
    const double taxiFrom = 1800;
    double east = 0, north = 0;
    for (double t = 0; t < taxiFrom; t += 1) {
        if (unit(rng) < 0.6) east = jitter(rng), north = jitter(rng); // else the feed repeats itself
        if (unit(rng) < 0.01) east = 100 * (unit(rng) - 0.5) * 2, north = 100;
        line(t, east, north, 184, t == 900 || t == 901);
    }
    const double mPerS = 10 * 1852.0 / 3600.0;
    for (double t = taxiFrom; t < taxiFrom + 120; t += 1) line(t, (t - taxiFrom) * mPerS, 0, 10);
    const auto [r, report] = runMadeUp(dir.path() / "stand.rttfc", text, taxiFrom + 120 + 30 + 10, titles);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(r.objects.size(), 1u) << "one object, never removed for want of reports";
    const auto& o = r.objects[0];
    double drivenM = 0, farthestM = 0, highestFt = 0;
    for (std::size_t i = 1; i < o.positions.size(); ++i) {
        const auto &a = o.positions[i - 1], &b = o.positions[i];
        highestFt = std::max(highestFt, b.altitudeFt);
        if (b.t < 120 || b.t > taxiFrom) continue; // from when it is held until it sets off
        drivenM += metres(a.latitude, a.longitude, b.latitude, b.longitude);
        farthestM = std::max(farthestM, metres(standLat, standLon, b.latitude, b.longitude));
    }
    EXPECT_LT(drivenM, 100) << "the reports scatter over kilometres";
    EXPECT_LT(farthestM, 20);
    EXPECT_LT(highestFt - r.airportElevationFt, 100);
    // The taxi is followed: at the end it is near the last report, not held back on the stand.
    const auto& last = r.fed.back();
    EXPECT_LT(metres(o.now.latitude, o.now.longitude, last.latitude, last.longitude), 150);
}

// A touch-and-go on LSZH 14 and then a low circuit that sinks: once climbed out, the aircraft
// follows the reports down instead of climbing on by itself (which made a saw-tooth of 400 ft).
TEST_F(ScenarioTest, ALowCircuitAfterATouchAndGoFollowsTheReports) {
    const Lszh14 runway;
    const double elevation = Lszh14::kElevationFt;
    std::string text;
    std::vector<double> altitudeAt; // the reported altitude at each second
    const auto line = [&](double t, double along, double altitude, double kt, bool ground, double vs) {
        text += rttfc({.hexid = 4992003,
                       .callsign = "SWR125",
                       .t = t,
                       .lat = runway.lat(along),
                       .lon = runway.lon(along),
                       .altitudeFt = altitude,
                       .vsFpm = vs,
                       .kt = kt,
                       .trackDeg = 137,
                       .onGround = ground});
        altitudeAt.push_back(ground ? elevation : altitude);
    };
    const double v = 72; // m/s, 140 kt
    for (int t = 0; t <= 60; ++t)
        line(t, -v * (60 - t), elevation + v * (60 - t) * 0.0524 * 3.28, 140, false, -742);
    line(61, v, 0, 169, true, 0);
    for (int t = 62; t < 200; ++t) {
        const double up = t < 97 ? (t - 61) * 17.0 : t < 110 ? 600.0 : 600.0 - (t - 110) * 4.0;
        line(t, v * (t - 60) * 1.05, elevation + up, 150, false, t < 97 ? 1020 : t < 110 ? 0 : -240);
    }
    const auto [r, report] = runMadeUp(dir.path() / "circuit.rttfc", text, 200 + 30, titles);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(r.objects.size(), 1u);
    ASSERT_TRUE(report[0].touchedDown);
    for (double t = 160; t <= 220; t += 5) {
        const auto where = positionAt(r.objects[0], t);
        ASSERT_TRUE(where) << t;
        EXPECT_NEAR(where->altitudeFt, altitudeAt[static_cast<std::size_t>(t - 30)], 150.0)
            << "at " << t << " s";
    }
}

// A landing on LSZH 14 whose reports give pressure altitudes, as the feed does, on a day of high
// and one of low pressure: with the weather's QNH it touches down where its data do, after a
// steady descent. Read as they come, the high day's last 460 ft look like the ground, 2.7 km
// short, and the low day's flare hangs 490 ft above the runway.
TEST_F(ScenarioTest, PressureAltitudesLandWhereTheDataDoWithTheDaysQnh) {
    const Lszh14 runway;
    const double elevation = Lszh14::kElevationFt;
    const double v = 72, touchdownAlong = 400; // m/s (140 kt); metres past the threshold
    for (const int qnh : {1030, 995}) {
        SCOPED_TRACE(qnh);
        std::string text;
        for (int t = 0; t <= 180; ++t) {
            const double along =
                t <= 120 ? touchdownAlong - v * (120 - t) : touchdownAlong + v * (t - 120) * 0.6;
            const double trueFt = elevation + std::max(0.0, v * (120 - t) * 0.0524 * 3.28);
            const bool ground = t >= 120;
            text += rttfc({.hexid = 4992004,
                           .callsign = "SWR126",
                           .t = double(t),
                           .lat = runway.lat(along),
                           .lon = runway.lon(along),
                           .altitudeFt = ground ? 0.0 : trueFt - (qnh - 1013) * feed::kFeetPerHpa,
                           .vsFpm = ground ? 0.0 : -742,
                           .kt = ground ? std::max(20.0, 140.0 - (t - 120) * 3.0) : 140.0,
                           .trackDeg = 137,
                           .onGround = ground});
        }
        const auto [r, report] = runMadeUp(dir.path() / "qnh.rttfc", text, 180 + 30, titles, qnh);
        ASSERT_EQ(r.error, "");
        ASSERT_EQ(r.objects.size(), 1u);
        ASSERT_TRUE(report[0].touchedDown);
        EXPECT_LT(metres(report[0].touchdownLat, report[0].touchdownLon, runway.lat(touchdownAlong),
                         runway.lon(touchdownAlong)),
                  300.0);
        double steepestFpm = 0;
        const auto& p = r.objects[0].positions;
        for (std::size_t i = 0, j = 0; i < p.size(); ++i) {
            while (p[i].t - p[j].t > 1.0) ++j;
            if (p[i].t - p[j].t > 0.5 && p[i].t < report[0].touchdownT)
                steepestFpm =
                    std::max(steepestFpm, (p[j].altitudeFt - p[i].altitudeFt) / (p[i].t - p[j].t) * 60);
        }
        EXPECT_LT(steepestFpm, 1500.0);
    }
}

// A training circuit at LSZH: a touch-and-go on 14, a circuit at 1,000 ft above the field (never
// high enough to end the take-off by height), and a full-stop landing on 14 again that slows to a
// stop on the runway. After the second touchdown the aircraft rolls out, never takes off again
// from its own roll-out, and stops where the data do (it rolled on at 20 kt once they went quiet).
TEST_F(ScenarioTest, ACircuitAfterATouchAndGoEndsInALanding) {
    const Lszh14 runway;
    const double elevation = Lszh14::kElevationFt, runwayDeg = runway.headingDeg;
    double north = 0, east = 0, headingDeg = runwayDeg, altitude = elevation;
    std::string text;
    const auto step = [&](double t, double kt, bool ground, double vs) {
        const double m = kt * 1852.0 / 3600.0;
        north += m * std::cos(headingDeg * core::kRadPerDeg);
        east += m * std::sin(headingDeg * core::kRadPerDeg);
        altitude = ground ? elevation : altitude + vs / 60;
        text += rttfc({.hexid = 4992005,
                       .callsign = "SWR127",
                       .t = t,
                       .lat = runway.latNorth(north),
                       .lon = runway.lonEast(east),
                       .altitudeFt = ground ? 0.0 : altitude,
                       .vsFpm = ground ? 0.0 : vs,
                       .kt = kt,
                       .trackDeg = std::fmod(headingDeg + 360, 360),
                       .onGround = ground});
    };
    // Final to 14 from 2.2 nm, then on the ground for 6 s at 130 kt: the touch-and-go.
    north -= 60 * 72 * std::cos(runwayDeg * core::kRadPerDeg);
    east -= 60 * 72 * std::sin(runwayDeg * core::kRadPerDeg);
    altitude = elevation + 60 * 72 * 0.0524 * 3.28;
    double t = 0;
    for (; t < 60; ++t) step(t, 140, false, -742);
    for (; t < 66; ++t) step(t, 130, true, 0);
    // Climb to 1,000 ft, a left circuit of two 180 degree turns, and a final to 14 again.
    for (; t < 126; ++t) step(t, 140, false, t < 106 ? 1500 : 0);
    for (int i = 0; i < 60; ++i, ++t) {
        headingDeg -= 3;
        step(t, 140, false, 0);
    }
    for (; t < 306; ++t) step(t, 140, false, 0);
    for (int i = 0; i < 60; ++i, ++t) {
        headingDeg -= 3;
        step(t, 140, false, i < 40 ? 0 : -742);
    }
    while (altitude > elevation + 30) step(t++, 140, false, -742);
    const double touchdown = t;
    for (double kt = 130; kt > 15; kt -= 5) step(t++, kt, true, 0);
    for (int i = 0; i < 40; ++i) step(t++, 15, true, 0);
    for (int i = 0; i < 20; ++i) step(t++, 0, true, 0);
    const double end = t;

    test::writeBytes(dir.path() / "circuit.rttfc", text);
    scenario::Config c;
    c.recording = dir.path() / "circuit.rttfc";
    c.airport = "LSZH";
    c.runSeconds = end + 30;
    c.titles = titles;
    bool takingOffAfterLanding = false;
    std::vector<live::Phase> phases;
    c.onFrame = [&](double now) {
        const live::LiveAc* ac = live::findByHexid(4992005);
        if (!ac) return;
        if (phases.empty() || phases.back() != ac->phase) phases.push_back(ac->phase);
        if (now > touchdown + 30 + 10 && ac->takingOff) takingOffAfterLanding = true;
    };
    const auto [r, report] = runAndReport(c);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(r.objects.size(), 1u);
    std::string names;
    for (const auto p : phases) names += std::string(live::phaseName(p)) + " ";
    EXPECT_FALSE(takingOffAfterLanding) << names;
    EXPECT_EQ(phases.back(), live::Phase::Taxi) << names;
    EXPECT_LT(r.objects[0].now.altitudeFt, elevation + 50) << names;
    ASSERT_TRUE(report[0].cameToRest);
    EXPECT_LT(metres(report[0].restLat, report[0].restLon, r.fed.back().latitude, r.fed.back().longitude),
              5.0);
    // Two take-offs at most (the first made from the data's touch-and-go), none after the landing.
    EXPECT_LE(std::count(phases.begin(), phases.end(), live::Phase::TakeOff), 1) << names;
}

// A straight descent towards LSZH 14 whose reports go wrong in the ways real feeds do in the air:
// one altitude of a cruise level, altitudes scattered by hundreds of feet, one position far off
// the line. The aircraft follows the true line all the same, neither bobbing nor swerving.
TEST_F(ScenarioTest, AirReportsOffTheTrackAreNotFollowed) {
    const Lszh14 runway;
    const double elevation = Lszh14::kElevationFt;
    const double v = 72, startAlong = -16000; // m/s (140 kt); metres before the threshold at 0 s
    const auto trueFeet = [&](double t) { return elevation + (-(startAlong + v * t)) * 0.0524 * 3.28; };
    struct Case {
        const char* name;
        std::function<void(int t, double& feet, double& sideM)> spoil;
    };
    const Case cases[] = {
        {"clean", [](int, double&, double&) {}},
        // At 140 kt on a straight line one report in seven is taken; these two are.
        {"one report at a cruise level", [](int t, double& feet, double&) { feet = t == 63 ? 32425 : feet; }},
        {"a third scattered by 300 ft",
         [](int t, double& feet, double&) { feet += t % 3 == 0 ? (t % 2 ? 300 : -300) : 0; }},
        {"one position 800 m off", [](int t, double&, double& side) { side = t == 77 ? 800 : 0; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string text;
        for (int t = 0; t < 160; ++t) {
            double feet = trueFeet(t), side = 0;
            c.spoil(t, feet, side);
            const double along = startAlong + v * t;
            text += rttfc({.hexid = 4992007,
                           .callsign = "SWR129",
                           .t = double(t),
                           .lat = runway.lat(along, side),
                           .lon = runway.lon(along, side),
                           .altitudeFt = feet,
                           .vsFpm = -742,
                           .kt = 140,
                           .trackDeg = 137,
                           .onGround = false});
        }
        const auto [r, report] = runMadeUp(dir.path() / "air.rttfc", text, 160 + 30, titles);
        ASSERT_EQ(r.error, "");
        ASSERT_EQ(r.objects.size(), 1u);
        double worstFeet = 0, worstSideM = 0;
        for (const auto& p : r.objects[0].positions) {
            if (p.t < 40 || p.t > 185) continue;
            worstFeet = std::max(worstFeet, std::fabs(p.altitudeFt - trueFeet(p.t - 30)));
            worstSideM = std::max(worstSideM, runway.offLineM(p.latitude, p.longitude));
        }
        std::printf("%s: %.0f ft, %.0f m off the line at worst\n", c.name, worstFeet, worstSideM);
        EXPECT_LT(worstFeet, 100.0);
        EXPECT_LT(worstSideM, 30.0);
    }
}

// Turns flown through smooth reports a second apart: a helicopter's 180 degree turn at 60 kt and
// an airliner's at 140 kt, both level. The aircraft flies the arc its reports draw and does not cut
// across it.
TEST_F(ScenarioTest, ATurnThroughSmoothReportsIsFlownNotCut) {
    struct Case {
        const char *name, *type, *category;
        double kt, degPerS;
        double endKt = 0, fpm = 0; // slowing to this speed in the turn, and sinking, when set
    };
    const Case cases[] = {{"helicopter", "EC35", "A7", 60, 6},
                          {"helicopter slowing and sinking", "EC35", "A7", 60, 6, 20, -500},
                          {"airliner", "A320", "A3", 140, 3}};
    const double lat0 = 47.440, lon0 = 8.500, k = std::cos(lat0 * core::kRadPerDeg), feet = 1417 + 500;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<std::pair<double, double>> track; // north, east in metres, one a second
        double north = 0, east = 0, heading = 90, altitude = feet;
        const int turnSeconds = static_cast<int>(180 / c.degPerS);
        std::string text;
        for (int t = 0; t < 60 + turnSeconds + 60; ++t) {
            const double share = std::clamp((t - 60.0) / turnSeconds, 0.0, 1.0);
            const double kt = c.endKt > 0 ? c.kt + share * (c.endKt - c.kt) : c.kt;
            const double mPerS = kt * 1852 / 3600;
            const bool turning = t >= 60 && t < 60 + turnSeconds;
            text += rttfc({.hexid = 4992008,
                           .callsign = "HBZRB",
                           .type = c.type,
                           .category = c.category,
                           .t = double(t),
                           .lat = lat0 + north / 111120,
                           .lon = lon0 + east / (111120 * k),
                           .altitudeFt = altitude,
                           .vsFpm = turning ? c.fpm : 0,
                           .kt = kt,
                           .trackDeg = std::fmod(heading + 360, 360),
                           .onGround = false});
            track.emplace_back(north, east);
            if (turning) altitude += c.fpm / 60;
            // Along the arc: the chord of each second's turn, at the mean heading.
            const double turn = turning ? c.degPerS : 0;
            const double mean = (heading + turn / 2) * core::kRadPerDeg;
            const double chord =
                turn > 0 ? 2 * mPerS / (turn * core::kRadPerDeg) * std::sin(turn / 2 * core::kRadPerDeg)
                         : mPerS;
            north += chord * std::cos(mean), east += chord * std::sin(mean);
            heading += turn;
        }
        const auto [r, report] = runMadeUp(dir.path() / "turn.rttfc", text, track.size() + 30.0, titles);
        ASSERT_EQ(r.error, "");
        ASSERT_EQ(r.objects.size(), 1u);
        // The farthest the shown path strays from the reports' polyline during the turn.
        double worstM = 0;
        for (const auto& p : r.objects[0].positions) {
            if (p.t < 30 + 55 || p.t > 30 + 65 + turnSeconds) continue;
            const double n = (p.latitude - lat0) * 111120, e = (p.longitude - lon0) * 111120 * k;
            double best = 1e9;
            for (std::size_t i = 0; i + 1 < track.size(); ++i) {
                const auto [n1, e1] = track[i];
                const auto [n2, e2] = track[i + 1];
                const double dn = n2 - n1, de = e2 - e1, len2 = dn * dn + de * de;
                const double f =
                    len2 > 0 ? std::clamp(((n - n1) * dn + (e - e1) * de) / len2, 0.0, 1.0) : 0.0;
                best = std::min(best, std::hypot(n - n1 - f * dn, e - e1 - f * de));
            }
            worstM = std::max(worstM, best);
        }
        std::printf("%s: %.1f m off the reports' path at worst in the turn\n", c.name, worstM);
        EXPECT_LT(worstM, 10.0);
    }
}

// A helicopter flies east 400 ft above LSZH and then hovers (its reports stay on one spot at
// 0 kt): it hovers too, instead of being taken for an aeroplane on the ground and set down.
TEST_F(ScenarioTest, AHelicopterHovers) {
    const double lat = 47.440, lon = 8.540, elevation = 1417;
    std::string text;
    for (int t = 0; t < 150; ++t) {
        const double east = std::min(t, 59) * 46.3; // 90 kt, then a hover
        text += rttfc({.hexid = 4992010,
                       .callsign = "HBZRA",
                       .type = "EC35",
                       .category = "A7",
                       .t = double(t),
                       .lat = lat,
                       .lon = lon + east / (111120 * std::cos(lat * core::kRadPerDeg)),
                       .altitudeFt = elevation + 400,
                       .kt = t < 60 ? 90.0 : 0.0,
                       .trackDeg = 90,
                       .onGround = false});
    }
    const auto [r, report] = runMadeUp(dir.path() / "hover.rttfc", text, 150 + 30, titles);
    ASSERT_EQ(r.error, "");
    ASSERT_EQ(r.objects.size(), 1u);
    EXPECT_FALSE(report[0].touchedDown);
    double off = 0;
    for (const auto& p : r.objects[0].positions)
        off = std::max(off, std::fabs(p.altitudeFt - elevation - 400));
    EXPECT_LT(off, 50.0) << "ft off its height";
    const double removedAt = r.objects[0].removedAt;
    EXPECT_TRUE(removedAt < 0 || removedAt > 175) << "hovering to the end of its reports, not " << removedAt;
}

} // namespace
} // namespace orv
