// Inside the livery scan: its steps and the parsers of one file, for the scan's own files, its
// tests, benchmarks and fuzzing.
#pragma once

#include <functional>
#include <string_view>

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
// A file's lines, given to `fn` one at a time on each call (the parser reads a file twice, so
// that only one section is in memory at once); false when they could not be read.
using LineSource = std::function<bool(const std::function<bool(std::string_view)>& fn)>;
// A section longer than this is no livery: it is reported and skipped.
inline constexpr std::size_t kMaxSectionLines = 2000;
std::vector<LiveryData> parseAircraftCfg(std::uint16_t rank, const std::string& path,
                                         const LineSource& lines);
// The parser of one file's lines, for tests and fuzzing.
std::vector<LiveryData> parseAircraftCfg(std::uint16_t rank, const std::string& path,
                                         const std::vector<std::string>& lines);
void clearTitleSet();

} // namespace orv::liveries
