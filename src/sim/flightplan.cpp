// Flight plans: a two-airport plan per live aircraft, written to orig_dest and handed to the
// simulator by path, so that it shows where the aircraft comes from and goes.
#include <fmt/format.h>

#include "core/core.h"
#include "sim/sim.h"

namespace orv::sim {

namespace {
fs::path planFolder() {
    return core::gPaths.dataFolder / "orig_dest";
}
} // namespace

bool createFlightPlanFolder() {
    const fs::path folder = planFolder();
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) core::log(fmt::format("createFlightPlanFolder: {}", ec.message()));
    const bool exists = fs::exists(folder, ec);
    if (ec) throw fs::filesystem_error("exists", folder, ec);
    return exists;
}

fs::path planPath(std::uint32_t hexid) {
    return planFolder() / fmt::format("{}.pln", hexid);
}

bool writePlan(const fs::path& path, const PlanAircraft& a) {
    const bool ifr = a.category >= 1 && a.category <= 3;
    const auto text = fmt::format("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                  "<SimBase.Document Type=\"AceXML\" version=\"4,3\">\n"
                                  "<FlightPlan.FlightPlan>\n"
                                  "<FPType>{}</FPType>\n"
                                  "<DepartureID>{}</DepartureID>\n"
                                  "<DestinationID>{}</DestinationID>\n"
                                  "</FlightPlan.FlightPlan>\n"
                                  "</SimBase.Document>\n\n",
                                  ifr ? "IFR" : "VFR", a.origin, a.destination);
    return core::writeText(text, path, false);
}

void loadPlan(const PlanAircraft& a) {
    if (a.origin.empty() || a.destination.empty()) return;
    fs::path path = planPath(a.hexid);
    if (!writePlan(path, a)) path.clear();
    if (path.empty()) {
        core::log(fmt::format("{} creating a flight plan failed", a.name));
        return;
    }
    if (!msfs2020Selected()) return; // MSFS 2024 gets the file but no plan on the aircraft
    // Paths are UTF-8 on this platform, which is the narrow text the simulator takes.
    if (!setFlightPlan(a.objectId, path.string()))
        core::log(fmt::format("{} setting the flight plan failed", a.name));
}

std::string removeFlightPlanFolder() {
    std::error_code ec;
    fs::remove_all(planFolder(), ec);
    return ec ? ec.message() : std::string{};
}

} // namespace orv::sim
