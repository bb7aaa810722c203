// Where the simulator keeps its packages. MSFS writes the path in UserCfg.opt, which lies in a
// different place for each way the simulator was bought; on Linux these places are inside the
// Proton prefix that Steam made for the simulator, unless --appdata/--localappdata say otherwise.
#include <charconv>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "params/params.h"
#include "platform/platform.h"
#include "sim/sim.h"

namespace orv::sim {

namespace {

// A path cut where "\Community" or "/Community" begins.
std::string withoutCommunity(std::string text) {
    for (const char* community : {"\\Community", "/Community"})
        if (const auto at = text.find(community); at != std::string::npos) text.resize(at);
    return text;
}

std::optional<KnownFolders> configured; // set by the process entry before the worker starts

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

params::StringParameter& stringParameter(const char* name) {
    return params::parameter<params::StringParameter>(name);
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

std::string windowsPathOf(const fs::path& path) {
    const fs::path absolute = fs::absolute(path).lexically_normal();
    std::string text;
    for (fs::path p = knownFolders().appData; !p.empty() && p != p.root_path(); p = p.parent_path()) {
        if (p.filename() != "drive_c") continue;
        const fs::path inside = absolute.lexically_relative(p);
        if (!inside.empty() && *inside.begin() != "..") text = "C:/" + inside.generic_string();
        break;
    }
    if (text.empty()) text = "Z:" + absolute.generic_string(); // Wine's drive for the whole file system
    for (auto& c : text)
        if (c == '/') c = '\\';
    return text;
}

KnownFolders knownFolders() {
    if (configured) return *configured;
    KnownFolders k;
    if (!core::gOptions.appData.empty()) k.appData = core::gOptions.appData;
    if (!core::gOptions.localAppData.empty()) k.localAppData = core::gOptions.localAppData;
    const fs::path user = platform::localDataFolder() / "Steam" / "steamapps" / "compatdata" /
                          simNames().steamAppId / "pfx" / "drive_c" / "users" / "steamuser" / "AppData";
    if (k.appData.empty()) k.appData = user / "Roaming";
    if (k.localAppData.empty()) k.localAppData = user / "Local";
    return k;
}

void setKnownFolders(std::optional<KnownFolders> folders) {
    configured = std::move(folders);
}

fs::path findUserCfg(bool logMissing) {
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
        if (logMissing) core::log(fmt::format("MSFS detection, not found: {}", p.string()));
    }
    return {};
}

namespace {

constexpr const char* kCommBlock = "<SimConnect.Comm><Descr>Static IP4 port</Descr><Protocol>IPv4</Protocol>"
                                   "<Scope>local</Scope><Address>127.0.0.1</Address><Port>500</Port>"
                                   "</SimConnect.Comm>";

std::string childText(pugi::xml_node n, const char* name) {
    return core::trim(n.child_value(name));
}

} // namespace

std::variant<SimEndpoint, std::string> readSimConnectXml(const fs::path& file) {
    constexpr std::uintmax_t kMaxBytes = 1 << 20; // a real one is a few hundred bytes
    std::error_code ec;
    if (!fs::exists(file, ec))
        return fmt::format("No {} found: create it with <SimBase.Document Type=\"SimConnect\" "
                           "version=\"1,0\">{}</SimBase.Document> and restart the simulator, or start {} "
                           "with --sim HOST:PORT",
                           file.string(), kCommBlock, core::kAppName);
    const auto size = fs::file_size(file, ec);
    if (ec || size > kMaxBytes) return fmt::format("{} is not readable or too large", file.string());
    pugi::xml_document doc;
    if (const auto r = doc.load_file(file.c_str()); !r)
        return fmt::format("{} is not valid XML ({} at byte {}): fix it, or start {} with --sim HOST:PORT",
                           file.string(), r.description(), r.offset, core::kAppName);
    for (const auto comm : doc.document_element().children("SimConnect.Comm")) {
        if (!core::iequals(childText(comm, "Protocol"), "IPv4")) continue;
        if (core::iequals(childText(comm, "Disabled"), "true")) continue;
        int port = 0;
        const std::string portText = childText(comm, "Port");
        const auto [end, err] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
        if (err != std::errc{} || end != portText.data() + portText.size() || port < 1 || port > 65535)
            continue;
        std::string host = childText(comm, "Address");
        // An entry for every address is reached on this machine's own.
        if (host.empty() || host == "0.0.0.0") host = "127.0.0.1";
        return SimEndpoint{host, static_cast<std::uint16_t>(port)};
    }
    return fmt::format("{} has no IPv4 SimConnect.Comm entry: add {} inside <SimBase.Document> and restart "
                       "the simulator, or start {} with --sim HOST:PORT",
                       file.string(), kCommBlock, core::kAppName);
}

std::variant<SimEndpoint, std::string> simConnectEndpoint() {
    if (!core::gOptions.simHost.empty()) return SimEndpoint{core::gOptions.simHost, core::gOptions.simPort};
    const fs::path cfg = findUserCfg(false);
    if (cfg.empty())
        return fmt::format(
            "The simulator's UserCfg.opt was not found, so neither was its SimConnect.xml: start "
            "{} with --sim HOST:PORT",
            core::kAppName);
    return readSimConnectXml(cfg.parent_path() / "SimConnect.xml");
}

fs::path steamPackagesPath() {
    const fs::path p = knownFolders().appData / simNames().steamFolder / "Packages";
    if (!isDirectory(p)) return {};
    core::log(fmt::format("Steam packages: {}", p.string()));
    return p;
}

fs::path installedPackagesPath() {
    const fs::path cfg = findUserCfg();
    if (cfg.empty()) {
        core::log("No UserCfg.opt found?");
        return {};
    }
    std::vector<std::string> lines;
    lines.reserve(32);
    if (!core::readLines(core::detectEncoding(cfg), cfg, lines)) return {};
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
        core::log(fmt::format("UserCfg.opt: InstalledPackagesPath={}", path.string()));
        return path;
    }
    core::log("UserCfg.opt: InstalledPackagesPath=???");
    return {};
}

bool isPackagesFolder(const fs::path& path) {
    if (path.empty()) return false;
    return isDirectory(path) && isDirectory(path / "Community") && isDirectory(path / simNames().official);
}

fs::path detectInstallPath() {
    fs::path found = steamPackagesPath();
    if (!isPackagesFolder(found)) {
        found = installedPackagesPath();
        if (!isPackagesFolder(found)) return {};
    }
    params::set(stringParameter(simNames().pathParameter), found.string());
    params::set(stringParameter("ALL_INSTALL_PATH"), found.string());
    return found;
}

fs::path communityPath() {
    return fs::path(stringParameter(simNames().pathParameter).value) / "Community";
}

fs::path officialPath() {
    return fs::path(stringParameter(simNames().pathParameter).value) / simNames().official;
}

std::string installPath() {
    auto& stored = stringParameter(simNames().pathParameter);
    // A path stored with its Community folder (as a user types it) means the folder above.
    const std::string cut = withoutCommunity(stored.value);
    if (cut != stored.value && isPackagesFolder(cut)) params::set(stored, cut);
    if (!stored.value.empty() && isPackagesFolder(stored.value)) return stored.value;
    return detectInstallPath().string();
}

std::string typedInstallPath(const std::string& typed) {
    const std::string text = withoutCommunity(typed);
    const fs::path path = text;
    std::error_code ec;
    const bool exists = fs::exists(path, ec);
    if (ec) {
        const auto why = fmt::format("Cannot access install path '{}': {}", text, ec.message());
        core::log(why);
        return why;
    }
    if (!exists) return fmt::format("This install path does not exist: {}", text);
    if (!isDirectory(path / "Community")) return "This path exists but is not a path to Community ...";
    if (!isPackagesFolder(path)) return "This path does not contain a valid Community folder (unexpected).";
    params::set(stringParameter(simNames().pathParameter), path.string());
    params::set(stringParameter("ALL_INSTALL_PATH"), path.string());
    core::log(fmt::format("Community path found, {} will restart ...", core::kAppName));
    core::requestStop(core::ExitReason::NewSettings, 3);
    return {};
}

void switchSimulator() {
    auto& choice = stringParameter("SIM_CHOICE");
    params::set(choice, msfs2020Selected() ? "MSFS 2024" : "MSFS 2020");
    std::error_code ec;
    fs::remove(core::gPaths.programFolder / "output" / params::names::kLiveriesScanned, ec);
    for (const char* name : {"SCAN_AIRPORTS", "SCAN_LIVERIES"})
        params::set(params::parameter<params::BoolParameter>(name), true);
    core::message(fmt::format("Switching MSFS version in {}", core::kAppName), true);
    params::set(stringParameter("ALL_INSTALL_PATH"), "");
    if (!msfs2020Selected()) params::set(stringParameter("MYSIMADDON24_VERSION"), "");
    core::requestStop(core::ExitReason::NewSettings, 3);
}

} // namespace orv::sim
