#include "recording.h"

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "feed/feed.h"
#include "platform/platform.h"

namespace orv::tools {

using nlohmann::json;

namespace {

std::string text(const std::string& s) {
    return s.empty() ? std::string("null") : s;
}
std::string num(const std::optional<double>& v, const char* fmtText = "{:.1f}") {
    return v ? fmt::format(fmt::runtime(fmtText), *v) : std::string("-1");
}

std::uint32_t hexToId(const std::string& hex) {
    std::size_t used = 0;
    const auto v = std::stoul(hex, &used, 16);
    if (used != hex.size() || v > 0xFFFFFFFFul) throw std::runtime_error("bad icao24 '" + hex + "'");
    return static_cast<std::uint32_t>(v);
}

std::optional<double> optNumber(const json& j) {
    if (j.is_number()) return j.get<double>();
    return std::nullopt;
}

std::string trimmed(std::string s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.pop_back();
    return s;
}

} // namespace

std::string trafficLine(const TrackPoint& p) {
    // RTTFC layout; fields the program does not read still carry plausible values.
    return fmt::format(
        "RTTFC,{},{:.6f},{:.6f},{:.0f},{:.0f},{},{},{:.1f},{},{},{},null,null,{:.2f},adsb,null,{},"
        "{:.0f},-1,{},-1,-1,{},-1,{},{:.0f},none,{}",
        p.hexid, p.latitude, p.longitude, p.onGround ? 0.0 : p.altitude, p.verticalSpeed, p.onGround ? 1 : 0,
        p.track ? fmt::format("{:.1f}", *p.track) : std::string(), p.groundSpeed, text(p.callsign),
        text(p.type), text(p.registration), p.timestamp, p.messageType, p.onGround ? 0.0 : p.altitude,
        num(p.trueAirspeed, "{:.0f}"), num(p.roll, "{:.2f}"), num(p.trueHeading, "{:.2f}"), p.verticalSpeed,
        text(p.category));
}

std::vector<TrackPoint> readsbPoints(const json& trace, std::optional<double> geoidFt) {
    const std::uint32_t hexid = hexToId(trace.at("icao").get<std::string>());
    const double t0 = trace.at("timestamp").get<double>();
    const std::string type = trace.value("t", "");
    const std::string reg = trace.value("r", "");
    std::vector<TrackPoint> out;
    std::string callsign, category;
    std::optional<double> lastAlt;
    for (const auto& row : trace.at("trace")) {
        if (!row.is_array() || row.size() < 10)
            throw std::runtime_error("readsb row with fewer than 10 fields");
        TrackPoint p;
        p.hexid = hexid;
        p.timestamp = t0 + row[0].get<double>();
        p.latitude = row[1].get<double>();
        p.longitude = row[2].get<double>();
        p.onGround = row[3].is_string() && row[3].get<std::string>() == "ground";
        if (geoidFt && row.size() > 10 && row[10].is_number())
            lastAlt = row[10].get<double>() + *geoidFt;
        else if (row[3].is_number())
            lastAlt = row[3].get<double>();
        p.altitude = p.onGround ? 0.0 : lastAlt.value_or(-1.0);
        p.groundSpeed = optNumber(row[4]).value_or(-1.0);
        p.track = optNumber(row[5]);
        p.verticalSpeed = optNumber(row[7]).value_or(0.0);
        p.messageType = row[9].is_string() ? row[9].get<std::string>() : "other";
        if (row.size() > 13) p.roll = optNumber(row[13]);
        if (const auto& d = row[8]; d.is_object()) {
            if (d.contains("flight") && d["flight"].is_string())
                callsign = trimmed(d["flight"].get<std::string>());
            if (d.contains("category") && d["category"].is_string())
                category = d["category"].get<std::string>();
            if (d.contains("tas")) p.trueAirspeed = optNumber(d["tas"]);
            if (d.contains("true_heading")) p.trueHeading = optNumber(d["true_heading"]);
        }
        p.callsign = callsign;
        p.category = category;
        p.type = type;
        p.registration = reg;
        out.push_back(std::move(p));
    }
    return out;
}

std::vector<TrackPoint> openSkyPoints(const json& input, const OpenSkyOptions& options) {
    json rows = input;
    if (input.is_object()) {
        // Columns, as pandas writes them: turn them into rows, in the order of the row keys.
        rows = json::array();
        const auto& first = input.begin().value();
        std::vector<std::string> keys;
        for (const auto& [k, v] : first.items()) keys.push_back(k);
        std::sort(keys.begin(), keys.end(), [](const std::string& a, const std::string& b) {
            return a.size() != b.size() ? a.size() < b.size() : a < b;
        });
        for (const auto& k : keys) {
            json row = json::object();
            for (const auto& [field, column] : input.items())
                if (column.is_object() && column.contains(k)) row[field] = column[k];
            rows.push_back(std::move(row));
        }
    }
    std::vector<TrackPoint> out;
    for (const auto& r : rows) {
        const std::string cs = trimmed(r.at("callsign").is_string() ? r["callsign"].get<std::string>() : "");
        if (!options.callsigns.empty() &&
            std::find(options.callsigns.begin(), options.callsigns.end(), cs) == options.callsigns.end())
            continue;
        TrackPoint p;
        p.hexid = hexToId(r.at("icao24").get<std::string>());
        p.callsign = cs;
        const auto t = options.types.find(cs);
        p.type = t != options.types.end() ? t->second : options.defaultType;
        if (!r.at("latitude").is_number() || !r.at("longitude").is_number()) continue; // no position yet
        p.timestamp = r.at("timestamp").get<double>() / 1000.0;
        p.latitude = r.at("latitude").get<double>();
        p.longitude = r.at("longitude").get<double>();
        p.onGround = r.contains("onground") && r["onground"].is_boolean() && r["onground"].get<bool>();
        p.altitude = p.onGround ? 0.0 : optNumber(r.at("altitude")).value_or(-1.0);
        if (p.onGround) p.groundPressureAltitude = optNumber(r.at("altitude"));
        p.groundSpeed = optNumber(r.at("groundspeed")).value_or(-1.0);
        p.track = optNumber(r.at("track"));
        p.verticalSpeed = optNumber(r.at("vertical_rate")).value_or(0.0);
        p.messageType = "adsb_icao";
        out.push_back(std::move(p));
    }
    return out;
}

void completeTracks(std::vector<TrackPoint>& points) {
    std::stable_sort(points.begin(), points.end(), [](const TrackPoint& a, const TrackPoint& b) {
        return a.hexid != b.hexid ? a.hexid < b.hexid : a.timestamp < b.timestamp;
    });
    // Per aircraft: a missing speed comes from the distance to the neighbouring point, a missing
    // airborne altitude from the nearest known one.
    for (std::size_t b = 0; b < points.size();) {
        std::size_t e = b;
        while (e < points.size() && points[e].hexid == points[b].hexid) ++e;
        for (std::size_t i = b; i < e; ++i) {
            auto& p = points[i];
            if (p.groundSpeed < 0.0) {
                const std::size_t j = i > b ? i - 1 : (i + 1 < e ? i + 1 : i);
                const double dt = std::fabs(points[j].timestamp - p.timestamp);
                const double nm =
                    core::distanceNm({p.latitude, p.longitude}, {points[j].latitude, points[j].longitude});
                p.groundSpeed = dt > 0.0 ? nm / dt * 3600.0 : 0.0;
            }
        }
        std::optional<double> known;
        for (std::size_t i = b; i < e; ++i) {
            if (!points[i].onGround && points[i].altitude >= 0.0)
                known = points[i].altitude;
            else if (!points[i].onGround && known)
                points[i].altitude = *known;
        }
        known.reset();
        for (std::size_t i = e; i-- > b;) {
            if (!points[i].onGround && points[i].altitude >= 0.0)
                known = points[i].altitude;
            else if (!points[i].onGround)
                points[i].altitude = known.value_or(0.0);
        }
        b = e;
    }
    std::stable_sort(points.begin(), points.end(),
                     [](const TrackPoint& a, const TrackPoint& b) { return a.timestamp < b.timestamp; });
}

// The recordings hold pressure altitudes but no weather. Read at a known elevation, a
// transponder's altitude on the ground gives the day's QNH, which a scenario then plays as its
// weather.
void printQnhEstimates(const std::vector<TrackPoint>& points, double fieldFt) {
    std::map<std::string, std::vector<double>> readings;
    for (const auto& p : points)
        if (p.groundPressureAltitude && *p.groundPressureAltitude < fieldFt + 3000.0)
            readings[p.callsign].push_back(*p.groundPressureAltitude);
    for (auto& [callsign, feet] : readings) {
        std::nth_element(feet.begin(), feet.begin() + static_cast<std::ptrdiff_t>(feet.size() / 2),
                         feet.end());
        const double median = feet[feet.size() / 2];
        std::cout << fmt::format(
            "{}: on the ground its pressure altitude reads {:.0f} ft (median of {}): QNH about "
            "{:.0f} hPa at a {:.0f} ft field\n",
            callsign, median, feet.size(), 1013.25 + (fieldFt - median) / feed::kFeetPerHpa, fieldFt);
    }
}

int convertMain(const std::vector<std::string>& args) {
    std::string format, input, output;
    OpenSkyOptions os;
    std::optional<double> geoidFt, fieldFt;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const auto next = [&]() -> std::string {
            if (i + 1 >= args.size()) throw std::runtime_error(args[i] + " needs a value");
            return args[++i];
        };
        if (args[i] == "--readsb" || args[i] == "--opensky") {
            format = args[i].substr(2);
            input = next();
        } else if (args[i] == "-o" || args[i] == "--output") {
            output = next();
        } else if (args[i] == "--geoid-ft") {
            geoidFt = std::stod(next());
        } else if (args[i] == "--field-ft") {
            fieldFt = std::stod(next());
        } else if (args[i] == "--flights") {
            for (auto& cs : core::splitList(next())) os.callsigns.push_back(cs);
        } else if (args[i] == "--type") {
            const auto v = next();
            const auto eq = v.find('=');
            if (eq == std::string::npos)
                os.defaultType = v;
            else
                os.types[v.substr(0, eq)] = v.substr(eq + 1);
        } else {
            throw std::runtime_error("unknown option '" + args[i] + "'");
        }
    }
    if (format.empty() || output.empty())
        throw std::runtime_error("convert needs --readsb FILE or --opensky FILE, and -o OUT");
    std::ifstream in(input, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + input);
    const json j = json::parse(in);
    auto points = format == "readsb" ? readsbPoints(j, geoidFt) : openSkyPoints(j, os);
    completeTracks(points);
    if (fieldFt) printQnhEstimates(points, *fieldFt);
    std::string out;
    for (const auto& p : points) {
        out += trafficLine(p);
        out += '\n';
    }
    if (!core::writeText(out, output, false)) throw std::runtime_error("cannot write " + output);
    std::cout << fmt::format("{}: {} lines from {}\n", output, points.size(), input);
    return 0;
}

} // namespace orv::tools

namespace orv::tools {} // namespace orv::tools
