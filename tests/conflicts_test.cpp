// Ghosts, doubles and the aircraft that would run into the user or into each other.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "live/internal.h"
#include "params/params.h"
#include "parking/parking.h"
#include "program_home.h"
#include "sim/sim.h"

namespace orv::live {
namespace {

namespace af = airportfile;

constexpr double kLat = 44.882, kLon = -93.2218;
constexpr double kNmPerFt = 1.0 / core::kFeetPerNm;

// A place `north` and `east` nautical miles from the reference point.
LatLonPos at(double north, double east) {
    return {kLat + north / 60.0, kLon + east / 60.0 / std::cos(kLat * core::kRadPerDeg)};
}

class ConflictTest : public test::ProgramHome {
  protected:
    void SetUp() override {
        ProgramHome::SetUp();
        live::reset();
        reserveContainers();
        sim::reset();
        parking::reset();
        af::gPark.reset();
        gEngine.user.latitude = kLat, gEngine.user.longitude = kLon, gEngine.user.altitude = 841;
        gEngine.userKnown = true;
        gEngine.userOnGround = true;
    }
    void TearDown() override {
        live::reset();
        parking::reset();
        af::gPark.reset();
        params::gParams.reset();
        ProgramHome::TearDown();
    }

    // A B739 in the simulator at `p`; on the ground unless `altFt` is given.
    static LiveAc& active(std::uint32_t hexid, std::string_view callsign, LatLonPos p, double altFt = 0) {
        AcIdentity id;
        id.callsign = std::string(callsign);
        id.flightA = id.callsign;
        id.registration = fmt::format("N{}DN", hexid % 1000);
        id.airlineCode = refdata::airlineId("DAL");
        id.modelCode = refdata::modelId("B739");
        gEngine.liveTable.push_back(makeLiveAc(id, hexid, gEngine.rng));
        LiveAc& ac = gEngine.liveTable.back();
        ac.simState = SimState::Active;
        ac.objectId = 100 + hexid % 1000;
        ac.onGround = altFt == 0;
        ac.phase = ac.onGround ? Phase::Taxi : Phase::Flying;
        ac.lat = p.lat, ac.lon = p.lon, ac.alt = ac.onGround ? 841 : altFt;
        ac.halfSize = 17.2 / core::kMetresPerNm;
        Sample s;
        s.lat = p.lat, s.lon = p.lon, s.alt = ac.alt, s.airborne = !ac.onGround;
        ac.stream.push_back(s);
        return ac;
    }
    // One in the buffer with two samples at `p`, due now.
    static LiveAc& waiting(std::uint32_t hexid, std::string_view callsign, LatLonPos p, double altFt,
                           double speed, double trackDeg = 0) {
        LiveAc& ac = active(hexid, callsign, p, altFt);
        ac.simState = SimState::Buffer;
        ac.objectId = 0;
        ac.phase = Phase::Birth;
        ac.stream.clear();
        for (int i = 0; i < 2; ++i) {
            Sample s;
            s.lat = p.lat, s.lon = p.lon, s.alt = altFt, s.airborne = altFt > 0, s.speed = s.tas = speed;
            s.track = trackDeg, s.stationary = speed == 0;
            s.tick = gEngine.tick + i * 500;
            ac.stream.push_back(s);
        }
        return ac;
    }
    static bool leaving(std::uint32_t hexid) {
        const LiveAc* ac = findByHexid(hexid);
        return !ac || ac->simState == SimState::RemovingFromSim || ac->dropNow || ac->dropSilently;
    }
    // Two stands 30 m apart that overlap, the second one east of the first.
    static void twoStands() {
        for (int i = 0; i < 2; ++i) {
            af::Stand s;
            s.id = fmt::format("G{}", i + 1);
            const auto p = at(1, i * 30.0 / core::kMetresPerNm);
            s.latitude = p.lat, s.longitude = p.lon, s.radiusNm = 25 / core::kMetresPerNm;
            af::gPark.stands.push_back(s);
        }
        af::numberAndLinkStands(af::gPark.stands);
    }
};

TEST_F(ConflictTest, WouldCollideOnlyWithWhatIsAheadOnTheUsersLine) {
    gEngine.user.altitude = 3000;
    struct Case {
        const char* name;
        int row;
        double north, eastFt, altFt, headingDeg;
        bool collides;
    };
    const Case cases[] = {
        {"ahead on the same track", 0, 2, 0, 3000, 0, true},
        {"coming head-on is not ahead", 0, 2, 0, 3000, 180, false},
        {"beyond 4 nm", 0, 5, 0, 3000, 0, false},
        {"6 nm is within the spawn row", 1, 5, 0, 3000, 0, true},
        {"999 ft above", 0, 2, 0, 3999, 0, true},
        {"1000 ft above", 0, 2, 0, 4000, 0, false},
        {"crossing the user's line", 0, 2, 0, 3000, 90, false},
        {"600 ft to the side", 0, 2, 600, 3000, 0, true},
        {"800 ft to the side", 0, 2, 800, 3000, 0, false},
        {"800 ft to the side, spawn row", 1, 2, 800, 3000, 0, true},
    };
    for (const auto& c : cases) {
        const auto p = at(c.north, c.eastFt * kNmPerFt);
        EXPECT_EQ(wouldCollide(gEngine.user, p.lat, p.lon, c.altFt, c.headingDeg * core::kRadPerDeg, c.row),
                  c.collides)
            << c.name;
    }
}

TEST_F(ConflictTest, AGhostCopyGivesWayToItsRealTwinWhicheverCameFirst) {
    // The real one is there: the ghost is never made.
    active(1, "DAL1812", at(3, 0), 5000);
    LiveAc& ghost = waiting(2, "DAL1812_", at(3.1, 0), 5000, 250);
    EXPECT_EQ(handleBuffer(ghost), Update::Drop);

    // The ghost came first: the real one's spawn removes it, and its name stays banned.
    live::reset();
    active(2, "DAL1812_", at(3, 0), 5000);
    LiveAc& real = waiting(1, "DAL1812", at(3.1, 0), 5000, 250);
    (void)handleBuffer(real);
    EXPECT_EQ(findByHexid(1)->simState, SimState::Adding2Sim);
    EXPECT_TRUE(leaving(2));
    EXPECT_TRUE(log.contains("DAL1812_ is a ghost and will be removed, continue with DAL1812"));
    LiveAc& again = waiting(3, "DAL1812_", at(3.2, 0), 5000, 250);
    EXPECT_EQ(handleBuffer(again), Update::Drop) << "a replaced ghost does not come back";
    clearGhosts();
    EXPECT_FALSE(inGhostList("DAL1812_"));

    // One in the simulator that takes the ghost's name while its twin flies goes.
    live::reset();
    active(1, "DAL1812", at(3, 0), 5000);
    LiveAc& renamed = active(2, "DAL1", at(4, 0), 5000);
    feed::TrafficSample r;
    r.callsign = "DAL1812_";
    EXPECT_FALSE(checkRespawn(renamed, r));
    EXPECT_TRUE(leaving(2));
    EXPECT_FALSE(leaving(1));
}

TEST_F(ConflictTest, TheUsersSafetyComesFirstUnlessTheSettingsSayNo) {
    struct Case {
        const char* name;
        bool userOnGround, gnd, air;
        double north, altFt, speed;
        bool dropped;
    };
    const Case cases[] = {
        {"on the ground 100 m from the parked user", true, true, true, 100 / 1852.0, 0, 10, true},
        {"on the ground 200 m away", true, true, true, 200 / 1852.0, 0, 10, false},
        {"100 m, ground rule off", true, false, true, 100 / 1852.0, 0, 10, false},
        {"in the air over the parked user", true, true, true, 0.01, 2000, 200, false},
        {"ahead of the flying user", false, true, true, 3, 3000, 250, true},
        {"ahead of the flying user, air rule off", false, true, false, 3, 3000, 250, false},
        {"both rules off", false, false, false, 3, 3000, 250, false},
    };
    for (const auto& c : cases) {
        live::reset();
        gEngine.userKnown = true;
        gEngine.userOnGround = c.userOnGround;
        gEngine.user.latitude = kLat, gEngine.user.longitude = kLon;
        gEngine.user.altitude = c.userOnGround ? 841 : 3000;
        params::gParams.COLLISION_USER_GND = c.gnd;
        params::gParams.COLLISION_USER_AIR = c.air;
        LiveAc& ac = waiting(1, "DAL1812", at(c.north, 0), c.altFt, c.speed);
        EXPECT_EQ(userProximity(ac), c.dropped) << c.name;
        EXPECT_EQ(ac.stream.size(), c.dropped ? 1u : 2u) << c.name;
        EXPECT_EQ(ac.keepDistance, c.dropped && !c.userOnGround) << c.name;
    }

    // Held back in the air, it is made after the user landed only when it stands well away.
    for (const bool far : {false, true}) {
        live::reset();
        gEngine.userKnown = true;
        gEngine.userOnGround = true;
        gEngine.user.latitude = kLat, gEngine.user.longitude = kLon;
        LiveAc& ac = waiting(1, "DAL1812", at(far ? 0.5 : 0.2, 0), 0, 0);
        ac.keepDistance = true;
        EXPECT_EQ(userProximity(ac), !far) << (far ? "far" : "near");
    }
}

TEST_F(ConflictTest, OneASecondTheUsersNeighbourhoodIsCleared) {
    struct Case {
        const char* name;
        bool userOnGround, gnd, air;
        double north, altFt, userAglFt;
        bool removed;
    };
    const Case cases[] = {
        {"taxiing into the parked user", true, true, true, 10 / 1852.0, 0, 0, true},
        {"taxiing past at 60 m", true, true, true, 60 / 1852.0, 0, 0, false},
        {"taxiing into the user, ground rule off", true, false, true, 10 / 1852.0, 0, 0, false},
        {"on the runway ahead of the landing user", false, true, true, 0.8, 0, 300, true},
        {"on the runway ahead, the user still high", false, true, true, 0.8, 0, 900, false},
        {"in the air ahead of the user", false, true, true, 2, 3000, 2000, true},
        {"both rules off", false, false, false, 2, 3000, 2000, false},
    };
    for (const auto& c : cases) {
        live::reset();
        gEngine.userKnown = true;
        gEngine.userOnGround = c.userOnGround;
        gEngine.user.latitude = kLat, gEngine.user.longitude = kLon, gEngine.user.heading = 0;
        gEngine.user.altitude = c.userOnGround ? 841 : 3000;
        gEngine.user.altAboveGround = c.userAglFt;
        params::gParams.COLLISION_USER_GND = c.gnd;
        params::gParams.COLLISION_USER_AIR = c.air;
        active(1, "DAL1812", at(c.north, 0), c.altFt);
        collisionChecks();
        EXPECT_EQ(leaving(1), c.removed) << c.name;
    }
}

TEST_F(ConflictTest, WhoKeepsAStandWhenALiveAircraftWantsIt) {
    twoStands();
    struct Case {
        const char* name;
        const char *standing, *coming;
        bool atStand, free;
        const char* log;
    };
    const Case cases[] = {
        {"the same callsign again", "DAL1", "DAL1", false, true, "ac with same callsign DAL1 wants it"},
        {"a ghost makes way for its twin", "DAL1_", "DAL1", false, true, "DAL1_    ghost, replace by DAL1"},
        {"the twin keeps it against a ghost", "DAL1", "DAL1_", false, false, ""},
        {"one found standing there keeps it", "DAL2", "DAL1", true, false, ""},
        {"another one makes way", "DAL2", "DAL1", false, true, "removed because another live DAL1 wants"},
    };
    for (const auto& c : cases) {
        live::reset();
        LiveAc& standing = active(1, c.standing, at(1, 0));
        standing.phase = Phase::Parked, standing.stand.id = 1, standing.atStand = c.atStand;
        const LiveAc& coming = active(2, c.coming, at(1.01, 0));
        EXPECT_EQ(standFreeOfLive(1, "G1", coming), c.free) << c.name;
        EXPECT_EQ(leaving(1), c.free) << c.name;
        if (*c.log) {
            EXPECT_TRUE(log.contains(c.log)) << c.name;
        }
    }

    // Beside it, 30 m apart: two B739s (17 m half span each) would touch.
    live::reset();
    LiveAc& beside = active(1, "DAL2", at(1, 30 / 1852.0));
    beside.phase = Phase::Parked, beside.stand.id = 2;
    const LiveAc& coming = active(2, "DAL1", at(1.01, 0));
    EXPECT_FALSE(clearAdjacent(1, coming, false));
    EXPECT_FALSE(leaving(1));
    EXPECT_TRUE(clearAdjacent(1, coming, true));
    EXPECT_TRUE(leaving(1));
    EXPECT_TRUE(log.contains("DAL2     removed by parking DAL1 at adjacent and possibly colliding stand G1"));
}

TEST_F(ConflictTest, StaticsThatDoubleALiveAircraftOrCrowdTheStandsGo) {
    twoStands();
    auto& P = parking::gParking;
    const auto standing = [&](std::uint32_t stand, std::string reg, std::string cs) {
        parking::StaticAc a;
        a.hexid = static_cast<std::uint32_t>(P.statics.size() + 1);
        a.objectId = 500 + a.hexid, a.state = 2, a.stand = stand;
        a.reg = std::move(reg), a.cs = std::move(cs), a.type = refdata::modelId("B739");
        a.latitude = af::gPark.stands[stand - 1].latitude,
        a.longitude = af::gPark.stands[stand - 1].longitude;
        P.statics.push_back(a);
    };
    // The live aircraft's own registration, and one made up from its callsign.
    for (const char* reg : {"N1DN", "DAL1*"}) {
        P.statics.clear();
        live::reset();
        standing(2, reg, "DAL1");
        LiveAc& ac = active(1, "DAL1", at(3, 0));
        ac.registration = "N1DN";
        duplicatesSweep();
        duplicatesSweep();
        EXPECT_EQ(P.removals, std::vector<std::uint32_t>{501}) << reg << ": removed once";
        P.removals.clear();
    }

    // More parked than allowed: the longest parked live one, then the oldest static.
    P.statics.clear();
    live::reset();
    params::gParams.MAX_PARK_SEL = 2;
    standing(2, "N7DN", "DAL7");
    LiveAc& first = active(1, "DAL1", at(1, 0));
    first.phase = Phase::Parked, first.parkedWallClock = 100;
    LiveAc& second = active(2, "DAL2", at(1, 1));
    second.phase = Phase::Parked, second.parkedWallClock = 200;
    checkMaxParked(true);
    EXPECT_TRUE(leaving(1));
    EXPECT_FALSE(leaving(2));
    EXPECT_EQ(P.removals, std::vector<std::uint32_t>{501});
    EXPECT_TRUE(log.contains("DAL1 live max park exceeded, removed"));
}

} // namespace
} // namespace orv::live
