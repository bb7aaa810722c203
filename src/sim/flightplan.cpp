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

bool isLoopback(std::string_view host) {
    return host.empty() || host == "localhost" || host == "::1" || host.starts_with("127.");
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

// Written and read by the worker only: the reason plans are not sent, said once per run.
bool noPlansSaid = false;
} // namespace

std::optional<std::string> planPathForSimulator(const fs::path& local) {
    const std::string& mapped = core::gOptions.planFolderForSim;
    if (!mapped.empty()) {
        const bool slash = mapped.ends_with('\\') || mapped.ends_with('/');
        return mapped + (slash ? "" : "\\") + local.filename().string();
    }
    // The simulator runs here under Wine or Proton, or (found through its SimConnect.xml) is here.
    if (isLoopback(core::gOptions.simHost)) return windowsPathOf(local);
    if (!noPlansSaid) {
        noPlansSaid = true;
        core::log(
            fmt::format("Live aircraft get no flight plans: the simulator at {} cannot open files of this "
                        "computer. Share the folder {} and give its path as that PC sees it with "
                        "--plan-folder-as",
                        core::gOptions.simHost, planFolder().string()));
    }
    return std::nullopt;
}

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

void loadPlan(const PlanAircraft& a) {
    if (a.origin.empty() || a.destination.empty()) return;
    fs::path path = planPath(a.hexid);
    if (!writePlan(path, a)) path.clear();
    if (path.empty()) {
        core::log(fmt::format("{} creating a flight plan failed", a.name));
        return;
    }
    if (!msfs2020Selected()) return; // MSFS 2024 gets the file but no plan on the aircraft
    const auto forSim = planPathForSimulator(path);
    if (forSim && !setFlightPlan(a.objectId, *forSim))
        core::log(fmt::format("{} setting the flight plan failed", a.name));
}

std::string removeFlightPlanFolder() {
    noPlansSaid = false;
    std::error_code ec;
    fs::remove_all(planFolder(), ec);
    return ec ? ec.message() : std::string{};
}

} // namespace orv::sim
