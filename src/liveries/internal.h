// Inside the livery scan: its steps and the parsers of one file, for the scan's own files, its
// tests, benchmarks and fuzzing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "liveries/liveries.h"

namespace orv::liveries {

std::vector<fs::path> collectAutomaticFolders(const fs::path& community);
std::vector<fs::path> collectManualFolders();
[[nodiscard]] bool scanFolders(const std::vector<fs::path>& folders);
// The parsers of one file, run as tasks; `rank` is the folder's.
std::vector<LiveryData> searchLiveriesInFile(std::uint16_t rank, const fs::path& path);
std::vector<LiveryData> searchLiveriesInIvaoFile(std::uint16_t rank, const fs::path& path);
// The parser of one file's lines, for tests and fuzzing.
std::vector<LiveryData> parseAircraftCfg(std::uint16_t rank, const std::string& path,
                                         const std::vector<std::string>& lines);
void clearTitleSet();

} // namespace orv::liveries
