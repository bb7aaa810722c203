// The airport scan: a tree of 10,000 BGL files of which 50 hold an airport, against reading the
// first 4 KiB of each of the same files; and decoding one real airport.
#include <fstream>

#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <unistd.h>

#include "core/core.h"
#include "params/params.h"
#include "recording.h"
#include "refdata/refdata.h"
#include "scan/scan.h"
#include "scenario.h"

namespace {

namespace fs = std::filesystem;
using namespace orv;

struct Tree {
    fs::path dir;
    std::vector<fs::path> files;
    Tree() {
        dir = fs::temp_directory_path() / fmt::format("orv-scan-bench-{}", ::getpid());
        (void)scenario::prepareHome(fs::path(ORV_PROGRAM_DIR) / "input",
                                    fs::path(ORV_SOURCE_DIR) / "data/liveries/Community", dir);
        (void)tools::writeSceneryTree(dir / "sim", fs::path(ORV_SOURCE_DIR) / "data", 10000);
        for (const auto& e : fs::recursive_directory_iterator(dir / "sim"))
            if (e.path().extension() == ".bgl") files.push_back(e.path());
        core::openLog(dir / "Log.txt");
    }
    ~Tree() {
        core::closeLog();
        std::error_code ec;
        fs::remove_all(dir, ec);
    }
};
Tree& tree() {
    static Tree t;
    return t;
}

// What the scan is measured against: the first 4 KiB of every file, read through the same tree.
void BM_ReadFirst4KiBOfEachFile(benchmark::State& state) {
    auto& t = tree();
    std::vector<char> buffer(4096);
    std::size_t bytes = 0;
    for (auto _ : state) {
        for (const auto& e : fs::recursive_directory_iterator(t.dir / "sim")) {
            if (!e.is_regular_file()) continue;
            std::ifstream in(e.path(), std::ios::binary);
            in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
            bytes += static_cast<std::size_t>(in.gcount());
        }
    }
    state.counters["files"] = static_cast<double>(t.files.size());
    benchmark::DoNotOptimize(bytes);
}
BENCHMARK(BM_ReadFirst4KiBOfEachFile)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_ScanTenThousandFiles(benchmark::State& state) {
    auto& t = tree();
    for (auto _ : state) (void)scan::scanFolders({t.dir / "sim" / "Official", t.dir / "sim" / "Community"});
    state.counters["files"] = static_cast<double>(t.files.size());
    state.counters["airports"] = scan::gScanProgress.airportsFound.load();
    state.counters["read_whole"] = scan::gScanProgress.filesRead.load();
}
BENCHMARK(BM_ScanTenThousandFiles)->Unit(benchmark::kMillisecond)->Iterations(5)->UseRealTime();

void BM_DecodeEgtk(benchmark::State& state) {
    const auto words = scan::readBglWords(fs::path(ORV_SOURCE_DIR) / "data/scenery/egtk-a39a6c8a.bgl");
    std::size_t stands = 0;
    for (auto _ : state) {
        const auto got = scan::decodeBgl(*words, false);
        stands = got.airports.at(0).stands.size();
        benchmark::DoNotOptimize(stands);
    }
    state.counters["stands"] = static_cast<double>(stands);
}
BENCHMARK(BM_DecodeEgtk)->Unit(benchmark::kMicrosecond);

} // namespace
