// Liveries: the scan of installed AI packages, the store, the registration lists, and matching.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "refdata/refdata.h"

namespace orv::liveries {

namespace fs = std::filesystem;

// ---- Records ---------------------------------------------------------------------------------

// One [fltsim.x] section of an aircraft.cfg.
struct LiveryData {
    std::string title;
    std::string regcode;
    refdata::AirlineId airline = 0;
    refdata::ModelId model = 0;
    std::uint16_t folder = 0; // rank of the scanned folder, 1..10; 0 when read back from the file
    bool cargo = false;
    bool operator==(const LiveryData&) const = default;
};

// One livery of a registration list: its registrations, or none for a title not to use.
struct RegcodeRecord {
    std::string title;
    std::vector<std::string> regcodes;
    bool special = false;
};

// ---- Registration lists ----------------------------------------------------------------------

[[nodiscard]] bool readAigRegcodes(const fs::path& xml, std::vector<RegcodeRecord>& records);
[[nodiscard]] bool readRegcodeFiles(const fs::path& folder, std::vector<RegcodeRecord>& records);
// One line of a my_regcodes file; false when it is not a record (wrongLength: a bad registration).
[[nodiscard]] bool parseRegcodeLine(std::string_view line, RegcodeRecord& out, std::string& wrongLength);
void readDontUseTitles();
bool dontUse(const std::string& title);

// ---- Reports of a scan and of the processing -------------------------------------------------

enum class Report {
    InvalidAirlineCodes,
    InvalidAircraftCodes,
    Fixes,
    InvalidAircraftCfgFiles,
    IncompleteSections,
    NoFltsimSection,
    Conversions,
    InlineRegcodes,
    OfflineRegcodes,
    Count
};
void report(Report which, std::string line);
std::vector<std::string> reportLines(Report which);
void clearReports();
fs::path reportPath(Report which);
// The report files and the summary lines in the log.
void writeScanReports();

// ---- The store -------------------------------------------------------------------------------

using TitleViews = std::vector<std::string_view>;
// Lets sets and maps of strings be searched with a view, without making a string.
struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};
using StringSet = std::unordered_set<std::string, StringHash, std::equal_to<>>;
struct TitleEntry {
    std::string title;
    bool cargo = false;
};

// Built at start from LiveriesScanned.xml; read without locks afterwards.
struct Store {
    std::vector<LiveryData> list;
    std::unordered_map<refdata::AirlineId, std::unordered_map<refdata::ModelId, std::vector<TitleEntry>>>
        index;
    std::array<std::unordered_map<refdata::AirlineId, std::unordered_map<refdata::ModelId, TitleViews>>, 2>
        airlineTitles;
    std::array<std::unordered_map<refdata::ModelId, TitleViews>, 2> genericTitles;
    std::unordered_map<std::string_view, std::string_view> titles; // every installed title, by itself
    std::unordered_map<std::string_view, refdata::AirlineModelKey> titleKeys; // its airline and type
    std::unordered_map<std::string, std::string_view, StringHash, std::equal_to<>> regcodeTitles;
    std::set<std::string, std::less<>> specialRegcodes, uniqueRegcodes;
    TitleViews specialTitles;
    std::array<std::vector<refdata::ModelId>, 3> categoryModels; // Light, Buzjets, Rotorcraft
    std::unordered_map<refdata::ModelId, std::vector<refdata::ModelId>> similarInstalled;
    std::unordered_map<refdata::AirlineId,
                       std::unordered_map<refdata::ModelId, std::vector<refdata::ModelId>>>
        similarByAirline;
    bool processed = false;
    void reset();
};
extern Store gStore;

fs::path liveriesFile(); // output/LiveriesScanned.xml
void writeLiveries();
void readLiveries(); // throws UserErrorException 51, 52, 533, 999
void updateLiveriesFromDbase();
// The work after a scan: update, prioritise, sort, write, reports. `folders` scanned.
void afterScan(std::size_t folders);
void processLiveries();
std::string_view titleInstalled(std::string_view title);
// The airline and type of an installed livery that carries this registration.
std::optional<refdata::AirlineModelKey> registrationKey(std::string_view reg);
[[nodiscard]] bool applyAigRegcodes(); // false when the shipped list can't be opened
void applyRegcodeFiles();

// ---- Matching --------------------------------------------------------------------------------

// What matching needs of an aircraft; the live and static records carry these.
struct MatchAircraft {
    refdata::AirlineModelKey key = 0;
    std::string_view regcode;
    refdata::Category category = refdata::Category::Light;
    bool cargo = false;
    std::string_view title; // a view into the store; empty until matched
    std::int8_t step = -1;  // the ladder's rung that matched
    bool fsltl = false;
    // For the log, in fixed room so that a match allocates nothing for it; cut when longer.
    std::array<char, 64> description{};
    void describe(std::string_view text) noexcept {
        const auto n = std::min(text.size(), description.size() - 1);
        text.copy(description.data(), n);
        description[n] = '\0';
    }
};
refdata::AirlineId keyAirline(refdata::AirlineModelKey key) noexcept;
refdata::ModelId keyModel(refdata::AirlineModelKey key) noexcept;

void matchLiveLivery(MatchAircraft& aircraft);
[[nodiscard]] bool matchStaticLivery(MatchAircraft& aircraft, std::string_view standName, bool standCargo);
const std::vector<refdata::ModelId>& similarOfAirline(refdata::AirlineModelKey key);
void logMatchingSummary();
void refuseTitle(std::string_view title); // the simulator could not create it
extern std::array<std::int32_t, 7> gMatchStepCount;
void resetMatching();
void seedMatching(std::uint32_t seed); // the random choices, for tests

// ---- The scan --------------------------------------------------------------------------------

struct ScanProgress {
    std::atomic<std::uint64_t> filesFound{0}, filesDone{0};
};
extern ScanProgress gScanProgress;
void scanLiveries();

// ---- The start sequence's view ---------------------------------------------------------------

bool liveriesFileExists();
void scan();
void read(); // the scanned liveries into memory
std::size_t count();
void saveFailedList();
void reset();

} // namespace orv::liveries
