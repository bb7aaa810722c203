// Airport files: the stands of an airport and the flights seen on them, read, found and written.
#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>
#include <set>
#include <sstream>
#include <tuple>
#include <variant>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "airportfile/internal.h"
#include "core/core.h"
#include "liveries/liveries.h"
#include "params/params.h"
#include "sim/sim.h"

namespace orv::airportfile {

ParkAirportFile gPark;

namespace {

constexpr double kRadiusNmPerMetre = 0.0005399568034557236;
constexpr double kAdjacentFactor = 1.1;

pugi::xml_node under(const pugi::xml_document& doc, const char* name) {
    const auto root = doc.child("root");
    return root ? root.child(name) : doc.child(name);
}

std::string cleanId(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t\r\n");
    return std::string(text.substr(first, last - first + 1));
}

std::optional<Stand> readStand(pugi::xml_node node, std::string id, std::uint32_t archived) {
    Stand s;
    s.latitude = node.attribute("latitude").as_double(0.0);
    s.longitude = node.attribute("longitude").as_double(0.0);
    if (s.latitude == 0.0 && s.longitude == 0.0) {
        core::log(fmt::format("stand {} has no valid lat/lon", id));
        return std::nullopt;
    }
    s.id = std::move(id);
    s.radiusNm = node.attribute("radius").as_double(0.0) * kRadiusNmPerMetre;
    s.headingRad = node.attribute("heading").as_double(0.0) * core::kRadPerDeg;
    s.cargo = node.attribute("cargo").as_bool(false);
    s.ramp = node.attribute("ramp").as_bool(false);
    s.heli = node.attribute("heli").as_bool(false);
    s.manual = node.attribute("manual").as_bool(false);
    s.radiusChange = node.attribute("radius_change").as_bool(false);
    s.cargoChange = node.attribute("cargo_change").as_bool(false);
    std::size_t count = 0;
    for ([[maybe_unused]] auto opt : node.children("opt")) ++count;
    s.options.reserve(count);
    std::uint32_t number = 0;
    for (auto opt : node.children("opt")) {
        auto o = readOption(opt, archived);
        if (!o) continue;
        o->number = ++number;
        s.options.push_back(std::move(*o));
    }
    s.options.shrink_to_fit();
    return s;
}

// Copies the quality rules and the directory's stock status into the settings.
void settingsFromQuality(std::int32_t qfReal, std::int32_t qfSoft, const refdata::AirportCode& code) {
    if (qfReal < 3 && qfSoft >= 1) {
        params::set(params::parameter<params::CheckBoxParameter>("PARK_SOFT"), true, params::Save::no);
        params::set(params::parameter<params::CheckBoxParameter>("WEEK"), true, params::Save::no);
        params::set(params::parameter<params::IntParameter>("MAX_FIT"), 47, params::Save::no);
        params::parameter<params::ChoiceFloatParameter>("MAX_FIT_FL").value = 24.0f;
    } else if (qfReal >= 46) {
        params::set(params::parameter<params::CheckBoxParameter>("PARK_SOFT"), false, params::Save::no);
        params::set(params::parameter<params::CheckBoxParameter>("WEEK"), false, params::Save::no);
    }
    const auto* record = refdata::airportRecord(code);
    const int status = record ? record->stockStatus : 0;
    const int percentage = status == 1 ? 100 : status == 2 ? 50 : 30;
    params::set(params::parameter<params::ChoiceIntParameter>("parking_percentage"), percentage,
                params::Save::no);
    core::log(fmt::format("{:24}: {}%", "parking_percentage", percentage));
}

std::string linkTarget(const fs::path& link) {
    std::vector<std::string> lines;
    if (!std::holds_alternative<std::size_t>(core::readAllLines(link, lines, 4)) || lines.empty()) return {};
    std::string text;
    for (const auto& l : lines) text += l;
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
    if (text.size() < 4 || !core::iequals(std::string_view(text).substr(text.size() - 4), ".xml")) return {};
    return text;
}

std::string withBackslashes(std::string_view text) {
    std::string out(text);
    std::replace(out.begin(), out.end(), '/', '\\');
    return out;
}

// A publisher's name as a folder: "%20" and slashes become blanks, blanks at the ends go.
std::string publisherFolder(std::string_view name) {
    std::string out;
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name.substr(i, 3) == "%20") {
            out += ' ';
            i += 2;
        } else {
            out += name[i] == '/' || name[i] == '\\' ? ' ' : name[i];
        }
    }
    return core::trim(out);
}

} // namespace

// The airline and type of an option: from the registration when an installed livery carries
// it, else from the file's own codes.
namespace {

void optionCodes(StandOption& o, pugi::xml_node opt) {
    if (!o.reg.empty()) {
        if (const auto key = liveries::registrationKey(o.reg)) {
            o.type = liveries::keyModel(*key);
            const auto airline = liveries::keyAirline(*key);
            if (!refdata::airlineCode(airline).empty())
                o.airline = airline;
            else
                o.airline = refdata::knownAirlineId(opt.attribute("airl").as_string());
            return;
        }
    }
    o.airline = refdata::knownAirlineId(opt.attribute("airl").as_string());
    o.type = refdata::knownModelId(opt.attribute("type").as_string());
}

} // namespace

fs::path onDisk(std::string_view relative) {
    std::string p(relative);
    std::replace(p.begin(), p.end(), '\\', '/');
    return core::gPaths.programFolder / p;
}

std::optional<StandOption> readOption(pugi::xml_node opt, std::uint32_t archived) {
    StandOption o;
    const std::string_view hh = opt.attribute("hh").as_string();
    o.day = opt.attribute("day").as_uint(0);
    if (hh.empty() || o.day == 0 || o.day > 7) return std::nullopt;
    o.reg = opt.attribute("reg").as_string();
    const std::string_view cs = opt.attribute("cs").as_string();
    const auto colon = cs.find(':');
    o.cs = cs.substr(0, colon);
    if (colon != std::string_view::npos) o.cs2 = cs.substr(colon + 1);
    optionCodes(o, opt);
    o.hours = hours2bitset(hh);
    o.real = opt.attribute("soft").as_bool(false) ? 0 : 1;
    o.cpl = opt.attribute("cpl").as_bool(false);
    o.archived = archived;
    return o;
}

AirportSettings currentSettings() {
    using params::parameter;
    AirportSettings s;
    s.maxLiveSel = parameter<params::ChoiceIntParameter>("MAX_LIVE_SEL").value;
    s.maxFit = parameter<params::IntParameter>("MAX_FIT").value;
    s.parkingPercentage = parameter<params::ChoiceIntParameter>("parking_percentage").value;
    s.range = parameter<params::ChoiceIntParameter>("RANGE").value;
    s.autoRange = parameter<params::CheckBoxParameter>("AUTO_RANGE").value;
    s.initialLoadOnly = parameter<params::CheckBoxParameter>("INITIAL_LOAD_ONLY").value;
    s.parkSoft = parameter<params::CheckBoxParameter>("PARK_SOFT").value;
    s.week = parameter<params::CheckBoxParameter>("WEEK").value;
    return s;
}

std::vector<Stand> readStands(const pugi::xml_document& doc, std::uint32_t archived) {
    std::vector<Stand> stands;
    const auto list = under(doc, "parkpositions");
    if (!list) return stands;
    std::set<std::string, std::less<>> seen;
    std::uint32_t n = 0;
    for (auto node : list.children("parkpos")) {
        ++n;
        const auto idAttr = node.attribute("id");
        if (!idAttr)
            throw core::UserErrorException(
                93, fmt::format("Parking position #{} has no '{}' attribute.", n, "id"));
        std::string id = cleanId(idAttr.as_string());
        if (id.empty())
            throw core::UserErrorException(93, fmt::format("Stand #{} has empty '{}' attribute.", n, "id"));
        if (!seen.insert(id).second)
            throw core::UserErrorException(94, fmt::format("Stand '{}' appears more than once.", id));
        if (auto s = readStand(node, std::move(id), archived)) stands.push_back(std::move(*s));
    }
    return stands;
}

void numberAndLinkStands(std::vector<Stand>& stands) {
    for (std::size_t i = 0; i < stands.size(); ++i) {
        stands[i].number = static_cast<std::uint32_t>(i + 1);
        stands[i].adjacent.clear();
        stands[i].adjacent.reserve(8);
    }
    // Pairs are looked for in order of latitude: two stands further apart north to south than
    // the largest two radii can't overlap, so each stand meets only its neighbours.
    std::vector<std::size_t> byLatitude(stands.size());
    std::iota(byLatitude.begin(), byLatitude.end(), std::size_t{0});
    std::sort(byLatitude.begin(), byLatitude.end(),
              [&](std::size_t a, std::size_t b) { return stands[a].latitude < stands[b].latitude; });
    double largest = 0;
    for (const auto& s : stands) largest = std::max(largest, s.radiusNm);
    const double reachDeg = 2 * largest / kAdjacentFactor / 60.0;
    for (std::size_t i = 0; i < byLatitude.size(); ++i) {
        auto& a = stands[byLatitude[i]];
        for (std::size_t j = i + 1; j < byLatitude.size(); ++j) {
            auto& b = stands[byLatitude[j]];
            if (b.latitude - a.latitude > reachDeg) break;
            const double d = core::distanceNm(a.latitude, a.longitude, b.latitude, b.longitude);
            if (a.radiusNm + b.radiusNm > kAdjacentFactor * d) {
                a.adjacent.push_back(b.number);
                b.adjacent.push_back(a.number);
            }
        }
    }
    for (auto& s : stands) {
        std::sort(s.adjacent.begin(), s.adjacent.end());
        s.options.shrink_to_fit();
    }
}

std::pair<std::int32_t, std::int32_t> qualityFactors(const std::vector<Stand>& stands) {
    bool anyOptions = false;
    for (const auto& s : stands) anyOptions = anyOptions || !s.options.empty();
    if (!anyOptions) return {-1, -1};
    // Every stand weighs the same: the weights by radius all come out equal in the stored unit.
    double sum[2] = {0, 0};
    for (const auto& s : stands) {
        int n[2] = {0, 0}, halfHours[2] = {0, 0};
        unsigned days[2] = {0, 0};
        for (const auto& o : s.options) {
            if (o.number == 0) continue;
            const int side = o.real ? 0 : 1;
            ++n[side];
            days[side] |= 1u << (o.day & 7u);
            halfHours[side] += o.hours.count();
        }
        for (int side = 0; side < 2; ++side)
            if (n[side] > 0)
                sum[side] += std::min(20 * n[side], 4000) + 10000 + 100 * std::popcount(days[side]) +
                             2 * std::min(halfHours[side], 600);
    }
    const double stands_ = static_cast<double>(stands.size());
    const auto factor = [&](double s) {
        return std::clamp(static_cast<std::int32_t>(std::lround(s / stands_ * 0.00625)), 0, 100);
    };
    return {factor(sum[0]), factor(sum[1])};
}

std::string qualityText(std::int32_t qfReal, std::int32_t qfSoft) {
    if (qfReal < 0 && qfSoft < 0) return "  ";
    if (qfReal >= 45) return fmt::format("{:2}", qfReal);
    return fmt::format("{:2}/{:2}", qfReal, qfSoft);
}

std::string findApf(const refdata::AirportCode& code) {
    const std::string name(code.view());
    for (const char* folder : {"my_thirdparty", "my_simaddon"}) {
        const auto link = fmt::format("airports\\{}\\{}.txt", folder, name);
        if (fs::exists(onDisk(link)))
            if (auto target = linkTarget(onDisk(link)); !target.empty()) return target;
        const auto xml = fmt::format("airports\\{}\\{}.xml", folder, name);
        if (fs::exists(onDisk(xml))) return xml;
    }
    const auto* record = refdata::airportRecord(code);
    if (record && record->stockStatus >= 1) return fmt::format("archive/stock/{}.xml", name);
    return {};
}

bool hasApf(const refdata::AirportCode& code) {
    return !findApf(code).empty();
}

std::string learnedPath(std::string_view xmlText, std::string_view publisher) {
    if (xmlText.empty()) return {};
    const std::string xml = withBackslashes(xmlText);
    const fs::path asPath{std::string(xmlText)};
    std::string ext = asPath.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
    if (ext != ".xml") return {};
    const auto slash = xml.rfind('\\');
    const std::string file = slash == std::string::npos ? xml : xml.substr(slash + 1);
    const auto starts = [&](std::string_view s, std::string_view prefix) {
        return s.substr(0, prefix.size()) == prefix;
    };
    if (starts(xml, "archive\\stock\\")) return "airports\\learned\\stock\\" + file;
    if (starts(xml, "archive\\simaddon\\")) return "airports\\learned\\simaddon\\" + file;
    if (const auto at = xml.find("archive\\thirdparty\\"); at != std::string::npos) {
        const auto from = at + std::string_view("archive\\thirdparty\\").size();
        const auto end = xml.find('\\', from);
        if (end == std::string::npos) return {};
        const auto name = publisherFolder(std::string_view(xml).substr(from, end - from));
        if (name.empty()) return {};
        return "airports\\learned\\thirdparty\\" + name + "\\" + file;
    }
    if (starts(xml, "airports\\")) {
        const std::string_view rest = std::string_view(xml).substr(9);
        if (starts(rest, "stock\\") || starts(rest, "my_simaddon\\"))
            return "airports\\learned\\" + std::string(rest);
        if (starts(rest, "my_thirdparty2024\\") || starts(rest, "my_thirdparty\\")) {
            const auto name = publisherFolder(publisher);
            if (name.empty()) return {};
            return "airports\\learned\\thirdparty\\" + name + "\\" + file;
        }
        return "airports\\learned\\" + std::string(rest);
    }
    return {};
}

std::string downloadApf(const std::string& xml, const fs::path& target) {
    const std::string base = refdata::dataSiteBase();
    std::error_code ec;
    if (base.empty()) {
        fs::remove(target, ec);
        core::log(fmt::format("no data site set (DATA_SITE in {}): {} is not downloaded",
                              params::names::kParameters, xml));
        return fmt::format("failed to download: '{}'", xml);
    }
    std::string path = xml;
    std::replace(path.begin(), path.end(), '\\', '/');
    const bool msfs2024 = !sim::msfs2020Selected();
    const bool shared = xml.find("simaddon") != std::string::npos || xml.find("stock") != std::string::npos;
    const std::string url = base + (msfs2024 && !shared ? "downloads/MSFS2024/" : "downloads/MSFS/") + path;
    if (auto why = refdata::download(url, target); !why.empty()) {
        fs::remove(target, ec);
        core::log(fmt::format("download failed: {}", why));
        return fmt::format("failed to download: '{}'", xml);
    }
    return {};
}

std::string readApf(const std::string& xml) {
    constexpr const char* kName = "readApf";
    if (xml.empty()) return fmt::format("{}: xml is empty", kName);
    if (gPark.code.empty()) return fmt::format("{}: no park airport set", kName);
    try {
        gPark.handmade = false;
        std::string file = xml;
        if (xml.rfind("airports", 0) != 0) {
            const std::string target = "airports\\park_airport.xml";
            if (auto err = downloadApf(xml, onDisk(target)); !err.empty()) return err;
            file = target;
        }
        pugi::xml_document doc;
        if (const auto r = doc.load_file(onDisk(file).c_str()); !r)
            return fmt::format("{}: could not load file: {}", xml, r.description());
        const auto root = doc.child("root") ? doc.child("root") : doc.root();
        if (!params::metaValid(root, true)) {
            if (!params::metaValid(root, false)) core::log("no copyright info in the file?");
            return fmt::format("{}: refused to load", xml);
        }
        gPark.rtTrafficWeek = params::readIntParameter(doc, "RT_traffic_week").value_or(0);
        gPark.airport.publisher = params::readStringParameter(doc, "publisher").value_or("");
        const auto altitude = params::readIntParameter(doc, "altitude");
        if (!altitude) throw core::UserErrorException(65, fmt::format("Parameter {} not found", "altitude"));
        gPark.airport.altitudeFt = *altitude;
        gPark.airport.airportName = params::readStringParameter(doc, "airport_name").value_or("");
        gPark.stands = readStands(doc, 1);
        const auto qr = params::readIntParameter(doc, "Qf_real"),
                   qs = params::readIntParameter(doc, "Qf_soft");
        if (qr && qs) gPark.qfReal = *qr, gPark.qfSoft = *qs;
        gPark.settingsAtLoad = currentSettings();
        const auto learned = learnedPath(xml, gPark.airport.publisher);
        if (!learned.empty() && fs::exists(onDisk(learned))) {
            // The learned file brings its own settings: the quality rules don't touch them.
            readLearned(learned);
            std::tie(gPark.qfReal, gPark.qfSoft) = qualityFactors(gPark.stands);
            if (gPark.handmade) core::log("A handmade airport file overruled the archived file!");
        } else {
            core::log("learned does not exist");
            if (gPark.qfReal < 0 && gPark.qfSoft < 0)
                std::tie(gPark.qfReal, gPark.qfSoft) = qualityFactors(gPark.stands);
            settingsFromQuality(gPark.qfReal, gPark.qfSoft, gPark.code);
        }
        numberAndLinkStands(gPark.stands);
        gPark.runways = refdata::runwaysOf(gPark.code);
        gPark.loadedFrom = file;
        core::log(fmt::format("Airport file read from '{}' for {}", gPark.handmade ? learned : xml,
                              gPark.airport.publisher));
        core::log(fmt::format("{:24}: {}", "publisher", gPark.airport.publisher));
        core::log(fmt::format("{:24}: {} ft", "altitude", gPark.airport.altitudeFt));
        core::log(fmt::format("{:24}: {}", "num_parkpos", gPark.stands.size()));
        core::log(fmt::format("{:24}: {}", "quality factor", qualityText(gPark.qfReal, gPark.qfSoft)));
        core::log(fmt::format("{:24}: {}", "RT traffic week", gPark.rtTrafficWeek));
        return gPark.stands.empty() ? "no stands found" : "";
    } catch (const core::UserErrorException&) {
        throw;
    } catch (const std::exception& e) {
        core::log(fmt::format("{}: {}", kName, e.what()));
        return fmt::format("{}: {}", kName, e.what());
    }
}

bool writeApf(const Apf& apf, const fs::path& path, WriteMode mode, SimVersion sim) {
    pugi::xml_document doc;
    auto root = doc.append_child("root");
    if (!root) return false;
    params::appendMeta(root);
    if (auto simRow = root.child("meta").find_child_by_attribute("info", "name", "sim"))
        simRow.attribute("value").set_value(static_cast<int>(sim));
    auto parameters = root.append_child("parameters");
    const auto add = [&](const char* name, const std::string& value) {
        auto p = parameters.append_child("parameter");
        p.append_attribute("name") = name;
        p.append_attribute("value") = value.c_str();
    };
    const auto flag = [](bool b) { return std::string(b ? "true" : "false"); };
    add("airport_name", apf.airportName);
    add("publisher", apf.publisher);
    if (apf.handmade) add("handmade", "true");
    if (apf.handmade || mode != WriteMode::Learned) add("altitude", std::to_string(apf.altitudeFt));
    if (mode != WriteMode::Learned) add("num_parkpos", std::to_string(apf.stands.size()));
    if (mode == WriteMode::Archived) add("RT_traffic_week", "1");
    if (apf.handmade) {
        add("Qf_real", std::to_string(apf.qfReal));
        add("Qf_soft", std::to_string(apf.qfSoft));
    }
    if (apf.publisher.empty()) {
        add("BGLpath", apf.bglPath);
        add("manufacturer", apf.manufacturer);
        add("creator", apf.creator);
    }
    if (mode == WriteMode::Learned) {
        const auto s = currentSettings();
        add("RANGE", std::to_string(s.range));
        add("AUTO_RANGE", flag(s.autoRange));
        add("WEEK", flag(s.week));
        add("PARK_SOFT", flag(s.parkSoft));
        add("parking_percentage", std::to_string(s.parkingPercentage));
        add("INITIAL_LOAD_ONLY", flag(s.initialLoadOnly));
        const float fit = params::parameter<params::ChoiceFloatParameter>("MAX_FIT_FL").value;
        add("MAX_FIT", std::to_string(std::lround(2.0 * fit) - 1));
        add("MAX_LIVE_SEL", std::to_string(s.maxLiveSel));
    }
    auto list = root.append_child("parkpositions");
    if (!list) return false;
    for (const auto& s : apf.stands) {
        auto p = list.append_child("parkpos");
        p.append_attribute("id") = s.id.c_str();
        const bool changes = s.radiusChange || s.cargoChange;
        if (mode == WriteMode::Learned && changes && !s.manual) {
            if (s.radiusChange) {
                p.append_attribute("radius_change") = "true";
                p.append_attribute("radius") = fmt::format("{:.1f}", s.radiusNm * core::kMetresPerNm).c_str();
            }
            if (s.cargoChange) {
                p.append_attribute("cargo_change") = "true";
                p.append_attribute("cargo") = s.cargo;
            }
        } else if (mode != WriteMode::Learned || s.manual || apf.handmade) {
            p.append_attribute("latitude") = fmt::format("{:.6f}", s.latitude).c_str();
            p.append_attribute("longitude") = fmt::format("{:.6f}", s.longitude).c_str();
            p.append_attribute("heading") = fmt::format("{:.1f}", s.headingRad * core::kDegPerRad).c_str();
            p.append_attribute("radius") = fmt::format("{:.1f}", s.radiusNm * core::kMetresPerNm).c_str();
            if (s.heli)
                p.append_attribute("heli") = "true";
            else
                p.append_attribute("cargo") = s.cargo;
            p.append_attribute("ramp") = s.ramp;
            if (s.manual) p.append_attribute("manual") = "true";
        }
        if (mode == WriteMode::Generated) continue;
        for (const auto& o : s.options) {
            if (o.number == 0 || o.reg.empty()) continue;
            const auto hh = bitset2hours(o.hours);
            if (!hh) {
                core::log(fmt::format("bit set problem: {} {} {} {}", o.reg, o.cs,
                                      refdata::airlineCode(o.airline), refdata::modelCode(o.type)));
                continue;
            }
            auto e = p.append_child("opt");
            e.append_attribute("reg") = o.reg.c_str();
            if (!liveries::registrationKey(o.reg)) {
                e.append_attribute("airl") = std::string(refdata::airlineCode(o.airline)).c_str();
                e.append_attribute("type") = std::string(refdata::modelCode(o.type)).c_str();
            }
            if (!o.real) e.append_attribute("soft") = "true";
            e.append_attribute("day") = o.day;
            e.append_attribute("hh") = hh->c_str();
            if (!o.cs.empty()) e.append_attribute("cs") = (o.cs2.empty() ? o.cs : o.cs + ":" + o.cs2).c_str();
            if (o.cpl) e.append_attribute("cpl") = "true";
        }
    }
    std::ostringstream out;
    doc.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
    std::error_code ec;
    if (path.has_parent_path()) fs::create_directories(path.parent_path(), ec);
    return core::writeText(out.str(), path, false);
}

double closestStand(const refdata::AirportCode& code, core::LatLon position, std::string& standId) {
    standId.clear();
    const auto xml = findApf(code);
    if (xml.empty()) return 100.0;
    fs::path file = onDisk(xml);
    if (xml.rfind("airports", 0) != 0) {
        file = onDisk("airports\\airport.xml");
        if (!downloadApf(xml, file).empty()) return 100.0;
    }
    pugi::xml_document doc;
    if (!doc.load_file(file.c_str())) return 100.0;
    double best = 100.0;
    try {
        for (const auto& s : readStands(doc, 1)) {
            const double d = core::distanceNm(position.latitude, position.longitude, s.latitude, s.longitude);
            if (d < best) best = d, standId = s.id;
        }
    } catch (const std::exception& e) {
        core::log(fmt::format("{}: {}", "closestStand", e.what()));
    }
    return best;
}

} // namespace orv::airportfile
