// The engine frame with 1,000 live aircraft in flight: its mean and 99th-percentile time, and
// how many allocations a frame makes (none are wanted).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <new>
#include <numeric>
#include <optional>
#include <random>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "core/core.h"
#include "core/geo.h"
#include "feed/feed.h"
#include "fill.h"
#include "live/internal.h"
#include "params/params.h"
#include "refdata/refdata.h"
#include "sim/sim.h"

// The global allocation functions are replaced to count; GCC takes malloc/free inside them for a
// mismatch with new/delete elsewhere.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

namespace {
std::atomic<bool> countAllocations{false};
std::atomic<std::uint64_t> allocations{0};
} // namespace

void* operator new(std::size_t n) {
    if (countAllocations.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

namespace fs = std::filesystem;
using namespace orv;
using namespace orv::live;

constexpr int kAircraft = 1000;
constexpr double kCentreLat = 44.882, kCentreLon = -93.2218;

struct Home {
    fs::path dir;
    Home() {
        dir = fs::temp_directory_path() / fmt::format("orv-engine-bench-{}", ::getpid());
        fs::create_directories(dir / "input");
        core::gPaths.programFolder = dir;
        core::gPaths.dataFolder = dir;
        fs::copy_file(fs::path(ORV_PROGRAM_DIR) / "input/dbase.enc", dir / "input/dbase.enc");
        if (!refdata::loadDbase(dir / "input/dbase.enc")) throw std::runtime_error("no dbase");
    }
    ~Home() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};

} // namespace

namespace orv::bench {

// Aircraft spread over 40 nm, each on a straight track with a point every 8 s for 20 minutes; the
// first `taxiing` of them on the ground instead, zig-zagging at 15 kt with a turn every 100 m, so
// that every segment is a curve.
void fillLiveTable(std::mt19937& rng, int taxiing) {
    live::reset();
    reserveContainers();
    sim::reset();
    core::gRun.engineTick = 0;
    std::uniform_real_distribution<double> offset(-0.6, 0.6), heading(0, 360), speed(180, 480);
    const refdata::ModelId model = refdata::modelId("B739");
    for (int i = 0; i < kAircraft; ++i) {
        AcIdentity id;
        id.callsign = fmt::format("BEN{}", i);
        id.modelCode = model;
        gEngine.liveTable.push_back(live::makeLiveAc(id, 20000 + static_cast<std::uint32_t>(i), gEngine.rng));
        LiveAc& ac = gEngine.liveTable.back();
        ac.simState = SimState::Active;
        ac.objectId = 1000 + static_cast<std::uint32_t>(i);
        ac.phase = Phase::Flying;
        ac.lat = kCentreLat + offset(rng), ac.lon = kCentreLon + offset(rng), ac.alt = 10000;
        const double h = heading(rng) * core::kRadPerDeg, v = speed(rng);
        ac.heading = h;
        for (int k = 0; k < 150; ++k) {
            Sample s;
            const double nm = v * 8.0 * k / 3600.0;
            s.lat = ac.lat + nm / 60.0 * std::cos(h);
            s.lon = ac.lon + nm / 60.0 * std::sin(h) / std::cos(ac.lat * core::kRadPerDeg);
            s.alt = 10000 + 10.0 * k, s.speed = s.tas = v, s.track = h * core::kDegPerRad, s.vs = 75;
            s.airborne = true;
            s.tick = 800 * k;
            ac.stream.push_back(s);
        }
        ac.lastTimestamp = 1e9;
        if (i < taxiing) {
            ac.stream.clear();
            ac.phase = Phase::Taxi;
            ac.onGround = true;
            ac.alt = 841;
            double lat = ac.lat, lon = ac.lon, hdg = h;
            for (int k = 0; k < 150; ++k) {
                Sample s;
                s.lat = lat, s.lon = lon, s.alt = 0, s.speed = s.tas = 15, s.track = hdg / core::kRadPerDeg;
                s.tick = 1300 * k;
                ac.stream.push_back(s);
                hdg += (k % 2 ? 1 : -1) * (30 + 10 * (k % 6)) * core::kRadPerDeg;
                lat += 100.0 / 111132.95 * std::cos(hdg);
                lon += 100.0 / (111132.95 * std::cos(lat * core::kRadPerDeg)) * std::sin(hdg);
            }
        }
    }
}

} // namespace orv::bench

namespace {

using orv::bench::fillLiveTable;

// churn: every 10 frames the simulator removes a record from the middle of the table and a new
// aircraft arrives, the paced rates of removal and more than those of creation.
void engineFrames(benchmark::State& state, int taxiing, bool churn = false) {
    static Home home;
    std::mt19937 rng(42);
    fillLiveTable(rng, taxiing);
    // Room for all of them, so that the buffer's arrivals do not push the farthest ones out.
    const int maxLive = params::gParams.MAX_LIVE_SEL;
    params::gParams.MAX_LIVE_SEL = 2 * kAircraft;
    // Two new points a frame, as the queue gives them at most.
    feed::TrafficSample next;
    next.modelCode = refdata::modelId("B739");
    next.airborne = true, next.altitude = 12000, next.groundSpeed = 300, next.trueAirspeed = 300;
    std::vector<double> times;
    times.reserve(1 << 20);
    double feedTime = 1e9 + 10;
    std::uint64_t frames = 0, allocated = 0;
    for (auto _ : state) {
        {
            std::lock_guard lock(feed::gTraffic.trafficLock);
            feed::gTraffic.acceptTraffic = true;
            for (int k = 0; k < 2; ++k) {
                const auto i = static_cast<std::size_t>(frames * 2 + static_cast<std::uint64_t>(k)) %
                               gEngine.liveTable.size();
                const LiveAc& ac = gEngine.liveTable[i];
                next.hexid = ac.hexid;
                next.callsign = ac.callsign;
                next.latitude = ac.lat + 0.3, next.longitude = ac.lon;
                next.timestamp = feedTime;
                feed::gTraffic.trafficQueue.push(feed::TrafficSample(next));
            }
        }
        // The removal comes as the simulator's event and the arrival as a new record, as the
        // frame's event and decode steps make them; the replacement flies on as the removed one.
        std::optional<LiveAc> arrival;
        std::uint32_t removedObject = 0;
        if (churn && frames % 10 == 0) {
            auto& t = gEngine.liveTable;
            const LiveAc& leaving = t[(frames / 10 * 7919) % t.size()];
            removedObject = leaving.objectId;
            arrival = leaving;
            arrival->hexid += 100000;
            arrival->objectId += 100000;
        }
        const auto start = std::chrono::steady_clock::now();
        if (arrival) {
            onRemoved(removedObject);
            gEngine.liveTable.push_back(std::move(*arrival));
        }
        feedTime += 0.01;
        allocations = 0;
        countAllocations = true;
        engineFrame();
        const auto end = std::chrono::steady_clock::now();
        countAllocations = false;
        allocated += allocations;
        const double s = std::chrono::duration<double>(end - start).count();
        state.SetIterationTime(s);
        times.push_back(s);
        ++frames;
    }
    std::sort(times.begin(), times.end());
    const double mean = std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(times.size());
    state.counters["mean_us"] = mean * 1e6;
    state.counters["p99_us"] = times[times.size() * 99 / 100] * 1e6;
    state.counters["max_us"] = times.back() * 1e6;
    state.counters["allocs_per_frame"] = static_cast<double>(allocated) / static_cast<double>(frames);
    std::size_t active = 0, curving = 0;
    for (const auto& ac : gEngine.liveTable) {
        active += ac.simState == SimState::Active;
        curving += ac.curve.has_value();
    }
    state.counters["active_at_end"] = static_cast<double>(active);
    state.counters["records_at_end"] = static_cast<double>(gEngine.liveTable.size());
    state.counters["on_curves_at_end"] = static_cast<double>(curving);
    live::reset();
    sim::reset();
    params::gParams.MAX_LIVE_SEL = maxLive;
}

void BM_EngineFrame1000InFlight(benchmark::State& state) {
    engineFrames(state, 0);
}
void BM_EngineFrame500Flying500TaxiingOnCurves(benchmark::State& state) {
    engineFrames(state, 500);
}
void BM_EngineFrame1000WithRemovalsAndArrivals(benchmark::State& state) {
    engineFrames(state, 0, true);
}
BENCHMARK(BM_EngineFrame1000InFlight)->UseManualTime()->Iterations(30000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EngineFrame1000WithRemovalsAndArrivals)
    ->UseManualTime()
    ->Iterations(30000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EngineFrame500Flying500TaxiingOnCurves)
    ->UseManualTime()
    ->Iterations(30000)
    ->Unit(benchmark::kMicrosecond);

} // namespace
