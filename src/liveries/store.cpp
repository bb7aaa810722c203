// The livery store: LiveriesScanned.xml, the work after a scan, its reports, and the maps that
// matching reads, built once per process at start.
#include <algorithm>
#include <map>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "refdata/refdata.h"

namespace orv::liveries {

Store gStore;

namespace {

struct ReportList {
    std::mutex mutex;
    std::vector<std::string> lines;
};
std::array<ReportList, static_cast<std::size_t>(Report::Count)> reports;

struct ReportInfo {
    const char* file;
    const char* folder;
    const char* summary; // count, plural, path; empty: none
};
constexpr ReportInfo kReports[] = {
    {"InvalidAirlineCodes.txt", "errors", "{:5} invalid airline code{}, see {}"},
    {"InvalidAircraftCodes.txt", "errors", "{:5} invalid model code{}, see {}"},
    {"Fixes.txt", "errors", "{:5} fixes{}, see {}"},
    {"InvalidAircraftCfgFiles.txt", "errors", "{:5} invalid aircraft.cfg file{}, see {}"},
    {"IncompleFltsimSections.txt", "errors", "{:5} incomplete [fltsim.x] section{}, see {}"},
    {"AircraftCfgWithNoFltsimSection.txt", "info", "{:5} empty aircraft.cfg file{}, see {}"},
    {"AirlineModelConversions.txt", "info", "{:5} liveries updated with real live data from dbase{}, see {}"},
    {"InlineRegcodes.txt", "errors", "{:5} in-line regcode clash{}, see '{}'"},
    {"OfflineRegcodes.txt", "info", ""},
};

std::string plural(std::size_t n, Report which) {
    if (which == Report::Fixes || which == Report::Conversions) return ""; // the word is fixed
    if (which == Report::InlineRegcodes) return n == 1 ? "" : "es";
    return n == 1 ? "" : "s";
}

std::string summaryLine(Report which, std::size_t n) {
    const auto& info = kReports[static_cast<std::size_t>(which)];
    return fmt::format(fmt::runtime(info.summary), n, plural(n, which), reportPath(which).string());
}

// Writes one report: its lines sorted, equal lines once. False (logged) when the file fails.
bool writeReport(Report which, std::vector<std::string> lines) {
    std::sort(lines.begin(), lines.end());
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    const auto path = reportPath(which);
    std::error_code ec;
    fs::create_directories(path.parent_path(), ec);
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    if (!core::writeText(text, path, false)) {
        core::log(fmt::format("Error writing file {}: {}", path.string(), "cannot write"));
        return false;
    }
    return true;
}

bool lessLivery(const LiveryData& a, const LiveryData& b) {
    const auto aa = refdata::airlineCode(a.airline), ba = refdata::airlineCode(b.airline);
    if (aa != ba) return aa < ba;
    const auto am = refdata::modelCode(a.model), bm = refdata::modelCode(b.model);
    if (am != bm) return am < bm;
    return a.title < b.title;
}

params::BoolParameter* boolParameter(const char* name) {
    return dynamic_cast<params::BoolParameter*>(params::findParameter(name));
}

} // namespace

void Store::reset() {
    list.clear();
    index.clear();
    titles.clear();
    titleKeys.clear();
    for (auto& m : airlineTitles) m.clear();
    for (auto& m : genericTitles) m.clear();
    regcodeTitles.clear();
    specialRegcodes.clear();
    uniqueRegcodes.clear();
    specialTitles.clear();
    for (auto& v : categoryModels) v.clear();
    similarInstalled.clear();
    similarByAirline.clear();
    processed = false;
}

// ---- Reports ---------------------------------------------------------------------------------

void report(Report which, std::string line) {
    auto& r = reports[static_cast<std::size_t>(which)];
    std::lock_guard lock(r.mutex);
    r.lines.push_back(std::move(line));
}

std::vector<std::string> reportLines(Report which) {
    auto& r = reports[static_cast<std::size_t>(which)];
    std::lock_guard lock(r.mutex);
    return r.lines;
}

void clearReports() {
    for (auto& r : reports) {
        std::lock_guard lock(r.mutex);
        r.lines.clear();
    }
}

fs::path reportPath(Report which) {
    const auto& info = kReports[static_cast<std::size_t>(which)];
    return core::gPaths.programFolder / "output" / info.folder / info.file;
}

void writeScanReports() {
    std::string errors, information;
    for (std::size_t i = 0; i < static_cast<std::size_t>(Report::Count); ++i) {
        const auto which = static_cast<Report>(i);
        if (which == Report::InlineRegcodes || which == Report::OfflineRegcodes) continue; // the processing's
        const auto lines = reportLines(which);
        if (lines.empty()) continue;
        writeReport(which, lines);
        auto& into = i < static_cast<std::size_t>(Report::NoFltsimSection) ? errors : information;
        into += "\n" + summaryLine(which, lines.size());
    }
    core::log(errors.empty() ? "\nNo errors" : "\nErrors:" + errors);
    core::log("\nInformation:" + information);
}

// ---- LiveriesScanned.xml ---------------------------------------------------------------------

fs::path liveriesFile() {
    return core::gPaths.programFolder / "output" / params::names::kLiveriesScanned;
}

void writeLiveries() {
    auto& list = gStore.list;
    if (list.empty()) return;
    pugi::xml_document doc;
    auto root = doc.append_child("root");
    params::appendMeta(root);
    auto section = root.append_child("liveries");
    for (const auto& l : list) {
        auto e = section.append_child("l");
        e.append_attribute("a").set_value(std::string(refdata::airlineCode(l.airline)).c_str());
        e.append_attribute("m").set_value(std::string(refdata::modelCode(l.model)).c_str());
        if (l.cargo) e.append_attribute("c").set_value("true");
        e.append_attribute("t").set_value(l.title.c_str());
        if (!l.regcode.empty()) e.append_attribute("r").set_value(l.regcode.c_str());
    }
    const auto path = liveriesFile();
    std::error_code ec;
    fs::create_directories(path.parent_path(), ec);
    const auto temp = fs::path(path.string() + ".tmp");
    if (!doc.save_file(temp.c_str(), "  ", pugi::format_default, pugi::encoding_utf8)) {
        core::log(fmt::format("Error writing file {}: {}", path.string(), "cannot write"));
        return;
    }
    fs::rename(temp, path, ec);
    if (ec)
        core::log(fmt::format("Error writing file {}: {}", path.string(), ec.message()));
    else
        core::log(fmt::format("{} liveries in {}", list.size(), path.string()));
}

void readLiveries() {
    const auto path = liveriesFile();
    pugi::xml_document doc;
    const auto result = doc.load_file(path.c_str());
    if (!result) {
        if (fs::exists(path)) core::log(fmt::format("{}: {}", path.string(), result.description()));
        throw core::UserErrorException(51, fmt::format("File {} not found", path.string()));
    }
    const auto section = doc.child("root").child("liveries");
    if (!section)
        throw core::UserErrorException(
            52, fmt::format("{} does not contain a <liveries> section", path.string()));
    auto& list = gStore.list;
    list.clear();
    for (const auto l : section.children("l")) {
        for (const char* required : {"a", "m", "t"})
            if (!l.attribute(required))
                throw core::UserErrorException(
                    999, fmt::format("Missing required attribute '{}' in <{}>", required, "l"));
        LiveryData d;
        d.airline = refdata::airlineId(l.attribute("a").value());
        d.model = refdata::modelId(l.attribute("m").value());
        d.cargo = l.attribute("c").as_bool(false);
        d.title = l.attribute("t").value();
        d.regcode = l.attribute("r").as_string("");
        list.push_back(std::move(d));
    }
    if (list.empty()) throw core::UserErrorException(533, path.string() + " does not contain liveries");
}

// ---- After a scan ----------------------------------------------------------------------------

void updateLiveriesFromDbase() {
    std::size_t n = 0;
    for (auto& l : gStore.list) {
        if (l.regcode.empty()) continue;
        const auto rec = refdata::dbaseRecordOf(l.regcode);
        if (!rec) continue;
        if (rec->cargo != l.cargo) {
            report(Report::Conversions,
                   fmt::format("'{}' {} cargo {} => {}", l.title, l.regcode, l.cargo, rec->cargo));
            l.cargo = rec->cargo, ++n;
        }
        const refdata::AirlineId airline = rec->operatorId ? rec->operatorId : rec->airline;
        if (airline && airline != l.airline) {
            report(Report::Conversions,
                   fmt::format("'{}' {} airl {} => {}", l.title, l.regcode, refdata::airlineCode(l.airline),
                               refdata::airlineCode(airline)));
            l.airline = airline, ++n;
        }
        if (rec->model && rec->model != l.model) {
            report(Report::Conversions,
                   fmt::format("'{}' {} model {} => {}", l.title, l.regcode, refdata::modelCode(l.model),
                               refdata::modelCode(rec->model)));
            l.model = rec->model, ++n;
        }
    }
}

void afterScan(std::size_t folders) {
    auto& list = gStore.list;
    if (folders > 1) core::log(fmt::format("{} in total", list.size()));
    updateLiveriesFromDbase();
    const auto* prioritize = boolParameter("LIG_PRIORITIZE");
    if (prioritize && prioritize->value) {
        // The first folder that has an airline and type wins; later folders only fill gaps.
        std::unordered_map<refdata::AirlineModelKey, std::uint16_t> best;
        for (const auto& l : list) {
            auto [it, fresh] = best.try_emplace(refdata::airlineModelKey(l.airline, l.model), l.folder);
            if (!fresh) it->second = std::min(it->second, l.folder);
        }
        std::erase_if(list, [&](const LiveryData& l) {
            return l.folder > best[refdata::airlineModelKey(l.airline, l.model)];
        });
    }
    std::sort(list.begin(), list.end(), lessLivery);
    list.erase(std::unique(list.begin(), list.end(),
                           [](const LiveryData& a, const LiveryData& b) {
                               return a.title == b.title && a.airline == b.airline && a.model == b.model &&
                                      a.regcode == b.regcode && a.cargo == b.cargo;
                           }),
               list.end());
    writeLiveries();
    list.clear();
    writeScanReports();
    clearReports();
}

// ---- Processing ------------------------------------------------------------------------------

// A hash look-up, not a walk: the registration lists ask for thousands of titles at start.
std::string_view titleInstalled(std::string_view title) {
    const auto it = gStore.titles.find(title);
    return it == gStore.titles.end() ? std::string_view() : it->second;
}

std::optional<refdata::AirlineModelKey> registrationKey(std::string_view reg) {
    const auto it = gStore.regcodeTitles.find(reg);
    if (it == gStore.regcodeTitles.end()) return std::nullopt;
    const auto k = gStore.titleKeys.find(it->second);
    if (k == gStore.titleKeys.end()) return std::nullopt;
    return k->second;
}

namespace {

void buildIndex() {
    auto& s = gStore;
    s.index.reserve(2048);
    for (const auto& l : s.list) {
        auto& models = s.index[l.airline];
        if (models.empty()) models.reserve(128);
        models[l.model].push_back({l.title, l.cargo});
    }
    for (const auto& [airline, models] : s.index)
        for (const auto& [model, entries] : models)
            for (const auto& e : entries) {
                s.airlineTitles[e.cargo ? 1 : 0][airline][model].push_back(e.title);
                s.titles.emplace(e.title, e.title);
                s.titleKeys.emplace(e.title, refdata::airlineModelKey(airline, model));
            }
}

void inlineRegcodes() {
    auto& s = gStore;
    for (const auto& l : s.list) {
        if (l.regcode.empty()) continue;
        const auto title = titleInstalled(l.title);
        if (title.empty()) {
            report(Report::InlineRegcodes,
                   fmt::format("==> [{}] {} '{}' not available, system error, should not happen?",
                               refdata::airlineCode(l.airline), l.regcode, l.title));
            continue;
        }
        const auto [it, fresh] = s.regcodeTitles.try_emplace(l.regcode, title);
        if (!fresh && it->second != title)
            report(Report::InlineRegcodes,
                   fmt::format("{} '{}' => already in use by '{}'", l.regcode, l.title, it->second));
    }
    const auto lines = reportLines(Report::InlineRegcodes);
    if (!lines.empty() && writeReport(Report::InlineRegcodes, lines))
        core::log(summaryLine(Report::InlineRegcodes, lines.size()));
}

void registrationLists() {
    auto& s = gStore;
    try {
        if (applyAigRegcodes()) applyRegcodeFiles();
    } catch (const std::exception& e) {
        core::log(fmt::format("exception: {}", e.what()));
    }
    std::error_code ec;
    fs::remove(reportPath(Report::OfflineRegcodes), ec);
    const auto lines = reportLines(Report::OfflineRegcodes);
    if (!lines.empty()) {
        // Kept in the order it happened: the summary lines belong after their source's lines.
        std::string text;
        for (const auto& l : lines) text += l + "\n";
        fs::create_directories(reportPath(Report::OfflineRegcodes).parent_path(), ec);
        if (!core::writeText(text, reportPath(Report::OfflineRegcodes), false))
            core::log(fmt::format("Error writing file {}: {}", reportPath(Report::OfflineRegcodes).string(),
                                  "cannot write"));
    }
    if (!s.specialTitles.empty()) core::log(fmt::format("{:5} special liveries", s.specialTitles.size()));
    if (!s.uniqueRegcodes.empty()) core::log(fmt::format("{:5} unique liveries", s.uniqueRegcodes.size()));
}

void genericTitles() {
    auto& s = gStore;
    struct Item {
        refdata::ModelId model;
        std::string_view title;
        bool cargo;
    };
    std::vector<Item> all;
    for (const auto& [airline, models] : s.index)
        for (const auto& [model, entries] : models)
            for (const auto& e : entries) all.push_back({model, e.title, e.cargo});
    std::stable_sort(all.begin(), all.end(), [](const Item& a, const Item& b) {
        return refdata::modelCode(a.model) < refdata::modelCode(b.model) ||
               (a.model == b.model && a.title < b.title);
    });
    s.genericTitles[0].reserve(324);
    s.genericTitles[1].reserve(75);
    for (const auto& i : all) s.genericTitles[i.cargo ? 1 : 0][i.model].push_back(i.title);
    core::log(fmt::format("{:5} airlines, {} pax aircraft models and {} cargo aircraft models",
                          s.index.size(), s.genericTitles[0].size(), s.genericTitles[1].size()));
}

bool modelInstalled(refdata::ModelId m) {
    return gStore.genericTitles[0].contains(m) || gStore.genericTitles[1].contains(m);
}

void similarTypes() {
    auto& s = gStore;
    std::set<std::vector<std::string>> lists; // ordered, so doubles vanish
    for (const auto& group : refdata::dbase().similarGroups)
        for (const auto& m : group) {
            std::vector<std::string> items{m};
            for (const auto& other : group)
                if (other != m && refdata::isModel(other) && modelInstalled(refdata::modelId(other)))
                    items.push_back(other);
            if (items.size() > 1) lists.insert(std::move(items));
        }
    for (const auto& items : lists) {
        std::vector<refdata::ModelId> ids;
        for (const auto& i : items) ids.push_back(refdata::modelId(i));
        s.similarInstalled.try_emplace(ids.front(), std::move(ids));
    }
    core::log(fmt::format("{:5} similar model definitions", s.similarInstalled.size()));
    std::vector<refdata::AirlineId> airlines;
    for (const auto& [a, models] : s.index) airlines.push_back(a);
    std::sort(airlines.begin(), airlines.end());
    for (const refdata::AirlineId a : airlines) {
        const auto& models = s.index.at(a);
        for (const auto& [m, list] : s.similarInstalled) {
            if (models.contains(m)) continue;
            std::vector<refdata::ModelId> have;
            for (const refdata::ModelId other : list)
                if (models.contains(other)) have.push_back(other);
            if (!have.empty()) s.similarByAirline[a][m] = std::move(have);
        }
    }
}

void categorySummaries() {
    auto& s = gStore;
    core::log("");
    constexpr std::pair<refdata::Category, const char*> kSwitches[] = {
        {refdata::Category::Light, "LIGHT_AIRCRAFT"},
        {refdata::Category::HighPerf, "HIGH_PERF_AIRCRAFT"},
        {refdata::Category::Rotorcraft, "HELICOPTERS"}};
    constexpr const char* kNone[] = {"light aircraft", "", "", "", "High Perf aircraft", "Helicopters"};
    for (int ci = 0; ci < refdata::kCategoryCount; ++ci) {
        const auto c = static_cast<refdata::Category>(ci);
        std::size_t counts[2] = {0, 0};
        std::vector<refdata::ModelId> models;
        for (int cargo = 0; cargo < 2; ++cargo)
            for (const auto& [m, titles] : s.genericTitles[cargo])
                if (refdata::category(m) == c) counts[cargo] += titles.size(), models.push_back(m);
        if (counts[0] + counts[1] == 0) {
            core::log(fmt::format("Category {}: No livery found", refdata::categoryWord(c)));
            for (const auto& [cat, name] : kSwitches) {
                auto* p = boolParameter(name);
                if (cat != c || !p || !p->value) continue;
                params::set(*p, false);
                core::log(fmt::format("{} temporarily switched off because you do not have {} installed",
                                      name, kNone[ci]));
            }
            continue;
        }
        std::string line = fmt::format("Category {}: {} pax liverie{}", refdata::categoryWord(c), counts[0],
                                       counts[0] == 1 ? "" : "s");
        if (counts[1]) line += fmt::format(" and {} cargo liverie{}", counts[1], counts[1] == 1 ? "" : "s");
        core::log(line);
        std::sort(models.begin(), models.end(), [](refdata::ModelId a, refdata::ModelId b) {
            return refdata::modelCode(a) < refdata::modelCode(b);
        });
        models.erase(std::unique(models.begin(), models.end()), models.end());
        const int slot = c == refdata::Category::Light        ? 0
                         : c == refdata::Category::Buzjets    ? 1
                         : c == refdata::Category::Rotorcraft ? 2
                                                              : -1;
        if (slot >= 0) s.categoryModels[static_cast<std::size_t>(slot)] = models;
        std::string codes;
        for (const refdata::ModelId m : models)
            codes += (codes.empty() ? "" : ",") + std::string(refdata::modelCode(m));
        core::log("  " + codes);
    }
    const auto zzz = s.index.find(refdata::airlineId("ZZZ"));
    if (zzz == s.index.end() || zzz->second.empty()) {
        core::log("No generic liveries");
        return;
    }
    std::vector<std::string_view> codes;
    for (const auto& [m, entries] : zzz->second) codes.push_back(refdata::modelCode(m));
    std::sort(codes.begin(), codes.end());
    codes.erase(std::unique(codes.begin(), codes.end()), codes.end());
    core::log(fmt::format("{} model{} have a generic livery", codes.size(), codes.size() == 1 ? "" : "s"));
    std::string joined;
    for (const auto c : codes) joined += (joined.empty() ? "" : ",") + std::string(c);
    core::log("  " + joined);
}

} // namespace

void processLiveries() {
    auto& s = gStore;
    if (s.processed) {
        core::log("Processing scanned liveries skipped; already done in previous start-up");
        s.list.clear();
        return;
    }
    readLiveries();
    s.regcodeTitles.max_load_factor(0.7f);
    s.regcodeTitles.reserve(std::max<std::size_t>(36000, s.regcodeTitles.size()));
    s.airlineTitles[0].reserve(2048);
    s.airlineTitles[1].reserve(256);
    s.specialTitles.reserve(4096);
    s.categoryModels[0].reserve(64), s.categoryModels[1].reserve(128), s.categoryModels[2].reserve(32);
    buildIndex();
    inlineRegcodes();
    registrationLists();
    core::log(fmt::format("{:5} registration codes", s.regcodeTitles.size()));
    genericTitles();
    similarTypes();
    categorySummaries();
    s.processed = true;
    s.list.clear();
}

} // namespace orv::liveries
