// Decoding real recorded traffic lines, as the Traffic Reader does for each datagram.
#include <cstring>

#include <benchmark/benchmark.h>

#include "core/core.h"
#include "feed/feed.h"
#include "params/params.h"

namespace {

using namespace orv;

std::vector<std::string> loadLines(const char* name) {
    std::vector<std::string> lines;
    core::readAllLines(fs::path(ORV_SOURCE_DIR) / "data" / "recordings" / name, lines, 4096);
    return lines;
}

void decodeRecording(benchmark::State& state, const char* file, core::LatLon airport, double elevation) {
    const auto lines = loadLines(file);
    if (lines.empty()) {
        state.SkipWithError("recording not found");
        return;
    }
    auto reader = std::make_unique<feed::TrafficReader>();
    reader->setArea({airport, elevation, airport});
    params::gParams.RANGE = 100;
    feed::setAcceptTraffic(true);
    std::vector<feed::TrafficSample> sink(2);
    std::size_t i = 0, n = 0;
    for (auto _ : state) {
        const auto& l = lines[i];
        // The datagram arrives in the reader's own buffer; decode from there as the loop does.
        std::memcpy(reader->buffer, l.data(), l.size());
        reader->buffer[l.size()] = 0;
        reader->line = reader->buffer;
        reader->lineLength = l.size();
        reader->processLine();
        // Keep the queue short, as the engine does by taking two samples a frame.
        if (++n % 2 == 0) feed::takeTraffic(sink.data(), sink.size());
        if (++i == lines.size()) i = 0;
    }
    feed::takeTraffic(sink.data(), sink.size());
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
    state.counters["queued"] = static_cast<double>(reader->counts.queued.load());
    state.counters["failed"] = static_cast<double>(reader->counts.failed.load());
}

void BM_DecodeKmsp(benchmark::State& state) {
    decodeRecording(state, "kmsp-n899dn.rttfc", {44.8820, -93.2218}, 841);
}
void BM_DecodeLszh(benchmark::State& state) {
    decodeRecording(state, "lszh-3flights.rttfc", {47.4647, 8.5492}, 1416);
}

BENCHMARK(BM_DecodeKmsp);
BENCHMARK(BM_DecodeLszh);

} // namespace

BENCHMARK_MAIN();
