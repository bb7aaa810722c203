// Geometry and timing of ground movement, take-off and landing.
#include <cmath>

#include <gtest/gtest.h>

#include "core/core.h"
#include "core/geo.h"
#include "live/internal.h"
#include "program_home.h"
#include "sim/sim.h"

namespace orv::live {
namespace {

constexpr double kLat = 44.88, kLon = -93.22;
constexpr double kMetresPerDegree = 111132.95;

// A point `east` and `north` metres from the reference.
Sample at(double east, double north, std::int32_t tick, double speed = 15, bool airborne = false,
          double alt = 0) {
    Sample s;
    s.lat = kLat + north / kMetresPerDegree;
    s.lon = kLon + east / (kMetresPerDegree * std::cos(kLat * core::kRadPerDeg));
    s.tick = tick, s.speed = s.tas = speed, s.airborne = airborne, s.alt = alt;
    return s;
}

class MotionTest : public test::ProgramHome {
  protected:
    void SetUp() override {
        ProgramHome::SetUp();
        live::reset();
        reserveContainers();
        setCurrentAirport(AirportPlace{kLat, kLon, 841});
        feed::gQnh = 1013;
    }
    void TearDown() override {
        live::reset();
        setCurrentAirport(std::nullopt);
        feed::gQnh = 1013;
        ProgramHome::TearDown();
    }
    // A Large on the ground at the reference point, in the simulator.
    LiveAc& aircraft(bool onGround = true) {
        AcIdentity id;
        id.callsign = "DAL1";
        id.modelCode = refdata::modelId("B739");
        auto& t = gEngine.liveTable;
        t.push_back(makeLiveAc(id, 20001, gEngine.rng));
        LiveAc& ac = t.back();
        ac.simState = SimState::Active;
        ac.objectId = 200;
        ac.onGround = onGround;
        ac.phase = onGround ? Phase::Taxi : Phase::Flying;
        ac.lat = kLat, ac.lon = kLon, ac.alt = onGround ? 849 : 3000;
        ac.cgHeight = 8;
        return ac;
    }
    static std::vector<std::pair<std::uint32_t, std::uint32_t>> sent() {
        std::vector<std::pair<std::uint32_t, std::uint32_t>> out;
        for (const auto& e : gEngine.out.events) out.emplace_back(e.eventId, e.data);
        return out;
    }
    static bool wasSent(std::uint32_t event, std::uint32_t data) {
        const auto s = sent();
        return std::find(s.begin(), s.end(), std::pair{event, data}) != s.end();
    }
};

TEST_F(MotionTest, BezierPointsAndTangents) {
    LiveAc& ac = aircraft();
    ac.stream.push_back(at(0, 0, 0));
    ac.stream.push_back(at(100, 0, 500));    // the corner
    ac.stream.push_back(at(100, 100, 1000)); // end
    prepareCurve(ac);
    ASSERT_EQ(ac.stream.size(), 2u) << "the corner leaves the stream";
    struct Case {
        double t, east, north, tangentDeg;
    };
    // Halfway the curve passes through the corner's report, headed from start to end.
    const Case cases[] = {
        {0, 0, 0, 108.435}, {0.25, 62.5, -12.5, 90}, {0.5, 100, 0, 45}, {1, 100, 100, 341.565}};
    for (const auto& c : cases) {
        double lat = 0, lon = 0, tangent = 0;
        ASSERT_TRUE(curvePoint(ac, c.t, lat, lon, tangent)) << c.t;
        EXPECT_NEAR((lat - kLat) * kMetresPerDegree, c.north, 0.01) << c.t;
        EXPECT_NEAR((lon - kLon) * kMetresPerDegree * std::cos(kLat * core::kRadPerDeg), c.east, 0.01) << c.t;
        EXPECT_NEAR(tangent / core::kRadPerDeg, c.tangentDeg, 0.01) << c.t;
    }
    double lat, lon, tangent;
    EXPECT_FALSE(curvePoint(ac, 1.01, lat, lon, tangent));
    EXPECT_FALSE(curvePoint(ac, -0.01, lat, lon, tangent));
    ac.curve.reset();
    EXPECT_FALSE(curvePoint(ac, 0.5, lat, lon, tangent)) << "no curve set";
}

TEST_F(MotionTest, SplitsAndSpeedChanges) {
    LiveAc& ac = aircraft();
    ac.stream.push_back(at(0, 0, 100, 10));
    ac.stream.push_back(at(0, 200, 301, 20));
    splitSegment(ac);
    ASSERT_EQ(ac.stream.size(), 3u);
    const Sample& m = ac.stream[1];
    EXPECT_NEAR((m.lat - kLat) * kMetresPerDegree, 100, 0.01);
    EXPECT_EQ(m.tick, 201);
    EXPECT_EQ(m.speed, 15);
    EXPECT_FALSE(m.stationary);
    EXPECT_FALSE(m.airborne);

    struct Case {
        double s0, s1, metres;
        bool split;
    };
    const Case cases[] = {
        {0, 20, 200, true},  {0, 4, 200, false},  // differ by 5 kt or less
        {10, 20, 50, false}, {10, 20, 101, true}, // shorter than 100 m
        {0, 0, 300, false},
    };
    for (const auto& c : cases) {
        ac.stream.clear();
        ac.stream.push_back(at(0, 0, 0, c.s0));
        ac.stream.push_back(at(0, c.metres, 1000, c.s1));
        checkSpeedChange(ac);
        EXPECT_EQ(ac.stream.size(), c.split ? 3u : 2u) << c.s0 << " " << c.s1 << " " << c.metres;
    }
}

TEST_F(MotionTest, TimingClampsAndTheirDecay) {
    LiveAc& ac = aircraft();
    gEngine.tick = 10000;
    struct Case {
        const char* name;
        std::int32_t recordedTick, dt, extrapolate, expected;
    };
    const Case cases[] = {
        {"on time", 10500, 500, 0, 10500},
        {"too late: held at T + lateLimit", 10500, 5000, 0, 11500},
        {"too early: held at T - earlyLimit", 12000, 100, 0, 11000},
        {"extrapolating: as wanted", 10500, 5000, 1, 15000},
        {"never in the past", 5000, 100, 0, 10000},
    };
    for (const auto& c : cases) {
        ac.stream.clear();
        ac.stream.push_back(at(0, 0, 9000, 0));
        ac.stream.push_back(at(0, 0, c.recordedTick, 0));
        ac.extrapolateCount = c.extrapolate;
        setNextTick(ac, c.dt);
        EXPECT_EQ(ac.stream[1].tick, c.expected) << c.name;
    }
    // A segment of a metre is still given 25 ticks.
    ac.extrapolateCount = 1;
    ac.stream.clear();
    ac.stream.push_back(at(0, 0, 10000, 20));
    ac.stream.push_back(at(0, 1, 10000, 20));
    nextTimeGround(ac);
    EXPECT_EQ(ac.stream[1].tick, 10025);
    // Clamps widened after a stand or landing fall back by 100 per ground segment, to 1000.
    ac.extrapolateCount = 0;
    ac.earlyLimit = 3000, ac.lateLimit = 1050;
    ac.stream.clear();
    ac.stream.push_back(at(0, 0, 10000, 20));
    ac.stream.push_back(at(0, 50, 10500, 20));
    setGroundSegment(ac, 500);
    EXPECT_EQ(ac.earlyLimit, 2900);
    EXPECT_EQ(ac.lateLimit, 1000);
    ac.landingFlags.rollout = true;
    setGroundSegment(ac, 500);
    EXPECT_EQ(ac.earlyLimit, 2900) << "not during the roll-out";
}

TEST_F(MotionTest, PushBackGeometryAndTailSide) {
    for (const bool left : {true, false}) {
        live::reset();
        LiveAc& ac = aircraft();
        ac.phase = Phase::Parked;
        ac.stand.id = 7;
        ac.stand.pos = {kLat, kLon};
        ac.stand.heading = 0; // nose north
        ac.heading = 0;
        ac.pushRequested = true;
        ac.stream.push_back(at(0, 0, 0, 0));
        ac.stream.push_back(at(0, -30, 500, 3)); // moving south: behind the stand
        nextPosGround(ac);
        ASSERT_EQ(ac.phase, Phase::PushingBack);
        EXPECT_EQ(ac.pushCounter, 2);
        // Straight back 2.5 stand radii (the stand fits the aircraft: its half size), split in two,
        // then the tail point on one side.
        ASSERT_EQ(ac.stream.size(), 4u);
        const double back = 2.5 * ac.halfSize * 1852.0;
        const Sample& p1 = ac.stream[2];
        EXPECT_NEAR((p1.lat - kLat) * kMetresPerDegree, -back, 0.5);
        EXPECT_NEAR(p1.lon, kLon, 1e-7);
        EXPECT_NEAR((ac.stream[1].lat - kLat) * kMetresPerDegree, -back / 2, 0.5);
        const auto eastOf = [](const Sample& s) {
            return (s.lon - kLon) * kMetresPerDegree * std::cos(kLat * core::kRadPerDeg);
        };
        EXPECT_NEAR(eastOf(ac.stream[3]), ac.halfSize * 1852.0, 0.5) << "P3 east";
        EXPECT_NEAR(eastOf(ac.pushTailSample), -ac.halfSize * 1852.0, 0.5) << "P2 west";
        // The tail points are timed from element 1, the middle of the push: they come after P1.
        const double middleToTailNm = std::hypot(back / 2, ac.halfSize * 1852.0) / 1852.0;
        const double tailTick = ac.stream[1].tick + middleToTailNm / ac.standSpeed * 360000.0;
        EXPECT_NEAR(ac.stream[3].tick, tailTick, 2);
        EXPECT_NEAR(ac.pushTailSample.tick, tailTick, 2);
        EXPECT_GT(ac.stream[3].tick, p1.tick) << "the tail swings after the push ends";
        // The feed's first track after the push began sets the side the tail swings to.
        Sample next = at(0, -40, 900, 3);
        next.track = left ? 10 : 350;
        EXPECT_FALSE(checkExtendingSituations(ac, next)) << "samples during a push are dropped";
        EXPECT_TRUE(ac.turnPlanned);
        EXPECT_EQ(ac.turnLeft, left);
        ac.stream.pop_front(); // the first half of the push was flown
        nextPosGround(ac);
        EXPECT_EQ(ac.pushCounter, 1);
        EXPECT_EQ(ac.curveAngle, 90);
        ASSERT_EQ(ac.stream.size(), 2u);
        EXPECT_NEAR(eastOf(ac.stream[1]), (left ? -1 : 1) * ac.halfSize * 1852.0, 0.5);
    }
}

TEST_F(MotionTest, RotationTest) {
    struct Case {
        const char* name;
        bool air1, air2;
        double speed1, vs1, vs2;
        bool rotates;
        bool fullStep; // dAlt the category's climb step, else from the altitudes
    };
    const Case cases[] = {
        {"still on the runway", false, false, 150, 0, 0, false, false},
        {"airborne and fast", true, true, 150, 0, 0, true, true},
        {"airborne but slower than the rotate speed", true, true, 120, 0, 0, false, false},
        {"one not yet airborne", true, false, 150, 0, 0, false, false},
        {"climbing, one on the ground", true, false, 150, 800, 900, true, true},
        {"climbing, all airborne", true, true, 150, 800, 900, true, false},
    };
    for (const auto& c : cases) {
        live::reset();
        LiveAc& ac = aircraft();
        ac.takingOff = true;
        ac.pitch = ac.groundPitch;
        gEngine.tick = 1000;
        ac.stream.push_back(at(0, 0, 1000, 100));
        Sample s1 = at(0, 300, 1400, c.speed1, c.air1, c.air1 ? 900 : 0);
        s1.vs = c.vs1;
        Sample s2 = at(0, 600, 1800, c.speed1, c.air2, c.air2 ? 1000 : 0);
        s2.vs = c.vs2;
        ac.stream.push_back(s1);
        ac.stream.push_back(s2);
        setGroundSegment(ac, 400);
        EXPECT_EQ(ac.phase == Phase::TakeOff, c.rotates) << c.name;
        if (!c.rotates) continue;
        EXPECT_EQ(ac.rotateCounter, categoryData(refdata::Category::Large).rotateTicks) << c.name;
        EXPECT_NEAR(ac.delta.pitch, (ac.rotatePitch - ac.groundPitch) / ac.rotateCounter, 1e-12) << c.name;
        if (c.fullStep)
            EXPECT_EQ(ac.delta.alt, ac.maxClimbStep) << c.name;
        else
            EXPECT_NEAR(ac.delta.alt, (900 - 849) / 400.0, 1e-9) << c.name;
    }
    // A rotorcraft has no rotate speed: it is never held back by one.
    EXPECT_EQ(categoryData(refdata::Category::Rotorcraft).rotateSpeed, 0);
}

TEST_F(MotionTest, AirSegmentCases) {
    struct Case {
        const char* name;
        bool air0, air1, landing;
        double alt, alt1, vs0, vs1, agl;
        int qnh;
        double dAlt;
        bool gearDown;
        bool climbOut = false; // in the take-off's climb-out
    };
    const double dt = 1000;
    const Case cases[] = {
        {"1: landing, level at low height: a made-up sink", true, true, true, 1500, 1500, 0, 0, 500, 1013,
         -601 / 6000.0, false},
        {"1: landing, descending: to the next point", true, true, true, 1500, 1400, -600, -600, 500, 1013,
         -100 / dt, false},
        {"2: low and slow climb-out: at least 0.2 ft a tick", true, true, false, 1500, 1550, 0, 0, 500, 1013,
         0.2, false, true},
        {"2: low and slow in a circuit: to the next point", true, true, false, 1500, 1550, 0, 0, 500, 1013,
         50 / dt, false},
        {"2: low, steep climb: at most the climb step", true, true, false, 1500, 3000, 0, 0, 500, 1013, 0.6,
         false},
        {"2: high descent: to the next point", true, true, false, 9000, 8000, 0, 0, 5000, 1013, -1.0, false},
        {"3: down to a known airport", true, false, false, 1200, 0, -700, -700, 350, 1013,
         (841 + 8 - 1200) / dt, true},
        {"3: high QNH: to the airport all the same, the altitudes are true ones", true, false, false, 1200, 0,
         -700, -700, 350, 1030, (841 + 8 - 1200) / dt, true},
        {"4: leaving the ground", false, true, false, 849, 1500, 0, 1500, 0, 1013, 0.6, false},
        {"5: on ground points while landing", false, false, true, 900, 0, -600, -600, 50, 1013, -600 / 6000.0,
         true},
        {"5: ground points, yet climbing", false, false, false, 900, 0, 800, 800, 50, 1013, 800 / 6000.0,
         true},
        {"5: ground points, climbing slowly", false, false, false, 900, 0, 100, 300, 50, 1013, 601 / 6000.0,
         true},
    };
    for (const auto& c : cases) {
        live::reset();
        feed::gQnh = c.qnh;
        LiveAc& ac = aircraft(false);
        ac.landingFlags.landing = c.landing;
        if (c.climbOut) ac.phase = Phase::TakeOff;
        ac.alt = c.alt;
        ac.heightAgl = c.agl;
        gEngine.tick = 0;
        Sample s0 = at(0, 0, 0, 140, c.air0, c.air0 ? c.alt : 0);
        s0.vs = c.vs0;
        Sample s1 = at(0, 2000, 1000, 140, c.air1, c.alt1);
        s1.vs = c.vs1;
        ac.stream.push_back(s0);
        ac.stream.push_back(s1);
        setAirSegment(ac, static_cast<std::int32_t>(dt));
        EXPECT_NEAR(ac.delta.alt, c.dAlt, 1e-6) << c.name;
        EXPECT_EQ(wasSent(sim::kGearSet, 1), c.gearDown) << c.name;
        gEngine.out.events.clear();
    }
}

TEST_F(MotionTest, FlareStagesAndTouchdown) {
    LiveAc& ac = aircraft(false);
    ac.landingFlags.landing = true;
    ac.alt = 841 + 60;
    ac.pitch = -1 * core::kRadPerDeg;
    ac.delta.alt = -0.1;
    ac.stream.push_back(at(0, 0, 0, 130, false, 0));
    struct Step {
        double agl;
        std::uint32_t stage;
        double dAlt;
    };
    const Step steps[] = {{60, 0, -0.1}, {37, 1, -0.1}, {27, 2, -0.075}, {17, 3, -0.05}, {10, 4, -0.025}};
    for (const auto& s : steps) {
        ac.heightAgl = s.agl;
        ac.alt = 841 + s.agl;
        attitude(ac);
        EXPECT_EQ(ac.landingFlags.flareStage, s.stage) << s.agl;
        EXPECT_DOUBLE_EQ(ac.delta.alt, s.dAlt) << s.agl;
    }
    EXPECT_EQ(ac.controls.throttleIndex, 0) << "idle from the third stage";
    for (int i = 0; i < 1000; ++i) attitude(ac);
    EXPECT_NEAR(ac.pitch, -4 * core::kRadPerDeg, 1e-9) << "the nose stops at 4 degrees up";

    // The feed's ground flag only plans the touchdown: the simulator's own flag makes it.
    inRangeReport(ac, false, 841, 9);
    EXPECT_FALSE(ac.onGround);
    gEngine.out.events.clear();
    inRangeReport(ac, true, 841, 8);
    EXPECT_TRUE(ac.onGround);
    EXPECT_TRUE(ac.landingFlags.rollout);
    EXPECT_TRUE(ac.landingFlags.derotating);
    EXPECT_TRUE(ac.landingFlags.justLanded);
    EXPECT_FALSE(ac.landingFlags.landing);
    EXPECT_EQ(ac.alt, 841 + 8);
    EXPECT_TRUE(wasSent(sim::kSpoilersSet, 16383));
    ASSERT_EQ(gEngine.out.controls.size(), 1u);
    EXPECT_EQ(gEngine.out.controls[0].spoilers, 100);
    EXPECT_EQ(gEngine.out.controls[0].throttle1, -100) << "reverse thrust on the roll-out";
    EXPECT_NEAR(ac.delta.pitch, (ac.groundPitch - ac.pitch) / ac.derotateTicks, 1e-12);
    for (int i = 0; i < ac.derotateTicks + 1; ++i) attitude(ac);
    EXPECT_FALSE(ac.landingFlags.derotating);
    EXPECT_EQ(ac.landingFlags.flareStage, 0u);
    EXPECT_DOUBLE_EQ(ac.pitch, ac.groundPitch);
}

// Above 2,400 ft AGL an aircraft is clean, whatever its vertical speed.
TEST_F(MotionTest, CleanAboveTwoThousandFourHundredFeet) {
    for (const double vs : {-1500.0, 0.0, 1500.0}) {
        live::reset();
        LiveAc& ac = aircraft(false);
        ac.alt = 4000;
        ac.heightAgl = 2500;
        ac.controls.flapsIndex = 2;
        ac.controls.gearState = 1;
        ac.stream.push_back(at(0, 0, 0, 200, true, 4000));
        Sample s1 = at(0, 3000, 1000, 200, true, 4000);
        s1.vs = vs;
        ac.stream.push_back(s1);
        setAirSegment(ac, 1000);
        EXPECT_EQ(ac.controls.flapsIndex, 0) << vs;
        EXPECT_EQ(ac.controls.gearState, 0) << vs;
    }
}

// Below 2,000 ft above the airport a descending aircraft sets a second stage of flaps, whatever
// the airport's own elevation (KMSP: 841 ft, so 2,300 ft on the altimeter is 1,459 ft up).
TEST_F(MotionTest, ApproachFlapsByHeightAboveTheAirport) {
    struct Case {
        double heightAgl;
        std::int32_t flapsBefore, flapsAfter;
    };
    const Case cases[] = {{1459, 1, 2}, {1459, 0, 1}, {2200, 1, 1}, {2200, 0, 1}};
    for (const auto& c : cases) {
        live::reset();
        LiveAc& ac = aircraft(false);
        ac.category = refdata::Category::Light; // its approach starts at 625 ft
        ac.alt = 841 + c.heightAgl;
        ac.heightAgl = c.heightAgl;
        ac.controls.flapsIndex = c.flapsBefore;
        ac.stream.push_back(at(0, 0, 0, 120, true, ac.alt));
        ac.stream.push_back(at(0, 1000, 1000, 120, true, ac.alt));
        setAirSegment(ac, 1000);
        EXPECT_EQ(ac.controls.flapsIndex, c.flapsAfter) << c.heightAgl << " ft, flaps " << c.flapsBefore;
    }
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

// Without a roll in the feed the aircraft banks into its turn, with the sign a feed roll has for
// the same turn (the decoder makes RealTraffic's right-wing-down roll negative).
TEST_F(MotionTest, BankLeansIntoTheTurn) {
    for (const double turnDeg : {30.0, -30.0}) {
        live::reset();
        LiveAc& ac = aircraft(false);
        ac.alt = 12000, ac.heightAgl = 11000;
        ac.heading = 0;
        ac.targetHeading = turnDeg * core::kRadPerDeg;
        ac.stream.push_back(at(0, 0, 0, 250, true, 12000));
        ac.stream.push_back(at(0, 3000, 1000, 250, true, 12000));
        setAirSegment(ac, 1000);
        EXPECT_EQ(ac.delta.bank<0, turnDeg> 0) << "a turn of " << turnDeg << " deg";
        EXPECT_NE(ac.delta.bank, 0.0);
    }
}

// The approach begins below 2,050 ft above the airport for airliners and 625 ft for the rest; it
// is given up beyond 10 nm from the airport or in a climb.
TEST_F(MotionTest, ApproachHeightsAndGoAround) {
    struct Case {
        const char* name;
        refdata::Category category;
        double agl, northNm, vs;
        bool landingBefore, landing, goAround;
    };
    const Case cases[] = {
        {"airliner below 2,050 ft", refdata::Category::Large, 2000, 5, -700, false, true, false},
        {"airliner above 2,050 ft", refdata::Category::Large, 2100, 5, -700, false, false, false},
        {"light below 625 ft", refdata::Category::Light, 600, 2, -500, false, true, false},
        {"light above 625 ft", refdata::Category::Light, 700, 2, -500, false, false, false},
        {"too far to land", refdata::Category::Large, 1500, 10.5, -700, false, false, false},
        {"landing, then beyond 10 nm", refdata::Category::Large, 1500, 10.5, -100, true, false, true},
        {"landing, within 10 nm", refdata::Category::Large, 1500, 9.5, -100, true, true, false},
        {"a climb ends it", refdata::Category::Large, 1500, 3, 700, true, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        live::reset();
        LiveAc& ac = aircraft(false);
        ac.category = c.category;
        ac.lat = kLat + c.northNm / 60.0;
        ac.alt = 841 + c.agl, ac.heightAgl = c.agl;
        ac.below10000 = true;
        ac.landingFlags.landing = c.landingBefore;
        ac.delta.vsTarget = c.vs;
        lowAltitude(ac);
        EXPECT_EQ(ac.landingFlags.landing, c.landing);
        EXPECT_EQ(ac.landingFlags.goAround, c.goAround);
        if (c.landing && !c.landingBefore) {
            EXPECT_EQ(ac.controls.flapsIndex, 3);
        }
    }
}

// While landing a point behind the aircraft (90 deg or more off its heading) is an echo: dropped.
TEST_F(MotionTest, LandingTakesNoPointBehind) {
    struct Case {
        double offDeg;
        bool taken;
    };
    for (const auto& c : {Case{85, true}, Case{95, false}, Case{180, false}}) {
        live::reset();
        LiveAc& ac = aircraft(false);
        ac.heading = 0;
        ac.landingFlags.landing = true;
        ac.stream.push_back(at(0, 0, 0, 140, true, 1200));
        const double r = c.offDeg * core::kRadPerDeg;
        Sample s = at(2000 * std::sin(r), 2000 * std::cos(r), 500, 140, true, 1100);
        EXPECT_EQ(checkNewPosDuringLanding(ac, s), c.taken) << c.offDeg;
    }
}

// In the roll-out, "behind" is against the way the reports go: a turn off the runway the data
// make (while the aircraft, half a minute behind them, still points down the runway) is kept.
TEST_F(MotionTest, TheRollOutKeepsATurnOffTheRunway) {
    struct Case {
        const char* name;
        double east, north; // the new report
        std::size_t kept;   // reports left in the stream before it
    };
    const Case cases[] = {
        {"the turn goes on", 55, 110, 3},
        {"a report back the way they came", 40, 20, 1},
    };
    for (const auto& c : cases) {
        live::reset();
        LiveAc& ac = aircraft(true);
        ac.heading = 90 * core::kRadPerDeg; // down the runway, eastwards
        ac.landingFlags.rollout = true;
        ac.stream.push_back(at(0, 0, 0, 40));
        ac.stream.push_back(at(50, 20, 100, 30));
        ac.stream.push_back(at(60, 60, 200, 20));
        Sample s = at(c.east, c.north, 300, 15);
        EXPECT_TRUE(checkNewPosDuringLanding(ac, s)) << c.name;
        EXPECT_EQ(ac.stream.size(), c.kept) << c.name;
    }
}

// A parked aircraft leaves its stand when it moves away steadily (three growing distances and half
// its size) or at once beyond its size; coming back resets the count.
TEST_F(MotionTest, LeavingAStand) {
    const auto run = [&](std::vector<double> metres) {
        live::reset();
        LiveAc& ac = aircraft(true);
        ac.phase = Phase::Parked;
        ac.previousPhase = Phase::Taxi;
        ac.halfSize = 20 / core::kMetresPerNm;
        ac.stand.pos = {kLat, kLon};
        ac.stream.push_back(at(0, 0, 0, 0));
        for (std::size_t i = 0; i < metres.size(); ++i) {
            Sample s = at(0, metres[i], static_cast<std::int32_t>(100 * (i + 1)), 2);
            if (checkExtendingSituations(ac, s)) return ac.pushRequested;
        }
        return false;
    };
    EXPECT_FALSE(run({1, 5, 9})) << "two growing steps, not yet half its size away";
    EXPECT_TRUE(run({1, 5, 9, 13})) << "the third growing step beyond half its size";
    EXPECT_TRUE(run({1, 25})) << "beyond its size at once";
    EXPECT_FALSE(run({1, 5, 9, 1, 5, 9})) << "back towards the stand resets the count";
    EXPECT_TRUE(run({1, 150})) << "far off the stand within 200 m: leaves";
}

// After the push the aircraft holds until the feed shows it clearly moving off.
TEST_F(MotionTest, PushedBackHoldsUntilItMovesOff) {
    LiveAc& ac = aircraft(true);
    ac.phase = Phase::PushedBack;
    ac.halfSize = 20 / core::kMetresPerNm;
    ac.maxPushDistance = 900;
    ac.stream.push_back(at(0, 0, 0, 0));
    Sample near = at(0, 60, 100, 3); // within 2.75 half sizes
    EXPECT_FALSE(checkExtendingSituations(ac, near));
    EXPECT_TRUE(ac.holding);
    EXPECT_EQ(ac.phase, Phase::PushedBack);
    Sample away = at(0, 130, 200, 8); // beyond six half sizes
    EXPECT_TRUE(checkExtendingSituations(ac, away));
    EXPECT_EQ(ac.phase, Phase::Taxi);
    EXPECT_FALSE(ac.holding);
}

// A rolling-out aircraft whose feed goes airborne again takes off: a touch-and-go.
// A take-off starts on evidence in the data: a run along one line at take-off speed, or a report
// in the air with speed. A stale speed at a stand, positions jumping about, or a report in the
// air at a standstill start none.
TEST_F(MotionTest, ATakeOffNeedsARunOrALiftOffInTheData) {
    struct Case {
        const char* name;
        std::vector<std::pair<double, double>> metresNorthEast; // the stream's last four, then the new one
        double speedKt;
        bool airborneLast;
        bool takesOff;
    };
    // Reports one second apart.
    const Case cases[] = {
        {"a run along the runway", {{0, 0}, {30, 0}, {70, 0}, {120, 1}, {180, 1}}, 80, false, true},
        {"a roll-out slowing on the same line",
         {{0, 0}, {60, 0}, {110, 1}, {150, 1}, {180, 1}},
         80,
         false,
         false},
        {"too short a straight for a run", {{0, 0}, {20, 0}, {40, 0}, {60, 0}, {80, 0}}, 80, false, false},
        {"a stale speed at a stand", {{0, 0}, {0, 0.5}, {0.5, 0}, {0, 0}, {0.5, 0.5}}, 180, false, false},
        {"jumps about a stand", {{0, 0}, {30, 10}, {-20, 40}, {25, -15}, {-30, 0}}, 60, false, false},
        {"in the air with speed", {{0, 0}, {40, 0}, {90, 0}, {150, 0}, {210, 0}}, 140, true, true},
        {"in the air at a standstill", {{0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}}, 0, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        live::reset();
        LiveAc& ac = aircraft(true);
        std::int32_t tick = 0;
        for (std::size_t i = 0; i + 1 < c.metresNorthEast.size(); ++i) {
            ac.stream.push_back(
                at(c.metresNorthEast[i].second, c.metresNorthEast[i].first, tick += 100, c.speedKt));
            ac.stream.back().feedTime = tick / 100.0;
        }
        Sample s = at(c.metresNorthEast.back().second, c.metresNorthEast.back().first, tick += 100, c.speedKt,
                      c.airborneLast, c.airborneLast ? 300 : 0);
        s.feedTime = tick / 100.0;
        const bool taken = filterSample(ac, s);
        if (taken) takeOffChecks(ac, s);
        EXPECT_EQ(ac.takingOff, c.takesOff);
    }
}

TEST_F(MotionTest, TouchAndGo) {
    LiveAc& ac = aircraft(true);
    ac.landingFlags.rollout = true;
    ac.stream.push_back(at(0, 0, 0, 120, true, 900));
    Sample s = at(0, 500, 100, 130, true, 950);
    takeOffChecks(ac, s);
    EXPECT_TRUE(ac.takingOff);
    EXPECT_EQ(ac.controls.throttleIndex, 3);
    EXPECT_FALSE(ac.landingFlags.landing);
    rotate(ac);
    EXPECT_FALSE(ac.landingFlags.rollout);
    EXPECT_EQ(ac.phase, Phase::TakeOff);
    EXPECT_EQ(ac.controls.throttleIndex, 4) << "full power for the go";
}

// After lift-off the climb step grows in stages, and the gear comes up at the 300th tick.
TEST_F(MotionTest, ClimbStepRampAndGearUp) {
    // Just lifted off, 50 ft up at full climb pitch, with the counter past the rotation.
    const auto climbing = [&](std::int32_t counter) -> LiveAc& {
        live::reset();
        LiveAc& ac = aircraft(false);
        ac.phase = Phase::TakeOff;
        ac.rotateCounter = counter;
        ac.pitch = ac.climbPitch = ac.rotatePitch = 0.1;
        ac.delta.alt = 1.0;
        ac.alt = 900, ac.heightAgl = 50;
        return ac;
    };
    struct Case {
        std::int32_t counter;
        double share;
    };
    for (const auto& c : {Case{-50, 0.1}, Case{-150, 0.2}, Case{-250, 0.5}, Case{-350, 1.0}}) {
        LiveAc& ac = climbing(c.counter + 1);
        attitude(ac);
        EXPECT_NEAR(ac.alt - 900, c.share, 1e-9) << c.counter;
    }
    LiveAc& ac = climbing(-298);
    ac.controls.gearState = 1;
    attitude(ac);
    EXPECT_EQ(ac.controls.gearState, 1);
    attitude(ac);
    EXPECT_EQ(ac.controls.gearState, 0) << "gear up at -300";
}

// A stale ground speed, too high or too low, gives way to the one the points' spacing shows.
// The last creep to where the data stop: once a few reports agree on a spot more than 3 m from
// where the aircraft waits, it goes there; jitter around the waiting spot, or a spot reported
// once, keeps it where it is.
TEST_F(MotionTest, ACreepToWhereTheDataRestIsFollowed) {
    struct Case {
        const char* name;
        std::vector<std::pair<double, double>> reports; // metres east, north of the waiting spot
        double restEastM;                               // where the last point of the stream is
    };
    const Case cases[] = {
        {"10 m on, then still", {{0, 6}, {0, 10}, {0, 10.1}, {0, 10}, {0, 10}}, 10},
        {"flips to a spot 8 m away", {{8, 0}, {0, 0}, {8, 0.5}, {8, 0}, {8.2, 0}, {8, 0}}, 8},
        {"jitter of 2 m", {{1.5, 0}, {-1, 1}, {0.5, -1.5}, {2, 0}}, 0},
        {"one report away", {{9, 0}, {0, 0}, {0.2, 0}}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        live::reset();
        LiveAc& ac = aircraft(true);
        Sample wait = at(0, 0, 100, 0);
        wait.stationary = true;
        ac.stream.push_back(wait);
        std::int32_t tick = 200;
        for (const auto& [e, n] : c.reports) {
            Sample s = at(e, n, tick += 100, 0);
            if (filterSample(ac, s)) ac.stream.push_back(s);
        }
        const Sample& last = ac.stream.back();
        const double east = (last.lon - kLon) * kMetresPerDegree * std::cos(kLat * core::kRadPerDeg),
                     north = (last.lat - kLat) * kMetresPerDegree;
        EXPECT_NEAR(std::hypot(east, north), c.restEastM, 0.6);
    }
}

TEST_F(MotionTest, StaleGroundSpeedsAreCorrectedFromPositions) {
    struct Case {
        double feedSpeed;
        bool corrected;
    };
    for (const auto& c : {Case{2, true}, Case{80, true}, Case{15, false}}) {
        live::reset();
        LiveAc& ac = aircraft(true);
        // 200 m in 26 s of feed time: 15 kt.
        Sample s0 = at(0, 0, 0, c.feedSpeed), s1 = at(0, 200, 2600, c.feedSpeed);
        s0.feedTime = 100, s1.feedTime = 126;
        ac.stream.push_back(s0), ac.stream.push_back(s1);
        nextTimeGround(ac);
        const double seconds = (ac.stream[1].tick - gEngine.tick) / 100.0;
        EXPECT_NEAR(seconds, 26, 3) << c.feedSpeed << (c.corrected ? " corrected" : " kept");
    }
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

// Coasting through a take-off, the made-up points speed up in steps, and climb from 140 kt on.
TEST_F(MotionTest, TakeOffExtrapolationSpeeds) {
    struct Case {
        double from, speed, vs;
    };
    const Case cases[] = {{20, 40, 0},     {30, 40, 0},      {45, 80, 0},     {90, 110, 0},
                          {130, 150, 600}, {155, 170, 1200}, {175, 180, 2400}};
    for (const auto& c : cases) {
        live::reset();
        LiveAc& ac = aircraft(true);
        ac.takingOff = true;
        Sample s = at(0, 0, 0, c.from);
        s.vs = 0;
        ac.stream.push_back(s);
        extrapolate(ac, 5);
        EXPECT_EQ(ac.stream.back().speed, c.speed) << c.from;
        EXPECT_EQ(ac.stream.back().vs, c.vs) << c.from;
    }
}

// The roll-out ends when the aircraft has turned 15 degrees off the runway's heading.
TEST_F(MotionTest, RollOutEndsFifteenDegreesOffTheRunway) {
    for (const double offDeg : {14.0, 16.0, -16.0}) {
        live::reset();
        LiveAc& ac = aircraft(true);
        ac.landingFlags.rollout = true;
        ac.landingFlags.rolloutHeading = 1.0;
        ac.heading = 1.0 + offDeg * core::kRadPerDeg;
        ac.stream.push_back(at(0, 0, 0, 120));
        ac.stream.push_back(at(0, 500, 500, 110));
        setGroundSegment(ac, 500);
        EXPECT_EQ(ac.landingFlags.rollout, std::fabs(offDeg) < 15) << offDeg;
    }
}

// A curve of 45 degrees or less over a long segment turns more slowly than the aircraft's rate, so
// that the turn is spread over the segment instead of done at its start.
TEST_F(MotionTest, GentleCurvesTurnMoreSlowly) {
    struct Case {
        double angle, metres, rate;
        bool slower;
    };
    // The last two: a turn that would take longer than the segment, and a sharp one, go faster.
    for (const auto& c : {Case{30, 400, 0.05, true}, Case{44, 400, 0.05, true}, Case{30, 20, 0.05, true},
                          Case{30, 20, 0.001, false}, Case{60, 400, 0.05, false}}) {
        live::reset();
        LiveAc& ac = aircraft(true);
        ac.turnRate = c.rate;
        ac.curve = GroundCurve{};
        ac.curveAngle = c.angle;
        ac.stream.push_back(at(0, 0, 0, 15));
        ac.stream.push_back(at(0, c.metres, 100, 15));
        nextTimeGround(ac);
        EXPECT_EQ(ac.currentTurnRate < ac.turnRate, c.slower) << c.angle << " deg over " << c.metres << " m";
    }
}

} // namespace
} // namespace orv::live
