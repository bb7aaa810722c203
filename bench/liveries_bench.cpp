// The livery scan of a large generated corpus, against cat reading the same files in the same
// run, and one live match against the maps that corpus gives.
#include <cstdlib>
#include <random>
#include <unistd.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include "core/core.h"
#include "liveries/internal.h"
#include "params/params.h"
#include "recording.h"
#include "refdata/refdata.h"

namespace {

namespace fs = std::filesystem;
using namespace orv;

// 20,000 aircraft.cfg files with 100,000 sections, made once per run, and the reference data.
struct Corpus {
    fs::path dir;
    Corpus() {
        dir = fs::temp_directory_path() / fmt::format("orv-liveries-bench-{}", ::getpid());
        fs::create_directories(dir / "input");
        core::gPaths.programFolder = dir;
        core::gPaths.dataFolder = dir;
        fs::copy_file(fs::path(ORV_PROGRAM_DIR) / "input/dbase.enc", dir / "input/dbase.enc");
        if (!refdata::loadDbase(dir / "input/dbase.enc")) throw std::runtime_error("no dbase");
        tools::liveriesMain({(dir / "Community").string(), "--files", "20000"});
    }
    ~Corpus() {
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
    std::vector<fs::path> folders() const {
        std::vector<fs::path> f;
        for (const auto& e : fs::directory_iterator(dir / "Community")) f.push_back(e.path());
        std::sort(f.begin(), f.end());
        return f;
    }
};
Corpus& corpus() {
    static Corpus c;
    return c;
}

void BM_CatCorpus(benchmark::State& state) {
    const auto cmd = fmt::format("find '{}' -name aircraft.cfg -exec cat {{}} + > /dev/null",
                                 (corpus().dir / "Community").string());
    for (auto _ : state)
        if (std::system(cmd.c_str()) != 0) state.SkipWithError("cat failed");
    state.counters["files"] = 20000;
}
BENCHMARK(BM_CatCorpus)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_ScanCorpus(benchmark::State& state) {
    const auto folders = corpus().folders();
    std::size_t liveries = 0;
    for (auto _ : state) {
        liveries::gStore.reset();
        if (!liveries::scanFolders(folders)) state.SkipWithError("no liveries");
        liveries::readLiveries();
        liveries = liveries::gStore.list.size();
    }
    state.counters["files"] = 20000;
    state.counters["liveries"] = static_cast<double>(liveries);
}
BENCHMARK(BM_ScanCorpus)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_MatchLiveLivery(benchmark::State& state) {
    liveries::gStore.reset();
    if (!liveries::scanFolders(corpus().folders())) state.SkipWithError("the corpus did not scan");
    liveries::processLiveries();
    params::gParams.MATCHING_DEPTH = 4;
    params::gParams.RANDOM = true;
    // 100,000 aircraft of the corpus's airlines and types, some of them not installed.
    const char* types[] = {"B738", "B739", "A320", "A321", "B77W", "B789",
                           "B752", "B763", "A388", "E190", "C172", "A359"};
    const char* airlines[] = {"DAL", "UAL", "AAL", "KLM", "DLH", "SWR", "BAW",
                              "ACA", "CAI", "FDX", "AFR", "EZY", "RYR", "PVT"};
    std::mt19937 rng(42);
    std::vector<liveries::MatchAircraft> aircraft(100000);
    std::vector<std::string> regcodes(aircraft.size());
    for (std::size_t i = 0; i < aircraft.size(); ++i) {
        auto& a = aircraft[i];
        const refdata::ModelId m = refdata::modelId(types[rng() % std::size(types)]);
        a.key = refdata::airlineModelKey(refdata::airlineId(airlines[rng() % std::size(airlines)]), m);
        a.category = refdata::category(m);
        a.cargo = rng() % 10 == 0;
        regcodes[i] = fmt::format("N{}XY", 100 + rng() % 900);
        a.regcode = regcodes[i];
    }
    std::size_t i = 0, matched = 0;
    for (auto _ : state) {
        auto& a = aircraft[i++ % aircraft.size()];
        liveries::matchLiveLivery(a);
        matched += !a.title.empty();
        benchmark::DoNotOptimize(a.title);
    }
    state.counters["matched%"] = 100.0 * static_cast<double>(matched) / static_cast<double>(i);
}
BENCHMARK(BM_MatchLiveLivery)->Iterations(100000);

} // namespace
