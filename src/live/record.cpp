// The record of a live aircraft: its constants by category, its two state fields and names.
#include <fmt/format.h>

#include "app/app.h"
#include "live/live.h"

namespace orv::live {

namespace {

constexpr double kDeg = 3.14159265358979323846 / 180.0;

const CategoryData kCategories[] = {
    {"Light", 90, 0.5, 5, 0.15 * kDeg, -9 * kDeg, -15 * kDeg, 250, 250, 100, 200, 0.6981, 0.000611, 0.000175},
    {"Buzjets", 110, 0.75, 4.5, 0.1 * kDeg, -8 * kDeg, -18 * kDeg, 300, 300, 200, 250, 0.6109, 0.000480,
     0.000148},
    {"Large", 140, 0.6, 4, 0.07 * kDeg, -6 * kDeg, -16.5 * kDeg, 400, 350, 200, 300, 0.5236, 0.000349,
     0.000131},
    {"Heavy", 150, 0.5, 3, 0.05 * kDeg, -5 * kDeg, -12.5 * kDeg, 450, 450, 250, 400, 0.3491, 0.000262,
     0.0000873},
    {"HighPerf", 220, 1.0, 4.5, 0.1 * kDeg, -6 * kDeg, -20 * kDeg, 150, 150, 100, 200, 1.5708, 0.001745,
     0.000524},
    {"Rotorcraft", 0, 0.75, 5, 0.2 * kDeg, -20 * kDeg, -30 * kDeg, 100, 100, 100, 100, 1.3090, 0.001047,
     0.000524},
};

constexpr std::string_view kPhases[] = {"pushing_back", "pushed_back", "taxi",   "take_off",
                                        "flying",       "parking",     "parked", "birth"};
constexpr std::string_view kSimStates[] = {"buffer", "adding2sim", "active", "liveryrespawn",
                                           "removingfromsim"};

} // namespace

const CategoryData& gf_categoryData(Category c) noexcept {
    const auto i = static_cast<std::size_t>(c);
    return kCategories[i < std::size(kCategories) ? i : 0];
}

LiveAc gf_makeLiveAc(const AcIdentity& identity, std::uint32_t hexid, std::mt19937& rng) {
    LiveAc ac;
    static_cast<AcIdentity&>(ac) = identity;
    ac.hexid = hexid;
    ac.category = gf_category(identity.modelCode);
    const auto& c = gf_categoryData(ac.category);
    ac.halfSize = gf_halfSpan(identity.modelCode);
    // One random sign for both: an aircraft that rotates a little steeper also climbs steeper.
    const double sign = std::uniform_int_distribution<int>(0, 1)(rng) ? 1.0 : -1.0;
    ac.rotatePitch = c.rotatePitch * (1.0 + sign * 0.025);
    ac.climbPitch = c.climbPitch * (1.0 + sign * 0.05);
    ac.turnRate = ac.currentTurnRate = c.turnRate;
    ac.maxClimbStep = c.maxClimbStep;
    ac.standSpeed = c.standSpeed;
    // Airliners and business jets reverse on the roll-out; light aircraft and rotorcraft can't.
    ac.reverseThrust = ac.category != Category::Light && ac.category != Category::Rotorcraft;
    ac.flareTicks = c.flareTicks, ac.derotateTicks = c.derotateTicks;
    ac.rotateTicks = c.rotateTicks, ac.liftoffTicks = c.liftoffTicks;
    if (!identity.registration.empty())
        if (const auto rec = gf_dbaseRecordOf(identity.registration)) ac.isCargo = rec->cargo;
    return ac;
}

void gf_takeStaticData(LiveAc& ac, double cgHeightFt, double staticPitch) {
    if (cgHeightFt >= 1.0 && cgHeightFt <= 35.0) ac.cgHeight = cgHeightFt;
    ac.groundPitch = (staticPitch > -0.0174533 && staticPitch <= 0.0436332) ? staticPitch : 0.0122173;
}

void gf_setPhase(LiveAc& ac, Phase to) {
    ac.previousPhase = ac.phase;
    ac.phase = to;
}

bool gf_simStateMoveAllowed(SimState from, SimState to) noexcept {
    switch (from) {
    case SimState::Buffer:
        return to == SimState::Adding2Sim;
    case SimState::Adding2Sim:
        return to == SimState::Active;
    case SimState::Active:
        return to == SimState::RemovingFromSim || to == SimState::LiveryRespawn;
    case SimState::LiveryRespawn:
        return to == SimState::Buffer;
    case SimState::RemovingFromSim:
        return false; // the record is erased when the object has gone
    }
    return false;
}

bool gf_setSimState(LiveAc& ac, SimState to) {
    if (!gf_simStateMoveAllowed(ac.simState, to)) {
        gf_log(fmt::format("{} simState {} -> {} refused", lf_describeAc(ac), lf_simStateName(ac.simState),
                           lf_simStateName(to)));
        return false;
    }
    ac.simState = to;
    return true;
}

std::string_view lf_phaseName(Phase p) noexcept {
    const auto i = static_cast<std::size_t>(p);
    return i < std::size(kPhases) ? kPhases[i] : "?";
}
std::string_view lf_simStateName(SimState s) noexcept {
    const auto i = static_cast<std::size_t>(s);
    return i < std::size(kSimStates) ? kSimStates[i] : "?";
}
std::string_view lf_categoryName(Category c) noexcept {
    return gf_categoryData(c).name;
}

std::string lf_acHeader(const AcIdentity& ac) {
    return fmt::format("{} {:8} {}", fmt::format("{:3}->{:3}", ac.origin.view(), ac.destination.view()),
                       ac.callsign, ac.registration);
}

std::string lf_describeAc(const AcIdentity& ac) {
    return fmt::format("{} {}", lf_acHeader(ac),
                       fmt::format("{:3} {:4}", gf_airlineCode(ac.airlineCode), gf_modelCode(ac.modelCode)));
}

bool gf_callsignOk(const AcIdentity& ac) noexcept {
    return !ac.callsign.empty() && ac.callsign != "@@@@@@@@" && ac.callsign.size() <= 8;
}

} // namespace orv::live
