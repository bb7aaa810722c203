#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <unordered_set>

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"
#include "core/geo.h"
#include "refdata/refdata.h"

namespace orv::refdata {

namespace {

// The airport directory: filled on the worker at start, read without a lock afterwards.
struct Directory {
    std::vector<AirportRecord> store;
    std::unordered_set<AirportCode> known;
    StandDistanceFn standDistance;
};
Directory directory;

} // namespace

void clearAirports() {
    directory.store.clear();
    directory.known.clear();
}

const std::vector<AirportRecord>& airports() {
    return directory.store;
}
void setStandDistance(StandDistanceFn fn) {
    directory.standDistance = std::move(fn);
}

std::size_t loadAirports(const fs::path& encrypted) {
    const fs::path plain = fs::path(encrypted).replace_extension(".xml");
    if (!streamDecrypt(encrypted, plain))
        core::log(fmt::format("{} exception : {}", "readAirports", "decryption of " + encrypted.string()));
    return parseAirportsXml(plain);
}

std::size_t parseAirportsXml(const fs::path& plain) {
    try {
        pugi::xml_document doc;
        const auto loaded = doc.load_file(plain.c_str());
        if (!loaded) {
            removeFile(plain);
            throw std::runtime_error(fmt::format("{} not loaded: {}", plain.string(), loaded.description()));
        }
        const auto section = doc.child("root").child("airports");
        if (!section) throw std::runtime_error("Missing <airports> root in: " + plain.string());
        clearAirports();
        directory.store.reserve(15000);
        for (const auto ap : section.children("ap")) {
            const AirportCode code(ap.attribute("c").as_string()); // a bad code ends the reading
            const auto la = ap.attribute("la"), lo = ap.attribute("lo"), a = ap.attribute("a");
            if (!la || !lo) {
                core::log(fmt::format("Missing latLons for airport '{}'", code.view()));
                continue;
            }
            if (!a) {
                core::log(fmt::format("Missing alt for airport '{}'", code.view()));
                continue;
            }
            AirportRecord r;
            r.code = code;
            r.latitude = la.as_double();
            r.longitude = lo.as_double();
            r.elevation = a.as_float();
            if (const auto i = ap.attribute("i")) {
                r.stands = i.as_int();
            } else {
                core::log(fmt::format("Missing stands for airport '{}'", code.view()));
            }
            r.stockStatus = ap.attribute("k").as_int(0); // optional: no stock file when missing
            if (const auto s = ap.attribute("s")) {
                try {
                    r.iata = IataCode(s.as_string());
                } catch (const std::exception& e) {
                    core::log(fmt::format("Error storing airport '{}' '{}': {}", code.view(), s.as_string(),
                                          e.what()));
                    continue;
                }
            }
            directory.store.push_back(r);
            directory.known.insert(code);
        }
        std::sort(
            directory.store.begin(), directory.store.end(),
            [](const AirportRecord& x, const AirportRecord& y) { return x.code.bytes() < y.code.bytes(); });
        core::log(fmt::format("{:5} airports read", directory.store.size()));
        removeFile(plain);
        return directory.store.size();
    } catch (const std::exception& e) {
        removeFile(plain);
        throw core::UserErrorException(88, e.what());
    }
}

bool readAirports() {
    static std::optional<bool> done; // once per process; a restart keeps the directory
    if (!done) done = loadAirports(core::gPaths.programFolder / "input" / "airports.enc") > 0;
    return *done;
}

bool airportKnown(const AirportCode& code) {
    return directory.known.contains(code);
}

const AirportRecord* airportRecord(const AirportCode& code) {
    const auto& st = directory.store;
    const auto it =
        std::lower_bound(st.begin(), st.end(), code, [](const AirportRecord& r, const AirportCode& c) {
            return r.code.bytes() < c.bytes();
        });
    return it != st.end() && it->code == code ? &*it : nullptr;
}

const AirportRecord* airportByName(std::string_view text) {
    const std::string prefix = core::toUpper(text.substr(0, 4));
    for (const auto& r : directory.store)
        if (r.code.view().starts_with(prefix)) return &r;
    return nullptr;
}

const AirportRecord* airportInText(std::string_view text) {
    for (const auto& r : directory.store) {
        const std::string code(r.code.view());
        if (text.find(code + "-") != std::string_view::npos ||
            text.find("-" + code) != std::string_view::npos)
            return &r;
    }
    return nullptr;
}

std::optional<AirportRecord> closestAirport(double latitude, double longitude) {
    double best = 100.0;
    const AirportRecord* closest = nullptr;
    const AirportRecord* neighbour = nullptr;
    for (const auto& r : directory.store) {
        const double d = core::distanceNm({latitude, longitude}, {r.latitude, r.longitude});
        if (d <= 5.0 && d < best) {
            neighbour = closest ? closest : neighbour;
            closest = &r;
            best = d;
        }
    }
    if (!closest) return std::nullopt;
    if (!neighbour) return *closest;
    core::log(
        fmt::format("Airport {} is closest, neighbour is {}", closest->code.view(), neighbour->code.view()));
    if (directory.standDistance) {
        const auto mine = directory.standDistance(*closest, latitude, longitude);
        const auto theirs = directory.standDistance(*neighbour, latitude, longitude);
        if (theirs && (!mine || theirs->nm < mine->nm)) {
            core::log(fmt::format(
                "Airport {} is closest, but stand {} at neighbouring airport {} is closer at {:.0F} "
                "meters ...",
                closest->code.view(), theirs->stand, neighbour->code.view(),
                theirs->nm * core::kMetresPerNm));
            return *neighbour;
        }
    }
    return *closest;
}

std::vector<Runway> runwaysOf(const AirportCode& code) {
    std::vector<Runway> out;
    std::ifstream in(core::gPaths.programFolder / "input" / "runways.csv");
    const std::string key = std::string(code.view()) + ",";
    std::string line;
    // Sorted by airport: read up to the airport's rows, and stop after them.
    while (std::getline(in, line) && out.size() < 64) {
        if (line.size() > 200 || line.compare(0, key.size(), key) != 0) {
            if (!out.empty()) break;
            continue;
        }
        Runway r;
        double widthFt = 0;
        if (std::sscanf(line.c_str() + key.size(), "%lf,%lf,%lf,%lf,%lf", &r.lat1, &r.lon1, &r.lat2, &r.lon2,
                        &widthFt) != 5)
            continue;
        r.widthM = widthFt * 0.3048;
        out.push_back(r);
    }
    return out;
}

} // namespace orv::refdata
