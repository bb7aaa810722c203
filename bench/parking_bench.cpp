// Static parking: the full calculation and the half-hourly adjustment at EHAM with a dense traffic
// week, reading a large airport file, and the engine frame while statics come and go.
#include <algorithm>
#include <chrono>
#include <numeric>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <pugixml.hpp>

#include "airportfile/airportfile.h"
#include "core/core.h"
#include "fill.h"
#include "live/internal.h"
#include "params/params.h"
#include "parking/parking.h"
#include "platform/platform.h"
#include "recording.h"
#include "scenario.h"
#include "sim/sim.h"

namespace {

namespace fs = std::filesystem;
namespace af = orv::airportfile;
using namespace orv;

struct Home {
    fs::path dir;
    std::vector<af::Stand> eham;
    Home() {
        dir = fs::temp_directory_path() / fmt::format("orv-parking-bench-{}", ::getpid());
        eham = orv::bench::ehamStands(dir);
        // Denser than the made-up week: each option again under other names two hours later.
        std::size_t options = 0;
        for (const auto& s : eham) options += s.options.size();
        for (int round = 1; options < 20000; ++round)
            for (auto& s : eham) {
                const auto n = s.options.size();
                for (std::size_t i = 0; i < n && options < 20000; ++i) {
                    auto o = s.options[i];
                    o.reg += fmt::format("-{}", round);
                    o.cs += fmt::format("{}", round);
                    o.hours = af::HourBits(o.hours.word() << 4);
                    if (o.hours.empty()) continue;
                    o.number = static_cast<std::uint32_t>(s.options.size() + 1);
                    s.options.push_back(std::move(o));
                    ++options;
                }
            }
        af::numberAndLinkStands(eham);
        params::set(params::parameter<params::ChoiceIntParameter>("parking_percentage"), 100,
                    params::Save::no);
    }
    ~Home() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};
} // namespace

namespace orv::bench {

std::vector<af::Stand> ehamStands(const fs::path& dir) {
    (void)scenario::prepareHome(fs::path(ORV_PROGRAM_DIR) / "input",
                                fs::path(ORV_SOURCE_DIR) / "data/liveries/Community", dir);
    if (tools::airportsMain("site",
                            {(dir / "site").string(), "--data", std::string(ORV_SOURCE_DIR) + "/data"}))
        throw std::runtime_error("no data site");
    pugi::xml_document doc;
    if (!doc.load_file((dir / "site/downloads/MSFS/archive/stock/EHAM.xml").c_str()))
        throw std::runtime_error("no EHAM.xml");
    return af::readStands(doc, 1);
}

} // namespace orv::bench

namespace {

Home& home() {
    static Home h;
    return h;
}

// Wednesday 14:00 UTC.
platform::VirtualClock wednesday{platform::UtcTime{std::chrono::seconds{1738764000}}};

void loadEham() {
    parking::reset();
    af::gPark.reset();
    af::gPark.code = refdata::AirportCode("EHAM");
    af::gPark.stands = home().eham;
}

void BM_CalcStaticsEham(benchmark::State& state) {
    platform::setClock(&wednesday);
    loadEham();
    std::size_t options = 0;
    for (const auto& s : af::gPark.stands) options += s.options.size();
    for (auto _ : state) {
        parking::gParking.stack.clear();
        parking::calcStatics();
        benchmark::DoNotOptimize(parking::gParking.stack.data());
    }
    state.counters["stands"] = static_cast<double>(af::gPark.stands.size());
    state.counters["options"] = static_cast<double>(options);
    state.counters["placed"] = static_cast<double>(parking::gParking.stack.size());
    platform::setClock(nullptr);
}
BENCHMARK(BM_CalcStaticsEham)->Unit(benchmark::kMillisecond);

// Half an hour after the calculation, with every item standing as an active static.
void BM_AdjustStaticsEham(benchmark::State& state) {
    platform::setClock(&wednesday);
    loadEham();
    parking::calcStatics();
    std::vector<parking::StaticAc> standing;
    std::uint32_t hexid = 0;
    for (const auto& i : parking::gParking.stack) {
        parking::StaticAc a;
        a.hexid = ++hexid, a.objectId = 5000 + hexid, a.state = 2;
        a.stand = i.stand, a.reg = i.reg, a.cs = i.cs, a.airline = i.airline, a.type = i.type;
        const auto& s = af::gPark.stands[i.stand - 1];
        a.latitude = s.latitude, a.longitude = s.longitude;
        a.startDay = 3, a.startHalfHour = 28 - i.offset;
        standing.push_back(a);
    }
    wednesday.advance(std::chrono::minutes(30));
    std::size_t removed = 0;
    for (auto _ : state) {
        state.PauseTiming();
        parking::gParking.statics = standing;
        parking::gParking.removals.clear();
        state.ResumeTiming();
        parking::adjustStatics();
        removed = parking::gParking.removals.size();
    }
    state.counters["standing"] = static_cast<double>(standing.size());
    state.counters["to_remove"] = static_cast<double>(removed);
    state.counters["to_add"] = static_cast<double>(parking::gParking.stack.size());
    wednesday.advance(-std::chrono::minutes(30));
    platform::setClock(nullptr);
}
BENCHMARK(BM_AdjustStaticsEham)->Unit(benchmark::kMillisecond);

// An airport file of 1,000 stands with 50 options each, parsed, read and its stands linked.
void BM_ReadAirportFile1000Stands(benchmark::State& state) {
    const fs::path file = home().dir / "big.xml";
    af::Apf apf;
    apf.code = refdata::AirportCode("EHAM");
    apf.publisher = "stock";
    for (int i = 0; i < 1000; ++i) {
        af::Stand s;
        s.id = fmt::format("S{}", i);
        s.latitude = 52.3 + (i / 40) * 0.0006, s.longitude = 4.76 + (i % 40) * 0.0009;
        s.radiusNm = 30 * af::kNmPerMetre;
        for (int k = 0; k < 50; ++k) {
            af::StandOption o;
            o.reg = fmt::format("PH-{}{}", i, k);
            o.airline = refdata::airlineId("KLM"), o.type = refdata::modelId("B738");
            o.cs = fmt::format("KLM{}", k), o.cs2 = fmt::format("KLM{}", k + 1);
            o.day = static_cast<std::uint32_t>(k % 7 + 1), o.real = 1,
            o.number = static_cast<std::uint32_t>(k + 1);
            for (int h = k % 40; h < k % 40 + 5; ++h) o.hours.set(h);
            s.options.push_back(o);
        }
        apf.stands.push_back(std::move(s));
    }
    if (!af::writeApf(apf, file, af::WriteMode::Archived, af::SimVersion::Msfs2020))
        throw std::runtime_error("cannot write");
    std::size_t options = 0;
    for (auto _ : state) {
        pugi::xml_document doc;
        doc.load_file(file.c_str());
        auto stands = af::readStands(doc, 1);
        af::numberAndLinkStands(stands);
        options = 0;
        for (const auto& s : stands) options += s.options.size();
        benchmark::DoNotOptimize(stands.data());
    }
    state.counters["options"] = static_cast<double>(options);
    state.counters["file_MB"] = static_cast<double>(fs::file_size(file)) / 1e6;
}
BENCHMARK(BM_ReadAirportFile1000Stands)->Unit(benchmark::kMillisecond);

// A third of the live aircraft on the ground at EHAM, each stopped 60 to 80 m from a stand: near
// enough for a just-landed aircraft to look through the stands and their schedules, too far to
// park, so that every search runs the whole list.
void lookingForStands(std::mt19937& rng, std::size_t count) {
    std::uniform_int_distribution<std::size_t> pick(0, af::gPark.stands.size() - 1);
    std::uniform_real_distribution<double> bearing(0, 2 * 3.141592653589793), metres(60, 80);
    for (std::size_t i = 0; i < count; ++i) {
        live::LiveAc& ac = live::gEngine.liveTable[i];
        const auto& s = af::gPark.stands[pick(rng)];
        const double b = bearing(rng), m = metres(rng);
        const double lat = s.latitude + m / 111132.95 * std::cos(b);
        const double lon = s.longitude + m / (111132.95 * std::cos(lat * core::kRadPerDeg)) * std::sin(b);
        ac.phase = live::Phase::Taxi;
        ac.onGround = true;
        ac.lat = lat, ac.lon = lon, ac.alt = -11;
        ac.extrapolateCount = 1;
        ac.landingFlags.justLanded = true;
        ac.stream.clear();
        live::Sample at;
        at.lat = lat, at.lon = lon, at.alt = -11, at.stationary = true;
        at.tick = 0;
        ac.stream.push_back(at);
        at.tick = 100;
        ac.stream.push_back(at);
    }
}

// The engine frame with 1,000 live aircraft while 300 statics are made, one each 50 frames, and
// removed again; with `searching` a third of the aircraft look for a stand at EHAM once a second,
// as new reports of a stopped aircraft make them.
void engineFrameWithStatics(benchmark::State& state, bool searching) {
    platform::setClock(&wednesday);
    loadEham();
    params::set(params::parameter<params::ChoiceIntParameter>("MAX_PARK_SEL"), 500, params::Save::no);
    std::mt19937 rng(42);
    orv::bench::fillLiveTable(rng, 0);
    const std::size_t searchers = searching ? live::gEngine.liveTable.size() / 3 : 0;
    lookingForStands(rng, searchers);
    std::size_t searches = 0;
    parking::calcStatics();
    auto& P = parking::gParking;
    while (P.stack.size() < 300 && !P.stack.empty()) P.stack.push_back(P.stack[P.stack.size() % 50]);
    P.stack.resize(std::min<std::size_t>(P.stack.size(), 300));
    P.statics.reserve(512);
    std::vector<double> times;
    times.reserve(1 << 16);
    std::size_t made = 0;
    for (auto _ : state) {
        // Each searcher's stream end counts as new once every 100 frames.
        for (std::size_t i = times.size() % 100; i < searchers; i += 100) {
            live::LiveAc& ac = live::gEngine.liveTable[i];
            if (ac.phase != live::Phase::Taxi) continue;
            ac.lastCheckedPos = {};
            ++searches;
        }
        const auto start = std::chrono::steady_clock::now();
        live::engineFrame();
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(end - start).count());
        times.push_back(std::chrono::duration<double>(end - start).count());
        // The simulator makes each at once and is asked to remove it 100 frames later.
        for (auto& a : P.statics)
            if (a.objectId == 0 && a.state == 1) {
                parking::onStaticCreated(a.hexid, 70000 + a.hexid);
                ++made;
            }
        if (times.size() % 100 == 0 && !P.statics.empty()) {
            P.removals.push_back(P.statics.front().objectId);
            (void)parking::onObjectRemoved(P.statics.front().objectId);
        }
    }
    std::sort(times.begin(), times.end());
    state.counters["p99_us"] = times[times.size() * 99 / 100] * 1e6;
    state.counters["max_us"] = times.back() * 1e6;
    state.counters["statics_made"] = static_cast<double>(made);
    if (searching) {
        std::size_t parked = 0;
        for (std::size_t i = 0; i < searchers; ++i)
            parked += live::gEngine.liveTable[i].phase != live::Phase::Taxi;
        state.counters["stand_searches"] = static_cast<double>(searches);
        state.counters["searchers_parked"] = static_cast<double>(parked);
    }
    live::reset();
    sim::reset();
    parking::reset();
    platform::setClock(nullptr);
}
void BM_EngineFrame1000LiveWhile300StaticsComeAndGo(benchmark::State& state) {
    engineFrameWithStatics(state, false);
}
void BM_EngineFrame1000LiveAThirdLookingForStandsAt300Statics(benchmark::State& state) {
    engineFrameWithStatics(state, true);
}
BENCHMARK(BM_EngineFrame1000LiveAThirdLookingForStandsAt300Statics)
    ->UseManualTime()
    ->Iterations(16000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EngineFrame1000LiveWhile300StaticsComeAndGo)
    ->UseManualTime()
    ->Iterations(16000)
    ->Unit(benchmark::kMicrosecond);

} // namespace
