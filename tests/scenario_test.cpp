// Real recordings through the whole chain: decoder, engine, simulator client, emulated simulator.
#include <algorithm>
#include <map>
#include <set>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "emulator.h"
#include "feed/feed.h"
#include "live/engine.h"
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
                const double d = gf_distanceNm({p->latitude, p->longitude}, {f.latitude, f.longitude});
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

// Three flights of different days at LSZH, overlaid: they are in the simulator together, each
// hexid as one object at a time.
TEST_F(ScenarioTest, LszhFlightsTogether) {
    scenario::Config c;
    c.recording = recording("lszh-3flights.rttfc");
    c.airport = "LSZH";
    c.overlayFlights = true;
    c.runSeconds = 400;
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
    const auto r = scenario::run(c);
    ASSERT_EQ(r.error, "");
    EXPECT_EQ(mostAtOnce, 3u);
    std::map<std::string, int> objectsPerTail;
    for (const auto& o : r.objects) ++objectsPerTail[o.tail];
    for (const auto& [tail, n] : objectsPerTail) EXPECT_EQ(n, 1) << tail;
    EXPECT_TRUE(objectsPerTail.contains("CAI3208"));
    EXPECT_TRUE(objectsPerTail.contains("ACA879"));
    EXPECT_TRUE(objectsPerTail.contains("SWR137H"));
    EXPECT_FALSE(log.contains("exception")) << log.text();
}

} // namespace
} // namespace orv
