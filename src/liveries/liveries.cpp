#include "liveries/liveries.h"

#include "core/core.h"

namespace orv::liveries {

bool liveriesFileExists() {
    std::error_code ec;
    return fs::exists(liveriesFile(), ec);
}

void scan() {
    scanLiveries();
}

void read() {
    processLiveries();
}

std::size_t count() {
    std::size_t n = 0;
    for (const auto& [airline, models] : gStore.index)
        for (const auto& [model, entries] : models) n += entries.size();
    return n;
}

void saveFailedList() {
    logMatchingSummary();
}

// The store outlives a restart: it is built once per process.
void reset() {
    clearReports();
    gScanProgress.filesFound = 0;
    gScanProgress.filesDone = 0;
}

} // namespace orv::liveries
