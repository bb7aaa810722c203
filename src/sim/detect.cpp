// Where the simulator keeps its packages. MSFS writes the path in UserCfg.opt, which lies in a
// different place for each way the simulator was bought; on Linux these places are inside the
// Proton prefix that Steam made for the simulator, unless --appdata/--localappdata say otherwise.
#include <fmt/format.h>

#include "app/app.h"
#include "params/params.h"
#include "platform/platform.h"
#include "sim/sim.h"

namespace orv::sim {

namespace {

std::optional<KnownFolders> configured;

struct SimNames {
    const char* storePackage;
    const char* steamFolder;
    const char* official;
    const char* steamAppId;
    const char* pathParameter;
};
SimNames simNames() {
    if (msfs2020Selected())
        return {"Microsoft.FlightSimulator_8wekyb3d8bbwe", "Microsoft Flight Simulator", "Official",
                "1250410", "MSFS_INSTALL_PATH"};
    return {"Microsoft.Limitless_8wekyb3d8bbwe", "Microsoft Flight Simulator 2024", "Official2024", "2537590",
            "MSFS_2024_INSTALL_PATH"};
}

StringParameter& stringParameter(const char* name) {
    auto* p = dynamic_cast<StringParameter*>(gf_findParameter(name));
    if (!p) throw std::logic_error(fmt::format("no parameter {}", name));
    return *p;
}

void saveAll() {
    saveParameters(gPaths.dataFolder / names::kParameters, gf_parameterLists(), false);
}

// A Windows path from UserCfg.opt ("D:\MSFS\Packages") as this machine sees it: drive C is the
// prefix's drive_c, other drives its dosdevices links.
fs::path fromWindowsPath(std::string text) {
    for (auto& c : text)
        if (c == '\\') c = '/';
    if (text.size() < 2 || text[1] != ':' || !std::isalpha(static_cast<unsigned char>(text[0]))) return text;
    const std::string rest = text.size() > 3 ? text.substr(3) : std::string();
    fs::path prefix;
    for (fs::path p = knownFolders().appData; !p.empty() && p != p.root_path(); p = p.parent_path())
        if (p.filename() == "drive_c") {
            prefix = p.parent_path();
            break;
        }
    if (prefix.empty()) return text;
    const char drive = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    if (drive == 'c') return prefix / "drive_c" / rest;
    return prefix / "dosdevices" / fmt::format("{}:", drive) / rest;
}

bool isDirectory(const fs::path& p) {
    std::error_code ec;
    return fs::is_directory(p, ec);
}

} // namespace

KnownFolders knownFolders() {
    if (configured) return *configured;
    KnownFolders k;
    if (!gOptions.appData.empty()) k.appData = gOptions.appData;
    if (!gOptions.localAppData.empty()) k.localAppData = gOptions.localAppData;
    const fs::path user = platform::localDataFolder() / "Steam" / "steamapps" / "compatdata" /
                          simNames().steamAppId / "pfx" / "drive_c" / "users" / "steamuser" / "AppData";
    if (k.appData.empty()) k.appData = user / "Roaming";
    if (k.localAppData.empty()) k.localAppData = user / "Local";
    return k;
}

void setKnownFolders(std::optional<KnownFolders> folders) {
    configured = std::move(folders);
}

fs::path gf_findUserCfg() {
    const auto k = knownFolders();
    const auto n = simNames();
    const fs::path places[] = {
        k.localAppData / "Packages" / n.storePackage / "LocalCache" / "UserCfg.opt",
        k.appData / n.steamFolder / "UserCfg.opt",
        k.localAppData / "Packages" / "Microsoft.FlightDashboard_8wekyb3d8bbwe" / "LocalCache" /
            "UserCfg.opt",
        k.localAppData / "MSFSPackages" / "UserCfg.opt",
    };
    for (const auto& p : places) {
        std::error_code ec;
        if (fs::exists(p, ec)) return p;
        gf_log(fmt::format("MSFS detection, not found: {}", p.string()));
    }
    return {};
}

fs::path gf_steamPackagesPath() {
    const fs::path p = knownFolders().appData / simNames().steamFolder / "Packages";
    if (!isDirectory(p)) return {};
    gf_log(fmt::format("Steam packages: {}", p.string()));
    return p;
}

fs::path gf_installedPackagesPath() {
    const fs::path cfg = gf_findUserCfg();
    if (cfg.empty()) {
        gf_log("No UserCfg.opt found?");
        return {};
    }
    std::vector<std::string> lines;
    lines.reserve(32);
    if (!gf_readLines(gf_detectEncoding(cfg), cfg, lines)) return {};
    std::string value;
    for (const auto& line : lines) {
        if (line.find("InstalledPackagesPath") == std::string::npos) continue;
        const auto open = line.find('"');
        const auto close = open == std::string::npos ? open : line.find('"', open + 1);
        if (close != std::string::npos) value = line.substr(open + 1, close - open - 1);
        break;
    }
    const fs::path path = value.empty() ? fs::path() : fromWindowsPath(value);
    std::error_code ec;
    if (!path.empty() && fs::exists(path, ec)) {
        gf_log(fmt::format("UserCfg.opt: InstalledPackagesPath={}", path.string()));
        return path;
    }
    gf_log("UserCfg.opt: InstalledPackagesPath=???");
    return {};
}

bool gf_isPackagesFolder(const fs::path& path) {
    if (path.empty()) return false;
    return isDirectory(path) && isDirectory(path / "Community") && isDirectory(path / simNames().official);
}

fs::path gf_detectInstallPath() {
    fs::path found = gf_steamPackagesPath();
    if (!gf_isPackagesFolder(found)) {
        found = gf_installedPackagesPath();
        if (!gf_isPackagesFolder(found)) return {};
    }
    stringParameter(simNames().pathParameter).value = found.string();
    stringParameter("ALL_INSTALL_PATH").value = found.string();
    gParams.MSFS_PATH = found.string();
    saveAll();
    return found;
}

fs::path gf_communityPath() {
    return fs::path(stringParameter(simNames().pathParameter).value) / "Community";
}

fs::path gf_officialPath() {
    return fs::path(stringParameter(simNames().pathParameter).value) / simNames().official;
}

std::string installPath() {
    auto& stored = stringParameter(simNames().pathParameter);
    if (!stored.value.empty() && gf_isPackagesFolder(stored.value)) {
        gParams.MSFS_PATH = stored.value;
        return stored.value;
    }
    return gf_detectInstallPath().string();
}

std::string gf_typedInstallPath(const std::string& typed) {
    std::string text = typed;
    for (const char* community : {"\\Community", "/Community"})
        if (const auto at = text.find(community); at != std::string::npos) text.resize(at);
    const fs::path path = text;
    std::error_code ec;
    const bool exists = fs::exists(path, ec);
    if (ec) {
        const auto why = fmt::format("Cannot access install path '{}': {}", text, ec.message());
        gf_log(why);
        return why;
    }
    if (!exists) return fmt::format("This install path does not exist: {}", text);
    if (!isDirectory(path / "Community")) return "This path exists but is not a path to Community ...";
    if (!gf_isPackagesFolder(path))
        return "This path does not contain a valid Community folder (unexpected).";
    stringParameter(simNames().pathParameter).value = path.string();
    stringParameter("ALL_INSTALL_PATH").value = path.string();
    gParams.MSFS_PATH = path.string();
    saveAll();
    gf_log(fmt::format("Community path found, {} will restart ...", kAppName));
    gf_requestStop(ExitReason::NewSettings, 3);
    return {};
}

void lf_switchSimulator() {
    auto& choice = stringParameter("SIM_CHOICE");
    choice.value = msfs2020Selected() ? "MSFS 2024" : "MSFS 2020";
    std::error_code ec;
    fs::remove(gPaths.programFolder / "output" / names::kLiveriesScanned, ec);
    for (const char* name : {"SCAN_AIRPORTS", "SCAN_LIVERIES"})
        if (auto* p = dynamic_cast<BoolParameter*>(gf_findParameter(name))) p->value = true;
    gParams.SCAN_AIRPORTS = true;
    gParams.SCAN_LIVERIES = true;
    gf_message(fmt::format("Switching MSFS version in {}", kAppName), true);
    stringParameter("ALL_INSTALL_PATH").value.clear();
    if (!msfs2020Selected()) stringParameter("MYSIMADDON24_VERSION").value.clear();
    saveAll();
    gf_requestStop(ExitReason::NewSettings, 3);
}

} // namespace orv::sim
