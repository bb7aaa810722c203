// The record of a live aircraft: its constants by category, its two state fields and names.
#include <fmt/format.h>

#include "core/core.h"
#include "core/geo.h"
#include "live/live.h"

namespace orv::live {

namespace {

const CategoryData kCategories[] = {
    {"Light", 90, 0.5, 5, 0.15 * core::kRadPerDeg, -9 * core::kRadPerDeg, -15 * core::kRadPerDeg, 250, 250,
     100, 200, 0.6981, 0.000611, 0.000175},
    {"Buzjets", 110, 0.75, 4.5, 0.1 * core::kRadPerDeg, -8 * core::kRadPerDeg, -18 * core::kRadPerDeg, 300,
     300, 200, 250, 0.6109, 0.000480, 0.000148},
    {"Large", 140, 0.6, 4, 0.07 * core::kRadPerDeg, -6 * core::kRadPerDeg, -16.5 * core::kRadPerDeg, 400, 350,
     200, 300, 0.5236, 0.000349, 0.000131},
    {"Heavy", 150, 0.5, 3, 0.05 * core::kRadPerDeg, -5 * core::kRadPerDeg, -12.5 * core::kRadPerDeg, 450, 450,
     250, 400, 0.3491, 0.000262, 0.0000873},
    {"HighPerf", 220, 1.0, 4.5, 0.1 * core::kRadPerDeg, -6 * core::kRadPerDeg, -20 * core::kRadPerDeg, 150,
     150, 100, 200, 1.5708, 0.001745, 0.000524},
    {"Rotorcraft", 0, 0.75, 5, 0.2 * core::kRadPerDeg, -20 * core::kRadPerDeg, -30 * core::kRadPerDeg, 100,
     100, 100, 100, 1.3090, 0.001047, 0.000524},
};

constexpr std::string_view kPhases[] = {"pushing_back", "pushed_back", "taxi",   "take_off",
                                        "flying",       "parking",     "parked", "birth"};
constexpr std::string_view kSimStates[] = {"buffer", "adding2sim", "active", "liveryrespawn",
                                           "removingfromsim"};

} // namespace

const CategoryData& categoryData(refdata::Category c) noexcept {
    const auto i = static_cast<std::size_t>(c);
    return kCategories[i < std::size(kCategories) ? i : 0];
}

LiveAc makeLiveAc(const AcIdentity& identity, std::uint32_t hexid, std::mt19937& rng) {
    LiveAc ac;
    static_cast<AcIdentity&>(ac) = identity;
    ac.hexid = hexid;
    ac.category = refdata::category(identity.modelCode);
    const auto& c = categoryData(ac.category);
    ac.halfSize = refdata::halfSpan(identity.modelCode);
    // One random sign for both: an aircraft that rotates a little steeper also climbs steeper.
    const double sign = std::uniform_int_distribution<int>(0, 1)(rng) ? 1.0 : -1.0;
    ac.rotatePitch = c.rotatePitch * (1.0 + sign * 0.025);
    ac.climbPitch = c.climbPitch * (1.0 + sign * 0.05);
    ac.turnRate = ac.currentTurnRate = c.turnRate;
    ac.maxClimbStep = c.maxClimbStep;
    ac.standSpeed = c.standSpeed;
    // Airliners and business jets reverse on the roll-out; light aircraft and rotorcraft can't.
    ac.reverseThrust =
        ac.category != refdata::Category::Light && ac.category != refdata::Category::Rotorcraft;
    ac.flareTicks = c.flareTicks, ac.derotateTicks = c.derotateTicks;
    ac.rotateTicks = c.rotateTicks, ac.liftoffTicks = c.liftoffTicks;
    if (!identity.registration.empty())
        if (const auto rec = refdata::dbaseRecordOf(identity.registration)) ac.isCargo = rec->cargo;
    return ac;
}

void takeStaticData(LiveAc& ac, double cgHeightFt, double staticPitch) {
    if (cgHeightFt >= 1.0 && cgHeightFt <= 35.0) ac.cgHeight = cgHeightFt;
    ac.groundPitch = (staticPitch > -0.0174533 && staticPitch <= 0.0436332) ? staticPitch : 0.0122173;
}

void setPhase(LiveAc& ac, Phase to) {
    ac.previousPhase = ac.phase;
    ac.phase = to;
}

bool simStateMoveAllowed(SimState from, SimState to) noexcept {
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

bool setSimState(LiveAc& ac, SimState to) {
    if (!simStateMoveAllowed(ac.simState, to)) {
        core::log(fmt::format("{} simState {} -> {} refused", describeAc(ac), simStateName(ac.simState),
                              simStateName(to)));
        return false;
    }
    ac.simState = to;
    return true;
}

std::string_view phaseName(Phase p) noexcept {
    const auto i = static_cast<std::size_t>(p);
    return i < std::size(kPhases) ? kPhases[i] : "?";
}
std::string_view simStateName(SimState s) noexcept {
    const auto i = static_cast<std::size_t>(s);
    return i < std::size(kSimStates) ? kSimStates[i] : "?";
}
std::string_view categoryName(refdata::Category c) noexcept {
    return categoryData(c).name;
}

std::string acHeader(const AcIdentity& ac) {
    return fmt::format("{} {:8} {}", fmt::format("{:3}->{:3}", ac.origin.view(), ac.destination.view()),
                       ac.callsign, ac.registration);
}

void describeInto(const AcIdentity& ac, std::span<char> out) noexcept {
    if (out.empty()) return;
    const auto r = fmt::format_to_n(out.data(), out.size() - 1, "{:3}->{:3} {:8} {} {:3} {:4}",
                                    ac.origin.view(), ac.destination.view(), ac.callsign, ac.registration,
                                    refdata::airlineCode(ac.airlineCode), refdata::modelCode(ac.modelCode));
    out[std::min(r.size, out.size() - 1)] = '\0';
}

std::string describeAc(const AcIdentity& ac) {
    return fmt::format(
        "{} {}", acHeader(ac),
        fmt::format("{:3} {:4}", refdata::airlineCode(ac.airlineCode), refdata::modelCode(ac.modelCode)));
}

bool callsignOk(const AcIdentity& ac) noexcept {
    return !ac.callsign.empty() && ac.callsign != "@@@@@@@@" && ac.callsign.size() <= 8;
}

} // namespace orv::live
