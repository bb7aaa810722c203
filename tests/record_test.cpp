// The live aircraft record: constants by category, the state tables, and the texts of the log.
#include <set>

#include <gtest/gtest.h>

#include "core/geo.h"
#include "live/live.h"
#include "support.h"

namespace orv::live {
namespace {

class RecordTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(refdata::loadDbase(test::shippedCopy("dbase.enc", dir.path()))); }
    static AcIdentity identity(const char* airline, const char* model, const char* callsign,
                               const char* reg) {
        AcIdentity id;
        id.airlineCode = refdata::airlineId(airline);
        id.modelCode = refdata::modelId(model);
        id.callsign = callsign;
        id.registration = reg;
        return id;
    }
    test::TempDir dir;
};

TEST_F(RecordTest, ConstantsComeFromTheCategory) {
    struct Case {
        const char* model;
        refdata::Category category;
        double rotatePitchDeg, climbPitchDeg, turnRateDeg;
        std::int32_t flare;
    };
    const Case cases[] = {
        {"B738", refdata::Category::Large, -6, -16.5, 0.07, 400},
        {"B77W", refdata::Category::Heavy, -5, -12.5, 0.05, 450},
        {"C172", refdata::Category::Light, -9, -15, 0.15, 250},
    };
    std::mt19937 rng(3);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model);
        std::set<bool> steeper;
        for (int i = 0; i < 40; ++i) {
            const auto ac = makeLiveAc(identity("DAL", c.model, "DAL1", ""), 10001 + i, rng);
            EXPECT_EQ(ac.category, c.category);
            EXPECT_EQ(ac.flareTicks, c.flare);
            EXPECT_NEAR(ac.turnRate, c.turnRateDeg * core::kRadPerDeg, 1e-12);
            const double r = ac.rotatePitch / (c.rotatePitchDeg * core::kRadPerDeg),
                         k = ac.climbPitch / (c.climbPitchDeg * core::kRadPerDeg);
            // 2.5 % and 5 % either way, with one sign for both.
            EXPECT_NEAR(std::fabs(r - 1.0), 0.025, 1e-9);
            EXPECT_NEAR(k - 1.0, (r - 1.0) * 2.0, 1e-9);
            steeper.insert(r > 1.0);
            EXPECT_EQ(ac.controls.throttleIndex, 5) << "unset, so the first throttle set goes out";
            EXPECT_EQ(ac.controls.flapsIndex, 4);
            EXPECT_EQ(ac.phase, Phase::Birth);
            EXPECT_EQ(ac.simState, SimState::Buffer);
        }
        EXPECT_EQ(steeper.size(), 2u) << "both signs occur";
    }
}

TEST_F(RecordTest, StaticDataWithinItsLimits) {
    struct Case {
        double cg, pitch, keptCg, keptPitch;
    };
    const Case cases[] = {
        {8.5, 0.02, 8.5, 0.02},
        {0.5, 0.02, 0.0, 0.02},
        {35.0, 0.0436332, 35.0, 0.0436332},
        {36.0, 0.05, 0.0, 0.0122173},
        {12.0, -0.0174533, 12.0, 0.0122173},
        {12.0, -0.01, 12.0, -0.01},
    };
    for (const auto& c : cases) {
        LiveAc ac;
        takeStaticData(ac, c.cg, c.pitch);
        EXPECT_EQ(ac.cgHeight, c.keptCg) << c.cg;
        EXPECT_EQ(ac.groundPitch, c.keptPitch) << c.pitch;
    }
}

TEST_F(RecordTest, SimStateMovesOfTheTable) {
    const std::set<std::pair<SimState, SimState>> allowed = {
        {SimState::Buffer, SimState::Adding2Sim},      {SimState::Adding2Sim, SimState::Active},
        {SimState::Active, SimState::RemovingFromSim}, {SimState::Active, SimState::LiveryRespawn},
        {SimState::LiveryRespawn, SimState::Buffer},
    };
    test::LogCapture log;
    for (int f = 0; f < 5; ++f)
        for (int t = 0; t < 5; ++t) {
            std::mt19937 rng(1);
            LiveAc ac = makeLiveAc(identity("KLM", "B738", "KLM1", "PH-BXA"), 10002, rng);
            ac.simState = static_cast<SimState>(f);
            const bool ok = allowed.contains({static_cast<SimState>(f), static_cast<SimState>(t)});
            EXPECT_EQ(setSimState(ac, static_cast<SimState>(t)), ok) << f << "->" << t;
            EXPECT_EQ(ac.simState, ok ? static_cast<SimState>(t) : static_cast<SimState>(f));
        }
    EXPECT_TRUE(log.contains("KLM1     PH-BXA KLM B738 simState removingfromsim -> buffer refused"));
    LiveAc ac;
    setPhase(ac, Phase::Flying);
    setPhase(ac, Phase::Taxi);
    EXPECT_EQ(ac.previousPhase, Phase::Flying);
}

TEST_F(RecordTest, TextsForTheLog) {
    auto id = identity("DAL", "B739", "DAL1812", "N899DN");
    id.origin = refdata::IataCode("MSP");
    id.destination = refdata::IataCode("ATL");
    EXPECT_EQ(describeAc(id), "MSP->ATL DAL1812  N899DN DAL B739");
    EXPECT_EQ(acHeader(identity("", "", "", "")), "   ->             ");
    EXPECT_EQ(phaseName(Phase::PushingBack), "pushing_back");
    EXPECT_EQ(phaseName(Phase::Birth), "birth");
    EXPECT_EQ(simStateName(SimState::LiveryRespawn), "liveryrespawn");
    EXPECT_EQ(categoryName(refdata::Category::Rotorcraft), "Rotorcraft");
    struct Case {
        const char* callsign;
        bool ok;
    };
    for (const auto& c : {Case{"DAL1812", true}, Case{"", false}, Case{"@@@@@@@@", false},
                          Case{"ABCDEFGH", true}, Case{"ABCDEFGHI", false}})
        EXPECT_EQ(callsignOk(identity("DAL", "B739", c.callsign, "")), c.ok) << c.callsign;
}

} // namespace
} // namespace orv::live

namespace orv::live {
namespace {

// The match log's description is written into fixed room: the same text, cut when it does not fit.
TEST(Record, DescriptionInFixedRoom) {
    AcIdentity id;
    id.origin = refdata::IataCode("MSP"), id.destination = refdata::IataCode("ATL");
    id.callsign = "DAL1812", id.registration = "N899DN";
    std::array<char, 64> room{};
    describeInto(id, room);
    EXPECT_EQ(std::string(room.data()), describeAc(id));
    std::array<char, 12> small{};
    describeInto(id, small);
    EXPECT_EQ(std::string(small.data()), describeAc(id).substr(0, 11));
}

} // namespace
} // namespace orv::live
