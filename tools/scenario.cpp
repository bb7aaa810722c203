#include "scenario.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <map>

#include <fmt/format.h>

#include "app/app.h"
#include "feed/feed.h"
#include "live/live.h"
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
    gTrafficReader.clearForRun();
    gf_setAcceptTraffic(false);
    {
        std::lock_guard lock(gTraffic.trafficLock);
        gTraffic.trafficQueue.clear();
    }
    gRun.reset();
}

} // namespace

Result run(const Config& config) {
    Result result;
    std::vector<std::string> raw;
    if (auto r = gf_readAllLines(config.recording, raw, 4096); std::holds_alternative<std::string>(r)) {
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
        lines.push_back({t - start - config.fromSeconds, std::move(text)});
    }
    std::stable_sort(lines.begin(), lines.end(),
                     [](const Line& a, const Line& b) { return a.time < b.time; });
    const AirportRecord* airport = gf_airportByName(config.airport);
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
    emu::Emulator emulator(ec);

    resetAll();
    live::reserveContainers();
    TrafficArea area;
    area.reference = {airport->latitude, airport->longitude};
    area.airport = area.reference;
    area.referenceElevation = airport->elevation;
    gTrafficReader.setArea(area);
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
    const auto frames = static_cast<std::int64_t>(std::llround(config.runSeconds * 100));
    for (std::int64_t k = 0; k < frames; ++k) {
        const double t = static_cast<double>(k) / 100.0;
        sim::pollOnce();
        pump();
        if (gRun.simRunning) {
            if (!asked) {
                sim::requestUserOnGround();
                gf_setAcceptTraffic(true);
                asked = true;
            }
            for (; next < lines.size() && lines[next].time <= t; ++next) {
                gTrafficReader.decode(lines[next].text);
                const auto f = split(lines[next].text);
                FedLine fed;
                fed.at = t;
                std::from_chars(f[1].data(), f[1].data() + f[1].size(), fed.hexid);
                fed.latitude = number(f[2]), fed.longitude = number(f[3]), fed.altitudeFt = number(f[4]);
                fed.onGround = fed.altitudeFt <= 0;
                result.fed.push_back(fed);
            }
            live::engineFrame();
            if (config.onFrame) config.onFrame(t);
        }
        sim::pollOnce();
        pump();
        emulator.advanceTo(t + 0.01);
    }
    result.objects = emulator.objects();
    emulator.quit();
    serverEnd->close();
    for (int i = 0; i < 10 && sim::pollOnce() != sim::Pass::End; ++i) pump();
    sim::setApiFactory({});
    resetAll();
    return result;
}

} // namespace orv::scenario
