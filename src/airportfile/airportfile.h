// Airport files, half-hour schedules and what is learned into them.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/geo.h"
#include "refdata/refdata.h"

namespace pugi {
class xml_document;
class xml_node;
} // namespace pugi

namespace orv::airportfile {

namespace fs = std::filesystem;

void flushLiveAirports(); // what was learned, written before the program stops

// ---- Half hours of one weekday ----------------------------------------------------------------

// Bit h is the half hour from h x 30 minutes UTC; the upper 16 bits stay clear.
class HourBits {
  public:
    static constexpr int kHalfHours = 48;
    constexpr HourBits() = default;
    constexpr explicit HourBits(std::uint64_t word) : word_(word & kMask) {}
    constexpr bool test(int h) const noexcept { return h >= 0 && h < kHalfHours && (word_ >> h & 1u); }
    constexpr void set(int h) noexcept {
        if (h >= 0 && h < kHalfHours) word_ |= std::uint64_t{1} << h;
    }
    constexpr bool empty() const noexcept { return word_ == 0; }
    int count() const noexcept;
    constexpr std::uint64_t word() const noexcept { return word_; }
    friend constexpr bool operator==(HourBits, HourBits) = default;

  private:
    static constexpr std::uint64_t kMask = (std::uint64_t{1} << kHalfHours) - 1;
    std::uint64_t word_ = 0;
};

std::optional<int> parseHour(std::string_view text, std::string_view whole);
HourBits hours2bitset(std::string_view text);           // problems are logged
std::optional<std::string> bitset2hours(HourBits bits); // "17" or "8:12"; nothing unless one run
std::string bitset2list(HourBits bits);                 // "3,7,20", for log lines

// The time of static parking: weekday 1..7 (Monday 1) and half hour 0..47, UTC.
struct DayHalfHour {
    int day = 1, halfHour = 0;
    friend bool operator==(DayHalfHour, DayHalfHour) = default;
};
DayHalfHour dayHalfHour(std::int64_t unixSeconds);
DayHalfHour nowDayHalfHour(); // by the process clock, so virtual time in tests and scenario runs
DayHalfHour stepBack(DayHalfHour t, int halfHours); // wraps over midnight to the day before

// ---- Airport files ----------------------------------------------------------------------------

struct StandOption {
    refdata::AirlineId airline = 0;
    refdata::ModelId type = 0;
    std::string reg, cs, cs2;
    HourBits hours;
    std::uint32_t number = 0; // from 1 in its stand; 0: removed
    std::uint32_t day = 0;    // 1..7
    std::uint32_t archived = 0, real = 0;
    bool cpl = false;
};

struct Stand {
    std::vector<StandOption> options;
    std::string id;
    std::vector<std::uint32_t> adjacent; // numbers of the stands that overlap this one
    double latitude = 0, longitude = 0;
    double headingRad = 0;
    double radiusNm = 0;
    std::uint32_t number = 0; // 1..N in list order
    bool manual = false, radiusChange = false, cargoChange = false;
    bool taken = false, reserved = false, neighbourTaken = false; // run-time
    bool cargo = false, ramp = false, heli = false;
};

struct Airport {
    std::string airportName, publisher;
    std::int32_t altitudeFt = 0;
};

// One airport as a generator or the saver writes it.
struct Apf {
    refdata::AirportCode code;
    std::string airportName, bglPath, publisher, manufacturer, creator;
    std::int32_t qfReal = -1, qfSoft = -1, altitudeFt = 0;
    bool handmade = false;
    std::vector<Stand> stands;
};

// The eight settings a learned file carries for its airport.
struct AirportSettings {
    std::int32_t maxLiveSel = 0, maxFit = 0, parkingPercentage = 0, range = 0;
    bool autoRange = false, initialLoadOnly = false, parkSoft = false, week = false;
    friend bool operator==(const AirportSettings&, const AirportSettings&) = default;
};
AirportSettings currentSettings();

// The park airport's file as read; written only on the thread that switches the park airport.
struct ParkAirportFile {
    refdata::AirportCode code; // empty: no park airport
    core::LatLon position;
    Airport airport;
    std::vector<Stand> stands;
    std::vector<refdata::Runway> runways; // for the map
    bool handmade = false;
    std::int32_t qfReal = -1, qfSoft = -1, rtTrafficWeek = 0;
    std::int32_t updateCount = 0;
    AirportSettings settingsAtLoad;
    std::string loadedFrom;     // the file that was read, relative to the program folder
    bool learnedBroken = false; // its learned file did not load: it is kept as *.0.xml
    void reset() { *this = {}; }
};
extern ParkAirportFile gPark;

inline constexpr double kNmPerMetre = 1.0 / 1852.0;

// Learned: differences and options; Generated: stand geometry (a scan's output); Archived: the
// geometry and a traffic week's options, as the data site serves them.
enum class WriteMode { Learned = 0, Generated = 1, Archived = 2 };
enum class SimVersion { Msfs2020 = 1, Msfs2024 = 2 };

// Reads the airport file at `xml` (relative; a path on the data site unless it starts with
// "airports") and its learned file into gPark; empty on success, else why not.
std::string readApf(const std::string& xml);
// The stands of an airport document; throws UserErrorException 93/94 for a broken stand list.
std::vector<Stand> readStands(const pugi::xml_document& doc, std::uint32_t archived);
// The file of an airport along the folder order, relative to the program folder; empty if none.
std::string findApf(const refdata::AirportCode& code);
bool hasApf(const refdata::AirportCode& code);
std::string learnedPath(std::string_view xml, std::string_view publisher);
std::pair<std::int32_t, std::int32_t> qualityFactors(const std::vector<Stand>& stands);
std::string qualityText(std::int32_t qfReal, std::int32_t qfSoft);
// Numbers stands 1..N and links the ones whose circles overlap.
void numberAndLinkStands(std::vector<Stand>& stands);
bool writeApf(const Apf& apf, const fs::path& path, WriteMode mode, SimVersion sim);
// The stand nearest to `position` in the airport's file, in nautical miles; 100 when no file.
double closestStand(const refdata::AirportCode& code, core::LatLon position, std::string& standId);
// Downloads a file of the data site (its path below downloads/MSFS/) to `target`.
std::string downloadApf(const std::string& xml, const fs::path& target);

// ---- Learning ---------------------------------------------------------------------------------

// Merges the learned file at `path` (relative) into gPark: its settings, stand changes, manual
// stands and options; a handmade one replaces the stands. A broken one is kept as *.0.xml.
void readLearned(const std::string& path);
// Writes what gPark learned to airports/learned/<publisher>/CODE.xml; false when it failed.
bool saveUpdatedApf(SimVersion sim);
// The eight settings back to what they were before the park airport's files set them.
void restoreAirportSettings();
// Removes the temporary files that saves of `path` cut off by a crash left beside it.
void removeLeftoverTemps(const fs::path& path);
// Copies NAME.EXT to NAME.0.EXT beside it; false when there was nothing or the copy failed.
bool save1GenerationOf(const fs::path& path);

// What learning needs of a live aircraft on a stand.
struct LearnedAircraft {
    std::string reg, cs;
    refdata::AirlineId airline = 0;
    refdata::ModelId type = 0;
    bool longStay = false; // a cargo stand's stay: options join over up to 12 half hours
    bool heavy = false;    // 8 half hours; others 6
};
enum class LearnKind { Arrival = 0, FoundAtSpawn = 1, Departure = 2, Removed = 3 };
// A live aircraft seen on a stand at `now`: a new option, or the one it is in grown to now.
void addRealStandOption(std::uint32_t standNumber, const LearnedAircraft& aircraft, LearnKind kind,
                        DayHalfHour now);
bool addOption(Stand& stand, const LearnedAircraft& a, DayHalfHour now, bool completed);
bool extendOption(Stand& stand, std::size_t index, DayHalfHour prev, DayHalfHour now,
                  const LearnedAircraft& a, bool completed);

} // namespace orv::airportfile
