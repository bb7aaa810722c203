// Bringing stored settings and files in line with the running version.
#include <charconv>
#include <tuple>

#include <fmt/format.h>

#include "core/core.h"
#include "params/params.h"
#include "run/run.h"

namespace orv::run {

namespace {

std::string versionText(const core::VersionData& v) {
    return fmt::format("{}.{}.{}", v.major, v.minor, v.patch);
}

// "a.b.c"; anything else reads as 0.0.0, which is older than every version that can be converted.
core::VersionData parseVersion(std::string_view text) {
    core::VersionData v{0, 0, 0};
    int* parts[] = {&v.major, &v.minor, &v.patch};
    const char* p = text.data();
    const char* end = text.data() + text.size();
    for (int i = 0; i < 3; ++i) {
        const auto r = std::from_chars(p, end, *parts[i]);
        if (r.ec != std::errc{} || (i < 2 && (r.ptr == end || *r.ptr != '.'))) return {0, 0, 0};
        p = r.ptr + (i < 2 ? 1 : 0);
    }
    return v;
}

bool older(const core::VersionData& a, const core::VersionData& b) {
    return std::tie(a.major, a.minor, a.patch) < std::tie(b.major, b.minor, b.patch);
}

params::StringParameter& programVersion() {
    return *params::parameterLists().programVersion;
}

void forceScan(const fs::path& file, std::string_view name) {
    auto& p = params::parameter<params::CheckBoxParameter>(name);
    params::set(p, true, params::Save::no);
    params::updateParameter(file, params::parameterLists(), p);
}

void removeIfThere(const fs::path& p) {
    if (fs::exists(p)) fs::remove_all(p);
}

} // namespace

bool versionUpdate(const fs::path& file) {
    auto& stored = programVersion();
    const std::string running = versionText(core::kVersion);
    if (stored.value == stored.defaultValue) {
        stored.value = running;
        params::updateParameter(file, params::parameterLists(), stored);
        return false;
    }
    const core::VersionData old = parseVersion(stored.value);
    const std::string oldText = stored.value;
    if (oldText != running) {
        stored.value = running;
        params::updateParameter(file, params::parameterLists(), stored);
    }
    if (!older(old, core::kVersion)) return false; // the same version, or a downgrade
    core::log(fmt::format("This is a version update from {} -> {}", oldText, running));
    if (older(old, core::VersionData{11, 0, 2})) return true;

    forceScan(file, "SCAN_LIVERIES");
    const fs::path& home = core::gPaths.programFolder;
    removeIfThere(home / "output" / "LiveriesScanned.xml");
    removeIfThere(home / "Callsign2ObjectId.txt");
    try {
        // Plain XML files of the earlier layout lay in the program folder itself.
        for (const auto& e : fs::directory_iterator(home))
            if (e.is_regular_file() && e.path().extension() == ".xml") fs::remove(e.path());
    } catch (const std::exception& e) {
        core::log(fmt::format("{} exception: {}", "versionUpdate", e.what()));
    }
    removeIfThere(home / "input" / "airports_msfs.xml");
    removeIfThere(home / "input" / "airports_msfs_names.xml");
    removeIfThere(home / "new_version");
    return false;
}

void versionStep(const fs::path& file) {
    params::checkParameterFile(file);
    if (params::loadParameters(file, params::parameterLists())) {
        forceScan(file, "SCAN_LIVERIES");
        forceScan(file, "SCAN_AIRPORTS");
        return;
    }
    if (!versionUpdate(file)) return;
    core::log("\nYour previous version was too old to convert the old text box parameters to the newdropbox "
              "values.");
    core::log(fmt::format("{} re-starts with default parameter values ...\n", core::kAppName));
    std::error_code ec;
    fs::remove(file, ec);
    params::saveParameters(file, params::parameterLists(), true);
}

} // namespace orv::run
