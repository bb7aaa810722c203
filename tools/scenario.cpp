#include "scenario.h"
#include "airportfile/airportfile.h"
#include "parking/parking.h"
#include "platform/platform.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>
#include <numeric>
#include <set>
#include <stdexcept>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <iostream>
#include <nlohmann/json.hpp>

#include "core/core.h"
#include "core/geo.h"
#include "feed/feed.h"
#include "live/internal.h"
#include "live/live.h"
#include "liveries/internal.h"
#include "params/params.h"
#include "refdata/refdata.h"
#include "sim/sim.h"

namespace orv::scenario {

namespace {

namespace sc = orv::simconnect;

struct Line {
    double time = 0;
    std::string text;
};

std::vector<std::string_view> split(std::string_view s) {
    std::vector<std::string_view> out;
    for (std::size_t start = 0;;) {
        const auto comma = s.find(',', start);
        out.push_back(s.substr(start, comma - start));
        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    return out;
}

double number(std::string_view s) {
    double v = 0;
    std::from_chars(s.data(), s.data() + s.size(), v);
    return v;
}

void resetAll() {
    live::reset();
    sim::reset();
    feed::gTrafficReader.clearForRun();
    feed::setAcceptTraffic(false);
    {
        std::lock_guard lock(feed::gTraffic.trafficLock);
        feed::gTraffic.trafficQueue.clear();
    }
    core::gRun.reset();
    feed::gQnh = 1013;
    parking::reset();
    airportfile::gPark.reset();
}

// One frame's share of the burst: made-up airliners circling the airport, each line a little on.
void feedBurst(const Config& config, const refdata::AirportRecord* airport, double timestamp,
               std::int64_t frame, std::string& line) {
    const auto& b = config.burst;
    const int perFrame = b.linesPerSecond / 100;
    for (int i = 0; i < perFrame; ++i) {
        const auto n = static_cast<std::uint64_t>(frame * perFrame + i);
        const int which = static_cast<int>(n % static_cast<std::uint64_t>(b.aircraft));
        const double bearing = (which * 37 % 360 + static_cast<double>(frame) * 0.002) * core::kRadPerDeg;
        const double nm = 20.0 + which % 16;
        const double lat = airport->latitude + nm / 60.0 * std::cos(bearing);
        const double lon = airport->longitude +
                           nm / 60.0 * std::sin(bearing) / std::cos(airport->latitude * core::kRadPerDeg);
        line =
            fmt::format("RTTFC,{},{:.6f},{:.6f},{},0,0,90.0,120.0,BST{:04},MD82,null,null,null,{:.2f},adsb,"
                        "null,adsb_icao,0,-1,-1,-1,-1,-1,-1,-1,0,none,A3",
                        0xF00000 + which, lat, lon, 2000 + which * 10, which, timestamp + i * 1e-4);
        feed::gTrafficReader.decode(line);
    }
}

} // namespace

Result run(const Config& config) {
    Result result;
    std::vector<std::string> raw;
    if (config.recording.empty()) {
        // No traffic: a run of the static parking alone.
    } else if (auto r = core::readAllLines(config.recording, raw, 4096);
               std::holds_alternative<std::string>(r)) {
        result.error = fmt::format("{}: {}", config.recording.string(), std::get<std::string>(r));
        return result;
    }
    std::vector<Line> lines;
    double first = -1;
    std::map<std::string, double, std::less<>> firstOfAircraft;
    for (auto& text : raw) {
        const auto f = split(text);
        if (f.size() < 15) continue;
        const double t = number(f[14]);
        if (first < 0) first = t;
        const double start =
            config.overlayFlights ? firstOfAircraft.try_emplace(std::string(f[1]), t).first->second : first;
        if (t - start < config.fromSeconds || t - start > config.toSeconds) continue;
        if (!config.callsigns.empty() && f.size() > 9 &&
            std::find(config.callsigns.begin(), config.callsigns.end(), f[9]) == config.callsigns.end())
            continue;
        lines.push_back({t - start - config.fromSeconds, std::move(text)});
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const Line& a, const Line& b) { return a.time < b.time; });
    const refdata::AirportRecord* airport = refdata::airportByName(config.airport);
    if (!airport) {
        result.error = fmt::format("airport {} is not in the directory", config.airport);
        return result;
    }

    emu::Config ec;
    ec.titles = config.titles;
    ec.maxObjects = config.maxObjects;
    ec.airports = {{config.airport, airport->latitude, airport->longitude, airport->elevation}};
    ec.user.latitude = airport->latitude;
    ec.user.longitude = airport->longitude;
    std::optional<platform::VirtualClock> clock;
    if (config.parking.on) {
        ec.user = config.parking.user;
        ec.zuluStart = config.parking.utcStart;
        clock.emplace(platform::UtcTime{std::chrono::seconds{config.parking.utcStart}});
        platform::setClock(&*clock);
    }
    emu::Emulator emulator(ec);
    result.airportElevationFt = airport->elevation;

    resetAll();
    live::reserveContainers();
    parking::gParking.live.callsignInUse = live::callsignInUse;
    parking::gParking.live.parkedOn = live::parkedOn;
    feed::gQnh = config.qnh;
    feed::gTrafficReader.qnh = config.qnh;
    feed::TrafficArea area;
    area.reference = {airport->latitude, airport->longitude};
    area.airport = area.reference;
    area.referenceElevation = airport->elevation;
    feed::gTrafficReader.setArea(area);
    live::setCurrentAirport(live::AirportPlace{airport->latitude, airport->longitude, airport->elevation});

    auto [clientEnd, serverEnd] = sc::makeMemoryPipe();
    const int client = emulator.connect([end = serverEnd.get()](sc::Bytes b) { return end->send(b); });
    sim::setApiFactory([once = sc::transportOnce(std::move(clientEnd))](bool protocol2024) {
        return sc::makeNetworkClient(once, protocol2024 ? sc::kProtocolMsfs2024 : sc::kProtocolMsfs2020);
    });
    std::vector<std::uint8_t> buffer(65536);
    const auto pump = [&] {
        for (long n; (n = serverEnd->receive(buffer.data(), buffer.size(), 0)) > 0;)
            emulator.receive(client, sc::Bytes(buffer.data(), static_cast<std::size_t>(n)));
    };

    std::size_t next = 0;
    bool asked = false;
    const double recordingStart = first;
    std::string burstLine;
    const auto frames = static_cast<std::int64_t>(std::llround(config.runSeconds * 100));
    // A second in which nothing can happen (parking runs with no traffic, no statics to make or
    // remove, no aircraft in the engine) is run as one frame: a day of static parking would
    // otherwise cost 8.6 million frames.
    const auto idleSecond = [&](std::int64_t k, double t) {
        if (!config.parking.on || k % 100 != 0 || !core::gRun.simRunning || config.onFrame) return false;
        if (next < lines.size() && lines[next].time <= t + 1.0) return false;
        const auto& e = live::gEngine;
        if (!e.liveTable.empty() || !e.spawnQueue.empty() || !e.staticSpawnQueue.empty() ||
            !e.removeQueue.empty() || !e.pending.empty())
            return false;
        const auto& P = parking::gParking;
        if (!P.stack.empty() || !P.removals.empty() || P.pendingLoad) return false;
        return std::all_of(P.statics.begin(), P.statics.end(),
                           [](const parking::StaticAc& a) { return a.state == 2; });
    };
    // Each live aircraft on a stand, by hexid, where the engine last placed it there.
    struct OnStand {
        std::string tail;
        std::int32_t stand = 0;
        double lat = 0, lon = 0, heading = 0;
        bool atSpawn = false;
    };
    std::map<std::uint32_t, OnStand> onStands;
    const auto noteParked = [&] {
        for (const auto& ac : live::gEngine.liveTable) {
            if (ac.phase != live::Phase::Parked || ac.stand.id == 0 || ac.simState != live::SimState::Active)
                continue;
            auto [it, fresh] = onStands.try_emplace(ac.hexid);
            if (fresh) it->second.atSpawn = ac.previousPhase == live::Phase::Birth;
            it->second.tail = ac.callsign, it->second.stand = ac.stand.id;
            it->second.lat = ac.lat, it->second.lon = ac.lon, it->second.heading = ac.heading;
        }
    };
    for (std::int64_t k = 0; k < frames; ++k) {
        const double t = static_cast<double>(k) / 100.0;
        if (config.parking.on && k % 100 == 0) noteParked();
        const bool skipSecond = idleSecond(k, t) && k + 100 <= frames;
        sim::pollOnce();
        pump();
        if (core::gRun.simRunning) {
            if (!asked) {
                sim::requestUserOnGround();
                feed::setAcceptTraffic(true);
                asked = true;
            }
            for (; next < lines.size() && lines[next].time <= t; ++next) {
                feed::gTrafficReader.decode(lines[next].text);
                const auto f = split(lines[next].text);
                FedLine fed;
                fed.at = t;
                std::from_chars(f[1].data(), f[1].data() + f[1].size(), fed.hexid);
                fed.latitude = number(f[2]), fed.longitude = number(f[3]), fed.altitudeFt = number(f[4]);
                fed.groundSpeed = number(f[8]);
                fed.callsign = std::string(f[9]);
                fed.onGround = fed.altitudeFt <= 0;
                result.fed.push_back(fed);
            }
            if (t >= config.burst.fromSeconds && t < config.burst.toSeconds)
                feedBurst(config, airport, recordingStart + config.fromSeconds + t, k, burstLine);
            if (skipSecond) core::gRun.engineTick.fetch_add(99, std::memory_order_relaxed);
            live::engineFrame();
            if (k % 100 == 0) live::writeFlightPlans(); // as the one-second step does
            if (config.parking.on && k % 100 == 0) {
                // The program's loop: the park airport's tick on the 16th seconds that are no
                // 5th, the adjustment every 20 minutes.
                const auto c = k / 100;
                sim::requestUserOnGround();
                live::routeQueueStep();
                live::collisionChecks();
                if (c % 5 == 0) live::removeAtReservedStand();
                if (c % 5 != 0 && c % 61 == 0) live::duplicatesSweep();
                if (c % 5 != 0 && c % 16 == 0) parking::parkAirportTick();
                if (c > 0 && c % 1200 == 0) parking::recalculate();
                if (config.parking.onSecond) config.parking.onSecond(t);
            }
            if (config.onFrame) config.onFrame(t);
        }
        sim::pollOnce();
        pump();
        const int step = skipSecond ? 100 : 1;
        emulator.advanceTo(t + 0.01 * step);
        if (clock) clock->advance(std::chrono::milliseconds(10 * step));
        k += step - 1;
    }
    // The run ends as the program would close: what was learned at the park airport is written.
    if (config.parking.on) {
        noteParked();
        for (const auto& [hexid, p] : onStands) {
            const auto& stands = airportfile::gPark.stands;
            if (p.stand < 1 || static_cast<std::size_t>(p.stand) > stands.size()) continue;
            const auto& s = stands[static_cast<std::size_t>(p.stand) - 1];
            result.parked.push_back(
                {p.tail, s.id, core::distanceNm(p.lat, p.lon, s.latitude, s.longitude) * core::kMetresPerNm,
                 std::fabs(core::angleDiff(p.heading, s.headingRad)) * core::kDegPerRad, p.atSpawn});
        }
        airportfile::flushLiveAirports();
    }
    result.objects = emulator.objects();
    result.noMatch = live::noMatchList();
    emulator.quit();
    serverEnd->close();
    for (int i = 0; i < 10 && sim::pollOnce() != sim::Pass::End; ++i) pump();
    sim::setApiFactory({});
    resetAll();
    if (clock) platform::setClock(nullptr);
    return result;
}

// ---- The motion report ----------------------------------------------------------------------

constexpr double kSpeedWindowS = 0.1;
constexpr double kFastestRollKt = 300;
constexpr double kStrayMinuteM = 150; // a standing aircraft's minute medians stray no farther

std::vector<Runway> readRunways(const std::filesystem::path& file) {
    std::vector<std::string> lines;
    if (auto r = core::readAllLines(file, lines, 64); std::holds_alternative<std::string>(r))
        throw std::runtime_error(fmt::format("{}: {}", file.string(), std::get<std::string>(r)));
    std::vector<Runway> out;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto& l = lines[i];
        if (l.empty() || l[0] == '#') continue;
        const auto f = split(l);
        if (f.size() != 7)
            throw std::runtime_error(fmt::format("{}:{}: 7 fields wanted", file.string(), i + 1));
        Runway r;
        r.airport = std::string(f[0]);
        r.name = fmt::format("{}/{}", f[1], f[4]);
        r.lat1 = number(f[2]), r.lon1 = number(f[3]), r.lat2 = number(f[5]), r.lon2 = number(f[6]);
        out.push_back(r);
    }
    return out;
}

namespace {

// Metres off the line through a runway's two points.
double centreLineM(const Runway& r, double lat, double lon) {
    const double k = 111132.95 * std::cos(r.lat1 * core::kRadPerDeg);
    const double x2 = (r.lon2 - r.lon1) * k, y2 = (r.lat2 - r.lat1) * 111132.95;
    const double x = (lon - r.lon1) * k, y = (lat - r.lat1) * 111132.95;
    const double len = std::hypot(x2, y2);
    return len > 0 ? std::fabs(x * y2 - y * x2) / len : 1e9;
}

double percentile95(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, v.size() * 95 / 100)];
}

double mean(const std::vector<double>& v) {
    return v.empty() ? 0.0 : std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
}

} // namespace

std::vector<AircraftMotion> motionReport(const Result& result, const std::vector<Runway>& runways) {
    std::vector<AircraftMotion> out;
    // The emulator counts an aircraft on the ground when its altitude is within the CG height
    // (8 ft) and a foot of the ground.
    const auto onGround = [&](const emu::PositionRecord& p) {
        return p.altitudeFt - result.airportElevationFt <= 9.0;
    };
    for (const auto& o : result.objects) {
        AircraftMotion m;
        m.tail = o.tail;
        const auto& p = o.positions;
        for (const auto& f : result.fed)
            if (f.callsign == o.tail) {
                m.hexid = f.hexid;
                break;
            }
        for (const auto& f : result.fed)
            if (f.hexid == m.hexid) m.maxFedSpeedKt = std::max(m.maxFedSpeedKt, f.groundSpeed);
        bool wasAirborne = false;
        std::size_t w = 0;
        for (std::size_t i = 1; i < p.size(); ++i) {
            const auto &a = p[i - 1], &b = p[i];
            const double dt = b.t - a.t;
            if (dt <= 0) continue;
            const double nm = core::distanceNm({a.latitude, a.longitude}, {b.latitude, b.longitude});
            if (nm > m.maxStepNm) m.maxStepNm = nm;
            // Speeds over a tenth of a second at least: the times positions arrive at the simulator
            // are whole frames apart while the engine's own frames are not, which alone makes a
            // steady 210 kt read as 280 between two neighbours.
            while (w + 1 < i && p[i].t - p[w + 1].t >= kSpeedWindowS) ++w;
            if (p[i].t - p[w].t >= kSpeedWindowS) {
                const auto& c = p[w];
                const double kt = core::distanceNm({c.latitude, c.longitude}, {b.latitude, b.longitude}) /
                                  (b.t - c.t) * 3600.0;
                m.maxStepKt = std::max(m.maxStepKt, kt);
                if (onGround(c) && onGround(b) && kt > m.maxStepGroundKt)
                    m.maxStepGroundKt = kt, m.maxStepGroundT = b.t;
            }
            double dh = std::fmod(b.heading - a.heading, 2 * core::kPi);
            if (dh > core::kPi) dh -= 2 * core::kPi;
            if (dh < -core::kPi) dh += 2 * core::kPi;
            const double turn = std::fabs(dh) / core::kRadPerDeg / dt,
                         bank = std::fabs(b.bank) / core::kRadPerDeg;
            const bool ground = onGround(b);
            (ground ? m.maxTurnGroundDegS : m.maxTurnAirDegS) =
                std::max(ground ? m.maxTurnGroundDegS : m.maxTurnAirDegS, turn);
            (ground ? m.maxBankGroundDeg : m.maxBankAirDeg) =
                std::max(ground ? m.maxBankGroundDeg : m.maxBankAirDeg, bank);
            if (!onGround(a)) wasAirborne = true;
            if (!m.touchedDown && wasAirborne && ground && !onGround(a)) {
                m.touchedDown = true;
                m.touchdownT = b.t, m.touchdownLat = b.latitude, m.touchdownLon = b.longitude;
                m.touchdownCentreLineM = 1e9;
                for (const auto& r : runways) {
                    const double d = centreLineM(r, b.latitude, b.longitude);
                    if (d < m.touchdownCentreLineM)
                        m.touchdownCentreLineM = d, m.touchdownRunway = r.airport + " " + r.name;
                }
            }
        }
        std::vector<double> ground, air;
        for (const auto& f : result.fed) {
            if (f.hexid != m.hexid) continue;
            const double t = f.at + 30.0;
            const auto after =
                std::lower_bound(p.begin(), p.end(), t, [](const auto& r, double x) { return r.t < x; });
            if (after == p.begin() || after == p.end()) continue;
            const auto& a = *(after - 1);
            const auto& b = *after;
            const double k = b.t > a.t ? (t - a.t) / (b.t - a.t) : 0;
            const double lat = a.latitude + k * (b.latitude - a.latitude),
                         lon = a.longitude + k * (b.longitude - a.longitude);
            (f.onGround ? ground : air)
                .push_back(core::distanceNm({lat, lon}, {f.latitude, f.longitude}) * 1852.0);
        }
        m.groundPoints = ground.size(), m.airPoints = air.size();
        std::vector<double> pathGround, pathAir;
        for (const auto& f : result.fed) {
            if (f.hexid != m.hexid || p.empty() || f.at + 30 < p.front().t || f.at + 30 > p.back().t)
                continue;
            double best = 1e12;
            const auto from =
                std::lower_bound(p.begin(), p.end(), f.at, [](const auto& r, double x) { return r.t < x; });
            for (auto it = from; it != p.end() && it->t <= f.at + 90; ++it)
                best = std::min(best,
                                core::distanceNm({it->latitude, it->longitude}, {f.latitude, f.longitude}) *
                                    1852.0);
            if (best > 1e11) continue;
            (f.onGround ? pathGround : pathAir).push_back(best);
            m.pathMaxM = std::max(m.pathMaxM, best);
        }
        m.pathP95GroundM = percentile95(pathGround), m.pathP95AirM = percentile95(pathAir);
        m.meanGroundM = mean(ground), m.p95GroundM = percentile95(ground);
        m.meanAirM = mean(air), m.p95AirM = percentile95(air);
        if (!p.empty() && onGround(p.back())) {
            std::size_t i = p.size() - 1;
            while (i > 0 && core::distanceNm({p[i - 1].latitude, p[i - 1].longitude},
                                             {p.back().latitude, p.back().longitude}) *
                                    1852.0 <
                                2.0)
                --i;
            m.cameToRest = true;
            m.restT = p[i].t, m.restLat = p[i].latitude, m.restLon = p[i].longitude;
        }
        out.push_back(std::move(m));
    }
    return out;
}

std::string formatParked(const std::vector<Parked>& parked) {
    std::string out;
    for (const auto& p : parked)
        out += fmt::format("{:8} {} {:8} {:5.2f} m {:4.1f} deg off the stand\n", p.tail,
                           p.atSpawn ? "found at" : "parks on", p.stand, p.offM, p.offDeg);
    return out;
}

std::string formatReport(const std::vector<AircraftMotion>& report) {
    std::string s;
    for (const auto& m : report) {
        s += fmt::format("{} (hexid {}):\n", m.tail, m.hexid);
        s += fmt::format(
            "  largest step {:.1f} m between two positions ({:.0f} kt, on the ground {:.0f} kt at "
            "{:.2f} s; fastest recorded {:.0f} kt)\n",
            m.maxStepNm * 1852.0, m.maxStepKt, m.maxStepGroundKt, m.maxStepGroundT, m.maxFedSpeedKt);
        s += fmt::format(
            "  turn rate at most {:.1f} deg/s on the ground, {:.1f} deg/s in the air; bank at most "
            "{:.1f} deg on the ground, {:.1f} deg in the air\n",
            m.maxTurnGroundDegS, m.maxTurnAirDegS, m.maxBankGroundDeg, m.maxBankAirDeg);
        s += fmt::format(
            "  off the recorded point 30 s later: ground mean {:.1f} m, 95% {:.1f} m ({} points); "
            "air mean {:.1f} m, 95% {:.1f} m ({} points)\n",
            m.meanGroundM, m.p95GroundM, m.groundPoints, m.meanAirM, m.p95AirM, m.airPoints);
        s += fmt::format(
            "  path past the recorded points: 95% within {:.1f} m on the ground, {:.1f} m in the air, "
            "farthest {:.1f} m\n",
            m.pathP95GroundM, m.pathP95AirM, m.pathMaxM);
        if (m.touchedDown)
            s += fmt::format("  touchdown at {:.1f} s, {:.6f},{:.6f}, {:.1f} m off the centre line of {}\n",
                             m.touchdownT, m.touchdownLat, m.touchdownLon, m.touchdownCentreLineM,
                             m.touchdownRunway);
        if (m.cameToRest)
            s += fmt::format("  at rest from {:.1f} s at {:.6f},{:.6f}\n", m.restT, m.restLat, m.restLon);
    }
    return s;
}

// ---- Fidelity -------------------------------------------------------------------------------

namespace {

double metresBetween(double lat1, double lon1, double lat2, double lon2) {
    return core::distanceNm({lat1, lon1}, {lat2, lon2}) * 1852.0;
}

// The middle value (the upper of the two middle ones for an even count); the vector is not empty.
double median(std::vector<double> v) {
    const auto mid = v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2);
    std::nth_element(v.begin(), mid, v.end());
    return *mid;
}

// How steadily an object went up and down more than 100 ft above the field: its steepest
// second, and how often it turned from climbing to descending or back (3 s steps, 30 ft or more).
void airSteadiness(const emu::ObjectRecord& o, double fieldFt, double& steepestFpm, int& bobs) {
    const auto& p = o.positions;
    const auto high = [&](const emu::PositionRecord& r) { return r.altitudeFt > fieldFt + 100; };
    for (std::size_t i = 0, j = 0; i < p.size(); ++i) {
        while (p[i].t - p[j].t > 1.0) ++j;
        const double dt = p[i].t - p[j].t;
        if (dt > 0.9 && high(p[i]) && high(p[j]))
            steepestFpm = std::max(steepestFpm, std::fabs(p[i].altitudeFt - p[j].altitudeFt) / dt * 60);
    }
    int way = 0;
    for (std::size_t i = 0, j = 0; i < p.size(); ++i) {
        if (p[i].t - p[j].t < 3.0) continue;
        if (p[i].t - p[j].t < 4.0 && high(p[i]) && high(p[j])) {
            const double d = p[i].altitudeFt - p[j].altitudeFt;
            const int now = d > 30 ? 1 : d < -30 ? -1 : 0;
            if (now != 0 && way != 0 && now != way) ++bobs;
            if (now != 0) way = now;
        }
        j = i;
    }
}

// Where reports lie: their median place, and how far they lie from it (median and 95th percentile).
struct Spread {
    double latitude = 0, longitude = 0, scatterM = 0, scatterP95M = 0;
};

// The spread of the reports from `from` up to `to` (feed times); there are some.
Spread spreadOf(const std::vector<const FedLine*>& g, double from, double to) {
    std::vector<double> lats, lons, off;
    for (const auto* l : g)
        if (l->at >= from && l->at < to) lats.push_back(l->latitude), lons.push_back(l->longitude);
    Spread s{median(lats), median(lons)};
    for (std::size_t k = 0; k < lats.size(); ++k)
        off.push_back(metresBetween(s.latitude, s.longitude, lats[k], lons[k]));
    s.scatterP95M = percentile95(off);
    s.scatterM = median(std::move(off));
    return s;
}

// An aircraft's ground reports a minute at a time from its first: feed times, from and to, the
// minute's median place and how many reports it holds.
struct Minute {
    double from = 0, to = 0, latitude = 0, longitude = 0;
    std::size_t reports = 0;
};

std::vector<Minute> minutesOf(const std::vector<const FedLine*>& g) {
    std::vector<Minute> out;
    for (std::size_t i = 0; i < g.size();) {
        std::vector<double> lats, lons;
        const double from = g[i]->at;
        for (; i < g.size() && g[i]->at < from + 60; ++i)
            lats.push_back(g[i]->latitude), lons.push_back(g[i]->longitude);
        const std::size_t reports = lats.size();
        out.push_back({from, i < g.size() ? g[i]->at : from + 60, median(std::move(lats)),
                       median(std::move(lons)), reports});
    }
    return out;
}

// The minutes in which an aircraft's ground reports stand, scatter aside: the median place of the
// minute lies within 20 m of the one before. Feed times, from and to, and where it stands.
struct StandingMinute {
    double from = 0, to = 0;
    // Where the aircraft stands: the spread of the reports of the run of standing minutes this
    // one belongs to.
    Spread stand;
};

std::vector<StandingMinute> standingMinutes(const std::vector<const FedLine*>& g,
                                            const std::vector<Minute>& minutes) {
    std::vector<StandingMinute> out;
    for (std::size_t k = 1; k < minutes.size(); ++k) {
        const Minute &before = minutes[k - 1], &m = minutes[k];
        if (m.reports >= 20 && metresBetween(before.latitude, before.longitude, m.latitude, m.longitude) < 20)
            out.push_back({m.from, m.to});
    }
    // A stray of a few minutes between two runs standing at one place is the same standing aircraft.
    for (std::size_t k = 1; k < out.size(); ++k) {
        if (out[k].from == out[k - 1].to || out[k].from - out[k - 1].to > 180) continue;
        std::size_t a = k - 1, b = k + 1;
        while (a > 0 && out[a].from == out[a - 1].to) --a;
        while (b < out.size() && out[b].from == out[b - 1].to) ++b;
        const Spread one = spreadOf(g, out[a].from, out[k - 1].to),
                     other = spreadOf(g, out[k].from, out[b - 1].to);
        if (metresBetween(one.latitude, one.longitude, other.latitude, other.longitude) >= 50) continue;
        out.insert(out.begin() + static_cast<std::ptrdiff_t>(k), StandingMinute{out[k - 1].to, out[k].from});
    }
    for (std::size_t a = 0, b = 0; a < out.size(); a = b) {
        for (b = a + 1; b < out.size() && out[b].from == out[b - 1].to;) ++b;
        const Spread run = spreadOf(g, out[a].from, out[b - 1].to);
        for (std::size_t k = a; k < b; ++k) out[k].stand = run;
    }
    return out;
}

// An aircraft that never goes anywhere (the median of every minute near the median of them all)
// while its reports scatter more than 10 m about it: there it stands.
std::optional<Spread> scatteredStand(const std::vector<const FedLine*>& g,
                                     const std::vector<Minute>& minutes) {
    if (g.size() < 20) return std::nullopt;
    const Spread all = spreadOf(g, g.front()->at, g.back()->at + 1);
    const bool stays = std::all_of(minutes.begin(), minutes.end(), [&](const Minute& m) {
        return metresBetween(all.latitude, all.longitude, m.latitude, m.longitude) < kStrayMinuteM;
    });
    if (!stays || all.scatterM <= 10.0) return std::nullopt;
    return all;
}

const StandingMinute* standingAt(const std::vector<StandingMinute>& standing, double t) {
    for (const auto& m : standing)
        if (t >= m.from && t < m.to) return &m;
    return nullptr;
}

// The recorded speed over the ground that outliers can't make: the median of the speeds the
// positions give over five neighbouring steps, at its largest along the track.
double robustSpeedKt(const std::vector<const FedLine*>& g) {
    // Over at least 3 s, so that jitter of a few metres between reports a second apart does not
    // read as speed.
    std::vector<double> steps;
    for (std::size_t i = 0, j = 1; i < g.size(); ++i) {
        j = std::max(j, i + 1);
        while (j < g.size() && g[j]->at - g[i]->at < 3.0) ++j;
        if (j == g.size()) break;
        const double dt = g[j]->at - g[i]->at;
        if (!g[i]->onGround)
            steps.push_back(g[i]->groundSpeed); // in the air the reported speed is the better one
        else if (dt <= 30)
            steps.push_back(metresBetween(g[i]->latitude, g[i]->longitude, g[j]->latitude, g[j]->longitude) /
                            1852.0 / dt * 3600.0);
    }
    double best = 0;
    for (std::size_t i = 0; i + 5 <= steps.size(); ++i) {
        best = std::max(best, median({steps.begin() + static_cast<std::ptrdiff_t>(i),
                                      steps.begin() + static_cast<std::ptrdiff_t>(i + 5)}));
    }
    return best;
}

// How far the data scatter among themselves, 95th percentile: each point from the mean of its two
// neighbours on each side, or, in a minute whose reports stand, from their median (neighbours
// that repeat one stray place would hide the scatter).
double jitterP95(const std::vector<const FedLine*>& g, const std::vector<StandingMinute>& standing) {
    std::vector<double> d;
    for (std::size_t i = 2; i + 2 < g.size(); ++i) {
        if (const auto* m = standingAt(standing, g[i]->at)) {
            d.push_back(
                metresBetween(m->stand.latitude, m->stand.longitude, g[i]->latitude, g[i]->longitude));
            continue;
        }
        double lat = 0, lon = 0;
        for (std::size_t k : {i - 2, i - 1, i + 1, i + 2}) lat += g[k]->latitude, lon += g[k]->longitude;
        d.push_back(metresBetween(lat / 4, lon / 4, g[i]->latitude, g[i]->longitude));
    }
    return percentile95(d);
}

} // namespace

std::vector<Fidelity> fidelity(const std::string& scenario, const Config& config, const Result& result,
                               const std::vector<Runway>& runways) {
    std::vector<Fidelity> out;
    std::map<std::uint32_t, std::vector<const FedLine*>> byHexid;
    for (const auto& f : result.fed) byHexid[f.hexid].push_back(&f);
    const auto report = motionReport(result, runways);
    const refdata::AirportRecord* field = refdata::airportByName(config.airport);
    for (const auto& [hexid, lines] : byHexid) {
        Fidelity v;
        v.scenario = scenario, v.hexid = hexid, v.tail = lines.front()->callsign;
        std::set<std::string, std::less<>> callsigns;
        for (const auto* l : lines) callsigns.insert(l->callsign);
        std::vector<const FedLine*> ground;
        for (const auto* l : lines)
            if (l->onGround) ground.push_back(l);
        // A report or two in the air among ground reports are a broken altitude, not a flight.
        v.dataOnGround = lines.size() - ground.size() < 3;
        // Near the ground: the roll-out and the take-off run go as fast as the air just above it.
        std::vector<const FedLine*> low;
        for (const auto* l : lines)
            if (l->onGround || l->altitudeFt < result.airportElevationFt + 500) low.push_back(l);
        v.robustGroundKt = robustSpeedKt(low);
        const auto minutes = minutesOf(ground);
        const auto standing = standingMinutes(ground, minutes);
        v.jitterP95M = jitterP95(ground, standing);
        // Ground reports that hop faster than anything rolls (a robust speed, not one outlier) give
        // no track to follow or rest on: only the climb bar is left for them.
        const bool groundUnusable = v.dataOnGround && v.robustGroundKt > kFastestRollKt;
        const auto stand = v.dataOnGround && !groundUnusable ? scatteredStand(ground, minutes) : std::nullopt;
        const FedLine& last = *lines.back();
        v.dataEndAtRest =
            last.onGround && ground.size() >= 3 &&
            metresBetween(ground[ground.size() - 3]->latitude, ground[ground.size() - 3]->longitude,
                          last.latitude, last.longitude) < 5.0;
        // Where the data come to rest: their last point, or, where the reports scatter about a
        // standing aircraft, their median (of them all when it never goes anywhere).
        double restLat = last.latitude, restLon = last.longitude;
        if (stand)
            restLat = stand->latitude, restLon = stand->longitude;
        else if (!standing.empty() && standing.back().to >= last.at && standing.back().stand.scatterM > 5.0)
            restLat = standing.back().stand.latitude, restLon = standing.back().stand.longitude;
        // A landing: the data begin in the air and end on the ground. (The ground flags of some
        // feeds flip during take-off runs, so a change of flag alone says nothing.)
        v.landing = !lines.front()->onGround && last.onGround;
        for (std::size_t i = 0; i < result.objects.size(); ++i) {
            const auto& o = result.objects[i];
            if (!callsigns.contains(o.tail)) continue;
            ++v.objects;
            for (const auto& p : o.positions)
                v.highestAboveAirportFt =
                    std::max(v.highestAboveAirportFt, p.altitudeFt - result.airportElevationFt);
            airSteadiness(o, result.airportElevationFt, v.airSteepestFpm, v.airBobs);
            for (const auto& m : standing)
                for (std::size_t k = 1; k < o.positions.size(); ++k) {
                    const auto &a = o.positions[k - 1], &b = o.positions[k];
                    if (a.t >= m.from + 30 && b.t <= m.to + 30)
                        v.drivenWhileDataStandM +=
                            metresBetween(a.latitude, a.longitude, b.latitude, b.longitude);
                }
            const auto& m = report[i];
            v.groundStepKt = std::max(v.groundStepKt, m.maxStepGroundKt);
            v.groundPathP95M = std::max(v.groundPathP95M, m.pathP95GroundM);
            if (m.touchedDown && v.touchdownCentreLineM < 0) v.touchdownCentreLineM = m.touchdownCentreLineM;
            if (m.cameToRest) v.restOffM = metresBetween(m.restLat, m.restLon, restLat, restLon);
        }
        const auto broke = [&](std::string text) { v.broken.push_back(std::move(text)); };
        const auto unmatched = std::find_if(result.noMatch.begin(), result.noMatch.end(), [&](const auto& m) {
            return m.starts_with(v.tail) && (m.size() == v.tail.size() || m[v.tail.size()] == ' ');
        });
        if (v.objects == 0 && unmatched != result.noMatch.end())
            v.why = fmt::format("no installed livery may show it (listed as \"{}\")", *unmatched);
        else if (v.objects == 0)
            broke("never created");
        if (groundUnusable)
            v.why = fmt::format("its ground reports hop at a robust {:.0f} kt: no track to follow or rest on",
                                v.robustGroundKt);
        if (v.objects > 1 && !groundUnusable) {
            // An aircraft that flies out of the range the feed is read in is removed on purpose, and
            // made again when it comes back.
            std::vector<const emu::ObjectRecord*> mine;
            for (const auto& o : result.objects)
                if (callsigns.contains(o.tail)) mine.push_back(&o);
            std::sort(mine.begin(), mine.end(), [](auto* a, auto* b) { return a->createdAt < b->createdAt; });
            const double radiusNm = params::gParams.radiusNm.load(std::memory_order_relaxed);
            int leftRange = 0;
            for (std::size_t k = 0; k + 1 < mine.size(); ++k)
                if (std::any_of(lines.begin(), lines.end(), [&](const FedLine* l) {
                        return l->at >= mine[k]->removedAt - 60 && l->at <= mine[k + 1]->createdAt && field &&
                               core::distanceNm(field->latitude, field->longitude, l->latitude,
                                                l->longitude) > radiusNm;
                    }))
                    ++leftRange;
            if (leftRange + 1 < v.objects)
                broke(fmt::format("{} objects", v.objects));
            else
                v.why = fmt::format("{} objects: it left the {:.0f} nm range {} times", v.objects, radiusNm,
                                    leftRange);
        }
        const double stepBar = std::max(40.0, 1.3 * v.robustGroundKt);
        if (v.groundStepKt > stepBar)
            broke(fmt::format("ground step {:.0f} kt > {:.0f}", v.groundStepKt, stepBar));
        // An aircraft that stands the whole recording while its reports scatter tens of metres about
        // it has no track to follow: it is judged by how far it is shown from their median, against
        // how far they scatter from it, instead of by its path past every scattered report.
        const double pathBar = std::max(10.0, v.jitterP95M);
        double restBarM = 5.0;
        const bool standsScattered = stand && v.restOffM >= 0;
        if (standsScattered) {
            // Where the reports put it is known to within their median scatter.
            std::vector<double> shownOff;
            for (const auto& o : result.objects)
                if (callsigns.contains(o.tail))
                    for (const auto& q : o.positions)
                        shownOff.push_back(
                            metresBetween(stand->latitude, stand->longitude, q.latitude, q.longitude));
            const double shownP95M = shownOff.empty() ? 0.0 : percentile95(shownOff);
            const double barM = std::max(10.0, stand->scatterM);
            restBarM = std::max(restBarM, stand->scatterM);
            if (shownP95M > barM)
                broke(fmt::format("shown {:.0f} m from where its reports stand > {:.0f}", shownP95M, barM));
            v.why = fmt::format("stands, its reports scattering {:.0f} m (95% {:.0f} m) about their median: "
                                "shown within {:.0f} m of it (95% of the time), at rest {:.1f} m from it",
                                stand->scatterM, stand->scatterP95M, shownP95M, v.restOffM);
        }
        if (!ground.empty() && !groundUnusable && !standsScattered && v.objects > 0 &&
            v.groundPathP95M > pathBar)
            broke(fmt::format("ground path {:.1f} m > {:.1f}", v.groundPathP95M, pathBar));
        if (v.dataOnGround && v.highestAboveAirportFt > 100)
            broke(fmt::format("climbed {:.0f} ft with data on the ground", v.highestAboveAirportFt));
        if (v.dataEndAtRest && !groundUnusable && v.objects > 0 &&
            !(v.restOffM >= 0 && v.restOffM <= restBarM))
            broke(v.restOffM < 0 ? std::string("never at rest")
                                 : fmt::format("rests {:.1f} m off", v.restOffM));
        // An aircraft is made on one side of a touchdown only: when its first reports, taken 30 s
        // ahead, already hold the touchdown, it is made on the runway, rolling out.
        const auto firstGround =
            std::find_if(lines.begin(), lines.end(), [](const FedLine* l) { return l->onGround; });
        const double aheadS = feed::kDelayTicks / 100.0;
        const bool landedInsideTheDelay = v.landing && v.objects > 0 && v.touchdownCentreLineM < 0 &&
                                          !lines.empty() && !lines.front()->onGround &&
                                          firstGround != lines.end() &&
                                          (*firstGround)->at - lines.front()->at < aheadS;
        if (landedInsideTheDelay)
            v.why =
                fmt::format("landing not shown: its data begin {:.0f} s before touchdown, within the {:.0f} "
                            "s traffic is shown behind",
                            (*firstGround)->at - lines.front()->at, aheadS);
        else if (v.landing && v.objects > 0 &&
                 !(v.touchdownCentreLineM >= 0 && v.touchdownCentreLineM <= 15.0))
            broke(v.touchdownCentreLineM < 0
                      ? std::string("no touchdown shown")
                      : fmt::format("touchdown {:.1f} m off the centre line", v.touchdownCentreLineM));
        out.push_back(std::move(v));
    }
    return out;
}

std::string formatTrack(const Result& result, double from, double to) {
    std::string s;
    for (const auto& f : result.fed)
        if (f.at >= from - 30 && f.at <= to)
            s += fmt::format("fed {:9.2f} {} {:.6f},{:.6f} {:.0f} ft {:.1f} kt{}\n", f.at, f.callsign,
                             f.latitude, f.longitude, f.altitudeFt, f.groundSpeed, f.onGround ? " gnd" : "");
    for (const auto& o : result.objects) {
        const emu::PositionRecord* prev = nullptr;
        for (const auto& p : o.positions) {
            if (p.t >= from && p.t <= to)
                s += fmt::format(
                    "pos {:9.2f} {} {:.6f},{:.6f} {:.0f} ft hdg {:.0f} step {:.2f} m\n", p.t, o.tail,
                    p.latitude, p.longitude, p.altitudeFt, p.heading / core::kRadPerDeg,
                    prev ? metresBetween(prev->latitude, prev->longitude, p.latitude, p.longitude) : 0.0);
            prev = &p;
        }
    }
    return s;
}

std::string formatFidelity(const std::vector<Fidelity>& lines) {
    std::string s = fmt::format("{:<22} {:<9} {:>3} {:>14} {:>14} {:>9} {:>9} {:>12} {:>9} {:>7}  {}\n",
                                "scenario", "aircraft", "obj", "gnd step/bar", "path/jitter m", "stand m",
                                "top ft", "air fpm/bobs", "rest m", "tdown m", "verdict");
    for (const auto& v : lines)
        s += fmt::format("{:<22} {:<9} {:>3} {:>6.0f}/{:<7.0f} {:>6.1f}/{:<7.1f} {:>9.0f} {:>9.0f} "
                         "{:>7.0f}/{:<4} {:>9} {:>7}  {}\n",
                         v.scenario, v.tail, v.objects, v.groundStepKt,
                         std::max(40.0, 1.3 * v.robustGroundKt), v.groundPathP95M, v.jitterP95M,
                         v.drivenWhileDataStandM, v.highestAboveAirportFt, v.airSteepestFpm, v.airBobs,
                         v.dataEndAtRest ? fmt::format("{:.1f}", v.restOffM) : std::string("-"),
                         v.landing ? fmt::format("{:.1f}", v.touchdownCentreLineM) : std::string("-"),
                         !v.broken.empty() ? fmt::format("{}", fmt::join(v.broken, "; "))
                         : v.why.empty()   ? std::string("ok")
                                           : v.why);
    return s;
}

std::vector<std::string> prepareHome(const std::filesystem::path& input,
                                     const std::filesystem::path& community,
                                     const std::filesystem::path& work) {
    namespace fs = std::filesystem;
    fs::create_directories(work / "input");
    core::gPaths.programFolder = work;
    core::gPaths.dataFolder = work;
    for (const char* name : {"dbase.enc", "airports.enc", "AIG-regcodes.enc"})
        fs::copy_file(input / name, work / "input" / name, fs::copy_options::overwrite_existing);
    if (!refdata::loadDbase(work / "input/dbase.enc"))
        throw std::runtime_error("the reference database can't be read");
    refdata::loadAirports(work / "input/airports.enc");
    liveries::gStore.reset();
    liveries::clearReports();
    liveries::clearTitleSet();
    liveries::resetMatching();
    liveries::readDontUseTitles();
    if (!liveries::scanFolders(liveries::collectAutomaticFolders(community)))
        throw std::runtime_error(fmt::format("the liveries of {} can't be scanned", community.string()));
    liveries::processLiveries();
    return emu::titlesUnder(community);
}

int scenarioMain(const std::vector<std::string>& args, const fs::path& programFolder) {
    std::vector<fs::path> files;
    bool report = false, fidelityTable = false;
    CLI::App app{
        "Runs recordings against the emulated simulator on virtual time and prints what was created.",
        "orvelline-scenario"};
    app.add_option("FILE", files, "scenario files (see data/scenarios and data/fidelity)")->required();
    app.add_flag("--report", report, "also the motion report of every aircraft");
    fs::path keepLogs;
    app.add_option("--keep-logs", keepLogs, "copy each run's Log.txt into this folder as <scenario>.log");
    std::vector<double> track;
    app.add_option("--track", track,
                   "FROM TO: every shown position and fed line between these virtual seconds")
        ->expected(2);
    app.add_flag("--fidelity", fidelityTable,
                 "a line per aircraft with the bars it must clear; exit code 1 when one is broken");
    try {
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    }
    const fs::path work = fs::temp_directory_path() / fmt::format("orvelline-scenario-{}", ::getpid());
    std::vector<Fidelity> table;
    int status = 0;
    for (const auto& file : files) {
        try {
            std::vector<std::string> text;
            if (auto r = core::readAllLines(file, text, 64); std::holds_alternative<std::string>(r))
                throw std::runtime_error("the file cannot be opened");
            std::string whole;
            for (const auto& l : text) whole += l + "\n";
            const auto j = nlohmann::json::parse(whole);
            const fs::path base = file.parent_path();
            const auto path = [&](const char* key, const char* fallback) {
                const fs::path p = j.value(key, std::string(fallback));
                return p.is_absolute() ? p : base / p;
            };
            Config c;
            c.recording = path("recording", "");
            c.airport = j.at("airport").get<std::string>();
            c.fromSeconds = j.value("from", 0.0);
            c.toSeconds = j.value("to", 1e12);
            c.runSeconds = j.value("run", 600.0);
            c.qnh = j.value("qnh", 1013);
            c.overlayFlights = j.value("overlay", false);
            c.callsigns = j.value("callsigns", std::vector<std::string>{});
            if (const auto b = j.find("burst"); b != j.end()) {
                c.burst.fromSeconds = b->value("from", 0.0);
                c.burst.toSeconds = b->value("to", 0.0);
                c.burst.linesPerSecond = b->value("linesPerSecond", 0);
                c.burst.aircraft = std::max(1, b->value("aircraft", 500));
            }
            fs::create_directories(work);
            core::openLog(work / "Log.txt");
            c.titles = prepareHome(programFolder / "input", path("community", "../liveries/Community"), work);
            const auto result = run(c);
            if (!result.error.empty()) throw std::runtime_error(result.error);
            const auto runways = readRunways(path("runways", "../recordings/runways.csv"));
            if (fidelityTable) {
                auto lines = fidelity(file.stem().string(), c, result, runways);
                table.insert(table.end(), lines.begin(), lines.end());
            } else {
                std::cout << fmt::format("{}: {} s of {} at {}; {} objects created\n", file.string(),
                                         c.runSeconds, c.recording.filename().string(), c.airport,
                                         result.objects.size());
                for (const auto& o : result.objects)
                    std::cout << fmt::format("  {} '{}' created at {:.1f} s, {}, {} positions, {} events\n",
                                             o.tail, o.title, o.createdAt,
                                             o.removedAt >= 0
                                                 ? fmt::format("removed at {:.1f} s", o.removedAt)
                                                 : std::string("still there"),
                                             o.positions.size(), o.events.size());
            }
            if (report)
                std::cout << formatReport(motionReport(result, runways)) << formatParked(result.parked);
            if (track.size() == 2) std::cout << formatTrack(result, track[0], track[1]);
        } catch (const std::exception& e) {
            std::cerr << fmt::format("scenario {}: {}\n", file.string(), e.what());
            status = 1;
        }
        core::closeLog();
        std::error_code ec;
        if (!keepLogs.empty()) {
            fs::create_directories(keepLogs, ec);
            fs::copy_file(work / "Log.txt", keepLogs / (file.stem().string() + ".log"),
                          fs::copy_options::overwrite_existing, ec);
        }
        fs::remove_all(work, ec);
    }
    if (fidelityTable) {
        std::cout << formatFidelity(table);
        const auto broken =
            std::count_if(table.begin(), table.end(), [](const Fidelity& v) { return !v.broken.empty(); });
        std::cout << fmt::format("{} aircraft, {} break a bar\n", table.size(), broken);
        if (broken > 0) status = 1;
    }
    return status;
}

} // namespace orv::scenario
