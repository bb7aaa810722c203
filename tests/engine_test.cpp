// The engine's rules that a whole scenario does not pin down.
#include <cmath>
#include <future>
#include <random>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "core/core.h"
#include "live/internal.h"
#include "program_home.h"
#include "sim/sim.h"

namespace orv::live {
namespace {

constexpr std::uint32_t kHex = 11298587;
constexpr double kMspLat = 44.882, kMspLon = -93.2218;

class EngineTest : public test::ProgramHome {
  protected:
    void SetUp() override {
        ProgramHome::SetUp();
        live::reset();
        reserveContainers();
        sim::reset();
        core::gRun.engineTick = 0;
        setCurrentAirport(AirportPlace{kMspLat, kMspLon, 841});
        gEngine.user.latitude = kMspLat, gEngine.user.longitude = kMspLon;
        gEngine.userKnown = true;
    }
    void TearDown() override {
        live::reset();
        sim::reset();
        setCurrentAirport(std::nullopt);
        ProgramHome::TearDown();
    }

    static feed::TrafficSample record(double time, double speed, double track, bool airborne,
                                      double alt = 3000) {
        feed::TrafficSample r;
        r.hexid = kHex;
        r.callsign = "DAL1812";
        r.registration = "N899DN";
        r.modelCode = refdata::modelId("B739");
        r.timestamp = time;
        r.groundSpeed = speed;
        r.track = track;
        r.airborne = airborne;
        r.altitude = airborne ? alt : 0;
        r.latitude = kMspLat + 0.1;
        r.longitude = kMspLon;
        r.trueAirspeed = speed;
        r.tick = gEngine.tick + 3000;
        return r;
    }

    // An aircraft in the simulator at `nm` north of the user, flying north at 250 kt.
    LiveAc& active(std::uint32_t hexid, double nm, std::uint32_t objectId, bool onGround = false) {
        AcIdentity id;
        id.callsign = fmt::format("DAL{}", hexid % 10000);
        id.flightA = id.callsign;
        id.airlineCode = refdata::airlineId("DAL");
        id.modelCode = refdata::modelId("B739");
        auto& t = gEngine.liveTable;
        t.push_back(makeLiveAc(id, hexid, gEngine.rng));
        LiveAc& ac = t.back();
        ac.simState = SimState::Active;
        ac.objectId = objectId;
        ac.phase = onGround ? Phase::Taxi : Phase::Flying;
        ac.onGround = onGround;
        ac.lat = kMspLat + nm / 60.0, ac.lon = kMspLon, ac.alt = onGround ? 841 : 5000;
        Sample s;
        s.lat = ac.lat, s.lon = ac.lon, s.alt = ac.alt, s.speed = onGround ? 15 : 250, s.airborne = !onGround;
        s.tick = gEngine.tick;
        ac.stream.push_back(s);
        ac.lastTimestamp = 100;
        ac.lastFeedSpeed = s.speed;
        return ac;
    }
};

TEST_F(EngineTest, SpeedJumpAndThinningFilters) {
    struct Case {
        const char* name;
        double dt, speed0, speed1, trackChange;
        bool airborne;
        bool taken;
        double alt1 = 3000;
    };
    const Case cases[] = {
        {"the same time", 0, 250, 250, 5, true, false},
        {"one second later", 1, 250, 250, 5, true, false},
        {"ten times faster", 5, 100, 1000, 0, true, false},
        {"just under ten times faster", 5, 100, 999, 0, true, true},
        {"ten times slower", 5, 200, 20, 0, true, false},
        {"from a stop to 80 kt", 20, 3, 80, 0, false, false},
        {"from a stop to 79 kt", 20, 3, 79, 0, false, true},
        {"from 80 kt to a stop", 20, 80, 5, 0, false, false},
        {"450 m not yet flown", 2, 360, 360, 0, true, false},
        {"450 m flown", 2.5, 360, 360, 0, true, true},
        {"turning, so not thinned", 2, 360, 360, 2, true, true},
        {"120 kt is not thinned", 2, 120, 120, 0, true, true},
        {"20 m not yet taxied", 3.5, 10, 10, 0, false, false},
        {"20 m taxied", 4, 10, 10, 0, false, true},
        {"standing, under 15 s", 14, 0, 0, 0, false, false},
        {"standing, 15 s passed", 16, 0, 0, 0, false, true},
        {"taxiing round a corner", 3, 10, 10, 3, false, true},
        {"flying at the airport's level", 10, 250, 250, 0, true, false, 900},
    };
    for (const auto& c : cases) {
        live::reset();
        decode(record(100, c.speed0, 90, c.airborne));
        ASSERT_EQ(gEngine.liveTable.size(), 1u) << c.name;
        auto r = record(100 + c.dt, c.speed1, 90 + c.trackChange, c.airborne, c.alt1);
        r.latitude += c.airborne ? 0.01 : 0.0002; // a step the aircraft can make on the ground
        decode(r);
        EXPECT_EQ(gEngine.liveTable[0].stream.size(), c.taken ? 2u : 1u) << c.name;
    }
}

// What reaches the stream of an aircraft on the ground from a feed that freezes, hops and jumps.
// Reports are one every 2 s, metres north of the first; the speed field is stale throughout.
TEST_F(EngineTest, GroundReportsOutOfReachOrFrozenAreSetAside) {
    struct Case {
        const char* name;
        std::vector<double> northM;       // one report every 2 s
        std::vector<double> streamNorthM; // what the stream holds afterwards (a wait repeats its spot)
    };
    const Case cases[] = {
        {"a steady taxi is taken whole", {0, 30, 60, 90}, {0, 30, 60, 90}},
        {"a frozen feed's repeats wait for the track to go on", {0, 30, 30, 30, 90}, {0, 30, 90}},
        {"one position far off is dropped", {0, 30, 600, 60, 90}, {0, 30, 60, 90}},
        {"a jump the track goes on from is taken back", {0, 30, 600, 630, 660}, {0, 30, 600, 630, 660}},
        {"hops to another spot and back are dropped", {0, 0, 150, 150, 0, 0}, {0, 0, 0, 0}},
        {"a spot the reports stay on for 10 s is believed",
         {0, 0, 150, 150, 150, 150, 150, 150, 150},
         {0, 0, 150}},
    };
    for (const auto& c : cases) {
        live::reset();
        for (std::size_t i = 0; i < c.northM.size(); ++i) {
            auto r = record(100 + 2.0 * static_cast<double>(i), 139.8, 0, false);
            r.latitude += c.northM[i] / 111120.0;
            decode(r);
        }
        ASSERT_EQ(gEngine.liveTable.size(), 1u) << c.name;
        std::vector<double> got;
        const auto& st = gEngine.liveTable[0].stream;
        for (std::size_t i = 0; i < st.size(); ++i)
            got.push_back(std::round((st[i].lat - kMspLat - 0.1) * 111120.0));
        EXPECT_EQ(got, c.streamNorthM) << c.name;
    }
}

// A parked aircraft whose reports scatter tens of metres is held where they centre, and they are
// dropped; but they are still news: the status tells how old the latest one is, not the last taken.
TEST_F(EngineTest, AHeldAircraftsDroppedReportsStillCountAsNews) {
    std::mt19937 rng(3);
    std::normal_distribution<double> jitterM(0.0, 25.0);
    double latest = 0;
    for (int i = 0; i < 300; ++i) {
        gEngine.tick = 100 * i;
        auto r = record(100 + i, 0, 90, false);
        r.latitude += jitterM(rng) / 111120.0;
        r.longitude += jitterM(rng) / (111120.0 * std::cos(r.latitude * core::kRadPerDeg));
        decode(r);
        latest = r.timestamp;
    }
    ASSERT_EQ(gEngine.liveTable.size(), 1u);
    const LiveAc& ac = gEngine.liveTable[0];
    ASSERT_TRUE(ac.standWatch.held);
    EXPECT_LT(ac.lastTimestamp, latest - 60) << "its reports are dropped";
    EXPECT_NEAR(lastHeard(ac), latest, 1.0);
}

// Reports of a taxi every 2 s, 30 m apart, whose time stamps (offsets from their arrival) break.
TEST_F(EngineTest, ABrokenTimeStampIsHeldUntilTheNextReportAgrees) {
    struct Case {
        const char* name;
        std::vector<double> stampOffsetS;
        std::vector<int> taken;           // which reports reach the stream
        std::vector<int> arrivalDelayS{}; // a batch that comes late, stamped right
    };
    const Case cases[] = {
        {"one report an hour ahead", {0, 0, 3600, 0, 0}, {0, 1, 3, 4}},
        {"one report an hour behind", {0, 0, -3600, 0, 0}, {0, 1, 3, 4}},
        {"the source's clock moves on for good", {0, 0, 600, 600, 600}, {0, 1, 3, 4}},
        {"a batch half a minute late is no break", {0, 0, 0, 0, 0}, {0, 1, 2, 3, 4}, {0, 0, 25, 25, 25}},
    };
    for (const auto& c : cases) {
        live::reset();
        std::vector<int> got;
        for (std::size_t i = 0; i < c.stampOffsetS.size(); ++i) {
            gEngine.tick =
                200 * static_cast<std::int32_t>(i) + (c.arrivalDelayS.empty() ? 0 : 100 * c.arrivalDelayS[i]);
            auto r = record(100 + 2.0 * static_cast<double>(i) + c.stampOffsetS[i], 29, 0, false);
            r.latitude += 30.0 * static_cast<double>(i) / 111120.0;
            decode(r);
        }
        ASSERT_EQ(gEngine.liveTable.size(), 1u) << c.name;
        const auto& st = gEngine.liveTable[0].stream;
        for (std::size_t i = 0; i < st.size(); ++i)
            got.push_back(static_cast<int>(std::lround((st[i].lat - kMspLat - 0.1) * 111120.0 / 30.0)));
        EXPECT_EQ(got, c.taken) << c.name;
        for (std::size_t i = 1; i < st.size(); ++i)
            EXPECT_LT(st[i].speed, 40.0) << c.name << ": no speed made up across the break";
    }
}

TEST_F(EngineTest, ANewRegistrationRespawnsWithItsLivery) {
    for (const bool guidChanges : {true, false}) {
        live::reset();
        params::gParams.GUID_CHANGES = guidChanges;
        LiveAc& ac = active(kHex, 10, 200);
        ac.liveryTitle = liveries::titleInstalled("AIG Boeing 737-900 Delta Air Lines");
        ASSERT_FALSE(ac.liveryTitle.empty());
        gEngine.tick = 500;
        decode(record(110, 250, 0, true));
        const LiveAc& after = gEngine.liveTable[0];
        EXPECT_EQ(after.liveryTitle, "AIG Boeing 737-900 Delta Air Lines N899DN") << guidChanges;
        if (!guidChanges) {
            EXPECT_EQ(after.simState, SimState::Active);
            EXPECT_TRUE(gEngine.removeQueue.empty());
            continue;
        }
        EXPECT_TRUE(log.contains("respawns"));
        EXPECT_EQ(after.simState, SimState::LiveryRespawn);
        EXPECT_EQ(gEngine.removeQueue, std::vector<std::uint32_t>{200});
        EXPECT_EQ(after.stream[0].tick, 501);
        EXPECT_TRUE(after.hasSpawnHeading);
        // The simulator reports the object gone: back to the buffer, to be created anew.
        onRemoved(200);
        EXPECT_EQ(after.simState, SimState::Buffer);
        EXPECT_EQ(after.objectId, 0u);
        EXPECT_EQ(after.controls.throttleIndex, 5);
        EXPECT_EQ(after.controls.flapsIndex, 4);
        EXPECT_EQ(after.controls.gearState, -1) << "the new object is told its gear";
        EXPECT_EQ(after.controls.spoilersState, -1) << "and its spoilers";
    }
    params::gParams.GUID_CHANGES = true;
}

TEST_F(EngineTest, ExtrapolationCountsAndTheirEnd) {
    struct Case {
        const char* name;
        bool onGround;
        Phase phase;
        double userNm;
        bool airborneOnly;
        double alt;
        int samples;             // made-up samples before the aircraft goes (or within 10 minutes)
        double goneFrom, goneBy; // seconds; negative: still there after 10 minutes
        bool rollout = false;
    };
    const Case cases[] = {
        {"flying: 8 steps of 8 s", false, Phase::Flying, 10, false, 5000, 8, 60, 68},
        {"flying at the edge of the range", false, Phase::Flying, 39.6, false, 5000, 0, 0, 0.1},
        {"airborne only, near the airport's level", false, Phase::Flying, 10, true, 1500, 0, 0, 0.1},
        {"airborne only, high", false, Phase::Flying, 10, true, 5000, 8, 60, 68},
        {"parked: one step of a week", true, Phase::Parked, 0, false, 841, 1, -1, -1},
        // Steps of 3 s of the slowing speed; each is flown at the mean of two speeds, so a little longer.
        {"roll-out: 10 steps", true, Phase::Taxi, 0, false, 841, 10, 30, 75, true},
        // "More than a minute" counts whole minutes: the hold ends in its third minute.
        {"taxiing: holds for its minutes", true, Phase::Taxi, 0, false, 841, 0, 120, 123},
    };
    params::gParams.MAX_HOLDING_MINUTES = 1;
    for (const auto& c : cases) {
        live::reset();
        params::gParams.AIRBORNE_ONLY = c.airborneOnly;
        gEngine.user.latitude = kMspLat, gEngine.user.longitude = kMspLon;
        gEngine.userKnown = true;
        LiveAc& ac = active(kHex, 0, 200, c.onGround);
        ac.phase = c.phase;
        ac.landingFlags.rollout = c.rollout;
        ac.alt = ac.stream[0].alt = c.alt;
        gEngine.user.latitude = kMspLat - c.userNm / 60.0;
        int samples = 0, lastCount = 0;
        double goneAt = -1;
        for (gEngine.tick = 0; gEngine.tick < 60000; ++gEngine.tick) {
            updateLiveAc(gEngine.liveTable[0]);
            const auto& a = gEngine.liveTable[0];
            if (a.extrapolateCount > 0 && a.extrapolateCount != lastCount && !a.holding) ++samples;
            lastCount = a.extrapolateCount;
            if (a.simState == SimState::RemovingFromSim) {
                goneAt = gEngine.tick / 100.0;
                break;
            }
        }
        EXPECT_EQ(samples, c.samples) << c.name;
        if (c.goneFrom < 0) {
            EXPECT_EQ(goneAt, -1) << c.name;
        } else {
            EXPECT_GE(goneAt, c.goneFrom) << c.name;
            EXPECT_LE(goneAt, c.goneBy) << c.name;
        }
    }
    params::gParams.AIRBORNE_ONLY = false;
    params::gParams.MAX_HOLDING_MINUTES = 20;

    // Real data ends it: a point ahead is taken and the coasting stops; one behind is an echo.
    live::reset();
    gEngine.user.latitude = kMspLat, gEngine.user.longitude = kMspLon;
    LiveAc& ac = active(kHex, 0, 200);
    for (gEngine.tick = 0; gEngine.tick < 2000; ++gEngine.tick) updateLiveAc(ac);
    ASSERT_GT(ac.extrapolateCount, 1);
    auto behind = record(200, 250, 0, true);
    behind.latitude = ac.lat - 0.05;
    decode(behind);
    EXPECT_GT(ac.extrapolateCount, 1) << "a point behind is dropped";
    auto ahead = record(210, 250, 0, true);
    ahead.latitude = ac.lat + 0.05;
    decode(ahead);
    EXPECT_EQ(ac.extrapolateCount, 0);
    ASSERT_EQ(ac.stream.size(), 2u);
    EXPECT_EQ(ac.stream[0].tick, gEngine.tick + 1);
    EXPECT_EQ(ac.lateLimit, 3000);
}

// A spawn-ready aircraft 10 nm from the user, with two samples due now.
LiveAc& ready(double nm) {
    AcIdentity id;
    id.callsign = "DAL1812";
    id.flightA = id.callsign;
    id.registration = "N899DN";
    id.airlineCode = refdata::airlineId("DAL");
    id.modelCode = refdata::modelId("B739");
    auto& t = gEngine.liveTable;
    t.push_back(makeLiveAc(id, kHex, gEngine.rng));
    LiveAc& ac = t.back();
    for (int i = 0; i < 2; ++i) {
        Sample s;
        s.lat = kMspLat + nm / 60.0 + i * 0.01, s.lon = kMspLon, s.alt = 5000, s.speed = 250,
        s.airborne = true;
        s.tick = gEngine.tick + i * 500;
        ac.stream.push_back(s);
    }
    ac.lat = ac.stream[0].lat, ac.lon = ac.stream[0].lon;
    return ac;
}

TEST_F(EngineTest, MaxLiveSelectionMakesRoomFromTheFarthest) {
    struct Case {
        const char* name;
        int maxLive;
        double newNm;
        bool spawned;
        std::uint32_t evicted; // object id, 0 none
    };
    const Case cases[] = {
        {"room left", 3, 10, true, 0},
        {"full: the farthest goes for a nearer one", 2, 10, true, 302},
        {"full: nobody farther", 2, 30, false, 0},
        {"full: farther by less than 0.1 nm", 2, 19.95, false, 0},
        {"none wanted", 0, 10, false, 0},
    };
    for (const auto& c : cases) {
        live::reset();
        gEngine.user.latitude = kMspLat, gEngine.user.longitude = kMspLon;
        params::gParams.MAX_LIVE_SEL = c.maxLive;
        active(20001, 5, 301);
        active(20002, 20, 302);
        LiveAc& ac = ready(c.newNm);
        handleBuffer(ac);
        const LiveAc& fresh = *findByHexid(kHex);
        EXPECT_EQ(fresh.simState == SimState::Adding2Sim, c.spawned) << c.name;
        EXPECT_EQ(fresh.dropNow, !c.spawned) << c.name;
        if (c.evicted)
            EXPECT_EQ(gEngine.removeQueue, std::vector<std::uint32_t>{c.evicted}) << c.name;
        else
            EXPECT_TRUE(gEngine.removeQueue.empty()) << c.name;
    }
    params::gParams.MAX_LIVE_SEL = 500;
}

TEST_F(EngineTest, BlockedCallsign) {
    params::gParams.BLOCK_CALLSIGN = "DAL1812";
    LiveAc& ac = ready(10);
    EXPECT_EQ(handleBuffer(ac), Update::Drop);
    EXPECT_TRUE(gEngine.addingStack.empty());
    params::gParams.BLOCK_CALLSIGN.clear();

    // Blocked by the simulator: the active one leaves at once, the waiting one from the buffer.
    live::reset();
    active(20001, 5, 301);
    ready(10);
    onBlocked(20001);
    onBlocked(kHex);
    EXPECT_EQ(findByHexid(20001)->simState, SimState::RemovingFromSim);
    EXPECT_TRUE(findByHexid(kHex)->dropNow);
    EXPECT_TRUE(log.contains("removed from simulator immediately while blocked"));
    EXPECT_TRUE(log.contains("will be removed from buffer while blocked"));
}

TEST_F(EngineTest, RemovalInEachState) {
    enum class Where { Buffer, Stacked, Queued, Sent, Active, ActiveNoObject, Leaving };
    struct Case {
        const char* name;
        Where where;
        bool dropNow, dropSilently, removeWhenCreated;
        SimState after;
        std::size_t removals;
    };
    const Case cases[] = {
        {"in the buffer", Where::Buffer, true, false, false, SimState::Buffer, 0},
        {"on the adding stack", Where::Stacked, false, true, false, SimState::Adding2Sim, 0},
        {"in the spawn queue", Where::Queued, false, true, false, SimState::Adding2Sim, 0},
        {"asked of the simulator", Where::Sent, false, false, true, SimState::Adding2Sim, 0},
        {"active", Where::Active, false, false, false, SimState::RemovingFromSim, 1},
        {"active without an object", Where::ActiveNoObject, false, false, false, SimState::RemovingFromSim,
         0},
        {"already leaving", Where::Leaving, false, false, false, SimState::RemovingFromSim, 0},
    };
    for (const auto& c : cases) {
        live::reset();
        sim::reset();
        params::gParams.MAX_LIVE_SEL = 500;
        LiveAc* ac = nullptr;
        if (c.where == Where::Active || c.where == Where::ActiveNoObject || c.where == Where::Leaving) {
            ac = &active(kHex, 10, c.where == Where::ActiveNoObject ? 0 : 200);
            if (c.where == Where::Leaving) ac->simState = SimState::RemovingFromSim;
        } else {
            ac = &ready(10);
            if (c.where != Where::Buffer) handleBuffer(*ac);
            if (c.where == Where::Queued || c.where == Where::Sent) handleAddingStack();
            if (c.where == Where::Sent) {
                gEngine.tick = 50;
                pace();
            }
        }
        const auto createdBefore = gEngine.created;
        removeAircraftFromSim(*ac);
        EXPECT_EQ(ac->dropNow, c.dropNow) << c.name;
        EXPECT_EQ(ac->dropSilently, c.dropSilently) << c.name;
        EXPECT_EQ(ac->removeWhenCreated, c.removeWhenCreated) << c.name;
        EXPECT_EQ(ac->simState, c.after) << c.name;
        EXPECT_EQ(gEngine.removeQueue.size(), c.removals) << c.name;
        EXPECT_TRUE(gEngine.addingStack.empty() || c.where == Where::Buffer) << c.name;
        EXPECT_TRUE(gEngine.spawnQueue.empty()) << c.name;
        // Frames go on: an aircraft taken out of the queue is never created afterwards.
        for (int i = 0; i < 200; ++i) engineFrame();
        EXPECT_EQ(gEngine.created, createdBefore) << c.name;
    }
}

// An aircraft removed while the simulator was creating it is removed once it exists.
TEST_F(EngineTest, RemovedWhileBeingCreated) {
    LiveAc& ac = ready(10);
    handleBuffer(ac);
    handleAddingStack();
    gEngine.tick = 50;
    pace();
    removeAircraftFromSim(*findByHexid(kHex));
    ASSERT_TRUE(findByHexid(kHex)->removeWhenCreated);
    sim::LiveCreated created{250, kHex, 1000};
    ASSERT_TRUE(onCreated(*findByHexid(kHex), created));
    gEngine.pending.push_back({250, kHex, false, 0});
    for (int i = 0; i < 200; ++i) handlePending();
    EXPECT_EQ(findByHexid(kHex)->simState, SimState::RemovingFromSim);
    EXPECT_EQ(gEngine.removeQueue, std::vector<std::uint32_t>{250});
}

// An aircraft changing its livery has its object queued for removal once; taking all aircraft
// out then must not queue it again.
TEST_F(EngineTest, RemoveAllQueuesARespawningObjectOnce) {
    LiveAc& changing = active(kHex, 10, 300);
    active(kHex + 1, 12, 301);
    liveryRespawn(changing);
    removeAll();
    EXPECT_EQ(gEngine.removeQueue, (std::vector<std::uint32_t>{300, 301}));
    for (const auto& ac : gEngine.liveTable) EXPECT_EQ(ac.simState, SimState::RemovingFromSim);
}

// The airline comes from the callsign only when its prefix is an airline; any other prefix
// leaves the registration's airline and adds nothing to the airline table.
TEST_F(EngineTest, CallsignPrefixesInventNoAirline) {
    struct Case {
        const char* callsign;
        const char* airline;
    };
    const Case cases[] = {{"DAL1812", "DAL"}, {"KLM601", "KLM"}, {"XQZ123", "DAL"}, {"N899DN", "DAL"}};
    for (const auto& c : cases) {
        live::reset();
        const auto airlinesBefore = refdata::airlineCount();
        auto r = record(100, 250, 90, true);
        r.callsign = c.callsign;
        decode(r);
        ASSERT_NE(findByHexid(kHex), nullptr) << c.callsign;
        EXPECT_EQ(refdata::airlineCode(findByHexid(kHex)->airlineCode), c.airline) << c.callsign;
        EXPECT_EQ(refdata::airlineCount(), airlinesBefore) << c.callsign;
    }
}

// A record holds its whole sample ring: taking one out, by the frame's compaction or by the
// simulator's removal, leaves every other record where it is, and its slot is used again.
TEST_F(EngineTest, RecordsStayWhereTheyAre) {
    std::vector<const LiveAc*> where;
    for (std::uint32_t i = 0; i < 5; ++i) where.push_back(&active(20001 + i, 10, 300 + i));
    onRemoved(300);                           // the simulator removed the first
    gEngine.liveTable[1].dropSilently = true; // and the third is dropped
    handleEvents();                           // compacts after the events
    ASSERT_EQ(gEngine.liveTable.size(), 3u);
    EXPECT_EQ(&gEngine.liveTable[0], where[1]);
    EXPECT_EQ(&gEngine.liveTable[1], where[3]);
    EXPECT_EQ(&gEngine.liveTable[2], where[4]);
    EXPECT_EQ(&active(20010, 10, 310), where[2]) << "the last slot freed is taken first";
}

// The frame only marks the static data it wants; the SimClient may hold its lock meanwhile.
TEST_F(EngineTest, CreationAsksForStaticDataWithoutWaiting) {
    LiveAc& ac = ready(10);
    std::promise<void> locked, release;
    std::thread holder([&] {
        std::unique_lock lock(sim::simLockForTests());
        locked.set_value();
        release.get_future().wait();
    });
    locked.get_future().wait();
    auto created = std::async(std::launch::async, [&] {
        return onCreated(ac, sim::LiveCreated{250, kHex, 1000});
    });
    const bool returned = created.wait_for(std::chrono::seconds(2)) == std::future_status::ready;
    release.set_value();
    holder.join();
    EXPECT_TRUE(returned) << "the frame waited for the SimClient's lock";
    EXPECT_TRUE(created.get());
    EXPECT_EQ(gEngine.out.staticData, std::vector<std::uint32_t>{250});
}

TEST_F(EngineTest, ControlsSendOnlyChanges) {
    LiveAc& ac = active(kHex, 10, 200);
    setFlaps(ac, 0); // 4 means unset, so 0 goes out
    setFlaps(ac, 0);
    setFlaps(ac, 2);
    setFlaps(ac, 7);
    setThrottle(ac, 0); // 5 means unset
    setThrottle(ac, 0);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> sent;
    for (const auto& e : gEngine.out.events) sent.emplace_back(e.eventId, e.data);
    EXPECT_EQ(sent, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{
                        {sim::kFlapsSet, 0}, {sim::kFlapsSet, 10240}, {sim::kThrottleSet, 0}}));
    EXPECT_TRUE(log.contains("setFlaps: invalid flaps index"));
    LiveAc& heli = active(kHex + 1, 10, 201);
    heli.category = refdata::Category::Rotorcraft;
    gEngine.out.events.clear();
    setFlaps(heli, 1);
    setGear(heli, true);
    setSpoilers(heli, true);
    EXPECT_TRUE(gEngine.out.events.empty()) << "rotorcraft get no flaps, gear or spoilers";

    // Lights too; after a toggle of all of them each state is unknown, so all go out again.
    gEngine.out.events.clear();
    setLights(200, true, true, false, false, true, true, false);
    setLights(200, true, true, false, false, true, true, false);
    EXPECT_EQ(gEngine.out.events.size(), 7u);
    setLights(200, true, true, true, false, true, true, false);
    EXPECT_EQ(gEngine.out.events.size(), 8u) << "only the landing lights changed";
    command(200, sim::kAllLightsToggle, 0);
    setLights(200, true, true, true, false, true, true, false);
    EXPECT_EQ(gEngine.out.events.size(), 16u);
}

// A busy lock costs that frame's positions and nothing else; commands wait for the next frame.
TEST_F(EngineTest, ABusyLockLosesOneFrameOfPositions) {
    active(kHex, 10, 200);
    engineFrame();
    ASSERT_EQ(gEngine.positionsLost, 0u);
    setFlaps(gEngine.liveTable[0], 1);
    std::mutex& lock = sim::simLockForTests();
    {
        std::lock_guard hold(lock);
        std::thread frame([] { engineFrame(); });
        frame.join();
    }
    EXPECT_EQ(gEngine.positionsLost, 1u);
    EXPECT_EQ(gEngine.out.events.size(), 1u) << "the command waits";
    engineFrame();
    EXPECT_EQ(gEngine.positionsLost, 1u);
    EXPECT_TRUE(gEngine.out.events.empty());
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

// A created aircraft with a route gets its flight plan file, written beside the frame, and the
// file goes with the aircraft.
TEST_F(EngineTest, FlightPlanFilesFollowTheAircraft) {
    ASSERT_TRUE(sim::createFlightPlanFolder());
    LiveAc& ac = ready(10);
    ac.origin = refdata::IataCode::tryMake("MSP").value();
    ac.destination = refdata::IataCode::tryMake("ATL").value();
    handleBuffer(ac);
    ASSERT_TRUE(onCreated(*findByHexid(kHex), sim::LiveCreated{250, kHex, 3000}));
    const auto plan = sim::planPath(kHex);
    EXPECT_FALSE(fs::exists(plan)) << "not written inside the frame";
    writeFlightPlans();
    EXPECT_TRUE(fs::exists(plan));
    findByHexid(kHex)->simState = SimState::RemovingFromSim;
    onRemoved(250);
    EXPECT_EQ(findByHexid(kHex), nullptr);
    EXPECT_TRUE(fs::exists(plan));
    writeFlightPlans();
    EXPECT_FALSE(fs::exists(plan));
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

TEST_F(EngineTest, RoutesMergeSideBySideAndKeepTheUsersAirport) {
    struct Case {
        const char *name, *storedFrom, *storedTo, *from, *to, *userIata;
        const char *wantFrom, *wantTo;
        bool backToTaxi;
    };
    const Case cases[] = {
        {"fills an empty side only", "MSP", "", "ORD", "ATL", "", "MSP", "ATL", false},
        {"fills both when empty", "", "", "MSP", "ATL", "", "MSP", "ATL", false},
        {"a half route fills its side", "", "ATL", "MSP", "", "", "MSP", "ATL", false},
        {"a different full route replaces", "MSP", "ATL", "MSP", "DTW", "", "MSP", "DTW", true},
        {"a half route does not replace", "MSP", "ATL", "ORD", "", "", "MSP", "ATL", false},
        {"the user's airport stays", "MSP", "ATL", "ORD", "DTW", "MSP", "MSP", "ATL", false},
        {"another airport does not hold it", "MSP", "ATL", "ORD", "DTW", "ZRH", "ORD", "DTW", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        live::reset();
        setCurrentAirport(AirportPlace{kMspLat, kMspLon, 841,
                                       *c.userIata ? refdata::IataCode(c.userIata) : refdata::IataCode()});
        LiveAc& ac = active(kHex, 2, 200, true);
        ac.phase = Phase::Parked;
        const auto code = [](const char* t) { return *t ? refdata::IataCode(t) : refdata::IataCode(); };
        ac.origin = code(c.storedFrom), ac.destination = code(c.storedTo);
        auto r = record(110, 0, 0, false);
        r.origin = code(c.from), r.destination = code(c.to);
        r.registration = ac.registration; // nothing else changes
        r.callsign = ac.callsign;
        EXPECT_TRUE(checkRespawn(ac, r));
        EXPECT_EQ(ac.origin.view(), c.wantFrom);
        EXPECT_EQ(ac.destination.view(), c.wantTo);
        EXPECT_EQ(ac.phase == Phase::Taxi, c.backToTaxi);
    }
}

// Each aircraft's route is looked up once, one a second, through the schedule's lookup.
TEST_F(EngineTest, RouteQueueLooksEachAircraftUpOnce) {
    int asked = 0;
    setFlightLookup([&](const LiveAc& ac) -> std::optional<std::pair<std::string, std::string>> {
        ++asked;
        return std::pair{ac.callsign, std::string("DL1812")};
    });
    LiveAc& ac = active(kHex, 2, 200);
    queueRoute(ac), queueRoute(ac);
    routeQueueStep(), routeQueueStep();
    EXPECT_EQ(asked, 1);
    EXPECT_TRUE(ac.routeLookedUp);
    EXPECT_EQ(ac.flightB, "DL1812");
    queueRoute(ac);
    routeQueueStep();
    EXPECT_EQ(asked, 1) << "never twice for one aircraft";
    // A full queue takes no more; gone aircraft are skipped.
    for (std::uint32_t h = 1; h <= 70; ++h) queueRoute(active(h, 3, 300 + h));
    EXPECT_EQ(gEngine.routeCount, gEngine.routeQueue.size());
    onRemoved(301);
    for (int i = 0; i < 70; ++i) routeQueueStep();
    EXPECT_EQ(asked, 1 + 63);
    setFlightLookup({});
}

// Aircraft without a livery are listed in the log, once, under one heading.
TEST_F(EngineTest, AircraftWithoutALiveryAreListed) {
    LiveAc& ac = ready(10);
    ac.modelCode = refdata::modelId("A124");
    ac.airlineCode = refdata::airlineId("ADB");
    ac.registration = "UR82008";
    ac.callsign = "ADB3412";
    params::gParams.MATCHING_DEPTH = 1;
    EXPECT_EQ(spawnLiveAc(ac), Update::Drop);
    // Its next reports make it again and find nothing again: it is listed once.
    const LiveAc first = ac;
    LiveAc& again = ready(11);
    again.modelCode = first.modelCode, again.airlineCode = first.airlineCode, again.callsign = first.callsign;
    again.registration = first.registration;
    EXPECT_EQ(spawnLiveAc(again), Update::Drop);
    params::gParams.MATCHING_DEPTH = 4;
    EXPECT_EQ(noMatchList().size(), 1u);
    logNoMatchList();
    EXPECT_TRUE(log.contains("\nNo match found for:\nADB3412  UR82008  ADB A124\n")) << log.text();
    logNoMatchList();
    EXPECT_EQ(log.count("No match found for:"), 1u);
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

// One creation every 50 ticks and one removal every 10, however many wait.
TEST_F(EngineTest, CreationAndRemovalPacing) {
    for (std::uint32_t i = 0; i < 4; ++i) {
        gEngine.spawnQueue.push_back({{}, "DAL1", "AIG Boeing 737-800 KLM", 100 + i});
        gEngine.removeQueue.push_back(300 + i);
    }
    std::vector<std::int32_t> creates, removes;
    for (std::int32_t t = 1; t <= 160; ++t) {
        gEngine.tick = t;
        gEngine.out.clear();
        pace();
        if (!gEngine.out.creates.empty()) creates.push_back(t);
        if (!gEngine.out.removes.empty()) removes.push_back(t);
    }
    EXPECT_EQ(creates, (std::vector<std::int32_t>{50, 100, 150}));
    EXPECT_EQ(removes, (std::vector<std::int32_t>{10, 20, 30, 40}));
}

// A title the simulator could not create is never given again.
TEST_F(EngineTest, ARefusedTitleIsNotMatchedAgain) {
    LiveAc& ac = ready(10);
    ASSERT_EQ(spawnLiveAc(ac), Update::Keep);
    const std::string title(ac.liveryTitle);
    ASSERT_FALSE(title.empty());
    onEvent(sim::CreationFailed{kHex});
    EXPECT_TRUE(log.contains(fmt::format("'{}' could not be created by your Sim!", title)));
    live::reset();
    LiveAc& again = ready(10);
    (void)spawnLiveAc(again);
    EXPECT_NE(std::string(again.liveryTitle), title);
}

// Each category of traffic follows its own switch.
TEST_F(EngineTest, CategorySwitchesEachReadTheirOwnSetting) {
    const auto modelOf = [](refdata::Category c) {
        for (const char* m : {"C172", "EC35", "AS50", "H60", "F16", "F18", "T38", "A10", "B407"})
            if (refdata::category(refdata::modelId(m)) == c) return std::string(m);
        return std::string();
    };
    struct Case {
        refdata::Category category;
        std::atomic<bool>& own;
    } cases[] = {{refdata::Category::Light, params::gParams.LIGHT_AIRCRAFT},
                 {refdata::Category::HighPerf, params::gParams.HIGH_PERF_AIRCRAFT},
                 {refdata::Category::Rotorcraft, params::gParams.HELICOPTERS}};
    for (const auto& c : cases) {
        const std::string model = modelOf(c.category);
        SCOPED_TRACE(model);
        ASSERT_FALSE(model.empty());
        for (const auto& other : cases) {
            live::reset();
            for (const auto& k : cases) k.own = true;
            other.own = false;
            auto r = record(100, 120, 0, true);
            r.modelCode = refdata::modelId(model);
            r.registration.clear(); // the type is the feed's, not a registration record's
            decode(r);
            EXPECT_EQ(findByHexid(kHex) != nullptr, &other.own != &c.own);
        }
    }
    for (const auto& k : cases) k.own = true;
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

// A taxiing aircraft whose data stop waits where it is, unless another taxiing aircraft stands
// within reach: then it goes at once rather than block it.
TEST_F(EngineTest, NoHoldNextToAnotherTaxiingAircraft) {
    for (const double otherNm : {0.01, 0.5}) {
        live::reset();
        LiveAc& ac = active(kHex, 0, 200, true);
        ac.halfSize = 20 / core::kMetresPerNm;
        LiveAc& other = active(kHex + 1, otherNm, 201, true);
        other.halfSize = 20 / core::kMetresPerNm;
        for (gEngine.tick = 0; gEngine.tick < 500; ++gEngine.tick) updateLiveAc(*findByHexid(kHex));
        const LiveAc& a = *findByHexid(kHex);
        if (otherNm < 0.1) {
            EXPECT_EQ(a.simState, SimState::RemovingFromSim);
        } else {
            EXPECT_TRUE(a.holding);
            EXPECT_EQ(a.simState, SimState::Active);
        }
    }
}

} // namespace
} // namespace orv::live
