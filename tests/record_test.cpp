// The live aircraft record: constants by category, the state tables, and the texts of the log.
#include <set>

#include <gtest/gtest.h>

#include "live/live.h"
#include "support.h"

namespace orv::live {
namespace {

class RecordTest : public testing::Test {
  protected:
    void SetUp() override { gf_loadDbase(test::shippedCopy("dbase.enc", dir.path())); }
    static AcIdentity identity(const char* airline, const char* model, const char* callsign,
                               const char* reg) {
        AcIdentity id;
        id.airlineCode = gf_airlineId(airline);
        id.modelCode = gf_modelId(model);
        id.callsign = callsign;
        id.registration = reg;
        return id;
    }
    test::TempDir dir;
};

TEST_F(RecordTest, ConstantsComeFromTheCategory) {
    struct Case {
        const char* model;
        Category category;
        double rotatePitchDeg, climbPitchDeg, turnRateDeg;
        std::int32_t flare;
    };
    const Case cases[] = {
        {"B738", Category::Large, -6, -16.5, 0.07, 400},
        {"B77W", Category::Heavy, -5, -12.5, 0.05, 450},
        {"C172", Category::Light, -9, -15, 0.15, 250},
    };
    constexpr double kDeg = 3.14159265358979323846 / 180.0;
    std::mt19937 rng(3);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.model);
        std::set<bool> steeper;
        for (int i = 0; i < 40; ++i) {
            const auto ac = gf_makeLiveAc(identity("DAL", c.model, "DAL1", ""), 10001 + i, rng);
            EXPECT_EQ(ac.category, c.category);
            EXPECT_EQ(ac.flareTicks, c.flare);
            EXPECT_NEAR(ac.turnRate, c.turnRateDeg * kDeg, 1e-12);
            const double r = ac.rotatePitch / (c.rotatePitchDeg * kDeg),
                         k = ac.climbPitch / (c.climbPitchDeg * kDeg);
            // 2.5 % and 5 % either way, with one sign for both.
            EXPECT_NEAR(std::fabs(r - 1.0), 0.025, 1e-9);
            EXPECT_NEAR(k - 1.0, (r - 1.0) * 2.0, 1e-9);
            steeper.insert(r > 1.0);
            EXPECT_EQ(ac.throttleIndex, 5) << "unset, so the first throttle set goes out";
            EXPECT_EQ(ac.flapsIndex, 4);
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
        gf_takeStaticData(ac, c.cg, c.pitch);
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
            LiveAc ac = gf_makeLiveAc(identity("KLM", "B738", "KLM1", "PH-BXA"), 10002, rng);
            ac.simState = static_cast<SimState>(f);
            const bool ok = allowed.contains({static_cast<SimState>(f), static_cast<SimState>(t)});
            EXPECT_EQ(gf_setSimState(ac, static_cast<SimState>(t)), ok) << f << "->" << t;
            EXPECT_EQ(ac.simState, ok ? static_cast<SimState>(t) : static_cast<SimState>(f));
        }
    EXPECT_TRUE(log.contains("KLM1     PH-BXA KLM B738 simState removingfromsim -> buffer refused"));
    LiveAc ac;
    gf_setPhase(ac, Phase::Flying);
    gf_setPhase(ac, Phase::Taxi);
    EXPECT_EQ(ac.previousPhase, Phase::Flying);
}

TEST_F(RecordTest, TextsForTheLog) {
    auto id = identity("DAL", "B739", "DAL1812", "N899DN");
    id.origin = IataCode("MSP");
    id.destination = IataCode("ATL");
    EXPECT_EQ(lf_describeAc(id), "MSP->ATL DAL1812  N899DN DAL B739");
    EXPECT_EQ(lf_acHeader(identity("", "", "", "")), "   ->             ");
    EXPECT_EQ(lf_phaseName(Phase::PushingBack), "pushing_back");
    EXPECT_EQ(lf_phaseName(Phase::Birth), "birth");
    EXPECT_EQ(lf_simStateName(SimState::LiveryRespawn), "liveryrespawn");
    EXPECT_EQ(lf_categoryName(Category::Rotorcraft), "Rotorcraft");
    struct Case {
        const char* callsign;
        bool ok;
    };
    for (const auto& c : {Case{"DAL1812", true}, Case{"", false}, Case{"@@@@@@@@", false},
                          Case{"ABCDEFGH", true}, Case{"ABCDEFGHI", false}})
        EXPECT_EQ(gf_callsignOk(identity("DAL", "B739", c.callsign, "")), c.ok) << c.callsign;
}

} // namespace
} // namespace orv::live
