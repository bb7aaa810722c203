// What live aircraft teach about the park airport: options learned on its stands, stand
// corrections and the airport's own settings, kept in the learned file between visits.
#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <sstream>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "airportfile/internal.h"
#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"

namespace orv::airportfile {

namespace {

constexpr int kHalfHoursPerWeek = 7 * HourBits::kHalfHours;

// "11.9.3" before "11.10.0", component by component.
bool olderThan(std::string_view version, std::array<int, 3> than) {
    std::array<int, 3> v{0, 0, 0};
    std::size_t i = 0;
    for (std::size_t from = 0; i < 3 && from <= version.size(); ++i) {
        const auto dot = version.find('.', from);
        const auto piece = version.substr(from, dot == std::string_view::npos ? dot : dot - from);
        v[i] = std::atoi(std::string(piece).c_str());
        if (dot == std::string_view::npos) break;
        from = dot + 1;
    }
    return v < than;
}

std::string metaRow(const pugi::xml_document& doc, const char* name) {
    const auto root = doc.child("root") ? doc.child("root") : doc.root();
    return root.child("meta").find_child_by_attribute("info", "name", name).attribute("value").as_string();
}

// One of the eight settings from the learned file, clamped to what the parameter allows.
void takeSetting(const pugi::xml_document& doc, const char* name) {
    auto* p = params::findParameter(name);
    if (auto* b = dynamic_cast<params::BoolParameter*>(p)) {
        if (const auto v = params::readBoolParameter(doc, name)) {
            params::set(*b, *v, params::Save::no);
            core::log(fmt::format("{:24}: {}", name, *v));
        }
    } else if (auto* n = dynamic_cast<params::IntParameter*>(p)) {
        if (const auto v = params::readIntParameter(doc, name)) {
            std::int32_t value = std::clamp(*v, n->minimum, n->maximum);
            if (auto* choice = dynamic_cast<params::ChoiceIntParameter*>(n)) {
                // A choice keeps to its list: the nearest allowed value.
                const auto& a = choice->allowedValues;
                value = *std::min_element(a.begin(), a.end(), [&](std::int32_t x, std::int32_t y) {
                    return std::abs(x - value) < std::abs(y - value);
                });
            }
            params::set(*n, value, params::Save::no);
            if (std::string_view(name) == "MAX_FIT")
                core::log(fmt::format("{:24}: {} (max number of half hours, is {:.1F} hrs decimal)", name,
                                      value, (value + 1) / 2.0));
            else
                core::log(fmt::format("{:24}: {}", name, value));
        }
    }
}

bool overlaps(HourBits a, HourBits b) {
    return (a.word() & b.word()) != 0;
}

void mergeLearnedStand(pugi::xml_node node, Stand& stand, bool clearFlights) {
    if (node.attribute("radius_change").as_bool(false)) {
        stand.radiusNm = node.attribute("radius").as_double(0.0) * kNmPerMetre;
        stand.radiusChange = true;
    }
    if (node.attribute("cargo_change").as_bool(false)) {
        stand.cargo = node.attribute("cargo").as_bool(false);
        stand.cargoChange = true;
    }
    if (clearFlights) return;
    std::uint32_t number = stand.options.empty() ? 1 : stand.options.back().number + 1;
    for (auto opt : node.children("opt")) {
        auto read = readOption(opt, 0);
        if (!read) continue;
        StandOption& o = *read;
        if (o.hours.empty()) core::log("empty bit set");
        const bool duplicate =
            std::any_of(stand.options.begin(), stand.options.end(), [&](const StandOption& x) {
                return x.day == o.day && x.real == o.real && x.reg == o.reg && x.airline == o.airline &&
                       x.type == o.type && (o.hours.empty() || overlaps(x.hours, o.hours));
            });
        if (duplicate) {
            core::log(fmt::format("learned {}: day:{} {} {} {} cs:{} reg:{} already in airport file",
                                  stand.id, o.day,
                                  o.hours.empty() ? std::string("'empty hrs'") : bitset2list(o.hours),
                                  refdata::airlineCode(o.airline), refdata::modelCode(o.type), o.cs, o.reg));
            continue;
        }
        o.number = number++;
        stand.options.push_back(std::move(o));
    }
}

} // namespace

void removeLeftoverTemps(const fs::path& path) {
    // Saves cut off by a crash leave their temporary files ("KMSP.xml.N.tmp") beside the file.
    const std::string prefix = path.filename().string() + ".";
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(path.parent_path(), ec)) {
        const std::string name = e.path().filename().string();
        if (name.size() > prefix.size() + 4 && name.compare(0, prefix.size(), prefix) == 0 &&
            name.compare(name.size() - 4, 4, ".tmp") == 0)
            fs::remove(e.path(), ec);
    }
}

bool save1GenerationOf(const fs::path& path) {
    const std::string name = path.filename().string();
    const auto dot = name.rfind('.');
    if (dot == std::string::npos) {
        core::log(fmt::format("save1GenerationOf: no dot in filename: {}", path.string()));
        return false;
    }
    const fs::path copy = path.parent_path() / (name.substr(0, dot) + ".0" + name.substr(dot));
    std::error_code ec;
    if (!fs::exists(path, ec)) {
        if (ec) core::log(fmt::format("exists({}): {}", path.string(), ec.message()));
        return false;
    }
    fs::copy_file(path, copy, fs::copy_options::overwrite_existing, ec);
    if (ec) {
        core::log(fmt::format("copy {} -> {} failed: {}", path.string(), copy.string(), ec.message()));
        return false;
    }
    return true;
}

void readLearned(const std::string& path) {
    try {
        pugi::xml_document doc;
        if (const auto r = doc.load_file(onDisk(path).c_str()); !r) {
            // Kept aside, so that the next save can't take the only copy of what it held.
            save1GenerationOf(onDisk(path));
            core::log(fmt::format("{} found, but could not be loaded, saved as *.0.xml: {}", path,
                                  r.description()));
            gPark.learnedBroken = true;
            return;
        }
        core::log(fmt::format("Read from learned airport file: '{}'", path));
        const auto root = doc.child("root") ? doc.child("root") : doc.root();
        (void)params::metaValid(root, false);
        const bool clearFlights = olderThan(metaRow(doc, "version"), {11, 10, 0});
        if (clearFlights)
            core::log(
                "\nThis learned file was created with and older ORVL version than 11.10.0,\nAll flights will "
                "be cleared, except for a handmade file\n");
        const auto name = params::readStringParameter(doc, "airport_name").value_or("");
        if (!name.empty() && name != gPark.airport.airportName) {
            const auto text = fmt::format(
                "Warning: learned file airport name: '{}' differs from archived file airport name: '{}'",
                name, gPark.airport.airportName);
            core::log(text);
            core::message(text);
        }
        for (const char* setting : {"MAX_LIVE_SEL", "RANGE", "AUTO_RANGE", "parking_percentage", "WEEK",
                                    "PARK_SOFT", "MAX_FIT", "INITIAL_LOAD_ONLY"})
            takeSetting(doc, setting);
        if (params::readBoolParameter(doc, "handmade")) {
            gPark.handmade = true;
            gPark.stands = readStands(doc, 1);
            core::log(fmt::format("{:24}: {}", "handmade", "true"));
            return;
        }
        gPark.handmade = false;
        const auto list = root.child("parkpositions");
        for (auto node : list.children("parkpos")) {
            const std::string id = core::trim(node.attribute("id").as_string());
            if (!node.attribute("manual").as_bool(false)) {
                const auto it = std::find_if(gPark.stands.begin(), gPark.stands.end(),
                                             [&](const Stand& s) { return s.id == id; });
                if (it == gPark.stands.end())
                    core::log(fmt::format("learned stand {} in {} not found?", id, path));
                else
                    mergeLearnedStand(node, *it, clearFlights);
                continue;
            }
            if (std::any_of(gPark.stands.begin(), gPark.stands.end(),
                            [&](const Stand& s) { return s.id == id; })) {
                core::log(fmt::format("manually created standid {} already exists in {}", id, path));
                continue;
            }
            const double lat = node.attribute("latitude").as_double(0),
                         lon = node.attribute("longitude").as_double(0);
            if ((std::fabs(lat) < 0.0001 && std::fabs(lon) < 0.0001) ||
                node.attribute("radius").as_double(0) == 0) {
                core::log(
                    fmt::format("manually created standid {} misses correct attributes in {}", id, path));
                continue;
            }
            pugi::xml_document one;
            one.append_child("parkpositions").append_copy(node);
            auto stands = readStands(one, 0);
            for (auto& s : stands) {
                s.manual = true;
                if (clearFlights) s.options.clear();
                gPark.stands.push_back(std::move(s));
            }
        }
    } catch (const std::exception& e) {
        core::log(fmt::format("{}: {}", "readLearned", e.what()));
    }
}

bool saveUpdatedApf(SimVersion sim) {
    if (gPark.loadedFrom.empty() || gPark.code.empty()) return false;
    Apf apf;
    apf.code = gPark.code;
    apf.airportName = gPark.airport.airportName;
    apf.altitudeFt = gPark.airport.altitudeFt;
    apf.publisher = gPark.airport.publisher;
    apf.handmade = gPark.handmade;
    if (gPark.handmade) {
        apf.stands = gPark.stands;
        std::tie(apf.qfReal, apf.qfSoft) = qualityFactors(gPark.stands);
    } else {
        for (const auto& s : gPark.stands) {
            Stand kept = s;
            std::erase_if(kept.options,
                          [](const StandOption& o) { return o.archived == 1 || o.number == 0; });
            if (kept.manual || !kept.options.empty() || kept.radiusChange || kept.cargoChange)
                apf.stands.push_back(std::move(kept));
        }
    }
    const std::string& publisher = gPark.airport.publisher;
    const std::string folder = publisher == "stock" ? "airports\\learned\\stock\\"
                               : publisher == "simaddon"
                                   ? "airports\\learned\\simaddon\\"
                                   : "airports\\learned\\thirdparty\\" + publisher + "\\";
    const std::string path = folder + std::string(gPark.code.view()) + ".xml";
    // A broken learned file is not replaced until its copy is safe.
    if (gPark.learnedBroken && !fs::exists(onDisk(path.substr(0, path.size() - 4) + ".0.xml"))) {
        core::log(fmt::format("{} saving '{}' did not succeed", core::timeText(), path));
        return false;
    }
    if (!writeApf(apf, onDisk(path), WriteMode::Learned, sim)) {
        core::log(fmt::format("{} saving '{}' did not succeed", core::timeText(), path));
        return false;
    }
    core::log(fmt::format("{}{} '{}' saved with {} update{}", core::timeText(),
                          gPark.handmade ? " handmade" : "", path, gPark.updateCount,
                          gPark.updateCount == 1 ? "" : "s"));
    removeLeftoverTemps(onDisk(path));
    return true;
}

void restoreAirportSettings() {
    const auto& s = gPark.settingsAtLoad;
    using params::parameter;
    const auto restoreInt = [](const char* name, std::int32_t value) {
        auto& p = parameter<params::IntParameter>(name);
        if (p.value != value) params::set(p, std::clamp(value, p.minimum, p.maximum), params::Save::no);
    };
    const auto restoreBool = [](const char* name, bool value) {
        auto& p = parameter<params::BoolParameter>(name);
        if (p.value != value) params::set(p, value, params::Save::no);
    };
    restoreInt("MAX_LIVE_SEL", s.maxLiveSel);
    restoreInt("MAX_FIT", s.maxFit);
    restoreInt("parking_percentage", s.parkingPercentage);
    restoreInt("RANGE", s.range);
    restoreBool("AUTO_RANGE", s.autoRange);
    restoreBool("INITIAL_LOAD_ONLY", s.initialLoadOnly);
    restoreBool("PARK_SOFT", s.parkSoft);
    restoreBool("WEEK", s.week);
}

// ---- Options learned from live aircraft -------------------------------------------------------

namespace {

std::uint32_t nextNumber(const Stand& s) {
    return static_cast<std::uint32_t>(s.options.size() + 1);
}

std::string withoutTrailing(std::string text, char c) {
    if (!text.empty() && text.back() == c) text.pop_back();
    return text;
}

} // namespace

bool addOption(Stand& stand, const LearnedAircraft& a, DayHalfHour now, bool completed) {
    if (a.reg.empty()) return false;
    StandOption o;
    o.reg = a.reg;
    o.cs = withoutTrailing(a.cs, '_');
    o.hours.set(now.halfHour);
    o.day = static_cast<std::uint32_t>(now.day);
    if (const auto key = liveries::registrationKey(a.reg))
        o.airline = liveries::keyAirline(*key), o.type = liveries::keyModel(*key);
    else
        o.airline = a.airline, o.type = a.type;
    if (std::any_of(stand.options.begin(), stand.options.end(), [&](const StandOption& x) {
            return x.reg == o.reg && x.day == o.day && x.hours == o.hours;
        }))
        return false;
    o.real = 1, o.archived = 0, o.cpl = completed;
    o.number = nextNumber(stand);
    stand.options.push_back(std::move(o));
    ++gPark.updateCount;
    return true;
}

bool extendOption(Stand& stand, std::size_t index, DayHalfHour prev, DayHalfHour now,
                  const LearnedAircraft& a, bool completed) {
    if (stand.options[index].number == 0 || prev == now) return true;
    const int limit = a.longStay ? 12 : a.heavy ? 8 : 6;
    int span = (now.day - prev.day) * HourBits::kHalfHours + now.halfHour - prev.halfHour;
    if (span < 0) span += kHalfHoursPerWeek;
    if (span < 1 || span >= limit) return false;
    const std::string cs = withoutTrailing(a.cs, '_');
    if (now.day == prev.day) {
        auto& o = stand.options[index];
        for (int h = prev.halfHour; h <= now.halfHour; ++h) o.hours.set(h);
        if (!cs.empty() && cs != o.cs) o.cs2 = cs;
        return true;
    }
    if (!addOption(stand, a, {now.day, 0}, completed)) return false;
    auto& old = stand.options[index];
    for (int h = prev.halfHour; h < HourBits::kHalfHours; ++h) old.hours.set(h);
    auto& fresh = stand.options.back();
    for (int h = 0; h <= now.halfHour; ++h) fresh.hours.set(h);
    old.cs = fresh.cs = cs;
    return true;
}

void addRealStandOption(std::uint32_t standNumber, const LearnedAircraft& aircraft, LearnKind kind,
                        DayHalfHour now) {
    try {
        LearnedAircraft a = aircraft;
        a.reg = withoutTrailing(a.reg, '_');
        if (a.reg.empty()) return;
        const auto key = liveries::registrationKey(a.reg);
        if (!key) return;
        a.airline = liveries::keyAirline(*key), a.type = liveries::keyModel(*key);
        auto& stands = gPark.stands;
        if (standNumber < 1 || standNumber > stands.size()) return;
        Stand& s = stands[standNumber - 1];
        const bool leaving = kind == LearnKind::Departure || kind == LearnKind::Removed;
        const auto day = static_cast<std::uint32_t>(now.day);
        // The archived file already has this flight at this time: nothing to learn.
        for (const auto& o : s.options)
            if (o.number != 0 && o.day == day && o.reg == a.reg && o.real == 1 && o.archived == 1 &&
                o.hours.test(now.halfHour))
                return;
        // The option it is in: today's, or over midnight yesterday's that ran to its end.
        const std::uint32_t yesterday = day == 1 ? 7 : day - 1;
        const auto isLearned = [&](const StandOption& o, std::uint32_t d) {
            return o.day == d && o.reg == a.reg && o.real == 1 && o.archived == 0;
        };
        auto learned = std::find_if(s.options.begin(), s.options.end(),
                                    [&](const StandOption& o) { return isLearned(o, day); });
        if (learned == s.options.end())
            learned = std::find_if(s.options.begin(), s.options.end(), [&](const StandOption& o) {
                return isLearned(o, yesterday) && !o.cpl && !o.hours.empty();
            });
        if (learned != s.options.end() && !(learned->cpl && !learned->hours.test(now.halfHour))) {
            if (learned->hours.test(now.halfHour)) {
                if (leaving) learned->cpl = true;
                return;
            }
            if (learned->hours.empty()) return;
            const int h0 = 63 - std::countl_zero(learned->hours.word());
            const auto index = static_cast<std::size_t>(learned - s.options.begin());
            if (extendOption(s, index, {static_cast<int>(learned->day), h0}, now, a, leaving))
                ++gPark.updateCount;
            else
                (void)addOption(s, a, now, leaving);
            if (leaving) s.options[index].cpl = true;
            return;
        }
        (void)addOption(s, a, now, leaving);
    } catch (const std::exception& e) {
        core::log(fmt::format("{}: hh_now: {}, {}", "addRealStandOption", now.halfHour, e.what()));
    }
}

} // namespace orv::airportfile
