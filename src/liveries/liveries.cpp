#include "liveries/liveries.h"

#include <fmt/format.h>
#include <pugixml.hpp>

#include "core/core.h"

namespace orv::liveries {

bool liveriesFileExists() {
    const fs::path file = liveriesFile();
    std::error_code ec;
    if (!fs::exists(file, ec)) return false;
    // A damaged file is kept for a look and scanned anew, instead of stopping every start.
    pugi::xml_document doc;
    const auto r = doc.load_file(file.c_str());
    if (r && doc.child("root").child("liveries")) return true;
    fs::path kept = file;
    kept.replace_extension(".0.xml");
    fs::copy_file(file, kept, fs::copy_options::overwrite_existing, ec);
    fs::remove(file, ec);
    core::log(fmt::format("{} is damaged ({}): kept as {}, your liveries will be scanned again",
                          file.string(), r ? "no <liveries> section" : r.description(),
                          kept.filename().string()));
    return false;
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
