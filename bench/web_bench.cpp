// The web page's side of the engine: a status snapshot of 1,000 live aircraft and 300 statics at
// EHAM's 199 stands, and its JSON.
#include <random>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <pugixml.hpp>
#include <unistd.h>

#include "airportfile/airportfile.h"
#include "fill.h"
#include "live/internal.h"
#include "parking/parking.h"
#include "recording.h"
#include "scenario.h"
#include "sim/sim.h"
#include "ui/ui.h"

namespace {

namespace fs = std::filesystem;
using namespace orv;

void setUp() {
    static bool done = false;
    if (done) return;
    done = true;
    const fs::path dir = fs::temp_directory_path() / fmt::format("orv-web-bench-{}", ::getpid());
    airportfile::gPark.reset();
    airportfile::gPark.code = refdata::AirportCode("EHAM");
    airportfile::gPark.stands = orv::bench::ehamStands(dir);
    airportfile::numberAndLinkStands(airportfile::gPark.stands);
    std::error_code ec;
    fs::remove_all(dir, ec);
}

void BM_StatusSnapshotAndJson1000Live300Statics(benchmark::State& state) {
    setUp();
    std::mt19937 rng(42);
    orv::bench::fillLiveTable(rng, 300);
    for (auto& ac : live::gEngine.liveTable) ac.liveryTitle = "AIG Boeing 737-900 Delta Air Lines N899DN";
    auto& statics = parking::gParking.statics;
    statics.clear();
    const auto& stands = airportfile::gPark.stands;
    for (std::uint32_t i = 0; i < 300; ++i) {
        parking::StaticAc a;
        a.hexid = i + 1;
        a.stand = static_cast<std::uint32_t>(i % stands.size()) + 1;
        a.reg = fmt::format("PH-B{:02}", i % 100), a.cs = fmt::format("KLM{}", 1000 + i);
        a.type = refdata::modelId("B738");
        a.latitude = stands[a.stand - 1].latitude, a.longitude = stands[a.stand - 1].longitude;
        a.objectId = 50000 + i, a.state = 2;
        a.title = "AIG Boeing 737-800 KLM";
        statics.push_back(std::move(a));
    }
    ui::StatusSnapshot snap;
    snap.reserve(2048, 4096);
    std::string json;
    json.reserve(1 << 20);
    for (auto _ : state) {
        ui::fillSnapshot(snap);
        json.clear();
        ui::appendSnapshotJson(json, snap, true);
        benchmark::DoNotOptimize(json.data());
    }
    state.counters["aircraft"] = static_cast<double>(snap.aircraft.size());
    state.counters["stands"] = static_cast<double>(snap.stands.size());
    state.counters["json_kB"] = static_cast<double>(json.size()) / 1000.0;
    statics.clear();
    live::reset();
    sim::reset();
}
BENCHMARK(BM_StatusSnapshotAndJson1000Live300Statics)->Unit(benchmark::kMillisecond);

} // namespace
