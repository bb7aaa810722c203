// The airport scan: the simulators' scenery files (BGL) into airport files.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "airportfile/airportfile.h"

namespace orv::scan {

namespace fs = std::filesystem;

// ---- BGL files --------------------------------------------------------------------------------
// Pure decoding: no logging, no global state. What a reader has to say comes back as text lines
// for the scan log.

inline constexpr std::uint32_t kAirportSectionType = 3;
inline constexpr std::uint16_t kAirportRecord = 0x0056, kAirportRecord2024 = 0x0113;
inline constexpr std::uint16_t kHelipadRecord = 0x0026, kParkingListRecord = 0x00E7;
inline constexpr std::size_t kMaxRecordSteps = 9000;
inline constexpr std::uintmax_t kMaxBglBytes = std::uintmax_t{256} << 20; // larger files are not read

// Packed ICAO code: value >> 5 in base 38, least significant digit first; none when invalid.
std::optional<std::string> decodeIcao(std::uint32_t packed);
// Millimetres to feet; 0 outside -20..10000 ft.
std::int32_t altitudeFeet(std::int32_t millimetres) noexcept;
double bglLongitude(std::uint32_t value) noexcept;
double bglLatitude(std::uint32_t value) noexcept;
// A record's size in bytes, from its header at word `at`: the 16-bit halves at bytes 2 and 4.
std::uint32_t decodeSizeAtBoundary(std::span<const std::uint32_t> words, std::size_t at);
// A parking entry's name: "" for 0 and 11, "r" .. "g" for 1..10, "A".."Z" for 12..37.
std::string_view parkingName(std::uint32_t code) noexcept;

// One airport of a file, as the file has it.
struct BglAirport {
    std::string code; // decoded and upper case: 3 or 4 characters
    std::int32_t altitudeMm = 0, altitudeFt = 0;
    std::vector<airportfile::Stand> stands; // in file order, helipads after the stands
    int helipads = 0;
    int parkingEntries = 0; // in the parking lists, with fuel and the other kinds that are no stands
};
struct BglContents {
    std::vector<BglAirport> airports;
    bool notRecognised = false;     // an airport record whose code did not decode, or of a form not read
    std::vector<std::string> notes; // for the scan log, in order
};

// The quick check on a file's header and section table: does it hold an airport section?
bool hasAirportSection(const fs::path& path);
bool hasAirportSection(std::span<const unsigned char> head, std::uintmax_t fileSize);
// The file's whole 32-bit words (a tail of fewer than 4 bytes is not read); none if unreadable or
// larger than kMaxBglBytes.
std::optional<std::vector<std::uint32_t>> readBglWords(const fs::path& path);
// Every airport of a file's words. Each read is bounded by the words: a broken size or count ends
// that record or section with a note, never a read beyond them.
// `name` (the file's path) goes into the notes.
BglContents decodeBgl(std::span<const std::uint32_t> words, bool msfs2024, std::string_view name = {});

// ---- Publishers -------------------------------------------------------------------------------

struct ManifestInfo {
    std::string manufacturer, creator, title;
    bool valid = false;
};
struct PublisherInfo {
    std::string publisher, manufacturer, creator, stem;
};

// The scan log: lines from every worker, kept in the order received and written at the end.
class ScanLog {
  public:
    static constexpr std::size_t kMaxLines = 200000;
    void add(std::string line);
    std::vector<std::string> lines() const;
    void clear();
    bool save(const fs::path& file) const; // false when it could not be written

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::size_t dropped_ = 0;
};

ManifestInfo readManifest(const fs::path& file);
bool manifestExists(const fs::path& file);
// The manifest of the package above `path` (the folder right below "Community"), else the nearest
// one on the way up to it; invalid when there is none.
ManifestInfo searchManifest(const fs::path& path, ScanLog& log);
// The archive's name of the publisher of the scenery file at `path`; empty when none is found.
PublisherInfo findPublisher(const fs::path& path, ScanLog& log);
// The archive's spelling of a publisher's name as it appears in a path or manifest; empty if unknown.
std::string publisherOf(std::string_view name);

// ---- The scan ---------------------------------------------------------------------------------

struct ScanProgress {
    std::atomic<int> foldersDone{0}, foldersTotal{0};
    std::atomic<int> filesRead{0}, airportsFound{0}, generated{0}, linked{0};
    std::atomic<bool> running{false};
};
extern ScanProgress gScanProgress;

// Excluded from an add-on scan: a path of 250 characters or more, or one naming a folder that
// holds no airports (base, tutorials, aircraft ...).
bool isExcludedFolder(std::string_view path);
// A scenery file the scan leaves alone: statics, "afcad updates" on an add-on scan, heliports.
bool isExcludedFile(std::string_view path, bool addonScan);

// The whole scan of the simulator's Community (and, for MSFS 2020, Official) folders; true when
// it found add-on airports.
bool scanAirports(bool automatic = false);
// The scan of the given folders (the work of scanAirports once it knows them); true when
// airports/my_thirdparty holds files afterwards.
bool scanFolders(const std::vector<fs::path>& folders, bool automatic = false);
// Whether the set of installed add-ons differs from the one of the last scan.
bool addonsChanged();
// Files in airports/my_thirdparty and airports/my_simaddon.
std::size_t airportFileCount();

} // namespace orv::scan
